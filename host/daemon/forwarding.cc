// Interfaces of the core keep the kernel's names. Interfaces of VRFs do so when the configuration names them; else they
// are called NAME@VRF, since two VRFs may each have an eth0.
//
// The index in force of a flow is the one that the module last asked to be installed. It is given up when the module
// has chosen another for the route, or when it stands for nothing any more, and the flow goes on the default MDT: a
// choice that has not been installed yet does not count.
#include "host/daemon/forwarding.h"

#include <algorithm>

#include "platform/im.h"
#include "platform/l3vm.h"
#include "platform/oim.h"
#include "platform/pim.h"
#include "platform/reference/croute.h"
#include "platform/reference/im.h"
#include "platform/reference/runtime.h"
#include "routing/pim/mvpn/mvpn.h"

namespace host {
namespace {

using forwarder::protocol::Item;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr char kDefaultSocket[] = "/run/mvpn-forwarder.sock";
constexpr seconds kRetry{1};           // the log says that it is every second
constexpr seconds kGrace{10};          // for a forwarder that is started anew, before tunnels count as down
constexpr seconds kTelling{3};         // for a forwarder to tell again what there is
constexpr seconds kRecovery{240};      // of the platform's clock, as the module's own recovery
constexpr milliseconds kAnswer{5000};  // for counters; a forwarder that takes longer hangs
constexpr double kBytesPerKbit = 125;  // kilobits of 1000 bits
constexpr double kSecondsAMinute = 60;

Item tunnel_item(const ref::Tunnel &tunnel, bool up) {
  Item item;
  item.mutable_tunnel()->set_vrf(tunnel.vrf_name);
  item.mutable_tunnel()->set_device(oim_print_ifname(tunnel.if_index));
  item.mutable_tunnel()->set_source(tunnel.source);
  item.mutable_tunnel()->set_destination(tunnel.destination);
  item.mutable_tunnel()->set_mtu(tunnel.mtu);
  item.mutable_tunnel()->set_up(up);
  return item;
}

Item vrf_item(const std::string &name, const std::string &netns) {
  Item item;
  item.mutable_vrf()->set_name(name);
  item.mutable_vrf()->set_netns(netns);
  return item;
}

std::string vrf_of(vrf_context_id_t context_id) {
  const pim_cibtype *pcib = pim_get_cib_by_context_id(context_id);
  return pcib == nullptr ? "" : pcib->vrf_name;
}

mvpn_mdt_route_addrs addrs_of(ip_addr_t source, ip_addr_t group) {
  mvpn_mdt_route_addrs addrs{};
  addrs.source = source;
  addrs.source_len = static_cast<uint8_t>(source == 0 ? MROUTE_ANY_SOURCE_LEN : MROUTE_HOST_LEN);
  addrs.group = group;
  addrs.group_len = MROUTE_HOST_LEN;
  return addrs;
}

}  // namespace

Forwarding::Forwarding(Loop &loop, EventBus &events, LogLine log,
                       std::function<void(const std::string &)> follow_interface, bool recovering)
    : loop_(loop),
      events_(events),
      log_(std::move(log)),
      follow_interface_(std::move(follow_interface)),
      recovering_(recovering),
      started_(ref::now()),
      socket_(loop.io()),
      retry_(loop.io()),
      grace_(loop.io()),
      answer_(loop.io()) {}

Forwarding::~Forwarding() {
  unwatch();
  if (ref::forwarding_plane() == this) ref::use_forwarding_plane(nullptr);
}

// ------------------------------------------------------------------------------------------------------ configuration

void Forwarding::follow(const Config &config) {
  config_ = config;
  const Block *block = config.find({Mode::forwarding, ""});
  const std::string *configured = block == nullptr ? nullptr : block->value(Command::forwarder_socket, "path");
  const std::string path = block == nullptr ? "" : configured == nullptr ? kDefaultSocket : *configured;
  if (path != path_) {
    close();
    path_ = path;
    if (!path.empty()) open(path, config.hostname("pimhostd"));
  }
  if (block == nullptr) return;
  follow_settings(*block);
  follow_vrfs(config);
  if (ref::forwarding_plane() != this) ref::use_forwarding_plane(this);
}

void Forwarding::open(const std::string &path, const std::string &hostname) {
  client_ = std::make_unique<forwarder::Client>(path, hostname, callbacks());
  if (recovering_ && ref::now() - started_ < kRecovery) client_->begin_recovery();
  follow_interfaces();
  connect_later();
}

void Forwarding::follow_interfaces() {
  for (const auto &[id, block] : config_.blocks())
    if (id.mode == Mode::interface) follow_interface_(id.name);
}

void Forwarding::follow_settings(const Block &block) {
  forwarder::protocol::Settings settings;
  const std::string *ttl = block.value(Command::outer_ttl, "ttl"), *tos = block.value(Command::outer_tos, "tos");
  const std::string *interface = block.value(Command::core_interface, "name");
  settings.set_ttl(ttl == nullptr ? 64 : static_cast<uint32_t>(number_value(*ttl)));
  settings.set_tos_fixed(tos != nullptr);
  if (tos != nullptr) settings.set_tos(static_cast<uint32_t>(number_value(*tos)));
  if (interface != nullptr) settings.set_core_interface(*interface);
  if (block.value(Command::outer_df, "set") != nullptr) settings.set_dont_fragment(1);
  if (block.value(Command::outer_df, "clear") != nullptr) settings.set_dont_fragment(2);
  client_->set(settings);
}

// A VRF that is of another namespace now begins anew there.
void Forwarding::follow_vrfs(const Config &config) {
  for (const auto &[id, block] : config.blocks()) {
    if (id.mode != Mode::vrf) continue;
    const std::string *configured = block->value(Command::netns, "name");
    const std::string netns = configured == nullptr ? id.name : *configured;
    const auto known = vrfs_.find(id.name);
    if (known != vrfs_.end() && known->second == netns) continue;
    vrfs_[id.name] = netns;
    client_->put(vrf_item(id.name, netns));
  }
}

void Forwarding::close() {
  if (client_ == nullptr) return;
  ref::use_forwarding_plane(nullptr);
  for (const auto &[name, netns] : vrfs_) client_->remove(vrf_item(name, netns));
  retry_.cancel();
  grace_.cancel();
  unwatch();
  client_.reset();
  path_.clear();
  for (const auto &[key, interface] : std::exchange(interfaces_, {})) forget_interface(key);
  follow_interfaces();
  for (const auto &[key, route] : std::exchange(routes_, {}))
    ref::delete_customer_route(std::get<0>(key), addrs_of(std::get<1>(key), std::get<2>(key)));
  vrfs_.clear();
  devices_.clear();
  flows_.clear();
  waiting_interfaces_.clear();
  waiting_routes_.clear();
  refreshed(std::nullopt);
}

// The module leaves a VRF that is not configured any more in its own time; until then the forwarder keeps it.
void Forwarding::settle() {
  if (client_ == nullptr) return;
  for (auto at = vrfs_.begin(); at != vrfs_.end();) {
    if (config_.vrf(at->first) != nullptr || pim_get_cib_by_context_name(at->first.c_str()) != nullptr) {
      ++at;
      continue;
    }
    client_->remove(vrf_item(at->first, at->second));
    at = vrfs_.erase(at);
  }
  for (const SeenKey &key : std::exchange(waiting_interfaces_, {})) apply_interface(key);
  for (const RouteKey &key : std::exchange(waiting_routes_, {}))
    if (const auto route = routes_.find(key); route != routes_.end()) apply_route(key, route->second);
  if (client_->recovering() && ref::now() - started_ >= kRecovery) client_->end_recovery();
  if (connected() && client_->wants_to_write()) watch();
}

// --------------------------------------------------------------------------------------------------------- connection

void Forwarding::connect_later() {
  retry_.expires_after(milliseconds(0));
  const auto attempt = [this](const boost::system::error_code &error, const auto &again) -> void {
    if (error || client_ == nullptr) return;
    {
      Loop::Turn turn(loop_);
      if (client_->connect()) {
        socket_.assign(client_->descriptor());
        return watch();
      }
    }
    retry_.expires_after(kRetry);
    retry_.async_wait([again](const boost::system::error_code &later) { again(later, again); });
  };
  retry_.async_wait([attempt](const boost::system::error_code &error) { attempt(error, attempt); });
}

// One wait of each kind at a time; those of a former connection end without a consequence.
void Forwarding::watch() {
  using boost::asio::posix::stream_descriptor;
  const auto wait = [this](stream_descriptor::wait_type what, bool &waits) {
    if (std::exchange(waits, true)) return;
    socket_.async_wait(what, [this, &waits, connection = connections_](const boost::system::error_code &error) {
      if (connection != connections_) return;
      waits = false;
      if (!error && client_ != nullptr) on_ready();
    });
  };
  wait(stream_descriptor::wait_read, waits_to_read_);
  if (client_->wants_to_write()) wait(stream_descriptor::wait_write, waits_to_write_);
}

void Forwarding::on_ready() {
  Loop::Turn turn(loop_);
  client_->on_ready();
  if (connected()) watch();
}

// The descriptor is the client's.
void Forwarding::unwatch() {
  if (socket_.is_open()) socket_.release();
  connections_++;
  waits_to_read_ = waits_to_write_ = false;
}

forwarder::Client::Callbacks Forwarding::callbacks() {
  forwarder::Client::Callbacks callbacks;
  callbacks.interface = [this](const auto &told) { interface_told(told); };
  callbacks.tunnel_state = [](const auto &told) { ref::report_tunnel_state(told.vrf(), told.up()); };
  callbacks.customer_route = [this](const auto &told) { route_told(told); };
  callbacks.datagram = [](const auto &told) {
    const auto *bytes = reinterpret_cast<const uint8_t *>(told.bytes().data());
    ref::receive_tunnel_datagram(told.vrf(), {bytes, told.bytes().size()});
  };
  callbacks.counters = [this](forwarder::Counters counters) { refreshed(std::move(counters)); };
  callbacks.log = [this](const std::string &text) { log_(Level::notice, text); };
  callbacks.connected = [this] { on_connected(); };
  callbacks.disconnected = [this] { on_disconnected(); };
  return callbacks;
}

// What the kernel has meanwhile lost is not told: it is gone when it has not been told again for a moment.
void Forwarding::on_connected() {
  events_.publish({.what = ServiceChange{"forwarder", "away", "connected"}, .reason = path_});
  round_++;
  grace_.expires_after(kTelling);
  grace_.async_wait([this](const boost::system::error_code &error) {
    if (error) return;
    Loop::Turn turn(loop_);
    drop_what_is_not_told();
  });
}

void Forwarding::drop_what_is_not_told() {
  for (auto at = routes_.begin(); at != routes_.end();) {
    const auto &[key, route] = *at;
    if (route.round == round_) {
      ++at;
      continue;
    }
    ref::delete_customer_route(std::get<0>(key), addrs_of(std::get<1>(key), std::get<2>(key)));
    at = routes_.erase(at);
  }
  std::vector<SeenKey> gone;
  for (const auto &[key, interface] : interfaces_)
    if (interface.round != round_) gone.push_back(key);
  for (const SeenKey &key : gone) {
    interfaces_.erase(key);
    forget_interface(key);
  }
}

void Forwarding::on_disconnected() {
  events_.publish({.what = ServiceChange{"forwarder", "connected", "away"}, .level = Level::warning, .reason = path_});
  unwatch();
  refreshed(std::nullopt);
  grace_.expires_after(kGrace);
  grace_.async_wait([this](const boost::system::error_code &error) {
    if (error || connected()) return;
    Loop::Turn turn(loop_);
    log_(Level::warning, "forwarder " + path_ + ": still not there; the tunnels are down");
    for (const auto &[name, netns] : vrfs_) ref::report_tunnel_state(name, false);
  });
  connect_later();
}

// ------------------------------------------------------------------------------------------------- what is to be done

void Forwarding::tunnel_changed(const ref::Tunnel &tunnel, bool wanted_up) {
  if (!vrfs_.contains(tunnel.vrf_name)) return;
  devices_[tunnel.vrf_name] = oim_print_ifname(tunnel.if_index);
  client_->put(tunnel_item(tunnel, wanted_up));
}

void Forwarding::tunnel_deleted(const ref::Tunnel &tunnel) {
  devices_.erase(tunnel.vrf_name);
  client_->remove(tunnel_item(tunnel, false));
}

void Forwarding::core_route_changed(const ref::MribRoute &route, bool present) {
  Item item;
  item.mutable_core_route()->set_source(route.addrs.source_len == MROUTE_ANY_SOURCE_LEN ? 0 : route.addrs.source);
  item.mutable_core_route()->set_group(route.addrs.group);
  const std::string vrf = vrf_of(l3vm_if_get_context_id(route.mti_iod));
  item.mutable_core_route()->set_vrf(vrf);
  // Without a tunnel the route is one that this PE only sends on.
  if (present && route.mti_iod != 0 && vrfs_.contains(vrf))
    client_->put(item);
  else
    client_->remove(item);
}

void Forwarding::encap_changed(const ref::MribEncap &encap, bool present) {
  const std::string vrf = vrf_of(encap.context_id);
  if (!vrfs_.contains(vrf)) return;
  Item item;
  item.mutable_encapsulation()->set_vrf(vrf);
  item.mutable_encapsulation()->set_index(encap.index);
  item.mutable_encapsulation()->set_group(encap.group);
  item.mutable_encapsulation()->set_source(encap.source);
  if (present) return client_->put(item);
  end_index(vrf, encap.index);
  client_->remove(item);
}

// Flows leave an index before it stands for another group.
void Forwarding::end_index(const std::string &vrf, uint16_t index) {
  if (index <= MVPN_ENCAP_INDEX_DEFAULT) return;
  for (const auto &[key, in_force] : std::map(flows_))
    if (std::get<0>(key) == vrf && in_force == index) put_flow(key, MVPN_ENCAP_INDEX_DEFAULT);
}

void Forwarding::put_flow(const RouteKey &key, uint16_t index) {
  const auto &[vrf, source, group] = key;
  Item item;
  item.mutable_flow()->set_vrf(vrf);
  item.mutable_flow()->set_source(source);
  item.mutable_flow()->set_group(group);
  item.mutable_flow()->set_index(index);
  const auto known = flows_.find(key);
  if (index == 0) {
    if (known == flows_.end()) return;
    flows_.erase(known);
    return client_->remove(item);
  }
  if (known != flows_.end() && known->second == index) return;
  flows_[key] = index;
  client_->put(item);
}

void Forwarding::customer_route_changed(const std::string &vrf_name, const pim_route &route, bool into_tunnel,
                                        bool installed) {
  const mvpn_mdt_route_addrs &addrs = route.addrs;
  if (addrs.source_len != MROUTE_HOST_LEN || addrs.group_len != MROUTE_HOST_LEN || !vrfs_.contains(vrf_name)) return;
  const RouteKey key{vrf_name, addrs.source, addrs.group};
  if (!into_tunnel) return put_flow(key, 0);
  const uint16_t chosen = route.send_join_info == nullptr ? uint16_t{0} : route.send_join_info->encap_index;
  const auto known = flows_.find(key);
  const uint16_t in_force = known == flows_.end() ? uint16_t{0} : known->second;
  put_flow(key, installed || chosen == in_force ? std::max<uint16_t>(chosen, MVPN_ENCAP_INDEX_DEFAULT)
                                                : uint16_t{MVPN_ENCAP_INDEX_DEFAULT});
}

void Forwarding::customer_route_deleted(const std::string &vrf_name, const mvpn_mdt_route_addrs &addrs) {
  put_flow({vrf_name, addrs.source, addrs.group}, 0);
}

bool Forwarding::send(const ref::Tunnel &tunnel, const std::vector<uint8_t> &datagram) {
  return client_->send(tunnel.vrf_name, datagram);
}

// ------------------------------------------------------------------------------------------------------- what is there

bool Forwarding::is_configured(const SeenKey &key) const {
  const Block *block = config_.find({Mode::interface, key.second});
  if (block == nullptr) return false;
  const std::string *vrf = block->value(Command::interface_vrf, "name");
  return key.first == (vrf == nullptr ? "" : *vrf);
}

std::string Forwarding::name_of(const SeenKey &key) const {
  if (key.first.empty() || is_configured(key)) return key.second;
  return (key.second + "@" + key.first).substr(0, IF_NAME_SIZE - 1);
}

Forwarding::Seen Forwarding::seen(const std::string &interface) const {
  const Block *block = config_.find({Mode::interface, interface});
  const std::string *vrf = block == nullptr ? nullptr : block->value(Command::interface_vrf, "name");
  const auto found = interfaces_.find({vrf == nullptr ? "" : *vrf, interface});
  return found == interfaces_.end() ? Seen() : found->second.seen;
}

void Forwarding::interface_told(const forwarder::protocol::Interface &told) {
  const auto device = devices_.find(told.vrf());
  if (device != devices_.end() && device->second == told.name()) return;  // the tunnel manager's
  const SeenKey key{told.vrf(), told.name()};
  if (!told.present()) {
    interfaces_.erase(key);
    return forget_interface(key);
  }
  Interface &interface = interfaces_[key];
  interface.seen = {told.up(), {told.addresses().begin(), told.addresses().end()}};
  interface.round = round_;
  apply_interface(key);
}

void Forwarding::apply_interface(const SeenKey &key) {
  const auto found = interfaces_.find(key);
  if (found == interfaces_.end()) return;
  if (is_configured(key)) return follow_interface_(key.second);
  const pim_cibtype *pcib = key.first.empty() ? pim_default_cib : pim_get_cib_by_context_name(key.first.c_str());
  if (pcib == nullptr) {
    waiting_interfaces_.insert(key);
    return;
  }
  const Seen &seen = found->second.seen;
  const std::string name = name_of(key);
  const ip_addr_t address = seen.addresses.empty() ? 0 : seen.addresses.front();
  if (ref::find_interface(std::string_view(name)) == nullptr) {
    ref::create_interface(name, pcib->context_id, address, seen.up);
    return;
  }
  ref::set_interface_address(name, address);
  ref::set_interface_state(name, seen.up);
}

void Forwarding::forget_interface(const SeenKey &key) {
  if (is_configured(key))
    follow_interface_(key.second);
  else
    ref::delete_interface(name_of(key));
}

void Forwarding::route_told(const forwarder::protocol::CustomerRoute &told) {
  const RouteKey key{told.vrf(), told.source(), told.group()};
  if (!told.present()) {
    routes_.erase(key);
    ref::delete_customer_route(told.vrf(), addrs_of(told.source(), told.group()));
    return;
  }
  CustomerRoute &route = routes_[key];
  route.told = told;
  route.round = round_;
  apply_route(key, route);
}

void Forwarding::apply_route(const RouteKey &key, const CustomerRoute &route) {
  const auto &[vrf, source, group] = key;
  const auto device = devices_.find(vrf);
  const auto is_tunnel = [&](const std::string &name) { return device != devices_.end() && name == device->second; };
  ref::CustomerRoute wanted;
  wanted.addrs = addrs_of(source, group);
  wanted.rpf_neighbor = route.told.rpf_neighbor();
  wanted.rate_kbps = route.rate_kbps;
  if (is_tunnel(route.told.incoming()))
    wanted.iif = "mvpn";
  else if (!route.told.incoming().empty())
    wanted.iif = name_of({vrf, route.told.incoming()});
  for (const std::string &name : route.told.outgoing()) {
    if (is_tunnel(name))
      wanted.to_mvpn = true;
    else
      wanted.oifs.push_back(name_of({vrf, name}));
  }
  if (ref::set_customer_route(vrf, wanted) == nullptr) waiting_routes_.insert(key);
}

// ----------------------------------------------------------------------------------------------------------- counters

void Forwarding::refresh(std::function<void()> then) {
  waiting_answer_.push_back(std::move(then));
  if (waiting_answer_.size() > 1) return;
  if (!connected() || !client_->request_counters()) return refreshed(std::nullopt);
  answer_.expires_after(kAnswer);
  answer_.async_wait([this](const boost::system::error_code &error) {
    if (error || waiting_answer_.empty() || client_ == nullptr) return;
    Loop::Turn turn(loop_);
    client_->give_up("it does not answer");
  });
}

// Whoever is told may ask again.
void Forwarding::refreshed(std::optional<forwarder::Counters> counters) {
  answer_.cancel();
  counters_ = std::move(counters);
  answered_ = std::chrono::steady_clock::now();
  for (const std::function<void()> &then : std::exchange(waiting_answer_, {})) then();
}

void Forwarding::count_customer_bytes(std::function<void()> then) {
  refresh([this, then = std::move(then)] {
    set_customer_bytes();
    then();
  });
}

// Rates are those of real time, whatever the platform's clock does: the packets are.
void Forwarding::set_customer_bytes() {
  if (!counters_) return;
  const double elapsed = counted_ ? std::chrono::duration<double>(answered_ - *counted_).count() : kSecondsAMinute;
  counted_ = answered_;
  for (const forwarder::protocol::RouteBytes &counted : counters_->routes) {
    const auto found = routes_.find({counted.vrf(), counted.source(), counted.group()});
    if (found == routes_.end() || elapsed <= 0) continue;
    CustomerRoute &route = found->second;
    // A route that was made anew counts from nothing.
    const uint64_t fresh = counted.bytes() >= route.bytes ? counted.bytes() - route.bytes : counted.bytes();
    const double rate = static_cast<double>(fresh) / elapsed;
    route.bytes = counted.bytes();
    route.rate_kbps = static_cast<uint64_t>(rate / kBytesPerKbit);
    ref::set_customer_bytes(counted.vrf(), addrs_of(counted.source(), counted.group()),
                            static_cast<uint64_t>(rate * kSecondsAMinute));
  }
}

}  // namespace host
