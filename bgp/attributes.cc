// Path attributes: the table of RFC 4271, 4456, 1997, 4360, 6793 and 8092 with the treatments of RFC 7606.
#include "bgp/attributes.h"

#include <algorithm>
#include <iterator>

#include "bgp/wire.h"

namespace bgp {
namespace {

constexpr uint8_t kWellKnown = flag_transitive;
constexpr uint8_t kOptional = flag_optional;
constexpr uint8_t kOptionalTransitive = flag_optional | flag_transitive;
constexpr uint8_t kClassBits = flag_optional | flag_transitive;

using Parsed = std::optional<UpdateError>;  // nothing: well
constexpr Parsed kWell = std::nullopt;

Parsed parse_origin(View value, AttributeSink &sink) {
  if (value.size() != 1) return UpdateError::attribute_length;
  if (value[0] > static_cast<uint8_t>(Origin::incomplete)) return UpdateError::invalid_origin;
  sink.attributes.origin = static_cast<Origin>(value[0]);
  sink.has_origin = true;
  return kWell;
}

// Confederation segments (RFC 5065) come from members of one's own confederation, of which there are none here.
bool parse_segments(View value, bool wide, std::vector<AsSegment> &path) {
  wire::Reader reader(value);
  const size_t width = wide ? 4 : 2;
  while (reader.left() > 0) {
    if (reader.left() < 2) return false;
    const uint8_t type = reader.u8();
    const size_t count = reader.u8();
    if ((type != 1 && type != 2) || count == 0 || count * width > reader.left()) return false;
    AsSegment segment{static_cast<SegmentType>(type), {}};
    segment.numbers.reserve(count);
    for (size_t i = 0; i < count; i++) segment.numbers.push_back(wide ? reader.u32() : reader.u16());
    if (std::find(segment.numbers.begin(), segment.numbers.end(), 0) != segment.numbers.end())
      return false;  // RFC 7607
    path.push_back(std::move(segment));
  }
  return true;
}

Parsed parse_as_path(View value, AttributeSink &sink) {
  if (!parse_segments(value, sink.context.four_octet_as, sink.attributes.as_path))
    return UpdateError::malformed_as_path;
  sink.has_as_path = true;
  return kWell;
}

// The next hop of this family travels in MP_REACH_NLRI; this one is of IPv4 unicast and only looked at.
Parsed parse_next_hop(View value, AttributeSink &) {
  return value.size() == 4 ? kWell : Parsed(UpdateError::attribute_length);
}

Parsed parse_number(View value, std::optional<uint32_t> &into) {
  if (value.size() != 4) return UpdateError::attribute_length;
  into = wire::load32(value.data());
  return kWell;
}

Parsed parse_med(View value, AttributeSink &sink) { return parse_number(value, sink.attributes.med); }
Parsed parse_local_pref(View value, AttributeSink &sink) { return parse_number(value, sink.attributes.local_pref); }
Parsed parse_originator(View value, AttributeSink &sink) { return parse_number(value, sink.attributes.originator_id); }

Parsed parse_atomic_aggregate(View value, AttributeSink &sink) {
  if (!value.empty()) return UpdateError::attribute_length;
  sink.attributes.atomic_aggregate = true;
  return kWell;
}

Parsed parse_aggregator_of(View value, bool wide, std::optional<Aggregator> &into) {
  if (value.size() != (wide ? 8U : 6U)) return UpdateError::attribute_length;
  wire::Reader reader(value);
  const AsNumber as = wide ? reader.u32() : reader.u16();
  if (as == 0) return UpdateError::optional_attribute;  // RFC 7607
  into = Aggregator{as, reader.u32()};
  return kWell;
}

Parsed parse_aggregator(View value, AttributeSink &sink) {
  return parse_aggregator_of(value, sink.context.four_octet_as, sink.attributes.aggregator);
}

Parsed parse_as4_aggregator(View value, AttributeSink &sink) {
  return parse_aggregator_of(value, true, sink.as4_aggregator);
}

Parsed parse_as4_path(View value, AttributeSink &sink) {
  if (parse_segments(value, true, sink.as4_path)) return kWell;
  sink.as4_path.clear();
  return UpdateError::optional_attribute;
}

Parsed parse_numbers(View value, std::vector<uint32_t> &into) {
  if (value.empty() || value.size() % 4 != 0) return UpdateError::attribute_length;
  for (size_t i = 0; i < value.size(); i += 4) into.push_back(wire::load32(&value[i]));
  return kWell;
}

Parsed parse_communities(View value, AttributeSink &sink) { return parse_numbers(value, sink.attributes.communities); }
Parsed parse_cluster_list(View value, AttributeSink &sink) {
  return parse_numbers(value, sink.attributes.cluster_list);
}

Parsed parse_extended_communities(View value, AttributeSink &sink) {
  if (value.empty() || value.size() % 8 != 0) return UpdateError::attribute_length;
  for (size_t i = 0; i < value.size(); i += 8) sink.attributes.extended_communities.push_back(wire::load64(&value[i]));
  return kWell;
}

Parsed parse_large_communities(View value, AttributeSink &sink) {
  if (value.empty() || value.size() % 12 != 0) return UpdateError::attribute_length;
  for (size_t i = 0; i < value.size(); i += 12)
    sink.attributes.large_communities.push_back(
        {wire::load32(&value[i]), wire::load32(&value[i + 4]), wire::load32(&value[i + 8])});
  return kWell;
}

enum class From : uint8_t {
  anybody,
  internal,     // from another AS it is dropped unread
  old_speaker,  // from one with four-octet AS numbers it is dropped unread (RFC 6793)
};

struct Rule {
  uint8_t type;
  uint8_t flags;  // optional and transitive, as they must be
  Treatment malformed;
  From from;
  Parsed (*parse)(View value, AttributeSink &sink);
};

constexpr Rule kRules[] = {
    {attribute_origin, kWellKnown, Treatment::as_withdraw, From::anybody, parse_origin},
    {attribute_as_path, kWellKnown, Treatment::as_withdraw, From::anybody, parse_as_path},
    {attribute_next_hop, kWellKnown, Treatment::as_withdraw, From::anybody, parse_next_hop},
    {attribute_med, kOptional, Treatment::as_withdraw, From::anybody, parse_med},
    {attribute_local_pref, kWellKnown, Treatment::as_withdraw, From::internal, parse_local_pref},
    {attribute_atomic_aggregate, kWellKnown, Treatment::discard, From::anybody, parse_atomic_aggregate},
    {attribute_aggregator, kOptionalTransitive, Treatment::discard, From::anybody, parse_aggregator},
    {attribute_communities, kOptionalTransitive, Treatment::as_withdraw, From::anybody, parse_communities},
    {attribute_originator_id, kOptional, Treatment::as_withdraw, From::internal, parse_originator},
    {attribute_cluster_list, kOptional, Treatment::as_withdraw, From::internal, parse_cluster_list},
    {attribute_extended_communities, kOptionalTransitive, Treatment::as_withdraw, From::anybody,
     parse_extended_communities},
    {attribute_as4_path, kOptionalTransitive, Treatment::discard, From::old_speaker, parse_as4_path},
    {attribute_as4_aggregator, kOptionalTransitive, Treatment::discard, From::old_speaker, parse_as4_aggregator},
    {attribute_large_communities, kOptionalTransitive, Treatment::as_withdraw, From::anybody, parse_large_communities},
};

const Rule *find_rule(uint8_t type) {
  const auto *found =
      std::find_if(std::begin(kRules), std::end(kRules), [type](const Rule &r) { return r.type == type; });
  return found == std::end(kRules) ? nullptr : found;
}

bool dropped_unread(const Rule &rule, const UpdateContext &context) {
  return (rule.from == From::internal && !context.internal) ||
         (rule.from == From::old_speaker && context.four_octet_as);
}

AttributeFault take_unknown(const RawAttribute &raw, AttributeSink &sink) {
  if ((raw.flags & flag_optional) == 0) return {Treatment::reset, UpdateError::unrecognized_well_known};
  if ((raw.flags & flag_transitive) == 0) return {};  // RFC 4271, section 5: quietly ignored
  UnknownAttribute unknown{static_cast<uint8_t>(raw.flags & ~flag_extended_length), raw.type,
                           Octets(raw.value.begin(), raw.value.end())};
  auto &all = sink.attributes.unknown;
  const auto place = std::upper_bound(all.begin(), all.end(), raw.type,
                                      [](uint8_t type, const UnknownAttribute &other) { return type < other.type; });
  all.insert(place, std::move(unknown));
  return {};
}

// RFC 6793, 4.2.3: the AS4 path replaces the tail of the path that it is at most as long as.
void merge_as4_path(AttributeSink &sink) {
  std::vector<AsSegment> &path = sink.attributes.as_path;
  const uint32_t length = path_length(path), tail = path_length(sink.as4_path);
  if (sink.as4_path.empty() || tail > length) return;
  std::vector<AsSegment> merged;
  uint32_t lead = length - tail;
  for (AsSegment &segment : path) {
    if (lead == 0) break;
    const bool set = segment.type == SegmentType::as_set;
    const size_t take = set ? 1 : std::min<size_t>(lead, segment.numbers.size());
    if (!set) segment.numbers.resize(take);
    lead -= static_cast<uint32_t>(take);
    merged.push_back(std::move(segment));
  }
  std::move(sink.as4_path.begin(), sink.as4_path.end(), std::back_inserter(merged));
  path = std::move(merged);
}

void merge_as4(AttributeSink &sink) {
  auto &aggregator = sink.attributes.aggregator;
  const bool aggregated_by_old = aggregator && aggregator->as != kAsTrans;
  if (aggregated_by_old) return;  // the AS4 attributes are older than that aggregation
  if (aggregator && sink.as4_aggregator) aggregator = sink.as4_aggregator;
  merge_as4_path(sink);
}

bool first_as_is(AsNumber as, const std::vector<AsSegment> &path) {
  return !path.empty() && path[0].type == SegmentType::as_sequence && path[0].numbers[0] == as;
}

// ---------------------------------------------------------------------------------------------------------- encoding

bool needs_four_octets(const std::vector<AsSegment> &path) {
  return std::any_of(path.begin(), path.end(), [](const AsSegment &segment) {
    return std::any_of(segment.numbers.begin(), segment.numbers.end(), [](AsNumber as) { return as > 0xFFFF; });
  });
}

void put_as(AsNumber as, bool wide, Octets &out) {
  if (wide)
    wire::put32(out, as);
  else
    wire::put16(out, as > 0xFFFF ? kAsTrans : as);
}

void put_path(uint8_t flags, uint8_t type, const std::vector<AsSegment> &path, bool wide, Octets &out) {
  size_t length = 0;
  for (const AsSegment &segment : path) length += 2 + segment.numbers.size() * (wide ? 4 : 2);
  put_attribute_head(flags, type, length, out);
  for (const AsSegment &segment : path) {
    wire::put8(out, static_cast<uint8_t>(segment.type));
    wire::put8(out, segment.numbers.size());
    for (const AsNumber as : segment.numbers) put_as(as, wide, out);
  }
}

void put_aggregator(uint8_t type, const Aggregator &aggregator, bool wide, Octets &out) {
  put_attribute_head(kOptionalTransitive, type, wide ? 8 : 6, out);
  put_as(aggregator.as, wide, out);
  wire::put32(out, aggregator.address);
}

void put_number(uint8_t flags, uint8_t type, const std::optional<uint32_t> &number, Octets &out) {
  if (!number) return;
  put_attribute_head(flags, type, 4, out);
  wire::put32(out, *number);
}

void put_numbers(uint8_t flags, uint8_t type, const std::vector<uint32_t> &numbers, Octets &out) {
  if (numbers.empty()) return;
  put_attribute_head(flags, type, 4 * numbers.size(), out);
  for (const uint32_t number : numbers) wire::put32(out, number);
}

void put_extended(const std::vector<uint64_t> &communities, Octets &out) {
  if (communities.empty()) return;
  put_attribute_head(kOptionalTransitive, attribute_extended_communities, 8 * communities.size(), out);
  for (const uint64_t community : communities) wire::put64(out, community);
}

void put_large(const std::vector<LargeCommunity> &communities, Octets &out) {
  if (communities.empty()) return;
  put_attribute_head(kOptionalTransitive, attribute_large_communities, 12 * communities.size(), out);
  for (const LargeCommunity &community : communities)
    for (const uint32_t part : community) wire::put32(out, part);
}

// The unknown attributes of types from `from` to before `to`: they stand between the known ones.
void put_unknown(const Attributes &attributes, int from, int to, Octets &out) {
  for (const UnknownAttribute &unknown : attributes.unknown) {
    if (unknown.type < from || unknown.type >= to) continue;
    put_attribute_head(unknown.flags, unknown.type, unknown.value.size(), out);
    wire::put(out, unknown.value);
  }
}

}  // namespace

uint32_t path_length(const std::vector<AsSegment> &path) {
  size_t length = 0;
  for (const AsSegment &segment : path) length += segment.type == SegmentType::as_set ? 1 : segment.numbers.size();
  return static_cast<uint32_t>(length);
}

void reset(Attributes &attributes) {
  attributes.origin = Origin::igp;
  attributes.as_path.clear();
  attributes.next_hop = 0;
  attributes.med.reset();
  attributes.local_pref.reset();
  attributes.atomic_aggregate = false;
  attributes.aggregator.reset();
  attributes.communities.clear();
  attributes.originator_id.reset();
  attributes.cluster_list.clear();
  attributes.extended_communities.clear();
  attributes.large_communities.clear();
  attributes.unknown.clear();
}

AttributeFault decode_attribute(const RawAttribute &raw, AttributeSink &sink) {
  const Rule *rule = find_rule(raw.type);
  if (rule == nullptr) return take_unknown(raw, sink);
  if (dropped_unread(*rule, sink.context)) return {Treatment::discard, UpdateError::optional_attribute};
  if ((raw.flags & kClassBits) != rule->flags) return {Treatment::as_withdraw, UpdateError::attribute_flags};
  if (const Parsed wrong = rule->parse(raw.value, sink)) return {rule->malformed, *wrong};
  return {};
}

AttributeFault complete_attributes(AttributeSink &sink) {
  if (!sink.has_origin || !sink.has_as_path) return {Treatment::as_withdraw, UpdateError::missing_well_known};
  if (!sink.context.four_octet_as) merge_as4(sink);
  if (!sink.context.internal && !first_as_is(sink.context.remote_as, sink.attributes.as_path))
    return {Treatment::as_withdraw, UpdateError::malformed_as_path};
  return {};
}

void put_attribute_head(uint8_t flags, uint8_t type, size_t length, Octets &out) {
  const bool extended = length > 0xFF;
  wire::put8(out, (flags & ~flag_extended_length) | (extended ? flag_extended_length : 0));
  wire::put8(out, type);
  if (extended)
    wire::put16(out, length);
  else
    wire::put8(out, length);
}

void encode_attributes(const Attributes &attributes, const UpdateContext &context, Octets &out) {
  const bool wide = context.four_octet_as;
  put_attribute_head(kWellKnown, attribute_origin, 1, out);
  wire::put8(out, static_cast<uint8_t>(attributes.origin));
  put_path(kWellKnown, attribute_as_path, attributes.as_path, wide, out);
  put_number(kOptional, attribute_med, attributes.med, out);
  put_number(kWellKnown, attribute_local_pref, attributes.local_pref, out);
  if (attributes.atomic_aggregate) put_attribute_head(kWellKnown, attribute_atomic_aggregate, 0, out);
  if (attributes.aggregator) put_aggregator(attribute_aggregator, *attributes.aggregator, wide, out);
  put_numbers(kOptionalTransitive, attribute_communities, attributes.communities, out);
  put_number(kOptional, attribute_originator_id, attributes.originator_id, out);
  put_numbers(kOptional, attribute_cluster_list, attributes.cluster_list, out);
  put_unknown(attributes, 0, attribute_extended_communities, out);
  put_extended(attributes.extended_communities, out);
  if (!wide && needs_four_octets(attributes.as_path))
    put_path(kOptionalTransitive, attribute_as4_path, attributes.as_path, true, out);
  if (!wide && attributes.aggregator && attributes.aggregator->as > 0xFFFF)
    put_aggregator(attribute_as4_aggregator, *attributes.aggregator, true, out);
  put_unknown(attributes, attribute_extended_communities, attribute_large_communities, out);
  put_large(attributes.large_communities, out);
  put_unknown(attributes, attribute_large_communities, 256, out);
}

}  // namespace bgp
