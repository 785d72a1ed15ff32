// Message headers, and the messages that are little more than one: KEEPALIVE and ROUTE-REFRESH.
#include "bgp/header.h"

#include <algorithm>

#include "bgp/wire.h"

namespace bgp {
namespace {

constexpr size_t kMarkerSize = 16;
constexpr size_t kRefreshSize = kHeaderSize + 4;

struct Limits {
  size_t least, most;
};

// RFC 4271, 6.1; OPEN and KEEPALIVE never grow beyond 4,096 octets (RFC 8654). A ROUTE-REFRESH of a wrong length has an
// error code of its own (RFC 7313) and is judged by its decoder.
std::optional<Limits> limits_of(uint8_t type, size_t largest) {
  switch (static_cast<MessageType>(type)) {
    case MessageType::open:
      return Limits{kHeaderSize + 10, kMessageMax};
    case MessageType::update:
      return Limits{kHeaderSize + 4, largest};
    case MessageType::notification:
      return Limits{kHeaderSize + 2, largest};
    case MessageType::keepalive:
      return Limits{kHeaderSize, kHeaderSize};
    case MessageType::route_refresh:
      return Limits{kHeaderSize, largest};
  }
  return std::nullopt;
}

Decoded<Header> bad_length(View octets) {
  return {{}, error(ErrorCode::header, HeaderError::bad_length, {octets[kLengthOffset], octets[kLengthOffset + 1]})};
}

}  // namespace

Decoded<Header> decode_header(View octets, size_t largest) {
  if (!std::all_of(octets.begin(), octets.begin() + kMarkerSize, [](uint8_t octet) { return octet == 0xFF; }))
    return {{}, error(ErrorCode::header, HeaderError::not_synchronized)};
  const size_t length = wire::load16(&octets[kLengthOffset]);
  if (length < kHeaderSize || length > largest) return bad_length(octets);
  const auto limits = limits_of(octets[kTypeOffset], largest);
  if (!limits) return {{}, error(ErrorCode::header, HeaderError::bad_type, {octets[kTypeOffset]})};
  if (length < limits->least || length > limits->most) return bad_length(octets);
  return {{static_cast<MessageType>(octets[kTypeOffset]), length}, {}};
}

size_t begin_message(MessageType type, Octets &out) {
  const size_t start = out.size();
  out.insert(out.end(), kMarkerSize, 0xFF);
  wire::put16(out, 0);
  wire::put8(out, static_cast<uint8_t>(type));
  return start;
}

void end_message(size_t start, Octets &out) {
  wire::store16(&out[start + kLengthOffset], static_cast<uint16_t>(out.size() - start));
}

void encode_keepalive(Octets &out) { end_message(begin_message(MessageType::keepalive, out), out); }

Decoded<RouteRefresh> decode_route_refresh(View message, bool enhanced) {
  if (message.size() != kRefreshSize)
    return {{}, error(ErrorCode::route_refresh, RefreshError::bad_length, Octets(message.begin(), message.end()))};
  wire::Reader reader(message.subspan(kHeaderSize));
  RouteRefresh refresh;
  refresh.family.afi = reader.u16();
  const uint8_t kind = reader.u8();
  refresh.family.safi = reader.u8();
  // Before RFC 7313 the octet was reserved and to be ignored.
  refresh.kind = enhanced ? static_cast<RefreshKind>(kind) : RefreshKind::request;
  refresh.known = !enhanced || kind <= static_cast<uint8_t>(RefreshKind::end);
  return {refresh, {}};
}

void encode_route_refresh(const RouteRefresh &refresh, Octets &out) {
  const size_t start = begin_message(MessageType::route_refresh, out);
  wire::put16(out, refresh.family.afi);
  wire::put8(out, static_cast<uint8_t>(refresh.kind));
  wire::put8(out, refresh.family.safi);
  end_message(start, out);
}

}  // namespace bgp
