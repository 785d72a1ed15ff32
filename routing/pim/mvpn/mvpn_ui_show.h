// Show commands.
#ifndef MVPN_UI_SHOW_H
#define MVPN_UI_SHOW_H

#include "routing/pim/mvpn/mvpn.h"

// The handlers, in registration order.
#define MVPN_SHOW_HANDLERS(X)           \
  X(mvpn_show_mdt_cmd)                  \
  X(mvpn_show_mdt_route_cmd)            \
  X(mvpn_show_bgp_auto_discovery_cmd)   \
  X(mvpn_show_mdt_bgp_cmd)              \
  X(mvpn_show_mdt_encap_cmd)            \
  X(mvpn_show_mdt_receive_cmd)          \
  X(mvpn_show_mdt_send_cmd)             \
  X(mvpn_show_mdt_send_history_cmd)     \
  X(mvpn_show_internal_mrib_txlist_cmd) \
  X(mvpn_show_internal_ha_cmd)          \
  X(mvpn_show_internal_state_cmd)

#define DECLARE_HANDLER(handler) int handler(cli_command *command);
MVPN_SHOW_HANDLERS(DECLARE_HANDLER)
#undef DECLARE_HANDLER

#endif  // MVPN_UI_SHOW_H
