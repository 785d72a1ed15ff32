// Shared header of the multicast-VPN component: the per-VRF context, the records of its subsystems, the enumerations,
// the globals that the host reads or sets, and the entry points that the host calls.
//
// Results, unless a declaration says otherwise: 1 (or a pointer) for success, 0 (or null) for failure. Addresses are in
// host byte order. Every entry point is called under the host's scheduling locks (thread.h); those marked "yields" may
// let other threads run, after which no record that the caller held is certain to exist.
//
// The header is read by C++20 and by C11. C11 cannot say how wide an enumeration is, so there an enumeration's name
// stands for its number, and constants are enumerators.
#ifndef MVPN_H
#define MVPN_H

#ifndef __cplusplus
#include <assert.h>
#endif
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include "platform/bgp.h"
#include "platform/cli.h"
#include "platform/mem.h"
#include "platform/mrib.h"
#include "platform/mts.h"
#include "platform/pim.h"
#include "platform/pt.h"
#include "platform/ravl.h"
#include "platform/rpm.h"
#include "platform/rqueue.h"
#include "platform/timer.h"
#include "platform/txlist.h"
#include "platform/types.h"

#ifdef __cplusplus
#define MVPN_ENUM(name, number) enum name : number
#define MVPN_CONSTANT(name, value) constexpr uint32_t name = value
#else
#define MVPN_ENUM(name, number) \
  typedef number name;          \
  enum
#define MVPN_CONSTANT(name, value) enum { name = value }
// clang-format off
typedef struct mvpn_mdt_route_addrs mvpn_mdt_route_addrs;
typedef struct pim_cibtype pim_cibtype;
typedef struct pim_core_route pim_core_route;
typedef struct pim_iftype pim_iftype;
typedef struct pim_route pim_route;
typedef struct ravl_node ravl_node;
typedef struct ravl_tree ravl_tree;
typedef struct rpm_binding rpm_binding;
typedef struct rqueue rqueue;
typedef struct txlist_element txlist_element;
typedef struct zeph_timestamp zeph_timestamp;
typedef struct mvpn_bgp_mdt_safi mvpn_bgp_mdt_safi;
typedef struct mvpn_bgp_mdt_safi_key mvpn_bgp_mdt_safi_key;
typedef struct mvpn_cibtype mvpn_cibtype;
typedef struct mvpn_data_mdt_range mvpn_data_mdt_range;
typedef struct mvpn_data_mdt_recv_join_info mvpn_data_mdt_recv_join_info;
typedef struct mvpn_data_mdt_send_join_info mvpn_data_mdt_send_join_info;
typedef struct mvpn_ha_encap_info_t mvpn_ha_encap_info_t;
typedef struct mvpn_mdt_route mvpn_mdt_route;
typedef struct mvpn_refusals mvpn_refusals;
typedef struct mvpn_switchover_entry mvpn_switchover_entry;
// clang-format on
#endif

#define MVPN_ENUM_CONSTANT(name, value, text) name = value,

// ---------------------------------------------------------------------------------------------------- enumerations

// Module status; ordered: everything above Down Pending is running.
#define MVPN_FUNCTIONALITY_STATUS_LIST(X)                                                            \
  X(MVPN_FUNCTIONALITY_DOWN, 0, "Down")                 /* before start, after stop */               \
  X(MVPN_FUNCTIONALITY_DOWN_PENDING, 1, "Down Pending") /* stopping: BGP, MRIB are told nothing */   \
  X(MVPN_FUNCTIONALITY_UP, 2, "Up")                     /* every sub-initialisation has succeeded */ \
  X(MVPN_FUNCTIONALITY_UP_PENDING, 3, "Up Pending")     /* starting, or a start that failed */
MVPN_ENUM(mvpn_functionality_status_t, uint32_t){MVPN_FUNCTIONALITY_STATUS_LIST(MVPN_ENUM_CONSTANT)};

// Status of a VRF's multicast tunnel interface (MTI).
#define MVPN_MTI_STATUS_LIST(X)                                                                     \
  X(MVPN_MTI_NONE, 0, "None")                         /* no tunnel was asked for yet */             \
  X(MVPN_MTI_CREATE_PENDING, 1, "Create Pending")     /* create request sent */                     \
  X(MVPN_MTI_CREATED, 2, "Created")                   /* the interface exists */                    \
  X(MVPN_MTI_DOWN_PENDING, 3, "Down Pending")         /* bring-down request sent */                 \
  X(MVPN_MTI_DOWN_IN_PROGRESS, 4, "Down in Progress") /* default MDT being taken apart */           \
  X(MVPN_MTI_DOWN, 5, "Down")                         /* the worker has finished with its routes */ \
  X(MVPN_MTI_DELETE_PENDING, 6, "Delete Pending")     /* delete request sent */                     \
  X(MVPN_MTI_DELETED, 7, "Deleted")                   /* delete response arrived */                 \
  X(MVPN_MTI_UP_PENDING, 8, "Up Pending")             /* bring-up request sent */                   \
  X(MVPN_MTI_UP, 9, "Up")                             /* PIM runs on the interface */
MVPN_ENUM(mvpn_mti_status_t, uint32_t){MVPN_MTI_STATUS_LIST(MVPN_ENUM_CONSTANT)};

// Statuses in which the MTI exists as a PIM interface, as a bit mask over mvpn_mti_status_t.
MVPN_CONSTANT(MVPN_MTI_PIM_INTERFACE_STATUSES, 1u << MVPN_MTI_DOWN_PENDING | 1u << MVPN_MTI_DOWN_IN_PROGRESS |
                                                   1u << MVPN_MTI_DOWN | 1u << MVPN_MTI_DELETE_PENDING |
                                                   1u << MVPN_MTI_UP_PENDING | 1u << MVPN_MTI_UP);

// PIM mode of a group.
#define MVPN_MDT_GROUP_MODE_LIST(X)        \
  X(MVPN_MDT_GROUP_MODE_NONE, 0, "None")   \
  X(MVPN_MDT_GROUP_MODE_SSM, 1, "SSM")     \
  X(MVPN_MDT_GROUP_MODE_BIDIR, 2, "Bidir") \
  X(MVPN_MDT_GROUP_MODE_ASM, 3, "ASM")
MVPN_ENUM(mvpn_mdt_group_mode_t, uint32_t){MVPN_MDT_GROUP_MODE_LIST(MVPN_ENUM_CONSTANT)};

// What a core route carries. Types 1 and 3 are local, 2 and 4 remote; 0 means "any" in filters.
MVPN_ENUM(mvpn_mdt_route_type_t, uint32_t){
    MVPN_MDT_ROUTE_LOCAL_DEFAULT = 1,   // default MDT, sourced by this PE
    MVPN_MDT_ROUTE_REMOTE_DEFAULT = 2,  // default MDT, sourced by a remote PE
    MVPN_MDT_ROUTE_LOCAL_DATA = 3,      // data MDT, sourced by this PE
    MVPN_MDT_ROUTE_REMOTE_DATA = 4,     // data MDT of a remote PE, joined by this one
};

// What the MRIB worker still has to do for a core route.
MVPN_ENUM(mvpn_mdt_route_pending_t, uint8_t){
    MVPN_MDT_ROUTE_NOT_PENDING = 0, MVPN_MDT_ROUTE_ADD_PENDING = 1,
    MVPN_MDT_ROUTE_DELETE_PENDING = 2,  // freed once its delete entries are written
};

// State of a customer flow on the sending side.
MVPN_ENUM(mvpn_data_mdt_state_t, uint32_t){
    MVPN_DATA_MDT_STATE_DEFAULT = 0,             // on the default MDT
    MVPN_DATA_MDT_STATE_SWITCHOVER_PENDING = 1,  // announced, not yet switched
    MVPN_DATA_MDT_STATE_ACTIVE = 2,              // on its data MDT
    MVPN_DATA_MDT_STATE_SWITCHBACK_PENDING = 3,  // one check below the threshold
};

// Kind of the last operational change of a VRF, as SNMP reports it.
MVPN_ENUM(mvpn_last_change_t, uint32_t){
    MVPN_LAST_CHANGE_CREATED = 1,
    MVPN_LAST_CHANGE_DEFAULT_MDT = 3,
    MVPN_LAST_CHANGE_DATA_MDT = 4,
};

// Kinds of objects on the MRIB transmit list.
MVPN_ENUM(mvpn_txlist_elem_kind_t, uint8_t){
    MVPN_TXLIST_MEMBER_WORKER = 1,
    MVPN_TXLIST_ELEM_ROUTE = 2,
    MVPN_TXLIST_ELEM_CONTEXT = 3,
    MVPN_TXLIST_ELEM_WITHDRAWAL = 4,
};

// Kinds of records that depend on a core route; the tag of its referers.
MVPN_ENUM(mvpn_referer_kind_t, uint32_t){
    MVPN_REFERER_CUSTOMER_ROUTE = 1,  // pim_route mapped onto the local source
    MVPN_REFERER_RECV_JOIN = 2,       // mvpn_data_mdt_recv_join_info
};

// Croute kinds that a received announcement is installed for.
MVPN_ENUM(mvpn_recv_join_flag_t, uint32_t){
    MVPN_RECV_JOIN_MAPPED_SG = 1,
    MVPN_RECV_JOIN_MAPPED_STARG = 2,
};

// Indexes of the contexts.
MVPN_ENUM(mvpn_context_index_t, uint32_t){
    MVPN_CONTEXTS_BY_MTI, MVPN_CONTEXTS_BY_MTI_IOD, MVPN_CONTEXTS_BY_MDT_GROUP, MVPN_CONTEXTS_BY_SOURCE,
    MVPN_CONTEXT_INDEXES,  // how many there are
};

MVPN_CONSTANT(MVPN_MDT_MTU_DEFAULT, 1376);              // bytes
MVPN_CONSTANT(MVPN_PIM_HELLO_INTERVAL_DEFAULT, 30000);  // milliseconds
MVPN_CONSTANT(MVPN_PIM_JP_INTERVAL_DEFAULT, 60);        // seconds; also the unit of configured intervals
MVPN_CONSTANT(MVPN_DATA_MDT_TIMEOUT_DEFAULT, 180);      // seconds
MVPN_CONSTANT(MVPN_ENCAP_INDEXES, 1024);                // entries of the encapsulation table
MVPN_CONSTANT(MVPN_ENCAP_INDEX_NONE, 0);                // not sent into the MVPN
MVPN_CONSTANT(MVPN_ENCAP_INDEX_DEFAULT, 1);             // default MDT
MVPN_CONSTANT(MVPN_ENCAP_INDEX_FIRST_DATA, 2);          // first index of a data MDT
MVPN_CONSTANT(MVPN_DATA_MDT_POOL_GROUPS, 1024);         // groups that a range can hand out

// --------------------------------------------------------------------------------------------------------- records

// What arrived from outside and was refused: it may arrive at any rate, so it is counted and seldom said.
struct mvpn_refusals {
  uint32_t count;        // so far
  zeph_timestamp noted;  // monotonic: when that was last said; 0 = never
};

// A range of data-MDT groups of a VRF. Tracked buffer, zero-filled.
struct mvpn_data_mdt_range {
  mvpn_data_mdt_range *next;  // next range of the VRF; null = last
  ip_addr_t prefix;           // first group of the pool
  uint8_t masklen;            // prefix length, 0..32
  uint32_t threshold;         // kbps at or above which a flow is moved; 0 = not configured
  uint8_t immediate_switch;   // 1: move a flow as soon as its route is mapped (threshold 0 only)
  rpm_binding policy;         // route-map; policy_name null = every flow
  uint8_t deleted;            // 1: being removed, matches nothing
  uint32_t group_refcount[MVPN_DATA_MDT_POOL_GROUPS];  // flows on the group prefix + slot
};

// MVPN context of a VRF. Slab object; lives from the first 'mdt default' to mvpn_finish_destroy_default_mdt.
// mdt_default_group, mti_iod, mti_ifindex and mdt_source_iod are indexed: change them with the setters of
// mvpn_context.h.
struct mvpn_cibtype {
  pim_cibtype *pcib;                              // owning PIM context
  pim_iftype *mti_pim_if;                         // the MTI in PIM; null = not up in PIM
  ip_addr_t mdt_default_group;                    // 0 = not configured
  mvpn_mdt_group_mode_t mdt_group_mode;           // mode of mdt_default_group in mdt_source_context
  im_iod_t mti_iod;                               // 0 = none
  if_index_t mti_ifindex;                         // as allocated for the tunnel manager; 0 = none
  mvpn_mti_status_t mti_status;                   // changed by mvpn_set_mti_status only
  im_iod_t mdt_source_iod;                        // configured source interface, else BGP's update source; 0 = none
  ip_addr_t mdt_source_addr;                      // its address; 0 = none
  vrf_context_id_t mdt_source_context;            // its VRF, that is the core
  uint8_t bgp_rd[ROUTE_DISTINGUISHER_SIZE];       // as BGP gives it
  uint8_t bgp_rd_set;                             // 1: bgp_rd is valid
  uint8_t data_mdt_bidir_enable;                  // 1: bidirectional routes may move to data MDTs
  ip_addr_t mdt_encap_group[MVPN_ENCAP_INDEXES];  // provider group of each encapsulation index; 0 = free
  uint32_t data_mdt_send_join_count;              // Join packets sent
  uint32_t data_mdt_recv_join_count;              // Join entries received
  ravl_tree switchover_cache;            // mvpn_switchover_entry: flows waiting for the end of their switchover
  pt_root *data_mdt_recv_cache;          // mvpn_data_mdt_recv_join_info by 12-byte key
  active_timer *switchover_timer;        // null = it could not be created
  uint8_t *data_mdt_join_pkt;            // Join packet being filled, tracked buffer; null = none
  uint32_t mdt_route_count;              // records in mdt_route_tree
  pt_root *mdt_route_tree;               // mvpn_mdt_route by 8-byte key
  txlist_element mrib_txlist_elem;       // on the transmit list while a teardown waits for the worker
  char mdt_source_ifname[IF_NAME_SIZE];  // 'mdt source'; empty = BGP's update source
  mvpn_data_mdt_range *data_mdt_config;  // ranges, searched from the head; null = none
  uint32_t data_mdt_timeout;             // seconds a received announcement lives
  uint32_t pim_hello_interval;           // milliseconds
  uint32_t pim_jp_interval;              // seconds
  uint8_t data_mdt_inhibit_reuse;        // 1: configured; stored only
  uint32_t mdt_mtu;                      // bytes
  uint8_t asm_use_shared_tree;           // 1: ASM groups use (*,G) routes only
  uint8_t enforce_bgp_mdt_safi;          // 1: remote PEs are learnt from BGP only
  zeph_timestamp last_change_time;       // monotonic
  mvpn_last_change_t last_change_code;   // what changed then
  // Own bookkeeping behind the fields above.
  void *index_places[MVPN_CONTEXT_INDEXES];  // where the context stands in each index, which knows what it is
  uint64_t serial;                           // 1.., never given twice: tells a context from one that took its place
  uint8_t unclaimed_choices;                 // 1: flows may have a persisted choice and no data MDT
  uint32_t data_mdt_join_capacity;           // bytes allocated at data_mdt_join_pkt; 0 = none
  uint32_t data_mdt_recv_count;              // records in data_mdt_recv_cache
  uint32_t data_mdt_recv_mapped;             // of these, records that refer to a core route
  mvpn_refusals data_mdt_recv_refused;       // announcements dropped because the cache was full
  mvpn_refusals data_mdt_recv_invalid;       // announcements dropped because their data group is no multicast group
};

// Core route of a VRF. Slab object; freed by mvpn_mdt_free_route_resources only.
struct mvpn_mdt_route {
  mvpn_cibtype *mvpn;                // owning VRF
  mvpn_mdt_route_type_t route_type;  // who asked for it first; does not tell what depends on it: see referers
  mvpn_mdt_group_mode_t mode;        // mode of group at creation
  ip_addr_t source;                  // 0 = (*,G)
  ip_addr_t group;
  im_iod_t mdt_source_iod;              // the VRF's, at creation
  zeph_timestamp create_time;           // monotonic
  vrf_context_id_t mdt_source_context;  // the VRF's, at creation: core VRF that the route is installed in
  uint8_t in_mrib;                      // 1: an add entry was written to an update buffer; never cleared
  mvpn_mdt_route_pending_t pending;
  uint8_t teardown;            // copied into every entry written for the route
  uint8_t unlisted_referers;   // own bookkeeping; 1: records may point at the route that referers does not list
  rqueue referers;             // data queue: records that depend on the route, tagged mvpn_referer_kind_t
  txlist_element txlist_elem;  // membership in the transmit list
};

// MDT SAFI key: what identifies an entry, in memory order. The tree key is its first 12 bytes.
struct mvpn_bgp_mdt_safi_key {
  ip_addr_t mdt_src;                         // the announcing PE
  uint8_t bgp_rd[ROUTE_DISTINGUISHER_SIZE];  // as BGP gives it
  ip_addr_t mdt_grp;                         // default MDT group
};
static_assert(sizeof(mvpn_bgp_mdt_safi_key) == 16);
MVPN_CONSTANT(MVPN_MDT_SAFI_TREE_KEY_SIZE, 12);

// Entry of the MDT SAFI database. Slab object.
struct mvpn_bgp_mdt_safi {
  ravl_node node;             // in mvpn_bgp_mdt_safi_db; user_data: the entry's left child in the tree of its group
  mvpn_bgp_mdt_safi_key key;  // never changes while the entry is stored
  void *group_right;          // the right child there, a mvpn_bgp_mdt_safi; null: none
  uint32_t group_rank;        // its place from the root there: none below it has a greater one
  uint8_t local;              // 1: this PE advertises it
};

// Send-side record of a customer route; hangs on the route. Slab object.
struct mvpn_data_mdt_send_join_info {
  mvpn_data_mdt_range *config;  // range that the route maps to; null = none
  mvpn_mdt_route *mdt_route;    // local data-MDT route that the customer route refers to; null = default MDT
  ip_addr_t group;              // data-MDT group in use; 0 = none
  zeph_timestamp switch_time;   // monotonic: start of the switchover
  uint16_t encap_index;         // 0 = not sent into the MVPN, 1 = default MDT, 2.. = data MDT
  mvpn_data_mdt_state_t state;  // where the flow is, or is going
  uint32_t join_count;          // Join entries announced
};

// Received announcement. Slab object; in the VRF's data_mdt_recv_cache.
struct mvpn_data_mdt_recv_join_info {
  ip_addr_t c_src;             // customer source; 0 = any
  ip_addr_t c_grp;             // customer group
  ip_addr_t p_src;             // announcing PE
  ip_addr_t p_grp;             // data-MDT group
  uint32_t join_count;         // announcements heard
  zeph_timestamp create_time;  // monotonic: first heard
  zeph_timestamp expiry_time;  // monotonic: when it lapses
  zeph_timestamp last_time;    // monotonic: last heard
  mvpn_mdt_route *mdt_route;   // remote data-MDT route that it refers to; null = none
  uint32_t flags;              // mvpn_recv_join_flag_t
};

// A flow on a data MDT, as it is announced. Host byte order.
struct mvpn_data_mdt_join {
  ip_addr_t c_src;  // customer source; 0 = any
  ip_addr_t c_grp;  // customer group
  ip_addr_t p_grp;  // data-MDT group that carries the flow
};

// Flow waiting for the end of its switchover. Tracked buffer.
struct mvpn_switchover_entry {
  ravl_node node;              // in the VRF's switchover_cache
  mvpn_mdt_route_addrs addrs;  // the route's address, padding 0: the 12-byte key
  pim_route *route;            // alive while the entry exists
};
static_assert(sizeof(mvpn_mdt_route_addrs) == 12);

// Persisted encapsulation choice of a flow.
struct mvpn_ha_encap_info_t {
  uint16_t encap_index;  // 2.. = data MDT
  uint32_t mdt_group;    // data-MDT group
};
static_assert(sizeof(mvpn_ha_encap_info_t) == 8);

// --------------------------------------------------------------------------------------------------------- exported

#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

// Event-history enable words, set by the host; word MVPN_TRACE_SLOT enables the module's.
enum { PIM_TRACE_BUFFERS = 34, MVPN_TRACE_SLOT = 27 };
extern uint32_t pim_glb_trace_buffers[PIM_TRACE_BUFFERS];
extern uint32_t pim_mvpn_detail_debug_flag;  // set by the host; non-zero: detailed messages too

extern mvpn_functionality_status_t mvpn_functionality_status;
extern const char *const mvpn_functionality_status_str[4];
extern const char *const mvpn_mti_status_str[10];
extern const char *const mvpn_mdt_group_mode_str[4];
extern uint32_t mvpn_mvrf_count;                 // live contexts
extern uint32_t mvpn_is_cli_done;                // 1: the configuration replay has ended; never cleared
extern uint32_t mvpn_mdt_xid;                    // where transaction ids begin, 0xaabbccdd: told easily in captures
extern uint32_t mvpn_data_mdt_recv_cache_limit;  // set by the host: received announcements kept per VRF

// Start and stop. A start that returned 0 leaves what it had started: mvpn_deinit comes before the next one.
// deregister: non-zero ends the MRIB registration too. mvpn_init_cli registers the command handlers, once, after
// mvpn_init. Yield.
int mvpn_init(void);
void mvpn_deinit(int deregister);
void mvpn_init_cli(void);

// Messages of the host's queue: 1 when the message was the module's, 0 when it was not or the module is not running.
int mvpn_process_msg(mts_message *msg);

// Interface manager: an interface changed state (up: non-zero), appeared, changed its address.
void mvpn_interface_status(im_iod_t iod, int up);
void mvpn_interface_create(im_iod_t iod);
void mvpn_process_address_change(im_iod_t iod);

// The VRF is about to be removed: its default MDT goes, with the context; a context that never had a default group goes
// at once. The host keeps the VRF until pcib->mvpn is null. Yields.
void mvpn_leave_vrf(pim_cibtype *pcib);

// Configuration replay: the stored commands of one VRF have ended; an end-of-replay notice has arrived. Return 1.
int mvpn_cli_vrf_done(pim_cibtype *pcib);
int mvpn_cli_done(void);

// MRIB: acknowledgement (xid at MRIB_ACK_XID_OFFSET), notification, cleared routes (count entries of
// MRIB_NOTIFY_ENTRY_SIZE bytes, the caller's and unchanged until the call returns), request to send routes again
// (filter null: all; route_type 0: every type). Yield.
void mvpn_process_mrib_mts_update_route_ack(const void *message);
void mvpn_process_mrib_mdt_notify(const void *message);
void mvpn_process_clear_route_notify(pim_cibtype *pcib, const void *entries, uint32_t count);
void mvpn_mrib_repopulate_mdt_routes(vrf_context_id_t context_id, const mvpn_mdt_route_addrs *filter,
                                     uint32_t route_type);

// A core route of the host is about to change: releases what depends on it. Yields.
void mvpn_free_dependent_route_resources(pim_cibtype *pcib, const pim_core_route *core_route);

// Customer routes. croute: the host's record, key: its address. Changes of the reverse path and the mapping of a local
// source may announce a flow, which yields.
void mvpn_process_mrib_join_notify(pim_cibtype *pcib, const mvpn_mdt_route_addrs *key, pim_route *croute);
void mvpn_process_mrib_prune_notify(pim_cibtype *pcib, const mvpn_mdt_route_addrs *key, pim_route *croute);
void mvpn_process_pim_route_delete(pim_cibtype *pcib, const mvpn_mdt_route_addrs *key, pim_route *croute);
void mvpn_process_mrib_rpf_notify(pim_cibtype *pcib, const mvpn_mdt_route_addrs *key, pim_route *croute, int up);
void mvpn_process_rpf_lookup(pim_cibtype *pcib, const mvpn_mdt_route_addrs *key, pim_route *croute, ip_addr_t rp,
                             int before, int after);
void mvpn_data_mdt_map_local_source_to_receiver(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *key, pim_route *croute);
void mvpn_data_mdt_unmap_local_source_from_receiver(mvpn_cibtype *mvpn, pim_route *croute,
                                                    const mvpn_mdt_route_addrs *key);
int mvpn_set_encap_index_for_customer_route(mvpn_cibtype *mvpn, pim_route *croute, uint32_t encap_index);

// Periodic rate check of one customer route: 1 when it went back to the default MDT in this call. Yields.
int mvpn_stats_check(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *key, pim_route *croute);

// Finishes every pending switchover of a VRF.
void mvpn_process_data_mdt_switchover_expiry(mvpn_cibtype *mvpn);

// Sends the Join entries that a VRF has gathered; release 1 frees the buffer afterwards. Yields.
void mvpn_send_data_mdt_join_packet(mvpn_cibtype *mvpn, int release);

// Announces every persisted data MDT of a VRF in Join packets. Yields.
void mvpn_unconditional_announce_data_mdt_join(mvpn_cibtype *mvpn);

// Use counts of a range's groups; result: the new count. spare is ignored. key names the flow in the persistent store;
// no_persist non-zero leaves the store alone. Groups that the range cannot hand out: 0, nothing changes.
uint32_t mvpn_increment_data_mdt_group_refcount(mvpn_cibtype *mvpn, mvpn_data_mdt_range *range, ip_addr_t group,
                                                uint32_t spare, const mvpn_mdt_route_addrs *key, uint32_t encap_index,
                                                int no_persist);
uint32_t mvpn_decrement_data_mdt_group_refcount(mvpn_cibtype *mvpn, mvpn_data_mdt_range *range, ip_addr_t group,
                                                uint32_t spare, const mvpn_mdt_route_addrs *key);

// Contexts. By VRF name, by context id; by a BGP connector attribute (first and attribute are BGP's; *source, when
// given, receives the PE's address). Null: none.
mvpn_cibtype *mvpn_get_context(const char *vrf_name);
mvpn_cibtype *mvpn_get_context_by_id(vrf_context_id_t context_id);
mvpn_cibtype *mvpn_bgp_get_context_by_connector_attribute(void *first, void *attribute, ip_addr_t *source);

// Mode of a group in a VRF; never None.
mvpn_mdt_group_mode_t mvpn_get_group_mode(vrf_context_id_t context_id, ip_addr_t group);

#ifdef __cplusplus
}  // extern "C"
#endif
#pragma GCC visibility pop

#endif  // MVPN_H
