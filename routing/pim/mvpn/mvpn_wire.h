// Reads and writes numbers at any alignment. host: as in memory; be: network byte order.
#ifndef MVPN_WIRE_H
#define MVPN_WIRE_H

#include <cstdint>
#include <cstring>

template <typename T>
inline T load_host(const void *from) {
  T value;
  std::memcpy(&value, from, sizeof value);
  return value;
}

template <typename T>
inline void store_host(void *to, T value) {
  std::memcpy(to, &value, sizeof value);
}

inline uint16_t load_be16(const void *from) {
  const auto *b = static_cast<const uint8_t *>(from);
  return static_cast<uint16_t>(b[0] << 8 | b[1]);
}

inline uint32_t load_be32(const void *from) {
  const auto *b = static_cast<const uint8_t *>(from);
  return uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | b[3];
}

inline uint64_t load_be64(const void *from) {
  return uint64_t{load_be32(from)} << 32 | load_be32(static_cast<const uint8_t *>(from) + 4);
}

inline void store_be16(void *to, uint16_t value) {
  const uint8_t b[] = {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
  std::memcpy(to, b, sizeof b);
}

inline void store_be32(void *to, uint32_t value) {
  const uint8_t b[] = {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
                       static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
  std::memcpy(to, b, sizeof b);
}

#endif  // MVPN_WIRE_H
