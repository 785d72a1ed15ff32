// Two threads meet here: the command's, which holds the scheduling locks, and that of the event loop. The channel's
// mutex is held for moments only and never while waiting for the locks: wait_for_client() gives them up before it
// waits, and `ready` is called without the mutex.
#include "host/control/output_channel.h"

#include <utility>

#include "platform/thread.h"

namespace host {

void OutputChannel::put(FrameType type, std::string_view text) {
  if (text.empty()) return;
  {
    const std::lock_guard lock(mutex_);
    if (abandoned_) return;
    overflowed_ = overflowed_ || frames_.size() + gathered_.size() > kLimit;
    if (type != gathered_type_) flush_text();
    const bool first = frames_.empty() && gathered_.empty();
    gathered_type_ = type;
    gathered_ += text;
    // Text gathers while the connection is busy: a few large frames instead of one for each line.
    if (gathered_.size() >= kMaxOutputFrame) flush_text();
    if (!first) return;
  }
  ready_();
}

void OutputChannel::flush_text() {
  if (!gathered_.empty()) frames_ += encode_frames(gathered_type_, gathered_);
  gathered_.clear();
}

void OutputChannel::end(uint32_t status) {
  {
    const std::lock_guard lock(mutex_);
    flush_text();
    if (overflowed_) {
      frames_ += encode_frames(FrameType::error, "the output is longer than the daemon keeps for one client\n");
      status = kStatusFailed;
    }
    frames_ += encode_end(status);
    ended_ = true;
  }
  ready_();
}

void OutputChannel::goes_on() {
  const std::lock_guard lock(mutex_);
  endless_ = true;
}

bool OutputChannel::endless() const {
  const std::lock_guard lock(mutex_);
  return endless_;
}

bool OutputChannel::wanted() const {
  const std::lock_guard lock(mutex_);
  return !abandoned_ && !overflowed_ && !stopped_;
}

bool OutputChannel::full() const {
  const std::lock_guard lock(mutex_);
  return !abandoned_ && !stopped_ && frames_.size() + in_flight_ > kHighWater;
}

void OutputChannel::wait_for_client() {
  tsp_before_yield();
  {
    std::unique_lock lock(mutex_);
    drained_.wait(lock, [this] { return abandoned_ || stopped_ || frames_.size() + in_flight_ <= kLowWater; });
  }
  tsp_after_yield();
}

std::string OutputChannel::take() {
  const std::lock_guard lock(mutex_);
  flush_text();
  in_flight_ = frames_.size();
  end_taken_ = ended_;
  return std::exchange(frames_, {});
}

void OutputChannel::sent(size_t size) {
  const std::lock_guard lock(mutex_);
  in_flight_ -= size;
  drained_.notify_all();
}

bool OutputChannel::ended() const {
  const std::lock_guard lock(mutex_);
  return end_taken_;
}

void OutputChannel::stop() {
  const std::lock_guard lock(mutex_);
  stopped_ = true;
  drained_.notify_all();
}

void OutputChannel::abandon() {
  const std::lock_guard lock(mutex_);
  abandoned_ = true;
  frames_.clear();
  gathered_.clear();
  drained_.notify_all();
}

}  // namespace host
