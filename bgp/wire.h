// Numbers in network byte order, read from and appended to octets.
#ifndef BGP_WIRE_H
#define BGP_WIRE_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace bgp::wire {

inline uint16_t load16(const uint8_t *from) { return static_cast<uint16_t>(from[0] << 8 | from[1]); }
inline uint32_t load32(const uint8_t *from) { return uint32_t{load16(from)} << 16 | load16(from + 2); }
inline uint64_t load64(const uint8_t *from) { return uint64_t{load32(from)} << 32 | load32(from + 4); }

inline void store16(uint8_t *to, uint16_t value) {
  to[0] = static_cast<uint8_t>(value >> 8);
  to[1] = static_cast<uint8_t>(value);
}
inline void store32(uint8_t *to, uint32_t value) {
  store16(to, static_cast<uint16_t>(value >> 16));
  store16(to + 2, static_cast<uint16_t>(value));
}

inline void put8(std::vector<uint8_t> &out, size_t value) { out.push_back(static_cast<uint8_t>(value)); }
inline void put16(std::vector<uint8_t> &out, size_t value) {
  put8(out, value >> 8);
  put8(out, value);
}
inline void put32(std::vector<uint8_t> &out, uint32_t value) {
  put16(out, value >> 16);
  put16(out, value & 0xFFFF);
}
inline void put64(std::vector<uint8_t> &out, uint64_t value) {
  put32(out, static_cast<uint32_t>(value >> 32));
  put32(out, static_cast<uint32_t>(value));
}
inline void put(std::vector<uint8_t> &out, std::span<const uint8_t> octets) {
  out.insert(out.end(), octets.begin(), octets.end());
}

// A walk through octets. What is asked for must be there: callers look at left() first.
class Reader {
 public:
  explicit Reader(std::span<const uint8_t> octets) : octets_(octets) {}
  size_t left() const { return octets_.size(); }
  uint8_t u8() { return take(1)[0]; }
  uint16_t u16() { return load16(take(2).data()); }
  uint32_t u32() { return load32(take(4).data()); }
  uint64_t u64() { return load64(take(8).data()); }
  std::span<const uint8_t> take(size_t count) {
    const auto taken = octets_.first(count);
    octets_ = octets_.subspan(count);
    return taken;
  }
  std::span<const uint8_t> rest() const { return octets_; }

 private:
  std::span<const uint8_t> octets_;
};

}  // namespace bgp::wire

#endif  // BGP_WIRE_H
