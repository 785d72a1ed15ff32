// Changes of the configuration, each as a whole: what it says is built and commanded, or it is refused and nothing
// stays of it.
#ifndef HOST_DAEMON_TRANSACTIONS_H
#define HOST_DAEMON_TRANSACTIONS_H

#include <vector>

#include "host/config/config.h"
#include "host/daemon/forwarding.h"
#include "host/daemon/links.h"
#include "host/daemon/module_runner.h"
#include "host/daemon/outcome.h"
#include "host/daemon/platform_config.h"
#include "host/daemon/vrf_commands.h"
#include "host/daemon/vrf_lifecycle.h"

namespace host {

class Transactions {
 public:
  // References outlive it. offline: links and forwarding stay as they are.
  struct Parts {
    Config &running;
    ModuleRunner &module;
    PlatformConfig &platform;
    VrfLifecycle &vrfs;
    Links &links;
    Forwarding &forwarding;
    bool offline;
  };
  explicit Transactions(const Parts &parts) : parts_(parts), running_(parts.running) {}

  // See Router.
  std::vector<ConfigError> start(Config config);
  Outcome configure(const std::vector<Statement> &statements);
  std::vector<ConfigError> replace(Config config);

 private:
  std::vector<ConfigError> change_to(Config wanted);
  Outcome configure_module(Config wanted, const BlockId &block, const Statement &command);
  Outcome run_command(const BlockId &block, const Statement &command);
  void withdraw(const std::vector<LineChange> &changes, std::vector<Rejection> *rejections);
  void build(const Config &before, const std::vector<LineChange> &changes);
  bool follow_feature(std::vector<ConfigError> *refused);
  void command_vrfs(const std::vector<LineChange> &changes, std::vector<Rejection> *rejections);
  void set_routes(const std::vector<LineChange> &changes);

  const Parts parts_;
  Config &running_;
};

}  // namespace host

#endif  // HOST_DAEMON_TRANSACTIONS_H
