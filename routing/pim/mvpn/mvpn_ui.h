// Commands: configuration, show and SNMP handlers.
#ifndef MVPN_UI_H
#define MVPN_UI_H

#include "routing/pim/mvpn/mvpn.h"

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

// Rows of the SNMP tables: each prints the columns of one row.
void mvpn_show_snmp_korva_mvpn_default_table_cmd(cli_command *command, const mvpn_cibtype *mvpn);
void mvpn_show_snmp_korva_mvpn_data_table_cmd(cli_command *command, const mvpn_cibtype *mvpn);
void mvpn_show_snmp_mvpn_generic_table_show(cli_command *command, const mvpn_cibtype *mvpn);
void mvpn_show_snmp_mvpn_mroute_mdt_table_cmd(cli_command *command, const mvpn_cibtype *mvpn,
                                              const mvpn_mdt_route *route);
void mvpn_show_snmp_vrf_mdt_send_cmd(cli_command *command, const mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs &addrs,
                                     const mvpn_data_mdt_send_join_info &join);
void mvpn_show_snmp_korva_mvpn_mdt_jn_rcv_table_cmd(cli_command *command, const mvpn_cibtype *mvpn,
                                                    const mvpn_data_mdt_recv_join_info &join);
// Prints nothing when no VRF uses the entry's group.
void mvpn_show_snmp_mvpn_bgp_mdt_update_table_cmd(cli_command *command, const mvpn_bgp_mdt_safi *entry);

// Index of a row: of the core-route table, of the tables of announcements (direction unused). An argument that is
// absent counts as no VRF name, 0, or direction 1.
struct mvpn_snmp_index {
  const char *vrf_name = nullptr;
  ip_addr_t group = 0;
  ip_addr_t source = 0;
  int32_t direction = 1;   // 1: local route, 2: remote route
  int32_t group_type = 0;  // address types: address_type_val() in every row
  int32_t source_type = 0;
};

// Walkers: get prints the row of an index, next the row behind it, in the VRF and those after it. Results: as the
// handlers'; get_first CLI_RESULT_REJECTED when the VRF has no row, get of the core-route table when the named PIM
// context has no MVPN. All but the core-route get may yield.
int mvpn_show_mvpn_mroute_mdt_table_get(cli_command *command, const mvpn_snmp_index &index);
int mvpn_show_mvpn_mroute_mdt_table_next(cli_command *command, const mvpn_snmp_index &index);
int mvpn_show_snmp_vrf_mdt_send_get(cli_command *command, const mvpn_snmp_index &index);
int mvpn_show_snmp_vrf_mdt_send_get_first(cli_command *command, mvpn_cibtype *mvpn);
int mvpn_show_snmp_vrf_mdt_send_get_next(cli_command *command, const mvpn_snmp_index &index);

// PIM interfaces of a VRF; the address type of IPv4.
uint32_t mvpn_snmp_generic_table_get_vrf_interface(pim_cibtype *pcib);
int address_type_val();

#endif  // MVPN_UI_H
