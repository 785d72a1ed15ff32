// What is held, and the decisions about packets that follow from it. Keys are checked here, so that nothing else has to
// doubt them. Observers are called behind the change, but for a VRF that is removed, which they see a last time.
//
// Packets take choose() and accept(): no allocation, no system call, a few look-ups in hash tables, and a
// drop is always counted.
#include "forwarder/state.h"

#include <utility>

namespace forwarder {
namespace {

constexpr uint32_t kMtuMin = 68, kMtuMax = kCustomerMax;  // 68: the least that IPv4 lets a link have (RFC 791)
constexpr size_t kDeviceMax = 15;                         // characters of a device's name

std::nullptr_t drop(DropCounters &counters, Drop reason) {
  counters[static_cast<size_t>(reason)]++;
  return nullptr;
}

bool is_name(const std::string &text, size_t longest) {
  return !text.empty() && text.size() <= longest && text.find('\0') == std::string::npos;
}

// A namespace's name is a file name, or a path from the root.
bool is_netns(const std::string &text) {
  return is_name(text, 4 * kNameMax) && text != "." && text != ".." &&
         (text.front() == '/' || text.find('/') == std::string::npos);
}

}  // namespace

Vrf *State::find_vrf(const std::string &name) {
  const auto found = vrfs_.find(name);
  return found == vrfs_.end() ? nullptr : found->second.get();
}

void State::set_policy(const OuterPolicy &policy) {
  policy_ = policy;
  for (const auto &[name, vrf] : vrfs_)
    for (Encapsulation &encapsulation : vrf->encapsulations)
      if (encapsulation.group != 0)
        encapsulation.header = OuterHeader(encapsulation.source, encapsulation.group, policy_);
}

// -------------------------------------------------------------------------------------------------------- put, remove

std::string State::put_vrf(const std::string &name, const std::string &netns) {
  if (!is_name(name, kNameMax) || !is_netns(netns)) return "VRF: no such name of a VRF or a namespace";
  Vrf *vrf = find_vrf(name);
  if (vrf == nullptr && vrfs_.size() >= kVrfsMax) return "VRF " + name + ": there are too many";
  const bool fresh = vrf == nullptr;
  if (fresh) vrf = vrfs_.emplace(name, std::make_unique<Vrf>()).first->second.get();
  const bool changed = fresh || vrf->netns != netns;
  vrf->name = name;
  vrf->netns = netns;
  vrf->claim = session_;
  if (changed) observer_.vrf_changed(*vrf);
  return "";
}

std::string State::put_tunnel(const std::string &name, const TunnelSettings &settings) {
  Vrf *vrf = find_vrf(name);
  if (vrf == nullptr) return "tunnel: there is no VRF " + name;
  if (!is_name(settings.device, kDeviceMax) || settings.device.find('/') != std::string::npos)
    return "tunnel of VRF " + name + ": no name of a device";
  if (settings.mtu < kMtuMin || settings.mtu > kMtuMax) return "tunnel of VRF " + name + ": its MTU is out of range";
  vrf->tunnel_claim = session_;
  if (vrf->tunnel == settings) return "";
  vrf->tunnel = settings;
  count_own_sources();
  observer_.tunnel_changed(*vrf);
  return "";
}

std::string State::put_encapsulation(const std::string &name, uint32_t index, uint32_t group, uint32_t source) {
  Vrf *vrf = find_vrf(name);
  if (vrf == nullptr) return "encapsulation: there is no VRF " + name;
  if (index == 0 || index >= kIndexes || !is_multicast(group) || source == 0)
    return "encapsulation of VRF " + name + ": index, group or source out of range";
  Encapsulation &encapsulation = vrf->encapsulations[index];
  if (encapsulation.group != 0 && encapsulation.group != group) forget_flows_of(*vrf, static_cast<uint16_t>(index));
  encapsulation.claim = session_;
  encapsulation.group = group;
  encapsulation.source = source;
  encapsulation.header = OuterHeader(source, group, policy_);
  return "";
}

std::string State::put_flow(const std::string &name, uint32_t source, uint32_t group, uint32_t index) {
  Vrf *vrf = find_vrf(name);
  if (vrf == nullptr) return "flow: there is no VRF " + name;
  if (index == 0 || index >= kIndexes || !is_multicast(group))
    return "flow of VRF " + name + ": index or group out of range";
  const bool fresh = vrf->flows.find(source, group) == nullptr;
  if (fresh && flow_count_ >= kFlowsMax) return "flow of VRF " + name + ": there are too many";
  Flow &flow = vrf->flows.insert(source, group);
  flow.index = static_cast<uint16_t>(index);
  flow.claim = session_;
  if (fresh) flow_count_++;
  return "";
}

std::string State::put_core_route(const CoreKey &key, const std::string &name) {
  Vrf *vrf = find_vrf(name);
  if (vrf == nullptr) return "core route: there is no VRF " + name;
  if (!is_multicast(key.group)) return "core route: its group is none";
  const auto found = core_routes_.find(key);
  const bool fresh = found == core_routes_.end();
  if (fresh && core_routes_.size() >= kCoreRoutesMax) return "core route: there are too many";
  CoreRoute &route = core_routes_[key];
  const Vrf *former = std::exchange(route.vrf, vrf);
  route.claim = session_;
  if (!fresh && former != vrf) observer_.core_route_passes(key, *former, *vrf);
  if (fresh) observer_.core_route_changed(key, true);
  return "";
}

void State::remove_vrf(const std::string &name) {
  Vrf *vrf = find_vrf(name);
  if (vrf == nullptr) return;
  std::vector<CoreKey> routes;
  for (const auto &[key, route] : core_routes_)
    if (route.vrf == vrf) routes.push_back(key);
  for (const CoreKey &key : routes) remove_core_route(key);
  remove_tunnel(name);
  flow_count_ -= vrf->flows.size();
  observer_.vrf_removed(*vrf);
  vrfs_.erase(name);
}

void State::remove_tunnel(const std::string &name) {
  Vrf *vrf = find_vrf(name);
  if (vrf == nullptr || !vrf->tunnel) return;
  vrf->tunnel.reset();
  count_own_sources();
  observer_.tunnel_changed(*vrf);
}

void State::remove_encapsulation(const std::string &name, uint32_t index) {
  Vrf *vrf = find_vrf(name);
  if (vrf == nullptr || index >= kIndexes || vrf->encapsulations[index].group == 0) return;
  forget_flows_of(*vrf, static_cast<uint16_t>(index));
  vrf->encapsulations[index] = Encapsulation{};
}

void State::remove_flow(const std::string &name, uint32_t source, uint32_t group) {
  Vrf *vrf = find_vrf(name);
  if (vrf != nullptr && vrf->flows.erase(source, group)) flow_count_--;
}

void State::remove_core_route(const CoreKey &key) {
  if (core_routes_.erase(key) != 0) observer_.core_route_changed(key, false);
}

// Flows of a former session do not follow their index to another group.
void State::forget_flows_of(Vrf &vrf, uint16_t index) {
  vrf.flows.each([&](Flow &flow, const FlowRate &) {
    if (flow.index == index && flow.claim != session_) flow.index = kDefaultIndex;
  });
}

void State::count_own_sources() {
  own_sources_.clear();
  for (const auto &[name, vrf] : vrfs_)
    if (vrf->tunnel) own_sources_[vrf->tunnel->source]++;
}

// -------------------------------------------------------------------------------------------------------------- sweep

size_t State::sweep_vrf(Vrf &vrf) {
  size_t swept = 0;
  std::vector<CoreKey> flows;
  vrf.flows.each([&](const Flow &flow, const FlowRate &) {
    if (flow.claim != session_) flows.push_back({flow.source, flow.group});
  });
  for (const CoreKey &flow : flows) remove_flow(vrf.name, flow.source, flow.group);
  for (uint32_t index = 0; index < kIndexes; index++) {
    const Encapsulation &encapsulation = vrf.encapsulations[index];
    if (encapsulation.group == 0 || encapsulation.claim == session_) continue;
    remove_encapsulation(vrf.name, index);
    swept++;
  }
  if (vrf.tunnel && vrf.tunnel_claim != session_) {
    remove_tunnel(vrf.name);
    swept++;
  }
  return swept + flows.size();
}

size_t State::sweep() {
  size_t swept = 0;
  std::vector<CoreKey> routes;
  for (const auto &[key, route] : core_routes_)
    if (route.claim != session_) routes.push_back(key);
  for (const CoreKey &key : routes) remove_core_route(key);
  std::vector<std::string> gone;
  for (const auto &[name, vrf] : vrfs_) {
    swept += sweep_vrf(*vrf);
    if (vrf->claim != session_) gone.push_back(name);
  }
  for (const std::string &name : gone) remove_vrf(name);
  return swept + routes.size() + gone.size();
}

// ------------------------------------------------------------------------------------------------------------ packets

void State::prefetch(const Vrf &vrf, std::span<const uint8_t> datagram) {
  Customer customer;
  if (inspect_customer(datagram, &customer)) return;
  // Here and not in an inline function that does nothing else: the compiler takes such a one for empty and leaves it
  // out.
  __builtin_prefetch(vrf.flows.begin_of(customer.source, customer.group), 1);
}

Encapsulation *State::choose(Vrf &vrf, std::span<const uint8_t> datagram) {
  Customer customer;
  if (const auto reason = inspect_customer(datagram, &customer)) return drop(vrf.drops, *reason);
  // A core packet of ours that comes out of a VRF would go round for ever.
  if (const auto core = core_packet_within(datagram); core && is_own_source(core->source))
    return drop(vrf.drops, Drop::looped);
  Flow *flow = vrf.flows.find(customer.source, customer.group);
  Encapsulation *encapsulation = &vrf.encapsulations[flow == nullptr ? kDefaultIndex : flow->index];
  if (encapsulation->group == 0) encapsulation = &vrf.encapsulations[kDefaultIndex];
  if (encapsulation->group == 0) return drop(vrf.drops, Drop::no_encapsulation);
  if (flow != nullptr) {
    flow->packets++;
    flow->bytes += datagram.size();
  } else {
    vrf.unlisted.count(datagram.size());
  }
  return encapsulation;
}

CoreRoute *State::route_of(uint32_t source, uint32_t group) {
  auto found = core_routes_.find({source, group});
  if (found == core_routes_.end()) found = core_routes_.find({0, group});
  return found == core_routes_.end() ? nullptr : &found->second;
}

Vrf *State::accept(std::span<uint8_t> bytes, bool truncated, std::span<uint8_t> *datagram) {
  CorePacket packet;
  if (const auto reason = decapsulate(bytes, truncated, &packet)) return drop(drops_, *reason);
  if (is_own_source(packet.source)) return drop(drops_, Drop::own_source);
  CoreRoute *route = route_of(packet.source, packet.group);
  if (route == nullptr) return drop(drops_, Drop::unknown_group);
  Vrf &vrf = *route->vrf;
  if (const auto core = core_packet_within(packet.datagram);
      core && (is_own_source(core->source) || route_of(core->source, core->group) != nullptr))
    return drop(vrf.drops, Drop::looped);
  if (!vrf.tunnel || !vrf.tunnel->up) return drop(vrf.drops, Drop::no_tunnel);
  Customer customer;
  if (const auto reason = inspect_customer(packet.datagram, &customer)) return drop(vrf.drops, *reason);
  if (!is_multicast(customer.group) && customer.group != vrf.tunnel->source)
    return drop(vrf.drops, Drop::stray_unicast);
  if (packet.congested && !mark_congestion(packet.datagram)) return drop(vrf.drops, Drop::congestion);
  route->received.count(packet.datagram.size());
  *datagram = packet.datagram;
  return &vrf;
}

void State::sample(double seconds) {
  if (seconds <= 0) return;
  for (const auto &[name, vrf] : vrfs_)
    vrf->flows.each([seconds](const Flow &flow, FlowRate &rate) {
      rate.rate = static_cast<uint64_t>(static_cast<double>(flow.bytes - rate.sampled_bytes) / seconds);
      rate.sampled_bytes = flow.bytes;
    });
}

}  // namespace forwarder
