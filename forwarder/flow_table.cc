#include "forwarder/flow_table.h"

#include <sys/mman.h>

#include <utility>

namespace forwarder {
namespace {
constexpr size_t kFirstPlaces = 64;

// A packet that finds its flow on a page of its own would miss the address cache as well. A hint: the kernel may have none.
void prefer_large_pages(std::vector<Flow> &places) {
  constexpr uintptr_t page = 2 << 20;
  const auto begin = reinterpret_cast<uintptr_t>(places.data()), end = begin + places.size() * sizeof(Flow);
  const uintptr_t first = (begin + page - 1) / page * page, last = end / page * page;
  if (last > first) ::madvise(reinterpret_cast<void *>(first), last - first, MADV_HUGEPAGE);
}

}  // namespace

Flow &FlowTable::insert(uint32_t source, uint32_t group) {
  if (2 * (size_ + 1) > places_.size()) grow();
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
  std::vector<Flow> former = std::move(places_);
  const size_t places = former.empty() ? kFirstPlaces : former.size() * 2;
  places_ = std::vector<Flow>(places);
  prefer_large_pages(places_);
  shift_ = 64;
  for (size_t left = places; left > 1; left /= 2) shift_--;
  for (const Flow &flow : former)
    if (flow.group != 0) places_[place_of(flow.source, flow.group)] = flow;
}

bool FlowTable::erase(uint32_t source, uint32_t group) {
  if (find(source, group) == nullptr) return false;
  const size_t mask = places_.size() - 1;
  size_t gap = place_of(source, group);
  for (size_t at = (gap + 1) & mask; places_[at].group != 0; at = (at + 1) & mask) {
    // A flow may move into the gap unless its home lies behind the gap.
    const size_t from_home = (at - home(places_[at].source, places_[at].group)) & mask;
    if (from_home < ((at - gap) & mask)) continue;
    places_[gap] = places_[at];
    gap = at;
  }
  places_[gap] = Flow{};
  size_--;
  return true;
}

void FlowTable::clear() {
  places_.clear();
  size_ = 0;
}

}  // namespace forwarder
