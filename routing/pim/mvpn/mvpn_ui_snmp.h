// SNMP commands: scalars and tables.
#ifndef MVPN_UI_SNMP_H
#define MVPN_UI_SNMP_H

#include "routing/pim/mvpn/mvpn.h"

// The handlers, in registration order.
#define MVPN_SNMP_HANDLERS(X)                              \
  X(mvpn_show_snmp_korva_mvpn_mvrf_number_command)         \
  X(mvpn_show_snmp_korva_mvpn_notification_enable_command) \
  X(mvpn_show_snmp_korva_mvpn_mdt_default_table_command)   \
  X(mvpn_show_snmp_korva_mvpn_mdt_data_table_command)      \
  X(mvpn_show_snmp_korva_generic_table_command)            \
  X(mvpn_show_snmp_korva_tunnel_table_command)             \
  X(mvpn_show_snmp_korva_mroute_mdt_table_command)         \
  X(mvpn_show_snmp_korva_mdt_jn_send_table_command)        \
  X(mvpn_show_snmp_korva_mdt_jn_rcv_table_command)         \
  X(mvpn_show_snmp_korva_bgp_mdt_update_table_command)

#define DECLARE_HANDLER(handler) int handler(cli_command *command);
MVPN_SNMP_HANDLERS(DECLARE_HANDLER)
#undef DECLARE_HANDLER

#endif  // MVPN_UI_SNMP_H
