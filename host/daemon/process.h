// What commands see of the process that they run in, beside its router.
#ifndef HOST_DAEMON_PROCESS_H
#define HOST_DAEMON_PROCESS_H

#include <chrono>
#include <functional>
#include <string>

#include "host/daemon/loop.h"
#include "host/daemon/watcher.h"
#include "host/event/change.h"
#include "host/event/log.h"

namespace host {

class ConfigWork;

struct Process {
  // References outlive it.
  EventBus &events;
  Log &log;
  const Watcher &watcher;
  std::string module;   // file of libmvpn.so
  bool stores = false;  // there is a folder of what outlives the process
  const Loop &loop;
  // Reads the configuration file again, or only tries it (strict: warnings are errors). done is called when that has
  // ended, now or later, with complete lines for who asked.
  using Done = std::function<void(bool passed, const std::string &text)>;
  std::function<void(const std::string &by, Done done)> reload = {};
  std::function<void(bool strict, Done done)> check = {};
  ConfigWork *work = nullptr;  // set before commands run
  // started: wall time, to be shown; running_since: for spans, which a clock that is set must not change.
  std::chrono::system_clock::time_point started = std::chrono::system_clock::now();
  std::chrono::steady_clock::time_point running_since = std::chrono::steady_clock::now();
};

}  // namespace host

#endif  // HOST_DAEMON_PROCESS_H
