// Interface to the MRIB: start and stop, notifications, the walks over a VRF's core routes, encapsulations.
//
// Start registers the module with the MRIB, creates the transmit list and the update buffers and starts the worker
// (mvpn_mrib_worker.cc); stop undoes that. The state in between is one record, mvpn_mrib_info. The interface is started
// while the record is `registered` and has a list: a start that failed half way, or a stop that could not deregister,
// leaves a record that lacks one of them. The next start replaces it.
//
// Core routes outlive a stop when the module's configuration does. Routes that wait for the worker, and VRFs whose
// teardown waits for it, are put on the list again by the next start.
//
// Notifications keep the route tables (mvpn_mdt_route.cc) in step with the MRIB: a source that joins a shared tree gets
// a route of its own, a route that the MRIB dropped is installed again, cleared routes are forgotten and rebuilt, and a
// repopulate request sends everything again. None of them talks to the MRIB; they change records and wake the worker.
//
// Walks. Freeing a route, and the offers to yield in long walks, let other work run: the route, its neighbours and the
// VRF itself may be gone afterwards. A walk therefore takes its next route by the key of the last one, and ends when
// the VRF's context is not the one that it began with. A filter that names one route is looked up, not searched.
//
// Encapsulations tie a VRF's encapsulation index to a provider group. They are told to the MRIB one by one, at once and
// unacknowledged. A slot of the VRF's table is set exactly while the MRIB has the encapsulation, as far as it answered.
//
// Everything here runs under the scheduling locks, on the main thread or on the worker.
#include "routing/pim/mvpn/mvpn_mrib.h"

#include <cstring>

#include "platform/ip.h"
#include "platform/l3vm.h"
#include "routing/pim/mvpn/mvpn_core.h"
#include "routing/pim/mvpn/mvpn_diag.h"
#include "routing/pim/mvpn/mvpn_guards.h"
#include "routing/pim/mvpn/mvpn_mdt_safi.h"
#include "routing/pim/mvpn/mvpn_wire.h"

static constexpr uint32_t first_xid = 0xaabbccdd;
static constexpr char source_file[] = "routing/pim/mvpn/mvpn_mrib";

uint32_t mvpn_mdt_xid = first_xid;
mvpn_mrib_info_t *mvpn_mrib_info;
pthread_t mvpn_mrib_worker_thread;
// Usable before the first start and after a start that failed: entry points may come in then already.
pthread_mutex_t mvpn_mrib_worker_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t mvpn_mrib_worker_cond = PTHREAD_COND_INITIALIZER;

uint32_t mvpn_mrib_next_xid() {
  mvpn_mrib_info->xid += 1;
  if (mvpn_mrib_info->xid == 0) mvpn_mrib_info->xid = 1;
  return mvpn_mrib_info->xid;
}

// -------------------------------------------------------------------------------------------------------------- queue

// The interface exists and the MRIB knows it.
static bool has_client() { return mvpn_mrib_info != nullptr && mvpn_mrib_info->mrib_client != nullptr; }

static bool has_txlist() { return mvpn_mrib_info != nullptr && mvpn_mrib_info->txlist != nullptr; }

static void queue_element(txlist_element *element) {
  txlist_insert_element_at_tail(mvpn_mrib_info->txlist, element);
  mvpn_mrib_info->work_pending = 1;
}

static void unqueue_element(txlist_element *element) {
  // An element is linked only while there is a list: destroying the list unlinks them all.
  if (txlist_element_is_linked(element) != 0) txlist_remove_element(mvpn_mrib_info->txlist, element);
}

void mvpn_mrib_queue_route(mvpn_mdt_route *route) {
  if (has_txlist()) queue_element(&route->txlist_elem);
}

void mvpn_mrib_unqueue_route(mvpn_mdt_route *route) { unqueue_element(&route->txlist_elem); }

void mvpn_mrib_queue_context(mvpn_cibtype *mvpn) {
  if (!has_txlist() || txlist_element_is_linked(&mvpn->mrib_txlist_elem) != 0) return;
  txlist_init_element(&mvpn->mrib_txlist_elem, MVPN_TXLIST_ELEM_CONTEXT);
  queue_element(&mvpn->mrib_txlist_elem);
  mvpn_mrib_wakeup_worker_thread();
}

void mvpn_mrib_queue_withdrawal(const uint8_t *entries) {
  if (!has_txlist()) return;
  constexpr size_t size = sizeof(mvpn_mrib_withdrawal);
  auto *withdrawal = static_cast<mvpn_mrib_withdrawal *>(
      mvpn_tracked_alloc(MTRACK_MVPN_GENERAL, size, size, source_file, __LINE__, "mvpn_mrib_queue_withdrawal"));
  if (withdrawal == nullptr) return;
  std::memcpy(withdrawal->entries, entries, sizeof withdrawal->entries);
  txlist_init_element(&withdrawal->txlist_elem, MVPN_TXLIST_ELEM_WITHDRAWAL);
  renqueue(&mvpn_mrib_info->withdrawals, withdrawal);
  queue_element(&withdrawal->txlist_elem);
}

void mvpn_mrib_end_withdrawal(mvpn_mrib_withdrawal *withdrawal) {
  unqueue_element(&withdrawal->txlist_elem);
  runqueue(&mvpn_mrib_info->withdrawals, withdrawal);
  mtrack_free(withdrawal);
}

void mvpn_mrib_unqueue_context(mvpn_cibtype *mvpn) { unqueue_element(&mvpn->mrib_txlist_elem); }

// What waited for the worker when the interface was last stopped, or was scheduled since.
static void queue_waiting_work(mvpn_cibtype *mvpn) {
  for (mvpn_mdt_route *route = mvpn_mdt_mroute_first(mvpn); route != nullptr;
       route = mvpn_mdt_mroute_after(mvpn, route->source, route->group)) {
    if (route->pending != MVPN_MDT_ROUTE_NOT_PENDING) mvpn_mrib_queue_route(route);
  }
  if (mvpn->mti_status == MVPN_MTI_DOWN_IN_PROGRESS) mvpn_mrib_queue_context(mvpn);
}

// -------------------------------------------------------------------------------------------------------------- start

static void free_items_of(rqueue *items) {
  while (void *item = rdequeue(items)) mtrack_free(item);
}

// Gives back what the worker works with. The worker does not run.
static void release_list_and_buffers() {
  if (mvpn_mrib_info->txlist != nullptr) {
    txlist_remove_member(mvpn_mrib_info->txlist, &mvpn_mrib_info->worker_marker);
    txlist_destroy(mvpn_mrib_info->txlist);
    mvpn_mrib_info->txlist = nullptr;
  }
  mvpn_mrib_info->work_pending = 0;
  free_items_of(&mvpn_mrib_info->free_buffers);
  free_items_of(&mvpn_mrib_info->sent_buffers);
  free_items_of(&mvpn_mrib_info->withdrawals);
}

static void release_info() {
  mtrack_free(mvpn_mrib_info);
  mvpn_mrib_info = nullptr;
}

// 1.
static int allocate_info() {
  constexpr size_t size = sizeof(mvpn_mrib_info_t);
  mvpn_mrib_info = static_cast<mvpn_mrib_info_t *>(
      mvpn_tracked_alloc(MTRACK_MVPN_GENERAL, size, size, source_file, __LINE__, "mvpn_init_mrib"));
  if (mvpn_mrib_info == nullptr) {
    mvpn_report(msg_error_PIM_MALLOC, "mvpn_init_mrib()");
    return 0;
  }
  mvpn_mrib_info->xid = first_xid;
  rqueue_init(&mvpn_mrib_info->free_buffers, RQUEUE_LINKING, 0);
  rqueue_init(&mvpn_mrib_info->sent_buffers, RQUEUE_LINKING, 0);
  rqueue_init(&mvpn_mrib_info->withdrawals, RQUEUE_LINKING, 0);
  return 1;
}

// 2.
static int create_tree_attributes() {
  mvpn_mrib_info->route_tree_attr = pt_attr_create(0, 1, 8);
  if (mvpn_mrib_info->route_tree_attr != nullptr) return 1;
  mvpn_report(msg_error_PIM_API_FAILED, "pt_attr_create()", "mvpn_init_mrib()");
  return 0;
}

// 3.
static int create_txlist() {
  txlist *list = txlist_create(0, 0);
  if (list == nullptr) {
    mvpn_report(msg_error_PIM_TXLIST_CREATE, "txlist");
    return 0;
  }
  mvpn_mrib_info->txlist = list;
  txlist_register_kind(list, MVPN_TXLIST_MEMBER_WORKER, offsetof(mvpn_mrib_info_t, worker_marker));
  txlist_register_kind(list, MVPN_TXLIST_ELEM_ROUTE, offsetof(mvpn_mdt_route, txlist_elem));
  txlist_register_kind(list, MVPN_TXLIST_ELEM_CONTEXT, offsetof(mvpn_cibtype, mrib_txlist_elem));
  txlist_register_kind(list, MVPN_TXLIST_ELEM_WITHDRAWAL, offsetof(mvpn_mrib_withdrawal, txlist_elem));
  txlist_init_member(&mvpn_mrib_info->worker_marker, MVPN_TXLIST_MEMBER_WORKER);
  txlist_insert_member_at_head(list, &mvpn_mrib_info->worker_marker);
  return 1;
}

// 4. After a crash the MRIB may still hold the registration, and the routes, of the process's former life.
static int register_with_mrib() {
  const bool again = pim_crashed != 0 && mrib_get_pib(MRIB_CLIENT_NAME) != nullptr;
  mvpn_mrib_info->mrib_client =
      again ? mrib_reregister(MRIB_CLIENT_NAME, mvpn_mrib_mts_q, 0, MRIB_REREGISTER_FLAGS, 0, 0, 0)
            : mrib_register(MRIB_CLIENT_NAME, mvpn_mrib_mts_q, 0, MRIB_REGISTER_FLAGS, 0, 0, 0, 0);
  if (mvpn_mrib_info->mrib_client == nullptr) {
    mvpn_report(msg_error_PIM_API_FAILED, again ? "MRIB (re-register)" : "MRIB (register)", "mvpn_init_mrib()");
    return 0;
  }
  mvpn_mrib_info->registered = 1;
  return 1;
}

// 5. Made anew for every start, from the initialised state that they always have otherwise.
static int init_worker_signal() {
  pthread_mutex_destroy(&mvpn_mrib_worker_mutex);
  if (pthread_mutex_init(&mvpn_mrib_worker_mutex, nullptr) != 0) {
    mvpn_mrib_worker_mutex = PTHREAD_MUTEX_INITIALIZER;
    mvpn_report(msg_error_PIM_MV_INIT, "mvpn-mrib-worker");
    return 0;
  }
  pthread_cond_destroy(&mvpn_mrib_worker_cond);
  if (pthread_cond_init(&mvpn_mrib_worker_cond, nullptr) != 0) {
    mvpn_mrib_worker_cond = PTHREAD_COND_INITIALIZER;
    mvpn_report(msg_error_PIM_CV_INIT, "mvpn-mrib-worker");
    return 0;
  }
  return 1;
}

int mvpn_preallocate_mrib_buffers() {
  constexpr size_t size = sizeof(mrib_update_buffer);
  for (uint32_t i = 0; i < MVPN_MRIB_BUFFERS; i++) {
    auto *buffer = static_cast<mrib_update_buffer *>(mvpn_tracked_alloc(
        MTRACK_MVPN_UPDATE_BUFFER, size, size, source_file, __LINE__, "mvpn_preallocate_mrib_buffers"));
    if (buffer == nullptr) {
      mvpn_report(msg_error_PIM_MALLOC, "mvpn_preallocate_mrib_buffers()");
      return 0;
    }
    mvpn_mrib_reset_buffer(buffer);
    renqueue(&mvpn_mrib_info->free_buffers, buffer);
  }
  return 1;
}

// 6.
static int start_worker() {
  pthread_attr_t attributes;
  int error = quillon_pthread_attr_init(&attributes);
  if (error == 0) {
    error = quillon_pthread_create(&mvpn_mrib_worker_thread, &attributes, mvpn_mrib_worker_main, nullptr,
                                   "mvpn-mrib-worker-thread");
    pthread_attr_destroy(&attributes);
  }
  if (error == 0) return 1;
  mvpn_mrib_worker_thread = 0;
  mvpn_report(msg_error_PIM_PTHREAD_CREATE, "create ip mrib worker thread", error);
  return 0;
}

// 5, 6. Fewer buffers than wanted slow the worker down and do not end the start; without any it could never send.
static int prepare_worker() {
  if (init_worker_signal() == 0) return 0;
  mvpn_preallocate_mrib_buffers();
  if (rqueue_count(&mvpn_mrib_info->free_buffers) == 0) return 0;
  return start_worker();
}

int mvpn_init_mrib() {
  if (has_txlist() && mvpn_mrib_info->registered != 0) return 1;
  if (mvpn_mrib_info != nullptr) {
    release_list_and_buffers();
    release_info();
  }
  if (allocate_info() == 0 || create_tree_attributes() == 0 || create_txlist() == 0 || register_with_mrib() == 0) {
    return 0;
  }
  if (prepare_worker() == 0) {
    mvpn_mrib_info->registered = 0;
    return 0;
  }
  if (mvpn_mvrf_count != 0) {
    mvpn_for_each_context([](mvpn_cibtype *mvpn) {
      queue_waiting_work(mvpn);
      return true;
    });
  }
  return 1;
}

// --------------------------------------------------------------------------------------------------------------- stop

static void stop_worker() {
  if (mvpn_mrib_worker_thread == 0) return;
  pthread_cancel(mvpn_mrib_worker_thread);
  {
    const yield_bracket others_run;
    pthread_join(mvpn_mrib_worker_thread, nullptr);
  }
  mvpn_mrib_worker_thread = 0;
}

int mvpn_deinit_mrib(int deregister) {
  if (mvpn_mrib_info == nullptr) {
    MVPN_DEBUG(pim_null_pcib, "mvpn_mrib_info was ALREADY null");
    return 1;
  }
  MVPN_DEBUG(pim_null_pcib, "mvpn_mrib_info was NOT null");
  stop_worker();
  release_list_and_buffers();
  if (deregister != 0 && has_client() && mrib_deregister(MRIB_CLIENT_NAME, 1) == 0) {
    mvpn_report(msg_error_PIM_API_FAILED, "MRIB (deregister)", "mvpn_deinit_mrib()");
    return 0;
  }
  mvpn_mrib_info->registered = 0;
  if (pim_check_feature_configured("mvpn") == 0) {
    mvpn_for_each_context([](mvpn_cibtype *mvpn) {
      mvpn_delete_all_mdt_encap_info(mvpn, 0);
      mvpn_mrib_clear_mdt_routes(mvpn, nullptr, 0, 0, 0, 0, 0, 0);
      return true;
    });
  }
  release_info();
  return 1;
}

// ---------------------------------------------------------------------------------------------- walks over the routes

static bool same_under_mask(ip_addr_t a, ip_addr_t b, uint32_t length) { return ((a ^ b) & ip_bits2mask(length)) == 0; }

static bool matches(const mvpn_mdt_route_addrs *filter, const mvpn_mdt_route *route) {
  if (filter == nullptr) return true;
  return same_under_mask(filter->group, route->group, filter->group_len) &&
         (filter->source == 0 || same_under_mask(filter->source, route->source, filter->source_len));
}

// Whether a filter matches one route only.
static bool is_exact(const mvpn_mdt_route_addrs *filter) {
  return filter != nullptr && filter->source != 0 && filter->source_len >= MROUTE_HOST_LEN &&
         filter->group_len >= MROUTE_HOST_LEN;
}

// The routes that a filter may match: the one that it names, or all of the VRF's.
static mvpn_mdt_route *first_candidate(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *filter) {
  return is_exact(filter) ? mvpn_mdt_mroute_lookup(mvpn, filter->source, filter->group) : mvpn_mdt_mroute_first(mvpn);
}

static mvpn_mdt_route *next_candidate(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *filter, ip_addr_t source,
                                      ip_addr_t group) {
  return is_exact(filter) ? nullptr : mvpn_mdt_mroute_after(mvpn, source, group);
}

namespace {

struct route_selection {
  const mvpn_mdt_route_addrs *filter;
  uint32_t route_type;  // 0: any
  uint32_t mode;        // 0: any
  int only_shared;
  int only_source;

  bool selects(const mvpn_mdt_route *route) const {
    if (route_type != 0 && route->route_type != route_type) return false;
    if (mode != 0 && route->mode != mode) return false;
    if (only_shared != 0 && route->source != 0) return false;
    if (only_source != 0 && route->source == 0) return false;
    return matches(filter, route);
  }
};

// What becomes of the routes that a walk selects and the MRIB holds.
enum class disposal {
  forget,    // freed, without a word to the MRIB
  schedule,  // deleted by the worker, which frees them
  withdraw,  // freed now, withdrawn from the MRIB afterwards
};

constexpr uint32_t frees_per_yield = 100;
constexpr uint32_t visits_per_yield = 250;

}  // namespace

// Frees a route without telling the MRIB. False: the VRF's context went away meanwhile.
static bool drop_route(mvpn_cibtype *mvpn, const mvpn_vrf_handle &vrf, mvpn_mdt_route *route, uint32_t *dropped) {
  const bool may_yield = mvpn_mdt_free_may_yield(route);
  mvpn_mdt_free_route_resources(route);
  if (may_yield && !vrf.same()) return false;
  *dropped += 1;
  if (*dropped % frees_per_yield != 0) return true;
  mvpn_may_sched_yield(mvpn);
  return vrf.same();
}

static void schedule_deletion(mvpn_mdt_route *route, uint8_t teardown) {
  MVPN_DEBUG(route->mvpn->pcib, "Scheduling delete for route associated with (%s, %s)", ip_print_addr(route->source),
             ip_print_addr(route->group));
  mvpn_mdt_route_schedule(route, teardown, 0);
}

// 1: a route was dropped or scheduled, or the VRF went away.
static int clear_routes(mvpn_cibtype *mvpn, const route_selection &selection, uint8_t teardown, disposal how) {
  const mvpn_vrf_handle vrf(mvpn);
  uint32_t scheduled = 0, dropped = 0;
  mvpn_mdt_route *route = first_candidate(mvpn, selection.filter);
  while (route != nullptr) {
    const ip_addr_t source = route->source, group = route->group;
    MVPN_DEBUG(mvpn->pcib,
               "Examining MDT route for deletion:route_type = %d, mode = %d, source = %s, group = %s in_mrib = %d",
               static_cast<int>(route->route_type), static_cast<int>(route->mode), ip_print_addr(source),
               ip_print_addr(group), static_cast<int>(route->in_mrib));
    if (selection.selects(route)) {
      if (route->in_mrib != 0 && how == disposal::schedule) {
        schedule_deletion(route, teardown);
        scheduled += 1;
      } else {
        if (route->in_mrib != 0 && how == disposal::withdraw) mvpn_mdt_withdraw_route(route);
        if (!drop_route(mvpn, vrf, route, &dropped)) return 1;
      }
    }
    route = next_candidate(mvpn, selection.filter, source, group);
  }
  return scheduled + dropped != 0;
}

int mvpn_mrib_clear_mdt_routes(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *filter, uint32_t route_type,
                               uint32_t mode, int only_shared, int only_source, uint8_t teardown, int send) {
  const mvpn_vrf_handle vrf(mvpn);
  const int cleared = clear_routes(mvpn, {filter, route_type, mode, only_shared, only_source}, teardown,
                                   send != 0 ? disposal::schedule : disposal::forget);
  if (send == 0 || !vrf.same()) return cleared;
  MVPN_DEBUG(mvpn->pcib, "Waking up worker thread inside mvpn_mrib_clear_mdt_routes");
  mvpn_mrib_wakeup_worker_thread();
  return cleared;
}

void mvpn_mrib_withdraw_mdt_routes(mvpn_cibtype *mvpn) {
  if (clear_routes(mvpn, {}, 1, disposal::withdraw) != 0) mvpn_mrib_wakeup_worker_thread();
}

// ------------------------------------------------------------------------------------------------------ notifications

namespace {

struct notify_entry {
  vrf_context_id_t context_id;
  uint8_t event;
  mvpn_mdt_route_addrs addrs;
  uint8_t only_source;
  uint8_t only_shared;
};

}  // namespace

// The address record ends two bytes before a mvpn_mdt_route_addrs does; those are another field's.
static notify_entry decode_notify_entry(const uint8_t *entry) {
  notify_entry out{};
  out.context_id = load_host<uint32_t>(entry + MRIB_NOTIFY_ENTRY_CONTEXT_ID);
  out.event = entry[MRIB_NOTIFY_ENTRY_EVENT];
  out.addrs.source = load_host<uint32_t>(entry + MRIB_NOTIFY_ENTRY_SOURCE);
  out.addrs.group = load_host<uint32_t>(entry + MRIB_NOTIFY_ENTRY_GROUP);
  out.addrs.source_len = entry[MRIB_NOTIFY_ENTRY_SOURCE_LEN];
  out.addrs.group_len = entry[MRIB_NOTIFY_ENTRY_GROUP_LEN];
  out.only_source = entry[MRIB_NOTIFY_ENTRY_ONLY_SOURCE];
  out.only_shared = entry[MRIB_NOTIFY_ENTRY_ONLY_SHARED];
  return out;
}

// The VRF whose tunnel a route of the MRIB was installed with, or null.
static mvpn_cibtype *owner_of_mrib_route(vrf_context_id_t context_id, const mvpn_mdt_route_addrs &addrs) {
  const mrib_route *route = mrib_get_route_by_addr(context_id, &addrs);
  if (route == nullptr || route->mti_iod == 0) return nullptr;
  return mvpn_get_context_by_mti_iod(route->mti_iod);
}

static mvpn_mdt_route_type_t type_of_joined_route(const mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs &addrs) {
  const bool is_default = addrs.group == mvpn->mdt_default_group;
  if (addrs.source == mvpn->mdt_source_addr) {
    return is_default ? MVPN_MDT_ROUTE_LOCAL_DEFAULT : MVPN_MDT_ROUTE_LOCAL_DATA;
  }
  return is_default ? MVPN_MDT_ROUTE_REMOTE_DEFAULT : MVPN_MDT_ROUTE_REMOTE_DATA;
}

void mvpn_process_mrib_mdt_join_notify(const uint8_t *entry) {
  const notify_entry join = decode_notify_entry(entry);
  const mvpn_mdt_route_addrs &addrs = join.addrs;
  if (addrs.source == 0) return;
  const mvpn_mdt_route_addrs shared{0, addrs.group, MROUTE_ANY_SOURCE_LEN, MROUTE_HOST_LEN, {}};
  mvpn_cibtype *mvpn = owner_of_mrib_route(join.context_id, shared);
  if (mvpn == nullptr || mvpn_mdt_mroute_lookup(mvpn, addrs.source, addrs.group) != nullptr ||
      mvpn_mdt_mroute_lookup(mvpn, 0, addrs.group) == nullptr) {
    return;
  }
  MVPN_DEBUG(mvpn->pcib, "MRIB MDT Join notify for %s", mrib_print_addrs(&addrs));
  mvpn_mdt_add_route_resources(mvpn, type_of_joined_route(mvpn, addrs), addrs.source, 1, addrs.group, 0);
}

void mvpn_process_mrib_mdt_delete_notify(const uint8_t *entry) {
  const notify_entry deleted = decode_notify_entry(entry);
  mvpn_cibtype *mvpn = owner_of_mrib_route(deleted.context_id, deleted.addrs);
  if (mvpn == nullptr) return;
  MVPN_DEBUG(mvpn->pcib, "MRIB Delete notify for %s", mrib_print_addrs(&deleted.addrs));
  mvpn_mdt_route *route = mvpn_mdt_mroute_lookup(mvpn, deleted.addrs.source, deleted.addrs.group);
  if (route != nullptr) mvpn_mdt_route_schedule(route, 0, 1);
}

void mvpn_process_mrib_mdt_notify(const void *message) {
  if (!mvpn_is_up()) return;
  const auto *bytes = static_cast<const uint8_t *>(message);
  const auto count = load_host<uint32_t>(bytes + MRIB_NOTIFY_COUNT_OFFSET);
  if (count == 0) return;
  const uint8_t *entry = bytes + MRIB_NOTIFY_ENTRIES_OFFSET;
  for (uint32_t i = 0; i < count; i++, entry += MRIB_NOTIFY_ENTRY_SIZE) {
    const uint8_t event = entry[MRIB_NOTIFY_ENTRY_EVENT];
    if ((event & MRIB_NOTIFY_JOIN) != 0) mvpn_process_mrib_mdt_join_notify(entry);
    if ((event & MRIB_NOTIFY_DELETE) != 0) mvpn_process_mrib_mdt_delete_notify(entry);
  }
  mvpn_mrib_wakeup_worker_thread();
}

// 2. The clearing may have come from a change of the core's group ranges.
static void refresh_group_mode(mvpn_cibtype *mvpn) {
  const mvpn_mdt_group_mode_t mode = mvpn_get_group_mode(mvpn->mdt_source_context, mvpn->mdt_default_group);
  if (mode == mvpn->mdt_group_mode) return;
  MVPN_DEBUG(mvpn->pcib, "Mode for default mdt group: %s changed from %s to %s", ip_print_addr(mvpn->mdt_default_group),
             mvpn_mdt_group_mode_str[mvpn->mdt_group_mode], mvpn_mdt_group_mode_str[mode]);
  mvpn->mdt_group_mode = mode;
}

static void clear_and_rebuild(mvpn_cibtype *mvpn, const notify_entry &cleared) {
  const mvpn_vrf_handle vrf(mvpn);
  // 1.
  const int dropped =
      mvpn_mrib_clear_mdt_routes(mvpn, &cleared.addrs, 0, 0, cleared.only_shared, cleared.only_source, 0, 0);
  if (!vrf.same()) return;
  // 2, 3. A VRF whose group is gone already has no default MDT to rebuild.
  refresh_group_mode(mvpn);
  if (dropped == 0 || mvpn->mdt_default_group == 0) return;
  mvpn_repopulate_default_mdt_route_from_local_cache(mvpn);
  if (vrf.same()) mvpn_repopulate_default_mdt_routes_from_bgp_cache(mvpn);
}

void mvpn_process_clear_route_notify(pim_cibtype *pcib, const void *entries, uint32_t count) {
  if (!mvpn_is_up() || pcib == nullptr) return;
  const vrf_context_id_t core = pcib->context_id;  // the host's record may go while the walk yields
  const auto *entry = static_cast<const uint8_t *>(entries);
  for (uint32_t i = 0; i < count; i++, entry += MRIB_NOTIFY_ENTRY_SIZE) {
    const notify_entry cleared = decode_notify_entry(entry);
    if ((cleared.event & MRIB_NOTIFY_CLEAR) == 0) continue;
    mvpn_for_each_context([core, &cleared](mvpn_cibtype *mvpn) {
      if (mvpn->mdt_source_context == core) clear_and_rebuild(mvpn, cleared);
      return true;
    });
  }
  mvpn_mrib_wakeup_worker_thread();
}

// Sends a route again. One that is pending reaches the MRIB anyway.
static void repopulate_route(mvpn_mdt_route *route, const mvpn_mdt_route_addrs *filter, uint32_t route_type) {
  // 1.
  if (route_type != 0 && route->route_type != route_type) return;
  // 2.
  if (route->pending != MVPN_MDT_ROUTE_NOT_PENDING) {
    MVPN_DEBUG(route->mvpn->pcib, "Mroute (%s,%s) is in pending state:%d", ip_print_addr(route->source),
               ip_print_addr(route->group), static_cast<int>(route->pending));
    return;
  }
  // 3, 4.
  if (matches(filter, route)) mvpn_mdt_route_schedule(route, 0, 1);
}

static void repopulate_vrf(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *filter, uint32_t route_type) {
  const mvpn_vrf_handle vrf(mvpn);
  uint32_t visited = 0;
  mvpn_mdt_route *route = first_candidate(mvpn, filter);
  while (route != nullptr) {
    const ip_addr_t source = route->source, group = route->group;
    repopulate_route(route, filter, route_type);
    if (++visited % visits_per_yield == 0) {
      mvpn_may_sched_yield(mvpn);
      if (!vrf.same()) return;
    }
    route = next_candidate(mvpn, filter, source, group);
  }
}

void mvpn_mrib_repopulate_mdt_routes(vrf_context_id_t context_id, const mvpn_mdt_route_addrs *filter,
                                     uint32_t route_type) {
  if (!mvpn_is_up()) return;
  // The walk yields, and the MRIB's record need not outlive that.
  mvpn_mdt_route_addrs own_filter{};
  if (filter != nullptr) {
    own_filter = *filter;
    filter = &own_filter;
  }
  MVPN_DEBUG(pim_null_pcib, "Received repopulate request from mrib for context: %s for addrs: %s route_type = %u",
             l3vm_get_context_name(context_id), filter != nullptr ? mrib_print_addrs(filter) : "all", route_type);
  mvpn_for_each_context_by_id([context_id, filter, route_type](mvpn_cibtype *mvpn) {
    if (mvpn->mdt_source_context == context_id) {
      repopulate_vrf(mvpn, filter, route_type);
    } else {
      MVPN_DEBUG(mvpn->pcib, "Skipping mvpn as repopulate context %s isdifferent from mdt_source_context: %s",
                 l3vm_get_context_name(context_id), l3vm_get_context_name(mvpn->mdt_source_context));
    }
    return true;
  });
  mvpn_mrib_wakeup_worker_thread();
}

void mvpn_mrib_trigger_rpf_lookup(mvpn_cibtype *mvpn) {
  if (mvpn == nullptr || mvpn->pcib == nullptr || !has_client()) return;
  mrib_rpf_request request{};
  request.context_id = mvpn->pcib->context_id;
  mrib_trigger_rpf_lookup(mvpn_mrib_info->mrib_client, &request);
}

// ----------------------------------------------------------------------------------------------------- encapsulations

namespace {

// Texts of the reports about one operation on encapsulations.
struct encap_operation {
  const char *function;    // report of the allocator
  const char *allocation;  // second report about memory
  const char *call;        // refused update
  const char *caller;
};

constexpr encap_operation update_one = {"mvpn_mrib_update_one_mdt_encap_info", "mvpn_mrib_update_mdt_encap_info()",
                                        "mvpn_mrib_update_mdt_encap_info()", "mvpn_mrib_update_one_mdt_encap_info()"};
constexpr encap_operation delete_all = {"mvpn_delete_all_mdt_encap_info", "mvpn_delete_all_mdt_encap_info()",
                                        "mvpn_delete_all_mdt_encap_info()", "mvpn_delete_all_mdt_encap_info()"};

using encap_record = tracked_ptr<uint8_t>;

}  // namespace

// A record that names the VRF and nothing else; null after the reports.
static encap_record allocate_encap_record(const mvpn_cibtype *mvpn, const encap_operation &operation) {
  constexpr size_t size = MRIB_ENCAP_RECORD_SIZE;
  encap_record record(static_cast<uint8_t *>(
      mvpn_tracked_alloc(MTRACK_MVPN_ENCAP, size, size, source_file, __LINE__, operation.function)));
  if (record == nullptr) {
    mvpn_report(msg_error_PIM_MALLOC, operation.allocation);
  } else {
    store_host<uint32_t>(record.get() + MRIB_ENCAP_CONTEXT_ID, mvpn->pcib->context_id);
  }
  return record;
}

static int send_encap_record(const encap_record &record, const encap_operation &operation) {
  if (has_client() &&
      mrib_update_mdt_encap_info(mvpn_mrib_info->mrib_client, record.get(), 1, mvpn_mrib_next_xid(), 0) != 0) {
    return 1;
  }
  mvpn_report(msg_error_PIM_API_FAILED, operation.call, operation.caller);
  return 0;
}

int mvpn_mrib_update_one_mdt_encap_info(mvpn_cibtype *mvpn, uint32_t encap_index, int add) {
  const encap_record record = allocate_encap_record(mvpn, update_one);
  if (record == nullptr) return 0;
  uint8_t *bytes = record.get();
  bytes[MRIB_ENCAP_ADD] = add != 0 ? 1 : 0;
  store_host<uint32_t>(bytes + MRIB_ENCAP_MTI_IOD, mvpn->mti_iod);
  store_host<uint16_t>(bytes + MRIB_ENCAP_INDEX, static_cast<uint16_t>(encap_index));
  store_host<uint32_t>(bytes + MRIB_ENCAP_GROUP, mvpn->mdt_encap_group[encap_index]);
  store_host<uint32_t>(bytes + MRIB_ENCAP_SOURCE, mvpn->mdt_source_addr);
  store_host<uint32_t>(bytes + MRIB_ENCAP_SOURCE_IOD, mvpn->mdt_source_iod);
  return send_encap_record(record, update_one);
}

int mvpn_add_mdt_encap_info(mvpn_cibtype *mvpn, ip_addr_t mdt_group, uint32_t encap_index) {
  if (encap_index >= MVPN_ENCAP_INDEXES) return 0;
  mvpn->mdt_encap_group[encap_index] = mdt_group;
  if (mvpn_mrib_update_one_mdt_encap_info(mvpn, encap_index, 1) != 0) return 1;
  mvpn->mdt_encap_group[encap_index] = 0;
  return 0;
}

int mvpn_delete_mdt_encap_info(mvpn_cibtype *mvpn, ip_addr_t mdt_group) {
  MVPN_DEBUG(mvpn->pcib, "Deleting MDT group for %s", ip_print_addr(mdt_group));
  // No group would be found in the first free slot, 0, and a deletion of index 0 takes every encapsulation of the VRF.
  if (mdt_group == 0) return 0;
  uint32_t encap_index = 0;
  while (encap_index < MVPN_ENCAP_INDEXES && mvpn->mdt_encap_group[encap_index] != mdt_group) encap_index++;
  if (encap_index == MVPN_ENCAP_INDEXES) return 0;
  // While the module stops the MRIB is told nothing.
  if (!mvpn_is_stopping() && mvpn_mrib_update_one_mdt_encap_info(mvpn, encap_index, 0) == 0) return 0;
  mvpn->mdt_encap_group[encap_index] = 0;
  return 1;
}

static void clear_encap_table(mvpn_cibtype *mvpn) {
  std::memset(mvpn->mdt_encap_group, 0, sizeof mvpn->mdt_encap_group);
}

static void clear_group_use(mvpn_cibtype *mvpn) {
  for (mvpn_data_mdt_range *range = mvpn->data_mdt_config; range != nullptr; range = range->next) {
    std::memset(range->group_refcount, 0, sizeof range->group_refcount);
  }
}

int mvpn_delete_all_mdt_encap_info(mvpn_cibtype *mvpn, int tell_mrib) {
  MVPN_DEBUG(mvpn->pcib, "Deleting all MDT info for context 0x%lx", static_cast<unsigned long>(mvpn->pcib->context_id));
  if (tell_mrib == 0) {
    clear_encap_table(mvpn);
    return 1;
  }
  const encap_record record = allocate_encap_record(mvpn, delete_all);
  if (record == nullptr) return 0;
  clear_encap_table(mvpn);
  clear_group_use(mvpn);
  return send_encap_record(record, delete_all);
}
