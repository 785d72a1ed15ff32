// The command engine: runs the command lines of clients.
//
// Views run on threads of their own, under the scheduling locks: a listing yields to everything else, and a client that
// reads slowly holds up nobody but itself. Every other command runs at once on the main thread. A command that shows
// what the forwarder counts begins when the forwarder has answered.
#ifndef HOST_ENGINE_H
#define HOST_ENGINE_H

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/command/command_line.h"
#include "host/daemon/router.h"
#include "host/daemon/views.h"
#include "host/event/log.h"
#include "host/event/monitor.h"

namespace host {

class Engine {
 public:
  // Both outlive it.
  Engine(Router &router, const Process &process);
  ~Engine();

  // Runs a command line and ends the channel when it is done. On the main thread, with the scheduling locks.
  void execute(const ControlServer::Request &request, const std::shared_ptr<OutputChannel> &channel);

  // Debug messages of the module: all VRFs when the name is empty.
  void debug(const std::string &vrf, bool detail);

  // No view is running.
  bool idle() const { return running_views_ == 0; }

 private:
  struct ViewRun {
    Engine *engine;
    CommandLine line;
    std::shared_ptr<OutputChannel> channel;

    const Statement &statement() const { return line.match.statements.front(); }
  };

  void run(const CommandLine &line, const std::shared_ptr<OutputChannel> &channel);
  void start_view(std::unique_ptr<ViewRun> run);
  static void *view_thread(void *argument);
  void show(const ViewRun &run);
  void show_module(const ViewRun &run);
  Outcome operate(const CommandLine &line);
  void debug_off();

  Router &router_;
  const Process &process_;
  Monitor monitor_;
  CounterBase counters_;
  int running_views_ = 0;
};

}  // namespace host

#endif  // HOST_ENGINE_H
