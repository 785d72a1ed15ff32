// The command line options that every daemon has: its control sockets and its log.
#pragma once

#include <string>

#include "host/control/control_server.h"
#include "host/event/level.h"
#include "options/command_line.h"

namespace host {

// Where messages go and the least that is written, as words of a command line.
struct LogOptions {
  // target: "stderr" or "syslog"; level: as name_of(Level).
  std::string target = "stderr", level = "info";

  bool to_syslog() const;
  Level least() const;
};

// --control, --control-group, --control-read-only and --read-only-group. What is pointed at outlives the parsing, and
// keeps its present path as the default.
void add_control_options(options::CommandLine &app, ControlServer::Access *control, ControlServer::Access *looking);

// --log and --log-level. The same.
void add_log_options(options::CommandLine &app, LogOptions *log);

}  // namespace host
