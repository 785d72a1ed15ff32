// The running router: brings the platform and the module to what a configuration says, at the start, when the file is
// read again, and when an operator changes something.
//
// It is three parts, each of which knows those behind it: transactions, the life of VRFs, what the platform is told.
#ifndef HOST_DAEMON_ROUTER_H
#define HOST_DAEMON_ROUTER_H

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host/config/config.h"
#include "host/daemon/forwarding.h"
#include "host/daemon/links.h"
#include "host/daemon/loop.h"
#include "host/daemon/module_runner.h"
#include "host/daemon/outcome.h"
#include "host/daemon/platform_config.h"
#include "host/daemon/transactions.h"
#include "host/daemon/vrf_lifecycle.h"
#include "host/event/change.h"

namespace host {

class Router {
 public:
  struct Options {
    std::optional<double> clock_scale;  // overrides the configuration's
    std::string capture;                // file of what the carrier sends and receives; empty: none
    bool recovering = false;            // started anew for a router that goes on
    bool offline = false;               // for a check of the configuration: without links to other PEs
    EventBus *events = nullptr;         // outlives the router
    LogLine log;                        // never empty
    // Where the metrics are to be had, when that changes; nothing: nowhere.
    std::function<void(const std::optional<EndpointValue> &at)> follow_metrics = {};
  };

  // One in a process, since the platform behind it is. The loop outlives it; the entry points are copied.
  Router(Loop &loop, const LoadedModule &module, Options options);
  Router(const Router &) = delete;
  Router &operator=(const Router &) = delete;

  // Builds what the configuration says, starts the module and replays its commands as a router does after a start.
  // Result: the lines that were refused and are left out. Throws std::runtime_error when the module does not start.
  std::vector<ConfigError> start(Config config) { return transactions_.start(std::move(config)); }
  // An orderly end: neighbours are told, the module stops, the forwarder gives everything back. Nothing is started
  // again.
  void stop();

  // One command of an operator: the blocks that it enters, then the command (see Match).
  Outcome configure(const std::vector<Statement> &statements) { return transactions_.configure(statements); }
  // Another configuration as a whole; the difference is applied VRF by VRF. When a line of it is refused the former
  // configuration is restored; the result says what was refused, also on the way back.
  std::vector<ConfigError> replace(Config config) { return transactions_.replace(std::move(config)); }

  const Config &running() const { return running_; }
  const Links &links() const { return links_; }
  Links &links() { return links_; }
  const Forwarding &forwarding() const { return forwarding_; }
  Forwarding &forwarding() { return forwarding_; }
  const LoadedModule &module() const { return module_.entry_points(); }

  // See PlatformConfig.
  bool set_link(const std::string &interface, bool up) { return platform_.set_link(interface, up); }

  // Goes on with what had to wait: VRFs that the module has not left yet, and what depends on them. At every turn's
  // end.
  void settle();

 private:
  Config running_;
  AbsentVrfs absent_;
  ModuleRunner module_;
  Links links_;
  Forwarding forwarding_;
  PlatformConfig platform_;
  VrfLifecycle vrfs_;
  Transactions transactions_;
};

}  // namespace host

#endif  // HOST_DAEMON_ROUTER_H
