// What tests need of the runtime beyond runtime.h: a clock that they step, threads whose order they choose, and a loop
// that runs until nothing is left to do. No test has to sleep.
#ifndef REFERENCE_TESTING_RUNTIME_H
#define REFERENCE_TESTING_RUNTIME_H

#include <chrono>
#include <cstdint>

#include "platform/reference/runtime.h"

namespace ref {

// Delivers and lets the module's threads run until nothing is left to do: no event, no due timer, no thread that could
// run. Repeatable with a stepped clock. The condition waits of the threads must be visible: note_condition_wait()
// below.
void settle();

// A stepped clock, as after reset(), moves only by advance(): timers fire in order, settle() after each.
void clock_use_stepped();
void advance(std::chrono::nanoseconds step);

// First-come order, or a choice of the next waiting thread by a seeded generator.
void scheduler_use_fifo();
void scheduler_use_seed(uint64_t seed);

// What a wrapper of pthread_cond_wait and pthread_cond_signal tells the scheduler, so that settle() knows whether a
// thread that sleeps on a condition has been woken: about to wait, woken and running again; a signal was sent.
void note_condition_wait(const void *condition);
void note_condition_woken(const void *condition);
void note_condition_signal(const void *condition);

}  // namespace ref

#endif  // REFERENCE_TESTING_RUNTIME_H
