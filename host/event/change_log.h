// Changes in the log: a line each, but no more of the numerous kinds in a second than a person reads.
#ifndef HOST_EVENT_CHANGE_LOG_H
#define HOST_EVENT_CHANGE_LOG_H

#include <chrono>
#include <cstdint>

#include "host/event/change.h"
#include "host/event/log.h"

namespace host {

class ChangeLog {
 public:
  // Bus and log outlive it.
  ChangeLog(EventBus &bus, Log &log);

  // Says what has been left out. At every turn's end.
  void settle();

 private:
  static constexpr uint32_t kLinesASecond = 100;  // more than a person reads, less than what fills a disk
  void take(const Change &change);
  void begin_second(std::chrono::system_clock::time_point now);

  Log &log_;
  std::chrono::system_clock::time_point second_{};  // that the counts are of
  uint32_t lines_ = 0, left_out_ = 0;
  EventBus::Subscription subscription_;
};

}  // namespace host

#endif  // HOST_EVENT_CHANGE_LOG_H
