/* Objects of the MIB: the scalars and tables whose values SNMP handlers print.
 *
 * The one list for all that has to agree: the elements that the handlers record under (cli_schema.h), the names of the
 * handlers, the arguments in which an agent gives them an index, and the objects that the agent serves. The MIB module
 * for network managers is compared with it.
 *
 * A list calls ROW(X, ...) for each row. X is passed through, for a ROW that makes the row of another list of it. */
#ifndef PLATFORM_CLI_MIB_H
#define PLATFORM_CLI_MIB_H

/* What an object's value is: constant, SMI type. An interface is given by its name. Ticks are a span and an instant is
 * a time of the module's clock, both in hundredths of a second; an agent serves the latter as sysUpTime was then. */
#define CLI_MIB_SYNTAX_LIST(ROW)         \
  ROW(CLI_MIB_TEXT, "OCTET STRING")      \
  ROW(CLI_MIB_INTERFACE, "OCTET STRING") \
  ROW(CLI_MIB_ADDRESS, "IpAddress")      \
  ROW(CLI_MIB_INTEGER, "INTEGER")        \
  ROW(CLI_MIB_UNSIGNED, "Unsigned32")    \
  ROW(CLI_MIB_GAUGE, "Gauge32")          \
  ROW(CLI_MIB_TICKS, "TimeTicks")        \
  ROW(CLI_MIB_INSTANT, "TimeTicks")

/* Scalars: element and its number, arc under the MIB's objects, name, syntax, handler, description. */
#define CLI_MIB_SCALAR_LIST(ROW, X)                                                          \
  ROW(X, CLI_ELEMENT_MIB_MVRF_NUMBER, 20, 1, "korvaMvpnMvrfNumber", GAUGE,                   \
      mvpn_show_snmp_korva_mvpn_mvrf_number_command, "VRFs with a default MDT group.")       \
  ROW(X, CLI_ELEMENT_MIB_NOTIFICATION_ENABLE, 21, 2, "korvaMvpnNotificationEnable", INTEGER, \
      mvpn_show_snmp_korva_mvpn_notification_enable_command, "Whether notifications are sent: 1 yes, 2 no.")

/* Tables: name here, number of the first column's element, arc under the MIB's objects, name without "Table" or
 * "Entry", handler, description. The record of a row is CLI_RECORD_MIB_ and the name here. */
#define CLI_MIB_TABLE_LIST(ROW, X)                                                                                  \
  ROW(X, DEFAULT, 2000, 3, "korvaMvpnMdtDefault", mvpn_show_snmp_korva_mvpn_mdt_default_table_command,              \
      "SNMP: default MDT of a VRF.")                                                                                \
  ROW(X, DATA, 2100, 4, "korvaMvpnMdtData", mvpn_show_snmp_korva_mvpn_mdt_data_table_command,                       \
      "SNMP: first data-MDT range of a VRF.")                                                                       \
  ROW(X, GENERIC, 2200, 5, "korvaMvpnGeneric", mvpn_show_snmp_korva_generic_table_command, "SNMP: state of a VRF.") \
  ROW(X, TUNNEL, 2300, 6, "korvaMvpnTunnel", mvpn_show_snmp_korva_tunnel_table_command,                             \
      "SNMP: tunnel interface of a VRF.")                                                                           \
  ROW(X, MROUTE, 2400, 7, "korvaMvpnMrouteMdt", mvpn_show_snmp_korva_mroute_mdt_table_command,                      \
      "SNMP: core route of a VRF.")                                                                                 \
  ROW(X, JN_SEND, 2500, 8, "korvaMvpnMdtJnSend", mvpn_show_snmp_korva_mdt_jn_send_table_command,                    \
      "SNMP: flow sent on a data MDT.")                                                                             \
  ROW(X, JN_RCV, 2600, 9, "korvaMvpnMdtJnRcv", mvpn_show_snmp_korva_mdt_jn_rcv_table_command,                       \
      "SNMP: announced data MDT.")                                                                                  \
  ROW(X, BGP, 2700, 10, "korvaMvpnBgpMdtUpdate", mvpn_show_snmp_korva_bgp_mdt_update_table_command,                 \
      "SNMP: MDT SAFI entry.")

/* Columns: element, table, arc under the table's entry, name, syntax, place in the table's index, description. A row is
 * printed in the order of the arcs, which follow each other from 1, and elements are numbered alike. A handler reads
 * the part of an index from the argument "<NAME-in>"; the parts stand in an object identifier by arc. */
#define CLI_MIB_COLUMN_LIST(ROW, X)                                                                                    \
  ROW(X, CLI_ELEMENT_MIB_DEFAULT_VRF, DEFAULT, 1, "mplsVpnVrfName", TEXT, INDEX_VRF, "Index: VRF.")                    \
  ROW(X, CLI_ELEMENT_MIB_DEFAULT_ADDR_TYPE, DEFAULT, 2, "korvaMvpnMdtDefaultAddrType", INTEGER, VALUE, "1: IPv4.")     \
  ROW(X, CLI_ELEMENT_MIB_DEFAULT_ADDR, DEFAULT, 3, "korvaMvpnMdtDefaultAddr", ADDRESS, VALUE, "Default MDT group.")    \
  ROW(X, CLI_ELEMENT_MIB_DEFAULT_ENCAPS, DEFAULT, 4, "korvaMvpnMdtDefaultEncapsType", INTEGER, VALUE, "1: GRE.")       \
  ROW(X, CLI_ELEMENT_MIB_DEFAULT_ROW_STATUS, DEFAULT, 5, "korvaMvpnMdtDefaultRowStatus", INTEGER, VALUE, "1: active.") \
  ROW(X, CLI_ELEMENT_MIB_DATA_VRF, DATA, 1, "mplsVpnVrfName", TEXT, INDEX_VRF, "Index: VRF.")                          \
  ROW(X, CLI_ELEMENT_MIB_DATA_ADDR_TYPE, DATA, 2, "korvaMvpnMdtDataAddrType", INTEGER, VALUE, "1: IPv4.")              \
  ROW(X, CLI_ELEMENT_MIB_DATA_ADDR, DATA, 3, "korvaMvpnMdtDataAddr", ADDRESS, VALUE, "First group of the range.")      \
  ROW(X, CLI_ELEMENT_MIB_DATA_WILDCARD_TYPE, DATA, 4, "korvaMvpnMdtDataWildcardType", INTEGER, VALUE, "1: IPv4.")      \
  ROW(X, CLI_ELEMENT_MIB_DATA_WILDCARD, DATA, 5, "korvaMvpnMdtDataWildcard", ADDRESS, VALUE,                           \
      "Wildcard mask of the range.")                                                                                   \
  ROW(X, CLI_ELEMENT_MIB_DATA_THRESHOLD, DATA, 6, "korvaMvpnMdtDataThreshold", UNSIGNED, VALUE, "Threshold, kbit/s.")  \
  ROW(X, CLI_ELEMENT_MIB_DATA_ROW_STATUS, DATA, 7, "korvaMvpnMdtDataRowStatus", INTEGER, VALUE, "1: active.")          \
  ROW(X, CLI_ELEMENT_MIB_GENERIC_VRF, GENERIC, 1, "mplsVpnVrfName", TEXT, INDEX_VRF, "Index: VRF.")                    \
  ROW(X, CLI_ELEMENT_MIB_GENERIC_CHANGE, GENERIC, 2, "korvaMvpnGenOperStatusChange", INTEGER, VALUE,                   \
      "Last change: 1 created, 3 default MDT, 4 data MDT.")                                                            \
  ROW(X, CLI_ELEMENT_MIB_GENERIC_CHANGE_TIME, GENERIC, 3, "korvaMvpnGenOperChangeTime", INSTANT, VALUE,                \
      "When that was.")                                                                                                \
  ROW(X, CLI_ELEMENT_MIB_GENERIC_INTERFACES, GENERIC, 4, "korvaMvpnGenAssociatedInterfaces", GAUGE, VALUE,             \
      "PIM interfaces of the VRF.")                                                                                    \
  ROW(X, CLI_ELEMENT_MIB_GENERIC_ROW_STATUS, GENERIC, 5, "korvaMvpnGenRowStatus", INTEGER, VALUE, "1: active.")        \
  ROW(X, CLI_ELEMENT_MIB_TUNNEL_IF_INDEX, TUNNEL, 1, "ifIndex", UNSIGNED, INDEX_IF_INDEX, "Index: tunnel interface.")  \
  ROW(X, CLI_ELEMENT_MIB_TUNNEL_NAME, TUNNEL, 2, "korvaMvpnTunnelName", INTERFACE, VALUE,                              \
      "Name of the tunnel interface.")                                                                                 \
  ROW(X, CLI_ELEMENT_MIB_TUNNEL_VRF, TUNNEL, 3, "mplsVpnVrfName", TEXT, VALUE, "VRF.")                                 \
  ROW(X, CLI_ELEMENT_MIB_MROUTE_VRF, MROUTE, 1, "mplsVpnVrfName", TEXT, INDEX_VRF, "Index: VRF.")                      \
  ROW(X, CLI_ELEMENT_MIB_MROUTE_GROUP_TYPE, MROUTE, 2, "korvaMvpnMrouteMvrfGrpAddrType", INTEGER, INDEX_GROUP_TYPE,    \
      "Index: 1, IPv4.")                                                                                               \
  ROW(X, CLI_ELEMENT_MIB_MROUTE_GROUP, MROUTE, 3, "korvaMvpnMrouteMvrfGroup", ADDRESS, INDEX_GROUP,                    \
      "Index: group of the route.")                                                                                    \
  ROW(X, CLI_ELEMENT_MIB_MROUTE_SOURCE_TYPE, MROUTE, 4, "korvaMvpnMrouteMvrfSrcAddrType", INTEGER, INDEX_SOURCE_TYPE,  \
      "Index: 1, IPv4.")                                                                                               \
  ROW(X, CLI_ELEMENT_MIB_MROUTE_SOURCE, MROUTE, 5, "korvaMvpnMrouteMvrfSource", ADDRESS, INDEX_SOURCE,                 \
      "Index: source of the route.")                                                                                   \
  ROW(X, CLI_ELEMENT_MIB_MROUTE_DIRECTION, MROUTE, 6, "korvaMvpnMrouteUpDownStreamInfo", INTEGER, INDEX_DIRECTION,     \
      "Index: 1 upstream, 2 downstream.")                                                                              \
  ROW(X, CLI_ELEMENT_MIB_MROUTE_MDT_TYPE, MROUTE, 7, "korvaMvpnMrouteMdtGrpAddrType", INTEGER, VALUE, "1: IPv4.")      \
  ROW(X, CLI_ELEMENT_MIB_MROUTE_MDT_GROUP, MROUTE, 8, "korvaMvpnMrouteMdtGroup", ADDRESS, VALUE,                       \
      "Default MDT group of the VRF.")                                                                                 \
  ROW(X, CLI_ELEMENT_MIB_MROUTE_MDT_KIND, MROUTE, 9, "korvaMvpnMrouteMdtType", INTEGER, VALUE,                         \
      "1 default MDT, 2 data MDT.")                                                                                    \
  ROW(X, CLI_ELEMENT_MIB_JN_SEND_VRF, JN_SEND, 1, "mplsVpnVrfName", TEXT, INDEX_VRF, "Index: VRF.")                    \
  ROW(X, CLI_ELEMENT_MIB_JN_SEND_GROUP_TYPE, JN_SEND, 2, "korvaMvpnMdtJnSendGrpAddrType", INTEGER, INDEX_GROUP_TYPE,   \
      "Index: 1, IPv4.")                                                                                               \
  ROW(X, CLI_ELEMENT_MIB_JN_SEND_GROUP, JN_SEND, 3, "korvaMvpnMdtJnSendGroup", ADDRESS, INDEX_GROUP,                   \
      "Index: customer group.")                                                                                        \
  ROW(X, CLI_ELEMENT_MIB_JN_SEND_SOURCE_TYPE, JN_SEND, 4, "korvaMvpnMdtJnSendSrcAddrType", INTEGER, INDEX_SOURCE_TYPE, \
      "Index: 1, IPv4.")                                                                                               \
  ROW(X, CLI_ELEMENT_MIB_JN_SEND_SOURCE, JN_SEND, 5, "korvaMvpnMdtJnSendSource", ADDRESS, INDEX_SOURCE,                \
      "Index: customer source.")                                                                                       \
  ROW(X, CLI_ELEMENT_MIB_JN_SEND_MDT_GROUP, JN_SEND, 6, "korvaMvpnMdtJnSendMdtGroup", ADDRESS, VALUE,                  \
      "Data-MDT group of the flow.")                                                                                   \
  ROW(X, CLI_ELEMENT_MIB_JN_SEND_REFERENCES, JN_SEND, 7, "korvaMvpnMdtJnSendMdtRefCount", GAUGE, VALUE,                \
      "Flows on that group.")                                                                                          \
  ROW(X, CLI_ELEMENT_MIB_JN_RCV_VRF, JN_RCV, 1, "mplsVpnVrfName", TEXT, INDEX_VRF, "Index: VRF.")                      \
  ROW(X, CLI_ELEMENT_MIB_JN_RCV_GROUP_TYPE, JN_RCV, 2, "korvaMvpnMdtJnRcvGrpAddrType", INTEGER, INDEX_GROUP_TYPE,      \
      "Index: 1, IPv4.")                                                                                               \
  ROW(X, CLI_ELEMENT_MIB_JN_RCV_GROUP, JN_RCV, 3, "korvaMvpnMdtJnRcvGroup", ADDRESS, INDEX_GROUP,                      \
      "Index: data-MDT group.")                                                                                        \
  ROW(X, CLI_ELEMENT_MIB_JN_RCV_SOURCE_TYPE, JN_RCV, 4, "korvaMvpnMdtJnRcvSrcAddrType", INTEGER, INDEX_SOURCE_TYPE,    \
      "Index: 1, IPv4.")                                                                                               \
  ROW(X, CLI_ELEMENT_MIB_JN_RCV_SOURCE, JN_RCV, 5, "korvaMvpnMdtJnRcvSource", ADDRESS, INDEX_SOURCE,                   \
      "Index: announcing PE.")                                                                                         \
  ROW(X, CLI_ELEMENT_MIB_JN_RCV_UP_TIME, JN_RCV, 6, "korvaMvpnMdtJnRcvUpTime", TICKS, VALUE,                           \
      "Time since the first announcement.")                                                                            \
  ROW(X, CLI_ELEMENT_MIB_JN_RCV_EXP_TIME, JN_RCV, 7, "korvaMvpnMdtJnRcvExpTime", TICKS, VALUE,                         \
      "Time until it lapses.")                                                                                         \
  ROW(X, CLI_ELEMENT_MIB_BGP_GROUP_TYPE, BGP, 1, "korvaMvpnBgpMdtUpdGrpAddrType", INTEGER, INDEX_GROUP_TYPE,           \
      "Index: 1, IPv4.")                                                                                               \
  ROW(X, CLI_ELEMENT_MIB_BGP_GROUP, BGP, 2, "korvaMvpnBgpMdtUpdateGroup", ADDRESS, INDEX_GROUP,                        \
      "Index: announced default MDT group.")                                                                           \
  ROW(X, CLI_ELEMENT_MIB_BGP_RD, BGP, 3, "korvaMvpnBgpMdtUpdateRd", TEXT, VALUE,                                       \
      "Route distinguisher of the announcing VRF.")                                                                    \
  ROW(X, CLI_ELEMENT_MIB_BGP_SOURCE_TYPE, BGP, 4, "korvaMvpnBgpMdtUpdSrcAddrType", INTEGER, INDEX_SOURCE_TYPE,         \
      "Index: 1, IPv4.")                                                                                               \
  ROW(X, CLI_ELEMENT_MIB_BGP_SOURCE, BGP, 5, "korvaMvpnBgpMdtUpdateSource", ADDRESS, INDEX_SOURCE,                     \
      "Index: announcing PE.")                                                                                         \
  ROW(X, CLI_ELEMENT_MIB_BGP_CONFIGURED_TYPE, BGP, 6, "korvaMvpnBgpMdtUpdConfGrpAddrType", INTEGER, VALUE, "1: IPv4.") \
  ROW(X, CLI_ELEMENT_MIB_BGP_CONFIGURED_GROUP, BGP, 7, "korvaMvpnBgpMdtUpdateConfGroup", ADDRESS, VALUE,               \
      "Default MDT group of the VRF that uses it, as configured.")                                                     \
  ROW(X, CLI_ELEMENT_MIB_BGP_USED_TYPE, BGP, 8, "korvaMvpnBgpMdtUpdUsedGrpAddrType", INTEGER, VALUE, "1: IPv4.")       \
  ROW(X, CLI_ELEMENT_MIB_BGP_USED_GROUP, BGP, 9, "korvaMvpnBgpMdtUpdateUsedGroup", ADDRESS, VALUE,                     \
      "Default MDT group of the VRF that uses it, as in use.")

/* Number of the first column's element of a table. */
#define CLI_MIB_FIRST_ELEMENT(X, table, first, arc, name, handler, text) CLI_MIB_FIRST_##table = first,
enum { CLI_MIB_TABLE_LIST(CLI_MIB_FIRST_ELEMENT, ) };

#define CLI_MIB_SYNTAX_CONSTANT(id, smi) id,
enum cli_mib_syntax { CLI_MIB_SYNTAX_LIST(CLI_MIB_SYNTAX_CONSTANT) };

/* Place of a column in an index; CLI_MIB_VALUE: not part of it. The types are those of addresses, 1 for IPv4. */
enum cli_mib_place {
  CLI_MIB_VALUE = 0,
  CLI_MIB_INDEX_VRF,
  CLI_MIB_INDEX_IF_INDEX,
  CLI_MIB_INDEX_GROUP_TYPE,
  CLI_MIB_INDEX_GROUP,
  CLI_MIB_INDEX_SOURCE_TYPE,
  CLI_MIB_INDEX_SOURCE,
  CLI_MIB_INDEX_DIRECTION,
};

/* Rows of the output schema. */
#define CLI_MIB_TYPE_TEXT CLI_TYPE_STRING
#define CLI_MIB_TYPE_INTERFACE CLI_TYPE_INTERFACE
#define CLI_MIB_TYPE_ADDRESS CLI_TYPE_ADDRESS
#define CLI_MIB_TYPE_INTEGER CLI_TYPE_NUMBER
#define CLI_MIB_TYPE_UNSIGNED CLI_TYPE_NUMBER
#define CLI_MIB_TYPE_GAUGE CLI_TYPE_NUMBER
#define CLI_MIB_TYPE_TICKS CLI_TYPE_NUMBER
#define CLI_MIB_TYPE_INSTANT CLI_TYPE_NUMBER
#define CLI_MIB_SCALAR_ELEMENT(X, id, number, arc, name, syntax, handler, text) \
  X(id, number, name, CLI_MIB_TYPE_##syntax, CLI_RECORD_DOCUMENT, CLI_FIELD, text)
#define CLI_MIB_TABLE_RECORD(X, table, first, arc, name, handler, text) \
  X(CLI_RECORD_MIB_##table, name "Entry", CLI_RECORD_DOCUMENT, text)
#define CLI_MIB_COLUMN_ELEMENT(X, id, table, arc, name, syntax, place, text)                    \
  X(id, (CLI_MIB_FIRST_##table + (arc)-1), name, CLI_MIB_TYPE_##syntax, CLI_RECORD_MIB_##table, \
    ((arc) == 1 ? CLI_BEGINS : CLI_FIELD), text)

#endif /* PLATFORM_CLI_MIB_H */
