// Data-MDT ranges as records: which addresses those of all VRFs take up, how a range is bound to its policy, and how
// the ranges of a VRF end. A range is freed only after every use of it has been cleared.
#include "routing/pim/mvpn/mvpn_data_mdt_range.h"

#include <cstring>
#include <iterator>
#include <map>
#include <new>
#include <utility>

#include "platform/ip.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_datamdt.h"
#include "routing/pim/mvpn/mvpn_diag.h"
#include "routing/pim/mvpn/mvpn_guards.h"

namespace {

// Ranges of all VRFs by their first address. They do not overlap, so that the only one that can reach an address is the
// last that begins at or before it.
struct range_in_use {
  ip_addr_t last;
  mvpn_cibtype *owner;
};
std::map<ip_addr_t, range_in_use> ranges_in_use;

}  // namespace

static ip_addr_t last_address(ip_addr_t prefix, uint32_t length) { return prefix | ip_wildcard_mask(length); }

int mvpn_index_data_mdt_range(mvpn_cibtype *mvpn, const mvpn_data_mdt_range *range) {
  try {
    ranges_in_use[range->prefix] = {last_address(range->prefix, range->masklen), mvpn};
    return 1;
  } catch (const std::bad_alloc &) {
    mvpn_report(msg_error_PIM_MALLOC, sizeof(range_in_use), "mdt_data_cmd");
    return 0;
  }
}

void mvpn_unindex_data_mdt_range(const mvpn_data_mdt_range *range) { ranges_in_use.erase(range->prefix); }

// The entries of ranges that are still there serve again, so that no memory is needed.
void mvpn_take_over_data_mdt_ranges() {
  std::map<ip_addr_t, range_in_use> known;
  known.swap(ranges_in_use);
  mvpn_for_each_context([&](mvpn_cibtype *mvpn) {
    for (const mvpn_data_mdt_range *range = mvpn->data_mdt_config; range != nullptr; range = range->next) {
      auto entry = known.extract(range->prefix);
      entry.mapped().owner = mvpn;
      ranges_in_use.insert(std::move(entry));
    }
    return true;
  });
}

// The first other context, by VRF name, that has a range which touches first..last; null when none has.
static mvpn_cibtype *find_range_overlap(const mvpn_cibtype *mvpn, ip_addr_t first, ip_addr_t last) {
  mvpn_cibtype *found = nullptr;
  auto next = ranges_in_use.upper_bound(first);
  if (next != ranges_in_use.begin() && std::prev(next)->second.last >= first) --next;
  for (; next != ranges_in_use.end() && next->first <= last; ++next) {
    mvpn_cibtype *owner = next->second.owner;
    if (owner != mvpn) found = mvpn_first_by_name(found, owner);
  }
  return found;
}

mvpn_cibtype *mvpn_find_group_overlap(const mvpn_cibtype *mvpn, ip_addr_t prefix, uint32_t length) {
  const ip_addr_t last = last_address(prefix, length);
  return mvpn_first_by_name(mvpn_get_other_context_by_mdt_groups(mvpn, prefix, last),
                            find_range_overlap(mvpn, prefix, last));
}

// ---------------------------------------------------------------------------------------------------------- policies

tracked_ptr<char> mvpn_copy_policy_name(const char *name) {
  const size_t size = std::strlen(name) + 1;
  tracked_ptr<char> copy(static_cast<char *>(mvpn_tracked_alloc(
      MTRACK_MVPN_DATA_RANGE, size, size, "routing/pim/mvpn/mvpn_ui_config", __LINE__, "mdt_data_cmd")));
  if (copy != nullptr) std::memcpy(copy.get(), name, size);
  return copy;
}

bool mvpn_bind_data_mdt_policy(const mvpn_cibtype *mvpn, mvpn_data_mdt_range *range, tracked_ptr<char> name) {
  rpm_binding &policy = range->policy;
  policy.kind = RPM_BINDING_KIND;
  policy.client = RPM_CLIENT_MVPN;
  policy.policy_name = name.get();
  policy.context_id = mvpn->pcib->context_id;
  if (rpm_policy_bind(RPM_CLIENT_MVPN, policy.policy_name, &policy) == 0) {
    policy.policy_name = nullptr;
    policy.policy_handle = 0;
    return false;
  }
  (void)name.release();
  return true;
}

void mvpn_drop_data_mdt_policy(mvpn_data_mdt_range *range) {
  if (range->policy.policy_name == nullptr) return;
  rpm_policy_unbind(range->policy.policy_handle);
  mtrack_free(range->policy.policy_name);
  range->policy.policy_name = nullptr;
  range->policy.policy_handle = 0;
}

// --------------------------------------------------------------------------------------------------------------- end

void mvpn_free_data_mdt_ranges(mvpn_cibtype *mvpn) {
  if (mvpn->data_mdt_config != nullptr) mvpn_forget_data_mdt_range(mvpn, nullptr);
  while (mvpn->data_mdt_config != nullptr) {
    const mvpn_data_mdt_range_ptr range(mvpn->data_mdt_config);
    mvpn->data_mdt_config = range->next;
    mvpn_unindex_data_mdt_range(range.get());
    mvpn_drop_data_mdt_policy(range.get());
  }
}
