// Numbers in byte strings, at any alignment: be in network byte order, host as in memory.
#ifndef REFERENCE_WIRE_H
#define REFERENCE_WIRE_H

#include <boost/endian/conversion.hpp>
#include <cstdint>

namespace ref::wire {

template <typename T>
T load_host(const void *from) {
  return boost::endian::endian_load<T, sizeof(T), boost::endian::order::native>(static_cast<const uint8_t *>(from));
}

template <typename T>
void store_host(void *to, T value) {
  boost::endian::endian_store<T, sizeof(T), boost::endian::order::native>(static_cast<uint8_t *>(to), value);
}

inline uint16_t load_be16(const void *from) {
  return boost::endian::load_big_u16(static_cast<const unsigned char *>(from));
}
inline uint32_t load_be32(const void *from) {
  return boost::endian::load_big_u32(static_cast<const unsigned char *>(from));
}
inline uint64_t load_be64(const void *from) {
  return boost::endian::load_big_u64(static_cast<const unsigned char *>(from));
}
inline void store_be16(void *to, uint16_t value) {
  boost::endian::store_big_u16(static_cast<unsigned char *>(to), value);
}
inline void store_be32(void *to, uint32_t value) {
  boost::endian::store_big_u32(static_cast<unsigned char *>(to), value);
}

}  // namespace ref::wire

#endif  // REFERENCE_WIRE_H
