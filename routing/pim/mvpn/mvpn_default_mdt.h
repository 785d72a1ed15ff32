// The default MDT of a VRF: set-up, bring-up, teardown.
#ifndef MVPN_DEFAULT_MDT_H
#define MVPN_DEFAULT_MDT_H

#include "routing/pim/mvpn/mvpn.h"

// Requests for the tunnel; each leaves mti_status as the request wants it.
void mvpn_oim_tunnel_create(mvpn_cibtype *mvpn);
void mvpn_oim_bringup_tunnel(mvpn_cibtype *mvpn);
void mvpn_oim_bringdown_tunnel(mvpn_cibtype *mvpn);

// Set-up; the tunnel interface is up, is going down (vrf_down 1: so is the VRF); the group was removed from the
// configuration. The last two may free the context, and yield.
void mvpn_setup_default_mdt(mvpn_cibtype *mvpn);
void mvpn_default_tunnel_up(mvpn_cibtype *mvpn, im_iod_t mti_iod);
void mvpn_default_tunnel_down(mvpn_cibtype *mvpn, int vrf_down);
void mvpn_start_destroy_default_mdt(mvpn_cibtype *mvpn);

// Core routes of the default group: this PE's own, those of the remote PEs that BGP knows.
void mvpn_repopulate_default_mdt_route_from_local_cache(mvpn_cibtype *mvpn);
void mvpn_repopulate_default_mdt_routes_from_bgp_cache(mvpn_cibtype *mvpn);

// The tunnel manager has created, deleted, changed the VRF's tunnel; the MRIB worker has written the VRF's routes. The
// context may be gone afterwards.
void mvpn_default_tunnel_created(mvpn_cibtype *mvpn);
void mvpn_default_tunnel_deleted(mvpn_cibtype *mvpn);
void mvpn_default_tunnel_updated(mvpn_cibtype *mvpn, im_iod_t iod);
void mvpn_default_mdt_routes_written(mvpn_cibtype *mvpn);

// Takes over what the source interface is and has: 1 when its address changed.
int mvpn_update_mdt_source_info(mvpn_cibtype *mvpn, im_iod_t iod);

#endif  // MVPN_DEFAULT_MDT_H
