// Finds out what changed in the router and publishes it.
//
// The module tells nobody of its states, but it writes an event wherever one may change: the VRF that the event is of
// is looked at again when the turn ends. So a VRF that passes through several states in a turn shows as one change, and
// a turn costs what happened in it, not what is configured. Most events are of routes, of which thousands may come in a
// turn, and leave a VRF that is up as it was: that is seen by a few numbers. Flows, core routes and PEs are told by the
// services that hold them.
#ifndef HOST_DAEMON_WATCHER_H
#define HOST_DAEMON_WATCHER_H

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "host/daemon/router.h"
#include "host/event/change.h"
#include "platform/reference/observer.h"

namespace host {

class Watcher : private ref::Observer {
 public:
  // Router and bus outlive it. One at a time.
  Watcher(const Router &router, EventBus &bus);
  ~Watcher() override;

  // Publishes what changed. At every turn's end.
  void settle();

  // Data MDTs in use now: flows that this PE sends, data MDTs of others that it has joined.
  size_t sent() const { return flows_.size(); }
  size_t received() const { return joined_.size(); }
  // The store's last write failed, for this reason; empty: it did not.
  const std::string &store_failure() const { return store_failure_; }

 private:
  struct Tunnel {
    std::string name;
    if_index_t if_index = 0;
    std::string state = "absent";
    ip_addr_t source = 0, group = 0;
    bool operator==(const Tunnel &) const = default;
  };
  // What tells that a VRF which was up has not changed. It stands beside the name, since thousands are looked at in a
  // row and each line of memory counts.
  struct Glance {
    bool touched = false;
    bool up = false;      // when it was looked at, as all that follows
    ip_addr_t group = 0;  // of its default MDT
    if_index_t tunnel = 0;
    uint64_t interfaces = 0;  // interface_changes()
    uint64_t contexts = 0;    // context_changes(): the next one is good
    const pim_cibtype *pcib = nullptr;
  };
  struct Vrf {
    Glance glance;
    std::string status;  // empty: no default MDT
    std::string reason;  // why it is not up
    ip_addr_t group = 0;
    ip_addr_t last_group = 0;  // that it had; 0: none ever
    Tunnel tunnel;
    std::string by;  // who asked for what it is doing
  };
  using Vrfs = std::unordered_map<std::string, Vrf>;
  using Flow = std::tuple<std::string, ip_addr_t, ip_addr_t>;         // VRF, source, group
  using Joined = std::tuple<vrf_context_id_t, ip_addr_t, ip_addr_t>;  // of the VRF; PE, group

  // ref::Observer
  void vrf_touched(const char *vrf_name, void *&note) override;
  void customer_route_installed(const std::string &vrf_name, const pim_route &route) override;
  void customer_route_deleted(const std::string &vrf_name, const mvpn_mdt_route_addrs &addrs) override;
  void core_route_joined(vrf_context_id_t owner, ip_addr_t source, ip_addr_t group, bool joined) override;
  void remote_entry_changed(const ref::MdtSafi &entry, bool present) override;
  void store_changed(const std::string &failure) override;

  void settle_feature();
  void touch(Vrfs::value_type &vrf);
  bool is_as_before(const Glance &glance) const;
  void take_glance(const std::string &name, Vrf &vrf);
  void settle_vrf(const std::string &name, Vrf &vrf);
  void settle_status(const std::string &name, Vrf &vrf);
  void settle_tunnel(const std::string &name, Vrf &vrf);
  void end_flows(const std::string &vrf);
  void end_flow(std::map<Flow, ip_addr_t>::iterator flow, const std::string &reason);

  const Router &router_;
  EventBus &bus_;
  Vrfs vrfs_;
  std::vector<Vrfs::value_type *> touched_;
  std::unordered_map<ip_addr_t, std::string> by_group_;  // VRFs by their default groups
  std::map<Flow, ip_addr_t> flows_;                      // with their data groups
  std::map<Joined, std::string> joined_;                 // with the VRF's name
  bool feature_ = true;
  std::chrono::system_clock::time_point when_ = {};  // of this turn's changes of PEs; none yet: the clock's first
  std::string store_failure_;
};

}  // namespace host

#endif  // HOST_DAEMON_WATCHER_H
