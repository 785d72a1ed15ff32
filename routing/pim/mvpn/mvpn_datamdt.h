// The record of a flow on the sending side, the group pool, the switchover cache.
#ifndef MVPN_DATAMDT_H
#define MVPN_DATAMDT_H

#include "routing/pim/mvpn/mvpn.h"

// ------------------------------------------------------------------------------------------------ ranges and mapping

// Maps a flow onto the first range that it may use; one that is on a data MDT stays while its range takes it. 1: it has
// a range, or has just left its data MDT.
int mvpn_map_data_mdt_config(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *key, pim_route *croute);
// Maps every flow of the VRF anew. Yields.
void mvpn_process_data_mdt_config_change(mvpn_cibtype *mvpn);
// Clears every use of a range that is about to be freed, null: of all ranges; finds what the pass above could not
// reach.
void mvpn_forget_data_mdt_range(mvpn_cibtype *mvpn, mvpn_data_mdt_range *range);

// --------------------------------------------------------------------------------------------------------- group pool

// Slot of a group in a range's pool; MVPN_DATA_MDT_POOL_GROUPS when the range cannot hand it out.
uint32_t mvpn_data_mdt_pool_slot(const mvpn_data_mdt_range *range, ip_addr_t group);

// What to say when a core route loses its last referer.
using mvpn_release_trace = void (*)(mvpn_cibtype *mvpn, const mvpn_mdt_route *route);

// Takes a group of the range for a flow: counts it, binds its index and persists the choice. False: there is none, or
// the MRIB refused it; nothing has changed then.
bool mvpn_take_data_mdt_group(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *key, mvpn_data_mdt_range *range,
                              mvpn_ha_encap_info_t *choice);

// Gives a taken group back: the count and the persisted choice; with the last flow the index and the core route (null:
// none), whose deletion wakes the worker when wakeup is 1.
void mvpn_give_back_data_mdt_group(mvpn_cibtype *mvpn, mvpn_data_mdt_range *range, ip_addr_t group,
                                   const mvpn_mdt_route_addrs *key, mvpn_mdt_route *route, int wakeup,
                                   mvpn_release_trace trace);

// The same for a flow with a record; it leaves the route's referers first. The rest of its record stays. Nothing
// happens to a flow that holds no group.
void mvpn_release_data_mdt_group(mvpn_cibtype *mvpn, pim_route *croute, const mvpn_mdt_route_addrs *key, int wakeup,
                                 mvpn_release_trace trace);

// -------------------------------------------------------------------------------------------------------- send records

// Puts a record into the state of a flow that was never moved. destroy: what it holds is given back without a word to
// the MRIB; the persisted choice stays. destroy_all yields.
void mvpn_init_data_mdt_send_join_info(mvpn_cibtype *mvpn, pim_route *croute, mvpn_data_mdt_send_join_info *record);
void mvpn_destroy_data_mdt_send_join_info(pim_route *croute);
void mvpn_destroy_all_data_mdt_send_join_info(mvpn_cibtype *mvpn);

// ---------------------------------------------------------------------------------------------------- switchover cache

// An address with padding 0, whatever the caller's holds: the 12-byte key of the switchover cache.
mvpn_mdt_route_addrs mvpn_unpadded_addrs(const mvpn_mdt_route_addrs &addrs);

// add: null after a report when memory ran out or the flow has an entry. get: null when it has none.
mvpn_switchover_entry *mvpn_add_entry_to_switchover_cache(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *key,
                                                          pim_route *croute);
mvpn_switchover_entry *mvpn_get_entry_from_switchover_cache(mvpn_cibtype *mvpn, const pim_route *croute);
void mvpn_delete_entry_from_switchover_cache(mvpn_cibtype *mvpn, mvpn_switchover_entry *entry);
void mvpn_delete_all_entries_from_switchover_cache(mvpn_cibtype *mvpn);

// Gives the VRF's Join packet back; nothing when it has none.
void mvpn_free_join_packet(mvpn_cibtype *mvpn);

#endif  // MVPN_DATAMDT_H
