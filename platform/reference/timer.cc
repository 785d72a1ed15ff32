// The platform's clock and timers. Time is real, scaled, or stepped; timers fire in the order of their deadlines, from
// the main loop. An expiry is not queued: a timer that was stopped or freed before its turn came is gone.
#include "platform/timer.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <map>
#include <new>

#include "platform/reference/internal.h"
#include "platform/reference/testing/runtime.h"
#include "platform/reference/text.h"

using namespace std::chrono_literals;
using std::chrono::nanoseconds;

struct active_timer {
  active_timer_callback callback;
  void *argument;
  bool armed;
  std::pair<nanoseconds, uint64_t> deadline;  // while armed; the number keeps timers of one time in order
};

namespace ref {
namespace {

using Deadline = std::pair<nanoseconds, uint64_t>;

struct State {
  bool stepped = true;
  nanoseconds stepped_now = 1000s;
  double scale = 1;
  std::chrono::steady_clock::time_point real_start;
  nanoseconds real_base = 0ns;  // platform time at real_start
  uint8_t next_set = 1;
  uint64_t next_number = 0;
  std::map<Deadline, active_timer *> armed;
  std::map<Deadline, std::function<void()>> scheduled;
  size_t live = 0;
};
State state;

void disarm(active_timer *timer) {
  if (!timer->armed) return;
  state.armed.erase(timer->deadline);
  timer->armed = false;
}

zeph_timestamp to_stamp(nanoseconds time) {
  return {static_cast<uint32_t>(time.count() / 1000000000), static_cast<uint32_t>(time.count() % 1000000000)};
}

nanoseconds from_stamp(const zeph_timestamp &stamp) {
  return std::chrono::seconds(stamp.seconds) + nanoseconds(std::min(stamp.nanoseconds, 999999999u));
}

}  // namespace

bool fire_next_timer() {
  const nanoseconds time = now();
  const auto timer = state.armed.begin();
  const auto work = state.scheduled.begin();
  const bool timer_due = timer != state.armed.end() && timer->first.first <= time;
  const bool work_due = work != state.scheduled.end() && work->first.first <= time;
  if (!timer_due && !work_due) return false;
  if (timer_due && (!work_due || timer->first < work->first)) {
    active_timer *fired = timer->second;
    disarm(fired);
    fired->callback(fired->argument);  // may free the timer
    return true;
  }
  const std::function<void()> run = std::move(work->second);
  state.scheduled.erase(work);
  run();
  return true;
}

static nanoseconds time_at(nanoseconds monotonic) {
  const nanoseconds passed = monotonic - state.real_start.time_since_epoch();
  return state.real_base + std::chrono::duration_cast<nanoseconds>(passed * state.scale);
}

nanoseconds now() {
  return state.stepped ? state.stepped_now : time_at(std::chrono::steady_clock::now().time_since_epoch());
}

nanoseconds event_time() {
  if (state.stepped) return state.stepped_now;
  timespec coarse;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &coarse);
  return time_at(std::chrono::seconds(coarse.tv_sec) + nanoseconds(coarse.tv_nsec));
}

void clock_use_stepped() {
  state.stepped_now = now();
  state.stepped = true;
  scheduler_set_repeatable(true);
}

void clock_use_real(double scale) {
  state.real_base = now();
  state.real_start = std::chrono::steady_clock::now();
  state.scale = scale;
  state.stepped = false;
  scheduler_set_repeatable(false);
}

double clock_scale() { return state.stepped ? 0 : state.scale; }

std::optional<nanoseconds> next_deadline() {
  std::optional<nanoseconds> next;
  if (!state.armed.empty()) next = state.armed.begin()->first.first;
  if (!state.scheduled.empty() && (!next || state.scheduled.begin()->first.first < *next))
    next = state.scheduled.begin()->first.first;
  return next;
}

void advance(nanoseconds step) {
  if (!state.stepped) return;
  const nanoseconds end = state.stepped_now + step;
  for (auto next = next_deadline(); next && *next <= end; next = next_deadline()) {
    if (*next > state.stepped_now) state.stepped_now = *next;
    settle();
  }
  state.stepped_now = end;
  settle();
}

void schedule(nanoseconds delay, std::function<void()> work) {
  state.scheduled[{now() + delay, state.next_number++}] = std::move(work);
  wake_main_loop();
}

size_t live_timers() { return state.live; }

void timer_reset() {
  const size_t live = state.live;
  for (auto &[deadline, timer] : state.armed) timer->armed = false;
  state = State{};
  state.live = live;
  scheduler_set_repeatable(true);
}

}  // namespace ref

using namespace ref;

uint8_t active_timer_new_set_init(uint32_t) {
  if (state.next_set == 0) state.next_set = 1;
  return state.next_set++;
}

active_timer *active_timer_create(uint8_t set, uint32_t, active_timer_callback callback, void *argument) {
  if (set == 0 || callback == nullptr) return nullptr;
  auto *timer = new (std::nothrow) active_timer{callback, argument, false, {}};
  if (timer != nullptr) state.live++;
  return timer;
}

int active_timer_start(active_timer *timer, uint32_t seconds, uint32_t, uint32_t, uint32_t) {
  if (timer == nullptr) return 0;
  disarm(timer);
  timer->deadline = {now() + std::chrono::seconds(seconds), state.next_number++};
  timer->armed = true;
  state.armed.emplace_hint(state.armed.end(), timer->deadline, timer);  // the latest more often than not
  wake_main_loop();
  return 1;
}

void active_timer_stop(active_timer *timer) {
  if (timer != nullptr) disarm(timer);
}

void active_timer_cancel(active_timer *timer) {
  if (timer == nullptr) return;
  disarm(timer);
  delete timer;
  state.live--;
}

int zeph_sys_mclock_get(zeph_timestamp *stamp) {
  *stamp = to_stamp(now());
  return 0;
}

int timestamp_expired(const zeph_timestamp *stamp) { return from_stamp(*stamp) <= now() ? 1 : 0; }

void timestamp_elapsed(const zeph_timestamp *since, zeph_timestamp *elapsed) {
  *elapsed = to_stamp(std::max(now() - from_stamp(*since), 0ns));
}

void timestamp_left_sleeping(const zeph_timestamp *until, zeph_timestamp *left) {
  *left = to_stamp(std::max(from_stamp(*until) - now(), 0ns));
}

const char *timestamp_sprint(const zeph_timestamp *duration) {
  constexpr unsigned long long day = 86400, week = 7 * day;
  const unsigned long long s = duration->seconds;
  char text[32];
  if (s < day)
    std::snprintf(text, sizeof text, "%02llu:%02llu:%02llu", s / 3600, s / 60 % 60, s % 60);
  else if (s < week)
    std::snprintf(text, sizeof text, "%llud%02lluh", s / day, s % day / 3600);
  else
    std::snprintf(text, sizeof text, "%lluw%llud", s / week, s % week / day);
  return keep_text(text);
}

uint64_t ksink_get_milli_abstime_now() {
  const auto since = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(since).count());
}
