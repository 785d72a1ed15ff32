// Single steps of the life of a core route, for tests.
#ifndef MVPN_MDT_ROUTE_INTERNAL_H
#define MVPN_MDT_ROUTE_INTERNAL_H

#include "routing/pim/mvpn/mvpn_mdt_route.h"

// Puts a route into the table; does not look for an existing record. Null after a report.
mvpn_mdt_route *mvpn_mdt_mroute_add(mvpn_cibtype *mvpn, mvpn_mdt_route_type_t route_type, mvpn_mdt_group_mode_t mode,
                                    ip_addr_t source, ip_addr_t group);
// Forgets the referers without releasing them, as if memory had run out when they were linked.
void mvpn_mdt_mroute_delink_all_referers(mvpn_mdt_route *route);
// One entry of an MRIB update.
void mvpn_setup_mdt_mroute_ipc(uint8_t *entry, int add, vrf_context_id_t context_id, ip_addr_t group, ip_addr_t source,
                               ip_addr_t rpf_addr, uint32_t add_owner, im_iod_t mti_iod, int asm_shared_tree,
                               im_iod_t mdt_source_iod, uint32_t owner, int local, int mti_iod_set, int last_hop,
                               uint8_t teardown);

#endif  // MVPN_MDT_ROUTE_INTERNAL_H
