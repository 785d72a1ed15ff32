// What commands see of the process that they run in, beside its router.
#ifndef HOST_DAEMON_PROCESS_H
#define HOST_DAEMON_PROCESS_H

#include <chrono>
#include <string>

#include "host/daemon/loop.h"
#include "host/daemon/watcher.h"
#include "host/event/change.h"
#include "host/event/log.h"

namespace host {

struct Process {
  // References outlive it.
  EventBus &events;
  Log &log;
  const Watcher &watcher;
  std::string module;   // file of libmvpn.so
  bool stores = false;  // there is a folder of what outlives the process
  const Loop &loop;
  // started: wall time, to be shown; running_since: for spans, which a clock that is set must not change.
  std::chrono::system_clock::time_point started = std::chrono::system_clock::now();
  std::chrono::steady_clock::time_point running_since = std::chrono::steady_clock::now();
};

}  // namespace host

#endif  // HOST_DAEMON_PROCESS_H
