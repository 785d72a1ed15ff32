// Data-MDT ranges outside the commands that configure them: their place among those of all VRFs, their policies, their
// end.
#ifndef MVPN_DATA_MDT_RANGE_H
#define MVPN_DATA_MDT_RANGE_H

#include <memory>

#include "routing/pim/mvpn/mvpn.h"
#include "routing/pim/mvpn/mvpn_guards.h"

struct mvpn_data_mdt_range_deleter {
  void operator()(mvpn_data_mdt_range *range) const {
    mtrack_free(range->policy.policy_name);
    mtrack_free(range);
  }
};
// A range outside its VRF's list, with its policy name.
using mvpn_data_mdt_range_ptr = std::unique_ptr<mvpn_data_mdt_range, mvpn_data_mdt_range_deleter>;

// Makes a range known to, unknown to the search for overlaps. index: 0 when memory ran out, which was reported.
int mvpn_index_data_mdt_range(mvpn_cibtype *mvpn, const mvpn_data_mdt_range *range);
void mvpn_unindex_data_mdt_range(const mvpn_data_mdt_range *range);

// The first other context, by VRF name, whose default group or ranges touch prefix/length; null when none does.
mvpn_cibtype *mvpn_find_group_overlap(const mvpn_cibtype *mvpn, ip_addr_t prefix, uint32_t length);

// A copy of a policy's name; null when memory ran out, which was reported.
tracked_ptr<char> mvpn_copy_policy_name(const char *name);
// Gives a range without a policy one. False: the policy could not be bound, and the range has none.
bool mvpn_bind_data_mdt_policy(const mvpn_cibtype *mvpn, mvpn_data_mdt_range *range, tracked_ptr<char> name);
// Ends a range's use of its policy, whatever the route-policy manager says.
void mvpn_drop_data_mdt_policy(mvpn_data_mdt_range *range);

// Unbinds and frees every range of a VRF that is being destroyed.
void mvpn_free_data_mdt_ranges(mvpn_cibtype *mvpn);
// A start after a stop that left contexts in place: forgets the ranges of VRFs that have gone since.
void mvpn_take_over_data_mdt_ranges();

#endif  // MVPN_DATA_MDT_RANGE_H
