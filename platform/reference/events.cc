// The main loop's queue, and the table of the module's entry points.
//
// A turn of the loop alternates between timers and queued work, so that neither holds the other up, and lets the
// module's threads run after each. The queue takes work from any thread and has a lock of its own; everything else is
// under the scheduling locks.
#include <cstdio>
#include <deque>
#include <mutex>

#include "platform/reference/internal.h"
#include "platform/reference/module.h"
#include "platform/reference/services.h"
#include "platform/reference/testing/runtime.h"

namespace ref {
namespace {

// Work comes from any thread, so the queue has a lock of its own.
std::mutex mutex;
std::deque<std::function<void()>> queue;
uint64_t posted = 0;
std::function<void()> waker;
Module entry_points;

constexpr size_t most_per_run = 10000;  // work that makes work must not keep a turn from ending

enum class Worked { nothing, the_last, with_more_to_do };

Worked run_next_work() {
  std::function<void()> work;
  bool more = false;
  {
    const std::lock_guard guard(mutex);
    if (queue.empty()) return Worked::nothing;
    work = std::move(queue.front());
    queue.pop_front();
    more = !queue.empty();
  }
  work();
  return more ? Worked::with_more_to_do : Worked::the_last;
}

}  // namespace

void wake_main_loop() {
  std::function<void()> wake;
  {
    const std::lock_guard guard(mutex);
    wake = waker;
  }
  if (wake) wake();
}

void post(std::function<void()> work) {
  {
    const std::lock_guard guard(mutex);
    queue.push_back(std::move(work));
    posted++;
  }
  wake_main_loop();
}

bool work_waits() {
  const std::lock_guard guard(mutex);
  return !queue.empty();
}

uint64_t posts() {
  const std::lock_guard guard(mutex);
  return posted;
}

void set_waker(std::function<void()> wake) {
  const std::lock_guard guard(mutex);
  waker = std::move(wake);
}

size_t run_pending() {
  size_t delivered = 0;
  while (delivered < most_per_run) {
    const bool fired = fire_next_timer();
    if (fired) pass_baton();
    const Worked worked = run_next_work();
    if (worked != Worked::nothing) offer_baton(worked == Worked::with_more_to_do);
    if (!fired && worked == Worked::nothing) return delivered;
    delivered += (fired ? 1 : 0) + (worked != Worked::nothing ? 1 : 0);
  }
  wake_main_loop();  // the rest is for the next turn
  return delivered;
}

void settle() {
  do {
    while (run_pending() > 0) {
    }
    if (!let_threads_sleep()) std::fputs("settle: a thread has neither ended nor gone to sleep\n", stderr);
  } while (run_pending() > 0);
}

void set_module(const Module &module) { entry_points = module; }
const Module &module() { return entry_points; }

void events_reset() {
  const std::lock_guard guard(mutex);
  queue.clear();
  waker = nullptr;
  entry_points = Module{};
}

}  // namespace ref
