// Datagrams for the forwarder's tests.
#ifndef TESTS_FORWARDER_BYTES_H
#define TESTS_FORWARDER_BYTES_H

#include <cstdint>
#include <span>
#include <vector>

using Bytes = std::vector<uint8_t>;

inline void store16(Bytes &bytes, size_t at, uint32_t value) {
  bytes[at] = static_cast<uint8_t>(value >> 8);
  bytes[at + 1] = static_cast<uint8_t>(value);
}
inline void store32(Bytes &bytes, size_t at, uint32_t value) {
  store16(bytes, at, value >> 16);
  store16(bytes, at + 2, value);
}

// RFC 1071 over a whole header: 0 when its checksum is right.
inline uint16_t checksum(std::span<const uint8_t> bytes) {
  uint32_t sum = 0;
  for (size_t at = 0; at + 1 < bytes.size(); at += 2) sum += uint32_t{bytes[at]} << 8 | bytes[at + 1];
  while (sum >> 16 != 0) sum = (sum & 0xFFFF) + (sum >> 16);
  return static_cast<uint16_t>(~sum);
}

// An IPv4 datagram with a right checksum.
inline Bytes ipv4(uint32_t source, uint32_t destination, uint8_t protocol, const Bytes &payload, uint8_t tos = 0) {
  Bytes bytes(20);
  bytes[0] = 0x45;
  bytes[1] = tos;
  bytes[8] = 16;
  bytes[9] = protocol;
  store32(bytes, 12, source);
  store32(bytes, 16, destination);
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  store16(bytes, 2, static_cast<uint32_t>(bytes.size()));
  store16(bytes, 10, checksum(std::span(bytes).first(20)));
  return bytes;
}

// A core packet around a customer datagram.
inline Bytes core_packet(uint32_t source, uint32_t group, const Bytes &customer, uint8_t tos = 0) {
  Bytes gre = {0, 0, 0x08, 0};
  gre.insert(gre.end(), customer.begin(), customer.end());
  return ipv4(source, group, 47, gre, tos);
}

#endif  // TESTS_FORWARDER_BYTES_H
