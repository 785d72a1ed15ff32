// Messages of BGP-4, octets to records and back.
//
// Decoders take one whole message without its header, or a stream's first octets for the header, never read outside
// what they are given, and answer either with a record or with the NOTIFICATION that the sender must get (RFC 4271,
// section 6). An UPDATE has answers in between, which RFC 7606 orders by severity: an attribute dropped, the message's
// routes withdrawn. Encoders write well-formed messages only and append to what is there.
#ifndef BGP_MESSAGE_H
#define BGP_MESSAGE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "bgp/types.h"

namespace bgp {

using Octets = std::vector<uint8_t>;
using View = std::span<const uint8_t>;

inline constexpr size_t kHeaderSize = 19;
inline constexpr size_t kMessageMax = 4096;
inline constexpr size_t kExtendedMessageMax = 65535;  // RFC 8654
inline constexpr uint16_t kAsTrans = 23456;           // RFC 6793
inline constexpr size_t kNlriSize = 17;               // length, distinguisher, source, group
inline constexpr uint8_t kNlriBits = 128;

enum class MessageType : uint8_t { open = 1, update = 2, notification = 3, keepalive = 4, route_refresh = 5 };

// ------------------------------------------------------------------------------------------------------ notification

// Error codes and subcodes: RFC 4271 4.5 and 6, RFC 4486, 5492, 6608, 7313, 8538, 9687.
enum class ErrorCode : uint8_t {
  header = 1,
  open = 2,
  update = 3,
  hold_timer_expired = 4,
  fsm = 5,
  cease = 6,
  route_refresh = 7,
  send_hold_timer_expired = 8
};
enum class HeaderError : uint8_t { not_synchronized = 1, bad_length = 2, bad_type = 3 };
enum class OpenError : uint8_t {
  unspecific = 0,
  unsupported_version = 1,
  bad_peer_as = 2,
  bad_identifier = 3,
  unsupported_optional_parameter = 4,
  unacceptable_hold_time = 6,
  unsupported_capability = 7
};
enum class UpdateError : uint8_t {
  malformed_attribute_list = 1,
  unrecognized_well_known = 2,
  missing_well_known = 3,
  attribute_flags = 4,
  attribute_length = 5,
  invalid_origin = 6,
  invalid_next_hop = 8,
  optional_attribute = 9,
  invalid_network = 10,
  malformed_as_path = 11
};
enum class FsmError : uint8_t { unspecific = 0, in_open_sent = 1, in_open_confirm = 2, in_established = 3 };
enum class Cease : uint8_t {
  maximum_prefixes = 1,
  administrative_shutdown = 2,
  peer_deconfigured = 3,
  administrative_reset = 4,
  connection_rejected = 5,
  other_configuration_change = 6,
  collision = 7,
  out_of_resources = 8,
  hard_reset = 9
};
enum class RefreshError : uint8_t { bad_length = 1 };

struct Notification {
  ErrorCode code = ErrorCode::cease;  // of a received one any value
  uint8_t subcode = 0;                // of the code's enumeration; 0: unspecific
  Octets data;                        // as RFCs say for the code and subcode; mostly empty
  bool operator==(const Notification &) const = default;
};

template <class Subcode>
Notification error(ErrorCode code, Subcode subcode, Octets data = {}) {
  return {code, static_cast<uint8_t>(subcode), std::move(data)};
}

// "OPEN Message Error, Bad Peer AS", with the shutdown communication (RFC 9003) behind a colon where there is one.
std::string describe(const Notification &notification);
// A Cease with a shutdown communication: at most 255 octets, cut between UTF-8 characters.
Notification cease(Cease subcode, std::string_view communication = {});

// ------------------------------------------------------------------------------------------------------------ header

struct Header {
  MessageType type = MessageType::keepalive;  // one that exists
  size_t length = kHeaderSize;                // of the message, header included
};

template <class T>
struct Decoded {
  T value{};                          // means something without an error only
  std::optional<Notification> error;  // what the sender must get; nothing: the value counts
};

// Of at least kHeaderSize octets. `largest`: 4096, or 65535 once extended messages are agreed.
Decoded<Header> decode_header(View octets, size_t largest);

// -------------------------------------------------------------------------------------------------------------- open

struct RestartFamily {
  Family family;
  bool forwarding = false;  // F: forwarding state was preserved
  bool operator==(const RestartFamily &) const = default;
};

struct GracefulRestart {
  bool restarting = false;              // R: the sender has restarted
  bool notification = false;            // N (RFC 8538): understood when received, not offered
  uint16_t time = 0;                    // seconds, 12 bits
  std::vector<RestartFamily> families;  // empty: only understands restarts of others
  bool operator==(const GracefulRestart &) const = default;
};

struct Capabilities {
  std::vector<Family> families;            // multiprotocol; empty: IPv4 unicast alone
  bool route_refresh = false;              // capability code 2 (RFC 2918)
  bool extended_messages = false;          // code 6 (RFC 8654)
  std::optional<GracefulRestart> restart;  // code 64 (RFC 4724)
  std::optional<AsNumber> four_octet_as;   // code 65 (RFC 6793)
  bool enhanced_refresh = false;           // code 70 (RFC 7313)
  std::vector<uint8_t> others;             // codes that this speaker does not know, ascending
  bool operator==(const Capabilities &) const = default;
};

struct Open {
  AsNumber as = 0;            // the four-octet one where that capability is there
  uint16_t hold_time = 0;     // seconds offered; 0 or 3 to 65535
  Ipv4 router_id = 0;         // BGP identifier, not 0
  Capabilities capabilities;  // of the one side that sends it
  bool operator==(const Open &) const = default;
};

// What an OPEN must agree with.
struct OpenExpectation {
  AsNumber remote_as = 0;    // as configured; another one is refused
  AsNumber local_as = 0;     // equal to remote_as: internal
  Ipv4 local_router_id = 0;  // an internal neighbour may not have the same
};

Decoded<Open> decode_open(View body, const OpenExpectation &expected);
void encode_open(const Open &open, Octets &out);

// ------------------------------------------------------------------------------------------------------------ update

struct UpdateContext {
  bool internal = true;       // the neighbour is in this AS
  bool four_octet_as = true;  // agreed: AS numbers of paths take four octets (RFC 6793)
  AsNumber remote_as = 0;     // an external path must begin with it
};

// The NLRI of this family in a message, checked for form: a multiple of kNlriSize octets, each with kNlriBits.
class NlriList {
 public:
  NlriList() = default;
  explicit NlriList(View octets) : octets_(octets) {}
  size_t size() const { return octets_.size() / kNlriSize; }
  bool empty() const { return octets_.empty(); }
  Nlri operator[](size_t i) const;

 private:
  View octets_;
};

struct Update {
  NlriList reachable, unreachable;   // point into the message
  Attributes attributes;             // of the reachable ones
  std::optional<Family> end_of_rib;  // nothing: the message is no mark
  uint32_t unicast = 0;              // IPv4 unicast NLRI, announced and withdrawn, that were skipped
  uint32_t discarded = 0;            // attributes dropped (RFC 7606)
  bool as_withdraw = false;          // the reachable ones are to be taken as withdrawn (RFC 7606)
  std::string remark;                // what was wrong when something was; for the log
};

// Into `update`, which is reused between calls so that nothing is allocated for it. Set: the session ends with it.
std::optional<Notification> decode_update(View body, const UpdateContext &context, Update &update);

// Path attributes without MP_REACH_NLRI and MP_UNREACH_NLRI, in the order of their types.
void encode_attributes(const Attributes &attributes, const UpdateContext &context, Octets &out);

// One UPDATE under construction: as many NLRI as the largest message takes, and the attributes of all of them.
class UpdateBuilder {
 public:
  // Announces. `attributes` as encode_attributes wrote them; they are read when the message is finished.
  UpdateBuilder(Octets &out, size_t largest, View attributes, Ipv4 next_hop);
  UpdateBuilder(Octets &out, size_t largest);  // withdraws
  size_t room() const { return room_; }        // NLRI that still go in; 0 at first: the attributes alone are too long
  bool add(const Nlri &nlri);                  // false: full, nothing added
  void finish();                               // writes the lengths; required

 private:
  void put_multiprotocol(uint8_t type);
  void limit_room(size_t largest);

  Octets &out_;
  View attributes_;
  size_t start_, value_ = 0, room_ = 0;
};

void encode_end_of_rib(const Family &family, Octets &out);
void encode_keepalive(Octets &out);
void encode_notification(const Notification &notification, size_t largest, Octets &out);
Decoded<Notification> decode_notification(View body);

// ----------------------------------------------------------------------------------------------------- route refresh

enum class RefreshKind : uint8_t { request = 0, begin = 1, end = 2 };  // RFC 7313

struct RouteRefresh {
  Family family;                            // others than MDT are ignored
  RefreshKind kind = RefreshKind::request;  // as it means where enhanced refresh is agreed
  bool known = true;                        // false: a kind to be ignored
};

Decoded<RouteRefresh> decode_route_refresh(View message, bool enhanced);  // the whole message: errors quote it
void encode_route_refresh(const RouteRefresh &refresh, Octets &out);

}  // namespace bgp

#endif  // BGP_MESSAGE_H
