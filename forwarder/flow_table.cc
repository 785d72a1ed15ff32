// The memory of the table: growing to twice the size at half full, removing without tombstones. Counters and rates move
// with their flow. Looking a flow up, which packets wait for, stands in the header.
#include "forwarder/flow_table.h"

#include <sys/mman.h>

#include <cstdlib>
#include <memory>
#include <new>
#include <utility>

namespace forwarder {
namespace {
constexpr size_t kFirstPlaces = 64;     // 2 KiB; a power of two
constexpr size_t kLargePage = 2 << 20;  // bytes: the size of large pages on x86-64 and on arm64 with 4 KiB pages

}  // namespace

void FlowTable::Free::operator()(Flow *places) const { std::free(places); }

// A packet that finds its flow on a page of its own would miss the address cache as well. So a large table begins on a
// large page, and the kernel is asked for such pages before the first byte is touched. A hint: it may have none.
FlowTable::Places FlowTable::make_places(size_t count) {
  const size_t size = count * sizeof(Flow);
  const bool large = size >= kLargePage;
  void *memory = std::aligned_alloc(large ? kLargePage : alignof(Flow), size);
  if (memory == nullptr) throw std::bad_alloc();
  if (large) ::madvise(memory, size, MADV_HUGEPAGE);
  Places places(static_cast<Flow *>(memory));
  std::uninitialized_value_construct_n(places.get(), count);
  return places;
}

Flow &FlowTable::insert(uint32_t source, uint32_t group) {
  if (2 * (size_ + 1) > count_) grow();
  Flow &flow = places_[place_of(source, group)];
  if (flow.group == 0) {
    flow = Flow{};
    flow.source = source;
    flow.group = group;
    size_++;
  }
  return flow;
}

void FlowTable::grow() {
  const size_t former_count = count_, count = count_ == 0 ? kFirstPlaces : count_ * 2;
  std::vector<FlowRate> rates(count);
  const Places former = std::exchange(places_, make_places(count));
  rates_.swap(rates);
  count_ = count;
  shift_ = 64;
  for (size_t left = count_; left > 1; left /= 2) shift_--;
  for (size_t at = 0; at < former_count; at++) {
    if (former[at].group == 0) continue;
    const size_t place = place_of(former[at].source, former[at].group);
    places_[place] = former[at];
    rates_[place] = rates[at];
  }
}

bool FlowTable::erase(uint32_t source, uint32_t group) {
  if (find(source, group) == nullptr) return false;
  const size_t mask = count_ - 1;
  size_t gap = place_of(source, group);
  for (size_t at = (gap + 1) & mask; places_[at].group != 0; at = (at + 1) & mask) {
    // A flow may move into the gap unless its home lies behind the gap.
    const size_t from_home = (at - home(places_[at].source, places_[at].group)) & mask;
    if (from_home < ((at - gap) & mask)) continue;
    places_[gap] = places_[at];
    rates_[gap] = rates_[at];
    gap = at;
  }
  places_[gap] = Flow{};
  rates_[gap] = FlowRate{};
  size_--;
  return true;
}

}  // namespace forwarder
