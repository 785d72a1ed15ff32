// Two questions about a route and a neighbour: may it be sent, and what becomes of its attributes. Both are asked for
// every route that is told, so nothing here looks anything up but the route's own set of attributes.
#include "bgp/export.h"

#include "bgp/attributes.h"

namespace bgp {
namespace {

constexpr uint32_t kDefaultLocalPref = 100;                      // as selection assumes where the attribute is missing
constexpr size_t kSegmentMax = 255;                              // AS numbers: the count is one octet
constexpr uint64_t kNonTransitiveCommunity = uint64_t{1} << 62;  // RFC 4360, section 2

void prepend(AsNumber as, std::vector<AsSegment> &path) {
  const bool room = !path.empty() && path[0].type == SegmentType::as_sequence && path[0].numbers.size() < kSegmentMax;
  if (!room) path.insert(path.begin(), AsSegment{SegmentType::as_sequence, {}});
  path[0].numbers.insert(path[0].numbers.begin(), as);
}

void leave_as(bool local, const ExportTarget &to, Attributes &attributes) {
  prepend(to.local_as, attributes.as_path);
  attributes.next_hop = to.local_address;
  attributes.local_pref.reset();
  if (!local) attributes.med.reset();  // a neighbouring AS's discriminator is for this AS only
  attributes.originator_id.reset();
  attributes.cluster_list.clear();
  std::erase_if(attributes.extended_communities, [](uint64_t c) { return (c & kNonTransitiveCommunity) != 0; });
}

void reflect(const Source &from, const ExportTarget &to, Attributes &attributes) {
  if (!attributes.originator_id) attributes.originator_id = from.router_id;
  attributes.cluster_list.insert(attributes.cluster_list.begin(), to.cluster_id);
}

}  // namespace

bool may_send(const Table &table, const Path &path, const ExportTarget &to) {
  if (path.source == to.source) return false;
  const AttributeSet &set = table.attributes()[path.attributes];
  if (set.no_advertise || (!to.internal && set.no_export)) return false;
  const Source &from = table.source(path.source);
  const bool learnt_inside = path.source != kLocal && from.internal;
  return !learnt_inside || !to.internal || from.client || to.client;
}

void export_attributes(const Source &from, bool local, const ExportTarget &to, Attributes &attributes) {
  for (UnknownAttribute &unknown : attributes.unknown) unknown.flags |= flag_partial;
  if (attributes.next_hop == 0) attributes.next_hop = to.local_address;
  if (!to.internal) return leave_as(local, to, attributes);
  if (!attributes.local_pref) attributes.local_pref = kDefaultLocalPref;
  if (!local && from.internal) reflect(from, to, attributes);
}

}  // namespace bgp
