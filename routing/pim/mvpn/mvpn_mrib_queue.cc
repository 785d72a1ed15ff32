// The low side of the interface to the MRIB: the record that holds its state, the transmit list, transaction ids, the
// worker's wake-up, encapsulations and the request for a new reverse path.
//
// Producers put routes, VRFs and withdrawals at the tail of the one transmit list; the worker (mvpn_mrib_worker.cc)
// takes them off. The interface is started while its record is `registered` and has a list; without a list, producers
// leave their work marked, and the next start queues it.
//
// Encapsulations tie a VRF's encapsulation index to a provider group. They are told to the MRIB one by one, at once and
// unacknowledged. A slot of the VRF's table is set exactly while the MRIB has the encapsulation, as far as it answered.
#include "routing/pim/mvpn/mvpn_mrib_queue_internal.h"

#include <cstring>

#include "platform/ip.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_diag.h"
#include "routing/pim/mvpn/mvpn_guards.h"
#include "routing/pim/mvpn/mvpn_wire.h"

static constexpr uint32_t first_xid = MVPN_MRIB_FIRST_XID;
static constexpr char source_file[] = "routing/pim/mvpn/mvpn_mrib";

uint32_t mvpn_mdt_xid = first_xid;
mvpn_mrib_info_t *mvpn_mrib_info;
// Usable before the first start and after a start that failed: entry points may come in then already.
pthread_mutex_t mvpn_mrib_worker_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t mvpn_mrib_worker_cond = PTHREAD_COND_INITIALIZER;

uint32_t mvpn_mrib_next_xid() {
  mvpn_mrib_info->xid += 1;
  if (mvpn_mrib_info->xid == 0) mvpn_mrib_info->xid = 1;
  return mvpn_mrib_info->xid;
}

void (*mvpn_mrib_routes_written_hook)(mvpn_cibtype *mvpn);

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

// ------------------------------------------------------------------------------------------------------------ requests

void mvpn_mrib_wakeup_worker_thread() {
  if (mvpn_mrib_info == nullptr || mvpn_mrib_info->txlist == nullptr) return;
  pthread_mutex_lock(&mvpn_mrib_worker_mutex);
  pthread_cond_signal(&mvpn_mrib_worker_cond);
  pthread_mutex_unlock(&mvpn_mrib_worker_mutex);
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
