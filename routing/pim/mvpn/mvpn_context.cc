// The per-VRF contexts: their creation and defaults, how they are found, what a yield leaves of them, and the words
// that every subsystem shares. Everything else in the module stands above this source.
//
// A VRF with a default MDT group has an mvpn_cibtype, which hangs on its PIM context. Messages and events name a VRF by
// its tunnel's if-index, by its tunnel's ordinal, by its default group or by the interface that is its source. These
// look-ups are frequent, so they are answered from four indexes; each holds every context, also those whose field is 0.
// When several contexts share a value they are found in VRF-name order, for ordinals the lowest context id first.
//
// Invariants.
//   - A context is in all four indexes or, while it is being created or freed, in none. The setters move it; they
//     reuse its index entries, so that only the creation of a context can run out of memory. Its record knows where
//     they are: four thousand contexts that have no tunnel yet share a value, and none is searched for among them.
//   - Contexts may outlive a stop. The next start takes over those that still hang on a PIM context.
//   - mvpn_mvrf_count is the number of contexts in the indexes.
//
// Yields. Whoever lets other work run may find the VRF deleted, or deleted and configured anew, afterwards; VRFs are
// therefore remembered by name and looked up again (mvpn_vrf_handle, mvpn_may_sched_yield). A successor may lie where
// its predecessor lay: what must not go on in it compares serial numbers, not addresses.
#include "routing/pim/mvpn/mvpn_context.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <new>
#include <set>

#include "platform/im.h"
#include "platform/l3vm.h"
#include "routing/pim/mvpn/mvpn_diag.h"
#include "routing/pim/mvpn/mvpn_guards.h"

// ------------------------------------------------------------------------------------------------------- global state

mvpn_functionality_status_t mvpn_functionality_status = MVPN_FUNCTIONALITY_DOWN;
uint32_t mvpn_mvrf_count;
mts_queue *mvpn_mts_q;
mts_queue *mvpn_mrib_mts_q;
uint8_t mvpn_at_set_heap;
bool mvpn_stopped;
uint32_t mvpn_is_cli_done;
char mvpn_bgp_updatesrc_ifname[BGP_UPDATE_SOURCE_NAME_SIZE + 1];
im_iod_t mvpn_bgp_updatesrc_iod;
void (*mvpn_switchover_timer_hook)(mvpn_cibtype *mvpn);

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

struct mvpn_slab_info_t {
  size_t size;     // bytes of an object
  uint16_t count;  // objects per growth step
  char name[36];
};
static const mvpn_slab_info_t mvpn_slab_info[MVPN_SLAB_COUNT] = {
    {sizeof(mvpn_cibtype), 100, "mvpn_cibtype"},
    {sizeof(mvpn_bgp_mdt_safi), 200, "mvpn_bgp_mdt_safi"},
    {sizeof(mvpn_mdt_route), 200, "mvpn_mdt_route"},
    {sizeof(mvpn_data_mdt_send_join_info), 200, "mvpn_data_mdt_send_join_info"},
    {sizeof(mvpn_data_mdt_recv_join_info), 200, "mvpn_data_mdt_recv_join_info"},
};
slab_handle mvpn_slabs[MVPN_SLAB_COUNT];

// ------------------------------------------------------------------------------------------------- slabs and timers

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

int mvpn_deinit_slabs() {
  for (slab_handle &slab : mvpn_slabs) {
    if (slab != nullptr) slab_destroy(&slab);
  }
  return 1;
}

// The timers of the set are cancelled by those who made them.
int mvpn_deinit_timers() { return 1; }

// ------------------------------------------------------------------------------------------------------------ indexes

namespace {

int compare_names(const mvpn_cibtype *a, const mvpn_cibtype *b) {
  return std::strcmp(a->pcib->vrf_name, b->pcib->vrf_name);
}

// A context in an index, with what it is found by: a comparison looks at no context, of which each has pages of its
// own.
struct index_entry {
  uint32_t value;
  const char *name;  // of its VRF
  mvpn_cibtype *mvpn;
};

struct by_value_then_name {
  using is_transparent = void;
  bool operator()(const index_entry &a, const index_entry &b) const {
    return a.value != b.value ? a.value < b.value : std::strcmp(a.name, b.name) < 0;
  }
  bool operator()(const index_entry &a, uint32_t value) const { return a.value < value; }
  bool operator()(uint32_t value, const index_entry &b) const { return value < b.value; }
};

// Every context by one of its fields, contexts with the same value in VRF-name order.
template <auto Field, mvpn_context_index_t Index>
class context_index {
 public:
  bool empty() const { return contexts_.empty(); }
  uint32_t size() const { return static_cast<uint32_t>(contexts_.size()); }
  auto equal(uint32_t value) const { return contexts_.equal_range(value); }

  mvpn_cibtype *first(uint32_t value) const { return at(contexts_.lower_bound(value), value); }

  // The first with this value behind a VRF name.
  mvpn_cibtype *next(uint32_t value, const char *name) const {
    return at(contexts_.upper_bound(index_entry{value, name, nullptr}), value);
  }

  // Those whose values are first..last.
  auto between(uint32_t first, uint32_t last) const {
    return std::pair(contexts_.lower_bound(first), contexts_.upper_bound(last));
  }

  void add(mvpn_cibtype *mvpn) { keep_place(mvpn, contexts_.insert(entry_of(mvpn)).first); }  // throws std::bad_alloc

  void drop(mvpn_cibtype *mvpn) {
    if (mvpn->index_places[Index] == nullptr) return;
    contexts_.erase(place_of(mvpn));
    mvpn->index_places[Index] = nullptr;
  }

  void set(mvpn_cibtype *mvpn, uint32_t value) {
    if (mvpn->*Field == value) return;
    auto entry = contexts_.extract(place_of(mvpn));
    mvpn->*Field = value;
    entry.value().value = value;
    keep_place(mvpn, contexts_.insert(std::move(entry)).position);
  }

  // Keeps the contexts that PIM contexts still carry. The others may not be looked at: their VRF's record is gone.
  void keep_reachable() {
    contexts known;
    known.swap(contexts_);
    mvpn_for_each_context([&](mvpn_cibtype *mvpn) {
      auto entry = known.extract(known.begin());
      entry.value() = entry_of(mvpn);
      keep_place(mvpn, contexts_.insert(std::move(entry)).position);
      return !known.empty();
    });
  }

 private:
  using contexts = std::set<index_entry, by_value_then_name>;
  using place = contexts::const_iterator;

  static place place_of(const mvpn_cibtype *mvpn) { return std::bit_cast<place>(mvpn->index_places[Index]); }
  static void keep_place(mvpn_cibtype *mvpn, place at) { mvpn->index_places[Index] = std::bit_cast<void *>(at); }

  static index_entry entry_of(mvpn_cibtype *mvpn) { return {mvpn->*Field, mvpn->pcib->vrf_name, mvpn}; }
  mvpn_cibtype *at(place found, uint32_t value) const {
    return found != contexts_.end() && found->value == value ? found->mvpn : nullptr;
  }

  contexts contexts_;
};

context_index<&mvpn_cibtype::mti_ifindex, MVPN_CONTEXTS_BY_MTI> contexts_by_mti;
context_index<&mvpn_cibtype::mti_iod, MVPN_CONTEXTS_BY_MTI_IOD> contexts_by_mti_iod;
context_index<&mvpn_cibtype::mdt_default_group, MVPN_CONTEXTS_BY_MDT_GROUP> contexts_by_mdt_group;
context_index<&mvpn_cibtype::mdt_source_iod, MVPN_CONTEXTS_BY_SOURCE> contexts_by_source;

// The VRFs of the groups that were asked for last: each entry of each remote update asks, and its neighbours in a
// message are of other VRFs. A change of a context makes it forget the group that the context had and the one it gets.
class group_answers {
 public:
  mvpn_cibtype *context_of(ip_addr_t group) {
    answer &latest = answer_for(group);
    if (!latest.known || latest.group != group) latest = {group, true, contexts_by_mdt_group.first(group)};
    return latest.mvpn;
  }
  void forget(ip_addr_t group) { answer_for(group) = {}; }
  void forget_all() { std::fill(std::begin(answers_), std::end(answers_), answer{}); }

 private:
  struct answer {
    ip_addr_t group;
    bool known;
    mvpn_cibtype *mvpn;  // null: the group is nobody's
  };
  static constexpr uint32_t bits = 12;
  // Multiplying by 2^32 divided by the golden ratio spreads groups that count up in any of their octets.
  answer &answer_for(ip_addr_t group) { return answers_[group * 0x9E3779B1u >> (32 - bits)]; }

  answer answers_[1u << bits];
};

group_answers latest_groups;

}  // namespace

static void drop_from_indexes(mvpn_cibtype *mvpn) {
  contexts_by_mti.drop(mvpn);
  contexts_by_mti_iod.drop(mvpn);
  contexts_by_mdt_group.drop(mvpn);
  contexts_by_source.drop(mvpn);
  latest_groups.forget(mvpn->mdt_default_group);
}

// 0: memory ran out, the context is in none of them.
static int add_to_indexes(mvpn_cibtype *mvpn) {
  try {
    contexts_by_mti.add(mvpn);
    contexts_by_mti_iod.add(mvpn);
    contexts_by_mdt_group.add(mvpn);
    contexts_by_source.add(mvpn);
    latest_groups.forget(mvpn->mdt_default_group);
    return 1;
  } catch (const std::bad_alloc &) {
    drop_from_indexes(mvpn);
    return 0;
  }
}

// A start after a stop that left contexts in place: VRFs may have gone meanwhile.
void mvpn_take_over_contexts() {
  if (contexts_by_mti.empty()) return;
  contexts_by_mti.keep_reachable();
  contexts_by_mti_iod.keep_reachable();
  contexts_by_mdt_group.keep_reachable();
  contexts_by_source.keep_reachable();
  latest_groups.forget_all();
  mvpn_mvrf_count = contexts_by_mti.size();
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

static void switchover_timer_expired(void *argument) {
  mvpn_switchover_timer_hook(static_cast<mvpn_cibtype *>(argument));
}

static void mvpn_init_context(mvpn_cibtype *mvpn) {
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

mvpn_cibtype *mvpn_create_context(pim_cibtype *pcib, const char *vrf_name) {
  if (pcib == nullptr && vrf_name == nullptr) return nullptr;
  if (pcib == nullptr) pcib = find_or_create_pcib(vrf_name);
  if (pcib == nullptr) return nullptr;
  if (pcib->mvpn != nullptr) return pcib->mvpn;
  mvpn_cibtype *mvpn = allocate_context(pcib);
  if (mvpn == nullptr) return nullptr;
  pcib->mvpn = mvpn;
  MVPN_DEBUG(pcib, "pcib->mvpn (pcib=%p mvpn=%p) is now set for VRF %s", static_cast<void *>(pcib),
             static_cast<void *>(mvpn), pcib->vrf_name);
  mvpn_init_context(mvpn);
  mvpn_mvrf_count++;
  return mvpn;
}

void mvpn_free_context(mvpn_cibtype *mvpn) {
  drop_from_indexes(mvpn);
  mvpn->pcib->mvpn = nullptr;
  slab_free(mvpn_slabs[MVPN_SLAB_CIBTYPE], mvpn);
  mvpn_mvrf_count--;
}

void mvpn_set_mti_ifindex(mvpn_cibtype *mvpn, if_index_t if_index) { contexts_by_mti.set(mvpn, if_index); }
void mvpn_set_mti_iod(mvpn_cibtype *mvpn, im_iod_t iod) { contexts_by_mti_iod.set(mvpn, iod); }
void mvpn_set_mdt_source_iod(mvpn_cibtype *mvpn, im_iod_t iod) { contexts_by_source.set(mvpn, iod); }

void mvpn_set_mdt_default_group(mvpn_cibtype *mvpn, ip_addr_t group) {
  latest_groups.forget(mvpn->mdt_default_group);
  latest_groups.forget(group);
  contexts_by_mdt_group.set(mvpn, group);
}

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
    mvpn_cibtype *mvpn = next->mvpn;
    const vrf_context_id_t id = mvpn->pcib->context_id;
    if (id == VRF_CONTEXT_ID_NONE) continue;
    if (lowest == nullptr || id < lowest->pcib->context_id) lowest = mvpn;
  }
  return lowest;
}

mvpn_cibtype *mvpn_get_context_by_mdt_group(ip_addr_t group) { return latest_groups.context_of(group); }

mvpn_cibtype *mvpn_first_by_name(mvpn_cibtype *a, mvpn_cibtype *b) {
  if (a == nullptr || b == nullptr) return a != nullptr ? a : b;
  return compare_names(a, b) <= 0 ? a : b;
}

mvpn_cibtype *mvpn_get_other_context_by_mdt_groups(const mvpn_cibtype *except, ip_addr_t first, ip_addr_t last) {
  mvpn_cibtype *found = nullptr;
  auto [next, end] = contexts_by_mdt_group.between(first, last);
  for (; next != end; ++next) {
    if (next->mvpn != except) found = mvpn_first_by_name(found, next->mvpn);
  }
  return found;
}

mvpn_cibtype *mvpn_next_context_by_mti(if_index_t if_index, const char *vrf_name) {
  return contexts_by_mti.next(if_index, vrf_name);
}

mvpn_cibtype *mvpn_next_context_by_source(im_iod_t iod, const char *vrf_name) {
  return contexts_by_source.next(iod, vrf_name);
}

// ---------------------------------------------------------------------------------------------------------- readiness

static bool has_context_id(const mvpn_cibtype *mvpn) {
  return mvpn->pcib != nullptr && mvpn->pcib->context_id != VRF_CONTEXT_ID_NONE;
}

// The first condition that does not hold; null when all do.
static const char *unmet_condition(const mvpn_cibtype *mvpn) {
  // The VRF.
  if (!has_context_id(mvpn)) return "Context-id doesn't exist";
  l3vm_context_info info;
  if (l3vm_get_context_info(mvpn->pcib->context_id, &info) == 0) return "l3vm_get_context_info() failed";
  if (info.state != L3VM_STATE_UP) return "l3vm state for context is not UP";
  // Its identity in BGP.
  if (mvpn->bgp_rd_set == 0) return "BGP RD is not set";
  // The source.
  if (mvpn->mdt_source_iod == 0) return "MDT source iod is unknown";
  if (im_is_if_up(mvpn->mdt_source_iod) == 0) return "MDT source iod is down";
  if (mvpn->mdt_source_addr == 0) return "MDT source address doesn't exist";
  // The group.
  return mvpn->mdt_default_group == 0 ? "MDT default group is not configured" : nullptr;
}

int mvpn_is_default_mdt_ready(mvpn_cibtype *mvpn) {
  const char *condition = unmet_condition(mvpn);
  if (condition == nullptr) return 1;
  MVPN_DEBUG(has_context_id(mvpn) ? mvpn->pcib : pim_null_pcib, "%s", condition);
  return 0;
}

// --------------------------------------------------------------------------------------------------------- group mode

mvpn_mdt_group_mode_t mvpn_get_group_mode(vrf_context_id_t context_id, ip_addr_t group) {
  if (pim_is_ssm_group(context_id, group) != 0) return MVPN_MDT_GROUP_MODE_SSM;
  if (pim_is_bidir_group(context_id, group) != 0) return MVPN_MDT_GROUP_MODE_BIDIR;
  return MVPN_MDT_GROUP_MODE_ASM;
}
