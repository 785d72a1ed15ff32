#include "forwarder/flow_table.h"

#include <utility>

namespace forwarder {
namespace {
constexpr size_t kFirstPlaces = 64;
}

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
