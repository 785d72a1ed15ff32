// Core packets: IPv4, GRE (RFC 2784) without options, the customer's IPv4 datagram. Nothing here calls the system.
//
// Outgoing headers are made once for an encapsulation and patched for each packet, their checksum included. Incoming
// packets are taken as a raw socket gives them, from the IPv4 header on; every length is checked against the bytes that
// are there before it is used. Addresses are numbers in host byte order.
#ifndef FORWARDER_PACKET_H
#define FORWARDER_PACKET_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace forwarder {

constexpr size_t kOuterSize = 24;          // IPv4 without options, GRE without options
constexpr size_t kCustomerMax = 16384;     // bytes of the largest customer datagram that is carried
constexpr size_t kCustomerHeaderMin = 20;  // of IPv4

// Why a packet is not forwarded. The names in drop_name() are an interface.
enum class Drop : uint8_t {
  too_short,         // fewer bytes than its headers say
  not_ipv4,          // another version, or GRE for another protocol
  gre_options,       // GRE with a checksum, a key, a sequence number, or of another version
  own_source,        // from this PE itself
  unknown_group,     // no VRF takes the core source and group
  looped,            // a core packet inside a core packet: a VRF and the core are joined somewhere
  too_big,           // more than kCustomerMax, or more than the core takes while fragments are forbidden
  stray_unicast,     // to a host that is not this PE: several PEs hear it, and none may send it on
  congestion,        // marked on the way, for a customer that knows no marks (RFC 6040)
  no_tunnel,         // the VRF's tunnel is not there or took no packet
  no_encapsulation,  // the VRF has no default MDT
  send_failed,       // the core interface took no packet
  count,
};
constexpr size_t kDrops = static_cast<size_t>(Drop::count);
const char *drop_name(Drop reason);
using DropCounters = std::array<uint64_t, kDrops>;

enum class DontFragment : uint8_t { copy, set, clear };  // of the outer header; copy: as the customer's says

// How outer headers are written.
struct OuterPolicy {
  uint8_t ttl = 64;                      // 1 to 255
  std::optional<uint8_t> tos;            // upper six bits; nothing: those of the customer's header
  DontFragment df = DontFragment::copy;  // of outer headers
  bool operator==(const OuterPolicy &) const = default;
};

class OuterHeader {
 public:
  OuterHeader() = default;
  OuterHeader(uint32_t source, uint32_t group, const OuterPolicy &policy);

  // Writes kOuterSize bytes in front of a customer datagram of `size` bytes (kCustomerHeaderMin to kCustomerMax).
  // identification: of the outer header; differs from packet to packet, since routers may cut them into fragments.
  void write(uint8_t *to, const uint8_t *customer, size_t size, uint16_t identification) const;

 private:
  std::array<uint8_t, kOuterSize> bytes_{};
  uint32_t sum_ = 0;                            // of the header's 16-bit words that no packet changes
  uint8_t tos_mask_ = 0xFF;                     // bits that come from the customer's header
  uint8_t fragment_and_ = 0, fragment_or_ = 0;  // on the customer's don't-fragment bit
};

// What a customer's header says.
struct Customer {
  uint32_t source = 0;  // host byte order
  uint32_t group = 0;   // destination, whatever it is
};
// The datagram that a VRF sends into its tunnel: fills *customer, or says why it is not carried. bytes: the whole of
// it.
std::optional<Drop> inspect_customer(std::span<const uint8_t> bytes, Customer *customer);

// A core packet taken apart; the customer's datagram is a part of the packet's bytes.
struct CorePacket {
  // The outer header's, in host byte order.
  uint32_t source = 0;
  uint32_t group = 0;
  bool congested = false;       // marked so on the way
  std::span<uint8_t> datagram;  // the customer's, whole, without what a link has padded
};
// Fills *packet, or says why it is dropped. truncated: the packet was larger than the bytes.
std::optional<Drop> decapsulate(std::span<uint8_t> bytes, bool truncated, CorePacket *packet);

// Source and destination of the core packet that a customer datagram is itself; nothing: it is none.
std::optional<Customer> core_packet_within(std::span<const uint8_t> datagram);

// Hands a congestion mark on to a customer datagram. False: it knows no marks and is dropped.
bool mark_congestion(std::span<uint8_t> datagram);

// Whether a core packet's header lets it be cut into fragments; the fragments, each at most mtu bytes (RFC 791). A
// whole core packet of ours: a header without options.
bool may_be_cut(std::span<const uint8_t> packet);
std::vector<std::vector<uint8_t>> cut(std::span<const uint8_t> packet, size_t mtu);

constexpr bool is_multicast(uint32_t address) { return address >> 28 == 0xE; }

}  // namespace forwarder

#endif  // FORWARDER_PACKET_H
