// The flows of a VRF: customer source and group to the encapsulation index in force.
//
// Open addressing with linear probing; a flow takes half a cache line, its counters included, so that a packet costs
// one miss however many flows there are, and the next place is mostly on the same line. What packets do not need stands
// in a table beside it. Removal moves the flows behind the gap up, so that there are no tombstones and a table that
// changes for ever does not decay.
#ifndef FORWARDER_FLOW_TABLE_H
#define FORWARDER_FLOW_TABLE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace forwarder {

struct alignas(32) Flow {
  uint32_t source = 0;              // addresses in host byte order
  uint32_t group = 0;               // 0: an empty place
  uint16_t index = 0;               // encapsulation index, 1 to 1023
  uint32_t claim = 0;               // session that asked for it last
  uint64_t packets = 0, bytes = 0;  // of customer datagrams on their way into the core, IPv4 headers included
};
static_assert(sizeof(Flow) == 32);

struct FlowRate {
  uint64_t sampled_bytes = 0;  // at the last sample
  uint64_t rate = 0;           // bytes a second between the last two samples
};

class FlowTable {
 public:
  // Null when there is no such flow. Valid until the next insert or erase.
  Flow *find(uint32_t source, uint32_t group);
  // Where find() will begin; null: the table is empty. For whoever wants to have it in the cache by then.
  const Flow *begin_of(uint32_t source, uint32_t group) const;
  // The flow, made when there is none. Group must not be 0.
  Flow &insert(uint32_t source, uint32_t group);
  bool erase(uint32_t source, uint32_t group);
  size_t size() const { return size_; }
  // Every flow and its rate, in no order; the function must not insert or erase.
  template <typename Visit>
  void each(Visit visit) {
    for (size_t at = 0; at < count_; at++)
      if (places_[at].group != 0) visit(places_[at], rates_[at]);
  }

 private:
  size_t home(uint32_t source, uint32_t group) const;
  size_t place_of(uint32_t source, uint32_t group) const;  // where it is, or the empty place where it would be
  void grow();

  struct Free {
    void operator()(Flow *places) const;
  };
  using Places = std::unique_ptr<Flow[], Free>;
  static Places make_places(size_t count);

  Places places_;
  std::vector<FlowRate> rates_;  // by place
  size_t count_ = 0;             // of places: a power of two, at most half of them taken; 0 until the first insert
  size_t size_ = 0;
  unsigned shift_ = 64;  // of the hash, to the number of places
};

inline size_t FlowTable::home(uint32_t source, uint32_t group) const {
  // Multiplication spreads neighbouring addresses over the upper bits (Fibonacci hashing).
  const uint64_t key = uint64_t{source} << 32 | group;
  return static_cast<size_t>(((key ^ key >> 29) * 0x9E3779B97F4A7C15u) >> shift_);
}

inline size_t FlowTable::place_of(uint32_t source, uint32_t group) const {
  const size_t mask = count_ - 1;
  size_t at = home(source, group);
  while (places_[at].group != 0 && (places_[at].group != group || places_[at].source != source)) at = (at + 1) & mask;
  return at;
}

inline const Flow *FlowTable::begin_of(uint32_t source, uint32_t group) const {
  return size_ == 0 ? nullptr : &places_[home(source, group)];
}

inline Flow *FlowTable::find(uint32_t source, uint32_t group) {
  if (size_ == 0 || group == 0) return nullptr;
  Flow &flow = places_[place_of(source, group)];
  return flow.group != 0 ? &flow : nullptr;
}

}  // namespace forwarder

#endif  // FORWARDER_FLOW_TABLE_H
