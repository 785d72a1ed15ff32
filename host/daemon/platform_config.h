// What the platform is told: interfaces, VRFs' distinguishers, customer routes, policies, ranges and numbers follow the
// running configuration. What cannot be told yet, because its VRF or its interfaces are not there, waits.
#ifndef HOST_DAEMON_PLATFORM_CONFIG_H
#define HOST_DAEMON_PLATFORM_CONFIG_H

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "host/config/config.h"
#include "host/daemon/forwarding.h"
#include "host/daemon/module_runner.h"
#include "host/event/level.h"
#include "platform/reference/croute.h"

namespace host {

// VRFs that nothing may enter: those that are being deleted, and those that cannot be created before others have left.
struct AbsentVrfs {
  std::set<std::string> leaving, waiting;  // names; a VRF is in one of them at most
  bool contains(const std::string &vrf) const { return leaving.contains(vrf) || waiting.contains(vrf); }
};

class PlatformConfig {
 public:
  // References outlive it.
  struct Sources {
    const Config &running;
    const AbsentVrfs &absent;
    const ModuleRunner &module;
    const Forwarding &forwarding;
  };
  struct Options {
    std::optional<double> clock_scale;                                           // overrides the configuration's
    std::function<void(const std::optional<EndpointValue> &at)> follow_metrics;  // see Router::Options; may be empty
    LogLine log;                                                                 // never empty
  };
  PlatformConfig(const Sources &sources, Options options);

  // A line outside of the blocks, or of "pim"; what stands in other blocks is followed by name.
  void apply_global(const LineChange &change);
  void follow_policy(const std::string &name);
  void follow_interface(const std::string &name);
  // Nothing when the VRF is absent: it is told when the VRF comes.
  void follow_route_distinguisher(const std::string &vrf);
  void follow_update_source();

  // A customer route by the key of its line.
  void set_route(const std::string &vrf, const std::string &key);

  // State of a link that is not configured: the interface stays down until it is set up again. False: no such
  // interface.
  bool set_link(const std::string &interface, bool up);

  // Tries again what waits.
  void settle();

  bool overrides_clock() const { return options_.clock_scale.has_value(); }

 private:
  void follow_clock();
  void follow_metrics();

  const Config &running_;
  const AbsentVrfs &absent_;
  const ModuleRunner &module_;
  const Forwarding &forwarding_;
  const Options options_;
  const uint32_t default_mtu_;
  const uint32_t default_announcement_limit_;
  std::set<std::string> links_down_;
  std::set<std::string> waiting_interfaces_;                      // whose VRF or name is not free yet
  std::set<std::pair<std::string, std::string>> waiting_routes_;  // VRF, key: whose interfaces are not there yet
};

// What a customer route's line says.
ref::CustomerRoute customer_route(const Statement &statement);
mvpn_mdt_route_addrs route_address(const std::string &source, const std::string &group);

}  // namespace host

#endif  // HOST_DAEMON_PLATFORM_CONFIG_H
