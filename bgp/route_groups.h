// Routes of one batch, in groups that can share an UPDATE: equal attributes from the same source.
#ifndef BGP_ROUTE_GROUPS_H
#define BGP_ROUTE_GROUPS_H

#include <span>
#include <vector>

#include "bgp/table.h"

namespace bgp {

struct RouteGroup {
  AttributeId attributes = 0;       // the table's; a reference is not taken
  SourceId source = 0;              // that said so: what is sent depends on it too
  std::span<const RouteId> routes;  // in the order in which they were added
};

class RouteGroups {
 public:
  void clear();
  void add(Table &table, const Path &path, RouteId route);
  // Roughly what the groups' attributes take on the wire.
  size_t octets() const { return octets_; }
  bool empty() const { return items_.empty(); }
  const std::vector<RouteGroup> &sort();

 private:
  struct Entry {
    RouteGroup group;
    uint32_t count = 0;
    uint32_t alike = 0;  // the next entry with the same attributes and another source, plus one
  };
  struct Item {
    uint32_t entry;
    RouteId route;
  };
  uint32_t entry_of(Table &table, const Path &path);

  std::vector<Entry> entries_;
  std::vector<Item> items_;
  std::vector<RouteId> sorted_;
  std::vector<uint32_t> fill_;
  std::vector<RouteGroup> groups_;
  size_t octets_ = 0;
  uint32_t turn_ = 0;
};

}  // namespace bgp

#endif  // BGP_ROUTE_GROUPS_H
