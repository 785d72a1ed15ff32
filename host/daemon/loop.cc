// Turns of the main loop. The event loop blocks without the locks; its handlers take them for a turn. Work that other
// threads queue wakes it.
#include "host/daemon/loop.h"

#include <algorithm>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>
#include <ctime>

#include "platform/reference/pss.h"
#include "platform/reference/runtime.h"

namespace host {

using std::chrono::nanoseconds;

namespace {

// Processor time of this process so far, all threads.
std::chrono::duration<double> computed() {
  timespec time{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return std::chrono::seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
}

}  // namespace

Loop::Loop() : timer_(io_), started_(time(nullptr)) {
  ref::reset();
  ref::keep_records(false);
  ref::set_waker([this] { wake(); });
  ref::main_release();
}

Loop::~Loop() {
  ref::set_waker(nullptr);
  ref::main_acquire();
  ref::reset();
  ref::main_release();
}

Loop::Turn::Turn(Loop &loop) : loop_(loop) {
  if (loop_.depth_++ > 0) return;
  ref::main_acquire();
  loop_.working_ = true;
  loop_.turn_began_ = std::chrono::steady_clock::now();
  loop_.computed_when_turn_began_ = computed();
}

Loop::Turn::~Turn() {
  if (loop_.depth_ == 1) loop_.end_turn();
  loop_.depth_--;
  if (loop_.depth_ == 0) ref::main_release();
}

void Loop::wake() {
  if (working_ || awake_.exchange(true)) return;
  boost::asio::post(io_, [this] {
    awake_ = false;
    Turn turn(*this);
  });
}

void Loop::end_turn() {
  ref::run_pending();
  if (turn_end_) turn_end_();
  ref::pss_flush();
  working_ = false;
  if (ref::work_waits()) wake();
  set_timer();
  measure_turn();
}

void Loop::measure_turn() {
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - turn_began_;
  for (auto &[bound, count] : turn_times_.buckets) count += took.count() <= bound ? 1 : 0;
  turn_times_.count++;
  turn_times_.sum += took.count();
  last_turn_ = computed() - computed_when_turn_began_;
}

void Loop::set_timer() {
  const std::optional<nanoseconds> deadline = ref::next_deadline();
  const double scale = ref::clock_scale();
  if (deadline == armed_for_ && scale == armed_scale_) return;
  armed_for_ = deadline;
  armed_scale_ = scale;
  if (!deadline || scale <= 0) {
    timer_.cancel();
    return;
  }
  const double wait = static_cast<double>((*deadline - ref::now()).count()) / scale;
  timer_.expires_after(nanoseconds(static_cast<int64_t>(std::max(wait, 0.0))));
  timer_.async_wait([this](const boost::system::error_code &error) {
    if (error) return;
    armed_for_.reset();
    Turn turn(*this);
  });
}

void Loop::run() {
  const auto work = boost::asio::make_work_guard(io_);
  io_.run();
}

}  // namespace host
