// Messages between a PE and the MDT SAFI route reflector.
//
// A connection carries frames: a length of 4 bytes in network byte order, which counts the type and the body, then the
// type (1 byte), then the body. All numbers are in network byte order.
//
//   hello       1   version (2), name length (1), name: first frame of each side
//   update      2   count (2), entries of 17 bytes: PE source (4), route distinguisher (8), group (4), 1 = advertised
//                   or 0 = withdrawn (1)
//   end of RIB  3   empty: the sender's whole set has been sent
//   keepalive   4   empty
//
// After its hello each side sends its whole set, the end-of-RIB mark, and then changes as they come. A side that has
// heard nothing for the hold time closes the connection.
#ifndef HOST_REFLECTOR_SAFI_PROTOCOL_H
#define HOST_REFLECTOR_SAFI_PROTOCOL_H

#include <array>
#include <chrono>
#include <compare>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

namespace safi {

constexpr uint16_t kVersion = 1;
constexpr size_t kLengthSize = 4;
constexpr size_t kEntrySize = 17;
constexpr size_t kMaxEntries = 1000;  // of one update
constexpr size_t kMaxNameLength = 64;
constexpr size_t kMaxFrame = 1 + 2 + kMaxEntries * kEntrySize;  // type and body of the longest frame
constexpr std::chrono::seconds kKeepaliveInterval{10};
constexpr std::chrono::seconds kHoldTime{30};

// What identifies an MDT SAFI entry, and the group that it announces.
struct Entry {
  uint32_t source = 0;  // host byte order
  std::array<uint8_t, 8> rd{};
  uint32_t group = 0;  // host byte order
  auto operator<=>(const Entry &) const = default;
};

struct Change {
  Entry entry;
  bool add = true;
};

struct Hello {
  uint16_t version = kVersion;
  std::string name;
};
struct Update {
  std::vector<Change> changes;
};
struct EndOfRib {};
struct Keepalive {};
using Message = std::variant<Hello, Update, EndOfRib, Keepalive>;

// A whole frame, length included. Updates of more than kMaxEntries changes are the caller's to split.
std::vector<uint8_t> encode(const Message &message);

// The message in a frame's type and body; nothing when it is malformed, with the reason in *error.
std::optional<Message> decode(std::span<const uint8_t> frame, std::string *error);

}  // namespace safi

#endif  // HOST_REFLECTOR_SAFI_PROTOCOL_H
