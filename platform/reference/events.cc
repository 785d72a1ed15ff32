// The main loop's queue, the table of the module's entry points, and reset().
#include <deque>
#include <mutex>

#include "internal.h"
#include "services.h"

namespace ref {
namespace {

// Work comes from any thread, so the queue has a lock of its own.
std::mutex mutex;
std::deque<std::function<void()>> queue;
std::function<void()> waker;
Module entry_points;

constexpr size_t kMostPerRun = 10000;

std::function<void()> take() {
  const std::lock_guard guard(mutex);
  if (queue.empty()) return nullptr;
  std::function<void()> work = std::move(queue.front());
  queue.pop_front();
  return work;
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
  }
  wake_main_loop();
}

void set_waker(std::function<void()> wake) {
  const std::lock_guard guard(mutex);
  waker = std::move(wake);
}

size_t run_pending() {
  size_t delivered = fire_due_timers();
  while (delivered < kMostPerRun) {
    const std::function<void()> work = take();
    if (!work) break;
    work();
    delivered += 1 + fire_due_timers();
    tsp_sched_may_yield();
  }
  if (delivered >= kMostPerRun) wake_main_loop();
  return delivered;
}

void settle() {
  do {
    while (run_pending() > 0) {
    }
    let_threads_sleep();
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

void reset() {
  sched_reset();
  events_reset();
  croute_reset();
  mrib_reset();
  oim_reset();
  im_reset();
  pim_reset();
  bgp_reset();
  packet_reset();
  socket_reset();
  cli_reset();
  rpm_reset();
  pss_reset();
  mts_reset();
  timer_reset();
  diag_reset();
  l3vm_reset();
  events_reset();
}

}  // namespace ref
