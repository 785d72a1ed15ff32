// Texts that come from outside, read whole or not at all.
#ifndef REFERENCE_PARSE_H
#define REFERENCE_PARSE_H

#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>

#include "platform/types.h"

namespace ref {

// A decimal number up to `limit`, digits only.
inline std::optional<uint64_t> parse_number(std::string_view text, uint64_t limit) {
  uint64_t value = 0;
  const char *end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc{} || stop != end || value > limit) return std::nullopt;
  return value;
}

// A dotted IPv4 address.
inline std::optional<ip_addr_t> parse_address(std::string_view text) {
  ip_addr_t address = 0;
  for (int octet = 0; octet < 4; octet++) {
    const size_t end = octet < 3 ? text.find('.') : text.size();
    if (end > 3) return std::nullopt;
    const auto value = parse_number(text.substr(0, end), 255);
    if (!value) return std::nullopt;
    address = address << 8 | static_cast<ip_addr_t>(*value);
    text.remove_prefix(octet < 3 ? end + 1 : end);
  }
  return address;
}

}  // namespace ref

#endif  // REFERENCE_PARSE_H
