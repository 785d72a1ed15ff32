// What the reference platform's sources share and hosts do not see.
#ifndef REFERENCE_INTERNAL_H
#define REFERENCE_INTERNAL_H

#include <chrono>
#include <functional>

#include "reference.h"

namespace ref {

// Delivers work from the main loop after a delay of platform time.
void schedule(std::chrono::nanoseconds delay, std::function<void()> work);

// Fires every timer that is due; how many did.
size_t fire_due_timers();

// First state of each part of the runtime; reset() calls them in this order.
void events_reset();
void timer_reset();
void sched_reset();
void mts_reset();
void diag_reset();
void mem_reset();
void pss_reset();
void rpm_reset();

// Gives the baton up until every module thread sleeps; false when that takes longer than ten seconds.
bool let_threads_sleep();

// Calls the yield hook; true when it did something.
bool run_yield_hook();

}  // namespace ref

#endif  // REFERENCE_INTERNAL_H
