/* Output schema of the command-line service: the elements under which commands record the values that they print.
 *
 * Two lists say everything: the records of a document and the elements in them. The constants below, the writers of
 * JSON and XML, the schema files and their description come from these lists.
 *
 * A document is a tree of records. Its root is CLI_RECORD_DOCUMENT; every other record occurs any number of times under
 * one instance of its parent. A command records values one after the other and knows nothing of the tree. The service
 * places a value like this:
 *
 *  1. A value whose element begins its record closes every open record that is not the parent of that record nor above
 *     it, and opens a new instance under the parent.
 *  2. Any other value closes the open records below its own and goes into the open instance.
 *  3. A record that a value needs and that is not open is opened first, its parents before it.
 *
 * Commands keep these rules in return: an element occurs once in an instance, and the records of one kind under one
 * parent follow each other.
 *
 * Numbers of elements are compiled into modules: an element keeps its number, a new one takes a number that was never
 * used. */
#ifndef PLATFORM_CLI_SCHEMA_H
#define PLATFORM_CLI_SCHEMA_H

#include "platform/cli_mib.h"

/* What a value is in a document. The service converts what the command recorded: "Yes", "TRUE" and any other text but
 * "", "No", "False" and "FALSE" are true; a number under a duration is seconds. */
#define CLI_TYPE_LIST(X)                                                         \
  X(CLI_TYPE_STRING, "string", "text")                                           \
  X(CLI_TYPE_NUMBER, "number", "whole number")                                   \
  X(CLI_TYPE_BOOLEAN, "boolean", "true or false")                                \
  X(CLI_TYPE_DURATION, "duration", "seconds, with a fraction where it is known") \
  X(CLI_TYPE_ADDRESS, "address", "IPv4 address, 0.0.0.0 for none")               \
  X(CLI_TYPE_SOURCE, "source", "IPv4 address, or * for any source")              \
  X(CLI_TYPE_INTERFACE, "interface", "name of an interface; left out when there is none")

#define CLI_TYPE_CONSTANT(id, name, text) id,
enum cli_type { CLI_TYPE_LIST(CLI_TYPE_CONSTANT) };

/* Whether an element begins a new instance of its record. */
enum cli_place { CLI_FIELD = 0, CLI_BEGINS = 1 };

/* Records: constant, name in documents, parent, description. A parent stands before its children. */
#define CLI_RECORD_LIST(X)                                                                                            \
  X(CLI_RECORD_DOCUMENT, "mvpn-output", CLI_RECORD_NONE, "The document: what one command recorded.")                  \
  X(CLI_RECORD_VRF, "vrf", CLI_RECORD_DOCUMENT, "A VRF.")                                                             \
  X(CLI_RECORD_DATA_RANGE, "data-mdt-range", CLI_RECORD_VRF, "A range of data-MDT groups, in search order.")          \
  X(CLI_RECORD_ROUTE, "mdt-route", CLI_RECORD_VRF, "A core route of the VRF.")                                        \
  X(CLI_RECORD_ENCAP, "encapsulation", CLI_RECORD_VRF, "An encapsulation index in use.")                              \
  X(CLI_RECORD_SENT, "sent-data-mdt", CLI_RECORD_VRF, "A customer flow that this PE sends on a data MDT.")            \
  X(CLI_RECORD_RECEIVED, "received-data-mdt", CLI_RECORD_VRF, "A data MDT that a remote PE has announced.")           \
  X(CLI_RECORD_PERSISTED, "persisted-encapsulation", CLI_RECORD_VRF, "An encapsulation choice in the store.")         \
  X(CLI_RECORD_SAFI, "mdt-safi-entry", CLI_RECORD_DOCUMENT, "An MDT SAFI entry, as the BGP view shows it.")           \
  X(CLI_RECORD_PIM_SAFI, "pim-mdt-safi-entry", CLI_RECORD_DOCUMENT, "An MDT SAFI entry, as the PIM view shows it.")   \
  X(CLI_RECORD_USED_BUFFER, "used-buffer", CLI_RECORD_DOCUMENT, "An update buffer that the MRIB has to acknowledge.") \
  X(CLI_RECORD_FREE_BUFFER, "free-buffer", CLI_RECORD_DOCUMENT, "An update buffer that may be filled.")               \
  X(CLI_RECORD_TRANSMIT_OBJECT, "transmit-list-object", CLI_RECORD_DOCUMENT,                                          \
    "An object on the transmit list: a core route; a VRF to be checked again, with vrf-name; or, with neither, the "  \
    "mark of how far the worker has come.")                                                                           \
  CLI_MIB_TABLE_LIST(CLI_MIB_TABLE_RECORD, X)

#define CLI_RECORD_CONSTANT(id, name, parent, text) id,
enum cli_record { CLI_RECORD_NONE, CLI_RECORD_LIST(CLI_RECORD_CONSTANT) };

/* Elements: constant, number, name in documents, type, record, place, description. Those of one record stand in the
 * order in which they are recorded. */
#define CLI_ELEMENT_LIST(X)                                                                                            \
  /* Module state. */                                                                                                  \
  X(CLI_ELEMENT_FEATURE_CONFIGURED, 1, "mvpn-feature-configured", CLI_TYPE_BOOLEAN, CLI_RECORD_DOCUMENT, CLI_FIELD,    \
    "Whether the host has the feature configured.")                                                                    \
  X(CLI_ELEMENT_FUNCTIONALITY_STATUS, 2, "functionality-status", CLI_TYPE_STRING, CLI_RECORD_DOCUMENT, CLI_FIELD,      \
    "Down, Down Pending, Up, Up Pending.")                                                                             \
  X(CLI_ELEMENT_CLI_DONE, 3, "configuration-replayed", CLI_TYPE_BOOLEAN, CLI_RECORD_DOCUMENT, CLI_FIELD,               \
    "Whether the replay of the stored configuration has ended.")                                                       \
  X(CLI_ELEMENT_VRF_COUNT, 4, "vrf-count", CLI_TYPE_NUMBER, CLI_RECORD_DOCUMENT, CLI_FIELD,                            \
    "VRF contexts of the module.")                                                                                     \
  X(CLI_ELEMENT_VRF_REFERENCE_COUNT, 5, "vrf-reference-count", CLI_TYPE_NUMBER, CLI_RECORD_DOCUMENT, CLI_FIELD,        \
    "VRFs of the host that have a context, counted now.")                                                              \
  /* MRIB interface. */                                                                                                \
  X(CLI_ELEMENT_MRIB_WORK_PENDING, 10, "mrib-work-pending", CLI_TYPE_BOOLEAN, CLI_RECORD_DOCUMENT, CLI_FIELD,          \
    "Whether the transmit list holds something that the worker has not met.")                                          \
  X(CLI_ELEMENT_USED_BUFFER_COUNT, 11, "used-buffer-count", CLI_TYPE_NUMBER, CLI_RECORD_DOCUMENT, CLI_FIELD,           \
    "Update buffers sent and not acknowledged.")                                                                       \
  X(CLI_ELEMENT_FREE_BUFFER_COUNT, 12, "free-buffer-count", CLI_TYPE_NUMBER, CLI_RECORD_DOCUMENT, CLI_FIELD,           \
    "Update buffers that may be filled.")                                                                              \
  X(CLI_ELEMENT_TRANSMIT_LIST_VERSION, 13, "transmit-list-version", CLI_TYPE_NUMBER, CLI_RECORD_DOCUMENT, CLI_FIELD,   \
    "Version of the transmit list.")                                                                                   \
  /* SNMP scalars. */                                                                                                  \
  CLI_MIB_SCALAR_LIST(CLI_MIB_SCALAR_ELEMENT, X)                                                                       \
  /* A VRF. */                                                                                                         \
  X(CLI_ELEMENT_VRF_NAME, 100, "name", CLI_TYPE_STRING, CLI_RECORD_VRF, CLI_BEGINS, "Name of the VRF.")                \
  X(CLI_ELEMENT_VRF_MTI_NAME, 101, "mti-interface", CLI_TYPE_INTERFACE, CLI_RECORD_VRF, CLI_FIELD,                     \
    "Multicast tunnel interface.")                                                                                     \
  X(CLI_ELEMENT_VRF_MTI_STATUS, 102, "mti-status", CLI_TYPE_STRING, CLI_RECORD_VRF, CLI_FIELD,                         \
    "Status of the tunnel interface, None to Up.")                                                                     \
  X(CLI_ELEMENT_VRF_DEFAULT_GROUP, 103, "default-group", CLI_TYPE_ADDRESS, CLI_RECORD_VRF, CLI_FIELD,                  \
    "Default MDT group.")                                                                                              \
  X(CLI_ELEMENT_VRF_GROUP_MODE, 104, "group-mode", CLI_TYPE_STRING, CLI_RECORD_VRF, CLI_FIELD,                         \
    "PIM mode of the default group: None, SSM, Bidir, ASM.")                                                           \
  X(CLI_ELEMENT_VRF_SHARED, 105, "shared", CLI_TYPE_BOOLEAN, CLI_RECORD_VRF, CLI_FIELD,                                \
    "Whether remote PEs are accepted that BGP does not name.")                                                         \
  X(CLI_ELEMENT_VRF_SHARED_TREE_ONLY, 106, "shared-tree-only", CLI_TYPE_BOOLEAN, CLI_RECORD_VRF, CLI_FIELD,            \
    "Whether ASM groups use the shared tree alone.")                                                                   \
  X(CLI_ELEMENT_VRF_CONFIGURED_MTU, 107, "configured-mtu", CLI_TYPE_NUMBER, CLI_RECORD_VRF, CLI_FIELD,                 \
    "Bytes; as configured for the tunnel.")                                                                            \
  X(CLI_ELEMENT_VRF_ACTUAL_MTU, 108, "actual-mtu", CLI_TYPE_NUMBER, CLI_RECORD_VRF, CLI_FIELD,                         \
    "Bytes; of the tunnel interface in PIM, 0 when there is none.")                                                    \
  X(CLI_ELEMENT_VRF_CONFIGURED_SOURCE, 109, "configured-source-interface", CLI_TYPE_INTERFACE, CLI_RECORD_VRF,         \
    CLI_FIELD, "Configured source of the tunnel.")                                                                     \
  X(CLI_ELEMENT_VRF_BGP_SOURCE, 110, "bgp-source-interface", CLI_TYPE_INTERFACE, CLI_RECORD_VRF, CLI_FIELD,            \
    "Update source of BGP, the source of the tunnel when none is configured.")                                         \
  X(CLI_ELEMENT_VRF_HELLO_INTERVAL, 111, "pim-hello-interval-milliseconds", CLI_TYPE_NUMBER, CLI_RECORD_VRF,           \
    CLI_FIELD, "Interval of PIM hellos on the tunnel.")                                                                \
  X(CLI_ELEMENT_VRF_JP_INTERVAL, 112, "pim-jp-interval", CLI_TYPE_DURATION, CLI_RECORD_VRF, CLI_FIELD,                 \
    "Interval of PIM joins and prunes on the tunnel.")                                                                 \
  X(CLI_ELEMENT_VRF_DATA_JOIN_INTERVAL, 113, "data-mdt-join-interval", CLI_TYPE_DURATION, CLI_RECORD_VRF, CLI_FIELD,   \
    "Interval of Data-MDT Join messages.")                                                                             \
  X(CLI_ELEMENT_VRF_DATA_SWITCHOVER, 114, "data-mdt-switchover-interval", CLI_TYPE_DURATION, CLI_RECORD_VRF,           \
    CLI_FIELD, "Time between the announcement of a data MDT and its use.")                                             \
  X(CLI_ELEMENT_VRF_DATA_HOLDDOWN, 115, "data-mdt-holddown-interval", CLI_TYPE_DURATION, CLI_RECORD_VRF, CLI_FIELD,    \
    "Time that a flow stays on its data MDT after its rate fell.")                                                     \
  X(CLI_ELEMENT_VRF_DATA_TIMEOUT, 116, "data-mdt-timeout-interval", CLI_TYPE_DURATION, CLI_RECORD_VRF, CLI_FIELD,      \
    "Time that an announcement lives.")                                                                                \
  X(CLI_ELEMENT_VRF_SOURCE_ADDRESS, 117, "mdt-source-address", CLI_TYPE_ADDRESS, CLI_RECORD_VRF, CLI_FIELD,            \
    "Source address of the tunnel.")                                                                                   \
  X(CLI_ELEMENT_VRF_SOURCE_INTERFACE, 118, "mdt-source-interface", CLI_TYPE_INTERFACE, CLI_RECORD_VRF, CLI_FIELD,      \
    "Interface that the source address belongs to.")                                                                   \
  X(CLI_ELEMENT_VRF_RD, 119, "route-distinguisher", CLI_TYPE_STRING, CLI_RECORD_VRF, CLI_FIELD,                        \
    "Route distinguisher that BGP gave the VRF.")                                                                      \
  X(CLI_ELEMENT_VRF_RD_SET, 120, "route-distinguisher-set", CLI_TYPE_BOOLEAN, CLI_RECORD_VRF, CLI_FIELD,               \
    "Whether the route distinguisher is known.")                                                                       \
  X(CLI_ELEMENT_VRF_SEND_JOINS, 121, "send-join-count", CLI_TYPE_NUMBER, CLI_RECORD_VRF, CLI_FIELD,                    \
    "Data-MDT Join messages sent.")                                                                                    \
  X(CLI_ELEMENT_VRF_RECEIVED_JOINS, 122, "received-join-count", CLI_TYPE_NUMBER, CLI_RECORD_VRF, CLI_FIELD,            \
    "Announcements received.")                                                                                         \
  X(CLI_ELEMENT_VRF_NOT_UP_REASON, 123, "not-up-reason", CLI_TYPE_STRING, CLI_RECORD_VRF, CLI_FIELD,                   \
    "The first condition of the default MDT that is not met; recorded by the host, unless mti-status is Up.")          \
  X(CLI_ELEMENT_RANGE_PREFIX, 200, "prefix", CLI_TYPE_ADDRESS, CLI_RECORD_DATA_RANGE, CLI_BEGINS,                      \
    "First group of the range.")                                                                                       \
  X(CLI_ELEMENT_RANGE_LENGTH, 201, "prefix-length", CLI_TYPE_NUMBER, CLI_RECORD_DATA_RANGE, CLI_FIELD,                 \
    "Length of the range's prefix.")                                                                                   \
  X(CLI_ELEMENT_RANGE_THRESHOLD, 202, "threshold-kbps", CLI_TYPE_NUMBER, CLI_RECORD_DATA_RANGE, CLI_FIELD,             \
    "Rate from which on a flow is moved, kbit/s; 0 when none is configured.")                                          \
  X(CLI_ELEMENT_RANGE_ROUTE_MAP, 203, "route-map", CLI_TYPE_STRING, CLI_RECORD_DATA_RANGE, CLI_FIELD,                  \
    "Policy that selects the flows of the range; absent: every flow.")                                                 \
  X(CLI_ELEMENT_ROUTE_SOURCE, 300, "source", CLI_TYPE_ADDRESS, CLI_RECORD_ROUTE, CLI_BEGINS,                           \
    "Core source, 0.0.0.0 for a shared-tree route.")                                                                   \
  X(CLI_ELEMENT_ROUTE_GROUP, 301, "group", CLI_TYPE_ADDRESS, CLI_RECORD_ROUTE, CLI_FIELD, "Core group.")               \
  X(CLI_ELEMENT_ROUTE_REFERENCES, 302, "reference-count", CLI_TYPE_NUMBER, CLI_RECORD_ROUTE, CLI_FIELD,                \
    "Flows and announcements that use the route.")                                                                     \
  X(CLI_ELEMENT_ROUTE_UPTIME, 303, "uptime", CLI_TYPE_DURATION, CLI_RECORD_ROUTE, CLI_FIELD,                           \
    "Time since the route was created.")                                                                               \
  X(CLI_ELEMENT_ENCAP_INDEX, 400, "index", CLI_TYPE_NUMBER, CLI_RECORD_ENCAP, CLI_BEGINS,                              \
    "Encapsulation index: 1 the default MDT, above it data MDTs.")                                                     \
  X(CLI_ELEMENT_ENCAP_GROUP, 401, "mdt-group", CLI_TYPE_ADDRESS, CLI_RECORD_ENCAP, CLI_FIELD, "Provider group.")       \
  X(CLI_ELEMENT_ENCAP_SOURCE, 402, "mdt-source", CLI_TYPE_ADDRESS, CLI_RECORD_ENCAP, CLI_FIELD, "Provider source.")    \
  X(CLI_ELEMENT_ENCAP_INTERFACE, 403, "mdt-source-interface", CLI_TYPE_INTERFACE, CLI_RECORD_ENCAP, CLI_FIELD,         \
    "Interface of the provider source.")                                                                               \
  X(CLI_ELEMENT_SENT_C_SOURCE, 500, "customer-source", CLI_TYPE_ADDRESS, CLI_RECORD_SENT, CLI_BEGINS,                  \
    "Source of the flow; 0.0.0.0 for any.")                                                                            \
  X(CLI_ELEMENT_SENT_C_GROUP, 501, "customer-group", CLI_TYPE_ADDRESS, CLI_RECORD_SENT, CLI_FIELD,                     \
    "Group of the flow.")                                                                                              \
  X(CLI_ELEMENT_SENT_SOURCE, 502, "mdt-source", CLI_TYPE_ADDRESS, CLI_RECORD_SENT, CLI_FIELD, "This PE's address.")    \
  X(CLI_ELEMENT_SENT_GROUP, 503, "mdt-group", CLI_TYPE_ADDRESS, CLI_RECORD_SENT, CLI_FIELD, "Data-MDT group.")         \
  X(CLI_ELEMENT_SENT_UPTIME, 504, "uptime", CLI_TYPE_DURATION, CLI_RECORD_SENT, CLI_FIELD,                             \
    "Time since the flow was switched.")                                                                               \
  X(CLI_ELEMENT_SENT_INSTALLED, 505, "installed-in-mrib", CLI_TYPE_BOOLEAN, CLI_RECORD_SENT, CLI_FIELD,                \
    "Whether the flow has its core route; only in detail.")                                                            \
  X(CLI_ELEMENT_SENT_COUNT, 506, "send-count", CLI_TYPE_NUMBER, CLI_RECORD_SENT, CLI_FIELD,                            \
    "Announcements sent for the flow.")                                                                                \
  X(CLI_ELEMENT_SENT_HOLDDOWN, 507, "holddown", CLI_TYPE_BOOLEAN, CLI_RECORD_SENT, CLI_FIELD,                          \
    "Whether the flow is about to switch back; only in detail.")                                                       \
  X(CLI_ELEMENT_RECEIVED_C_SOURCE, 600, "customer-source", CLI_TYPE_ADDRESS, CLI_RECORD_RECEIVED, CLI_BEGINS,          \
    "Source of the flow; 0.0.0.0 for any.")                                                                            \
  X(CLI_ELEMENT_RECEIVED_C_GROUP, 601, "customer-group", CLI_TYPE_ADDRESS, CLI_RECORD_RECEIVED, CLI_FIELD,             \
    "Group of the flow.")                                                                                              \
  X(CLI_ELEMENT_RECEIVED_SOURCE, 602, "mdt-source", CLI_TYPE_ADDRESS, CLI_RECORD_RECEIVED, CLI_FIELD,                  \
    "PE that announces it.")                                                                                           \
  X(CLI_ELEMENT_RECEIVED_GROUP, 603, "mdt-group", CLI_TYPE_ADDRESS, CLI_RECORD_RECEIVED, CLI_FIELD, "Data-MDT group.") \
  X(CLI_ELEMENT_RECEIVED_UPTIME, 604, "uptime", CLI_TYPE_DURATION, CLI_RECORD_RECEIVED, CLI_FIELD,                     \
    "Time since the first announcement.")                                                                              \
  X(CLI_ELEMENT_RECEIVED_EXPIRES, 605, "expires", CLI_TYPE_DURATION, CLI_RECORD_RECEIVED, CLI_FIELD,                   \
    "Time until it lapses; only in detail.")                                                                           \
  X(CLI_ELEMENT_RECEIVED_INSTALLED, 606, "installed-in-mrib", CLI_TYPE_BOOLEAN, CLI_RECORD_RECEIVED, CLI_FIELD,        \
    "Whether this PE has joined it; only in detail.")                                                                  \
  X(CLI_ELEMENT_RECEIVED_COUNT, 607, "received-count", CLI_TYPE_NUMBER, CLI_RECORD_RECEIVED, CLI_FIELD,                \
    "Announcements received; only in detail.")                                                                         \
  X(CLI_ELEMENT_PERSISTED_ROUTE, 700, "customer-route", CLI_TYPE_STRING, CLI_RECORD_PERSISTED, CLI_BEGINS,             \
    "The flow, as (source/length, group/length).")                                                                     \
  X(CLI_ELEMENT_PERSISTED_INDEX, 701, "index", CLI_TYPE_NUMBER, CLI_RECORD_PERSISTED, CLI_FIELD,                       \
    "Encapsulation index.")                                                                                            \
  X(CLI_ELEMENT_PERSISTED_GROUP, 702, "mdt-group", CLI_TYPE_ADDRESS, CLI_RECORD_PERSISTED, CLI_FIELD,                  \
    "Data-MDT group.")                                                                                                 \
  X(CLI_ELEMENT_SAFI_RD, 800, "route-distinguisher", CLI_TYPE_STRING, CLI_RECORD_SAFI, CLI_BEGINS,                     \
    "Route distinguisher of the announcing VRF.")                                                                      \
  X(CLI_ELEMENT_SAFI_SOURCE, 801, "pe-address", CLI_TYPE_ADDRESS, CLI_RECORD_SAFI, CLI_FIELD, "Announcing PE.")        \
  X(CLI_ELEMENT_SAFI_GROUP, 802, "default-group", CLI_TYPE_ADDRESS, CLI_RECORD_SAFI, CLI_FIELD, "Default MDT group.")  \
  X(CLI_ELEMENT_SAFI_LOCAL, 803, "local", CLI_TYPE_BOOLEAN, CLI_RECORD_SAFI, CLI_FIELD,                                \
    "Whether this PE announces it.")                                                                                   \
  X(CLI_ELEMENT_PIM_SAFI_RD, 810, "route-distinguisher", CLI_TYPE_STRING, CLI_RECORD_PIM_SAFI, CLI_BEGINS,             \
    "Route distinguisher of the announcing VRF.")                                                                      \
  X(CLI_ELEMENT_PIM_SAFI_SOURCE, 811, "pe-address", CLI_TYPE_ADDRESS, CLI_RECORD_PIM_SAFI, CLI_FIELD,                  \
    "Announcing PE.")                                                                                                  \
  X(CLI_ELEMENT_PIM_SAFI_GROUP, 812, "default-group", CLI_TYPE_ADDRESS, CLI_RECORD_PIM_SAFI, CLI_FIELD,                \
    "Default MDT group.")                                                                                              \
  X(CLI_ELEMENT_PIM_SAFI_LOCAL, 813, "local", CLI_TYPE_BOOLEAN, CLI_RECORD_PIM_SAFI, CLI_FIELD,                        \
    "Whether this PE announces it.")                                                                                   \
  X(CLI_ELEMENT_USED_BUFFER_ADDRESS, 900, "address", CLI_TYPE_STRING, CLI_RECORD_USED_BUFFER, CLI_BEGINS,              \
    "Where the buffer stands in memory.")                                                                              \
  X(CLI_ELEMENT_USED_BUFFER_XID, 901, "transaction-id", CLI_TYPE_NUMBER, CLI_RECORD_USED_BUFFER, CLI_FIELD,            \
    "Transaction id of its last send.")                                                                                \
  X(CLI_ELEMENT_USED_BUFFER_ENTRIES, 902, "entry-count", CLI_TYPE_NUMBER, CLI_RECORD_USED_BUFFER, CLI_FIELD,           \
    "Route entries in it.")                                                                                            \
  X(CLI_ELEMENT_FREE_BUFFER_ADDRESS, 910, "address", CLI_TYPE_STRING, CLI_RECORD_FREE_BUFFER, CLI_BEGINS,              \
    "Where the buffer stands in memory.")                                                                              \
  X(CLI_ELEMENT_FREE_BUFFER_XID, 911, "transaction-id", CLI_TYPE_NUMBER, CLI_RECORD_FREE_BUFFER, CLI_FIELD,            \
    "Transaction id of a send that was refused; else 0.")                                                              \
  X(CLI_ELEMENT_FREE_BUFFER_ENTRIES, 912, "entry-count", CLI_TYPE_NUMBER, CLI_RECORD_FREE_BUFFER, CLI_FIELD,           \
    "Route entries in it.")                                                                                            \
  X(CLI_ELEMENT_OBJECT_VERSION, 1000, "version", CLI_TYPE_NUMBER, CLI_RECORD_TRANSMIT_OBJECT, CLI_BEGINS,              \
    "Version of the object on the list.")                                                                              \
  X(CLI_ELEMENT_OBJECT_CONTEXT_ID, 1001, "context-id", CLI_TYPE_NUMBER, CLI_RECORD_TRANSMIT_OBJECT, CLI_FIELD,         \
    "Core VRF that the route is installed in.")                                                                        \
  X(CLI_ELEMENT_OBJECT_SOURCE, 1002, "source", CLI_TYPE_SOURCE, CLI_RECORD_TRANSMIT_OBJECT, CLI_FIELD,                 \
    "Core source of the route.")                                                                                       \
  X(CLI_ELEMENT_OBJECT_GROUP, 1003, "group", CLI_TYPE_ADDRESS, CLI_RECORD_TRANSMIT_OBJECT, CLI_FIELD,                  \
    "Core group of the route.")                                                                                        \
  X(CLI_ELEMENT_OBJECT_OPERATION, 1004, "operation", CLI_TYPE_STRING, CLI_RECORD_TRANSMIT_OBJECT, CLI_FIELD,           \
    "ADD-op, DELETE-op; NO-op: nothing left to send.")                                                                 \
  X(CLI_ELEMENT_OBJECT_VRF_NAME, 1005, "vrf-name", CLI_TYPE_STRING, CLI_RECORD_TRANSMIT_OBJECT, CLI_FIELD,             \
    "VRF to be checked again.")                                                                                        \
  /* SNMP tables, columns in the order of a row. Times are hundredths of a second. */                                  \
  CLI_MIB_COLUMN_LIST(CLI_MIB_COLUMN_ELEMENT, X)

/* CLI_ELEMENT_NONE keeps a value out of the document. */
#define CLI_ELEMENT_CONSTANT(id, number, name, type, record, place, text) id = number,
enum cli_element { CLI_ELEMENT_NONE = 0, CLI_ELEMENT_LIST(CLI_ELEMENT_CONSTANT) };

#endif /* PLATFORM_CLI_SCHEMA_H */
