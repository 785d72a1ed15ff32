// Path attributes one by one: decoding with the severity of what is wrong, and encoding.
//
// RFC 7606 gives each attribute its own answer to being malformed. The answers stand in one table in attributes.cc
// beside the flags that each attribute must have, so that a new attribute is a row there.
#ifndef BGP_ATTRIBUTES_H
#define BGP_ATTRIBUTES_H

#include "bgp/message.h"

namespace bgp {

enum AttributeFlag : uint8_t {
  flag_optional = 0x80,
  flag_transitive = 0x40,
  flag_partial = 0x20,
  flag_extended_length = 0x10
};

enum AttributeType : uint8_t {
  attribute_origin = 1,
  attribute_as_path = 2,
  attribute_next_hop = 3,
  attribute_med = 4,
  attribute_local_pref = 5,
  attribute_atomic_aggregate = 6,
  attribute_aggregator = 7,
  attribute_communities = 8,
  attribute_originator_id = 9,
  attribute_cluster_list = 10,
  attribute_mp_reach = 14,
  attribute_mp_unreach = 15,
  attribute_extended_communities = 16,
  attribute_as4_path = 17,
  attribute_as4_aggregator = 18,
  attribute_large_communities = 32
};

// By severity, so that the worst of several is the greatest.
enum class Treatment : uint8_t { accept, discard, as_withdraw, reset };

struct AttributeFault {
  Treatment treatment = Treatment::accept;
  UpdateError subcode = UpdateError::malformed_attribute_list;  // reset: of the NOTIFICATION; else for the log
};

// One attribute as it stands in a message.
struct RawAttribute {
  uint8_t flags = 0, type = 0;  // AttributeFlag bits, AttributeType or an unknown type
  View value;                   // points into the message
  View whole;                   // flags, type, length and value, which an error quotes
};

// What attributes are decoded into. The AS4 ones (RFC 6793) are merged once all are there.
struct AttributeSink {
  // Both outlive the decoding of one message.
  const UpdateContext &context;
  Attributes &attributes;
  std::vector<AsSegment> as4_path;               // empty: none came, or it was malformed
  std::optional<Aggregator> as4_aggregator;      // nothing: none came
  bool has_origin = false, has_as_path = false;  // came and were sound
};

// Any type but the two multiprotocol ones.
AttributeFault decode_attribute(const RawAttribute &raw, AttributeSink &sink);
// What can only be judged when all attributes are there: missing ones, AS4 merging, the first AS of an external path.
AttributeFault complete_attributes(AttributeSink &sink);

// Sets everything to nothing and keeps the memory.
void reset(Attributes &attributes);
uint32_t path_length(const std::vector<AsSegment> &path);  // a set counts as one (RFC 4271, 9.1.2.2)

void put_attribute_head(uint8_t flags, uint8_t type, size_t length, Octets &out);

}  // namespace bgp

#endif  // BGP_ATTRIBUTES_H
