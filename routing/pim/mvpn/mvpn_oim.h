// Tunnel interface management: requests to the tunnel manager and its answers.
#ifndef MVPN_OIM_H
#define MVPN_OIM_H

#include "routing/pim/mvpn/mvpn.h"

int mvpn_init_oim();
void mvpn_deinit_oim();

// Requests the MTI of every configured VRF that has none; does nothing before the end of the configuration replay.
void mvpn_get_oim_info();

// Appends an interface and its wanted parameters, with the context's values, to a zero-filled list of size bytes.
// 0 after a report when the list is full: it is then not to be sent.
struct mvpn_oim_params {
  bool admin = false;
  bool vrf_name = false;
  bool mtu = false;
  bool source = false;
  bool destination = false;
};
int mvpn_oim_populate_if_list(mvpn_cibtype *mvpn, void *list, uint32_t size, if_index_t if_index,
                              const mvpn_oim_params &params, im_iod_t iod);

// Bare requests; 1 when sent. What they mean for mti_status is the default MDT's.
int mvpn_oim_send_create(mvpn_cibtype *mvpn, if_index_t if_index, im_iod_t iod);
int mvpn_oim_refresh_parameters(mvpn_cibtype *mvpn, im_iod_t iod);  // all that the VRF has now, for an existing tunnel
int mvpn_oim_send_delete(mvpn_cibtype *mvpn);

// Requests; each leaves mti_status as the request wants it.
void mvpn_oim_tunnel_create(mvpn_cibtype *mvpn);
void mvpn_oim_bringup_tunnel(mvpn_cibtype *mvpn);
void mvpn_oim_bringdown_tunnel(mvpn_cibtype *mvpn);
void mvpn_oim_tunnel_update_source(mvpn_cibtype *mvpn);
void mvpn_oim_tunnel_update_mtu(mvpn_cibtype *mvpn);
void mvpn_oim_tunnel_delete(mvpn_cibtype *mvpn);
void mvpn_oim_orphan_tunnel_delete(if_index_t if_index);

// Responses.
void mvpn_oim_process_create_response(mts_message *msg);
void mvpn_oim_process_delete_response(mts_message *msg);
void mvpn_oim_process_update_response(mts_message *msg);

#endif  // MVPN_OIM_H
