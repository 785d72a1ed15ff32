// Path attributes held once for all the paths that share them.
//
// A neighbour gives the same attributes to hundreds of routes, so a path holds a number and a set is kept as octets, in
// the form of an UPDATE behind four octets of next hop, with what selection looks at beside it. Equal sets have equal
// octets: the encoder writes one form only.
#ifndef BGP_ATTRIBUTE_TABLE_H
#define BGP_ATTRIBUTE_TABLE_H

#include <memory>

#include "bgp/message.h"
#include "bgp/pool.h"

namespace bgp {

using AttributeId = uint32_t;  // 0: none

struct AttributeSet {
  uint32_t next = 0;                             // in the bucket
  uint32_t references = 0;                       // paths that have it, and calls that hold it; at 0 it goes
  uint32_t hash = 0;                             // of the octets
  uint32_t size = 0;                             // octets
  std::unique_ptr<uint8_t[]> octets;             // next hop in network byte order, then the attributes as in an UPDATE
  Ipv4 next_hop = 0;                             // 0: of the session that it is sent on
  uint32_t local_pref = 0;                       // 100 where the attribute is missing
  uint32_t med = 0;                              // 0 where it is missing
  uint32_t path_length = 0;                      // AS numbers; a set counts as one (RFC 4271, 9.1.2.2)
  AsNumber neighbor_as = 0;                      // the first of the path; 0: from this AS
  Ipv4 originator_id = 0;                        // 0: none
  uint16_t clusters = 0;                         // in the cluster list
  Origin origin = Origin::igp;                   // lower is better
  bool no_advertise = false, no_export = false;  // well-known communities (RFC 1997)
  uint32_t slot = 0, turn = 0;                   // scratch of whoever groups routes by attributes
};

class AttributeTable {
 public:
  AttributeTable();
  // The set equal to these, with one more reference.
  AttributeId intern(const Attributes &attributes);
  void hold(AttributeId id) { sets_[id].references++; }
  void release(AttributeId id);
  AttributeSet &operator[](AttributeId id) { return sets_[id]; }
  const AttributeSet &operator[](AttributeId id) const { return sets_[id]; }
  void decode(AttributeId id, Attributes &into) const;
  size_t used() const { return sets_.used(); }
  size_t octets() const;

 private:
  AttributeId add(const Attributes &attributes, uint32_t hash);
  void grow();

  Pool<AttributeSet, 64> sets_;
  std::vector<AttributeId> buckets_;
  Octets scratch_;
  size_t octets_ = 0;
};

}  // namespace bgp

#endif  // BGP_ATTRIBUTE_TABLE_H
