// Messages written as hexadecimal digits, blanks where a reader wants them.
#ifndef TESTS_BGP_OCTETS_H
#define TESTS_BGP_OCTETS_H

#include <string>
#include <string_view>

#include "bgp/message.h"

namespace octets {

// Digits in pairs; blanks count for nothing.
inline bgp::Octets of(std::string_view digits) {
  bgp::Octets octets;
  std::string pair;
  for (const char c : digits) {
    if (c == ' ') continue;
    pair += c;
    if (pair.size() < 2) continue;
    octets.push_back(static_cast<uint8_t>(std::stoi(pair, nullptr, 16)));
    pair.clear();
  }
  return octets;
}

inline std::string text(bgp::View octets) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string digits;
  for (const uint8_t octet : octets) {
    digits += kDigits[octet >> 4];
    digits += kDigits[octet & 15];
  }
  return digits;
}

// A whole message around a body.
inline bgp::Octets message(uint8_t type, std::string_view body) {
  bgp::Octets octets(16, 0xFF);
  const bgp::Octets rest = of(body);
  const size_t length = bgp::kHeaderSize + rest.size();
  octets.push_back(static_cast<uint8_t>(length >> 8));
  octets.push_back(static_cast<uint8_t>(length));
  octets.push_back(type);
  octets.insert(octets.end(), rest.begin(), rest.end());
  return octets;
}

// The body of an UPDATE with these attributes and no IPv4 unicast.
inline bgp::Octets update_body(std::string_view attributes) {
  const bgp::Octets list = of(attributes);
  bgp::Octets body{0, 0, static_cast<uint8_t>(list.size() >> 8), static_cast<uint8_t>(list.size())};
  body.insert(body.end(), list.begin(), list.end());
  return body;
}

}  // namespace octets

#endif  // TESTS_BGP_OCTETS_H
