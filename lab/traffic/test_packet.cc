// Writes and reads test packets. Numbers are in network byte order: mark, flow, number and time of sending at bytes 0,
// 4, 8 and 16. Reading is bounded by what was received: watched links carry whatever the machine sends.
#include "lab/traffic/test_packet.h"

namespace traffic {
namespace {

constexpr uint32_t kMark = 0x4D565450;  // the first four bytes of every test packet
constexpr size_t kNumberAt = 8;
constexpr size_t kSentAt = 16;

constexpr uint8_t kGreProtocol = 47;
constexpr uint8_t kUdpProtocol = 17;
constexpr size_t kGreHeader = 4;
constexpr size_t kUdpHeader = 8;
constexpr uint16_t kEtherTypeIpv4 = 0x0800;

void put(std::span<uint8_t> bytes, uint64_t value) {
  for (size_t at = bytes.size(); at > 0; --at, value >>= 8) bytes[at - 1] = static_cast<uint8_t>(value);
}

uint64_t get(std::span<const uint8_t> bytes) {
  uint64_t value = 0;
  for (const uint8_t byte : bytes) value = value << 8 | byte;
  return value;
}

// What stands behind an IPv4 header that carries the protocol and is no later fragment; nothing otherwise.
std::optional<std::span<const uint8_t>> behind_ipv4(std::span<const uint8_t> datagram, uint8_t protocol) {
  constexpr size_t shortest = 20;
  if (datagram.size() < shortest || datagram[0] >> 4 != 4 || datagram[9] != protocol) return std::nullopt;
  const size_t header = (datagram[0] & 15U) * 4U;
  const size_t total = get(datagram.subspan(2, 2));
  if (header < shortest || total < header || total > datagram.size()) return std::nullopt;
  if ((get(datagram.subspan(6, 2)) & 0x1FFF) != 0) return std::nullopt;
  return datagram.subspan(header, total - header);
}

}  // namespace

void encode(const TestPacket &packet, std::span<uint8_t> payload) {
  put(payload.first(4), kMark);
  put(payload.subspan(4, 4), packet.flow);
  put(payload.subspan(kNumberAt, 8), packet.number);
  put(payload.subspan(kSentAt, 8), static_cast<uint64_t>(packet.sent_ns));
}

std::optional<TestPacket> decode(std::span<const uint8_t> payload) {
  if (payload.size() < kTestPacketSize || get(payload.first(4)) != kMark) return std::nullopt;
  return TestPacket{.flow = static_cast<uint32_t>(get(payload.subspan(4, 4))),
                    .number = get(payload.subspan(kNumberAt, 8)),
                    .sent_ns = static_cast<int64_t>(get(payload.subspan(kSentAt, 8)))};
}

std::optional<CorePacket> decode_core(std::span<const uint8_t> datagram) {
  const auto gre = behind_ipv4(datagram, kGreProtocol);
  if (!gre || gre->size() < kGreHeader || get(gre->first(4)) != kEtherTypeIpv4) return std::nullopt;
  CorePacket packet{.source = static_cast<uint32_t>(get(datagram.subspan(12, 4))),
                    .group = static_cast<uint32_t>(get(datagram.subspan(16, 4))),
                    .test = std::nullopt};
  const auto udp = behind_ipv4(gre->subspan(kGreHeader), kUdpProtocol);
  if (udp && udp->size() >= kUdpHeader) packet.test = decode(udp->subspan(kUdpHeader));
  return packet;
}

}  // namespace traffic
