// The default MDT of a VRF: set-up, bring-up, teardown, and what a change of its source does.
#ifndef MVPN_DEFAULT_MDT_H
#define MVPN_DEFAULT_MDT_H

#include "routing/pim/mvpn/mvpn.h"

// Set-up; the tunnel interface is up, is going down (vrf_down 1: so is the VRF); the group
// was removed from the configuration; the last step, after which the context is gone.
void mvpn_setup_default_mdt(mvpn_cibtype *mvpn);
void mvpn_default_tunnel_up(mvpn_cibtype *mvpn, im_iod_t mti_iod);
void mvpn_default_tunnel_down(mvpn_cibtype *mvpn, int vrf_down);
void mvpn_start_destroy_default_mdt(mvpn_cibtype *mvpn);
void mvpn_finish_destroy_default_mdt(mvpn_cibtype *mvpn);
void mvpn_repopulate_default_mdt_route_from_local_cache(mvpn_cibtype *mvpn);

void mvpn_repopulate_default_mdt_routes_from_bgp_cache(mvpn_cibtype *mvpn);

// The tunnel manager has created, deleted, changed the VRF's tunnel; the MRIB worker has written the VRF's routes. The
// context may be gone afterwards.
void mvpn_default_tunnel_created(mvpn_cibtype *mvpn);
void mvpn_default_tunnel_deleted(mvpn_cibtype *mvpn);
void mvpn_default_tunnel_updated(mvpn_cibtype *mvpn, im_iod_t iod);
void mvpn_default_mdt_routes_written(mvpn_cibtype *mvpn);

// MDT source: refresh (1 when the address changed); refresh and act on the tunnel; BGP's update source is now iod.
int mvpn_update_mdt_source_info(mvpn_cibtype *mvpn, im_iod_t iod);
void mvpn_process_mdt_source_change(mvpn_cibtype *mvpn, im_iod_t iod);
void mvpn_process_bgp_update_source_change(im_iod_t iod);

#endif  // MVPN_DEFAULT_MDT_H
