// The walk of the show commands, for tests.
#ifndef MVPN_UI_SHOW_INTERNAL_H
#define MVPN_UI_SHOW_INTERNAL_H

#include "routing/pim/mvpn/mvpn_ui_show.h"

// Calls the printer (null: none) for every VRF and prints an empty line after each.
using mvpn_vrf_printer = int (*)(cli_command *command, mvpn_cibtype *mvpn);
int mvpn_show_clear_walk_all_vrfs(cli_command *command, mvpn_vrf_printer printer);

#endif  // MVPN_UI_SHOW_INTERNAL_H
