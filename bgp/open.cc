// OPEN (RFC 4271, 4.2) and the capabilities in it (RFC 5492).
//
// The optional parameters are two lists in one another, each with lengths of its own; whatever does not fit exactly is
// an OPEN error without subcode. Capabilities that are not known are remembered by their code for the views and
// ignored.
#include <algorithm>

#include "bgp/header.h"
#include "bgp/wire.h"

namespace bgp {
namespace {

constexpr uint8_t kVersion = 4;
constexpr uint8_t kCapabilitiesParameter = 2;
constexpr uint8_t kExtendedLength = 255;  // RFC 9072: as length and as type, lengths of two octets follow
constexpr size_t kFixedSize = 10;
constexpr uint8_t kHoldTimeMin = 3;  // seconds, but for 0 (RFC 4271, 4.2)

enum CapabilityCode : uint8_t {
  multiprotocol = 1,
  route_refresh = 2,
  extended_message = 6,
  graceful_restart = 64,
  four_octet_as = 65,
  enhanced_refresh = 70
};

constexpr uint16_t kRestartState = 0x8000;
constexpr uint16_t kRestartNotification = 0x4000;
constexpr uint16_t kRestartTime = 0x0FFF;
constexpr uint8_t kForwardingState = 0x80;

bool decode_restart(wire::Reader value, Capabilities &capabilities) {
  if (value.left() < 2 || value.left() % 4 != 2) return false;
  const uint16_t head = value.u16();
  GracefulRestart restart{
      (head & kRestartState) != 0, (head & kRestartNotification) != 0, static_cast<uint16_t>(head & kRestartTime), {}};
  while (value.left() > 0) {
    RestartFamily family;
    family.family.afi = value.u16();
    family.family.safi = value.u8();
    family.forwarding = (value.u8() & kForwardingState) != 0;
    restart.families.push_back(family);
  }
  capabilities.restart = std::move(restart);
  return true;
}

bool decode_multiprotocol(wire::Reader value, Capabilities &capabilities) {
  if (value.left() != 4) return false;
  Family family;
  family.afi = value.u16();
  value.u8();
  family.safi = value.u8();
  auto &known = capabilities.families;
  if (std::find(known.begin(), known.end(), family) == known.end()) known.push_back(family);
  return true;
}

bool decode_flag(const wire::Reader &value, bool &flag) {
  flag = true;
  return value.left() == 0;
}

bool decode_capability(uint8_t code, wire::Reader value, Capabilities &capabilities) {
  switch (code) {
    case multiprotocol:
      return decode_multiprotocol(value, capabilities);
    case route_refresh:
      return decode_flag(value, capabilities.route_refresh);
    case extended_message:
      return decode_flag(value, capabilities.extended_messages);
    case graceful_restart:
      return decode_restart(value, capabilities);
    case enhanced_refresh:
      return decode_flag(value, capabilities.enhanced_refresh);
    case four_octet_as:
      if (value.left() != 4) return false;
      capabilities.four_octet_as = value.u32();
      return true;
    default: {
      auto &others = capabilities.others;
      const auto place = std::lower_bound(others.begin(), others.end(), code);
      if (place == others.end() || *place != code) others.insert(place, code);
      return true;
    }
  }
}

bool decode_capabilities(wire::Reader list, Capabilities &capabilities) {
  while (list.left() > 0) {
    if (list.left() < 2) return false;
    const uint8_t code = list.u8();
    const size_t length = list.u8();
    if (length > list.left() || !decode_capability(code, wire::Reader(list.take(length)), capabilities)) return false;
  }
  return true;
}

Notification malformed() { return error(ErrorCode::open, OpenError::unspecific); }

std::optional<Notification> decode_parameters(wire::Reader list, bool wide, Capabilities &capabilities) {
  const size_t head = wide ? 3 : 2;
  while (list.left() > 0) {
    if (list.left() < head) return malformed();
    const uint8_t type = list.u8();
    const size_t length = wide ? list.u16() : list.u8();
    if (length > list.left()) return malformed();
    const View value = list.take(length);
    if (type != kCapabilitiesParameter) return error(ErrorCode::open, OpenError::unsupported_optional_parameter);
    if (!decode_capabilities(wire::Reader(value), capabilities)) return malformed();
  }
  return std::nullopt;
}

// The list of parameters behind its length, of either form.
std::optional<Notification> decode_parameter_block(wire::Reader reader, Capabilities &capabilities) {
  size_t length = reader.u8();
  bool wide = false;
  if (length == kExtendedLength && reader.left() >= 3 && reader.rest()[0] == kExtendedLength) {
    wide = true;
    reader.u8();
    length = reader.u16();
  }
  if (length != reader.left()) return malformed();
  return decode_parameters(reader, wide, capabilities);
}

std::optional<Notification> refusal_of(const Open &open, const OpenExpectation &expected) {
  if (open.as != expected.remote_as || open.as == 0) return error(ErrorCode::open, OpenError::bad_peer_as);
  if (open.hold_time != 0 && open.hold_time < kHoldTimeMin)
    return error(ErrorCode::open, OpenError::unacceptable_hold_time);
  // Identifiers are unique within an AS only (RFC 6286).
  const bool internal = expected.remote_as == expected.local_as;
  if (open.router_id == 0 || (internal && open.router_id == expected.local_router_id))
    return error(ErrorCode::open, OpenError::bad_identifier);
  return std::nullopt;
}

void put_restart(const GracefulRestart &restart, Octets &out) {
  wire::put8(out, graceful_restart);
  wire::put8(out, 2 + 4 * restart.families.size());
  wire::put16(out, (restart.restarting ? kRestartState : 0) | (restart.notification ? kRestartNotification : 0) |
                       (restart.time & kRestartTime));
  for (const RestartFamily &family : restart.families) {
    wire::put16(out, family.family.afi);
    wire::put8(out, family.family.safi);
    wire::put8(out, family.forwarding ? kForwardingState : 0);
  }
}

void put_flag(bool wanted, uint8_t code, Octets &out) {
  if (!wanted) return;
  wire::put8(out, code);
  wire::put8(out, 0);
}

void put_capabilities(const Capabilities &capabilities, Octets &out) {
  for (const Family &family : capabilities.families) {
    wire::put8(out, multiprotocol);
    wire::put8(out, 4);
    wire::put16(out, family.afi);
    wire::put8(out, 0);
    wire::put8(out, family.safi);
  }
  put_flag(capabilities.route_refresh, route_refresh, out);
  put_flag(capabilities.extended_messages, extended_message, out);
  if (capabilities.restart) put_restart(*capabilities.restart, out);
  if (capabilities.four_octet_as) {
    wire::put8(out, four_octet_as);
    wire::put8(out, 4);
    wire::put32(out, *capabilities.four_octet_as);
  }
  put_flag(capabilities.enhanced_refresh, enhanced_refresh, out);
}

}  // namespace

Decoded<Open> decode_open(View body, const OpenExpectation &expected) {
  if (body.size() < kFixedSize) return {{}, malformed()};
  wire::Reader reader(body);
  if (reader.u8() != kVersion) return {{}, error(ErrorCode::open, OpenError::unsupported_version, {0, kVersion})};
  Open open;
  open.as = reader.u16();
  open.hold_time = reader.u16();
  open.router_id = reader.u32();
  if (auto wrong = decode_parameter_block(reader, open.capabilities)) return {{}, wrong};
  if (open.capabilities.four_octet_as) open.as = *open.capabilities.four_octet_as;
  if (auto refusal = refusal_of(open, expected)) return {{}, refusal};
  return {open, {}};
}

void encode_open(const Open &open, Octets &out) {
  const size_t start = begin_message(MessageType::open, out);
  wire::put8(out, kVersion);
  wire::put16(out, open.as > 0xFFFF ? kAsTrans : open.as);
  wire::put16(out, open.hold_time);
  wire::put32(out, open.router_id);
  Octets list;
  put_capabilities(open.capabilities, list);
  wire::put8(out, list.empty() ? 0 : list.size() + 2);
  if (!list.empty()) {
    wire::put8(out, kCapabilitiesParameter);
    wire::put8(out, list.size());
    wire::put(out, list);
  }
  end_message(start, out);
}

}  // namespace bgp
