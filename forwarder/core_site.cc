// The core's sockets. Sending: queue() collects packets that leave by the same socket, flush() sends them in one system
// call and counts each for its VRF, as sent or as dropped. Receiving: a bounded number of batches a turn; what they
// carry is decided in State::accept(). Memberships: MembershipPlan says which socket joins what, here it is carried
// out; a join that the kernel refuses is tried again at each tick, since mostly an interface was not up yet.
//
// Trap: senders are remembered by source and point into senders_; both are forgotten together.
#include "forwarder/core_site.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/ethernet.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace forwarder {
namespace {

constexpr size_t kArrivalMax = 60 + 4 + kCustomerMax;  // with the longest outer header
// Bytes. A burst has to fit while a turn does something else; the kernel takes less when it is not allowed so much.
constexpr int kReceiveBuffer = 32 << 20, kSendBuffer = 8 << 20;
constexpr int kBatchesATurn = 8;             // so that one port does not keep the others waiting
constexpr size_t kMembershipsASocket = 128;  // the kernel's option memory is good for some hundreds
constexpr int kSendWait = 5;                 // milliseconds for a device to take more

std::runtime_error failure(const std::string &what) { return std::runtime_error(what + ": " + std::strerror(errno)); }

void set_option(int socket, int level, int option, int value) {
  ::setsockopt(socket, level, option, &value, sizeof value);
}

// The kernel's bounds for memberships of a socket and for sources of a membership are meant for applications.
void raise_limit(const char *name, int wanted) {
  const std::string path = std::string("/proc/sys/net/ipv4/") + name;
  const Descriptor file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  char text[32] = {};
  if (!file || ::read(file.get(), text, sizeof text - 1) <= 0 || std::atoi(text) >= wanted) return;
  const std::string value = std::to_string(wanted);
  if (::pwrite(file.get(), value.data(), value.size(), 0) < 0) return;  // memberships beyond the bound fail and say so
}

sockaddr_in address_of(uint32_t address) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_addr.s_addr = htonl(address);
  return result;
}

std::string text_of(uint32_t address) {
  const in_addr network{htonl(address)};
  char text[INET_ADDRSTRLEN];
  return inet_ntop(AF_INET, &network, text, sizeof text);
}

}  // namespace

CoreSite::CoreSite(Poller &poller, State &state, Callbacks callbacks)
    : poller_(poller),
      state_(state),
      callbacks_(std::move(callbacks)),
      arrivals_(std::make_unique<uint8_t[]>(kBatch * kArrivalMax)),
      buffer_(std::make_unique<uint8_t[]>(kRoom)),
      plan_(kMembershipsASocket) {
  // More than a socket is given (kMembershipsASocket); of one group, so many sources.
  raise_limit("igmp_max_memberships", 4096);
  raise_limit("igmp_max_msf", 4096);
  open_receiver();
  for (size_t i = 0; i < kBatch; i++) {
    messages_[i].msg_hdr.msg_iov = &parts_[i];
    messages_[i].msg_hdr.msg_iovlen = 1;
    messages_[i].msg_hdr.msg_name = &destinations_[i];
  }
  KernelView::Callbacks seen = callbacks_.view;
  seen.ways_changed = [this] { ways_changed_ = true; };
  view_ = std::make_unique<KernelView>(std::move(seen));
  poller_.watch(view_->descriptor(), [this] { view_->read_changes(); });
  view_->start();
}

CoreSite::~CoreSite() {
  poller_.forget(view_->descriptor());
  poller_.forget(receiver_.get());
}

void CoreSite::tick() {
  view_->tick();
  if (std::exchange(ways_changed_, false)) {
    forget_senders();
    refresh_memberships();
  }
  for (const MembershipPlan::Step &step : std::exchange(failed_, {}))
    if (!set_membership(step)) failed_.insert(step);
}

void CoreSite::set_interface(const std::string &name) {
  interface_ = name;
  forget_senders();
  refresh_memberships();
}

// ------------------------------------------------------------------------------------------------------------- sending

void CoreSite::forget_senders() {
  senders_.clear();
  sender_of_.clear();
  last_source_ = 0;
}

// The interface that has the source, or the one that is configured; 0: neither is there.
int CoreSite::interface_of(uint32_t source) const {
  int index = 0;
  for (const auto &[number, interface] : view_->interfaces()) {
    const bool has = std::count(interface.addresses.begin(), interface.addresses.end(), source) != 0;
    if (interface_.empty() ? has : interface.name == interface_) index = number;
  }
  return index;
}

CoreSite::Sender CoreSite::open_sender(int interface) const {
  const auto found = view_->interfaces().find(interface);
  Sender sender{
      {}, interface, found != view_->interfaces().end() && found->second.ethernet && !found->second.forwards_multicast};
  if (sender.frames) {
    sender.socket = Descriptor(::socket(AF_PACKET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  } else {
    sender.socket = Descriptor(::socket(AF_INET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_RAW));
    ip_mreqn by{};
    by.imr_ifindex = interface;
    ::setsockopt(sender.socket.get(), IPPROTO_IP, IP_MULTICAST_IF, &by, sizeof by);
  }
  set_option(sender.socket.get(), SOL_SOCKET, SO_SNDBUFFORCE, kSendBuffer);
  return sender;
}

const CoreSite::Sender *CoreSite::sender_for(uint32_t source) {
  if (source == last_source_) return last_sender_;
  if (const auto known = sender_of_.find(source); known != sender_of_.end()) {
    last_source_ = source;
    return last_sender_ = known->second;
  }
  const int index = interface_of(source);
  if (!senders_.contains(index)) senders_[index] = open_sender(index);
  last_source_ = source;
  return last_sender_ = sender_of_[source] = &senders_[index];
}

// The address of a frame is made of the group's lower 23 bits (RFC 1112, 6.4).
void CoreSite::address(size_t at, uint32_t group) {
  Destination &destination = destinations_[at];
  if (!sender_->frames) {
    destination.address = address_of(group);
    messages_[at].msg_hdr.msg_namelen = sizeof destination.address;
    return;
  }
  destination.frame = {AF_PACKET,
                       htons(ETH_P_IP),
                       sender_->interface,
                       0,
                       0,
                       ETH_ALEN,
                       {0x01, 0x00, 0x5E, static_cast<uint8_t>(group >> 16 & 0x7F), static_cast<uint8_t>(group >> 8),
                        static_cast<uint8_t>(group)}};
  messages_[at].msg_hdr.msg_namelen = sizeof destination.frame;
}

void CoreSite::queue(Vrf &vrf, Encapsulation &encapsulation, std::span<uint8_t> datagram) {
  const Sender *sender = sender_for(encapsulation.source);
  if (sender != sender_ || queued_ == kBatch) flush();
  sender_ = sender;
  uint8_t *packet = datagram.data() - kOuterSize;
  encapsulation.header.write(packet, datagram.data(), datagram.size(), encapsulation.identification++);
  parts_[queued_] = {packet, kOuterSize + datagram.size()};
  address(queued_, encapsulation.group);
  vrfs_[queued_++] = &vrf;
}

void CoreSite::flush() {
  size_t at = 0;
  bool waited = false;
  while (at < queued_) {
    const int sent = ::sendmmsg(sender_->socket.get(), &messages_[at], static_cast<unsigned>(queued_ - at), 0);
    for (const size_t end = at + static_cast<size_t>(std::max(sent, 0)); at < end; at++)
      vrfs_[at]->sent.count(parts_[at].iov_len - kOuterSize);
    if (sent >= 0) continue;
    if (errno == EINTR) continue;
    if ((errno == EAGAIN || errno == ENOBUFS) && !waited) {
      pollfd room_again{sender_->socket.get(), POLLOUT, 0};
      ::poll(&room_again, 1, kSendWait);
      waited = true;
      continue;
    }
    send_failed(at++, errno);
  }
  queued_ = 0;
}

void CoreSite::send_failed(size_t at, int error) {
  const auto *packet = static_cast<const uint8_t *>(parts_[at].iov_base);
  if (error == EMSGSIZE && may_be_cut({packet, parts_[at].iov_len})) return send_in_parts(at);
  const Drop reason = error == EMSGSIZE ? Drop::too_big : Drop::send_failed;
  vrfs_[at]->drops[static_cast<size_t>(reason)]++;
}

// The kernel does not cut packets whose headers are ours.
void CoreSite::send_in_parts(size_t at) {
  uint32_t mtu = kCustomerMax;
  if (const auto found = view_->interfaces().find(sender_->interface); found != view_->interfaces().end())
    mtu = found->second.mtu;
  const std::span<const uint8_t> packet(static_cast<const uint8_t *>(parts_[at].iov_base), parts_[at].iov_len);
  bool all = true;
  for (const std::vector<uint8_t> &part : cut(packet, mtu))
    all &= ::sendto(sender_->socket.get(), part.data(), part.size(), 0,
                    static_cast<const sockaddr *>(messages_[at].msg_hdr.msg_name),
                    messages_[at].msg_hdr.msg_namelen) == static_cast<ssize_t>(part.size());
  if (all)
    vrfs_[at]->sent.count(packet.size() - kOuterSize);
  else
    vrfs_[at]->drops[static_cast<size_t>(Drop::send_failed)]++;
}

// ----------------------------------------------------------------------------------------------------------- receiving

void CoreSite::open_receiver() {
  receiver_ = Descriptor(::socket(AF_INET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_GRE));
  if (!receiver_) throw failure("raw socket for GRE");
  set_option(receiver_.get(), IPPROTO_IP, IP_MULTICAST_ALL, 1);
  set_option(receiver_.get(), SOL_SOCKET, SO_RCVBUFFORCE, kReceiveBuffer);
  poller_.watch(receiver_.get(), [this] { receive(); });
}

void CoreSite::receive() {
  std::array<mmsghdr, kBatch> messages{};
  std::array<iovec, kBatch> parts;
  for (size_t i = 0; i < kBatch; i++) {
    parts[i] = {arrivals_.get() + i * kArrivalMax, kArrivalMax};
    messages[i].msg_hdr.msg_iov = &parts[i];
    messages[i].msg_hdr.msg_iovlen = 1;
  }
  for (int batches = 0; batches < kBatchesATurn; batches++) {
    const int count = ::recvmmsg(receiver_.get(), messages.data(), kBatch, MSG_DONTWAIT, nullptr);
    for (int i = 0; i < count; i++) {
      const mmsghdr &message = messages[static_cast<size_t>(i)];
      const std::span<uint8_t> packet(arrivals_.get() + static_cast<size_t>(i) * kArrivalMax, message.msg_len);
      std::span<uint8_t> datagram;
      if (Vrf *vrf = state_.accept(packet, (message.msg_hdr.msg_flags & MSG_TRUNC) != 0, &datagram))
        callbacks_.arrived(*vrf, datagram);
    }
    if (count < static_cast<int>(kBatch)) return;
  }
}

// --------------------------------------------------------------------------------------------------------- memberships

int CoreSite::preferred(const CoreKey &key, int interface) const {
  const auto route = state_.core_routes().find(key);
  if (route == state_.core_routes().end() || !route->second.vrf->tunnel) return interface;
  const auto own = view_->interfaces().find(interface_of(route->second.vrf->tunnel->source));
  const bool connected = own != view_->interfaces().end() && own->second.up && own->second.is_connected_to(key.source);
  return connected ? own->first : interface;
}

std::set<int> CoreSite::interfaces_for(const CoreKey &key) const {
  std::set<int> interfaces;
  if (key.source != 0) {
    const auto way = view_->way_to(key.source);
    if (way && way->interface != 0)
      interfaces.insert(way->gateway == 0 ? preferred(key, way->interface) : way->interface);
    return interfaces;
  }
  for (const auto &[index, interface] : view_->interfaces())
    if (!interface.loopback && (interface_.empty() || interface.name == interface_) && !interface.addresses.empty())
      interfaces.insert(index);
  return interfaces;
}

void CoreSite::follow(const CoreKey &key, bool present) {
  const std::pair where{key.group, key.source};
  const std::set<int> wanted = present ? interfaces_for(key) : std::set<int>{};
  const std::set<int> former = std::exchange(joined_[where], wanted);
  if (!present) joined_.erase(where);
  for (const int interface : former)
    if (!wanted.contains(interface)) apply(plan_.drop({key.group, key.source, interface}));
  for (const int interface : wanted)
    if (!former.contains(interface)) apply(plan_.want({key.group, key.source, interface}));
}

void CoreSite::follow_pass(const CoreKey &key, const Vrf &from, const Vrf &to) {
  const std::string source = key.source == 0 ? "*" : text_of(key.source);
  callbacks_.event("core packets (" + source + ", " + text_of(key.group) + ") go to VRF " + to.name +
                   " from now on, no more to VRF " + from.name);
  look_again();
}

void CoreSite::refresh_memberships() {
  for (const auto &[key, route] : state_.core_routes()) follow(key, true);
}

void CoreSite::apply(const std::vector<MembershipPlan::Step> &steps) {
  for (const MembershipPlan::Step &step : steps) {
    failed_.erase({step.socket, true, step.membership});
    if (set_membership(step) || !step.join) continue;  // what cannot be left went with its interface
    failed_.insert(step);
    callbacks_.event("cannot join " + text_of(step.membership.group) + ": " + std::strerror(errno) + "; tried again");
  }
}

bool CoreSite::set_membership(const MembershipPlan::Step &step) {
  while (members_.size() <= step.socket) {
    members_.emplace_back(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    set_option(members_.back().get(), IPPROTO_IP, IP_MULTICAST_ALL, 0);
  }
  const int socket = members_[step.socket].get();
  const sockaddr_in group = address_of(step.membership.group), source = address_of(step.membership.source);
  if (step.membership.source == 0) {
    group_req request{};
    request.gr_interface = static_cast<uint32_t>(step.membership.interface);
    std::memcpy(&request.gr_group, &group, sizeof group);
    return ::setsockopt(socket, IPPROTO_IP, step.join ? MCAST_JOIN_GROUP : MCAST_LEAVE_GROUP, &request,
                        sizeof request) == 0;
  }
  group_source_req request{};
  request.gsr_interface = static_cast<uint32_t>(step.membership.interface);
  std::memcpy(&request.gsr_group, &group, sizeof group);
  std::memcpy(&request.gsr_source, &source, sizeof source);
  return ::setsockopt(socket, IPPROTO_IP, step.join ? MCAST_JOIN_SOURCE_GROUP : MCAST_LEAVE_SOURCE_GROUP, &request,
                      sizeof request) == 0;
}

CoreSite::Joined CoreSite::joined(const CoreKey &key) const {
  const auto found = joined_.find({key.group, key.source});
  if (found == joined_.end() || found->second.empty()) return {};
  const bool refused = std::any_of(failed_.begin(), failed_.end(), [&key](const MembershipPlan::Step &step) {
    return step.membership.group == key.group && step.membership.source == key.source;
  });
  const auto interface = view_->interfaces().find(*found->second.begin());
  const std::string name = interface == view_->interfaces().end() ? "" : interface->second.name;
  return {key.source == 0 ? "" : name, !refused};
}

}  // namespace forwarder
