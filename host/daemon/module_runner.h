// The loaded module as it runs: started, given the commands of VRFs, stopped, and perhaps started anew.
#ifndef HOST_DAEMON_MODULE_RUNNER_H
#define HOST_DAEMON_MODULE_RUNNER_H

#include <string>

#include "host/daemon/module_loader.h"
#include "host/daemon/outcome.h"
#include "host/language/grammar.h"

namespace host {

class ModuleRunner {
 public:
  explicit ModuleRunner(const LoadedModule &module) : module_(module) {}

  const LoadedModule &entry_points() const { return module_; }
  bool runs() const { return runs_; }
  // Whether it has been started once, successfully: its handlers stay registered for good.
  bool started_before() const { return commands_registered_; }

  // False: it does not start. Throws std::runtime_error at the first start when it lacks a handler that the grammar or
  // the SNMP tables name.
  bool start();
  void stop();

  // A command of a VRF, through its handler. Accepted also when the module does not run: the line is kept for the
  // replay. interactive: an operator is there to read what the handler prints.
  Outcome run(const std::string &vrf, const Statement &statement, bool no_form, bool interactive) const;
  // The VRF's commands have all been given; nothing when there is no such VRF.
  void end_of_commands(const std::string &vrf) const;

 private:
  LoadedModule module_;
  bool runs_ = false;
  bool commands_registered_ = false;
};

}  // namespace host

#endif  // HOST_DAEMON_MODULE_RUNNER_H
