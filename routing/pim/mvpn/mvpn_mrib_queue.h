// The low side of the interface to the MRIB: its state, the transmit list, the worker's wake-up, encapsulations.
#ifndef MVPN_MRIB_QUEUE_H
#define MVPN_MRIB_QUEUE_H

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
  mvpn_mrib_withdrawal *next;                   // queue link: first word
  txlist_element txlist_elem;                   // on the transmit list until the entries are written
  uint8_t entries[2 * MRIB_UPDATE_ENTRY_SIZE];  // as platform/mrib.h lays them out
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
extern mvpn_mrib_info_t *mvpn_mrib_info;  // null while the interface does not exist
extern pthread_mutex_t mvpn_mrib_worker_mutex;
extern pthread_cond_t mvpn_mrib_worker_cond;

// Called by the worker when the routes of a VRF that stood before it on the list are written. Set when the library is
// loaded.
extern void (*mvpn_mrib_routes_written_hook)(mvpn_cibtype *mvpn);

void mvpn_mrib_wakeup_worker_thread();

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

// Has RPF recomputed for the VRF's routes.
void mvpn_mrib_trigger_rpf_lookup(mvpn_cibtype *mvpn);

// Encapsulation indexes; 1, or 0 when the MRIB was not told. While the module stops, a delete only clears the group's
// slot.
int mvpn_add_mdt_encap_info(mvpn_cibtype *mvpn, ip_addr_t mdt_group, uint32_t encap_index);
int mvpn_delete_mdt_encap_info(mvpn_cibtype *mvpn, ip_addr_t mdt_group);
int mvpn_delete_all_mdt_encap_info(mvpn_cibtype *mvpn, int tell_mrib);

#endif  // MVPN_MRIB_QUEUE_H
