// What the reference platform's sources share and hosts do not see.
#ifndef REFERENCE_INTERNAL_H
#define REFERENCE_INTERNAL_H

#include <pthread.h>

#include <chrono>
#include <functional>

namespace ref {

// ------------------------------------------------------------------------------------------------- main loop, timers

// Delivers work from the main loop after a delay of platform time.
void schedule(std::chrono::nanoseconds delay, std::function<void()> work);

// Pieces of work that were ever queued.
uint64_t posts();

// Fires the first timer that is due; false when none is.
bool fire_next_timer();

// The clock's time to within some milliseconds, at a fraction of the cost; exact when it is stepped.
std::chrono::nanoseconds event_time();

// Timers that exist, armed or not.
size_t live_timers();

// Calls the waker. Any thread.
void wake_main_loop();

// --------------------------------------------------------------------------------------------------------- scheduler

// Gives the baton up until every module thread sleeps; false when that takes longer than ten seconds.
bool let_threads_sleep();

// Gives other threads their turn; true when one ran. Does not call the yield hook.
bool pass_baton();

// The main loop's, after each piece of work: the same, unless there is more to do and it has not had the baton for
// long. Each change of hands costs as much as some ten routes. With a stepped clock every piece of work is followed by
// a turn.
void offer_baton(bool more_to_do);

// Repeatable: whoever gives the baton up waits for the threads that are on their way to it, so that the order of turns
// does not depend on how fast they wake. Otherwise only threads that have arrived count.
void scheduler_set_repeatable(bool on);

// Keeps a thread from ending inside a service: calls of the system that write or wait are cancellation points, services
// are not.
class NoCancellation {
 public:
  NoCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous_); }
  ~NoCancellation() { pthread_setcancelstate(previous_, nullptr); }
  NoCancellation(const NoCancellation &) = delete;
  NoCancellation &operator=(const NoCancellation &) = delete;

 private:
  int previous_ = PTHREAD_CANCEL_DISABLE;
};

// ------------------------------------------------------------------------------------------------------------- reset

// First state of each part of the runtime.
void events_reset();
void timer_reset();
void sched_reset();
void mts_reset();
void diag_reset();
void pss_reset();
void rpm_reset();

}  // namespace ref

#endif  // REFERENCE_INTERNAL_H
