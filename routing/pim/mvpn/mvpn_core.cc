// Module core: start and stop, module-wide state, VRF contexts and how they are found, message dispatch.
//
// Start and stop. mvpn_init builds the module up step by step; a step that fails ends the start and undoes nothing,
// so that the module is left in Up Pending, where it answers messages already but takes no configuration. mvpn_deinit
// takes down whatever is there, after a complete start or a partial one: every release tests what it releases. When
// the multicast-VPN feature is being removed the VRFs are torn down first, silently; when only the process goes away,
// contexts, tunnels and routes stay for whoever takes over.
//
// Contexts. A VRF with a default MDT group has an mvpn_cibtype, which hangs on its PIM context. Messages and events name
// a VRF by its tunnel's if-index, by its tunnel's ordinal, by its default group or by the interface that is its source.
// These look-ups are frequent, so they are answered from four indexes; each holds every context, also those whose field
// is 0. When several contexts share a value they are found in VRF-name order, for ordinals the lowest context id first.
//
// Invariants.
//   - A context is in all four indexes or, while it is being created or freed, in none. The setters move it; they
//     reuse its index entries, so that only the creation of a context can run out of memory.
//   - Contexts may outlive a stop. The next start takes over those that still hang on a PIM context.
//   - mvpn_mvrf_count is the number of contexts in the indexes.
//
// Yields. Whoever lets other work run may find the VRF deleted, or deleted and configured anew, afterwards; VRFs are
// therefore remembered by name and looked up again (mvpn_vrf_handle, mvpn_may_sched_yield). A successor may lie where
// its predecessor lay: what must not go on in it compares serial numbers, not addresses.
#include "routing/pim/mvpn/mvpn_core.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <new>
#include <set>

#include "platform/im.h"
#include "routing/pim/mvpn/mvpn_datamdt.h"
#include "routing/pim/mvpn/mvpn_diag.h"
#include "routing/pim/mvpn/mvpn_guards.h"
#include "routing/pim/mvpn/mvpn_ha.h"
#include "routing/pim/mvpn/mvpn_mdt_safi.h"
#include "routing/pim/mvpn/mvpn_mrib.h"
#include "routing/pim/mvpn/mvpn_oim.h"
#include "routing/pim/mvpn/mvpn_ui.h"

// ------------------------------------------------------------------------------------------------------- global state

uint32_t pim_glb_trace_buffers[PIM_TRACE_BUFFERS];
uint32_t pim_mvpn_detail_debug_flag;
mvpn_functionality_status_t mvpn_functionality_status = MVPN_FUNCTIONALITY_DOWN;
uint32_t mvpn_mvrf_count;
mts_queue *mvpn_mts_q;
mts_queue *mvpn_mrib_mts_q;
uint8_t mvpn_at_set_heap;
static bool stopped;  // since the last start

bool mvpn_has_stopped() { return stopped; }

// Display strings are indexed by value: each list counts up from 0.
#define ENUM_TEXT(name, value, text) text,
#define ENUM_VALUE(name, value, text) value,

static consteval bool counts_up(std::initializer_list<uint32_t> values) {
  uint32_t expected = 0;
  for (const uint32_t value : values) {
    if (value != expected++) return false;
  }
  return true;
}
static_assert(counts_up({MVPN_FUNCTIONALITY_STATUS_LIST(ENUM_VALUE)}));
static_assert(counts_up({MVPN_MTI_STATUS_LIST(ENUM_VALUE)}));
static_assert(counts_up({MVPN_MDT_GROUP_MODE_LIST(ENUM_VALUE)}));

const char *const mvpn_functionality_status_str[] = {MVPN_FUNCTIONALITY_STATUS_LIST(ENUM_TEXT)};
const char *const mvpn_mti_status_str[] = {MVPN_MTI_STATUS_LIST(ENUM_TEXT)};
const char *const mvpn_mdt_group_mode_str[] = {MVPN_MDT_GROUP_MODE_LIST(ENUM_TEXT)};

const mvpn_slab_info_t mvpn_slab_info[MVPN_SLAB_COUNT] = {
    {sizeof(mvpn_cibtype), 100, "mvpn_cibtype"},
    {sizeof(mvpn_bgp_mdt_safi), 200, "mvpn_bgp_mdt_safi"},
    {sizeof(mvpn_mdt_route), 200, "mvpn_mdt_route"},
    {sizeof(mvpn_data_mdt_send_join_info), 200, "mvpn_data_mdt_send_join_info"},
    {sizeof(mvpn_data_mdt_recv_join_info), 200, "mvpn_data_mdt_recv_join_info"},
};
slab_handle mvpn_slabs[MVPN_SLAB_COUNT];

// ------------------------------------------------------------------------------------------------------------ indexes

namespace {

int compare_names(const mvpn_cibtype *a, const mvpn_cibtype *b) {
  return std::strcmp(a->pcib->vrf_name, b->pcib->vrf_name);
}

// A context's field value, and the name that contexts with this value are looked for behind.
struct value_and_name {
  uint32_t value;
  const char *name;
};

template <auto Field>
struct by_field_then_name {
  using is_transparent = void;
  bool operator()(const mvpn_cibtype *a, const mvpn_cibtype *b) const {
    return a->*Field != b->*Field ? a->*Field < b->*Field : compare_names(a, b) < 0;
  }
  bool operator()(const mvpn_cibtype *a, uint32_t value) const { return a->*Field < value; }
  bool operator()(uint32_t value, const mvpn_cibtype *b) const { return value < b->*Field; }
  bool operator()(const value_and_name &a, const mvpn_cibtype *b) const {
    return a.value != b->*Field ? a.value < b->*Field : std::strcmp(a.name, b->pcib->vrf_name) < 0;
  }
};

// Every context by one of its fields, contexts with the same value in VRF-name order.
template <auto Field>
class context_index {
 public:
  bool empty() const { return contexts_.empty(); }
  uint32_t size() const { return static_cast<uint32_t>(contexts_.size()); }
  auto equal(uint32_t value) const { return contexts_.equal_range(value); }

  mvpn_cibtype *first(uint32_t value) const {
    const auto found = contexts_.lower_bound(value);
    return found != contexts_.end() && (*found)->*Field == value ? *found : nullptr;
  }

  // The first with this value behind a VRF name.
  mvpn_cibtype *next(uint32_t value, const char *name) const {
    const auto found = contexts_.upper_bound(value_and_name{value, name});
    return found != contexts_.end() && (*found)->*Field == value ? *found : nullptr;
  }

  // Those whose values are first..last.
  auto between(uint32_t first, uint32_t last) const {
    return std::pair(contexts_.lower_bound(first), contexts_.upper_bound(last));
  }

  void add(mvpn_cibtype *mvpn) { contexts_.insert(mvpn); }  // throws std::bad_alloc
  void drop(mvpn_cibtype *mvpn) { contexts_.erase(mvpn); }

  void set(mvpn_cibtype *mvpn, uint32_t value) {
    auto entry = contexts_.extract(mvpn);
    mvpn->*Field = value;
    contexts_.insert(std::move(entry));
  }

  // Keeps the contexts that PIM contexts still carry. The others may not be looked at: their VRF's record is gone.
  void keep_reachable() {
    contexts known;
    known.swap(contexts_);
    mvpn_for_each_context([&](mvpn_cibtype *mvpn) {
      auto entry = known.extract(known.begin());
      entry.value() = mvpn;
      contexts_.insert(std::move(entry));
      return !known.empty();
    });
  }

 private:
  using contexts = std::set<mvpn_cibtype *, by_field_then_name<Field>>;
  contexts contexts_;
};

context_index<&mvpn_cibtype::mti_ifindex> contexts_by_mti;
context_index<&mvpn_cibtype::mti_iod> contexts_by_mti_iod;
context_index<&mvpn_cibtype::mdt_default_group> contexts_by_mdt_group;
context_index<&mvpn_cibtype::mdt_source_iod> contexts_by_source;

}  // namespace

static void drop_from_indexes(mvpn_cibtype *mvpn) {
  contexts_by_mti.drop(mvpn);
  contexts_by_mti_iod.drop(mvpn);
  contexts_by_mdt_group.drop(mvpn);
  contexts_by_source.drop(mvpn);
}

// 0: memory ran out, the context is in none of them.
static int add_to_indexes(mvpn_cibtype *mvpn) {
  try {
    contexts_by_mti.add(mvpn);
    contexts_by_mti_iod.add(mvpn);
    contexts_by_mdt_group.add(mvpn);
    contexts_by_source.add(mvpn);
    return 1;
  } catch (const std::bad_alloc &) {
    drop_from_indexes(mvpn);
    return 0;
  }
}

// A start after a stop that left contexts in place: VRFs may have gone meanwhile.
static void take_over_contexts() {
  if (contexts_by_mti.empty()) return;
  contexts_by_mti.keep_reachable();
  contexts_by_mti_iod.keep_reachable();
  contexts_by_mdt_group.keep_reachable();
  contexts_by_source.keep_reachable();
  mvpn_take_over_data_mdt_ranges();
  mvpn_mvrf_count = contexts_by_mti.size();
}

// -------------------------------------------------------------------------------------------------------------- start

int mvpn_init_slabs() {
  slab_attr attr;
  slab_set_attr(&attr, 1, 0);
  for (uint32_t i = 0; i < MVPN_SLAB_COUNT; i++) {
    const mvpn_slab_info_t &info = mvpn_slab_info[i];
    mvpn_slabs[i] = slab_create(info.size, info.count, &attr, info.name);
    if (mvpn_slabs[i] == nullptr) {
      mvpn_report(msg_error_PIM_SLAB_CREATE, info.name);
      return 0;
    }
  }
  return 1;
}

int mvpn_init_timers() {
  mvpn_at_set_heap = active_timer_new_set_init(ACTIVE_TIMER_SET_SIZE);
  if (mvpn_at_set_heap == 0) {
    mvpn_report(msg_error_PIM_TIMER_SET_INIT, "heap");
    return 0;
  }
  return 1;
}

// Opcodes whose notifications the module wants.
static constexpr uint32_t notification_opcodes[] = {MTS_OPC_MVPN_BGP_RESERVED, MTS_OPC_MVPN_BGP_RD_NOTIFY,
                                                    MTS_OPC_MVPN_BGP_UPDATE_SOURCE_NOTIFY};

int mvpn_init_mts() {
  for (const uint32_t opcode : notification_opcodes) {
    if (mts_options_set(mvpn_mts_q, opcode, MTS_OPTION_NOTIFY) < 0) {
      mvpn_report(msg_error_PIM_OPCODE_REG, opcode, std::strerror(errno));
      return 0;
    }
  }
  return 1;
}

// A VRF that a stop left in place: its source may have another address, and its tunnel, which the tunnel manager keeps down
// while nobody serves it, needs to come up again.
static void follow_missed_events(mvpn_cibtype *mvpn) {
  const bool tunnel_went =
      mvpn->mti_status == MVPN_MTI_UP && mvpn->mti_iod != 0 && ksink_im_is_if_up(mvpn->mti_iod) == 0;
  if (tunnel_went) {
    mvpn_update_mdt_source_info(mvpn, mvpn->mdt_source_iod);
    mvpn_interface_status(mvpn->mti_iod, 0);
  } else if (mvpn->mdt_source_iod != 0) {
    mvpn_process_mdt_source_change(mvpn, mvpn->mdt_source_iod);
  }
}

// 12. Makes the queue known to the debug service; failing that the module runs all the same.
static int register_queue_for_debugging() {
  const int rc = sdwrap_dbg_init_register_mts_q(mvpn_mts_q);
  if (rc != 0) {
    MVPN_DEBUG(pim_null_pcib, "ERROR: register mvpn_mts_q with sdwrap, rc=0x%x [%s]\n", static_cast<unsigned>(rc),
               syserr2str(rc));
    return 0;
  }
  MVPN_DEBUG(pim_null_pcib, "MVPN Module initialisation complete");
  return 1;
}

int mvpn_init(void) {
  // 1, 2.
  mvpn_mts_q = pim_mts_q;
  mvpn_mrib_mts_q = pim_mrib_mts_q;
  mvpn_functionality_status = MVPN_FUNCTIONALITY_UP_PENDING;
  stopped = false;
  take_over_contexts();
  // 3, 4.
  if (mvpn_init_slabs() == 0 || mvpn_init_timers() == 0) return 0;
  // 5.
  mvpn_bgp_mdt_safi_init_db();
  // 6 to 10.
  if (mvpn_init_oim() == 0 || mvpn_init_bgp() == 0 || mvpn_init_mts() == 0) return 0;
  if (mvpn_init_mrib() == 0 || mvpn_init_data_mdt() == 0) return 0;
  // 11.
  mvpn_functionality_status = MVPN_FUNCTIONALITY_UP;
  if (mvpn_mvrf_count != 0) {
    mvpn_for_each_context([](mvpn_cibtype *mvpn) {
      follow_missed_events(mvpn);
      return true;
    });
  }
  return register_queue_for_debugging();
}

// --------------------------------------------------------------------------------------------------------------- stop

int mvpn_deinit_slabs() {
  for (slab_handle &slab : mvpn_slabs) {
    if (slab != nullptr) slab_destroy(&slab);
  }
  return 1;
}

// The timers of the set are cancelled by those who made them.
int mvpn_deinit_timers() { return 1; }

int mvpn_deinit_mts() {
  int done = 1;
  for (const uint32_t opcode : notification_opcodes) {
    const uint32_t options = mts_options_get(mvpn_mts_q, opcode);
    if (mts_options_set(mvpn_mts_q, opcode, options & 0xFFEF) < 0) done = 0;
  }
  return done;
}

// Ends an open recovery period without its sweep: the records go anyway.
static void drop_recovery_timer() {
  if (mvpn_ha_recovery_timer == nullptr) return;
  active_timer_cancel(mvpn_ha_recovery_timer);
  mvpn_ha_recovery_timer = nullptr;
}

static bool is_feature_configured() { return pim_check_feature_configured("mvpn") != 0; }

// The feature test is repeated, since the host's configuration may change while the stop yields.
void mvpn_deinit(int deregister) {
  // 1, 2.
  if (mvpn_functionality_status == MVPN_FUNCTIONALITY_DOWN) return;
  mvpn_functionality_status = MVPN_FUNCTIONALITY_DOWN_PENDING;
  stopped = true;
  // 3. The feature is being removed.
  if (!is_feature_configured()) {
    mvpn_for_each_context([](mvpn_cibtype *mvpn) {
      mvpn_default_tunnel_down(mvpn, 0);
      return true;
    });
  }
  // 4, 5.
  mvpn_deinit_mts();
  mvpn_deinit_mrib(deregister);
  mvpn_deinit_oim();
  // 6.
  if (!is_feature_configured()) mvpn_bgp_mdt_safi_delete_all();
  // 7.
  mvpn_deinit_bgp();
  mvpn_deinit_data_mdt();
  drop_recovery_timer();
  mvpn_deinit_timers();
  mvpn_deinit_slabs();
  // 8.
  mvpn_ha_delete_encap_info(nullptr, nullptr);
  // 9.
  mvpn_functionality_status = MVPN_FUNCTIONALITY_DOWN;
}

// ------------------------------------------------------------------------------------------------------------- yields

mvpn_vrf_name::mvpn_vrf_name(const mvpn_cibtype *mvpn) {
  if (mvpn == nullptr || mvpn->pcib == nullptr) return;
  std::memcpy(text_, mvpn->pcib->vrf_name, strnlen(mvpn->pcib->vrf_name, VRF_NAME_MAX));
}

mvpn_cibtype *mvpn_vrf_handle::get() const {
  return name_.text()[0] != '\0' ? mvpn_get_context(name_.text()) : nullptr;
}

bool mvpn_vrf_handle::same() const {
  const mvpn_cibtype *mvpn = get();
  return mvpn != nullptr && mvpn->serial == serial_;
}

mvpn_cibtype *mvpn_may_sched_yield(mvpn_cibtype *mvpn) {
  const mvpn_vrf_handle vrf(mvpn);
  if (tsp_sched_may_yield() == 0) return mvpn;
  {
    const cancellation_scope may_end;
    pthread_testcancel();
  }
  return vrf.get();
}

// ----------------------------------------------------------------------------------------------------------- contexts

// The PIM context of a VRF, made when the host has none yet; null after a report.
static pim_cibtype *find_or_create_pcib(const char *vrf_name) {
  pim_cibtype *pcib = pim_get_cib_by_context_name(vrf_name);
  if (pcib == nullptr) pcib = pim_create_context(vrf_name);
  if (pcib == nullptr) mvpn_report(msg_error_PIM_API_FAILED, "pim_create_context()", "pim_init_l3vm()");
  return pcib;
}

static uint64_t last_serial;

// A zeroed context that knows its VRF and stands in the indexes; null after a report.
static mvpn_cibtype *allocate_context(pim_cibtype *pcib) {
  auto *mvpn = static_cast<mvpn_cibtype *>(slab_calloc(mvpn_slabs[MVPN_SLAB_CIBTYPE]));
  if (mvpn != nullptr) {
    mvpn->pcib = pcib;
    mvpn->serial = ++last_serial;
    if (add_to_indexes(mvpn) != 0) return mvpn;
    slab_free(mvpn_slabs[MVPN_SLAB_CIBTYPE], mvpn);
  }
  mvpn_report(msg_error_PIM_MALLOC, sizeof(mvpn_cibtype), "mvpn_create_context()");
  return nullptr;
}

mvpn_cibtype *mvpn_create_context(pim_cibtype *pcib, const char *vrf_name) {
  // 1, 2.
  if (pcib == nullptr && vrf_name == nullptr) return nullptr;
  if (pcib == nullptr) pcib = find_or_create_pcib(vrf_name);
  if (pcib == nullptr) return nullptr;
  // 3.
  if (pcib->mvpn != nullptr) return pcib->mvpn;
  // 4, 5.
  mvpn_cibtype *mvpn = allocate_context(pcib);
  if (mvpn == nullptr) return nullptr;
  pcib->mvpn = mvpn;
  MVPN_DEBUG(pcib, "pcib->mvpn (pcib=%p mvpn=%p) is now set for VRF %s", static_cast<void *>(pcib),
             static_cast<void *>(mvpn), pcib->vrf_name);
  // 6.
  mvpn_init_context(mvpn);
  mvpn_mvrf_count++;
  return mvpn;
}

static void switchover_timer_expired(void *argument) {
  mvpn_process_data_mdt_switchover_expiry(static_cast<mvpn_cibtype *>(argument));
}

void mvpn_init_context(mvpn_cibtype *mvpn) {
  if (mvpn == nullptr) return;
  mvpn_set_mti_status(mvpn, MVPN_MTI_NONE, "context initialised");
  mvpn->mdt_group_mode = MVPN_MDT_GROUP_MODE_NONE;
  mvpn->mdt_mtu = MVPN_MDT_MTU_DEFAULT;
  mvpn_set_mti_iod(mvpn, 0);
  mvpn->data_mdt_bidir_enable = 0;
  mvpn->pim_hello_interval = MVPN_PIM_HELLO_INTERVAL_DEFAULT;
  mvpn->pim_jp_interval = MVPN_PIM_JP_INTERVAL_DEFAULT;
  mvpn->data_mdt_timeout = MVPN_DATA_MDT_TIMEOUT_DEFAULT;
  mvpn->enforce_bgp_mdt_safi = 1;
  ravl_init(&mvpn->switchover_cache, sizeof(mvpn_mdt_route_addrs), offsetof(mvpn_switchover_entry, addrs), nullptr);
  // Without the timer pending switchovers are finished by the rate check only.
  mvpn->switchover_timer =
      active_timer_create(mvpn_at_set_heap, ACTIVE_TIMER_TYPE_MVPN, switchover_timer_expired, mvpn);
  mvpn_note_change(mvpn, MVPN_LAST_CHANGE_CREATED);
}

void mvpn_free_context(mvpn_cibtype *mvpn) {
  drop_from_indexes(mvpn);
  mvpn->pcib->mvpn = nullptr;
  slab_free(mvpn_slabs[MVPN_SLAB_CIBTYPE], mvpn);
  mvpn_mvrf_count--;
}

void mvpn_set_mti_ifindex(mvpn_cibtype *mvpn, if_index_t if_index) { contexts_by_mti.set(mvpn, if_index); }
void mvpn_set_mti_iod(mvpn_cibtype *mvpn, im_iod_t iod) { contexts_by_mti_iod.set(mvpn, iod); }
void mvpn_set_mdt_default_group(mvpn_cibtype *mvpn, ip_addr_t group) { contexts_by_mdt_group.set(mvpn, group); }
void mvpn_set_mdt_source_iod(mvpn_cibtype *mvpn, im_iod_t iod) { contexts_by_source.set(mvpn, iod); }

void mvpn_set_mti_status(mvpn_cibtype *mvpn, mvpn_mti_status_t status, const char *reason) {
  MVPN_DEBUG_DETAIL(mvpn->pcib, "MTI status %s -> %s: %s", mvpn_mti_status_str[mvpn->mti_status],
                    mvpn_mti_status_str[status], reason);
  mvpn->mti_status = status;
}

bool mvpn_mti_has_pim_interface(const mvpn_cibtype *mvpn) {
  return (MVPN_MTI_PIM_INTERFACE_STATUSES >> mvpn->mti_status & 1) != 0 && mvpn->mti_pim_if != nullptr;
}

// A stamp that cannot be taken leaves the last one.
void mvpn_note_change(mvpn_cibtype *mvpn, mvpn_last_change_t code) {
  zeph_timestamp now;
  if (zeph_sys_mclock_get(&now) != -1) mvpn->last_change_time = now;
  mvpn->last_change_code = code;
}

// ----------------------------------------------------------------------------------------------------------- look-ups

static mvpn_cibtype *context_of(const pim_cibtype *pcib) { return pcib != nullptr ? pcib->mvpn : nullptr; }

mvpn_cibtype *mvpn_get_context(const char *vrf_name) {
  return vrf_name != nullptr ? context_of(pim_get_cib_by_context_name(vrf_name)) : nullptr;
}

mvpn_cibtype *mvpn_get_context_by_id(vrf_context_id_t context_id) {
  return context_of(pim_get_cib_by_context_id(context_id));
}

mvpn_cibtype *mvpn_get_context_by_mti(if_index_t if_index) { return contexts_by_mti.first(if_index); }

// Context ids are compared now: a VRF gets its id when the VRF manager learns of it, which may be after its context.
// One without an id cannot be found by it.
mvpn_cibtype *mvpn_get_context_by_mti_iod(im_iod_t iod) {
  mvpn_cibtype *lowest = nullptr;
  auto [next, end] = contexts_by_mti_iod.equal(iod);
  for (; next != end; ++next) {
    const vrf_context_id_t id = (*next)->pcib->context_id;
    if (id == VRF_CONTEXT_ID_NONE) continue;
    if (lowest == nullptr || id < lowest->pcib->context_id) lowest = *next;
  }
  return lowest;
}

mvpn_cibtype *mvpn_get_context_by_mdt_group(ip_addr_t group) { return contexts_by_mdt_group.first(group); }

mvpn_cibtype *mvpn_first_by_name(mvpn_cibtype *a, mvpn_cibtype *b) {
  if (a == nullptr || b == nullptr) return a != nullptr ? a : b;
  return compare_names(a, b) <= 0 ? a : b;
}

mvpn_cibtype *mvpn_get_other_context_by_mdt_groups(const mvpn_cibtype *except, ip_addr_t first, ip_addr_t last) {
  mvpn_cibtype *found = nullptr;
  auto [next, end] = contexts_by_mdt_group.between(first, last);
  for (; next != end; ++next) {
    if (*next != except) found = mvpn_first_by_name(found, *next);
  }
  return found;
}

mvpn_cibtype *mvpn_next_context_by_mti(if_index_t if_index, const char *vrf_name) {
  return contexts_by_mti.next(if_index, vrf_name);
}

mvpn_cibtype *mvpn_next_context_by_source(im_iod_t iod, const char *vrf_name) {
  return contexts_by_source.next(iod, vrf_name);
}

// ----------------------------------------------------------------------------------------------------------- messages

int mvpn_process_msg(mts_message *msg) {
  if (!mvpn_is_running()) {
    MVPN_DEBUG(pim_null_pcib, "Ignoring processing of oim/bgp messages");
    return 0;
  }
  switch (mts_opc_get(msg)) {
    case MTS_OPC_MVPN_BGP_MDT_SAFI_LOCAL_REQUEST:
      mvpn_bgp_process_local_request(msg);
      return 1;
    case MTS_OPC_MVPN_BGP_UPDATE_SOURCE_NOTIFY:
      mvpn_bgp_process_update_src_notify(msg);
      return 1;
    case MTS_OPC_MVPN_BGP_MDT_SAFI_REMOTE_UPDATE:
      MVPN_DEBUG(pim_null_pcib, "Received MDT SAFI Remote Update msg from BGP");
      mvpn_bgp_mdt_safi_receive_remote_update(mts_payload_get(msg), mts_payload_length_get(msg));
      return 1;
    case MTS_OPC_MVPN_BGP_RD_NOTIFY:
      mvpn_bgp_process_rd_notify(msg);
      return 1;
    case MTS_OPC_OIM_IF_CREATE_RESPONSE:
      MVPN_DEBUG(pim_null_pcib, "Received OIM If create response message");
      mvpn_oim_process_create_response(msg);
      return 1;
    case MTS_OPC_MVPN_BGP_RESERVED:
      return 1;
    case MTS_OPC_OIM_IF_DELETE_RESPONSE:
      MVPN_DEBUG(pim_null_pcib, "Received OIM If delete response message");
      mvpn_oim_process_delete_response(msg);
      return 1;
    case MTS_OPC_OIM_IF_PARAM_UPDATE_RESPONSE:
      MVPN_DEBUG(pim_null_pcib, "Received OIM param update response msg");
      mvpn_oim_process_update_response(msg);
      return 1;
    default:
      return 0;
  }
}
