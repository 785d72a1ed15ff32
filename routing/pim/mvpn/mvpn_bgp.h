// What BGP tells: remote MDT SAFI entries, route distinguishers, the update source.
#ifndef MVPN_BGP_H
#define MVPN_BGP_H

#include "routing/pim/mvpn/mvpn.h"

// Connection to BGP. init: 0 after a report. It asks for the update source and every VRF's route distinguisher.
int mvpn_init_bgp();
void mvpn_deinit_bgp();

// Asks for the update source unless its name is known, and resolves its interface.
void mvpn_bgp_resolve_update_src();

// Remote entries. receive: payload of payload_length bytes, entries beyond it are refused; 1. request: all of them
// anew; 0 when it was not sent.
int mvpn_bgp_mdt_safi_receive_remote_update(const void *payload, size_t payload_length);
int mvpn_request_remote_mdt_safis();

// Notifications.
void mvpn_bgp_process_rd_notify(mts_message *msg);
void mvpn_bgp_process_update_src_notify(mts_message *msg);

#endif  // MVPN_BGP_H
