// The running router: brings the platform and the module to what a configuration says, at the start, when the file is
// read again, and when an operator changes something.
#ifndef HOST_ROUTER_H
#define HOST_ROUTER_H

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/config/config.h"
#include "host/daemon/forwarding.h"
#include "host/daemon/links.h"
#include "host/daemon/loop.h"
#include "host/daemon/module_loader.h"
#include "host/event/change.h"
#include "platform/reference/croute.h"

namespace host {

// What came of a change. text: the reasons, or what a handler printed; complete lines.
struct Outcome {
  bool accepted = true;
  std::string text;
};

class Router {
 public:
  struct Options {
    std::optional<double> clock_scale;  // overrides the configuration's
    std::string capture;
    bool recovering = false;     // started anew for a router that goes on
    bool offline = false;        // for a check of the configuration: without links to other PEs
    EventBus *events = nullptr;  // outlives the router
    LogLine log;
    // Where the metrics are to be had, when that changes; nothing: nowhere.
    std::function<void(const std::optional<EndpointValue> &at)> follow_metrics = {};
  };

  Router(Loop &loop, const LoadedModule &module, Options options);

  // Builds what the configuration says, starts the module and replays its commands as a router does after a start.
  // Result: the lines that were refused and are left out. Throws std::runtime_error when the module does not start.
  std::vector<ConfigError> start(Config config);
  void stop();

  // One command of an operator: the blocks that it enters, then the command (see Match).
  Outcome configure(const std::vector<Statement> &statements);
  // Another configuration as a whole; the difference is applied VRF by VRF. When a line of it is refused the former
  // configuration is restored; the result says what was refused, also on the way back.
  std::vector<ConfigError> replace(Config config);

  const Config &running() const { return running_; }
  const Links &links() const { return links_; }
  Links &links() { return links_; }
  Forwarding &forwarding() const { return *forwarding_; }
  const LoadedModule &module() const { return module_; }

  // State of a link that is not configured: the interface stays down until it is set up again. False: no such
  // interface.
  bool set_link(const std::string &interface, bool up);

  // Goes on with what had to wait: VRFs that the module has not left yet, and what depends on them. At every turn's
  // end.
  void settle();

 private:
  struct Rejection {
    LineChange change;
    std::string text;
  };
  static ConfigError error_of(const Rejection &rejection);
  std::vector<ConfigError> change_to(Config wanted);
  Outcome configure_module(Config wanted, const BlockId &block, const Statement &command);
  Outcome run_command(const BlockId &block, const Statement &command);
  void withdraw(const std::vector<LineChange> &changes, std::vector<Rejection> *rejections);
  void build(const Config &before, const std::vector<LineChange> &changes);
  void command_vrfs(const std::vector<LineChange> &changes, std::vector<Rejection> *rejections);
  void put_back(const Config &before, const Rejection &rejection);

  bool follow_feature(std::vector<ConfigError> *refused);
  bool start_module(std::vector<ConfigError> *refused);
  void check_handlers() const;
  void stop_module();
  void replay_all(std::vector<ConfigError> *refused);
  void replay_vrf(const std::string &vrf);

  void apply_global(const LineChange &change);
  void follow_clock();
  void follow_metrics();
  void follow_policy(const std::string &name);
  void follow_vrf(const std::string &name);
  void follow_interface(const std::string &name);
  void follow_route_distinguisher(const std::string &vrf);
  void follow_update_source();
  void leave_vrf(const std::string &name);
  bool is_there(const std::string &vrf) const;  // neither leaving nor waiting
  void finish_leaving();
  void bring_in(const std::string &vrf);
  void set_route(const std::string &vrf, const std::string &key);
  Outcome run_handler(const std::string &vrf, const Statement &statement, bool no_form, bool interactive);

  LoadedModule module_;
  Options options_;
  Links links_;
  std::unique_ptr<Forwarding> forwarding_;
  Config running_;
  bool module_runs_ = false;
  bool commands_registered_ = false;
  uint32_t default_mtu_;
  uint32_t default_announcement_limit_;
  std::set<std::string> links_down_;
  // What waits.
  std::set<std::string> leaving_;                         // VRFs that are being deleted
  std::set<std::string> waiting_;                         // VRFs that cannot be created before others have left
  std::set<std::string> interfaces_;                      // whose VRF or name is not free yet
  std::set<std::pair<std::string, std::string>> routes_;  // VRF, key: whose interfaces are not there yet
};

// What a customer route's line says.
ref::CustomerRoute customer_route(const Statement &statement);
mvpn_mdt_route_addrs route_address(const std::string &source, const std::string &group);

}  // namespace host

#endif  // HOST_ROUTER_H
