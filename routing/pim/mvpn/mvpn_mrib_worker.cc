// The MRIB worker: turns what stands on the transmit list into updates of the MRIB.
//
// Producers mark routes pending, put them at the tail of the one transmit list and wake the worker. The worker walks
// the list, writes the entries of each pending route into a buffer, and hands a buffer to the MRIB when it is full or
// when the list ends. The MRIB acknowledges each buffer by its transaction id, which makes it free again. There are few
// buffers, allocated once: while all are on their way the worker sleeps, and routes that change meanwhile are sent in
// their latest state only.
//
// The same list carries VRFs whose default MDT was taken down. A VRF stands behind the deletions of its routes; when
// the worker gets there it has the tunnel brought up again or deleted. The deletions are in a buffer by then, which
// need not have left: VRFs that go down together share messages.
//
// A VRF that is freed while the MRIB still holds routes of it leaves their deletions behind, already written out: they
// stand on the list for themselves, since neither the routes nor the VRF exist when the worker gets there.
//
// Place in the list. Routes stay on the list after they were sent, so a marker of the worker's own keeps apart what it
// has met from what it has not; a walk begins there. While a walk runs the cursor names the object met last, and the
// marker may lag behind it. Whenever other work may run the marker takes the cursor's place, because any object but
// the marker can vanish meanwhile.
//
// Buffers. The buffer being filled stays at the head of free_buffers until the MRIB took it. A refused one keeps its
// entries there, and the next walk appends to it and sends it under a new transaction id. When that walk meets nothing
// to append, the entries at the head are all there is to send.
//
// Invariants.
//   - A buffer is on free_buffers or on sent_buffers, or is being moved between them, which no yield interrupts.
//   - work_pending is set whenever the list holds something behind the marker, or the head buffer has entries that no
//     walk is going to send.
//   - A deleted route is freed as soon as its entries are written. That may yield; the VRF may be gone afterwards.
//
// The worker runs under the scheduling locks like everybody else and gives them up while it sleeps and at its yield
// points. It can be cancelled while it sleeps and between two walks, nowhere else.
#include "routing/pim/mvpn/mvpn_mrib_worker.h"

#include <cstring>

#include "platform/ip.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_diag.h"
#include "routing/pim/mvpn/mvpn_guards.h"
#include "routing/pim/mvpn/mvpn_mdt_route.h"
#include "routing/pim/mvpn/mvpn_mrib_queue.h"
#include "routing/pim/mvpn/mvpn_wire.h"

static_assert(offsetof(mrib_update_buffer, next) == 0, "buffer queues link through the first word");
static_assert(MVPN_MRIB_BUFFER_AREA == 64 + 50 * 92);

// ------------------------------------------------------------------------------------------------------------ buffers

void mvpn_mrib_reset_buffer(mrib_update_buffer *buffer) {
  std::memset(buffer->area, 0, sizeof buffer->area);
  buffer->write_pos = buffer->area + MRIB_UPDATE_HEADER_SIZE;
  buffer->limit = buffer->area + sizeof buffer->area;
  buffer->xid = 0;
  buffer->count = 0;
}

static bool has_room(const mrib_update_buffer *buffer, uint32_t entries) {
  return static_cast<size_t>(buffer->limit - buffer->write_pos) >= size_t{entries} * MRIB_UPDATE_ENTRY_SIZE;
}

static mrib_update_buffer *head_of(const rqueue &buffers) { return static_cast<mrib_update_buffer *>(buffers.head); }

static int mvpn_mrib_send_buffer(mrib_update_buffer *buffer) {
  buffer->xid = mvpn_mrib_next_xid();
  MVPN_DEBUG(pim_null_pcib, "Sending update-route buffer 0x%p, xid 0x%lx, count %lu to MRIB",
             static_cast<void *>(buffer), static_cast<unsigned long>(buffer->xid),
             static_cast<unsigned long>(buffer->count));
  const uint32_t length = MRIB_UPDATE_HEADER_SIZE + buffer->count * MRIB_UPDATE_ENTRY_SIZE;
  if (mrib_mts_update_route(mvpn_mrib_info->mrib_client, 1, buffer->area, length, buffer->count, buffer->xid, 0) == 0) {
    return 1;
  }
  mvpn_report(msg_error_PIM_API_FAILED, "mrib_mts_update_route()", "mvpn_mrib_send_buffer()");
  return 0;
}

// Sends a buffer of free_buffers; one that the MRIB took waits for its acknowledgement.
static int send_and_file(mrib_update_buffer *buffer) {
  if (mvpn_mrib_send_buffer(buffer) == 0) return 0;
  runqueue(&mvpn_mrib_info->free_buffers, buffer);
  renqueue(&mvpn_mrib_info->sent_buffers, buffer);
  return 1;
}

static mrib_update_buffer *sent_buffer_with(uint32_t xid) {
  const rqueue *sent = &mvpn_mrib_info->sent_buffers;
  auto *buffer = head_of(*sent);
  while (buffer != nullptr && buffer->xid != xid) {
    buffer = static_cast<mrib_update_buffer *>(rqueue_next(sent, buffer));
  }
  return buffer;
}

void mvpn_process_mrib_mts_update_route_ack(const void *message) {
  if (!mvpn_is_running()) {
    MVPN_DEBUG(pim_null_pcib, "Ignoring processing of MRIB ack messages");
    return;
  }
  if (mvpn_mrib_info == nullptr) return;
  const auto xid = load_host<uint32_t>(static_cast<const uint8_t *>(message) + MRIB_ACK_XID_OFFSET);
  mrib_update_buffer *buffer = sent_buffer_with(xid);
  if (buffer == nullptr) {
    MVPN_DEBUG(pim_null_pcib, "MRIB: Processing ack: couldn't find buffer for xid 0x%lx",
               static_cast<unsigned long>(xid));
    return;
  }
  MVPN_DEBUG(pim_null_pcib, "MRIB: Processing ack: reclaiming buffer 0x%p, xid 0x%x, count %lu",
             static_cast<void *>(buffer), static_cast<unsigned>(xid), static_cast<unsigned long>(buffer->count));
  runqueue(&mvpn_mrib_info->sent_buffers, buffer);
  mvpn_mrib_reset_buffer(buffer);
  renqueue(&mvpn_mrib_info->free_buffers, buffer);
  mvpn_mrib_wakeup_worker_thread();
}

// ------------------------------------------------------------------------------------------------------------ filling

// Writes the entries of an addition; their number.
static uint32_t write_add(mvpn_mdt_route *route, uint8_t *entry) {
  const uint32_t written =
      mvpn_is_local_route(route) ? mvpn_add_local_mdt_routes(route, entry) : mvpn_add_remote_mdt_routes(route, entry);
  route->pending = MVPN_MDT_ROUTE_NOT_PENDING;
  route->in_mrib = 1;
  route->teardown = 0;
  return written;
}

// Writes the entries of a deletion and ends the route; their number. The route left the list either way: one that is
// not in its table cannot be freed, and left on the list it would be met for ever.
static uint32_t write_delete(mvpn_mdt_route *route, uint8_t *entry) {
  const uint32_t written = mvpn_is_local_route(route) ? mvpn_delete_local_mdt_routes(route, entry)
                                                      : mvpn_delete_remote_mdt_routes(route, entry);
  if (mvpn_mdt_free_route_resources(route) == 0) {
    route->pending = MVPN_MDT_ROUTE_NOT_PENDING;
    mvpn_mrib_unqueue_route(route);
  }
  return written;
}

// The buffer being filled, or the next free one; null: all are on their way.
static mrib_update_buffer *buffer_to_fill(mrib_update_buffer **current) {
  if (*current == nullptr) *current = head_of(mvpn_mrib_info->free_buffers);
  return *current;
}

// Counts what was written. A buffer without room for any route leaves now; 0: the MRIB refused it.
static int count_entries(mrib_update_buffer **current, uint32_t written) {
  mrib_update_buffer *buffer = *current;
  buffer->count += written;
  buffer->write_pos += size_t{written} * MRIB_UPDATE_ENTRY_SIZE;
  if (has_room(buffer, 2)) return 1;
  *current = nullptr;
  return send_and_file(buffer);
}

// An addition takes one entry, a deletion two.
static int mvpn_mrib_fill_mroute_update(mvpn_mdt_route *route, mrib_update_buffer **current, int is_add, int *freed) {
  *freed = 0;
  mrib_update_buffer *buffer = buffer_to_fill(current);
  if (buffer == nullptr) return 0;
  if (!has_room(buffer, is_add != 0 ? 1 : 2)) {
    MVPN_DEBUG(route->mvpn->pcib, "MRIB: %s-update, buffer 0x%p is FULL", is_add != 0 ? "add" : "delete",
               static_cast<void *>(buffer));
    return 0;
  }
  const uint32_t written = is_add != 0 ? write_add(route, buffer->write_pos) : write_delete(route, buffer->write_pos);
  *freed = is_add == 0;
  return count_entries(current, written);
}

// --------------------------------------------------------------------------------------------------------------- walk

namespace {

struct txlist_walk {
  txlist *const list;
  txlist_obj *cursor;                     // object met last
  mrib_update_buffer *current = nullptr;  // buffer being filled
};

enum class walk_step { pass_over, go_on, stop };

}  // namespace

static txlist_obj *marker_object() { return txlist_member_to_obj(&mvpn_mrib_info->worker_marker); }

// Puts the marker behind the cursor and goes on from there: the cursor's object may vanish in what follows. (Beside
// itself the marker stays where it is.)
static void hold_place(txlist_walk &walk) {
  txlist_insert_member_after_node(walk.list, &mvpn_mrib_info->worker_marker, walk.cursor);
  walk.cursor = marker_object();
}

static walk_step take_route(txlist_walk &walk, txlist_obj *node) {
  auto *route = static_cast<mvpn_mdt_route *>(txlist_obj_to_ptr(walk.list, node));
  if (route->pending == MVPN_MDT_ROUTE_NOT_PENDING) {
    MVPN_DEBUG(route->mvpn->pcib, "Mroute (%s,%s) is in not pending state: %d", ip_print_addr(route->source),
               ip_print_addr(route->group), static_cast<int>(route->pending));
    walk.cursor = node;
    return walk_step::pass_over;
  }
  const bool is_add = route->pending == MVPN_MDT_ROUTE_ADD_PENDING;
  if (!is_add && mvpn_mdt_free_may_yield(route)) hold_place(walk);
  int freed = 0;
  const int result = mvpn_mrib_fill_mroute_update(route, &walk.current, is_add, &freed);
  if (freed == 0) walk.cursor = node;
  return result != 0 ? walk_step::go_on : walk_step::stop;
}

static walk_step take_withdrawal(txlist_walk &walk, txlist_obj *node) {
  mrib_update_buffer *buffer = buffer_to_fill(&walk.current);
  if (buffer == nullptr || !has_room(buffer, 2)) {
    walk.cursor = node;
    return walk_step::stop;
  }
  auto *withdrawal = static_cast<mvpn_mrib_withdrawal *>(txlist_obj_to_ptr(walk.list, node));
  std::memcpy(buffer->write_pos, withdrawal->entries, sizeof withdrawal->entries);
  mvpn_mrib_end_withdrawal(withdrawal);
  return count_entries(&walk.current, 2) != 0 ? walk_step::go_on : walk_step::stop;
}

static walk_step take_element(txlist_walk &walk, txlist_obj *node) {
  const uint8_t kind = txlist_obj_get_kind(node);
  switch (kind) {
    case MVPN_TXLIST_ELEM_ROUTE:
      return take_route(walk, node);
    case MVPN_TXLIST_ELEM_CONTEXT:
      hold_place(walk);
      mvpn_mrib_routes_written_hook(static_cast<mvpn_cibtype *>(txlist_obj_to_ptr(walk.list, node)));
      return walk_step::go_on;
    case MVPN_TXLIST_ELEM_WITHDRAWAL:
      return take_withdrawal(walk, node);
    default:
      MVPN_DEBUG(pim_null_pcib, "Bogus MRIB txlist element %d", static_cast<int>(kind));
      walk.cursor = node;
      return walk_step::go_on;
  }
}

// The marker waits before the cursor, whose object is met again if it is still there.
static void yield_walk(txlist_walk &walk) {
  txlist_insert_member_before_node(walk.list, &mvpn_mrib_info->worker_marker, walk.cursor);
  walk.cursor = marker_object();
  tsp_sched_yield();
}

// Sends what the walk has gathered.
static void finish_walk(mrib_update_buffer *current) {
  MVPN_DEBUG(pim_null_pcib, "Moving MRIB txlist member marker to version %d",
             static_cast<int>(txlist_get_member_version(&mvpn_mrib_info->worker_marker)));
  if (current == nullptr || current->count == 0) return;
  if (send_and_file(current) != 0) return;
  mvpn_mrib_info->work_pending = 1;
  tsp_sched_may_yield();
}

// True: the list is exhausted; false: the walk stopped before its end.
static bool walk_to_end(txlist_walk &walk) {
  for (;;) {
    txlist_obj *node = txlist_get_next_node(walk.list, walk.cursor);
    if (node == nullptr) {
      txlist_insert_member_after_node(walk.list, &mvpn_mrib_info->worker_marker, walk.cursor);
      mvpn_mrib_info->work_pending = 0;
      return true;
    }
    walk_step step = walk_step::go_on;
    if (txlist_obj_is_element(node) != 0) {
      step = take_element(walk, node);
    } else {
      walk.cursor = node;
    }
    if (step == walk_step::pass_over) continue;
    if (step == walk_step::stop) {
      txlist_insert_member_before_node(walk.list, &mvpn_mrib_info->worker_marker, walk.cursor);
      return false;
    }
    if (tsp_should_sched_yield() != 0) yield_walk(walk);
  }
}

static void mvpn_mrib_walk_txlist() {
  if (mvpn_mrib_info == nullptr || mvpn_mrib_info->txlist == nullptr || mvpn_mrib_info->work_pending == 0) return;
  txlist_walk walk{mvpn_mrib_info->txlist, marker_object()};
  const bool exhausted = walk_to_end(walk);
  // Entries that an earlier walk could not send have nobody else to send them once the list is exhausted.
  if (exhausted && walk.current == nullptr) walk.current = head_of(mvpn_mrib_info->free_buffers);
  finish_walk(walk.current);
}

// ------------------------------------------------------------------------------------------------------------- thread

static int mvpn_mrib_is_work_in_txlist() {
  return mvpn_mrib_info != nullptr && rqueue_count(&mvpn_mrib_info->free_buffers) != 0 &&
         mvpn_mrib_info->work_pending != 0;
}

static void unlock_mutex(void *mutex) { pthread_mutex_unlock(static_cast<pthread_mutex_t *>(mutex)); }

// Sleeps until the worker is signalled. The host's mutex comes locked from giving up the scheduling locks, and whoever
// signals holds those locks: nothing can be signalled between the caller's test and the wait.
static void sleep_until_signalled() {
  pthread_mutex_t *host_mutex = tsp_release_locks_before_yield(0, 0);
  pthread_cleanup_push(unlock_mutex, host_mutex);
  {
    const cancellation_scope may_end;
    pthread_cond_wait(&mvpn_mrib_worker_cond, host_mutex);
  }
  pthread_cleanup_pop(0);
  tsp_acquire_locks_after_yield(0, 0);
}

static void mvpn_mrib_wait_for_work() {
  pthread_mutex_lock(&mvpn_mrib_worker_mutex);
  while (mvpn_mrib_is_work_in_txlist() == 0) {
    pthread_mutex_unlock(&mvpn_mrib_worker_mutex);
    sleep_until_signalled();
    pthread_mutex_lock(&mvpn_mrib_worker_mutex);
  }
  pthread_mutex_unlock(&mvpn_mrib_worker_mutex);
}

// While the MRIB refuses updates there is always work, and the wait is never reached: without a second place to end,
// a stop would wait for ever.
static void end_here_if_cancelled() {
  const cancellation_scope may_end;
  pthread_testcancel();
}

void *mvpn_mrib_worker_main(void *) {
  for (;;) {
    mvpn_mrib_wait_for_work();
    mvpn_mrib_walk_txlist();
    end_here_if_cancelled();
  }
}
