// Typed words of the command language: how each type is read, checked and written.
#ifndef HOST_LANGUAGE_VALUES_H
#define HOST_LANGUAGE_VALUES_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace host {

enum class ValueType {
  number,     // decimal, with a range
  address,    // A.B.C.D
  unicast,    // A.B.C.D that one host can have
  group,      // A.B.C.D in 224.0.0.0/4
  source,     // unicast, or * for any source
  prefix,     // A.B.C.D/LENGTH, LENGTH up to 32
  groups,     // prefix of multicast groups, without bits behind its length
  name,       // up to 32 characters, no blanks
  interface,  // up to 39 characters, no blanks
  rd,         // route distinguisher: AS:NUMBER or A.B.C.D:NUMBER
  endpoint,   // A.B.C.D:PORT
  path,       // name or path of a file, up to 107 characters, no blanks
  password,   // up to 80 characters, no blanks
  text,       // the rest of the line, up to 255 characters; the last word of a line
  policy,     // name of a route-map; its length is the policy manager's to judge
};

struct NumberRange {
  // Both included.
  uint64_t low = 0;
  uint64_t high = UINT32_MAX;
};

// Checks a word; its one written form when it is of the type, else nothing with the reason in *reason. range applies to
// numbers only.
std::optional<std::string> check_value(ValueType type, NumberRange range, std::string_view word, std::string *reason);

// Conversions of words that check_value has accepted.
uint32_t address_value(std::string_view word);  // host byte order; 0 for *
struct PrefixValue {
  uint32_t address;  // host byte order
  uint32_t length;   // 0..32
};
PrefixValue prefix_value(std::string_view word);
uint64_t number_value(std::string_view word);
struct EndpointValue {
  std::string address;  // dotted
  uint16_t port;        // host byte order, 1..65535
};
EndpointValue endpoint_value(std::string_view word);

// Dotted form of an address in host byte order.
std::string address_text(uint32_t address);

// What listings show in the place of a password. It is no password itself: a listing that is loaded says what is
// missing instead of setting another password.
inline constexpr std::string_view kHiddenPassword = "<hidden>";

// Text that came from outside, for messages: bytes that are no printable ASCII characters are written as \xHH.
std::string printable(std::string_view text);

}  // namespace host

#endif  // HOST_LANGUAGE_VALUES_H
