// What is asked of the tunnel manager.
#ifndef MVPN_OIM_H
#define MVPN_OIM_H

#include "routing/pim/mvpn/mvpn.h"

// Bare requests; 1 when sent. What they mean for mti_status is the default MDT's.
int mvpn_oim_send_create(mvpn_cibtype *mvpn, if_index_t if_index, im_iod_t iod);
int mvpn_oim_refresh_parameters(mvpn_cibtype *mvpn, im_iod_t iod);  // all that the VRF has now, for an existing tunnel
int mvpn_oim_send_delete(mvpn_cibtype *mvpn);

// Nothing when the VRF has no tunnel.
void mvpn_oim_tunnel_update_source(mvpn_cibtype *mvpn);
void mvpn_oim_tunnel_update_mtu(mvpn_cibtype *mvpn);

// For a tunnel that no VRF owns.
void mvpn_oim_orphan_tunnel_delete(if_index_t if_index);

#endif  // MVPN_OIM_H
