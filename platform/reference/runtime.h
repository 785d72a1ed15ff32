// How a host drives the reference platform's runtime: first state, main loop, clock, scheduler.
//
// The platform has one instance per process. Everything here, and in the driver headers of the services beside it (each
// named as its source), is called on the main thread while it holds the scheduling locks, unless a declaration says
// otherwise. What only tests use stands in testing/.
#ifndef REFERENCE_RUNTIME_H
#define REFERENCE_RUNTIME_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>

namespace ref {

// ------------------------------------------------------------------------------------------------------- lifetime

// Drops everything: VRFs, interfaces, routes, events, timers, sockets, records of what was told; stepped clock at 1000
// s, first-come scheduler, in-memory store and carrier. The module must be stopped, its threads ended.
void reset();

// Whether the services keep what they were told last, as after a reset: for tests to look at. Off: it is carried out
// and forgotten, which spares a host thousands of copies that no view shows.
void keep_records(bool on);

// ------------------------------------------------------------------------------------------- main loop and clock

// Queues work for the main loop, in order. Any thread, locks held or not.
void post(std::function<void()> work);

// Has `wake` called whenever work is posted or the next deadline moves; from any thread. Null: nobody.
void set_waker(std::function<void()> wake);

// Delivers every timer that is due and every posted event, those posted meanwhile included up to a bound of 10000,
// giving other threads a turn between two. Result: how many were delivered.
size_t run_pending();

// Whether something is posted. Any thread, locks held or not.
bool work_waits();

// Monotonic platform time. The clock of the first state is stepped by tests; a real one has a scale.
std::chrono::nanoseconds now();
void clock_use_real(double scale);                        // platform seconds per real second, > 0
double clock_scale();                                     // 0 for a stepped clock
std::optional<std::chrono::nanoseconds> next_deadline();  // platform time of the next timer

// ------------------------------------------------------------------------------------------------------- scheduler

// The main thread takes and gives the scheduling locks around each turn of its loop. A test's main thread holds them
// from reset() on.
void main_acquire();
void main_release();

// Module threads that are alive; waits until none is (bounded: 10 s, then false).
size_t thread_count();
bool wait_for_threads();

// Called at every yield point, before other threads get their turn. Returns true when it did something that counts as
// other work having run. Null: none.
void set_yield_hook(std::function<bool()> hook);

}  // namespace ref

#endif  // REFERENCE_RUNTIME_H
