// One place for the options that pimhostd and mdt-reflector have in common, so that their names and words stay the
// same.
#include "host/event/daemon_options.h"

namespace host {

bool LogOptions::to_syslog() const { return target == "syslog"; }

// The command line takes these words only.
Level LogOptions::least() const { return level_of(level).value_or(Level::info); }

void add_control_options(options::CommandLine &app, ControlServer::Access *control, ControlServer::Access *looking) {
  app.add("--control", &control->path, "control socket").show_default();
  app.add("--control-group", &control->group, "group whose members may use the control socket, too");
  const options::Option path = app.add("--control-read-only", &looking->path, "another socket, which takes views only");
  app.add("--read-only-group", &looking->group, "group whose members may use it").needs(path);
}

void add_log_options(options::CommandLine &app, LogOptions *log) {
  app.add("--log", &log->target, "where messages go").one_of({"stderr", "syslog"}).show_default();
  app.add("--log-level", &log->level, "the least that is written")
      .one_of({"error", "warning", "notice", "info", "debug"})
      .show_default();
}

}  // namespace host
