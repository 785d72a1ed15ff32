// Which socket a group stands on, and what its wishes mean there. A group has one socket for all its sources and
// interfaces, the first with room when its first wish comes, and keeps it until its last wish goes. While any source is
// wanted, single sources of the group are not joined on that interface, since one socket cannot have both.
#include "forwarder/memberships.h"

#include <algorithm>

namespace forwarder {
namespace {
constexpr uint32_t kAnySource = 0;
}

MembershipPlan::Place &MembershipPlan::place_of(uint32_t group) {
  const auto found = groups_.find(group);
  if (found != groups_.end()) return found->second;
  const auto room = std::find_if(used_.begin(), used_.end(), [this](size_t wishes) { return wishes < limit_; });
  Place place;
  place.socket = static_cast<size_t>(room - used_.begin());
  if (room == used_.end()) used_.push_back(0);
  return groups_[group] = place;
}

std::vector<MembershipPlan::Step> MembershipPlan::want(const Membership &membership) {
  Sources &sources = wanted_[{membership.group, membership.interface}];
  if (sources.contains(membership.source)) return {};
  Place &place = place_of(membership.group);
  std::vector<Step> steps;
  const bool any_there = sources.contains(kAnySource);
  if (membership.source == kAnySource)
    for (const uint32_t source : sources)
      steps.push_back({place.socket, false, {membership.group, source, membership.interface}});
  if (!any_there) steps.push_back({place.socket, true, membership});
  sources.insert(membership.source);
  place.wishes++;
  used_[place.socket]++;
  size_++;
  return steps;
}

std::vector<MembershipPlan::Step> MembershipPlan::drop(const Membership &membership) {
  const auto found = wanted_.find({membership.group, membership.interface});
  if (found == wanted_.end() || found->second.erase(membership.source) == 0) return {};
  const auto place = groups_.find(membership.group);
  const size_t socket = place->second.socket;
  std::vector<Step> steps;
  if (!found->second.contains(kAnySource)) steps.push_back({socket, false, membership});
  if (membership.source == kAnySource)
    for (const uint32_t source : found->second)
      steps.push_back({socket, true, {membership.group, source, membership.interface}});
  if (found->second.empty()) wanted_.erase(found);
  if (--place->second.wishes == 0) groups_.erase(place);
  used_[socket]--;
  size_--;
  return steps;
}

}  // namespace forwarder
