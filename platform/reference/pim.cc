// Host PIM process: VRF contexts, PIM interfaces, modes of groups, flags. Customer routes are in croute.cc.
//
// Contexts stand in two AVL trees, by name and by context id, which the module walks itself; their keys lie behind the
// record, because a tree's key follows its node. Walks by name continue after the name that the iterator holds, so that
// any context may vanish meanwhile; one that is still there is found by its name's hash and leads to the next.
//
// A PIM interface's record outlives the interface: the tunnel manager removes a tunnel before the module, told by the
// response, takes PIM off it.
#include "platform/pim.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <unordered_map>

#include "platform/ip.h"
#include "platform/reference/im.h"
#include "platform/reference/observer.h"
#include "platform/reference/pim.h"
#include "platform/reference/services.h"
#include "platform/reference/testing/services.h"

namespace ref {
namespace {

constexpr uint32_t default_hello_interval = 30000;  // milliseconds
constexpr uint16_t default_jp_interval = 60;        // seconds

struct Context {
  pim_cibtype cib{};
  void *note = nullptr;  // the observer's
  char name_key[VRF_NAME_MAX + 1] = {};
  uint32_t id_key = 0;
  bool usable = true;
};
static_assert(offsetof(Context, cib) == 0, "a context is found by its first field");

struct GroupRange {
  ip_addr_t prefix;
  uint32_t length;
  bool operator==(const GroupRange &) const = default;
};

struct Process {
  std::unordered_map<std::string_view, std::unique_ptr<Context>> named;  // the names are the records'
  std::unordered_map<vrf_context_id_t, Context *> by_id;
  std::vector<std::unique_ptr<pim_iftype>> interfaces;  // by ordinal; null: none
  std::vector<GroupRange> ssm{{0xE8000000, 8}};         // 232.0.0.0/8
  std::vector<GroupRange> bidir;
  std::map<std::pair<ip_addr_t, im_iod_t>, ip_addr_t> df_winners;
  PimCounters counters;
  uint8_t timer_set = 0;
};
Process process;
uint64_t changes;  // of the set of contexts

int compare_numbers(const void *a, const void *b) {
  const auto left = *static_cast<const uint32_t *>(a), right = *static_cast<const uint32_t *>(b);
  return left < right ? -1 : left > right ? 1 : 0;
}

void init_trees() {
  ravl_init(&pim_contexts_by_name, sizeof(Context::name_key),
            offsetof(Context, name_key) - offsetof(Context, cib) - offsetof(pim_cibtype, by_name), nullptr);
  ravl_init(&pim_contexts_by_context_id, sizeof(Context::id_key),
            offsetof(Context, id_key) - offsetof(Context, cib) - offsetof(pim_cibtype, by_context_id), compare_numbers);
}

Context *make_context(std::string_view name) {
  if (name.empty() || name.size() > VRF_NAME_MAX) return nullptr;
  auto context = std::make_unique<Context>();
  std::memcpy(context->cib.vrf_name, name.data(), name.size());
  std::memcpy(context->name_key, name.data(), name.size());
  context->cib.by_name.user_data = context->cib.by_context_id.user_data = &context->cib;
  ravl_insert(&pim_contexts_by_name, &context->cib.by_name);
  Context *made = context.get();
  changes++;
  process.named[made->name_key] = std::move(context);
  return made;
}

Context *context_of(std::string_view name) {
  const auto found = process.named.find(name);
  return found == process.named.end() ? nullptr : found->second.get();
}

// The context behind a name that nobody has.
void *context_behind(std::string_view name) {
  ravl_iterator iterator;
  ravl_init_iterator(&iterator, &pim_contexts_by_name);
  name.copy(reinterpret_cast<char *>(iterator.key), VRF_NAME_MAX);
  iterator.started = 1;
  return ravl_get_next_user_data(&iterator);
}

bool in_ranges(const std::vector<GroupRange> &ranges, ip_addr_t group) {
  return std::any_of(ranges.begin(), ranges.end(), [group](const GroupRange &range) {
    return ((group ^ range.prefix) & prefix_mask(range.length)) == 0;
  });
}

void add_range(std::vector<GroupRange> &ranges, ip_addr_t prefix, uint32_t length) {
  const GroupRange range{prefix & prefix_mask(length), length};
  if (std::find(ranges.begin(), ranges.end(), range) == ranges.end()) ranges.push_back(range);
}

void remove_range(std::vector<GroupRange> &ranges, ip_addr_t prefix, uint32_t length) {
  std::erase(ranges, GroupRange{prefix & prefix_mask(length), length});
}

pim_iftype *record_of(im_iod_t iod) {
  return iod < process.interfaces.size() ? process.interfaces[iod].get() : nullptr;
}

void stop_hellos(pim_iftype &record) {
  active_timer_cancel(record.hello_timer);
  record.hello_timer = nullptr;
}

void hello_due(void *argument) {
  pim_iftype *record = record_of(static_cast<im_iod_t>(reinterpret_cast<uintptr_t>(argument)));
  if (record != nullptr && record->pim_enabled != 0) pim_send_periodic_hello(record);
}

void start_hellos(pim_iftype &record) {
  if (process.timer_set == 0) process.timer_set = active_timer_new_set_init(ACTIVE_TIMER_SET_SIZE);
  if (record.hello_timer == nullptr)
    record.hello_timer = active_timer_create(process.timer_set, ACTIVE_TIMER_TYPE_MVPN, hello_due,
                                             reinterpret_cast<void *>(static_cast<uintptr_t>(record.iod)));
}

// PIM interfaces of an SNMP walk: those that exist and run PIM.
bool is_listed(const pim_iftype &record) { return record.pim_enabled != 0 && find_interface(record.iod) != nullptr; }

void reset_globals() {
  pim_mpib = mrib_host_client();
  pim_null_pcib = nullptr;
  pim_default_cib = nullptr;
  pim_mtu = 9216;
  pim_mvpn_feature_configured = 1;
  pim_oim_initialized = pim_bgp_initialized = pim_crashed = pim_sup_switchover = 0;
  pim_sup_state_active = 1;
  pim_cli_requests_sent_count = pim_cli_done_recv_count = 0;
  pim_wrlock_count = 0;
  pim_debug_flag = 0;
  pim_debug_fp = nullptr;
  std::memset(pim_debug_buffer, 0, sizeof pim_debug_buffer);
  std::memset(pim_dfilter_vrf_name, 0, sizeof pim_dfilter_vrf_name);
}

}  // namespace

void pim_reset() {
  for (const auto &record : process.interfaces)
    if (record != nullptr) stop_hellos(*record);
  process = Process{};
  changes++;
  init_trees();
  reset_globals();
}

PimCounters &pim_count() { return process.counters; }
const PimCounters &pim_counters() { return process.counters; }
uint64_t context_changes() { return changes; }

pim_cibtype *pim_find(std::string_view name) {
  Context *context = context_of(name);
  return context == nullptr ? nullptr : &context->cib;
}

pim_cibtype *pim_adopt_context(std::string_view name, vrf_context_id_t context_id, uint32_t table_id) {
  Context *context = context_of(name);
  if (context == nullptr) context = make_context(name);
  if (context == nullptr || context->cib.context_id != VRF_CONTEXT_ID_NONE) return nullptr;
  context->cib.context_id = context->id_key = context_id;
  context->cib.table_id = table_id;
  ravl_insert(&pim_contexts_by_context_id, &context->cib.by_context_id);
  process.by_id[context_id] = context;
  return &context->cib;
}

void *&pim_note_of(const pim_cibtype *pcib) {
  return reinterpret_cast<Context *>(const_cast<pim_cibtype *>(pcib))->note;
}

void pim_forget_notes() {
  for (const auto &[name, context] : process.named) context->note = nullptr;
}

void pim_drop_context(pim_cibtype *pcib) {
  if (observer() != nullptr) observer()->vrf_touched(pcib->vrf_name, pim_note_of(pcib));
  for (auto &record : process.interfaces) {
    if (record == nullptr || record->pcib != pcib) continue;
    stop_hellos(*record);
    record = nullptr;
  }
  ravl_delete(&pim_contexts_by_name, &pcib->by_name);
  ravl_delete(&pim_contexts_by_context_id, &pcib->by_context_id);
  process.by_id.erase(pcib->context_id);
  changes++;
  process.named.erase(process.named.find(std::string_view(pcib->vrf_name)));
}

void set_pcib_usable(std::string_view name, bool usable) {
  if (Context *context = context_of(name)) context->usable = usable;
}

void pim_interface_gone(im_iod_t iod) {
  if (pim_iftype *record = record_of(iod)) stop_hellos(*record);
}

void add_ssm_range(ip_addr_t prefix, uint32_t length) { add_range(process.ssm, prefix, length); }
void add_bidir_range(ip_addr_t prefix, uint32_t length) { add_range(process.bidir, prefix, length); }
void remove_ssm_range(ip_addr_t prefix, uint32_t length) { remove_range(process.ssm, prefix, length); }
void remove_bidir_range(ip_addr_t prefix, uint32_t length) { remove_range(process.bidir, prefix, length); }

void set_df_winner(ip_addr_t rp, im_iod_t iif, ip_addr_t winner) {
  if (winner != 0)
    process.df_winners[{rp, iif}] = winner;
  else
    process.df_winners.erase({rp, iif});
}

void set_feature_configured(bool configured) { pim_mvpn_feature_configured = configured ? 1 : 0; }

}  // namespace ref

extern "C" {

mrib_client_handle *pim_mpib = nullptr;
uint32_t pim_mtu = 0;
pim_cibtype *pim_null_pcib = nullptr;
pim_cibtype *pim_default_cib = nullptr;
ravl_tree pim_contexts_by_context_id{};
ravl_tree pim_contexts_by_name{};
uint32_t pim_mvpn_feature_configured = 0;
uint32_t pim_oim_initialized = 0;
uint32_t pim_bgp_initialized = 0;
uint32_t pim_crashed = 0;
uint32_t pim_sup_state_active = 0;
uint32_t pim_sup_switchover = 0;
uint16_t pim_cli_requests_sent_count = 0;
uint16_t pim_cli_done_recv_count = 0;
uint32_t pim_wrlock_count = 0;
uint32_t pim_debug_flag = 0;
FILE *pim_debug_fp = nullptr;
char pim_debug_buffer[PIM_DEBUG_BUFFER_SIZE] = {};
char pim_dfilter_vrf_name[VRF_NAME_MAX + 1] = {};

pim_cibtype *pim_get_first_cib_by_name(pim_cib_iterator *iterator) {
  iterator->vrf_name[0] = '\0';  // sorts before every name
  return pim_get_next_cib_by_name(iterator);
}

pim_cibtype *pim_get_next_cib_by_name(pim_cib_iterator *iterator) {
  void *next = nullptr;
  if (ref::Context *last = ref::context_of(iterator->vrf_name); last == nullptr)
    next = ref::context_behind(iterator->vrf_name);
  else if (const void *node = ravl_get_next_node(&pim_contexts_by_name, &last->cib.by_name); node != nullptr)
    next = static_cast<const ravl_node *>(node)->user_data;
  if (next == nullptr) return nullptr;
  auto *pcib = static_cast<pim_cibtype *>(next);
  std::memcpy(iterator->vrf_name, pcib->vrf_name, sizeof iterator->vrf_name);
  return pcib;
}

pim_cibtype *pim_get_cib_by_context_name(const char *vrf_name) { return ref::pim_find(vrf_name); }

pim_cibtype *pim_get_cib_by_context_id(vrf_context_id_t context_id) {
  const auto found = ref::process.by_id.find(context_id);
  return found == ref::process.by_id.end() ? nullptr : &found->second->cib;
}

pim_cibtype *pim_create_context(const char *vrf_name) {
  if (pim_cibtype *pcib = ref::pim_find(vrf_name)) return pcib;
  ref::Context *context = ref::make_context(vrf_name);
  return context == nullptr ? nullptr : &context->cib;
}

int pim_is_pcib_usable(const pim_cibtype *pcib) {
  const ref::Context *context = ref::context_of(pcib->vrf_name);
  return context != nullptr && context->usable ? 1 : 0;
}

int pim_check_feature_configured(const char *feature) {
  return std::strcmp(feature, "mvpn") == 0 && pim_mvpn_feature_configured != 0 ? 1 : 0;
}

int pim_enable(uint32_t, pim_cibtype *pcib, im_iod_t iod, uint32_t) {
  const ref::Interface *interface = ref::find_interface(iod);
  if (pcib == nullptr || interface == nullptr) return 0;
  auto &interfaces = ref::process.interfaces;
  if (iod >= interfaces.size()) interfaces.resize(iod + size_t{1});
  std::unique_ptr<pim_iftype> &record = interfaces[iod];
  if (record == nullptr) record = std::make_unique<pim_iftype>();
  if (record->if_index != interface->if_index || record->pim_enabled == 0) {
    ref::stop_hellos(*record);
    *record = pim_iftype{};
    record->iod = iod;
    record->if_index = interface->if_index;
    record->local_addr = ip_get_local_addr(iod);
    record->hello_interval = ref::default_hello_interval;
    int adjusted = 0;
    record->hello_holdtime = pim_calculate_holdtime(record->hello_interval, &adjusted);
    record->jp_interval = record->configured_jp_interval = ref::default_jp_interval;
    record->mtu = interface->mtu;
  }
  record->pcib = pcib;
  record->pim_enabled = 1;
  ref::start_hellos(*record);
  return 1;
}

int pim_disable(uint32_t, pim_cibtype *, pim_iftype *, im_iod_t iod, uint32_t, uint32_t, uint32_t) {
  pim_iftype *record = ref::record_of(iod);
  if (record == nullptr || record->pim_enabled == 0) return 0;
  record->pim_enabled = 0;
  ref::stop_hellos(*record);
  return 1;
}

int pim_is_enabled(im_iod_t iod) {
  const pim_iftype *record = pim_get_iftype(iod);
  return record != nullptr && record->pim_enabled != 0 ? 1 : 0;
}

pim_iftype *pim_get_iftype(im_iod_t iod) {
  pim_iftype *record = ref::record_of(iod);
  const ref::Interface *interface = ref::find_interface(iod);
  // An ordinal that now names another interface is not the one that ran PIM.
  const bool reused = record != nullptr && interface != nullptr && interface->if_index != record->if_index;
  return reused ? nullptr : record;
}

uint32_t pim_calculate_holdtime(uint32_t hello_interval, int *adjusted) {
  const uint64_t milliseconds = uint64_t{hello_interval} * 7 / 2;
  const bool exact = uint64_t{hello_interval} * 7 % 2000 == 0;
  if (adjusted != nullptr) *adjusted = exact ? 0 : 1;
  return static_cast<uint32_t>(milliseconds / 1000 + (exact ? 0 : 1));
}

void pim_send_periodic_hello(pim_iftype *interface) {
  if (interface == nullptr || interface->pim_enabled == 0) return;
  ref::process.counters.hellos_sent++;
  active_timer_start(interface->hello_timer, std::max(1u, interface->hello_interval / 1000), 0, 0, 0);
}

void pim_setup_encap_for_pending_routes(pim_cibtype *pcib) {
  ref::process.counters.encap_setups++;
  ref::croute_attach_tunnel(pcib);
}

void pim_delete_oif_from_all_routes(pim_cibtype *pcib, im_iod_t iod, uint32_t) {
  ref::process.counters.oif_removals++;
  ref::croute_detach_oif(pcib, iod);
}

int pim_is_ssm_group(vrf_context_id_t, ip_addr_t group) { return ref::in_ranges(ref::process.ssm, group) ? 1 : 0; }
int pim_is_bidir_group(vrf_context_id_t, ip_addr_t group) { return ref::in_ranges(ref::process.bidir, group) ? 1 : 0; }

ip_addr_t pim_get_df_winner(ip_addr_t rp, im_iod_t iif) {
  const auto found = ref::process.df_winners.find({rp, iif});
  return found == ref::process.df_winners.end() ? 0 : found->second;
}

void pim_mrib_wakeup_txlist_worker_thread() {}  // the stand-in installs at once and has no list of its own

pim_iftype *pim_snmp_get_ifindex(if_index_t if_index, uint32_t) {
  im_iod_t iod = 0;
  if (im_get_iod_frm_ifindex(if_index, &iod) != 0) return nullptr;
  pim_iftype *record = ref::record_of(iod);
  return record != nullptr && record->if_index == if_index && ref::is_listed(*record) ? record : nullptr;
}

pim_iftype *pim_snmp_get_next_ifindex(if_index_t if_index) {
  pim_iftype *next = nullptr;
  for (const auto &record : ref::process.interfaces)
    if (record != nullptr && record->if_index > if_index && ref::is_listed(*record) &&
        (next == nullptr || record->if_index < next->if_index))
      next = record.get();
  return next;
}

pim_iftype *pim_get_next_interface(pim_cibtype *pcib, pim_iftype *previous) {
  const auto &all = ref::process.interfaces;
  for (size_t iod = previous == nullptr ? 0 : previous->iod + size_t{1}; iod < all.size(); iod++)
    if (all[iod] != nullptr && all[iod]->pcib == pcib && ref::is_listed(*all[iod])) return all[iod].get();
  return nullptr;
}

}  // extern "C"
