// Receives. A socket is bound to its group and port, so that the system sorts packets to flows; several flows to one
// group each have a socket that takes its own source only. IP_MULTICAST_ALL is off, or else a socket would also get
// what other sockets of the machine have joined. The system stamps arrivals and counts what a full socket dropped.
#include "lab/traffic/receiver.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <sys/socket.h>

#include <array>
#include <cstring>
#include <stdexcept>

namespace traffic {
namespace {

constexpr int kReceiveBuffer = 4 << 20;  // bytes: some thousand packets while the agent does something else

sockaddr_storage storage_of(uint32_t address, uint16_t port) {
  sockaddr_storage result{};
  auto *in = reinterpret_cast<sockaddr_in *>(&result);
  in->sin_family = AF_INET;
  in->sin_port = htons(port);
  in->sin_addr.s_addr = htonl(address);
  return result;
}

void join_group(int fd, const FlowAddress &address, uint32_t interface) {
  if (address.source == 0) {
    const group_req request{.gr_interface = interface, .gr_group = storage_of(address.group, 0)};
    if (setsockopt(fd, IPPROTO_IP, MCAST_JOIN_GROUP, &request, sizeof request) != 0) fail("MCAST_JOIN_GROUP");
    return;
  }
  const group_source_req request{.gsr_interface = interface,
                                 .gsr_group = storage_of(address.group, 0),
                                 .gsr_source = storage_of(address.source, 0)};
  if (setsockopt(fd, IPPROTO_IP, MCAST_JOIN_SOURCE_GROUP, &request, sizeof request) != 0)
    fail("MCAST_JOIN_SOURCE_GROUP");
}

Descriptor receiving_socket(const FlowAddress &address, const std::string &interface) {
  const uint32_t index = if_nametoindex(interface.c_str());
  if (index == 0) throw std::runtime_error("there is no interface " + interface);
  Descriptor fd = udp_socket();
  const int on = 1;
  const int off = 0;
  setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  setsockopt(fd.get(), IPPROTO_IP, IP_MULTICAST_ALL, &off, sizeof off);
  setsockopt(fd.get(), SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
  setsockopt(fd.get(), SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on);
  // Beyond the system's limit only with the right to; otherwise as large as the limit lets it be.
  if (setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBuffer, sizeof kReceiveBuffer) != 0)
    setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUF, &kReceiveBuffer, sizeof kReceiveBuffer);
  const sockaddr_storage local = storage_of(address.group, address.port);
  if (bind(fd.get(), reinterpret_cast<const sockaddr *>(&local), sizeof(sockaddr_in)) != 0)
    fail("bind to " + text_of(address.group));
  join_group(fd.get(), address, index);
  return fd;
}

// The time of arrival and the count of dropped packets, where the system tells them.
int64_t read_control(const msghdr &message, uint32_t *dropped) {
  int64_t at = 0;
  for (const cmsghdr *item = CMSG_FIRSTHDR(&message); item != nullptr;
       item = CMSG_NXTHDR(const_cast<msghdr *>(&message), const_cast<cmsghdr *>(item))) {
    if (item->cmsg_level != SOL_SOCKET) continue;
    if (item->cmsg_type == SCM_TIMESTAMPNS) {
      timespec time{};
      std::memcpy(&time, CMSG_DATA(item), sizeof time);
      at = time.tv_sec * 1'000'000'000LL + time.tv_nsec;
    } else if (item->cmsg_type == SO_RXQ_OVFL) {
      std::memcpy(dropped, CMSG_DATA(item), sizeof *dropped);
    }
  }
  return at != 0 ? at : now_ns();
}

}  // namespace

void Receiver::join(uint32_t flow, const FlowAddress &address, const std::string &interface) {
  Flow &entry = flows_[flow];
  if (entry.joined) throw std::runtime_error("the flow is joined already");
  entry.socket = receiving_socket(address, interface);
  entry.joined = true;
}

void Receiver::leave(uint32_t flow) {
  const auto found = flows_.find(flow);
  if (found == flows_.end() || !found->second.joined) throw std::runtime_error("the flow is not joined");
  take(flow, &found->second);
  found->second.socket = Descriptor();
  found->second.joined = false;
}

const Receiver::Flow &Receiver::flow(uint32_t flow) const {
  const auto found = flows_.find(flow);
  if (found == flows_.end()) throw std::runtime_error("the flow was never joined");
  return found->second;
}

std::vector<int> Receiver::descriptors() const {
  std::vector<int> result;
  for (const auto &[id, flow] : flows_)
    if (flow.joined) result.push_back(flow.socket.get());
  return result;
}

void Receiver::read(int descriptor) {
  for (auto &[id, flow] : flows_)
    if (flow.joined && flow.socket.get() == descriptor) return take(id, &flow);
}

void Receiver::take(uint32_t id, Flow *flow) {
  std::array<uint8_t, kLargestPayload> payload;
  std::array<char, 256> control;
  for (;;) {
    iovec part{payload.data(), payload.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const ssize_t n = recvmsg(flow->socket.get(), &message, 0);
    if (n < 0) return;
    const int64_t at = read_control(message, &flow->dropped);
    const auto packet = decode(std::span(payload).first(static_cast<size_t>(n)));
    if (packet && packet->flow == id)
      flow->tally.arrived(*packet, at);
    else
      ++flow->foreign;
  }
}

}  // namespace traffic
