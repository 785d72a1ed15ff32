// The tables in the order of their arcs. A column's arc is its place in a printed row, so that an index object that
// several tables share has its arc in each, although the MIB defines it in the first alone.
#include "host/snmp/tables.h"

#include "platform/cli_schema.h"

namespace host::snmp {
namespace {

constexpr Column column(int element, uint32_t arc, Syntax syntax) { return {element, arc, syntax}; }

Table default_table() {
  return {"korvaMvpnMdtDefaultTable",
          3,
          "mvpn_show_snmp_korva_mvpn_mdt_default_table_command",
          Walk::whole,
          {column(CLI_ELEMENT_MIB_DEFAULT_VRF, 1, Syntax::text)},
          {column(CLI_ELEMENT_MIB_DEFAULT_ADDR_TYPE, 2, Syntax::integer),
           column(CLI_ELEMENT_MIB_DEFAULT_ADDR, 3, Syntax::address),
           column(CLI_ELEMENT_MIB_DEFAULT_ENCAPS, 4, Syntax::integer),
           column(CLI_ELEMENT_MIB_DEFAULT_ROW_STATUS, 5, Syntax::integer)},
          {}};
}

Table data_table() {
  return {"korvaMvpnMdtDataTable",
          4,
          "mvpn_show_snmp_korva_mvpn_mdt_data_table_command",
          Walk::whole,
          {column(CLI_ELEMENT_MIB_DATA_VRF, 1, Syntax::text)},
          {column(CLI_ELEMENT_MIB_DATA_ADDR_TYPE, 2, Syntax::integer),
           column(CLI_ELEMENT_MIB_DATA_ADDR, 3, Syntax::address),
           column(CLI_ELEMENT_MIB_DATA_WILDCARD_TYPE, 4, Syntax::integer),
           column(CLI_ELEMENT_MIB_DATA_WILDCARD, 5, Syntax::address),
           column(CLI_ELEMENT_MIB_DATA_THRESHOLD, 6, Syntax::unsigned_number),
           column(CLI_ELEMENT_MIB_DATA_ROW_STATUS, 7, Syntax::integer)},
          {}};
}

Table generic_table() {
  return {"korvaMvpnGenericTable",
          5,
          "mvpn_show_snmp_korva_generic_table_command",
          Walk::whole,
          {column(CLI_ELEMENT_MIB_GENERIC_VRF, 1, Syntax::text)},
          {column(CLI_ELEMENT_MIB_GENERIC_CHANGE, 2, Syntax::integer),
           column(CLI_ELEMENT_MIB_GENERIC_CHANGE_TIME, 3, Syntax::instant),
           column(CLI_ELEMENT_MIB_GENERIC_INTERFACES, 4, Syntax::unsigned_number),
           column(CLI_ELEMENT_MIB_GENERIC_ROW_STATUS, 5, Syntax::integer)},
          {}};
}

Table tunnel_table() {
  return {"korvaMvpnTunnelTable",
          6,
          "mvpn_show_snmp_korva_tunnel_table_command",
          Walk::whole,
          {column(CLI_ELEMENT_MIB_TUNNEL_IF_INDEX, 1, Syntax::unsigned_number)},
          {column(CLI_ELEMENT_MIB_TUNNEL_NAME, 2, Syntax::text), column(CLI_ELEMENT_MIB_TUNNEL_VRF, 3, Syntax::text)},
          {}};
}

Table mroute_table() {
  return {"korvaMvpnMrouteMdtTable",
          7,
          "mvpn_show_snmp_korva_mroute_mdt_table_command",
          Walk::routes,
          {column(CLI_ELEMENT_MIB_MROUTE_VRF, 1, Syntax::text),
           column(CLI_ELEMENT_MIB_MROUTE_GROUP_TYPE, 2, Syntax::integer),
           column(CLI_ELEMENT_MIB_MROUTE_GROUP, 3, Syntax::address),
           column(CLI_ELEMENT_MIB_MROUTE_SOURCE_TYPE, 4, Syntax::integer),
           column(CLI_ELEMENT_MIB_MROUTE_SOURCE, 5, Syntax::address),
           column(CLI_ELEMENT_MIB_MROUTE_DIRECTION, 6, Syntax::integer)},
          {column(CLI_ELEMENT_MIB_MROUTE_MDT_TYPE, 7, Syntax::integer),
           column(CLI_ELEMENT_MIB_MROUTE_MDT_GROUP, 8, Syntax::address),
           column(CLI_ELEMENT_MIB_MROUTE_MDT_KIND, 9, Syntax::integer)},
          {}};
}

Table join_send_table() {
  return {"korvaMvpnMdtJnSendTable",
          8,
          "mvpn_show_snmp_korva_mdt_jn_send_table_command",
          Walk::listed,
          {column(CLI_ELEMENT_MIB_JN_SEND_VRF, 1, Syntax::text),
           column(CLI_ELEMENT_MIB_JN_SEND_GROUP_TYPE, 2, Syntax::integer),
           column(CLI_ELEMENT_MIB_JN_SEND_GROUP, 3, Syntax::address),
           column(CLI_ELEMENT_MIB_JN_SEND_SOURCE_TYPE, 4, Syntax::integer),
           column(CLI_ELEMENT_MIB_JN_SEND_SOURCE, 5, Syntax::address)},
          {column(CLI_ELEMENT_MIB_JN_SEND_MDT_GROUP, 6, Syntax::address),
           column(CLI_ELEMENT_MIB_JN_SEND_REFERENCES, 7, Syntax::unsigned_number)},
          Listing{"mvpn_show_mdt_send_cmd", true, CLI_ELEMENT_SENT_C_SOURCE, CLI_ELEMENT_SENT_C_GROUP}};
}

Table join_receive_table() {
  return {"korvaMvpnMdtJnRcvTable",
          9,
          "mvpn_show_snmp_korva_mdt_jn_rcv_table_command",
          Walk::per_vrf,
          {column(CLI_ELEMENT_MIB_JN_RCV_VRF, 1, Syntax::text),
           column(CLI_ELEMENT_MIB_JN_RCV_GROUP_TYPE, 2, Syntax::integer),
           column(CLI_ELEMENT_MIB_JN_RCV_GROUP, 3, Syntax::address),
           column(CLI_ELEMENT_MIB_JN_RCV_SOURCE_TYPE, 4, Syntax::integer),
           column(CLI_ELEMENT_MIB_JN_RCV_SOURCE, 5, Syntax::address)},
          {column(CLI_ELEMENT_MIB_JN_RCV_UP_TIME, 6, Syntax::ticks),
           column(CLI_ELEMENT_MIB_JN_RCV_EXP_TIME, 7, Syntax::ticks)},
          {}};
}

Table bgp_table() {
  return {
      "korvaMvpnBgpMdtUpdateTable",
      10,
      "mvpn_show_snmp_korva_bgp_mdt_update_table_command",
      Walk::listed,
      {column(CLI_ELEMENT_MIB_BGP_GROUP_TYPE, 1, Syntax::integer),
       column(CLI_ELEMENT_MIB_BGP_GROUP, 2, Syntax::address),
       column(CLI_ELEMENT_MIB_BGP_SOURCE_TYPE, 4, Syntax::integer),
       column(CLI_ELEMENT_MIB_BGP_SOURCE, 5, Syntax::address)},
      {column(CLI_ELEMENT_MIB_BGP_RD, 3, Syntax::text), column(CLI_ELEMENT_MIB_BGP_CONFIGURED_TYPE, 6, Syntax::integer),
       column(CLI_ELEMENT_MIB_BGP_CONFIGURED_GROUP, 7, Syntax::address),
       column(CLI_ELEMENT_MIB_BGP_USED_TYPE, 8, Syntax::integer),
       column(CLI_ELEMENT_MIB_BGP_USED_GROUP, 9, Syntax::address)},
      Listing{"mvpn_show_mdt_bgp_cmd", false, CLI_ELEMENT_SAFI_SOURCE, CLI_ELEMENT_SAFI_GROUP}};
}

}  // namespace

const std::vector<Table> &tables() {
  static const std::vector<Table> all = {default_table(), data_table(),      generic_table(),      tunnel_table(),
                                         mroute_table(),  join_send_table(), join_receive_table(), bgp_table()};
  return all;
}

const std::vector<Scalar> &scalars() {
  static const std::vector<Scalar> all = {
      {"korvaMvpnMvrfNumber", 1, "mvpn_show_snmp_korva_mvpn_mvrf_number_command", CLI_ELEMENT_MIB_MVRF_NUMBER,
       Syntax::unsigned_number},
      {"korvaMvpnNotificationEnable", 2, "mvpn_show_snmp_korva_mvpn_notification_enable_command",
       CLI_ELEMENT_MIB_NOTIFICATION_ENABLE, Syntax::integer}};
  return all;
}

const Table &default_mdt_table() { return tables().front(); }

std::string_view element_name(int element) {
  switch (element) {
#define ELEMENT_NAME(id, number, name, type, record, place, text) \
  case number:                                                    \
    return name;
    CLI_ELEMENT_LIST(ELEMENT_NAME)
#undef ELEMENT_NAME
    default:
      return {};
  }
}

std::string argument_name(int element) { return "<" + std::string(element_name(element)) + "-in>"; }

std::set<std::string> handlers_of_objects() {
  std::set<std::string> names;
  for (const Table &table : tables()) {
    names.insert(table.handler);
    if (table.listing) names.insert(table.listing->handler);
  }
  for (const Scalar &scalar : scalars()) names.insert(scalar.handler);
  return names;
}

}  // namespace host::snmp
