// The host's own views: what each of them shows.
//
// A view is a table. One description of its columns serves the text form's heading and widths, the record that the rows
// are in a document, and with it the schema files. Numbers of elements follow those of cli_schema.h and obey the same
// rules: a column keeps its number, a new one takes a number that was never used.
#ifndef HOST_OUTPUT_VIEW_H
#define HOST_OUTPUT_VIEW_H

#include <span>

#include "platform/cli_schema.h"

namespace output {

struct View;

struct Column {
  int number;  // of the element; 0: a list, whose items are records of their own
  const char *name;
  cli_type type;
  const char *description;
  const char *title = nullptr;                                // in the text form's heading
  int width = 0;                                              // there; 0: as wide as the value
  enum class Form { plain, hexadecimal } form = Form::plain;  // of numbers in text
  bool only_in_detail = false;
  const View *items = nullptr;  // what a list consists of
};

struct View {
  const char *record;  // name of a row in documents
  const char *description;
  std::span<const Column> columns;  // every row has the first
  const char *title = nullptr;      // in text, above the heading
};

// A list's column: in text its items stand behind each other.
constexpr Column list_of(const View &items, const char *title, int width) {
  return {.number = 0,
          .name = items.record,
          .type = CLI_TYPE_STRING,
          .description = items.description,
          .title = title,
          .width = width,
          .items = &items};
}

// The pointer itself may not be tested where GCC 12 checks it at run time: it is no constant expression then.
constexpr bool is_list(const Column &column) { return column.number == 0; }

constexpr auto kHexadecimal = Column::Form::hexadecimal;

inline constexpr Column kInterfaceColumns[] = {
    {3000, "name", CLI_TYPE_INTERFACE, "Name of the interface.", "Interface", 16},
    {3001, "iod", CLI_TYPE_NUMBER, "Its descriptor.", "IOD", 7},
    {3002, "if-index", CLI_TYPE_NUMBER, "Its index.", "If-Index", 12, kHexadecimal},
    {3003, "vrf", CLI_TYPE_STRING, "VRF that it belongs to; default: the core.", "VRF", 16},
    {3004, "address", CLI_TYPE_ADDRESS, "Its address; left out when there is none.", "Address", 17},
    {3005, "state", CLI_TYPE_STRING, "up or down.", "State", 7},
    {3006, "mtu", CLI_TYPE_NUMBER, "Bytes.", "MTU", 7},
    {3007, "mvpn-tunnel", CLI_TYPE_BOOLEAN, "Whether it is a multicast tunnel interface.", "Tunnel"},
};
inline constexpr View kInterfaces = {"platform-interface", "An interface. `show interfaces`", kInterfaceColumns};

inline constexpr Column kTunnelColumns[] = {
    {3100, "name", CLI_TYPE_INTERFACE, "Name of the tunnel.", "Tunnel", 16},
    {3101, "vrf", CLI_TYPE_STRING, "VRF that it serves.", "VRF", 16},
    {3102, "source", CLI_TYPE_ADDRESS, "Source of its packets.", "Source", 17},
    {3103, "group", CLI_TYPE_ADDRESS, "Destination of its packets.", "Group", 17},
    {3104, "mtu", CLI_TYPE_NUMBER, "Bytes.", "MTU", 7},
    {3105, "admin-state", CLI_TYPE_STRING, "up or down, as the module asked.", "Admin", 7},
    {3106, "state", CLI_TYPE_STRING, "up or down.", "State"},
};
inline constexpr View kTunnels = {"tunnel", "A tunnel of the tunnel manager. `show tunnels`", kTunnelColumns};

inline constexpr Column kReflectorColumns[] = {
    {3190, "connected", CLI_TYPE_BOOLEAN, "Whether there is a connection.", "Reflector connected", 21},
    {3191, "learnt-entries", CLI_TYPE_NUMBER, "Entries learnt over it.", "Entries learnt"},
};
inline constexpr View kReflector = {
    "reflector", "Connection to the route reflector, when one is configured. `show bgp mdt`", kReflectorColumns};

inline constexpr Column kBgpColumns[] = {
    {3200, "source", CLI_TYPE_ADDRESS, "Address of the PE.", "PE Source", 17},
    {3201, "rd", CLI_TYPE_STRING, "Route distinguisher.", "RD", 22},
    {3202, "group", CLI_TYPE_ADDRESS, "Default MDT group.", "Group", 17},
    {3203, "origin", CLI_TYPE_STRING, "local: this PE advertises it; remote.", "Origin", 8},
    {3204, "vrf", CLI_TYPE_STRING, "VRF that a local entry comes from.", "VRF"},
};
inline constexpr View kBgp = {"bgp-mdt-entry", "An MDT SAFI entry, as BGP holds it. `show bgp mdt`", kBgpColumns};

inline constexpr Column kRouteColumns[] = {
    {3300, "source", CLI_TYPE_SOURCE, "Core source.", "Source", 17},
    {3301, "group", CLI_TYPE_ADDRESS, "Core group.", "Group", 17},
    {3302, "core-vrf", CLI_TYPE_STRING, "VRF that the route is in.", "Core VRF", 12},
    {3303, "vrf", CLI_TYPE_STRING, "VRF whose traffic it carries.", "VRF", 16},
    {3304, "mti", CLI_TYPE_INTERFACE, "Tunnel that decapsulates its packets.", "MTI", 14},
    {3305, "source-interface", CLI_TYPE_INTERFACE, "Interface that has this PE's tunnel source.", "Source-If", 14},
    {3306, "local", CLI_TYPE_BOOLEAN, "Whether this PE sends on it.", "Local", 7},
    {3307, "rpf-address", CLI_TYPE_ADDRESS, "Address that the RPF check uses.", "RPF", 17, {}, true},
    {3308, "last-hop", CLI_TYPE_BOOLEAN, "Whether this PE receives on it.", "Last-hop", 10, {}, true},
    {3309, "asm-shared-tree", CLI_TYPE_BOOLEAN, "Whether it stays on the shared tree.", "Shared", 8, {}, true},
    {3310, "xid", CLI_TYPE_NUMBER, "Transaction that installed it.", "Xid", 12, kHexadecimal},
    {3311, "entry", CLI_TYPE_STRING, "The entry that installed it, in hexadecimal.", "Entry", 0, {}, true},
};
inline constexpr View kRoutes = {"mrib-route", "A core route, as the MRIB holds it. `show mrib routes [detail]`",
                                 kRouteColumns};

inline constexpr Column kEncapColumns[] = {
    {3400, "vrf", CLI_TYPE_STRING, "Customer VRF.", "VRF", 16},
    {3401, "index", CLI_TYPE_NUMBER, "Encapsulation index.", "Index", 7},
    {3402, "group", CLI_TYPE_ADDRESS, "Provider group.", "Group", 17},
    {3403, "source", CLI_TYPE_ADDRESS, "Address of this PE.", "Source", 17},
    {3404, "mti", CLI_TYPE_INTERFACE, "Tunnel.", "MTI", 14},
    {3405, "source-interface", CLI_TYPE_INTERFACE, "Interface that has the source.", "Source-If"},
};
inline constexpr View kEncaps = {"mrib-encapsulation", "An encapsulation, as the MRIB holds it. `show mrib encaps`",
                                 kEncapColumns};

inline constexpr Column kGroupUserColumns[] = {
    {3590, "vrf", CLI_TYPE_STRING, "Customer VRF."},
    {3591, "index", CLI_TYPE_NUMBER, "Encapsulation index."},
};
inline constexpr View kGroupUsers = {"core-group-user", "An encapsulation that uses the group.", kGroupUserColumns};
inline constexpr Column kGroupColumns[] = {
    {3500, "group", CLI_TYPE_ADDRESS, "Provider group.", "Group", 17},
    {3501, "mode", CLI_TYPE_STRING, "SSM, Bidir or ASM.", "Mode", 8},
    {3502, "local-routes", CLI_TYPE_NUMBER, "Routes that this PE sends on.", "Local", 8},
    {3503, "remote-routes", CLI_TYPE_NUMBER, "Routes of other PEs.", "Remote", 8},
    list_of(kGroupUsers, "Encapsulations (VRF:index)", 0),
};
inline constexpr View kGroups = {"core-group", "A provider group in use. `show core groups`", kGroupColumns};

inline constexpr Column kCustomerOifColumns[] = {
    {3690, "name", CLI_TYPE_STRING, "Name of the interface; mvpn: the VRF's tunnel."}};
inline constexpr View kCustomerOifs = {"outgoing-interface", "An outgoing interface of the route.",
                                       kCustomerOifColumns};
inline constexpr Column kCustomerColumns[] = {
    {3600, "vrf", CLI_TYPE_STRING, "VRF of the route.", "VRF", 12},
    {3601, "source", CLI_TYPE_SOURCE, "Customer source.", "Source", 17},
    {3602, "group", CLI_TYPE_ADDRESS, "Customer group.", "Group", 17},
    {3603, "iif", CLI_TYPE_INTERFACE, "Incoming interface; mvpn: the VRF's tunnel.", "IIF", 12},
    {3604, "rpf-neighbour", CLI_TYPE_ADDRESS, "Neighbour towards the source.", "RPF", 17},
    list_of(kCustomerOifs, "OIFs", 16),
    {3605, "rate-kbps", CLI_TYPE_NUMBER, "Rate of the flow, kbit/s.", "kbps", 9},
    {3606, "bidirectional", CLI_TYPE_BOOLEAN, "Whether the group is bidirectional.", "Bidir", 7},
    {3607, "encap-index", CLI_TYPE_NUMBER, "Encapsulation that the module chose for the flow.", "Encap", 7},
    {3608, "data-group", CLI_TYPE_ADDRESS, "Its data-MDT group.", "Data group"},
};
inline constexpr View kCustomers = {"customer-route", "A customer route. `show customer-routes`", kCustomerColumns};

inline constexpr Column kEventColumns[] = {
    {3700, "time", CLI_TYPE_DURATION, "When it happened, on the platform's clock.", "Time", 13},
    {3701, "text", CLI_TYPE_STRING, "What happened.", "Event"},
};
inline constexpr View kEvents = {"event", "An event of the module's history. `show events`", kEventColumns};

inline constexpr Column kErrorArgumentColumns[] = {{3890, "value", CLI_TYPE_STRING, "The argument."}};
inline constexpr View kErrorArguments = {"error-argument", "An argument of the report.", kErrorArgumentColumns};
inline constexpr Column kErrorColumns[] = {
    {3800, "name", CLI_TYPE_STRING, "Name of the report.", "Report", 28},
    list_of(kErrorArguments, "Arguments", 0),
};
inline constexpr View kErrors = {"error-report", "An error report of the module. `show events`", kErrorColumns,
                                 "Error reports"};

inline constexpr Column kCounterColumns[] = {
    {3900, "name", CLI_TYPE_STRING, "Name of the counter.", "Counter", 34},
    {3901, "value", CLI_TYPE_NUMBER, "Its value.", "Value"},
};
inline constexpr View kCounters = {"counter", "A counter. `show counters`", kCounterColumns};

inline constexpr Column kConfigColumns[] = {{4000, "text", CLI_TYPE_STRING, "The line, as a file has it.", ""}};
inline constexpr View kConfig = {"configuration-line", "A line of the configuration. `show running-config`",
                                 kConfigColumns};

inline constexpr Column kClockColumns[] = {
    {4100, "seconds", CLI_TYPE_DURATION, "Time on the platform's clock.", "Platform seconds", 18},
    {4101, "scale", CLI_TYPE_DURATION, "How far the clock goes in a second.", "Scale"},
};
inline constexpr View kClock = {"clock", "The platform's clock. `show clock`", kClockColumns};

inline constexpr Column kForwarderColumns[] = {
    {4200, "socket", CLI_TYPE_STRING, "Where the forwarder listens.", "Forwarder", 34},
    {4201, "connected", CLI_TYPE_BOOLEAN, "Whether there is a connection.", "Connected", 11},
    {4202, "recovering", CLI_TYPE_BOOLEAN, "Whether what it held before is kept until the recovery ends.",
     "Recovering"},
};
inline constexpr View kForwarder = {"forwarder", "The forwarding plane, when one is configured. `show forwarding`",
                                    kForwarderColumns};
inline constexpr Column kForwardingVrfColumns[] = {
    {4300, "vrf", CLI_TYPE_STRING, "VRF.", "VRF", 16},
    {4301, "namespace", CLI_TYPE_BOOLEAN, "Whether its namespace is there.", "Namespace", 11},
    {4302, "tunnel-up", CLI_TYPE_BOOLEAN, "Whether its tunnel is up.", "Tunnel", 8},
    {4303, "sent-packets", CLI_TYPE_NUMBER, "Customer datagrams encapsulated.", "Sent", 14},
    {4304, "sent-bytes", CLI_TYPE_NUMBER, "Their bytes.", "Bytes", 16},
    {4305, "received-packets", CLI_TYPE_NUMBER, "Customer datagrams decapsulated.", "Received", 14},
    {4306, "received-bytes", CLI_TYPE_NUMBER, "Their bytes.", "Bytes", 16},
    {4307, "unlisted-packets", CLI_TYPE_NUMBER, "Sent on the default MDT without being of a flow below.", "Unlisted"},
};
inline constexpr View kForwardingVrfs = {"forwarding-vrf", "A VRF in the forwarder. `show forwarding [vrf NAME]`",
                                         kForwardingVrfColumns, "VRFs"};
inline constexpr Column kFlowColumns[] = {
    {4400, "vrf", CLI_TYPE_STRING, "VRF of the flow.", "VRF", 16},
    {4401, "source", CLI_TYPE_SOURCE, "Customer source.", "Source", 17},
    {4402, "group", CLI_TYPE_ADDRESS, "Customer group.", "Group", 17},
    {4403, "index", CLI_TYPE_NUMBER, "Encapsulation index in force; 1: the default MDT.", "Index", 7},
    {4404, "core-group", CLI_TYPE_ADDRESS, "Provider group that carries it; left out when none does.", "Core group",
     17},
    {4405, "packets", CLI_TYPE_NUMBER, "Datagrams sent into the tunnel.", "Packets", 14},
    {4406, "bytes", CLI_TYPE_NUMBER, "Their bytes.", "Bytes", 16},
    {4407, "rate-kbps", CLI_TYPE_NUMBER, "kbit/s over the last two seconds.", "kbps"},
};
inline constexpr View kFlows = {"flow", "A flow that this PE sends into the core. `show forwarding [vrf NAME]`",
                                kFlowColumns, "Flows"};
inline constexpr Column kMembershipColumns[] = {
    {4500, "source", CLI_TYPE_SOURCE, "Core source.", "Source", 17},
    {4501, "group", CLI_TYPE_ADDRESS, "Core group.", "Group", 17},
    {4502, "vrf", CLI_TYPE_STRING, "VRF that takes its packets.", "VRF", 16},
    {4503, "joined", CLI_TYPE_BOOLEAN, "Whether the kernel has joined it.", "Joined", 8},
    {4504, "interface", CLI_TYPE_INTERFACE, "Where; left out: nowhere, or everywhere for any source.", "Interface", 16},
    {4505, "packets", CLI_TYPE_NUMBER, "Packets taken.", "Packets", 14},
    {4506, "bytes", CLI_TYPE_NUMBER, "Bytes of the customer datagrams in them.", "Bytes"},
};
inline constexpr View kMemberships = {"core-membership", "A membership of the core. `show forwarding [vrf NAME]`",
                                      kMembershipColumns, "Core memberships"};
inline constexpr Column kDropColumns[] = {
    {4600, "reason", CLI_TYPE_STRING, "Why the packets were dropped.", "Reason", 20},
    {4601, "vrf", CLI_TYPE_STRING, "VRF; left out: packets of the core that are of none.", "VRF", 16},
    {4602, "packets", CLI_TYPE_NUMBER, "How many.", "Packets"},
};
inline constexpr View kDrops = {"drop", "Packets dropped for one reason. `show forwarding [vrf NAME]`", kDropColumns,
                                "Drops"};
inline constexpr Column kForwardingEventColumns[] = {
    {4700, "time", CLI_TYPE_STRING, "When it happened, UTC, as in RFC 3339.", "Time", 26},
    {4701, "text", CLI_TYPE_STRING, "What happened.", "Event"},
};
inline constexpr View kForwardingEvents = {"forwarding-event", "An event of the forwarder. `show forwarding events`",
                                           kForwardingEventColumns};

// Every view, by number; the items of lists follow the view that they belong to.
inline constexpr const View *kViews[] = {
    &kInterfaces,     &kTunnels, &kReflector,   &kBgp,      &kRoutes,          &kEncaps, &kGroups,
    &kCustomers,      &kEvents,  &kErrors,      &kCounters, &kConfig,          &kClock,  &kForwarder,
    &kForwardingVrfs, &kFlows,   &kMemberships, &kDrops,    &kForwardingEvents};

}  // namespace output

#endif  // HOST_OUTPUT_VIEW_H
