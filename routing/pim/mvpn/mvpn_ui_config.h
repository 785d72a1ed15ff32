// Configuration commands.
#ifndef MVPN_UI_CONFIG_H
#define MVPN_UI_CONFIG_H

#include "routing/pim/mvpn/mvpn.h"

// The handlers, in registration order.
#define MVPN_CONFIG_HANDLERS(X)  \
  X(mdt_default_cmd)             \
  X(mdt_source_cmd)              \
  X(mdt_data_cmd)                \
  X(mdt_mtu_cmd)                 \
  X(mdt_data_bidir_enable_cmd)   \
  X(mdt_pim_hello_interval_cmd)  \
  X(mdt_pim_jp_interval_cmd)     \
  X(mdt_data_inhibit_reuse_cmd)  \
  X(mdt_asm_use_shared_tree_cmd) \
  X(mdt_enforce_bgp_mdt_safi_cmd)

#define DECLARE_HANDLER(handler) int handler(cli_command *command);
MVPN_CONFIG_HANDLERS(DECLARE_HANDLER)
#undef DECLARE_HANDLER

#endif  // MVPN_UI_CONFIG_H
