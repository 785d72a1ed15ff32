// The values that a BGP speaker for MDT SAFI routes (AFI 1, SAFI 66) deals in: keys, path attributes, families, time.
//
// Addresses are IPv4 addresses as numbers in host byte order; AS numbers are 32 bits wide everywhere (RFC 6793). Times
// are those of the clock that the embedding gives. Every record here is a plain value that its holder owns.
#ifndef BGP_TYPES_H
#define BGP_TYPES_H

#include <array>
#include <chrono>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace bgp {

using Ipv4 = uint32_t;      // host byte order; 0: none
using AsNumber = uint32_t;  // 0 is never valid (RFC 7607)
using Duration = std::chrono::milliseconds;
using Time = std::chrono::time_point<std::chrono::steady_clock, Duration>;  // monotonic; its origin is the clock's

using Rd = std::array<uint8_t, 8>;  // route distinguisher, as on the wire; opaque here

// What makes an MDT SAFI route one route: the group is part of the NLRI and not of the key, so that a second group for
// the same distinguisher and source replaces the first.
struct RouteKey {
  Rd rd{};          // of the VRF at the PE
  Ipv4 source = 0;  // the PE's address
  auto operator<=>(const RouteKey &) const = default;
};

struct Nlri {
  RouteKey key;    // what the route is about
  Ipv4 group = 0;  // the VRF's default MDT group
  bool operator==(const Nlri &) const = default;
};

struct Family {
  uint16_t afi = 0;  // IANA's address family number
  uint8_t safi = 0;  // IANA's subsequent address family number
  auto operator<=>(const Family &) const = default;
};
inline constexpr Family kMdt{1, 66};
inline constexpr Family kIpv4Unicast{1, 1};

enum class Origin : uint8_t { igp = 0, egp = 1, incomplete = 2 };

enum class SegmentType : uint8_t { as_set = 1, as_sequence = 2 };

struct AsSegment {
  SegmentType type = SegmentType::as_sequence;  // sets are understood and never made
  std::vector<AsNumber> numbers;                // 1 to 255
  bool operator==(const AsSegment &) const = default;
};

struct Aggregator {
  AsNumber as = 0;   // kAsTrans where the four-octet one did not come along
  Ipv4 address = 0;  // router id of the aggregating speaker
  bool operator==(const Aggregator &) const = default;
};

using LargeCommunity = std::array<uint32_t, 3>;  // RFC 8092

// An attribute that is carried along without being understood: optional and transitive.
struct UnknownAttribute {
  uint8_t flags = 0;           // as received, with the partial bit once it has been passed on
  uint8_t type = 0;            // one that attributes.cc has no row for
  std::vector<uint8_t> value;  // as received
  bool operator==(const UnknownAttribute &) const = default;
};

struct Attributes {
  Origin origin = Origin::igp;                    // lower is better
  std::vector<AsSegment> as_path;                 // empty: from this AS
  Ipv4 next_hop = 0;                              // travels in MP_REACH_NLRI
  std::optional<uint32_t> med;                    // lower is better; nothing counts as 0
  std::optional<uint32_t> local_pref;             // higher is better; internal sessions only; nothing counts as 100
  bool atomic_aggregate = false;                  // carried along; as the aggregator, selection does not look at it
  std::optional<Aggregator> aggregator;           // nothing: none
  std::vector<uint32_t> communities;              // RFC 1997
  std::optional<Ipv4> originator_id;              // RFC 4456
  std::vector<Ipv4> cluster_list;                 // RFC 4456, the latest reflector first
  std::vector<uint64_t> extended_communities;     // RFC 4360, eight octets read as a number
  std::vector<LargeCommunity> large_communities;  // RFC 8092
  std::vector<UnknownAttribute> unknown;          // in the order of their types
  bool operator==(const Attributes &) const = default;
};

// The states of RFC 4271, section 8.2.2.
enum class State : uint8_t { idle, connect, active, open_sent, open_confirm, established };

const char *to_string(State state);   // "Idle", "Connect", ...
std::string to_string(const Rd &rd);  // RFC 4364: "65000:1", "10.0.0.1:5", "4200000000:1" (0.AS when it fits 2 octets)
std::string to_string_address(Ipv4 address);
std::string to_string(const Family &family);  // "IPv4 MDT", "IPv4 unicast", or "AFI n SAFI m"

}  // namespace bgp

#endif  // BGP_TYPES_H
