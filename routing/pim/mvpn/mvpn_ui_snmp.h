// SNMP commands: scalars and tables.
#ifndef MVPN_UI_SNMP_H
#define MVPN_UI_SNMP_H

#include "platform/cli_mib.h"
#include "routing/pim/mvpn/mvpn.h"

// The handlers, in registration order.
#define MVPN_SNMP_SCALAR_HANDLER(X, id, number, arc, name, syntax, handler, text) X(handler)
#define MVPN_SNMP_TABLE_HANDLER(X, table, first, arc, name, handler, text) X(handler)
#define MVPN_SNMP_HANDLERS(X) \
  CLI_MIB_SCALAR_LIST(MVPN_SNMP_SCALAR_HANDLER, X) CLI_MIB_TABLE_LIST(MVPN_SNMP_TABLE_HANDLER, X)

#define DECLARE_HANDLER(handler) int handler(cli_command *command);
MVPN_SNMP_HANDLERS(DECLARE_HANDLER)
#undef DECLARE_HANDLER

#endif  // MVPN_UI_SNMP_H
