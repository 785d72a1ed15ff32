// Keeps what is wanted in one map and what the forwarder holds in another, both by key; a connection that begins or
// ends changes the second one only. Everything runs in the owner's thread, here pimhostd's main loop. Callbacks come
// out of on_ready(); log() also out of connect(), and disconnected() out of whatever transmits.
//
// During a recovery a put that would take a held item back is kept to itself (steps_back) and sent when the recovery
// ends. Trap: each call that transmits may end the connection, so callers look at socket_ again behind it.
#include "forwarder/client.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace forwarder {
namespace {

constexpr size_t kUnsentMax = 64 << 20;  // bytes; a forwarder that lets so much wait does not read any more
constexpr uint32_t kFirstDataIndex = 2;  // 1 is the default MDT's

}  // namespace

Client::Client(std::string path, std::string name, Callbacks callbacks)
    : path_(std::move(path)), name_(std::move(name)), callbacks_(std::move(callbacks)), framing_(kUnsentMax) {
  settings_.set_ttl(64);  // what hosts commonly begin with, until settings come
}

bool Client::connect() {
  if (socket_) return true;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path_.size() >= sizeof address.sun_path) return false;
  path_.copy(address.sun_path, path_.size());
  Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (::connect(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    say(std::string(std::strerror(errno)) + "; tried again every second");
    return false;
  }
  socket_ = std::move(socket);
  framing_ = Framing(kUnsentMax);
  held_.clear();
  counters_ = Counters();
  ready_ = refused_ = false;
  protocol::Request request;
  request.mutable_hello()->set_version(kProtocolVersion);
  request.mutable_hello()->set_name(name_);
  framing_.send(request);
  flush();
  return static_cast<bool>(socket_);
}

void Client::disconnect(const std::string &reason) {
  if (!socket_) return;
  socket_ = Descriptor();
  ready_ = false;
  if (!refused_) say(reason);
  callbacks_.disconnected();
}

// Once, however often it is tried.
void Client::say(const std::string &text) {
  if (std::exchange(said_, text) != text) callbacks_.log("forwarder " + path_ + ": " + text);
}

// -------------------------------------------------------------------------------------------------------------- wishes

Client::Key Client::key_of(const protocol::Item &item) {
  const int kind = item.item_case();
  switch (item.item_case()) {
    case protocol::Item::kVrf:
      return {kind, item.vrf().name(), 0, 0};
    case protocol::Item::kTunnel:
      return {kind, item.tunnel().vrf(), 0, 0};
    case protocol::Item::kEncapsulation:
      return {kind, item.encapsulation().vrf(), item.encapsulation().index(), 0};
    case protocol::Item::kFlow:
      return {kind, item.flow().vrf(), item.flow().source(), item.flow().group()};
    case protocol::Item::kCoreRoute:
      return {kind, "", item.core_route().source(), item.core_route().group()};
    case protocol::Item::ITEM_NOT_SET:
      break;
  }
  return {kind, "", 0, 0};
}

bool Client::steps_back(const Key &key, const protocol::Item &item) const {
  const auto held = recovering_ ? held_.find(key) : held_.end();
  if (held == held_.end()) return false;
  if (item.has_flow()) return item.flow().index() < kFirstDataIndex && held->second.flow().index() >= kFirstDataIndex;
  return item.has_tunnel() && !item.tunnel().up() && held->second.tunnel().up();
}

void Client::put(const protocol::Item &item) {
  const Key key = key_of(item);
  wanted_[key] = item;
  if (!ready_ || steps_back(key, item)) return;
  if (recovering_) held_.erase(key);  // it is this control plane's from now on
  transmit_put(item);
}

void Client::remove(const protocol::Item &item) {
  const Key key = key_of(item);
  if (wanted_.erase(key) == 0 || !ready_) return;
  if (recovering_ && held_.contains(key)) return;
  protocol::Request request;
  *request.mutable_remove() = item;
  transmit(request);
}

void Client::set(const protocol::Settings &settings) {
  settings_ = settings;
  if (!ready_) return;
  protocol::Request request;
  *request.mutable_settings() = settings_;
  transmit(request);
}

bool Client::send(const std::string &vrf, std::span<const uint8_t> datagram) {
  if (!ready_) return false;
  protocol::Request request;
  request.mutable_datagram()->set_vrf(vrf);
  request.mutable_datagram()->set_bytes(datagram.data(), datagram.size());
  transmit(request);
  return true;
}

void Client::end_recovery() {
  if (!std::exchange(recovering_, false) || !ready_) return;
  replay();
  sweep();
}

void Client::replay() {
  set(settings_);
  for (const auto &[key, item] : wanted_)
    if (!steps_back(key, item)) transmit_put(item);
}

void Client::sweep() {
  held_.clear();
  protocol::Request request;
  request.set_sweep(1);
  transmit(request);
}

void Client::transmit_put(const protocol::Item &item) {
  protocol::Request request;
  *request.mutable_put() = item;
  transmit(request);
}

void Client::transmit(const protocol::Request &request) {
  if (!socket_) return;
  if (!framing_.send(request)) return disconnect("it does not read what it is told");
  flush();
}

void Client::flush() {
  if (socket_ && !framing_.flush(socket_.get())) disconnect("the connection has ended");
}

// ------------------------------------------------------------------------------------------------------------- reports

void Client::on_ready() {
  flush();
  read();
}

void Client::read() {
  if (!socket_) return;
  const bool open = framing_.receive(socket_.get());
  std::string_view bytes;
  while (socket_ && framing_.next(&bytes)) {
    protocol::Report report;
    if (!report.ParseFromArray(bytes.data(), static_cast<int>(bytes.size())))
      return disconnect("a message makes no sense");
    handle(report);
  }
  if (!open || framing_.broken()) disconnect(open ? "a message is too long" : "the connection has ended");
}

void Client::greeted(const protocol::Welcome &welcome) {
  if (welcome.version() != kProtocolVersion) disconnect("it speaks another version of the protocol");
}

void Client::handle(const protocol::Report &report) {
  using Kind = protocol::Report;
  switch (report.report_case()) {
    case Kind::kWelcome:
      return greeted(report.welcome());
    case Kind::kRefusal:
      if (!ready_) {
        refused_ = true;
        return say(report.refusal().reason());
      }
      return callbacks_.log("forwarder: " + report.refusal().reason());
    case Kind::kHeld:
      held_[key_of(report.held())] = report.held();
      return;
    case Kind::kHeldEnd:
      ready_ = true;
      said_.clear();
      callbacks_.log("forwarder " + path_ + ": connected; it holds " + std::to_string(held_.size()) + " items");
      callbacks_.connected();
      replay();
      if (!recovering_) sweep();
      return;
    case Kind::kInterface:
      return callbacks_.interface(report.interface());
    case Kind::kTunnelState:
      return callbacks_.tunnel_state(report.tunnel_state());
    case Kind::kCustomerRoute:
      return callbacks_.customer_route(report.customer_route());
    case Kind::kDatagram:
      return callbacks_.datagram(report.datagram());
    default:
      count(report);
  }
}

void Client::count(const protocol::Report &report) {
  using Kind = protocol::Report;
  switch (report.report_case()) {
    case Kind::kFlow:
      return counters_.flows.push_back(report.flow());
    case Kind::kRouteBytes:
      return counters_.routes.push_back(report.route_bytes());
    case Kind::kCore:
      return counters_.core.push_back(report.core());
    case Kind::kVrf:
      return counters_.vrfs.push_back(report.vrf());
    case Kind::kDrop:
      return counters_.drops.push_back(report.drop());
    case Kind::kEvent:
      return counters_.events.push_back(report.event());
    case Kind::kCountersEnd:
      return callbacks_.counters(std::exchange(counters_, Counters()));
    default:
      return;  // of a later version
  }
}

bool Client::request_counters() {
  if (!ready_) return false;
  protocol::Request request;
  request.set_counters(1);  // answers come in the order of requests: nobody has to tell them apart
  transmit(request);
  return static_cast<bool>(socket_);
}

}  // namespace forwarder
