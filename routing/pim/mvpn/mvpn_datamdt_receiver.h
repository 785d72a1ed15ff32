// Received announcements, and what they are installed for.
#ifndef MVPN_DATAMDT_RECEIVER_H
#define MVPN_DATAMDT_RECEIVER_H

#include "routing/pim/mvpn/mvpn.h"

constexpr uint32_t MVPN_RECV_KEY_BYTES = 12;  // customer group, customer source, provider source; network byte order

extern pt_attr *mvpn_data_mdt_info_pt_attr;  // of every VRF's receive cache

// An announcement was heard from a PE. True: it was new, so that others may have run and the VRF have gone. destroy:
// the core route of a data MDT goes with its last referer. cache: the announcements of one PE, 0: of every PE; yields.
bool mvpn_add_data_mdt_recv_join_info(mvpn_cibtype *mvpn, const mvpn_data_mdt_join &join, ip_addr_t p_src);
void mvpn_destroy_data_mdt_recv_join_info(mvpn_cibtype *mvpn, mvpn_data_mdt_recv_join_info *record);
void mvpn_destroy_data_mdt_recv_cache(mvpn_cibtype *mvpn, ip_addr_t p_src);

// Whether announcements may be installed for a customer route at present; whether any is.
int mvpn_should_install_remote_data_mdt(const pim_route *croute, const mvpn_cibtype *mvpn);
bool mvpn_is_announcement_installed_for(mvpn_cibtype *mvpn, const pim_route *croute, const mvpn_mdt_route_addrs *key);

// A customer route gains, loses its interest in announced flows.
int mvpn_data_mdt_map_receiver_to_remote_source(mvpn_cibtype *mvpn, pim_route *croute, const mvpn_mdt_route_addrs *key);
void mvpn_data_mdt_unmap_receiver_from_remote_source(mvpn_cibtype *mvpn, pim_route *croute,
                                                     const mvpn_mdt_route_addrs *key);

// Has announcements forget a core route that does not list them. Yields.
void mvpn_mdt_route_cleanup_recv_join_info(mvpn_mdt_route *route);

#endif  // MVPN_DATAMDT_RECEIVER_H
