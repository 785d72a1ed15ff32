// The group pool, as the sending side uses it.
#ifndef MVPN_DATAMDT_POOL_H
#define MVPN_DATAMDT_POOL_H

#include "routing/pim/mvpn/mvpn.h"

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

// The same for a flow with a record; it leaves the route's referers first. The rest of its record stays. Nothing happens
// to a flow that holds no group.
void mvpn_release_data_mdt_group(mvpn_cibtype *mvpn, pim_route *croute, const mvpn_mdt_route_addrs *key, int wakeup,
                                 mvpn_release_trace trace);

#endif  // MVPN_DATAMDT_POOL_H
