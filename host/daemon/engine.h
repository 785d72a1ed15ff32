// The command engine: runs the command lines of clients.
//
// Views run on threads of their own, under the scheduling locks: a listing yields to everything else, and a client that
// reads slowly holds up nobody but itself. Every other command runs at once on the main thread. A command that shows
// what the forwarder counts begins when the forwarder has answered.
#ifndef HOST_DAEMON_ENGINE_H
#define HOST_DAEMON_ENGINE_H

#include <memory>

#include "host/command/command_line.h"
#include "host/daemon/action.h"
#include "host/daemon/router.h"
#include "host/event/monitor.h"

namespace host {

class Engine {
 public:
  // Both outlive it. Throws std::runtime_error when the command language and the daemon's actions do not match.
  Engine(Router &router, const Process &process);
  ~Engine();

  // Runs a command line and ends the channel when it is done. On the main thread, with the scheduling locks.
  void execute(const ControlServer::Request &request, const std::shared_ptr<OutputChannel> &channel);

  // No view is running.
  bool idle() const { return running_views_ == 0; }

 private:
  struct ViewRun {
    Engine *engine;
    CommandLine line;
    const Action *action;  // null: the module's
    std::shared_ptr<OutputChannel> channel;

    const Statement &statement() const { return line.match.statements.front(); }
  };

  void run(const CommandLine &line, const Action *action, const std::shared_ptr<OutputChannel> &channel);
  void start_view(std::unique_ptr<ViewRun> run);
  static void *view_thread(void *argument);
  void show(const ViewRun &run);
  void show_module(const ViewRun &run);

  Router &router_;
  const Process &process_;
  Monitor monitor_;
  CounterBase counters_;
  int running_views_ = 0;
};

}  // namespace host

#endif  // HOST_DAEMON_ENGINE_H
