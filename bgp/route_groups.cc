// Sorting by counting, with the group's number noted in the attribute set for the length of a batch: no comparison and
// no hashing for a route, whatever order the routes come in.
#include "bgp/route_groups.h"

namespace bgp {
namespace {

constexpr size_t kMessageOverhead = 64;  // octets of an UPDATE besides attributes and NLRI, roughly

}  // namespace

void RouteGroups::clear() {
  entries_.clear();
  items_.clear();
  octets_ = 0;
  turn_++;
}

uint32_t RouteGroups::entry_of(Table &table, const Path &path) {
  AttributeSet &set = table.attributes()[path.attributes];
  const bool seen = set.turn == turn_;
  uint32_t entry = seen ? set.slot : 0;
  while (entry != 0 && entries_[entry - 1].group.source != path.source) entry = entries_[entry - 1].alike;
  if (entry != 0) return entry - 1;
  Entry fresh;
  fresh.group = {path.attributes, path.source, {}};
  fresh.alike = seen ? set.slot : 0;
  entries_.push_back(fresh);
  set.turn = turn_;
  set.slot = static_cast<uint32_t>(entries_.size());
  octets_ += set.size + kMessageOverhead;
  return set.slot - 1;
}

void RouteGroups::add(Table &table, const Path &path, RouteId route) {
  const uint32_t entry = entry_of(table, path);
  entries_[entry].count++;
  items_.push_back({entry, route});
}

const std::vector<RouteGroup> &RouteGroups::sort() {
  sorted_.resize(items_.size());
  fill_.clear();
  groups_.clear();
  uint32_t start = 0;
  for (const Entry &entry : entries_) {
    fill_.push_back(start);
    groups_.push_back(entry.group);
    groups_.back().routes = {sorted_.data() + start, entry.count};
    start += entry.count;
  }
  for (const Item &item : items_) sorted_[fill_[item.entry]++] = item.route;
  return groups_;
}

}  // namespace bgp
