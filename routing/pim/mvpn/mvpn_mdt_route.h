// Core routes of the VRFs: the table, the choice of their source, their referers and their MRIB entries.
#ifndef MVPN_MDT_ROUTE_H
#define MVPN_MDT_ROUTE_H

#include "routing/pim/mvpn/mvpn.h"

// Route table of a VRF. free: 1 when it was freed, 0 when it is not in its table (nothing happens); it yields only when
// free_may_yield says so beforehand.
mvpn_mdt_route *mvpn_mdt_mroute_lookup(mvpn_cibtype *mvpn, ip_addr_t source, ip_addr_t group);
int mvpn_mdt_free_route_resources(mvpn_mdt_route *route);
bool mvpn_mdt_free_may_yield(const mvpn_mdt_route *route);

// Next route of a VRF's table in key order after (source, group), whether or not that one still exists; the first
// route. Null at the end.
mvpn_mdt_route *mvpn_mdt_mroute_first(mvpn_cibtype *mvpn);
mvpn_mdt_route *mvpn_mdt_mroute_after(mvpn_cibtype *mvpn, ip_addr_t source, ip_addr_t group);

// Referers: records that depend on a route. A route keeps each at most once; delinking one that is not there is
// harmless. link: 1 when the route lists the referer, 0 when memory ran out: the referer must not keep the route then.
// has_referer: their number.
int mvpn_mdt_mroute_link_referer(mvpn_mdt_route *route, pim_route *croute);
int mvpn_mdt_mroute_link_referer(mvpn_mdt_route *route, mvpn_data_mdt_recv_join_info *record);
void mvpn_mdt_mroute_delink_referer(mvpn_mdt_route *route, void *referer);
uint32_t mvpn_mdt_mroute_has_referer(const mvpn_mdt_route *route);

// What the owners of referers do when a core route goes: a flow, an announcement leaves it; records that still point at
// the route though it does not list them forget it. Set when the library is loaded.
struct mvpn_referer_hooks {
  void (*release_flow)(mvpn_cibtype *mvpn, pim_route *croute);
  void (*release_announcement)(mvpn_cibtype *mvpn, mvpn_data_mdt_recv_join_info *record);
  void (*forget_route)(mvpn_mdt_route *route);
};
extern mvpn_referer_hooks mvpn_mdt_referer_hooks;

// Core source of the route for (source, group); *mode receives the group's mode.
ip_addr_t mvpn_get_mdt_mroute_source_address(mvpn_cibtype *mvpn, ip_addr_t group, ip_addr_t source,
                                             mvpn_mdt_group_mode_t *mode);

// Route resources. add: creates or refreshes the route and queues it; null when there is none. remove: queues a
// delete; 0 when there is no such route. wakeup: wakes the worker.
mvpn_mdt_route *mvpn_mdt_add_route_resources(mvpn_cibtype *mvpn, mvpn_mdt_route_type_t route_type, ip_addr_t source,
                                             int source_is_final, ip_addr_t group, int wakeup);
int mvpn_mdt_delete_route_resources(mvpn_cibtype *mvpn, ip_addr_t source, ip_addr_t group, int wakeup);
void mvpn_mdt_route_schedule(mvpn_mdt_route *route, uint8_t teardown, int add);
void mvpn_mdt_add_all_sg_route_resources(mvpn_cibtype *mvpn, ip_addr_t group);

// Whether this PE sources a route of this type.
inline bool mvpn_is_local_route(const mvpn_mdt_route *route) {
  return route->route_type == MVPN_MDT_ROUTE_LOCAL_DEFAULT || route->route_type == MVPN_MDT_ROUTE_LOCAL_DATA;
}
// Has the MRIB forget a route that is going to be freed with its VRF.
void mvpn_mdt_withdraw_route(mvpn_mdt_route *route);

// Entry builders; result: entries written at `entry`.
uint32_t mvpn_add_local_mdt_routes(const mvpn_mdt_route *route, uint8_t *entry);
uint32_t mvpn_add_remote_mdt_routes(const mvpn_mdt_route *route, uint8_t *entry);
uint32_t mvpn_delete_local_mdt_routes(const mvpn_mdt_route *route, uint8_t *entry);
uint32_t mvpn_delete_remote_mdt_routes(const mvpn_mdt_route *route, uint8_t *entry);

#endif  // MVPN_MDT_ROUTE_H
