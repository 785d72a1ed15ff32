// Netlink. One socket hears what changes, another asks, so that an answer never stands between notifications.
//
// What the kernel tells is kept as it came (interfaces_, raw_); what callers were told is kept beside it (told_,
// routes_), and tell() hands on the difference. So a notification that is repeated or late does no harm, and one that
// was lost is made good by reading everything again.
//
// Traps. Routes name interfaces by index, callers know them by name: an interface that is renamed changes its routes
// too, at the next tick. Every length in a message is checked against what was received. Requests wait for the kernel's
// answer, which comes at once; the process enters a namespace only to open the sockets, which stay in it.
#include "forwarder/kernel_view.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/netconf.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace forwarder {
namespace {

constexpr uint32_t kMonitored =
    RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV4_MROUTE | 1u << (RTNLGRP_IPV4_NETCONF - 1);
constexpr int kMonitorBuffer = 4 << 20;  // bytes: a burst of routes
constexpr size_t kMessage = 65536;       // bytes: the largest that the kernel sends at once

// Attributes of a message by type; the kernel's newer ones are left out.
struct Attributes {
  std::array<const nlattr *, 64> at{};  // those that are asked for have smaller types

  Attributes(const nlmsghdr *message, size_t offset) {
    mnl_attr_parse(
        message, static_cast<unsigned>(offset),
        [](const nlattr *attribute, void *data) {
          auto *self = static_cast<Attributes *>(data);
          const uint16_t type = mnl_attr_get_type(attribute);
          if (type < self->at.size()) self->at[type] = attribute;
          return MNL_CB_OK;
        },
        this);
  }
  std::optional<uint32_t> number(uint16_t type) const {
    if (at[type] == nullptr || mnl_attr_get_payload_len(at[type]) < sizeof(uint32_t)) return std::nullopt;
    return mnl_attr_get_u32(at[type]);
  }
  uint32_t address(uint16_t type) const { return ntohl(number(type).value_or(0)); }
  std::string text(uint16_t type) const {
    if (at[type] == nullptr) return "";
    const auto *characters = static_cast<const char *>(mnl_attr_get_payload(at[type]));
    return std::string(characters, strnlen(characters, mnl_attr_get_payload_len(at[type])));
  }
};

template <typename Header>
const Header *header_of(const nlmsghdr *message) {
  return mnl_nlmsg_get_payload_len(message) < sizeof(Header)
             ? nullptr
             : static_cast<const Header *>(mnl_nlmsg_get_payload(message));
}

std::vector<int> hops_of(const nlattr *attribute) {
  std::vector<int> interfaces;
  if (attribute == nullptr) return interfaces;
  const auto *hop = static_cast<const rtnexthop *>(mnl_attr_get_payload(attribute));
  size_t left = mnl_attr_get_payload_len(attribute);
  while (left >= sizeof *hop && hop->rtnh_len >= sizeof *hop && hop->rtnh_len <= left) {
    interfaces.push_back(hop->rtnh_ifindex);
    const size_t step = std::min<size_t>(left, RTNH_ALIGN(hop->rtnh_len));
    left -= step;
    hop = reinterpret_cast<const rtnexthop *>(reinterpret_cast<const char *>(hop) + step);
  }
  return interfaces;
}

bool is_multicast_route(const nlmsghdr *message) {
  const auto *route = header_of<rtmsg>(message);
  return route != nullptr && route->rtm_family == RTNL_FAMILY_IPMR;
}

}  // namespace

void KernelView::Closer::operator()(mnl_socket *socket) const { mnl_socket_close(socket); }

KernelView::Socket KernelView::open_socket(uint32_t groups) {
  Socket socket(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC));
  if (socket == nullptr || mnl_socket_bind(socket.get(), groups, MNL_SOCKET_AUTOPID) != 0)
    throw std::runtime_error(std::string("routing netlink: ") + std::strerror(errno));
  return socket;
}

KernelView::KernelView(Callbacks callbacks)
    : callbacks_(std::move(callbacks)), monitor_(open_socket(kMonitored)), requests_(open_socket(0)) {
  const int size = kMonitorBuffer;
  ::setsockopt(mnl_socket_get_fd(monitor_.get()), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size);
}

KernelView::~KernelView() = default;

int KernelView::descriptor() const { return mnl_socket_get_fd(monitor_.get()); }

void KernelView::start() { resynchronise(); }

bool KernelInterface::is_connected_to(uint32_t address) const {
  for (size_t i = 0; i < addresses.size(); i++)
    if (lengths[i] != 0 && (addresses[i] ^ address) >> (32 - lengths[i]) == 0) return true;
  return false;
}

// ----------------------------------------------------------------------------------------------------------- requests

bool KernelView::transact(nlmsghdr *request, const std::function<void(const nlmsghdr *)> &answer) const {
  request->nlmsg_seq = ++sequence_;
  if (mnl_socket_sendto(requests_.get(), request, request->nlmsg_len) < 0) return false;
  alignas(nlmsghdr) std::array<char, kMessage> buffer;
  const auto hand_on = [](const nlmsghdr *message, void *data) {
    (*static_cast<const std::function<void(const nlmsghdr *)> *>(data))(message);
    return MNL_CB_OK;
  };
  for (;;) {
    const ssize_t size = mnl_socket_recvfrom(requests_.get(), buffer.data(), buffer.size());
    if (size <= 0) return false;
    auto *context = const_cast<std::function<void(const nlmsghdr *)> *>(&answer);
    const int result = mnl_cb_run(buffer.data(), static_cast<size_t>(size), request->nlmsg_seq,
                                  mnl_socket_get_portid(requests_.get()), hand_on, context);
    if (result == MNL_CB_STOP) return true;
    if (result == MNL_CB_ERROR) return false;
    if ((request->nlmsg_flags & (NLM_F_DUMP | NLM_F_ACK)) == 0) return true;
  }
}

bool KernelView::dump(uint16_t type, uint8_t family, const std::function<void(const nlmsghdr *)> &each) const {
  // Requests are shorter than 100 bytes.
  alignas(nlmsghdr) std::array<char, 256> buffer;
  nlmsghdr *request = mnl_nlmsg_put_header(buffer.data());
  request->nlmsg_type = type;
  request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  // The headers of links, addresses and routes begin with the family; the largest serves for each.
  auto *header = static_cast<rtmsg *>(mnl_nlmsg_put_extra_header(request, std::max(sizeof(ifinfomsg), sizeof(rtmsg))));
  header->rtm_family = family;
  return transact(request, each);
}

std::optional<NextHop> KernelView::way_to(uint32_t address) const {
  alignas(nlmsghdr) std::array<char, 256> buffer;
  nlmsghdr *request = mnl_nlmsg_put_header(buffer.data());
  request->nlmsg_type = RTM_GETROUTE;
  request->nlmsg_flags = NLM_F_REQUEST;
  auto *header = static_cast<rtmsg *>(mnl_nlmsg_put_extra_header(request, sizeof(rtmsg)));
  header->rtm_family = AF_INET;
  header->rtm_dst_len = 32;
  mnl_attr_put_u32(request, RTA_DST, htonl(address));
  std::optional<NextHop> way;
  const bool answered = transact(request, [&way](const nlmsghdr *message) {
    if (header_of<rtmsg>(message) == nullptr) return;
    const Attributes attributes(message, sizeof(rtmsg));
    way = NextHop{static_cast<int>(attributes.number(RTA_OIF).value_or(0)), attributes.address(RTA_GATEWAY)};
  });
  return answered ? way : std::nullopt;
}

std::vector<RouteTraffic> KernelView::traffic() const {
  std::vector<RouteTraffic> all;
  dump(RTM_GETROUTE, RTNL_FAMILY_IPMR, [&all](const nlmsghdr *message) {
    if (!is_multicast_route(message)) return;
    const Attributes attributes(message, sizeof(rtmsg));
    const nlattr *stats = attributes.at[RTA_MFC_STATS];
    if (stats == nullptr || mnl_attr_get_payload_len(stats) < sizeof(rta_mfc_stats)) return;
    rta_mfc_stats counters{};
    std::memcpy(&counters, mnl_attr_get_payload(stats), sizeof counters);
    all.push_back(
        {{attributes.address(RTA_SRC), attributes.address(RTA_DST)}, counters.mfcs_packets, counters.mfcs_bytes});
  });
  return all;
}

bool KernelView::set_link(int index, bool up, uint32_t mtu, uint32_t queue) const {
  alignas(nlmsghdr) std::array<char, 256> buffer;
  nlmsghdr *request = mnl_nlmsg_put_header(buffer.data());
  request->nlmsg_type = RTM_NEWLINK;
  request->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
  auto *header = static_cast<ifinfomsg *>(mnl_nlmsg_put_extra_header(request, sizeof(ifinfomsg)));
  header->ifi_index = index;
  header->ifi_change = IFF_UP;
  header->ifi_flags = up ? IFF_UP : 0;
  mnl_attr_put_u32(request, IFLA_MTU, mtu);
  mnl_attr_put_u32(request, IFLA_TXQLEN, queue);
  return transact(request, [](const nlmsghdr *) {});
}

static nlmsghdr *address_request(char *buffer, uint16_t type, uint16_t flags, int index, uint32_t address) {
  nlmsghdr *request = mnl_nlmsg_put_header(buffer);
  request->nlmsg_type = type;
  request->nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags);
  auto *header = static_cast<ifaddrmsg *>(mnl_nlmsg_put_extra_header(request, sizeof(ifaddrmsg)));
  header->ifa_family = AF_INET;
  header->ifa_prefixlen = 32;
  header->ifa_index = static_cast<unsigned>(index);
  mnl_attr_put_u32(request, IFA_LOCAL, htonl(address));
  mnl_attr_put_u32(request, IFA_ADDRESS, htonl(address));
  return request;
}

bool KernelView::add_address(int index, uint32_t address) const {
  alignas(nlmsghdr) std::array<char, 256> buffer;
  return transact(address_request(buffer.data(), RTM_NEWADDR, NLM_F_CREATE | NLM_F_REPLACE, index, address),
                  [](const nlmsghdr *) {});
}

bool KernelView::remove_address(int index, uint32_t address) const {
  alignas(nlmsghdr) std::array<char, 256> buffer;
  return transact(address_request(buffer.data(), RTM_DELADDR, 0, index, address), [](const nlmsghdr *) {});
}

// ------------------------------------------------------------------------------------------------------------ changes

void KernelView::resynchronise() {
  interfaces_.clear();
  for (const auto &[key, raw] : raw_) touched_.insert(key);
  raw_.clear();
  const auto take_one = [this](const nlmsghdr *message) { take(message); };
  dump(RTM_GETLINK, AF_UNSPEC, take_one);
  dump(RTM_GETADDR, AF_INET, take_one);
  dump(RTM_GETNETCONF, AF_INET, take_one);
  dump(RTM_GETROUTE, RTNL_FAMILY_IPMR, take_one);
  ways_changed_ = true;
  tell();
}

void KernelView::read_changes() {
  alignas(nlmsghdr) std::array<char, kMessage> buffer;
  const int socket = descriptor();
  for (;;) {
    const ssize_t size = ::recv(socket, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (size < 0 && errno == ENOBUFS) return resynchronise();
    if (size <= 0) break;
    int left = static_cast<int>(size);
    for (const auto *message = reinterpret_cast<const nlmsghdr *>(buffer.data()); mnl_nlmsg_ok(message, left);
         message = mnl_nlmsg_next(message, &left))
      take(message);
  }
  tell();
}

void KernelView::take(const nlmsghdr *message) {
  switch (message->nlmsg_type) {
    case RTM_NEWLINK:
    case RTM_DELLINK:
      return take_link(message);
    case RTM_NEWADDR:
    case RTM_DELADDR:
      return take_address(message);
    case RTM_NEWNETCONF:
      return take_settings(message);
    case RTM_NEWROUTE:
    case RTM_DELROUTE:
      if (is_multicast_route(message))
        take_route(message);
      else
        ways_changed_ = true;
      return;
    default:
      return;
  }
}

void KernelView::take_link(const nlmsghdr *message) {
  const auto *link = header_of<ifinfomsg>(message);
  if (link == nullptr || link->ifi_family != AF_UNSPEC) return;
  ways_changed_ = true;
  if (message->nlmsg_type == RTM_DELLINK) {
    interfaces_.erase(link->ifi_index);
    return;
  }
  const Attributes attributes(message, sizeof(ifinfomsg));
  KernelInterface &interface = interfaces_[link->ifi_index];
  interface.index = link->ifi_index;
  interface.name = attributes.text(IFLA_IFNAME);
  interface.mtu = attributes.number(IFLA_MTU).value_or(interface.mtu);
  interface.ethernet = link->ifi_type == ARPHRD_ETHER;
  interface.loopback = (link->ifi_flags & IFF_LOOPBACK) != 0;
  interface.up = (link->ifi_flags & IFF_UP) != 0 && (link->ifi_flags & IFF_RUNNING) != 0;
}

void KernelView::take_address(const nlmsghdr *message) {
  const auto *header = header_of<ifaddrmsg>(message);
  if (header == nullptr || header->ifa_family != AF_INET) return;
  const auto found = interfaces_.find(static_cast<int>(header->ifa_index));
  if (found == interfaces_.end()) return;
  const Attributes attributes(message, sizeof(ifaddrmsg));
  const uint32_t address = attributes.address(attributes.at[IFA_LOCAL] != nullptr ? IFA_LOCAL : IFA_ADDRESS);
  std::vector<uint32_t> &addresses = found->second.addresses;
  std::vector<uint8_t> &lengths = found->second.lengths;
  const auto there = std::find(addresses.begin(), addresses.end(), address);
  const auto length = lengths.begin() + (there - addresses.begin());
  if (message->nlmsg_type == RTM_DELADDR && there != addresses.end()) {
    addresses.erase(there);
    lengths.erase(length);
  }
  if (message->nlmsg_type == RTM_NEWADDR && there == addresses.end()) {
    addresses.push_back(address);
    lengths.push_back(header->ifa_prefixlen);
  }
  ways_changed_ = true;
}

void KernelView::take_settings(const nlmsghdr *message) {
  const auto *header = header_of<netconfmsg>(message);
  if (header == nullptr || header->ncm_family != AF_INET) return;
  const Attributes attributes(message, sizeof(netconfmsg));
  const auto index = attributes.number(NETCONFA_IFINDEX), forwarding = attributes.number(NETCONFA_MC_FORWARDING);
  const auto found = interfaces_.find(static_cast<int>(index.value_or(0)));
  if (!forwarding || found == interfaces_.end()) return;
  found->second.forwards_multicast = *forwarding != 0;
  ways_changed_ = true;
}

// A route without an incoming interface is one that the kernel asks the routing daemon for.
void KernelView::take_route(const nlmsghdr *message) {
  const Attributes attributes(message, sizeof(rtmsg));
  const RouteKey key{attributes.address(RTA_SRC), attributes.address(RTA_DST)};
  if (key.group == 0) return;
  touched_.insert(key);
  if (message->nlmsg_type == RTM_DELROUTE || !attributes.number(RTA_IIF)) {
    raw_.erase(key);
    return;
  }
  raw_[key] = {static_cast<int>(*attributes.number(RTA_IIF)), hops_of(attributes.at[RTA_MULTIPATH])};
}

std::string KernelView::name_of(int index) const {
  const auto found = interfaces_.find(index);
  return found == interfaces_.end() ? "" : found->second.name;
}

KernelRoute KernelView::described(const RouteKey &key, const RawRoute &raw) const {
  KernelRoute route;
  route.incoming = name_of(raw.incoming);
  for (const int index : raw.outgoing)
    if (std::string name = name_of(index); !name.empty()) route.outgoing.push_back(std::move(name));
  std::sort(route.outgoing.begin(), route.outgoing.end());
  route.outgoing.erase(std::unique(route.outgoing.begin(), route.outgoing.end()), route.outgoing.end());
  const auto way = key.source == 0 ? std::nullopt : way_to(key.source);
  if (way) route.rpf_neighbor = way->gateway != 0 ? way->gateway : key.source;
  return route;
}

// Interfaces before the routes that name them, and what is gone last.
void KernelView::tell() {
  std::map<std::string, KernelInterface> now;
  for (const auto &[index, interface] : interfaces_) now[interface.name] = interface;
  for (const auto &[name, interface] : now) {
    const auto former = told_.find(name);
    if (former == told_.end() || !(former->second == interface)) callbacks_.interface_changed(interface);
  }
  for (const RouteKey &key : std::exchange(touched_, {})) {
    const auto raw = raw_.find(key);
    const auto former = routes_.find(key);
    if (raw == raw_.end()) {
      if (former == routes_.end()) continue;
      routes_.erase(former);
      callbacks_.route_changed(key, nullptr);
      continue;
    }
    KernelRoute route = described(key, raw->second);
    if (former != routes_.end() && former->second == route) continue;
    const KernelRoute &stored = routes_[key] = std::move(route);
    callbacks_.route_changed(key, &stored);
  }
  for (const auto &[name, interface] : told_)
    if (!now.contains(name)) callbacks_.interface_gone(name);
  told_ = std::move(now);
}

void KernelView::tick() {
  if (!std::exchange(ways_changed_, false)) return;
  for (const auto &[key, raw] : raw_) touched_.insert(key);
  tell();
  if (callbacks_.ways_changed) callbacks_.ways_changed();
}

void KernelView::repeat() const {
  for (const auto &[name, interface] : told_) callbacks_.interface_changed(interface);
  for (const auto &[key, route] : routes_) callbacks_.route_changed(key, &route);
}

const KernelInterface *KernelView::find(const std::string &name) const {
  const auto found = std::find_if(interfaces_.begin(), interfaces_.end(),
                                  [&name](const auto &item) { return item.second.name == name; });
  return found == interfaces_.end() ? nullptr : &found->second;
}

}  // namespace forwarder
