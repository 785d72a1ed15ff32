// The queue keeps each timer at most once, at a time that is never later than its deadline; one that comes up too early
// is put back at its deadline. Expired functions may start and stop any timer and destroy others, because run() looks
// at the queue anew for each.
#include "bgp/timer.h"

namespace bgp {

void Timer::leave() {
  if (queued_ != Time::max()) queue_.queue_.erase({queued_, this});
  queued_ = Time::max();
}

void Timer::start(Duration after) {
  deadline_ = queue_.now() + after;
  if (queued_ <= deadline_) return;
  leave();
  queued_ = deadline_;
  queue_.queue_.insert({queued_, this});
}

void TimerQueue::run() {
  while (!queue_.empty() && queue_.begin()->first <= now_) {
    Timer *timer = queue_.begin()->second;
    timer->leave();
    if (!timer->running()) continue;
    if (timer->deadline_ > now_) {
      timer->queued_ = timer->deadline_;
      queue_.insert({timer->queued_, timer});
      continue;
    }
    timer->stop();
    timer->expired_();
  }
}

Time TimerQueue::next() const { return queue_.empty() ? Time::max() : queue_.begin()->first; }

}  // namespace bgp
