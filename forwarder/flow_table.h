// The flows of a VRF: customer source and group to the encapsulation index in force.
//
// Open addressing with linear probing; a flow takes one cache line, its counters included, so that a packet costs one
// miss however many flows there are. Removal moves the flows behind the gap up, so that there are no tombstones and a
// table that changes for ever does not decay.
#ifndef FORWARDER_FLOW_TABLE_H
#define FORWARDER_FLOW_TABLE_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace forwarder {

struct alignas(64) Flow {
  uint32_t source = 0;  // addresses in host byte order
  uint32_t group = 0;   // 0: an empty place
  uint16_t index = 0;   // encapsulation index, 1 to 1023
  uint32_t claim = 0;   // session that asked for it last
  uint64_t packets = 0, bytes = 0;
  uint64_t sampled_bytes = 0;  // at the last sample
  uint64_t rate = 0;           // bytes a second between the last two samples
};
static_assert(sizeof(Flow) == 64);

class FlowTable {
 public:
  // Null when there is no such flow. Valid until the next insert or erase.
  Flow *find(uint32_t source, uint32_t group);
  // Brings what find() will need on its way into the cache.
  void prefetch(uint32_t source, uint32_t group) const;
  // The flow, made when there is none. Group must not be 0.
  Flow &insert(uint32_t source, uint32_t group);
  bool erase(uint32_t source, uint32_t group);
  void clear();

  size_t size() const { return size_; }
  // Every flow, in no order; the function must not insert or erase.
  template <typename Visit>
  void each(Visit visit) {
    for (Flow &flow : places_)
      if (flow.group != 0) visit(flow);
  }

 private:
  size_t home(uint32_t source, uint32_t group) const;
  size_t place_of(uint32_t source, uint32_t group) const;  // where it is, or the empty place where it would be
  void grow();

  std::vector<Flow> places_;  // a power of two, at most half full; empty until the first insert
  size_t size_ = 0;
  unsigned shift_ = 64;  // of the hash, to the number of places
};

inline size_t FlowTable::home(uint32_t source, uint32_t group) const {
  // Multiplication spreads neighbouring addresses over the upper bits (Fibonacci hashing).
  const uint64_t key = uint64_t{source} << 32 | group;
  return static_cast<size_t>(((key ^ key >> 29) * 0x9E3779B97F4A7C15u) >> shift_);
}

inline size_t FlowTable::place_of(uint32_t source, uint32_t group) const {
  const size_t mask = places_.size() - 1;
  size_t at = home(source, group);
  while (places_[at].group != 0 && (places_[at].group != group || places_[at].source != source)) at = (at + 1) & mask;
  return at;
}

inline void FlowTable::prefetch(uint32_t source, uint32_t group) const {
  if (size_ != 0) __builtin_prefetch(&places_[home(source, group)], 1);
}

inline Flow *FlowTable::find(uint32_t source, uint32_t group) {
  if (size_ == 0 || group == 0) return nullptr;
  Flow &flow = places_[place_of(source, group)];
  return flow.group != 0 ? &flow : nullptr;
}

}  // namespace forwarder

#endif  // FORWARDER_FLOW_TABLE_H
