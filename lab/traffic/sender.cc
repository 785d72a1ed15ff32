// Sends at steady rates. Each flow has a time at which its next packet is due; send_due() sends what is due and tells
// the caller how long it may sleep. Nothing here blocks and nothing has a thread.
#include "lab/traffic/sender.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <stdexcept>

namespace traffic {
namespace {

constexpr int64_t kLongestSleepNs = 500'000'000;  // a bound for callers that have nothing due
// Who was held up longer than this goes on from now: a burst would not be the rate that was asked for.
constexpr int64_t kLongestArrearsNs = 50'000'000;
constexpr double kHighestRate = 1e6;  // packets a second, against slips; the interval stays at a microsecond or more
constexpr int kTimeToLive = 16;       // crosses any lab's routers, and no more

sockaddr_in socket_address(uint32_t address, uint16_t port) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_port = htons(port);
  result.sin_addr.s_addr = htonl(address);
  return result;
}

Descriptor sending_socket(const FlowAddress &address) {
  Descriptor fd = udp_socket();
  const sockaddr_in source = socket_address(address.source, 0);
  if (bind(fd.get(), reinterpret_cast<const sockaddr *>(&source), sizeof source) != 0)
    fail("bind to " + text_of(address.source));
  const in_addr interface = source.sin_addr;
  const int ttl = kTimeToLive;
  const int loop = 0;
  if (setsockopt(fd.get(), IPPROTO_IP, IP_MULTICAST_IF, &interface, sizeof interface) != 0) fail("IP_MULTICAST_IF");
  if (setsockopt(fd.get(), IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl) != 0) fail("IP_MULTICAST_TTL");
  if (setsockopt(fd.get(), IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof loop) != 0) fail("IP_MULTICAST_LOOP");
  return fd;
}

void check_rate(double rate) {
  if (!(rate >= 0 && rate <= kHighestRate)) throw std::runtime_error("a rate is 0 to 1000000 packets a second");
}

}  // namespace

void Sender::add(uint32_t flow, const FlowAddress &address, double rate, size_t size) {
  check_rate(rate);
  if (size < kTestPacketSize || size > kLargestPayload) throw std::runtime_error("a payload has 24 to 65000 bytes");
  if (flows_.contains(flow)) throw std::runtime_error("the flow is there already");
  flows_.emplace(flow, Flow{.socket = sending_socket(address),
                            .address = address,
                            .rate = rate,
                            .due_ns = now_ns(),
                            .payload = std::vector<uint8_t>(size),
                            .sent = {}});
}

void Sender::set_rate(uint32_t flow, double rate) {
  check_rate(rate);
  const auto found = flows_.find(flow);
  if (found == flows_.end()) throw std::runtime_error("no such flow is sent");
  found->second.rate = rate;
  found->second.due_ns = now_ns();
}

void Sender::send_one(uint32_t id, Flow *flow) {
  const TestPacket packet{.flow = id, .number = flow->sent.last + 1, .sent_ns = now_ns()};
  encode(packet, flow->payload);
  const sockaddr_in group = socket_address(flow->address.group, flow->address.port);
  const ssize_t n = sendto(flow->socket.get(), flow->payload.data(), flow->payload.size(), 0,
                           reinterpret_cast<const sockaddr *>(&group), sizeof group);
  if (n < 0) {
    ++flow->sent.errors;
    return;
  }
  flow->sent.last = packet.number;
  ++flow->sent.series[packet.sent_ns / kBucketNs];
}

int64_t Sender::send_due() {
  int64_t now = now_ns();
  int64_t next = now + kLongestSleepNs;
  for (auto &[id, flow] : flows_) {
    if (flow.rate <= 0) continue;
    const auto interval = static_cast<int64_t>(1e9 / flow.rate);
    if (now - flow.due_ns > kLongestArrearsNs) flow.due_ns = now;
    while (flow.due_ns <= now) {
      send_one(id, &flow);
      flow.due_ns += interval;
    }
    next = std::min(next, flow.due_ns);
  }
  now = now_ns();
  return std::max<int64_t>(next - now, 0);
}

}  // namespace traffic
