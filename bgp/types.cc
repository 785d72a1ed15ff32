// The printed forms of the values in types.h.
#include "bgp/types.h"

#include <cstdio>

namespace bgp {
namespace {

uint32_t number(const Rd &rd, size_t at, size_t octets) {
  uint32_t value = 0;
  for (size_t i = 0; i < octets; i++) value = value << 8 | rd[at + i];
  return value;
}

std::string hexadecimal(const Rd &rd) {
  std::string text = "0x";
  for (const uint8_t octet : rd) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", octet);
    text += digits;
  }
  return text;
}

}  // namespace

const char *to_string(State state) {
  switch (state) {
    case State::idle:
      return "Idle";
    case State::connect:
      return "Connect";
    case State::active:
      return "Active";
    case State::open_sent:
      return "OpenSent";
    case State::open_confirm:
      return "OpenConfirm";
    case State::established:
      return "Established";
  }
  return "?";
}

std::string to_string_address(Ipv4 address) {
  return std::to_string(address >> 24) + "." + std::to_string(address >> 16 & 0xFF) + "." +
         std::to_string(address >> 8 & 0xFF) + "." + std::to_string(address & 0xFF);
}

std::string to_string(const Rd &rd) {
  const std::string small = ":" + std::to_string(number(rd, 6, 2));
  switch (number(rd, 0, 2)) {
    case 0:
      return std::to_string(number(rd, 2, 2)) + ":" + std::to_string(number(rd, 4, 4));
    case 1:
      return to_string_address(number(rd, 2, 4)) + small;
    case 2: {
      const uint32_t as = number(rd, 2, 4);
      return (as <= 0xFFFF ? "0." : "") + std::to_string(as) + small;
    }
    default:
      return hexadecimal(rd);
  }
}

std::string to_string(const Family &family) {
  if (family == kMdt) return "IPv4 MDT";
  if (family == kIpv4Unicast) return "IPv4 unicast";
  return "AFI " + std::to_string(family.afi) + " SAFI " + std::to_string(family.safi);
}

}  // namespace bgp
