// Interning. A set is looked for by the octets that encode_attributes() writes for an internal neighbour with
// four-octet AS numbers: of all forms, this one loses nothing. What selection compares is taken out once, when a set is
// added.
#include "bgp/attribute_table.h"

#include <algorithm>
#include <string_view>

#include "bgp/attributes.h"
#include "bgp/wire.h"

namespace bgp {
namespace {

constexpr size_t kNextHopSize = 4;
constexpr size_t kFirstBuckets = 64;         // doubled as sets come; most tables hold few sets
constexpr uint32_t kDefaultLocalPref = 100;  // of routes that come without one; what speakers commonly take
// Well-known communities (RFC 1997). There are no confederations here: the last one means what the first one does.
constexpr uint32_t kNoExport = 0xFFFFFF01, kNoAdvertise = 0xFFFFFF02, kNoExportSubconfed = 0xFFFFFF03;
// internal, four-octet AS, no AS to be prepended
constexpr UpdateContext kCanonical{true, true, 0};

uint32_t hash_of(const Octets &octets) {
  const std::string_view text(reinterpret_cast<const char *>(octets.data()), octets.size());
  return static_cast<uint32_t>(std::hash<std::string_view>{}(text));
}

bool has(const std::vector<uint32_t> &communities, uint32_t community) {
  return std::find(communities.begin(), communities.end(), community) != communities.end();
}

void summarize(const Attributes &attributes, AttributeSet &set) {
  set.next_hop = attributes.next_hop;
  set.local_pref = attributes.local_pref.value_or(kDefaultLocalPref);
  set.med = attributes.med.value_or(0);
  set.path_length = path_length(attributes.as_path);
  const bool sequence = !attributes.as_path.empty() && attributes.as_path[0].type == SegmentType::as_sequence;
  set.neighbor_as = sequence ? attributes.as_path[0].numbers[0] : 0;
  set.originator_id = attributes.originator_id.value_or(0);
  set.clusters = static_cast<uint16_t>(std::min<size_t>(attributes.cluster_list.size(), UINT16_MAX));
  set.origin = attributes.origin;
  set.no_advertise = has(attributes.communities, kNoAdvertise);
  set.no_export = has(attributes.communities, kNoExport) || has(attributes.communities, kNoExportSubconfed);
}

}  // namespace

AttributeTable::AttributeTable() : sets_(std::pmr::get_default_resource()), buckets_(kFirstBuckets) {}

AttributeId AttributeTable::intern(const Attributes &attributes) {
  scratch_.clear();
  wire::put32(scratch_, attributes.next_hop);
  encode_attributes(attributes, kCanonical, scratch_);
  const uint32_t hash = hash_of(scratch_);
  for (AttributeId id = buckets_[hash % buckets_.size()]; id != 0; id = sets_[id].next) {
    AttributeSet &set = sets_[id];
    if (set.hash != hash || set.size != scratch_.size()) continue;
    if (!std::equal(scratch_.begin(), scratch_.end(), set.octets.get())) continue;
    set.references++;
    return id;
  }
  return add(attributes, hash);
}

AttributeId AttributeTable::add(const Attributes &attributes, uint32_t hash) {
  if (sets_.used() >= buckets_.size()) grow();
  const AttributeId id = sets_.take();
  AttributeSet &set = sets_[id];
  set.references = 1;
  set.hash = hash;
  set.size = static_cast<uint32_t>(scratch_.size());
  set.octets = std::make_unique_for_overwrite<uint8_t[]>(set.size);
  std::copy(scratch_.begin(), scratch_.end(), set.octets.get());
  summarize(attributes, set);
  AttributeId &bucket = buckets_[hash % buckets_.size()];
  set.next = bucket;
  bucket = id;
  octets_ += set.size;
  return id;
}

void AttributeTable::grow() {
  std::vector<AttributeId> buckets(buckets_.size() * 2);
  for (AttributeId id : buckets_)
    while (id != 0) {
      AttributeSet &set = sets_[id];
      const AttributeId next = set.next;
      AttributeId &bucket = buckets[set.hash % buckets.size()];
      set.next = bucket;
      bucket = id;
      id = next;
    }
  buckets_ = std::move(buckets);
}

void AttributeTable::release(AttributeId id) {
  if (--sets_[id].references > 0) return;
  AttributeId *link = &buckets_[sets_[id].hash % buckets_.size()];
  while (*link != id) link = &sets_[*link].next;
  *link = sets_[id].next;
  octets_ -= sets_[id].size;
  sets_.give(id);
}

void AttributeTable::decode(AttributeId id, Attributes &into) const {
  const AttributeSet &set = sets_[id];
  reset(into);
  into.next_hop = set.next_hop;
  AttributeSink sink{kCanonical, into, {}, {}, false, false};
  wire::Reader reader(View(set.octets.get(), set.size).subspan(kNextHopSize));
  while (reader.left() > 0) {
    RawAttribute raw;
    raw.flags = reader.u8();
    raw.type = reader.u8();
    const size_t length = (raw.flags & flag_extended_length) != 0 ? reader.u16() : reader.u8();
    raw.value = reader.take(length);
    decode_attribute(raw, sink);
  }
}

size_t AttributeTable::octets() const { return octets_ + sets_.octets() + buckets_.capacity() * sizeof(AttributeId); }

}  // namespace bgp
