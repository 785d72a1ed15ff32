// The host's own views: what each of them shows.
//
// A view is a table. One description of its columns serves the text form's heading and widths, the record that the rows
// are in a document, and with it the schema files. Numbers of elements follow those of cli_schema.h and obey the same
// rules: a column keeps its number, a new one takes a number that was never used.
//
// A thing has one name in documents, whichever view shows it. Views of the same things have the same record and, for
// what is the same, columns of the same number, be it one of cli_schema.h. A provider source and group are mdt-source
// and mdt-group, a customer's customer-source and customer-group; what belongs to a VRF names it in vrf. A name ends
// with its unit unless that goes without saying, as for mtu and for what is counted.
#ifndef HOST_OUTPUT_VIEW_H
#define HOST_OUTPUT_VIEW_H

#include <span>

#include "platform/cli_schema.h"

namespace output {

struct View;

// A type of values: one of cli_type, or of the host's own behind them.
using TypeId = int;
inline constexpr TypeId kTime = CLI_TYPE_INTERFACE + 1;
inline constexpr TypeId kFactor = kTime + 1;

struct Column {
  int number;                   // of the element; 0: a list, whose items are records of their own
  const char *name;             // of the field in documents
  TypeId type;                  // what a cell has to hold
  const char *description;      // for the schema files: a sentence
  const char *title = nullptr;  // in the text form's heading
  int width = 0;                // there; 0: as wide as the value
  // In text: of numbers; of whether something is local, else remote.
  enum class Form { plain, hexadecimal, origin } form = Form::plain;
  bool only_in_detail = false;  // shown with "detail" only, in documents too
  const View *items = nullptr;  // what a list consists of
};

struct View {
  const char *record;       // name of a row in documents
  const char *description;  // for the schema files: a sentence
  std::span<const Column> columns;
  const char *title = nullptr;  // in text, above the heading
  bool sheet = false;           // in text, a line for each value behind its title, instead of a table
  size_t key = 0;               // the column that every row has, and that begins its record
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
constexpr auto kOrigin = Column::Form::origin;

// Fields of the document itself: the header that every document begins with, and what its end may say.
inline constexpr Column kHeaderColumns[] = {
    {5300, "schema-version", CLI_TYPE_STRING, "Version of this schema, MAJOR.MINOR."},
    {5301, "hostname", CLI_TYPE_STRING, "Name of the router, as configured; without one, of the machine."},
    {5302, "time", kTime, "When the document was begun."},
};
inline constexpr Column kInterruptedColumn = {
    5303, "interrupted", CLI_TYPE_BOOLEAN, "true: the document ends before the answer did, since no more was wanted."};

inline constexpr Column kFailureColumns[] = {
    {5350, "reason", CLI_TYPE_STRING, "Why, in words.", "Error", 40},
    {5351, "status", CLI_TYPE_NUMBER,
     "The client's exit status: 1 failed, 2 not understood, 3 unreachable, 4 no answer.", "Status"},
};
inline constexpr View kFailures = {"error", "Why a command was not carried out. Any command", kFailureColumns};

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
    {3102, "mdt-source", CLI_TYPE_ADDRESS, "Source of its packets.", "Source", 17},
    {3103, "mdt-group", CLI_TYPE_ADDRESS, "Destination of its packets.", "Group", 17},
    {3104, "mtu", CLI_TYPE_NUMBER, "Bytes.", "MTU", 7},
    {3105, "admin-state", CLI_TYPE_STRING, "up or down, as the module asked.", "Admin", 7},
    {3106, "state", CLI_TYPE_STRING, "up or down.", "State"},
};
inline constexpr View kTunnels = {"tunnel", "A tunnel of the tunnel manager. `show tunnels`", kTunnelColumns};

inline constexpr Column kBgpSpeakerColumns[] = {
    {3110, "local-as", CLI_TYPE_NUMBER, "AS of this router.", "Local AS"},
    {3111, "router-id", CLI_TYPE_ADDRESS, "BGP identifier.", "Router ID"},
    {3112, "cluster-id", CLI_TYPE_ADDRESS, "Cluster of a route reflector.", "Cluster ID"},
    {3113, "listening", CLI_TYPE_STRING, "Where connections are accepted, or why they are not.", "Listening"},
    {3114, "restarting", CLI_TYPE_BOOLEAN, "Whether a restart still waits for the neighbours' routes.", "Restarting"},
    {3115, "routes", CLI_TYPE_NUMBER, "Routes.", "Routes"},
    {3116, "paths", CLI_TYPE_NUMBER, "Paths to them: one for each neighbour that sent one.", "Paths"},
    {3117, "attribute-sets", CLI_TYPE_NUMBER, "Different sets of path attributes.", "Attribute sets"},
    {3118, "memory-bytes", CLI_TYPE_NUMBER, "Memory of tables, attributes and what waits to be sent.", "Octets"},
};
inline constexpr View kBgpSpeaker = {.record = "bgp-speaker",
                                     .description = "The BGP speaker. `show bgp summary`",
                                     .columns = kBgpSpeakerColumns,
                                     .sheet = true};

constexpr const char *kBgpNeighborDescription =
    "A BGP neighbour and its session. `show bgp summary`, and in full `show bgp neighbor`";
inline constexpr Column kBgpSessionColumns[] = {
    {3140, "address", CLI_TYPE_ADDRESS, "Address of the neighbour.", "Neighbour", 17},
    {3141, "remote-as", CLI_TYPE_NUMBER, "Its AS.", "AS", 11},
    {3144, "state", CLI_TYPE_STRING, "Idle, Connect, Active, OpenSent, OpenConfirm or Established.", "State", 13},
    {3145, "state-age-seconds", CLI_TYPE_DURATION, "Age of the state.", "Since", 12},
    {3162, "routes-received", CLI_TYPE_NUMBER, "Routes from it, stale ones included.", "Received", 10},
    {3164, "routes-sent", CLI_TYPE_NUMBER, "Routes to it.", "Sent", 10},
    {3126, "messages-received", CLI_TYPE_NUMBER, "Messages from it; only in the summary.", "Msgs in", 10},
    {3127, "messages-sent", CLI_TYPE_NUMBER, "Messages to it; only in the summary.", "Msgs out", 10},
    {3143, "description", CLI_TYPE_STRING, "What the configuration says of it.", "Description"},
};
inline constexpr View kBgpSessions = {"bgp-neighbor", kBgpNeighborDescription, kBgpSessionColumns};

inline constexpr Column kBgpMessageColumns[] = {
    {3190, "type", CLI_TYPE_STRING, "Type of message."},
    {3191, "in", CLI_TYPE_NUMBER, "Received."},
    {3192, "out", CLI_TYPE_NUMBER, "Sent."},
};
inline constexpr View kBgpMessages = {"messages", "Messages of one type, since the neighbour is configured.",
                                      kBgpMessageColumns};
inline constexpr Column kBgpNeighborColumns[] = {
    {3140, "address", CLI_TYPE_ADDRESS, "Address of the neighbour.", "BGP neighbour"},
    {3141, "remote-as", CLI_TYPE_NUMBER, "Its AS.", "AS"},
    {3142, "session", CLI_TYPE_STRING, "internal or external.", "Session"},
    {3143, "description", CLI_TYPE_STRING, "What the configuration says of it.", "Description"},
    {3144, "state", CLI_TYPE_STRING, "Idle, Connect, Active, OpenSent, OpenConfirm or Established.", "State"},
    {3145, "state-age-seconds", CLI_TYPE_DURATION, "Age of the state.", "Since, seconds ago"},
    {3146, "reason", CLI_TYPE_STRING, "Why there is no session.", "Reason"},
    {3147, "established-count", CLI_TYPE_NUMBER, "Sessions so far.", "Sessions so far"},
    {3148, "router-id", CLI_TYPE_ADDRESS, "Its BGP identifier.", "Router ID"},
    {3149, "local-address", CLI_TYPE_ADDRESS, "Own address of the session.", "Local address"},
    {3150, "port", CLI_TYPE_NUMBER, "TCP port that it is connected to at.", "Port"},
    {3151, "hold-time-seconds", CLI_TYPE_NUMBER, "What both sides agreed on.", "Hold time"},
    {3152, "keepalive-time-seconds", CLI_TYPE_NUMBER, "Time between its keepalives.", "Keepalive time"},
    {3153, "hold-time-offered-seconds", CLI_TYPE_NUMBER, "What the configuration says.", "Hold time offered"},
    {3154, "password", CLI_TYPE_BOOLEAN, "Whether segments are signed.", "Password"},
    {3155, "ttl-security-hops", CLI_TYPE_NUMBER, "Links that the neighbour may be away; left out when any.",
     "TTL security"},
    {3156, "passive", CLI_TYPE_BOOLEAN, "Whether it is waited for.", "Passive"},
    {3157, "shutdown", CLI_TYPE_BOOLEAN, "Whether the configuration wants no session.", "Shutdown"},
    {3158, "route-reflector-client", CLI_TYPE_BOOLEAN, "Whether routes are reflected for it.",
     "Route reflector client"},
    {3159, "agreed", CLI_TYPE_STRING, "What both sides can.", "Agreed"},
    {3160, "capabilities-sent", CLI_TYPE_STRING, "What this side offered.", "Capabilities sent"},
    {3161, "capabilities-received", CLI_TYPE_STRING, "What the neighbour offered.", "Capabilities received"},
    {3162, "routes-received", CLI_TYPE_NUMBER, "Routes from it, stale ones included.", "Routes received"},
    {3163, "routes-stale", CLI_TYPE_NUMBER, "Those that are kept for its restart.", "Stale routes"},
    {3164, "routes-sent", CLI_TYPE_NUMBER, "Routes to it.", "Routes sent"},
    {3165, "maximum-prefix", CLI_TYPE_NUMBER, "Routes that it may send.", "Maximum prefix"},
    {3166, "over-limit", CLI_TYPE_BOOLEAN, "Whether it sent more.", "Over the limit"},
    {3167, "end-of-rib-received", CLI_TYPE_BOOLEAN, "Whether it has sent all it had.", "End-of-RIB received"},
    {3168, "end-of-rib-sent", CLI_TYPE_BOOLEAN, "Whether it was sent all there was.", "End-of-RIB sent"},
    {3169, "restart-left-seconds", CLI_TYPE_DURATION, "How long its routes are still kept while it is away.",
     "Restart time left"},
    {3170, "refused-loops", CLI_TYPE_NUMBER, "Routes refused for a loop of AS, originator or cluster.",
     "Refused for loops"},
    {3171, "taken-as-withdrawn", CLI_TYPE_NUMBER, "Messages with a faulty attribute that withdrew their routes.",
     "Taken as withdrawn"},
    {3172, "attributes-discarded", CLI_TYPE_NUMBER, "Faulty attributes that were left out.", "Attributes discarded"},
    {3173, "unicast-ignored", CLI_TYPE_NUMBER, "IPv4 unicast routes that nobody here wants.", "Unicast ignored"},
    {3174, "waiting-bytes", CLI_TYPE_NUMBER, "Bytes that the neighbour has not taken yet.", "Octets waiting"},
    {3175, "last-error-sent", CLI_TYPE_STRING, "Last NOTIFICATION to it.", "Last error sent"},
    {3176, "last-error-sent-age-seconds", CLI_TYPE_DURATION, "How long ago.", "Seconds ago"},
    {3177, "last-error-received", CLI_TYPE_STRING, "Last NOTIFICATION from it.", "Last error received"},
    {3178, "last-error-received-age-seconds", CLI_TYPE_DURATION, "How long ago.", "Seconds ago"},
    list_of(kBgpMessages, "Messages (type:in:out)", 0),
};
inline constexpr View kBgpNeighbors = {
    .record = "bgp-neighbor", .description = kBgpNeighborDescription, .columns = kBgpNeighborColumns, .sheet = true};

inline constexpr Column kBgpColumns[] = {
    {CLI_ELEMENT_SAFI_SOURCE, "pe-address", CLI_TYPE_ADDRESS, "Announcing PE.", "PE Source", 17},
    {CLI_ELEMENT_SAFI_RD, "route-distinguisher", CLI_TYPE_STRING, "Route distinguisher.", "RD", 22},
    {CLI_ELEMENT_SAFI_GROUP, "default-group", CLI_TYPE_ADDRESS, "Default MDT group.", "Group", 17},
    {CLI_ELEMENT_SAFI_LOCAL, "local", CLI_TYPE_BOOLEAN, "Whether this PE announces it.", "Origin", 8, kOrigin},
    {3204, "vrf", CLI_TYPE_STRING, "VRF that a local route comes from.", "VRF", 16},
    {3205, "neighbor", CLI_TYPE_ADDRESS, "Neighbour that a path came from.", "Neighbour", 17},
    {3206, "best", CLI_TYPE_BOOLEAN, "Whether the path is the one that is used.", "Best", 6},
    {3207, "stale", CLI_TYPE_BOOLEAN, "Whether it is kept for a neighbour's restart.", "Stale", 7},
    {3208, "next-hop", CLI_TYPE_ADDRESS, "Next hop.", "Next hop", 17, {}, true},
    {3209, "as-path", CLI_TYPE_STRING, "AS path; sets in braces.", "AS path", 12, {}, true},
    {3210, "path-origin", CLI_TYPE_STRING, "igp, egp or incomplete.", "From", 12, {}, true},
    {3211, "local-preference", CLI_TYPE_NUMBER, "Local preference.", "LocPrf", 8, {}, true},
    {3212, "med", CLI_TYPE_NUMBER, "Multi-exit discriminator.", "MED", 8, {}, true},
    {3213, "originator-id", CLI_TYPE_ADDRESS, "Router that brought it into the AS.", "Originator", 17, {}, true},
    {3214, "cluster-list", CLI_TYPE_STRING, "Reflectors that it passed, the latest first.", "Clusters", 20, {}, true},
    {3215,
     "communities",
     CLI_TYPE_STRING,
     "Communities, extended and large ones included.",
     "Communities",
     20,
     {},
     true},
    {3216,
     "unknown-attributes",
     CLI_TYPE_STRING,
     "Types of attributes that are carried along.",
     "Unknown",
     9,
     {},
     true},
    {3217, "why", CLI_TYPE_STRING, "The step that made it the best, or that it lost at.", "Why", 0, {}, true},
};
inline constexpr View kBgp = {
    .record = "mdt-safi-entry",
    .description = "An MDT SAFI entry. `show mvpn mdt bgp`; one path of it: `show bgp mdt [detail]`",
    .columns = kBgpColumns,
    .key = 1};

inline constexpr Column kRouteColumns[] = {
    {3300, "mdt-source", CLI_TYPE_SOURCE, "Core source.", "Source", 17},
    {3301, "mdt-group", CLI_TYPE_ADDRESS, "Core group.", "Group", 17},
    {3302, "core-vrf", CLI_TYPE_STRING, "VRF that the route is in.", "Core VRF", 12},
    {3303, "vrf", CLI_TYPE_STRING, "VRF whose traffic it carries.", "VRF", 16},
    {3304, "mti-interface", CLI_TYPE_INTERFACE, "Tunnel that decapsulates its packets.", "MTI", 14},
    {3305, "mdt-source-interface", CLI_TYPE_INTERFACE, "Interface that has this PE's tunnel source.", "Source-If", 14},
    {3306, "local", CLI_TYPE_BOOLEAN, "Whether this PE sends on it.", "Local", 7},
    {3307, "rpf-address", CLI_TYPE_ADDRESS, "Address that the RPF check uses.", "RPF", 17, {}, true},
    {3308, "last-hop", CLI_TYPE_BOOLEAN, "Whether this PE receives on it.", "Last-hop", 10, {}, true},
    {3309, "asm-shared-tree", CLI_TYPE_BOOLEAN, "Whether it stays on the shared tree.", "Shared", 8, {}, true},
    {3310, "transaction-id", CLI_TYPE_NUMBER, "Transaction that installed it.", "Xid", 12, kHexadecimal},
    {3311, "entry", CLI_TYPE_STRING, "The entry that installed it, in hexadecimal.", "Entry", 0, {}, true},
};
inline constexpr View kRoutes = {"mrib-route", "A core route, as the MRIB holds it. `show mrib routes [detail]`",
                                 kRouteColumns};

inline constexpr Column kEncapColumns[] = {
    {3400, "vrf", CLI_TYPE_STRING, "Customer VRF.", "VRF", 16},
    {3401, "encapsulation-index", CLI_TYPE_NUMBER, "Encapsulation index.", "Index", 7},
    {3402, "mdt-group", CLI_TYPE_ADDRESS, "Provider group.", "Group", 17},
    {3403, "mdt-source", CLI_TYPE_ADDRESS, "Address of this PE.", "Source", 17},
    {3404, "mti-interface", CLI_TYPE_INTERFACE, "Tunnel.", "MTI", 14},
    {3405, "mdt-source-interface", CLI_TYPE_INTERFACE, "Interface that has the source.", "Source-If"},
};
inline constexpr View kEncaps = {"mrib-encapsulation", "An encapsulation, as the MRIB holds it. `show mrib encaps`",
                                 kEncapColumns};

inline constexpr Column kGroupUserColumns[] = {
    {3590, "vrf", CLI_TYPE_STRING, "Customer VRF."},
    {3591, "encapsulation-index", CLI_TYPE_NUMBER, "Encapsulation index."},
};
inline constexpr View kGroupUsers = {"core-group-user", "An encapsulation that uses the group.", kGroupUserColumns};
inline constexpr Column kGroupColumns[] = {
    {3500, "mdt-group", CLI_TYPE_ADDRESS, "Provider group.", "Group", 17},
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
    {3601, "customer-source", CLI_TYPE_SOURCE, "Customer source.", "Source", 17},
    {3602, "customer-group", CLI_TYPE_ADDRESS, "Customer group.", "Group", 17},
    {3603, "incoming-interface", CLI_TYPE_INTERFACE, "Incoming interface; mvpn: the VRF's tunnel.", "IIF", 12},
    {3604, "rpf-neighbor", CLI_TYPE_ADDRESS, "Neighbour towards the source.", "RPF", 17},
    list_of(kCustomerOifs, "OIFs", 16),
    {3605, "rate-kbps", CLI_TYPE_NUMBER, "Rate of the flow, kbit/s.", "kbps", 9},
    {3606, "bidirectional", CLI_TYPE_BOOLEAN, "Whether the group is bidirectional.", "Bidir", 7},
    {3607, "encapsulation-index", CLI_TYPE_NUMBER, "Encapsulation that the module chose for the flow.", "Encap", 7},
    {3608, "mdt-group", CLI_TYPE_ADDRESS, "Its data-MDT group.", "Data group"},
};
inline constexpr View kCustomers = {"customer-route", "A customer route. `show customer-routes`", kCustomerColumns};

inline constexpr Column kEventColumns[] = {
    {3700, "clock-seconds", CLI_TYPE_DURATION, "When it happened, on the platform's clock.", "Time", 13},
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
    {4100, "clock-seconds", CLI_TYPE_DURATION, "Time on the platform's clock.", "Platform seconds", 18},
    {4101, "scale", kFactor, "Platform seconds per second; 0: a clock that goes by steps.", "Scale"},
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
    {4401, "customer-source", CLI_TYPE_SOURCE, "Customer source.", "Source", 17},
    {4402, "customer-group", CLI_TYPE_ADDRESS, "Customer group.", "Group", 17},
    {4403, "encapsulation-index", CLI_TYPE_NUMBER, "Encapsulation index in force; 1: the default MDT.", "Index", 7},
    {4404, "mdt-group", CLI_TYPE_ADDRESS, "Provider group that carries it; left out when none does.", "Core group", 17},
    {4405, "packets", CLI_TYPE_NUMBER, "Datagrams sent into the tunnel.", "Packets", 14},
    {4406, "bytes", CLI_TYPE_NUMBER, "Their bytes.", "Bytes", 16},
    {4407, "rate-kbps", CLI_TYPE_NUMBER, "kbit/s over the last two seconds.", "kbps"},
};
inline constexpr View kFlows = {"flow", "A flow that this PE sends into the core. `show forwarding [vrf NAME]`",
                                kFlowColumns, "Flows"};
inline constexpr Column kMembershipColumns[] = {
    {4500, "mdt-source", CLI_TYPE_SOURCE, "Core source.", "Source", 17},
    {4501, "mdt-group", CLI_TYPE_ADDRESS, "Core group.", "Group", 17},
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
    {4700, "time", kTime, "When it happened.", "Time", 26},
    {4701, "text", CLI_TYPE_STRING, "What happened.", "Event"},
};
inline constexpr View kForwardingEvents = {"forwarding-event", "An event of the forwarder. `show forwarding events`",
                                           kForwardingEventColumns};

// Every view, by number; the items of lists follow the view that they belong to.
inline constexpr Column kChangeColumns[] = {
    {4900, "kind", CLI_TYPE_STRING, "vrf, tunnel, pe, bgp-session, data-mdt, service or command.", "Kind", 14},
    {4901, "time", kTime, "When it happened.", "Time", 26},
    {4902, "level", CLI_TYPE_STRING, "error, warning, notice, info or debug.", "Level", 9},
    {4903, "vrf", CLI_TYPE_STRING, "VRF that it concerns.", "VRF", 16},
    {4904, "name", CLI_TYPE_STRING,
     "What changed, where the kind has several: tunnel, service; of a data MDT sent or received; the line.", "Name",
     20},
    {4905, "before", CLI_TYPE_STRING, "State before.", "Before", 16},
    {4906, "after", CLI_TYPE_STRING, "State now.", "After", 16},
    {4907, "mdt-source", CLI_TYPE_ADDRESS, "Provider source.", "Source", 17},
    {4908, "mdt-group", CLI_TYPE_ADDRESS, "Provider group.", "Group", 17},
    {4909, "customer-source", CLI_TYPE_SOURCE, "Source of a customer's flow.", "Customer source", 17},
    {4910, "customer-group", CLI_TYPE_ADDRESS, "Group of a customer's flow.", "Customer group", 17},
    {4911, "route-distinguisher", CLI_TYPE_STRING, "Route distinguisher of a PE's entry.", "RD", 22},
    {4912, "reason", CLI_TYPE_STRING, "Why.", "Reason", 30},
    {4913, "by", CLI_TYPE_STRING, "Who asked for it.", "By", 20},
    {4914, "text", CLI_TYPE_STRING, "All of it in a line, as the log has it.", "Text"},
    {4915, "pe-address", CLI_TYPE_ADDRESS, "PE that joined or left.", "PE", 17},
    {4916, "default-group", CLI_TYPE_ADDRESS, "Default MDT group of the VRF or PE.", "Default group", 17},
    {4917, "neighbor", CLI_TYPE_ADDRESS, "BGP neighbour.", "Neighbour", 17},
};
inline constexpr View kChanges = {"change", "A change of state. `monitor json`", kChangeColumns};

inline constexpr Column kMissedChangeColumns[] = {
    {4950, "count", CLI_TYPE_NUMBER, "How many.", "Missed"},
};
inline constexpr View kMissedChanges = {
    "missed-changes", "Changes that came faster than the client read. `monitor json`", kMissedChangeColumns};

inline constexpr Column kNoteColumns[] = {{4960, "text", CLI_TYPE_STRING, "A sentence or part of one.", ""}};
inline constexpr View kNotes = {"note", "What there is to say about an answer, such as why it is empty. Any view",
                                kNoteColumns};

inline constexpr Column kVrfColumns[] = {
    {CLI_ELEMENT_VRF_NAME, "name", CLI_TYPE_STRING, "Name of the VRF.", "VRF", 16},
    {CLI_ELEMENT_VRF_DEFAULT_GROUP, "default-group", CLI_TYPE_ADDRESS, "Default MDT group.", "Default group", 17},
    {CLI_ELEMENT_VRF_MTI_NAME, "mti-interface", CLI_TYPE_INTERFACE, "Multicast tunnel interface.", "MTI", 10},
    {CLI_ELEMENT_VRF_MTI_STATUS, "mti-status", CLI_TYPE_STRING, "Status of the tunnel interface, None to Up.", "Status",
     18},
    {CLI_ELEMENT_VRF_NOT_UP_REASON, "not-up-reason", CLI_TYPE_STRING,
     "The first condition of the default MDT that is not met.", "Why not Up"},
};
inline constexpr View kVrfs = {"vrf", "A VRF. `show vrfs`, `show mvpn ...`", kVrfColumns};

inline constexpr Column kVersionColumns[] = {
    {5100, "program", CLI_TYPE_STRING, "Name of the program.", "Program"},
    {5101, "version", CLI_TYPE_STRING, "Its version.", "Version"},
    {5102, "compiler", CLI_TYPE_STRING, "What built it.", "Built by"},
    {5103, "module", CLI_TYPE_STRING, "File of the module that is loaded.", "Module"},
};
inline constexpr View kVersion = {
    .record = "version", .description = "A program. `show version`", .columns = kVersionColumns, .sheet = true};

inline constexpr Column kStatusColumns[] = {
    {5200, "started", kTime, "When the program started.", "Started"},
    {5201, "uptime-seconds", CLI_TYPE_DURATION, "How long it has been running.", "Uptime, seconds"},
    {5202, "process", CLI_TYPE_NUMBER, "Process id.", "Process"},
    {5203, "memory-bytes", CLI_TYPE_NUMBER, "Memory that is resident.", "Memory, bytes"},
    {5204, "threads", CLI_TYPE_NUMBER, "Threads of the process.", "Threads"},
    {5205, "log-level", CLI_TYPE_STRING, "The least that the log takes.", "Log level"},
    {5206, "log-lines-lost", CLI_TYPE_NUMBER, "Lines that nobody read.", "Log lines lost"},
    {5207, "mvpn-feature", CLI_TYPE_STRING, "on or off.", "MVPN"},
    {5208, "store", CLI_TYPE_STRING, "memory, writing, or failing and why.", "Store"},
    {5209, "forwarder", CLI_TYPE_STRING, "connected, away, or none: customers' packets are simulated.", "Forwarder"},
    {5210, "configuration", CLI_TYPE_STRING, "Whether the file has what runs.", "Configuration"},
    {5211, "vrfs", CLI_TYPE_NUMBER, "VRFs of the configuration.", "VRFs"},
    {5212, "vrfs-up", CLI_TYPE_NUMBER, "VRFs whose default MDT is up.", "VRFs up"},
    {5213, "tunnels", CLI_TYPE_NUMBER, "Tunnels of the tunnel manager.", "Tunnels"},
    {5214, "remote-entries", CLI_TYPE_NUMBER, "MDT SAFI entries of other PEs.", "Entries of other PEs"},
    {5215, "bgp-neighbors", CLI_TYPE_NUMBER, "BGP neighbours of the configuration.", "BGP neighbors"},
    {5216, "bgp-sessions-up", CLI_TYPE_NUMBER, "BGP sessions that are Established.", "BGP sessions up"},
    {5217, "core-routes", CLI_TYPE_NUMBER, "Core routes in the MRIB.", "Core routes"},
    {5218, "flows-on-data-mdts", CLI_TYPE_NUMBER, "Flows that this PE sends on data MDTs.", "Flows on data MDTs"},
    {5219, "data-mdts-joined", CLI_TYPE_NUMBER, "Data MDTs of other PEs that this PE receives.", "Data MDTs joined"},
};
inline constexpr View kStatus = {
    .record = "status", .description = "The program. `show status`", .columns = kStatusColumns, .sheet = true};

inline constexpr Column kConfigDiffColumns[] = {
    {5410, "text", CLI_TYPE_STRING, "The line, with -, + or a blank in front.", ""}};
inline constexpr View kConfigDiff = {"configuration-difference",
                                     "A line that differs. `show configuration diff`, `show configuration candidate`",
                                     kConfigDiffColumns};

inline constexpr Column kFormerConfigColumns[] = {
    {5400, "number", CLI_TYPE_NUMBER, "What rollback takes.", "Number", 8},
    {5401, "until", kTime, "How long it ran.", "Until", 26},
    {5402, "ended-by", CLI_TYPE_STRING, "Commit, rollback, reload, or that nobody confirmed.", "Ended by", 18},
    {5403, "by", CLI_TYPE_STRING, "Who that was.", "By"},
};
inline constexpr View kFormerConfigs = {"former-configuration", "A configuration that ran. `show configuration former`",
                                        kFormerConfigColumns};

inline constexpr const View *kViews[] = {
    &kInterfaces,    &kTunnels,       &kBgpSpeaker,     &kBgpSessions, &kBgpNeighbors, &kBgp,      &kRoutes,
    &kEncaps,        &kGroups,        &kCustomers,      &kEvents,      &kErrors,       &kCounters, &kConfig,
    &kClock,         &kForwarder,     &kForwardingVrfs, &kFlows,       &kMemberships,  &kDrops,    &kForwardingEvents,
    &kChanges,       &kMissedChanges, &kNotes,          &kVrfs,        &kVersion,      &kStatus,   &kConfigDiff,
    &kFormerConfigs, &kFailures};

}  // namespace output

#endif  // HOST_OUTPUT_VIEW_H
