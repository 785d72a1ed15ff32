// Data-MDT ranges and the group pool: which customer flows may use which range, which group and encapsulation index a
// flow gets, how flows share a group, and how a group is given back.
//
// Records: a VRF's ranges form a list that is searched from its head; each counts the flows on its first 1024 groups. A
// customer route that was looked at carries a send record. While the flow is on a data MDT the record names its range,
// its core route, its group and its index, and it holds one count of the group, one place among the core route's
// referers and one persisted choice. These come and go together: take_group, give_back_group. Only when the record goes
// with its tunnel does the choice stay in the store, until the flow makes another or goes itself (unclaimed_choices).
//
// Invariants: a send record has a core route if and only if its customer route is among that route's referers; no
// record names a range that is not in the list; an index is handed out only with its entry in the VRF's encapsulation
// table. Index 1 is the default MDT's and never a flow's, also while the default tunnel is down and its entry is free.
#include "routing/pim/mvpn/mvpn_datamdt.h"

#include <algorithm>

#include "platform/im.h"
#include "platform/ip.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_diag.h"
#include "routing/pim/mvpn/mvpn_guards.h"
#include "routing/pim/mvpn/mvpn_ha.h"
#include "routing/pim/mvpn/mvpn_mdt_route.h"
#include "routing/pim/mvpn/mvpn_mrib_queue.h"

namespace {

constexpr uint32_t kRoutesBetweenYields = 1000;  // looked at, most of them for nothing

// ---------------------------------------------------------------------------------------- walks over customer routes

// Calls visit(key, route) for every customer route of a VRF, in tree order. Yields after every thousandth; false when
// the VRF went away.
template <typename Visit>
bool for_each_customer_route(mvpn_cibtype *mvpn, Visit visit) {
  uint8_t tree_key[PIM_ROUTE_KEY_BYTES];
  uint32_t visited = 0;
  pt_node *node = pt_get_first_node(mvpn->pcib->route_tree, nullptr, 0);
  while (node != nullptr) {
    std::copy_n(pt_node_key(node), sizeof tree_key, tree_key);
    mvpn_mdt_route_addrs key{};
    pim_get_addrs_from_pt_key(tree_key, &key);
    if (key.source == 0) key.source_len = MROUTE_ANY_SOURCE_LEN;
    visit(mvpn, key, static_cast<pim_route *>(pt_node_data(node)));
    if (++visited % kRoutesBetweenYields == 0) {
      mvpn = mvpn_may_sched_yield(mvpn);
      if (mvpn == nullptr) return false;
    }
    node = pt_get_next_node(mvpn->pcib->route_tree, tree_key, 0);
  }
  return true;
}

// -------------------------------------------------------------------------------------------------- groups and indexes

bool in_range(const mvpn_data_mdt_range *range, ip_addr_t group) {
  return ip_is_addr_in_prefix(group, range->prefix, range->masklen) != 0;
}

// Groups that a range can hand out, 1..1024.
uint32_t pool_size(const mvpn_data_mdt_range *range) {
  const uint64_t addresses = uint64_t{range->prefix | ip_wildcard_mask(range->masklen)} - range->prefix + 1;
  return static_cast<uint32_t>(std::min<uint64_t>(addresses, MVPN_DATA_MDT_POOL_GROUPS));
}

// Lowest index of a data MDT whose entry is `group` (0: a free one); MVPN_ENCAP_INDEXES when there is none.
uint16_t find_index(const mvpn_cibtype *mvpn, ip_addr_t group) {
  const ip_addr_t *begin = mvpn->mdt_encap_group;
  const ip_addr_t *end = begin + MVPN_ENCAP_INDEXES;
  return static_cast<uint16_t>(std::find(begin + MVPN_ENCAP_INDEX_FIRST_DATA, end, group) - begin);
}

// The slot that a new flow gets: the least used of all while an index is free, else the least used of those in use; the
// lowest on ties. Not the default group's, which a range may hold when it was configured first: the last flow to leave
// would take the default MDT with it.
uint32_t choose_slot(const mvpn_cibtype *mvpn, const mvpn_data_mdt_range *range, bool index_is_free) {
  uint32_t best = 0;
  bool found = false;
  for (uint32_t slot = 0; slot < pool_size(range); slot++) {
    const uint32_t count = range->group_refcount[slot];
    if (range->prefix + slot == mvpn->mdt_default_group) continue;
    if (!index_is_free && count == 0) continue;
    if (found && count >= range->group_refcount[best]) continue;
    best = slot;
    found = true;
  }
  return best;
}

// Reuses the choice that was persisted before a restart. An index is believed only when it can be a data MDT's and its
// entry is free or the group's; a group that is in use keeps the index it has.
bool take_persisted(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *key, mvpn_data_mdt_range *range,
                    mvpn_ha_encap_info_t *choice) {
  mvpn_ha_encap_info_t stored{};
  if (mvpn_ha_get_encap_info(mvpn, key, &stored) == 0) return false;
  const ip_addr_t group = stored.mdt_group;
  if (!in_range(range, group)) {
    MVPN_DEBUG(mvpn->pcib, "Data mdt Group %s doesn't fall in %s", ip_print_addr(group),
               ip_print_prefix(range->prefix, range->masklen));
    return false;
  }
  if (group == mvpn->mdt_default_group) return false;
  uint16_t index = find_index(mvpn, group);
  if (index == MVPN_ENCAP_INDEXES) {
    index = stored.encap_index;
    if (index < MVPN_ENCAP_INDEX_FIRST_DATA || index >= MVPN_ENCAP_INDEXES || mvpn->mdt_encap_group[index] != 0)
      return false;
    if (mvpn_add_mdt_encap_info(mvpn, group, index) == 0) return false;
  }
  // A group beyond the first 1024 of its range has no count.
  const uint32_t slot = mvpn_data_mdt_pool_slot(range, group);
  if (slot < MVPN_DATA_MDT_POOL_GROUPS) range->group_refcount[slot]++;
  *choice = {index, group};
  // The store follows: after the recovery period a record of another index would be taken for nobody's.
  if (index != stored.encap_index) mvpn_ha_add_encap_info(mvpn, key, *choice);
  return true;
}

bool take_fresh(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *key, mvpn_data_mdt_range *range,
                mvpn_ha_encap_info_t *choice) {
  const uint16_t free_index = find_index(mvpn, 0);
  const uint32_t slot = choose_slot(mvpn, range, free_index < MVPN_ENCAP_INDEXES);
  const ip_addr_t group = range->prefix + slot;
  if (group == mvpn->mdt_default_group) return false;  // the range has no other
  uint16_t index = MVPN_ENCAP_INDEXES;
  if (range->group_refcount[slot] != 0) index = find_index(mvpn, group);
  if (index == MVPN_ENCAP_INDEXES) {
    // Not in use: a free index, when there is one and the MRIB takes it.
    index = free_index;
    if (mvpn_add_mdt_encap_info(mvpn, group, index) == 0) return false;
    range->group_refcount[slot] = 0;
  }
  range->group_refcount[slot]++;
  *choice = {index, group};
  mvpn_ha_add_encap_info(mvpn, key, *choice);
  return true;
}

// Takes one flow off a group's count, which a teardown that tells the MRIB has cleared before; true when other flows
// still use the group.
bool drop_count(mvpn_data_mdt_range *range, ip_addr_t group, const mvpn_mdt_route *route) {
  const uint32_t slot = mvpn_data_mdt_pool_slot(range, group);
  if (slot == MVPN_DATA_MDT_POOL_GROUPS) return route != nullptr && mvpn_mdt_mroute_has_referer(route) != 0;
  if (range->group_refcount[slot] != 0) range->group_refcount[slot]--;
  return range->group_refcount[slot] != 0;
}

bool is_on_data_mdt(const mvpn_data_mdt_send_join_info *record) {
  return record->config != nullptr && record->mdt_route != nullptr;
}

void trace_last_flow(mvpn_cibtype *mvpn, const mvpn_mdt_route *route) {
  MVPN_DEBUG(mvpn->pcib, "No more references for (%s, %s)", ip_print_addr(route->source), ip_print_addr(route->group));
}

// Gives back what the record of a flow holds, without a word to the MRIB: for records that go away with their tunnel.
// The persisted choice stays: a tunnel that flaps in the recovery period must not cost the flow its former group.
void drop_flow(pim_route *croute) {
  mvpn_data_mdt_send_join_info *record = croute->send_join_info;
  mvpn_mdt_route *route = record->mdt_route;
  if (route == nullptr) return;
  mvpn_mdt_mroute_delink_referer(route, croute);
  record->mdt_route = nullptr;
  if (record->config == nullptr) return;
  drop_count(record->config, record->group, route);
  route->mvpn->unclaimed_choices = 1;
}

// Whether the source of a flow lies on this PE's side.
bool has_local_source(const pim_route *croute) {
  if (croute->iif == 0 || croute->rpf_neighbor == 0) return false;
  return croute->bidirectional != 0 || ksink_im_is_mvpn_tunnel(croute->iif) == 0;
}

int mvpn_does_data_mdt_policy_match(mvpn_cibtype *, const mvpn_mdt_route_addrs *key, const rpm_binding *policy) {
  if (policy->policy_name == nullptr) return 1;
  if (rpm_policy_is_ready(policy->policy_handle) == 0) return 0;
  rpm_mroute_match record{};
  record.source = key->source;
  record.group = key->group;
  record.source_len = key->source != 0 ? MROUTE_HOST_LEN : 0;
  record.group_len = key->group_len;
  return rpm_eval_policy_match(policy->policy_handle, RPM_MATCH_MROUTE, &record, 0, 0) == 1 ? 1 : 0;
}

bool range_matches(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *key, const mvpn_data_mdt_range *range) {
  return range->deleted == 0 && mvpn_does_data_mdt_policy_match(mvpn, key, &range->policy) != 0;
}

// The first range that the flow may use; null: none.
mvpn_data_mdt_range *first_range(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *key) {
  mvpn_data_mdt_range *range = mvpn->data_mdt_config;
  while (range != nullptr && !range_matches(mvpn, key, range)) range = range->next;
  return range;
}

}  // namespace

// --------------------------------------------------------------------------------------------------------- group pool

uint32_t mvpn_data_mdt_pool_slot(const mvpn_data_mdt_range *range, ip_addr_t group) {
  const uint32_t distance = group - range->prefix;
  if (!in_range(range, group) || distance >= MVPN_DATA_MDT_POOL_GROUPS) return MVPN_DATA_MDT_POOL_GROUPS;
  return distance;
}

bool mvpn_take_data_mdt_group(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *key, mvpn_data_mdt_range *range,
                              mvpn_ha_encap_info_t *choice) {
  return take_persisted(mvpn, key, range, choice) || take_fresh(mvpn, key, range, choice);
}

void mvpn_give_back_data_mdt_group(mvpn_cibtype *mvpn, mvpn_data_mdt_range *range, ip_addr_t group,
                                   const mvpn_mdt_route_addrs *key, mvpn_mdt_route *route, int wakeup,
                                   mvpn_release_trace trace) {
  // Other flows keep the group.
  mvpn_ha_delete_encap_info(mvpn, key);
  if (drop_count(range, group, route)) return;
  mvpn_delete_mdt_encap_info(mvpn, group);
  if (route == nullptr || mvpn_mdt_mroute_has_referer(route) != 0) return;
  trace(mvpn, route);
  mvpn_mdt_delete_route_resources(mvpn, route->source, route->group, wakeup);
}

void mvpn_release_data_mdt_group(mvpn_cibtype *mvpn, pim_route *croute, const mvpn_mdt_route_addrs *key, int wakeup,
                                 mvpn_release_trace trace) {
  mvpn_data_mdt_send_join_info *record = croute->send_join_info;
  if (!is_on_data_mdt(record)) return;
  mvpn_mdt_route *route = record->mdt_route;
  mvpn_mdt_mroute_delink_referer(route, croute);
  record->mdt_route = nullptr;
  mvpn_give_back_data_mdt_group(mvpn, record->config, record->group, key, route, wakeup, trace);
}

uint32_t mvpn_increment_data_mdt_group_refcount(mvpn_cibtype *mvpn, mvpn_data_mdt_range *range, ip_addr_t group,
                                                uint32_t, const mvpn_mdt_route_addrs *key, uint32_t encap_index,
                                                int no_persist) {
  const uint32_t slot = mvpn_data_mdt_pool_slot(range, group);
  if (slot == MVPN_DATA_MDT_POOL_GROUPS) return 0;
  range->group_refcount[slot]++;
  if (no_persist == 0) mvpn_ha_add_encap_info(mvpn, key, {static_cast<uint16_t>(encap_index), group});
  return range->group_refcount[slot];
}

uint32_t mvpn_decrement_data_mdt_group_refcount(mvpn_cibtype *mvpn, mvpn_data_mdt_range *range, ip_addr_t group,
                                                uint32_t, const mvpn_mdt_route_addrs *key) {
  const uint32_t slot = mvpn_data_mdt_pool_slot(range, group);
  if (slot == MVPN_DATA_MDT_POOL_GROUPS || range->group_refcount[slot] == 0) return 0;
  range->group_refcount[slot]--;
  mvpn_ha_delete_encap_info(mvpn, key);
  return range->group_refcount[slot];
}

// ------------------------------------------------------------------------------------------------- ranges and mapping

static int mvpn_create_data_mdt_send_join_info(mvpn_cibtype *mvpn, pim_route *croute) {
  auto *record = static_cast<mvpn_data_mdt_send_join_info *>(slab_calloc(mvpn_slabs[MVPN_SLAB_SEND_JOIN_INFO]));
  croute->send_join_info = record;
  if (record == nullptr) {
    mvpn_report(msg_error_PIM_MALLOC, sizeof(mvpn_data_mdt_send_join_info), "mvpn_create_data_mdt_send_join_info()");
    return 0;
  }
  mvpn_init_data_mdt_send_join_info(mvpn, croute, record);
  return 1;
}

int mvpn_map_data_mdt_config(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *key, pim_route *croute) {
  if (!has_local_source(croute)) return 0;
  if (croute->send_join_info == nullptr) {
    MVPN_DEBUG(mvpn->pcib, "Creating send join info for route %s", mrib_print_addrs(key));
    if (mvpn_create_data_mdt_send_join_info(mvpn, croute) == 0) return 0;
  } else if (croute->send_join_info->encap_index == MVPN_ENCAP_INDEX_NONE) {
    mvpn_init_data_mdt_send_join_info(mvpn, croute, croute->send_join_info);
  }
  mvpn_data_mdt_send_join_info *record = croute->send_join_info;
  int result = 0;
  if (is_on_data_mdt(record)) {
    if (range_matches(mvpn, key, record->config)) return 1;
    mvpn_release_data_mdt_group(mvpn, croute, key, 1, trace_last_flow);
    mvpn_init_data_mdt_send_join_info(mvpn, croute, record);
    result = 1;
  } else if (record->config != nullptr) {
    mvpn_init_data_mdt_send_join_info(mvpn, croute, record);
  }
  record->config = first_range(mvpn, key);
  return record->config != nullptr ? 1 : result;
}

void mvpn_process_data_mdt_config_change(mvpn_cibtype *mvpn) {
  if (mvpn->pcib == nullptr) return;
  const pim_write_guard pim_lock;
  const mrib_read_guard mrib_lock;
  mvpn_note_change(mvpn, MVPN_LAST_CHANGE_DATA_MDT);
  for_each_customer_route(mvpn, [](mvpn_cibtype *vrf, const mvpn_mdt_route_addrs &key, pim_route *croute) {
    mvpn_map_data_mdt_config(vrf, &key, croute);
  });
}

void mvpn_forget_data_mdt_range(mvpn_cibtype *mvpn, mvpn_data_mdt_range *range) {
  if (mvpn->pcib == nullptr) return;
  for (pt_node *node = pt_get_first_node(mvpn->pcib->route_tree, nullptr, 0); node != nullptr;
       node = pt_get_next_node(mvpn->pcib->route_tree, pt_node_key(node), 0)) {
    auto *croute = static_cast<pim_route *>(pt_node_data(node));
    mvpn_data_mdt_send_join_info *record = croute->send_join_info;
    if (record == nullptr || record->config == nullptr) continue;
    if (range != nullptr && record->config != range) continue;
    mvpn_init_data_mdt_send_join_info(mvpn, croute, record);
  }
}

// ------------------------------------------------------------------------------------------------------- send records

void mvpn_init_data_mdt_send_join_info(mvpn_cibtype *mvpn, pim_route *croute, mvpn_data_mdt_send_join_info *record) {
  // A record that still refers to a core route gives its group back first, or the route would keep the flow.
  mvpn_release_data_mdt_group(mvpn, croute, &croute->addrs, 1, trace_last_flow);
  // Nor does a switchover that had begun end any more: it would leave the flow active without a group.
  if (mvpn_switchover_entry *entry = mvpn_get_entry_from_switchover_cache(mvpn, croute))
    mvpn_delete_entry_from_switchover_cache(mvpn, entry);
  *record = {};
  MVPN_DEBUG(mvpn->pcib, "Initializing encap index for route %s to 0", mrib_print_addrs(&croute->addrs));
  const bool sent = bitfield_test(&croute->oifs, mvpn->mti_iod) != 0;
  if (sent || (croute->bidirectional != 0 && croute->iif == mvpn->mti_iod))
    record->encap_index = MVPN_ENCAP_INDEX_DEFAULT;
}

int mvpn_set_encap_index_for_customer_route(mvpn_cibtype *mvpn, pim_route *croute, uint32_t encap_index) {
  if (croute == nullptr) return 0;
  if (croute->send_join_info == nullptr && mvpn_create_data_mdt_send_join_info(mvpn, croute) == 0) return 0;
  MVPN_DEBUG(mvpn->pcib, "Setting encap index for route %s to %d", mrib_print_addrs(&croute->addrs),
             static_cast<int>(encap_index));
  croute->send_join_info->encap_index = static_cast<uint16_t>(encap_index);
  return 1;
}

void mvpn_destroy_data_mdt_send_join_info(pim_route *croute) {
  mvpn_data_mdt_send_join_info *record = croute->send_join_info;
  if (record == nullptr) return;
  drop_flow(croute);
  slab_free(mvpn_slabs[MVPN_SLAB_SEND_JOIN_INFO], record);
  croute->send_join_info = nullptr;
}

void mvpn_destroy_all_data_mdt_send_join_info(mvpn_cibtype *mvpn) {
  if (mvpn->pcib == nullptr) return;
  const pim_write_guard pim_lock;
  // A context that took this one's place in a yield keeps its records.
  const uint64_t serial = mvpn->serial;
  for_each_customer_route(mvpn, [serial](const mvpn_cibtype *now, const mvpn_mdt_route_addrs &, pim_route *croute) {
    if (now->serial == serial) mvpn_destroy_data_mdt_send_join_info(croute);
  });
}

// -------------------------------------------------------------------------------------------------- switchover cache

// The place and the size that a failed allocation is reported with are fixed, since operators search for them.
// Bytes of a switchover entry as reports show them; the size of the record on a 32-bit platform.
constexpr size_t kReportedEntrySize = 32;

// A 12-byte cache key whose padding is 0 whatever the caller's holds.
mvpn_mdt_route_addrs mvpn_unpadded_addrs(const mvpn_mdt_route_addrs &addrs) {
  mvpn_mdt_route_addrs key{};
  key.source = addrs.source;
  key.group = addrs.group;
  key.source_len = addrs.source_len;
  key.group_len = addrs.group_len;
  return key;
}

mvpn_switchover_entry *mvpn_add_entry_to_switchover_cache(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *,
                                                          pim_route *croute) {
  auto *entry = static_cast<mvpn_switchover_entry *>(
      mvpn_tracked_alloc(MTRACK_MVPN_SWITCHOVER, sizeof(mvpn_switchover_entry), kReportedEntrySize,
                         "routing/pim/mvpn/mvpn_datamdt", 290, "mvpn_add_entry_to_switchover_cache"));
  if (entry == nullptr) {
    mvpn_report(msg_error_PIM_MALLOC, kReportedEntrySize, "mvpn_add_entry_to_switchover_cache()");
    return nullptr;
  }
  entry->addrs = mvpn_unpadded_addrs(croute->addrs);
  entry->route = croute;
  if (ravl_insert(&mvpn->switchover_cache, entry) == 0) {
    mvpn_report(msg_error_PIM_AVL_ERROR, "ravl_insert", "mvpn_add_entry_to_switchover_cache");
    mtrack_free(entry);
    return nullptr;
  }
  return entry;
}

mvpn_switchover_entry *mvpn_get_entry_from_switchover_cache(mvpn_cibtype *mvpn, const pim_route *croute) {
  const mvpn_mdt_route_addrs key = mvpn_unpadded_addrs(croute->addrs);
  return static_cast<mvpn_switchover_entry *>(ravl_lookup(&mvpn->switchover_cache, &key));
}

void mvpn_delete_entry_from_switchover_cache(mvpn_cibtype *mvpn, mvpn_switchover_entry *entry) {
  ravl_delete(&mvpn->switchover_cache, entry);
  mtrack_free(entry);
}

void mvpn_delete_all_entries_from_switchover_cache(mvpn_cibtype *mvpn) {
  while (void *entry = ravl_get_first_node(&mvpn->switchover_cache, 0))
    mvpn_delete_entry_from_switchover_cache(mvpn, static_cast<mvpn_switchover_entry *>(entry));
}

void mvpn_free_join_packet(mvpn_cibtype *mvpn) {
  if (mvpn->data_mdt_join_pkt == nullptr) return;
  mtrack_free(mvpn->data_mdt_join_pkt);
  mvpn->data_mdt_join_pkt = nullptr;
  mvpn->data_mdt_join_capacity = 0;
}
