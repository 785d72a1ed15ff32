// Commands: configuration, show and SNMP handlers.
#ifndef MVPN_UI_H
#define MVPN_UI_H

#include "mvpn.h"

// The context that a configuration command addresses, or null.
mvpn_cibtype *mvpn_get_cib_from_cli(cli_command *command, uint32_t argument);

// Configuration handlers.
int mdt_default_cmd(cli_command *command);
int mdt_source_cmd(cli_command *command);
int mdt_data_cmd(cli_command *command);
int mdt_mtu_cmd(cli_command *command);
int mdt_data_bidir_enable_cmd(cli_command *command);
int mdt_pim_hello_interval_cmd(cli_command *command);
int mdt_pim_jp_interval_cmd(cli_command *command);
int mdt_data_inhibit_reuse_cmd(cli_command *command);
int mdt_asm_use_shared_tree_cmd(cli_command *command);
int mdt_enforce_bgp_mdt_safi_cmd(cli_command *command);

// Unbinds and frees every range of a VRF that is being destroyed.
void mvpn_free_data_mdt_ranges(mvpn_cibtype *mvpn);

// Show handlers. mvpn_show_clear_walk_all_vrfs calls the printer for every VRF and prints an empty line after each.
using mvpn_vrf_printer = int (*)(cli_command *command, mvpn_cibtype *mvpn);
int mvpn_show_clear_walk_all_vrfs(cli_command *command, mvpn_vrf_printer printer);
int mvpn_show_mdt_cmd(cli_command *command);
int mvpn_show_mdt_route_cmd(cli_command *command);
int mvpn_show_bgp_auto_discovery_cmd(cli_command *command);
int mvpn_show_mdt_bgp_cmd(cli_command *command);
int mvpn_show_mdt_encap_cmd(cli_command *command);
int mvpn_show_mdt_receive_cmd(cli_command *command);
int mvpn_show_mdt_send_cmd(cli_command *command);
int mvpn_show_mdt_send_history_cmd(cli_command *command);
int mvpn_show_internal_mrib_txlist_cmd(cli_command *command);
int mvpn_show_internal_ha_cmd(cli_command *command);
int mvpn_show_internal_state_cmd(cli_command *command);

// SNMP handlers, in registration order.
int mvpn_show_snmp_korva_mvpn_mvrf_number_command(cli_command *command);
int mvpn_show_snmp_korva_mvpn_notification_enable_command(cli_command *command);
int mvpn_show_snmp_korva_mvpn_mdt_default_table_command(cli_command *command);
int mvpn_show_snmp_korva_mvpn_mdt_data_table_command(cli_command *command);
int mvpn_show_snmp_korva_generic_table_command(cli_command *command);
int mvpn_show_snmp_korva_tunnel_table_command(cli_command *command);
int mvpn_show_snmp_korva_mroute_mdt_table_command(cli_command *command);
int mvpn_show_snmp_korva_mdt_jn_send_table_command(cli_command *command);
int mvpn_show_snmp_korva_mdt_jn_rcv_table_command(cli_command *command);
int mvpn_show_snmp_korva_bgp_mdt_update_table_command(cli_command *command);

#endif  // MVPN_UI_H
