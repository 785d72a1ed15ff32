// MRIB interface: the core routes of the VRFs, the transmit list and its worker, notifications and encapsulations.
#ifndef MVPN_MRIB_H
#define MVPN_MRIB_H

#include "routing/pim/mvpn/mvpn.h"

// A buffer of route updates. Tracked buffer; on free_buffers or sent_buffers.
constexpr uint32_t MVPN_MRIB_BUFFERS = 5;
constexpr uint32_t MVPN_MRIB_BUFFER_ENTRIES = 50;
constexpr uint32_t MVPN_MRIB_BUFFER_AREA = MRIB_UPDATE_HEADER_SIZE + MVPN_MRIB_BUFFER_ENTRIES * MRIB_UPDATE_ENTRY_SIZE;
struct mrib_update_buffer {
  mrib_update_buffer *next;             // queue link: first word
  uint8_t *limit;                       // end of the entry area
  uint8_t *write_pos;                   // next free entry
  uint32_t xid;                         // transaction id of the last send; 0 = free
  uint32_t count;                       // entries written
  uint8_t area[MVPN_MRIB_BUFFER_AREA];  // header and entries, as they are handed to the MRIB
};

// What is left of a route whose VRF was freed while the MRIB held it: the entries of its deletion. Tracked buffer.
struct mvpn_mrib_withdrawal {
  mvpn_mrib_withdrawal *next;  // queue link: first word
  txlist_element txlist_elem;  // on the transmit list until the entries are written
  uint8_t entries[2 * MRIB_UPDATE_ENTRY_SIZE];
};

// The transaction-id counter begins here: a value that is easily told in captures and dumps.
constexpr uint32_t MVPN_MRIB_FIRST_XID = 0xaabbccdd;

// State of the interface to the MRIB. Tracked buffer; exists from mvpn_init_mrib to mvpn_deinit_mrib.
struct mvpn_mrib_info_t {
  mrib_client_handle *mrib_client;  // passed to every MRIB call
  pt_attr *route_tree_attr;         // of every VRF's mdt_route_tree
  struct txlist *txlist;            // null when a stop failed half way
  uint32_t registered;              // 1: the start completed
  uint32_t xid;                     // last transaction id used
  rqueue free_buffers;              // linking queue; the buffer being filled is the head
  rqueue sent_buffers;              // linking queue: sent, not acknowledged
  txlist_member worker_marker;      // how far the worker has come
  uint32_t work_pending;            // 1: the list holds something that the worker has not met
  rqueue withdrawals;               // linking queue: every mvpn_mrib_withdrawal
};
extern mvpn_mrib_info_t *mvpn_mrib_info;   // null while the interface does not exist
extern pthread_t mvpn_mrib_worker_thread;  // 0 = not running
extern pthread_mutex_t mvpn_mrib_worker_mutex;
extern pthread_cond_t mvpn_mrib_worker_cond;

// Called by the worker when the routes of a VRF that stood before it on the list are written. Set when the library is
// loaded.
extern void (*mvpn_mrib_routes_written_hook)(mvpn_cibtype *mvpn);

// Start and stop of the interface; deinit: 0 when the deregistration failed.
int mvpn_init_mrib();
int mvpn_deinit_mrib(int deregister);
int mvpn_preallocate_mrib_buffers();

// Worker.
void mvpn_mrib_wakeup_worker_thread();
int mvpn_mrib_is_work_in_txlist();
void *mvpn_mrib_worker_main(void *argument);
void mvpn_mrib_wait_for_work();
void mvpn_mrib_walk_txlist();  // one walk of the transmit list
// Writes a route's add or delete entries. *current: the buffer being filled, null = none; updated. *freed: 1 when the
// route left the transmit list. 0: the walk has to stop, no buffer had room or the full one was refused.
int mvpn_mrib_fill_mroute_update(mvpn_mdt_route *route, mrib_update_buffer **current, int is_add, int *freed);
int mvpn_mrib_send_buffer(mrib_update_buffer *buffer);    // 1 when the MRIB took it
void mvpn_mrib_reset_buffer(mrib_update_buffer *buffer);  // makes it empty and free

// Queues a VRF's own element behind its route deletions and wakes the worker; nothing when it is queued already.
void mvpn_mrib_queue_context(mvpn_cibtype *mvpn);
// Puts a route at the tail of the transmit list; does not wake the worker.
void mvpn_mrib_queue_route(mvpn_mdt_route *route);
// Queues the two entries of a deletion, which outlive their route and its VRF; does not wake the worker. Ends a
// withdrawal whose entries are written.
void mvpn_mrib_queue_withdrawal(const uint8_t *entries);
void mvpn_mrib_end_withdrawal(mvpn_mrib_withdrawal *withdrawal);
// Take a VRF's own element, a route off the transmit list; nothing when it is not there.
void mvpn_mrib_unqueue_context(mvpn_cibtype *mvpn);
void mvpn_mrib_unqueue_route(mvpn_mdt_route *route);
// The next transaction id; never 0.
uint32_t mvpn_mrib_next_xid();

// Route table of a VRF. add does not look for an existing record. free: 1 when it was freed, 0 when it is not in its
// table (nothing happens); it yields only when free_may_yield says so beforehand. dequeue releases the records that
// depend on the route, the last of which may queue the route's own deletion.
mvpn_mdt_route *mvpn_mdt_mroute_add(mvpn_cibtype *mvpn, mvpn_mdt_route_type_t route_type, mvpn_mdt_group_mode_t mode,
                                    ip_addr_t source, ip_addr_t group);
mvpn_mdt_route *mvpn_mdt_mroute_lookup(mvpn_cibtype *mvpn, ip_addr_t source, ip_addr_t group);
int mvpn_mdt_free_route_resources(mvpn_mdt_route *route);
bool mvpn_mdt_free_may_yield(const mvpn_mdt_route *route);
void mvpn_mdt_dequeue_dependent_routes(mvpn_mdt_route *route);

// Next route of a VRF's table in key order after (source, group), whether or not that one still exists; the first
// route. Null at the end.
mvpn_mdt_route *mvpn_mdt_mroute_first(mvpn_cibtype *mvpn);
mvpn_mdt_route *mvpn_mdt_mroute_after(mvpn_cibtype *mvpn, ip_addr_t source, ip_addr_t group);

// Referers: records that depend on a route. A route keeps each at most once; delinking one that is not there is
// harmless. link: 1 when the route lists the referer, 0 when memory ran out: the referer must not keep the route then.
// has_referer: their number.
int mvpn_mdt_mroute_link_referer(mvpn_mdt_route *route, pim_route *croute);
int mvpn_mdt_mroute_link_referer(mvpn_mdt_route *route, mvpn_data_mdt_recv_join_info *record);
void mvpn_mdt_mroute_delink_referer(mvpn_mdt_route *route, void *referer);
void mvpn_mdt_mroute_delink_all_referers(mvpn_mdt_route *route);
uint32_t mvpn_mdt_mroute_has_referer(const mvpn_mdt_route *route);

// What the owners of referers do when a core route goes: a flow, an announcement leaves it; records that still point at
// the route though it does not list them forget it. Set when the library is loaded.
struct mvpn_referer_hooks {
  void (*release_flow)(mvpn_cibtype *mvpn, pim_route *croute);
  void (*release_announcement)(mvpn_cibtype *mvpn, mvpn_data_mdt_recv_join_info *record);
  void (*forget_route)(mvpn_mdt_route *route);
};
extern mvpn_referer_hooks mvpn_mdt_referer_hooks;

// Core source of the route for (source, group); *mode receives the group's mode.
ip_addr_t mvpn_get_mdt_mroute_source_address(mvpn_cibtype *mvpn, ip_addr_t group, ip_addr_t source,
                                             mvpn_mdt_group_mode_t *mode);

// Route resources. add: creates or refreshes the route and queues it; null when there is none. remove: queues a
// delete; 0 when there is no such route. wakeup: wakes the worker.
mvpn_mdt_route *mvpn_mdt_add_route_resources(mvpn_cibtype *mvpn, mvpn_mdt_route_type_t route_type, ip_addr_t source,
                                             int source_is_final, ip_addr_t group, int wakeup);
int mvpn_mdt_delete_route_resources(mvpn_cibtype *mvpn, ip_addr_t source, ip_addr_t group, int wakeup);
void mvpn_mdt_route_schedule(mvpn_mdt_route *route, uint8_t teardown, int add);
void mvpn_mdt_add_all_sg_route_resources(mvpn_cibtype *mvpn, ip_addr_t group);

// Whether this PE sources a route of this type.
inline bool mvpn_is_local_route(const mvpn_mdt_route *route) {
  return route->route_type == MVPN_MDT_ROUTE_LOCAL_DEFAULT || route->route_type == MVPN_MDT_ROUTE_LOCAL_DATA;
}
// Has the MRIB forget a route that is going to be freed with its VRF.
void mvpn_mdt_withdraw_route(mvpn_mdt_route *route);

// Entry builders; result: entries written at `entry`.
uint32_t mvpn_add_local_mdt_routes(const mvpn_mdt_route *route, uint8_t *entry);
uint32_t mvpn_add_remote_mdt_routes(const mvpn_mdt_route *route, uint8_t *entry);
uint32_t mvpn_delete_local_mdt_routes(const mvpn_mdt_route *route, uint8_t *entry);
uint32_t mvpn_delete_remote_mdt_routes(const mvpn_mdt_route *route, uint8_t *entry);
void mvpn_setup_mdt_mroute_ipc(uint8_t *entry, int add, vrf_context_id_t context_id, ip_addr_t group, ip_addr_t source,
                               ip_addr_t rpf_addr, uint32_t add_owner, im_iod_t mti_iod, int asm_shared_tree,
                               im_iod_t mdt_source_iod, uint32_t owner, int local, int mti_iod_set, int last_hop,
                               uint8_t teardown);

// Notification entries of MRIB_NOTIFY_ENTRY_SIZE bytes.
void mvpn_process_mrib_mdt_join_notify(const uint8_t *entry);
void mvpn_process_mrib_mdt_delete_notify(const uint8_t *entry);

// Which routes of a VRF a walk is for; as it is made: all of them.
struct mvpn_route_selection {
  const mvpn_mdt_route_addrs *filter = nullptr;  // compared under its mask lengths; source 0: any. Null: any route
  uint32_t route_type = 0;                       // mvpn_mdt_route_type_t; 0: any
  uint32_t mode = 0;                             // mvpn_mdt_group_mode_t; 0: any
  int only_shared = 0;                           // non-zero: (*,G) routes only
  int only_source = 0;                           // non-zero: (S,G) routes only
};

// Drops (send 0, or never sent) or schedules as deletes, with this teardown mark, the selected routes of the VRF.
// Result: 1 when any was, or when the VRF went away during the walk: callers find the context again. Yields.
int mvpn_mrib_clear_mdt_routes(mvpn_cibtype *mvpn, const mvpn_route_selection &selection, uint8_t teardown, int send);

// Drops all routes of a VRF that is to be freed; those that the MRIB holds are withdrawn from it afterwards. Yields.
void mvpn_mrib_withdraw_mdt_routes(mvpn_cibtype *mvpn);

// Has RPF recomputed for the VRF's routes.
void mvpn_mrib_trigger_rpf_lookup(mvpn_cibtype *mvpn);

// Encapsulation indexes. While the module stops, a delete only clears the group's slot.
int mvpn_add_mdt_encap_info(mvpn_cibtype *mvpn, ip_addr_t mdt_group, uint32_t encap_index);
int mvpn_delete_mdt_encap_info(mvpn_cibtype *mvpn, ip_addr_t mdt_group);
int mvpn_delete_all_mdt_encap_info(mvpn_cibtype *mvpn, int tell_mrib);
int mvpn_mrib_update_one_mdt_encap_info(mvpn_cibtype *mvpn, uint32_t encap_index, int add);

#endif  // MVPN_MRIB_H
