// Timers on the clock that the speaker is given. One alarm of the clock serves all of them.
//
// A hold timer is restarted by every message, and almost never expires: restarting only moves its deadline, and the
// queue learns of it when the old deadline has come.
#ifndef BGP_TIMER_H
#define BGP_TIMER_H

#include <functional>
#include <set>
#include <utility>

#include "bgp/types.h"

namespace bgp {

class Timer;

class TimerQueue {
 public:
  // The time that all work of a turn goes by.
  Time now() const { return now_; }
  void set_now(Time now) { now_ = now; }
  void run();         // calls what has expired
  Time next() const;  // Time::max(): nothing is running

 private:
  friend class Timer;
  Time now_{};
  std::set<std::pair<Time, Timer *>> queue_;
};

class Timer {
 public:
  Timer(TimerQueue &queue, std::function<void()> expired) : queue_(queue), expired_(std::move(expired)) {}
  ~Timer() { leave(); }
  Timer(const Timer &) = delete;
  Timer &operator=(const Timer &) = delete;

  void start(Duration after);
  void stop() { deadline_ = Time::max(); }
  bool running() const { return deadline_ != Time::max(); }
  Time deadline() const { return deadline_; }

 private:
  friend class TimerQueue;
  void leave();

  TimerQueue &queue_;
  std::function<void()> expired_;
  Time deadline_ = Time::max(), queued_ = Time::max();  // queued_ is never later than deadline_
};

}  // namespace bgp

#endif  // BGP_TIMER_H
