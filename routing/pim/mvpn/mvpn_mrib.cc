// Start and stop of the interface to the MRIB.
//
// Start registers the module with the MRIB, creates the transmit list and the update buffers and starts the worker
// (mvpn_mrib_worker.cc); stop undoes that. The state in between is one record, mvpn_mrib_info. A start that failed half
// way, or a stop that could not deregister, leaves a record that is not `registered` or has no list; the next start
// replaces it.
//
// Core routes outlive a stop when the module's configuration does. Routes that wait for the worker, and VRFs whose
// teardown waits for it, are put on the list again by the next start.
#include "routing/pim/mvpn/mvpn_mrib_internal.h"

#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_diag.h"
#include "routing/pim/mvpn/mvpn_guards.h"
#include "routing/pim/mvpn/mvpn_mdt_route.h"
#include "routing/pim/mvpn/mvpn_mdt_route_walk.h"
#include "routing/pim/mvpn/mvpn_mrib_queue.h"
#include "routing/pim/mvpn/mvpn_mrib_worker.h"

static pthread_t mvpn_mrib_worker_thread;  // 0 = not running

static constexpr char source_file[] = "routing/pim/mvpn/mvpn_mrib";

// The interface exists and the MRIB knows it.
static bool has_client() { return mvpn_mrib_info != nullptr && mvpn_mrib_info->mrib_client != nullptr; }

static bool has_txlist() { return mvpn_mrib_info != nullptr && mvpn_mrib_info->txlist != nullptr; }

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

static int allocate_info() {
  constexpr size_t size = sizeof(mvpn_mrib_info_t);
  mvpn_mrib_info = static_cast<mvpn_mrib_info_t *>(
      mvpn_tracked_alloc(MTRACK_MVPN_GENERAL, size, size, source_file, __LINE__, "mvpn_init_mrib"));
  if (mvpn_mrib_info == nullptr) {
    mvpn_report(msg_error_PIM_MALLOC, "mvpn_init_mrib()");
    return 0;
  }
  mvpn_mrib_info->xid = MVPN_MRIB_FIRST_XID;
  rqueue_init(&mvpn_mrib_info->free_buffers, RQUEUE_LINKING, 0);
  rqueue_init(&mvpn_mrib_info->sent_buffers, RQUEUE_LINKING, 0);
  rqueue_init(&mvpn_mrib_info->withdrawals, RQUEUE_LINKING, 0);
  return 1;
}

static int create_tree_attributes() {
  mvpn_mrib_info->route_tree_attr = pt_attr_create(0, 1, 8);
  if (mvpn_mrib_info->route_tree_attr != nullptr) return 1;
  mvpn_report(msg_error_PIM_API_FAILED, "pt_attr_create()", "mvpn_init_mrib()");
  return 0;
}

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

// After a crash the MRIB may still hold the registration, and the routes, of the process's former life.
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

// Made anew for every start, from the initialised state that they always have otherwise.
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

// Fewer buffers than wanted slow the worker down and do not end the start; without any it could never send.
static int prepare_worker() {
  if (init_worker_signal() == 0) return 0;
  mvpn_preallocate_mrib_buffers();
  if (rqueue_count(&mvpn_mrib_info->free_buffers) == 0) return 0;
  return start_worker();
}

// What waited for the worker when the interface was last stopped, or was scheduled since.
static void queue_waiting_work(mvpn_cibtype *mvpn) {
  for (mvpn_mdt_route *route = mvpn_mdt_mroute_first(mvpn); route != nullptr;
       route = mvpn_mdt_mroute_after(mvpn, route->source, route->group)) {
    if (route->pending != MVPN_MDT_ROUTE_NOT_PENDING) mvpn_mrib_queue_route(route);
  }
  if (mvpn->mti_status == MVPN_MTI_DOWN_IN_PROGRESS) mvpn_mrib_queue_context(mvpn);
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
      mvpn_mrib_clear_mdt_routes(mvpn, {}, 0, 0);
      return true;
    });
  }
  release_info();
  return 1;
}
