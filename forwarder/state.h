// What the forwarder holds: VRFs with their tunnels, encapsulations and flows, and the core routes. No system calls.
//
// Everything has a key, and putting it again changes the rest. It is held until it is removed, whether or not there is
// a control plane. Each item remembers the session (connection of a control plane) that put it last: that is the claim.
// A control plane that was started anew puts what it wants, and sweep() removes what it did not.
//
// Until then the flows of the former one go on with the index that they have. An index that is bound to another group
// meanwhile would take them along to a group that nobody expects them in: flows that are not claimed go to the default
// MDT then.
#ifndef FORWARDER_STATE_H
#define FORWARDER_STATE_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "forwarder/flow_table.h"
#include "forwarder/packet.h"

namespace forwarder {

constexpr uint16_t kDefaultIndex = 1;    // the default MDT's; flows without an index of their own take it
constexpr uint16_t kIndexes = 1024;      // 0 is not used; 2 to 1023 are data MDTs'
constexpr size_t kVrfsMax = 4096;        // bounds on what a broken control plane can ask for; so are the next two
constexpr size_t kFlowsMax = 1'000'000;  // of all VRFs
constexpr size_t kCoreRoutesMax = 1'000'000;
constexpr size_t kNameMax = 64;  // characters of VRFs and namespaces

struct TunnelSettings {
  std::string device;        // name of the TUN device in the VRF's namespace, at most 15 characters
  uint32_t source = 0;       // of core packets, and the device's address; host byte order; 0: none
  uint32_t destination = 0;  // the default MDT's group, host byte order; held, not used
  uint32_t mtu = 0;          // of the device: bytes of a customer datagram, 68 to kCustomerMax
  bool up = false;           // wanted; whether it is, the site knows
  bool operator==(const TunnelSettings &) const = default;
};

struct Encapsulation {
  uint32_t group = 0;           // of the core, host byte order; 0: none, and nothing else counts
  uint32_t source = 0;          // this PE's address in the core, host byte order
  uint32_t claim = 0;           // session that put it last
  uint16_t identification = 0;  // of the next packet
  OuterHeader header;           // made anew when group, source or policy change
};

struct Traffic {
  uint64_t packets = 0, bytes = 0;  // of customer datagrams, without what the tunnel adds
  void count(size_t size) {
    packets++;
    bytes += size;
  }
};

struct Vrf {
  std::string name;                      // 1 to kNameMax characters; never changes
  std::string netns;                     // name of its namespace, a file name or a path
  uint32_t claim = 0;                    // session that put it last
  std::optional<TunnelSettings> tunnel;  // nothing: it has none
  uint32_t tunnel_claim = 0;             // session that put the tunnel last
  std::vector<Encapsulation> encapsulations = std::vector<Encapsulation>(kIndexes);  // by index; never resized
  FlowTable flows;                   // those that have an index of their own
  Traffic sent, received, unlisted;  // into the core, out of it; unlisted: sent, of flows that are not in the table
  DropCounters drops{};              // by reason, both directions
};

struct CoreRoute {
  Vrf *vrf = nullptr;  // that takes the packets; never null once it stands in the table
  uint32_t claim = 0;  // session that put it last
  Traffic received;    // also by VRFs that it belonged to before
};
struct CoreKey {
  uint32_t source = 0;  // the sending PE, host byte order; 0: any
  uint32_t group = 0;   // host byte order
  bool operator==(const CoreKey &) const = default;
};
struct CoreKeyHash {
  size_t operator()(const CoreKey &key) const {
    return std::hash<uint64_t>()(((uint64_t{key.source} << 32 | key.group) ^ key.source >> 3) * 0x9E3779B97F4A7C15u);
  }
};

class State {
 public:
  using CoreRoutes = std::unordered_map<CoreKey, CoreRoute, CoreKeyHash>;
  // Who carries out what changes. A VRF that is removed has lost its tunnel, flows and routes before.
  struct Observer {
    std::function<void(Vrf &)> vrf_changed;                                 // new, or of another namespace
    std::function<void(Vrf &)> vrf_removed;                                 // called while the VRF is still there
    std::function<void(Vrf &)> tunnel_changed;                              // also: gone
    std::function<void(const CoreKey &, bool present)> core_route_changed;  // it came or went
    // Another VRF takes its packets from now on: a core packet has one receiver at most.
    std::function<void(const CoreKey &, const Vrf &from, const Vrf &to)> core_route_passes;
  };
  explicit State(Observer observer) : observer_(std::move(observer)) {}

  // A control plane connects: what it puts is its claim. sweep: removes what is not claimed; the number of items.
  void begin_session() { session_++; }
  size_t sweep();

  void set_policy(const OuterPolicy &policy);

  // Results: why it is refused; empty: done. Removing what is not there is done.
  std::string put_vrf(const std::string &name, const std::string &netns);
  std::string put_tunnel(const std::string &vrf, const TunnelSettings &settings);
  std::string put_encapsulation(const std::string &vrf, uint32_t index, uint32_t group, uint32_t source);
  std::string put_flow(const std::string &vrf, uint32_t source, uint32_t group, uint32_t index);
  std::string put_core_route(const CoreKey &key, const std::string &vrf);
  void remove_vrf(const std::string &name);
  void remove_tunnel(const std::string &vrf);
  void remove_encapsulation(const std::string &vrf, uint32_t index);
  void remove_flow(const std::string &vrf, uint32_t source, uint32_t group);
  void remove_core_route(const CoreKey &key);

  Vrf *find_vrf(const std::string &name);
  const std::map<std::string, std::unique_ptr<Vrf>> &vrfs() const { return vrfs_; }
  CoreRoutes &core_routes() { return core_routes_; }
  DropCounters &drops() { return drops_; }  // in the core
  size_t flows() const { return flow_count_; }

  // Brings what choose() will need on its way into the cache.
  static void prefetch(const Vrf &vrf, std::span<const uint8_t> datagram);
  // A customer datagram from a VRF: the encapsulation to send it with, and what to count it under. Null: dropped, and
  // counted.
  Encapsulation *choose(Vrf &vrf, std::span<const uint8_t> datagram);
  // A packet from the core, as it arrived: the VRF that takes *datagram. Null: dropped, and counted.
  Vrf *accept(std::span<uint8_t> packet, bool truncated, std::span<uint8_t> *datagram);

  // Rates, from what was counted since the last sample.
  void sample(double seconds);

 private:
  void forget_flows_of(Vrf &vrf, uint16_t index);
  CoreRoute *route_of(uint32_t source, uint32_t group);
  bool is_own_source(uint32_t address) const { return own_sources_.contains(address); }
  void count_own_sources();
  size_t sweep_vrf(Vrf &vrf);

  Observer observer_;
  OuterPolicy policy_;
  std::map<std::string, std::unique_ptr<Vrf>> vrfs_;
  CoreRoutes core_routes_;
  std::unordered_map<uint32_t, size_t> own_sources_;  // of tunnels
  DropCounters drops_{};
  size_t flow_count_ = 0;
  uint32_t session_ = 0;
};

}  // namespace forwarder

#endif  // FORWARDER_STATE_H
