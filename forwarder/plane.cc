// The forwarder's loop, and the protocol's server side. A turn waits for whatever is ready and calls it; behind each
// turn leaves what the control plane is to hear. Kernel views, retries and rates have their time a few times a second
// (tick).
//
// State says what changes and this file sees that it is carried out: a VRF has a site while it is held, the tunnel's
// and the routes' changes go to the sites. Trap: a report may end the session, when the control plane does not read; so
// session_ is looked at again behind each.
#include "forwarder/plane.h"

#include <sys/socket.h>

#include <algorithm>
#include <chrono>

namespace forwarder {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kTick{250};       // how late a namespace that comes or goes, or a changed route, may be noticed
constexpr milliseconds kSample{2000};    // rates are means over this: long enough for slow flows not to jump
constexpr size_t kEventsKept = 1000;     // of all VRFs together; the oldest goes for the newest
constexpr size_t kUnsentMax = 64 << 20;  // bytes: all counters of a full forwarder fit

uint64_t milliseconds_now() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<uint64_t>(std::chrono::duration_cast<milliseconds>(now).count());
}

protocol::Item item_of(const Vrf &vrf) {
  protocol::Item item;
  item.mutable_vrf()->set_name(vrf.name);
  item.mutable_vrf()->set_netns(vrf.netns);
  return item;
}

protocol::Item item_of(const std::string &vrf, const TunnelSettings &settings) {
  protocol::Item item;
  protocol::Tunnel *tunnel = item.mutable_tunnel();
  tunnel->set_vrf(vrf);
  tunnel->set_device(settings.device);
  tunnel->set_source(settings.source);
  tunnel->set_destination(settings.destination);
  tunnel->set_mtu(settings.mtu);
  tunnel->set_up(settings.up);
  return item;
}

protocol::Item item_of(const std::string &vrf, uint32_t index, const Encapsulation &held) {
  protocol::Item item;
  protocol::Encapsulation *encapsulation = item.mutable_encapsulation();
  encapsulation->set_vrf(vrf);
  encapsulation->set_index(index);
  encapsulation->set_group(held.group);
  encapsulation->set_source(held.source);
  return item;
}

protocol::Item item_of(const std::string &vrf, const Flow &held) {
  protocol::Item item;
  protocol::Flow *flow = item.mutable_flow();
  flow->set_vrf(vrf);
  flow->set_source(held.source);
  flow->set_group(held.group);
  flow->set_index(held.index);
  return item;
}

protocol::Item item_of(const CoreKey &key, const CoreRoute &held) {
  protocol::Item item;
  protocol::CoreRoute *route = item.mutable_core_route();
  route->set_source(key.source);
  route->set_group(key.group);
  route->set_vrf(held.vrf->name);
  return item;
}

}  // namespace

Plane::Plane(Options options)
    : options_(std::move(options)),
      namespaces_(options_.netns_folder, options_.core_netns),
      state_(observer()),
      instance_(milliseconds_now()) {
  CoreSite::Callbacks callbacks;
  callbacks.view = seen_by("");
  callbacks.event = [this](const std::string &text) { event(text); };
  callbacks.arrived = [this](Vrf &vrf, std::span<const uint8_t> datagram) {
    if (const auto site = sites_.find(vrf.name); site != sites_.end()) site->second->arrive(datagram);
  };
  core_ = std::make_unique<CoreSite>(poller_, state_, std::move(callbacks));
  event("started");
}

Plane::~Plane() { session_.reset(); }

State::Observer Plane::observer() {
  State::Observer observer;
  observer.vrf_changed = [this](Vrf &vrf) {
    sites_.erase(vrf.name);
    sites_[vrf.name] = std::make_unique<VrfSite>(poller_, namespaces_, *core_, state_, vrf, callbacks_of(vrf));
  };
  observer.vrf_removed = [this](const Vrf &vrf) { sites_.erase(vrf.name); };
  observer.tunnel_changed = [this](const Vrf &vrf) {
    sites_.at(vrf.name)->follow_tunnel();
    core_->look_again();
  };
  observer.core_route_changed = [this](const CoreKey &key, bool present) { core_->follow(key, present); };
  observer.core_route_passes = [this](const CoreKey &key, const Vrf &from, const Vrf &to) {
    core_->follow_pass(key, from, to);
  };
  return observer;
}

VrfSite::Callbacks Plane::callbacks_of(const Vrf &vrf) {
  VrfSite::Callbacks callbacks;
  callbacks.view = seen_by(vrf.name);
  callbacks.event = [this](const std::string &text) { event(text); };
  callbacks.tunnel_state = [this, name = vrf.name](bool up) {
    report_tunnel(name, up);
    event("VRF " + name + ": tunnel " + (up ? "up" : "down"));
  };
  callbacks.datagram = [this, name = vrf.name](std::span<const uint8_t> bytes) {
    Report message;
    message.mutable_datagram()->set_vrf(name);
    message.mutable_datagram()->set_bytes(bytes.data(), bytes.size());
    report(message);
  };
  return callbacks;
}

void Plane::report_tunnel(const std::string &vrf, bool up) {
  Report message;
  message.mutable_tunnel_state()->set_vrf(vrf);
  message.mutable_tunnel_state()->set_up(up);
  report(message);
}

KernelView::Callbacks Plane::seen_by(const std::string &vrf) {
  KernelView::Callbacks seen;
  seen.interface_changed = [this, vrf](const KernelInterface &interface) {
    Report message;
    protocol::Interface *told = message.mutable_interface();
    told->set_vrf(vrf);
    told->set_name(interface.name);
    told->set_present(true);
    told->set_up(interface.up);
    told->set_mtu(interface.mtu);
    for (const uint32_t address : interface.addresses) told->add_addresses(address);
    report(message);
  };
  seen.interface_gone = [this, vrf](const std::string &name) {
    Report message;
    message.mutable_interface()->set_vrf(vrf);
    message.mutable_interface()->set_name(name);
    report(message);
  };
  seen.route_changed = [this, vrf](const RouteKey &key, const KernelRoute *route) {
    if (vrf.empty()) return;  // the core's multicast routes are its own routing daemon's
    Report message;
    protocol::CustomerRoute *told = message.mutable_customer_route();
    told->set_vrf(vrf);
    told->set_source(key.source);
    told->set_group(key.group);
    told->set_present(route != nullptr);
    if (route != nullptr) {
      told->set_incoming(route->incoming);
      for (const std::string &name : route->outgoing) told->add_outgoing(name);
      told->set_rpf_neighbor(route->rpf_neighbor);
    }
    report(message);
  };
  return seen;
}

void Plane::event(const std::string &text) {
  protocol::Event event;
  event.set_milliseconds(milliseconds_now());
  event.set_text(text);
  events_.push_back(std::move(event));
  if (events_.size() > kEventsKept) events_.pop_front();
  options_.log(text);
}

// --------------------------------------------------------------------------------------------------------------- loop

void Plane::serve(Descriptor listener) {
  listener_ = std::move(listener);
  poller_.watch(listener_.get(), [this] { accept_control(); });
  auto next_tick = steady_clock::now() + kTick, last_sample = steady_clock::now();
  while (!stopping_) {
    const auto left = std::chrono::ceil<milliseconds>(next_tick - steady_clock::now());
    poller_.wait(static_cast<int>(std::max<int64_t>(left.count(), 0)));
    flush_session();
    const auto now = steady_clock::now();
    if (now < next_tick) continue;
    next_tick = now + kTick;
    tick();
    flush_session();
    if (now - last_sample < kSample) continue;
    state_.sample(std::chrono::duration<double>(now - last_sample).count());
    last_sample = now;
  }
  event("stopped");
}

void Plane::tick() {
  if (options_.alive) options_.alive();
  core_->tick();
  for (const auto &[name, site] : sites_) site->tick();
}

// ------------------------------------------------------------------------------------------------------------ sessions

// The latest control plane is the one that counts: a former one may hang without its connection having ended.
void Plane::accept_control() {
  Descriptor socket(::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (!socket) return;
  if (session_ != nullptr) end_session("another control plane has connected");
  session_ = std::make_unique<Session>(Session{std::move(socket), Framing(kUnsentMax)});
  watch_session();
}

void Plane::watch_session() {
  session_->waits = session_->framing.unsent();
  poller_.watch(
      session_->socket.get(), [this] { serve_control(); }, session_->waits);
}

void Plane::end_session(const std::string &reason) {
  poller_.forget(session_->socket.get());
  if (session_->greeted) event("control plane: " + reason + "; what it asked for is kept");
  session_.reset();
}

void Plane::serve_control() {
  if (!session_->framing.receive(session_->socket.get())) {
    end_session("the connection has ended");
    return;
  }
  std::string_view bytes;
  while (session_ != nullptr && session_->framing.next(&bytes)) {
    protocol::Request request;
    if (!request.ParseFromArray(bytes.data(), static_cast<int>(bytes.size())))
      return end_session("a message makes no sense");
    handle(request);
  }
  if (session_ == nullptr) return;
  if (session_->framing.broken()) end_session("a message is too long");
}

// What a turn has to say leaves together.
void Plane::flush_session() {
  if (session_ == nullptr) return;
  if (!session_->framing.flush(session_->socket.get())) return end_session("the connection has ended");
  if (session_->framing.unsent() != session_->waits) watch_session();
}

void Plane::report(const Report &message) {
  if (session_ == nullptr || !session_->greeted) return;
  if (!session_->framing.send(message)) end_session("it does not read what it is told");
}

void Plane::refuse(const std::string &reason) {
  Report message;
  message.mutable_refusal()->set_reason(reason);
  event("refused: " + reason);
  report(message);
}

void Plane::handle(const protocol::Request &request) {
  using Kind = protocol::Request;
  if (!session_->greeted && request.request_case() != Kind::kHello)
    return end_session("it does not begin with a greeting");
  switch (request.request_case()) {
    case Kind::kHello:
      return greet(request.hello());
    case Kind::kSettings:
      return set(request.settings());
    case Kind::kPut:
      if (const std::string reason = put(request.put()); !reason.empty()) refuse(reason);
      return;
    case Kind::kRemove:
      return remove(request.remove());
    case Kind::kDatagram:
      return send(request.datagram());
    case Kind::kSweep:
      event("swept " + std::to_string(state_.sweep()) + " items that nobody claims");
      return;
    case Kind::kCounters:
      return report_counters(request.counters());
    case Kind::REQUEST_NOT_SET:
      return refuse("a request that this version does not know");
  }
}

void Plane::greet(const protocol::Hello &hello) {
  session_->greeted = true;
  if (hello.version() != kProtocolVersion) {
    refuse("the forwarder speaks version " + std::to_string(kProtocolVersion) + " of its protocol, the control plane " +
           std::to_string(hello.version()));
    flush_session();
    if (session_ != nullptr) end_session("it speaks another version");
    return;
  }
  state_.begin_session();
  event("control plane " + hello.name().substr(0, kNameMax) + " has connected");
  Report message;
  message.mutable_welcome()->set_version(kProtocolVersion);
  message.mutable_welcome()->set_instance(instance_);
  report(message);
  report_held();
  report_seen();
}

void Plane::report_held() {
  const auto held = [this](protocol::Item item) {
    Report message;
    *message.mutable_held() = std::move(item);
    report(message);
  };
  for (const auto &[name, vrf] : state_.vrfs()) {
    held(item_of(*vrf));
    if (vrf->tunnel) held(item_of(name, *vrf->tunnel));
    for (uint32_t index = 1; index < kIndexes; index++)
      if (vrf->encapsulations[index].group != 0) held(item_of(name, index, vrf->encapsulations[index]));
    vrf->flows.each([&, &vrf_name = name](const Flow &flow, const FlowRate &) { held(item_of(vrf_name, flow)); });
  }
  for (const auto &[key, route] : state_.core_routes()) held(item_of(key, route));
  Report end;
  end.mutable_held_end();
  report(end);
}

void Plane::report_seen() {
  core_->view().repeat();
  for (const auto &[name, site] : sites_) {
    site->repeat();
    report_tunnel(name, site->tunnel_up());
  }
}

// ------------------------------------------------------------------------------------------------------------ requests

void Plane::set(const protocol::Settings &settings) {
  if (settings.ttl() == 0 || settings.ttl() > 255 || settings.tos() > 255 || settings.dont_fragment() > 2)
    return refuse("settings: out of range");
  OuterPolicy policy;
  policy.ttl = static_cast<uint8_t>(settings.ttl());
  if (settings.tos_fixed()) policy.tos = static_cast<uint8_t>(settings.tos());
  policy.df = static_cast<DontFragment>(settings.dont_fragment());
  state_.set_policy(policy);
  core_->set_interface(settings.core_interface());
}

std::string Plane::put(const protocol::Item &item) {
  switch (item.item_case()) {
    case protocol::Item::kVrf: {
      const bool known = state_.find_vrf(item.vrf().name()) != nullptr;
      std::string reason = state_.put_vrf(item.vrf().name(), item.vrf().netns());
      if (reason.empty() && known) sites_.at(item.vrf().name())->repeat();
      return reason;
    }
    case protocol::Item::kTunnel: {
      const protocol::Tunnel &tunnel = item.tunnel();
      std::string reason = state_.put_tunnel(
          tunnel.vrf(), {tunnel.device(), tunnel.source(), tunnel.destination(), tunnel.mtu(), tunnel.up()});
      if (reason.empty()) report_tunnel(tunnel.vrf(), sites_.at(tunnel.vrf())->tunnel_up());
      return reason;
    }
    case protocol::Item::kEncapsulation: {
      const protocol::Encapsulation &wanted = item.encapsulation();
      return state_.put_encapsulation(wanted.vrf(), wanted.index(), wanted.group(), wanted.source());
    }
    case protocol::Item::kFlow:
      return state_.put_flow(item.flow().vrf(), item.flow().source(), item.flow().group(), item.flow().index());
    case protocol::Item::kCoreRoute:
      return state_.put_core_route({item.core_route().source(), item.core_route().group()}, item.core_route().vrf());
    case protocol::Item::ITEM_NOT_SET:
      break;
  }
  return "an item that this version does not know";
}

void Plane::remove(const protocol::Item &item) {
  switch (item.item_case()) {
    case protocol::Item::kVrf:
      return state_.remove_vrf(item.vrf().name());
    case protocol::Item::kTunnel:
      return state_.remove_tunnel(item.tunnel().vrf());
    case protocol::Item::kEncapsulation:
      return state_.remove_encapsulation(item.encapsulation().vrf(), item.encapsulation().index());
    case protocol::Item::kFlow:
      return state_.remove_flow(item.flow().vrf(), item.flow().source(), item.flow().group());
    case protocol::Item::kCoreRoute:
      return state_.remove_core_route({item.core_route().source(), item.core_route().group()});
    case protocol::Item::ITEM_NOT_SET:
      return;
  }
}

void Plane::send(const protocol::Datagram &datagram) {
  const auto site = sites_.find(datagram.vrf());
  const std::string &bytes = datagram.bytes();
  const std::span<const uint8_t> span(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
  if (site == sites_.end() || !site->second->send(span))
    refuse("datagram: the tunnel of VRF " + datagram.vrf() + " takes none");
}

// ------------------------------------------------------------------------------------------------------------ counters

void Plane::report_counters(uint64_t token) {
  for (const auto &[name, vrf] : state_.vrfs()) report_vrf(*vrf);
  report_flows();
  for (const auto &[key, route] : state_.core_routes()) {
    const CoreSite::Joined joined = core_->joined(key);
    Report message;
    protocol::CoreCounters *core = message.mutable_core();
    core->set_source(key.source);
    core->set_group(key.group);
    core->set_vrf(route.vrf->name);
    core->set_interface(joined.interface);
    core->set_joined(joined.joined);
    core->set_packets(route.received.packets);
    core->set_bytes(route.received.bytes);
    report(message);
  }
  report_drops("", state_.drops());
  for (const protocol::Event &event : events_) {
    Report message;
    *message.mutable_event() = event;
    report(message);
  }
  Report end;
  end.mutable_counters_end()->set_token(token);
  report(end);
}

void Plane::report_vrf(const Vrf &vrf) {
  const VrfSite &site = *sites_.at(vrf.name);
  Report message;
  protocol::VrfCounters *counters = message.mutable_vrf();
  counters->set_vrf(vrf.name);
  counters->set_namespace_present(site.present());
  counters->set_tunnel_up(site.tunnel_up());
  counters->set_sent_packets(vrf.sent.packets);
  counters->set_sent_bytes(vrf.sent.bytes);
  counters->set_received_packets(vrf.received.packets);
  counters->set_received_bytes(vrf.received.bytes);
  counters->set_unlisted_packets(vrf.unlisted.packets);
  counters->set_unlisted_bytes(vrf.unlisted.bytes);
  report(message);
  report_drops(vrf.name, vrf.drops);
  if (!site.present()) return;
  for (const RouteTraffic &traffic : site.view()->traffic()) {
    Report bytes;
    protocol::RouteBytes *route = bytes.mutable_route_bytes();
    route->set_vrf(vrf.name);
    route->set_source(traffic.key.source);
    route->set_group(traffic.key.group);
    route->set_packets(traffic.packets);
    route->set_bytes(traffic.bytes);
    report(bytes);
  }
}

void Plane::report_flows() {
  for (const auto &[name, vrf] : state_.vrfs())
    vrf->flows.each([&, &vrf_name = name, &held = *vrf](const Flow &flow, const FlowRate &rate) {
      Report message;
      protocol::FlowCounters *counters = message.mutable_flow();
      const Encapsulation &bound = held.encapsulations[flow.index];
      const uint16_t index = bound.group != 0 ? flow.index : kDefaultIndex;
      counters->set_vrf(vrf_name);
      counters->set_source(flow.source);
      counters->set_group(flow.group);
      counters->set_index(index);
      counters->set_core_group(held.encapsulations[index].group);
      counters->set_packets(flow.packets);
      counters->set_bytes(flow.bytes);
      counters->set_rate(rate.rate);
      report(message);
    });
}

void Plane::report_drops(const std::string &vrf, const DropCounters &drops) {
  for (size_t reason = 0; reason < kDrops; reason++) {
    if (drops[reason] == 0) continue;
    Report message;
    message.mutable_drop()->set_vrf(vrf);
    message.mutable_drop()->set_reason(drop_name(static_cast<Drop>(reason)));
    message.mutable_drop()->set_packets(drops[reason]);
    report(message);
  }
}

}  // namespace forwarder
