// What the tunnel manager tells.
#ifndef MVPN_TUNNEL_EVENTS_H
#define MVPN_TUNNEL_EVENTS_H

#include "routing/pim/mvpn/mvpn.h"

// Registration; init: 0 after a report. It requests the MTI of every configured VRF that has none, once the
// configuration replay has ended.
int mvpn_init_oim();
void mvpn_deinit_oim();

void mvpn_oim_process_create_response(mts_message *msg);
void mvpn_oim_process_delete_response(mts_message *msg);
void mvpn_oim_process_update_response(mts_message *msg);

#endif  // MVPN_TUNNEL_EVENTS_H
