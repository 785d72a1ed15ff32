// The payload of a test packet: which flow it belongs to, its number in the flow and when it was sent, so that whoever
// receives it, at whatever place, can tell loss, repetition, order and delay without asking the sender.
#ifndef LAB_TRAFFIC_TEST_PACKET_H
#define LAB_TRAFFIC_TEST_PACKET_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace traffic {

struct TestPacket {
  uint32_t flow = 0;    // number of the flow, from 1
  uint64_t number = 0;  // from 1
  int64_t sent_ns = 0;  // CLOCK_REALTIME
};

// Bytes that the fields take; what follows them in a longer payload is zero.
constexpr size_t kTestPacketSize = 24;
constexpr size_t kLargestPayload = 65000;

// Writes the fields at the start of a buffer of kTestPacketSize bytes or more.
void encode(const TestPacket &packet, std::span<uint8_t> payload);

// Nothing when the payload is not a test packet.
std::optional<TestPacket> decode(std::span<const uint8_t> payload);

// A test packet in the core: IPv4, GRE without options (RFC 2784), the customer's IPv4, UDP and payload.
struct CorePacket {
  uint32_t source = 0;             // outer addresses, host byte order
  uint32_t group = 0;              // the provider group
  std::optional<TestPacket> test;  // nothing when the GRE payload is another datagram
};

// Reads a datagram from its outer IPv4 header on; nothing when it is not GRE over IPv4.
std::optional<CorePacket> decode_core(std::span<const uint8_t> datagram);

}  // namespace traffic

#endif  // LAB_TRAFFIC_TEST_PACKET_H
