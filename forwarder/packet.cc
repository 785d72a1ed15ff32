// Reading and writing of headers, byte by byte: nothing is cast to a struct, so alignment and byte order do not matter.
// Every packet passes here: what can be computed once for an encapsulation is (OuterHeader), and nothing allocates but
// cut(), which is rare.
#include "forwarder/packet.h"

#include <algorithm>

namespace forwarder {
namespace {

// Byte offsets of the fields, and the size of a header without options.
enum Ipv4 : size_t {
  ip_version_ihl = 0,
  ip_tos = 1,
  ip_length = 2,
  ip_identification = 4,
  ip_fragment = 6,
  ip_ttl = 8,
  ip_protocol = 9,
  ip_checksum = 10,
  ip_source = 12,
  ip_destination = 16,
  ip_size = 20,
};
enum Gre : size_t { gre_flags = 0, gre_protocol = 2, gre_size = 4 };
constexpr uint8_t kProtocolGre = 47;
constexpr uint16_t kEthertypeIpv4 = 0x0800;
constexpr uint8_t kDontFragment = 0x40;  // in the first byte of flags and fragment offset
constexpr uint8_t kEcnMask = 0x03, kCongested = 0x03, kNoEcn = 0x00;

uint16_t load16(const uint8_t *from) { return static_cast<uint16_t>(from[0] << 8 | from[1]); }
uint32_t load32(const uint8_t *from) { return uint32_t{load16(from)} << 16 | load16(from + 2); }
void store16(uint8_t *to, uint16_t value) {
  to[0] = static_cast<uint8_t>(value >> 8);
  to[1] = static_cast<uint8_t>(value);
}
void store32(uint8_t *to, uint32_t value) {
  store16(to, static_cast<uint16_t>(value >> 16));
  store16(to + 2, static_cast<uint16_t>(value));
}

// The Internet checksum of words that add up to the sum (RFC 1071).
uint16_t checksum_of(uint32_t sum) {
  while (sum >> 16 != 0) sum = (sum & 0xFFFF) + (sum >> 16);
  return static_cast<uint16_t>(~sum);
}
uint32_t sum_of_words(std::span<const uint8_t> bytes) {
  uint32_t sum = 0;
  for (size_t i = 0; i + 1 < bytes.size(); i += 2) sum += load16(&bytes[i]);
  return sum;
}

// An IPv4 datagram: its header's size and its own.
struct Lengths {
  size_t header, total;
};
std::optional<Drop> measure(std::span<const uint8_t> bytes, Lengths *lengths) {
  if (bytes.empty()) return Drop::too_short;
  if (bytes[ip_version_ihl] >> 4 != 4) return Drop::not_ipv4;
  if (bytes.size() < ip_size) return Drop::too_short;
  lengths->header = size_t{bytes[ip_version_ihl] & 0x0Fu} * 4;
  lengths->total = load16(&bytes[ip_length]);
  if (lengths->header < ip_size || lengths->total < lengths->header || lengths->total > bytes.size())
    return Drop::too_short;
  return std::nullopt;
}

}  // namespace

const char *drop_name(Drop reason) {
  static constexpr const char *names[kDrops] = {"too-short",     "not-ipv4",  "gre-options",      "own-source",
                                                "unknown-group", "looped",    "too-big",          "stray-unicast",
                                                "congestion",    "no-tunnel", "no-encapsulation", "send-failed"};
  return names[static_cast<size_t>(reason)];
}

OuterHeader::OuterHeader(uint32_t source, uint32_t group, const OuterPolicy &policy) {
  bytes_[ip_version_ihl] = 0x45;
  bytes_[ip_ttl] = policy.ttl;
  bytes_[ip_protocol] = kProtocolGre;
  store32(&bytes_[ip_source], source);
  store32(&bytes_[ip_destination], group);
  store16(&bytes_[size_t{ip_size} + gre_protocol], kEthertypeIpv4);
  if (policy.tos) {
    bytes_[ip_tos] = static_cast<uint8_t>(*policy.tos & ~kEcnMask);
    tos_mask_ = kEcnMask;
  }
  fragment_and_ = policy.df == DontFragment::copy ? kDontFragment : 0;
  fragment_or_ = policy.df == DontFragment::set ? kDontFragment : 0;
  sum_ = sum_of_words(std::span(bytes_).first(ip_size));
}

void OuterHeader::write(uint8_t *to, const uint8_t *customer, size_t size, uint16_t identification) const {
  const auto tos = static_cast<uint8_t>(customer[ip_tos] & tos_mask_);
  const auto length = static_cast<uint16_t>(kOuterSize + size);
  const auto fragment = static_cast<uint8_t>((customer[ip_fragment] & fragment_and_) | fragment_or_);
  std::copy(bytes_.begin(), bytes_.end(), to);
  to[ip_tos] = static_cast<uint8_t>(to[ip_tos] | tos);
  store16(to + ip_length, length);
  store16(to + ip_identification, identification);
  to[ip_fragment] = fragment;
  store16(to + ip_checksum, checksum_of(sum_ + tos + length + identification + (uint32_t{fragment} << 8)));
}

std::optional<Drop> inspect_customer(std::span<const uint8_t> bytes, Customer *customer) {
  Lengths lengths{};
  if (const auto drop = measure(bytes, &lengths)) return drop;
  customer->source = load32(&bytes[ip_source]);
  customer->group = load32(&bytes[ip_destination]);
  return std::nullopt;
}

std::optional<Drop> decapsulate(std::span<uint8_t> bytes, bool truncated, CorePacket *packet) {
  if (truncated) return Drop::too_big;
  Lengths outer{};
  if (const auto drop = measure(bytes, &outer)) return drop;
  if (bytes[ip_protocol] != kProtocolGre) return Drop::not_ipv4;
  const std::span<uint8_t> gre = bytes.subspan(outer.header, outer.total - outer.header);
  if (gre.size() < gre_size) return Drop::too_short;
  if (load16(&gre[gre_flags]) != 0) return Drop::gre_options;
  if (load16(&gre[gre_protocol]) != kEthertypeIpv4) return Drop::not_ipv4;
  const std::span<uint8_t> datagram = gre.subspan(gre_size);
  Lengths inner{};
  if (const auto drop = measure(datagram, &inner)) return drop;
  if (inner.total > kCustomerMax) return Drop::too_big;
  packet->source = load32(&bytes[ip_source]);
  packet->group = load32(&bytes[ip_destination]);
  packet->congested = (bytes[ip_tos] & kEcnMask) == kCongested;
  packet->datagram = datagram.first(inner.total);
  return std::nullopt;
}

std::optional<Customer> core_packet_within(std::span<const uint8_t> datagram) {
  if (datagram.size() < ip_size || datagram[ip_protocol] != kProtocolGre) return std::nullopt;
  return Customer{load32(&datagram[ip_source]), load32(&datagram[ip_destination])};
}

// The header's checksum follows the change (RFC 1624, equation 3).
bool mark_congestion(std::span<uint8_t> datagram) {
  const uint8_t ecn = datagram[ip_tos] & kEcnMask;
  if (ecn == kNoEcn) return false;
  const uint16_t before = load16(&datagram[ip_version_ihl]);
  datagram[ip_tos] |= kCongested;
  const uint32_t sum = static_cast<uint16_t>(~load16(&datagram[ip_checksum])) +
                       uint32_t{static_cast<uint16_t>(~before)} + load16(&datagram[ip_version_ihl]);
  store16(&datagram[ip_checksum], checksum_of(sum));
  return true;
}

bool may_be_cut(std::span<const uint8_t> packet) { return (packet[ip_fragment] & kDontFragment) == 0; }

// Offsets count in units of eight bytes.
std::vector<std::vector<uint8_t>> cut(std::span<const uint8_t> packet, size_t mtu) {
  constexpr size_t unit = 8;
  constexpr uint16_t more_fragments = 0x2000;
  const size_t step = mtu < ip_size + unit ? unit : (mtu - ip_size) / unit * unit;
  std::vector<std::vector<uint8_t>> parts;
  for (size_t at = ip_size; at < packet.size(); at += step) {
    const size_t size = std::min(step, packet.size() - at);
    std::vector<uint8_t> part(packet.begin(), packet.begin() + ip_size);
    part.insert(part.end(), packet.begin() + static_cast<std::ptrdiff_t>(at),
                packet.begin() + static_cast<std::ptrdiff_t>(at + size));
    store16(&part[ip_length], static_cast<uint16_t>(part.size()));
    const auto offset = static_cast<uint16_t>((at - ip_size) / unit);
    store16(&part[ip_fragment], static_cast<uint16_t>(offset | (at + size < packet.size() ? more_fragments : 0)));
    store16(&part[ip_checksum], 0);
    store16(&part[ip_checksum], checksum_of(sum_of_words(std::span(part).first(ip_size))));
    parts.push_back(std::move(part));
  }
  return parts;
}

}  // namespace forwarder
