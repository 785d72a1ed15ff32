// A stream of BGP messages: any octets are decoded or answered with a NOTIFICATION, and what was decoded means the same
// after it has been encoded and decoded again. The first octet chooses what the two sides have agreed on.
#include <cstdlib>

#include "bgp/message.h"

namespace {

void require(bool holds) {
  if (!holds) std::abort();
}

void take_open(bgp::View body) {
  constexpr bgp::OpenExpectation kExpected{65001, 65000, 1};
  const auto first = bgp::decode_open(body, kExpected);
  if (first.error || first.value.capabilities.families.size() > 8) return;
  const auto &restart = first.value.capabilities.restart;
  if (restart && restart->families.size() > 8) return;
  bgp::Octets octets;
  bgp::encode_open(first.value, octets);
  auto second = bgp::decode_open(bgp::View(octets).subspan(bgp::kHeaderSize), kExpected);
  require(!second.error);
  second.value.capabilities.others = first.value.capabilities.others;  // not offered by this speaker
  require(second.value == first.value);
}

void take_update(bgp::View body, const bgp::UpdateContext &context) {
  bgp::Update first, second;
  if (bgp::decode_update(body, context, first) || first.as_withdraw || first.reachable.empty()) return;
  bgp::Octets attributes, octets;
  bgp::encode_attributes(first.attributes, {}, attributes);
  bgp::UpdateBuilder builder(octets, bgp::kExtendedMessageMax, attributes, first.attributes.next_hop);
  size_t count = 0;
  while (count < first.reachable.size() && builder.add(first.reachable[count])) count++;
  if (count == 0) return;
  builder.finish();
  require(!bgp::decode_header(octets, bgp::kExtendedMessageMax).error);
  require(!bgp::decode_update(bgp::View(octets).subspan(bgp::kHeaderSize), {}, second));
  require(second.remark.empty() && second.attributes == first.attributes && second.reachable.size() == count);
  for (size_t i = 0; i < count; i++) require(second.reachable[i] == first.reachable[i]);
}

void take_notification(bgp::View body) {
  const auto first = bgp::decode_notification(body);
  require(!first.error && !bgp::describe(first.value).empty());
  bgp::Octets octets;
  bgp::encode_notification(first.value, bgp::kExtendedMessageMax, octets);
  require(bgp::decode_notification(bgp::View(octets).subspan(bgp::kHeaderSize)).value == first.value);
}

void take(bgp::MessageType type, bgp::View message, const bgp::UpdateContext &context) {
  const bgp::View body = message.subspan(bgp::kHeaderSize);
  switch (type) {
    case bgp::MessageType::open:
      return take_open(body);
    case bgp::MessageType::update:
      return take_update(body, context);
    case bgp::MessageType::notification:
      return take_notification(body);
    case bgp::MessageType::route_refresh:
      (void)bgp::decode_route_refresh(message, true);
      return;
    case bgp::MessageType::keepalive:
      return;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  const bgp::UpdateContext context{(data[0] & 1) == 0, (data[0] & 2) == 0, 65001};
  const size_t largest = (data[0] & 4) == 0 ? bgp::kMessageMax : bgp::kExtendedMessageMax;
  bgp::View rest(data + 1, size - 1);
  while (rest.size() >= bgp::kHeaderSize) {
    const auto header = bgp::decode_header(rest, largest);
    if (header.error) {
      bgp::Octets octets;
      bgp::encode_notification(*header.error, bgp::kMessageMax, octets);
      return 0;
    }
    if (header.value.length > rest.size()) return 0;
    take(header.value.type, rest.first(header.value.length), context);
    rest = rest.subspan(header.value.length);
  }
  return 0;
}
