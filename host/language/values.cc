// One reader per type. All of them are strict: what the daemon stores is the written form, so that two ways to write a
// value compare equal.
#include "host/language/values.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>

namespace host {
namespace {

constexpr size_t kNameMax = 32;       // VRF_NAME_MAX
constexpr size_t kInterfaceMax = 39;  // IF_NAME_SIZE with its NUL
constexpr size_t kPathMax = 107;      // of a Unix socket
constexpr size_t kPolicyMax = 255;    // a bound only: the policy manager has its own, which is lower
constexpr size_t kPasswordMax = 80;   // of a TCP signature's key
constexpr size_t kLineMax = 255;      // of a text, such as a description

std::optional<uint64_t> read_number(std::string_view word) {
  uint64_t value = 0;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
  if (word.empty() || error != std::errc() || end != word.data() + word.size()) return std::nullopt;
  return value;
}

std::optional<uint32_t> read_address(std::string_view word) {
  in_addr address{};
  if (inet_pton(AF_INET, std::string(word).c_str(), &address) != 1) return std::nullopt;
  return ntohl(address.s_addr);
}

bool is_multicast(uint32_t address) { return address >> 28 == 0xE; }
bool is_unicast(uint32_t address) { return address != 0 && address != UINT32_MAX && !is_multicast(address); }

using Result = std::optional<std::string>;

Result refuse(std::string *reason, std::string text) {
  *reason = std::move(text);
  return std::nullopt;
}

// A length behind the address is a habit from other routers.
std::string why_no_address(std::string_view word) {
  const bool has_length = read_address(word.substr(0, word.find('/'))).has_value();
  return has_length ? "is a prefix, and an address is wanted" : "is not an IPv4 address";
}

Result check_number(NumberRange range, std::string_view word, std::string *reason) {
  const bool digits = !word.empty() && word.find_first_not_of("0123456789") == std::string_view::npos;
  if (!digits) return refuse(reason, "is not a number");
  const std::optional<uint64_t> value = read_number(word);  // none: it has more digits than any range
  if (!value || *value < range.low || *value > range.high)
    return refuse(reason, "is outside " + std::to_string(range.low) + ".." + std::to_string(range.high));
  return std::to_string(*value);
}

Result check_address(std::string_view word, std::string *reason) {
  const std::optional<uint32_t> address = read_address(word);
  return address ? Result(address_text(*address)) : refuse(reason, why_no_address(word));
}

Result check_unicast(std::string_view word, std::string *reason) {
  const std::optional<uint32_t> address = read_address(word);
  if (!address) return refuse(reason, why_no_address(word));
  if (!is_unicast(*address)) return refuse(reason, "is not the address of one host");
  return address_text(*address);
}

Result check_group(std::string_view word, std::string *reason) {
  const std::optional<uint32_t> address = read_address(word);
  if (!address) return refuse(reason, why_no_address(word));
  if (!is_multicast(*address)) return refuse(reason, "is not a multicast group");
  return address_text(*address);
}

Result check_prefix(std::string_view word, std::string *reason) {
  const size_t slash = word.find('/');
  if (slash == std::string_view::npos) return refuse(reason, "is not a prefix, such as 239.1.0.0/16");
  const std::optional<uint32_t> address = read_address(word.substr(0, slash));
  if (!address) return refuse(reason, "does not begin with an IPv4 address");
  const std::optional<uint64_t> length = read_number(word.substr(slash + 1));
  if (!length) return refuse(reason, "has no mask length");
  if (*length > 32) return refuse(reason, "has a mask length over 32");
  return address_text(*address) + "/" + std::to_string(*length);
}

Result check_groups(std::string_view word, std::string *reason) {
  Result prefix = check_prefix(word, reason);
  if (!prefix) return prefix;
  const PrefixValue value = prefix_value(*prefix);
  if (!is_multicast(value.address) || value.length < 4) return refuse(reason, "is not a range of multicast groups");
  if (value.length < 32 && value.address << value.length != 0)
    return refuse(reason, "has bits set behind its mask length");
  return prefix;
}

Result check_text(size_t limit, std::string_view word, std::string *reason) {
  if (word.size() > limit) return refuse(reason, "is longer than " + std::to_string(limit) + " characters");
  const bool printable = std::all_of(word.begin(), word.end(), [](char c) { return c > ' ' && c < 0x7F; });
  if (!printable || word.empty()) return refuse(reason, "is not a name");
  return std::string(word);
}

Result check_password(std::string_view word, std::string *reason) {
  if (word == kHiddenPassword) return refuse(reason, "stands for a password that was not shown; write the password");
  return check_text(kPasswordMax, word, reason);
}

Result check_line(std::string_view line, std::string *reason) {
  if (line.size() > kLineMax) return refuse(reason, "is longer than " + std::to_string(kLineMax) + " characters");
  const bool printable = std::all_of(line.begin(), line.end(), [](char c) { return c >= ' ' && c < 0x7F; });
  if (!printable) return refuse(reason, "holds characters that are not ASCII");
  return std::string(line);
}

// Two octets of AS number go with four octets of assigned number; four octets of AS number, or an address, with two.
Result check_rd(std::string_view word, std::string *reason) {
  const size_t colon = word.rfind(':');
  if (colon == std::string_view::npos) return refuse(reason, "is not a route distinguisher, such as 65000:1");
  const std::optional<uint64_t> number = read_number(word.substr(colon + 1));
  const std::optional<uint32_t> address = read_address(word.substr(0, colon));
  const std::optional<uint64_t> as = read_number(word.substr(0, colon));
  if (!number || (!address && !as) || as.value_or(0) > UINT32_MAX)
    return refuse(reason, "is not a route distinguisher, such as 65000:1");
  const uint64_t limit = as && *as <= UINT16_MAX ? UINT32_MAX : UINT16_MAX;
  if (*number > limit) return refuse(reason, "has a number over " + std::to_string(limit));
  return (as ? std::to_string(*as) : address_text(*address)) + ":" + std::to_string(*number);
}

Result check_endpoint(std::string_view word, std::string *reason) {
  const size_t colon = word.rfind(':');
  if (colon == std::string_view::npos) return refuse(reason, "is not ADDRESS:PORT");
  const std::optional<uint32_t> address = read_address(word.substr(0, colon));
  const std::optional<uint64_t> port = read_number(word.substr(colon + 1));
  if (!address) return refuse(reason, "does not begin with an IPv4 address");
  if (!port || *port == 0 || *port > UINT16_MAX) return refuse(reason, "does not end with a port, 1..65535");
  return address_text(*address) + ":" + std::to_string(*port);
}

}  // namespace

std::optional<std::string> check_value(ValueType type, NumberRange range, std::string_view word, std::string *reason) {
  switch (type) {
    case ValueType::number:
      return check_number(range, word, reason);
    case ValueType::address:
      return check_address(word, reason);
    case ValueType::unicast:
      return check_unicast(word, reason);
    case ValueType::group:
      return check_group(word, reason);
    case ValueType::source:
      return word == "*" ? std::optional<std::string>("*") : check_unicast(word, reason);
    case ValueType::prefix:
      return check_prefix(word, reason);
    case ValueType::groups:
      return check_groups(word, reason);
    case ValueType::name:
      return check_text(kNameMax, word, reason);
    case ValueType::interface:
      return check_text(kInterfaceMax, word, reason);
    case ValueType::rd:
      return check_rd(word, reason);
    case ValueType::endpoint:
      return check_endpoint(word, reason);
    case ValueType::path:
      return check_text(kPathMax, word, reason);
    case ValueType::password:
      return check_password(word, reason);
    case ValueType::text:
      return check_line(word, reason);
    case ValueType::policy:
      return check_text(kPolicyMax, word, reason);
  }
  return std::nullopt;
}

uint32_t address_value(std::string_view word) { return read_address(word).value_or(0); }

PrefixValue prefix_value(std::string_view word) {
  const size_t slash = word.find('/');
  return {address_value(word.substr(0, slash)), static_cast<uint32_t>(number_value(word.substr(slash + 1)))};
}

uint64_t number_value(std::string_view word) { return read_number(word).value_or(0); }

EndpointValue endpoint_value(std::string_view word) {
  const size_t colon = word.rfind(':');
  return {std::string(word.substr(0, colon)), static_cast<uint16_t>(number_value(word.substr(colon + 1)))};
}

std::string address_text(uint32_t address) {
  char text[INET_ADDRSTRLEN];
  const in_addr network{htonl(address)};
  return inet_ntop(AF_INET, &network, text, sizeof text);
}

std::string printable(std::string_view text) {
  constexpr char kHex[] = "0123456789abcdef";
  std::string shown;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= ' ' && byte < 0x7F)
      shown += c;
    else
      shown += {'\\', 'x', kHex[byte >> 4], kHex[byte & 0xF]};
  }
  return shown;
}

}  // namespace host
