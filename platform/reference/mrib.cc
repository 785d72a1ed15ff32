// Multicast RIB: routes of the core and of the customer VRFs, encapsulations, and the dealings with its one client, the
// module.
//
// The client installs a route with a 92-byte entry for each of its owners. The first entry of a deletion takes one
// owner away, the second one, which names no owner, drops the client's hold when no owner is left. mrib_routes.h tells
// who else holds routes. What clients read is made from the records when they ask: a group is shown as a tree of its
// routes by source, which stays until some route changes.
//
// An accepted update is acknowledged from the main loop. Registrations are numbered, so that an acknowledgement cannot
// reach a client that registered again meanwhile and counts its transactions anew.
#include "platform/mrib.h"

#include <array>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <tuple>

#include "platform/ip.h"
#include "platform/pim.h"
#include "platform/reference/forwarding_plane.h"
#include "platform/reference/internal.h"
#include "platform/reference/module.h"
#include "platform/reference/mrib.h"
#include "platform/reference/mrib_routes.h"
#include "platform/reference/observer.h"
#include "platform/reference/runtime.h"
#include "platform/reference/services.h"
#include "platform/reference/testing/services.h"
#include "platform/reference/text.h"
#include "platform/reference/wire.h"

struct mrib_client_handle {
  uint64_t registration;  // 0: not registered
};

namespace ref {
namespace {

using EncapKey = std::pair<vrf_context_id_t, uint16_t>;

struct TreeKey {
  explicit TreeKey(ip_addr_t source) { wire::store_be32(bytes, source); }
  uint8_t bytes[4];
};
constexpr uint32_t tree_key_bits = 32;

pt_attr *tree_attributes() { return pt_attr_create(0, 1, sizeof(TreeKey)); }

// A group as clients see it.
struct ShownGroup : mrib_group {
  ShownGroup() : mrib_group{} {}
  ~ShownGroup() {
    for (const mrib_route &route : routes)
      pt_delete(tree_attributes(), &sources, TreeKey(route.addrs.source).bytes, tree_key_bits);
  }
  ShownGroup(const ShownGroup &) = delete;
  ShownGroup &operator=(const ShownGroup &) = delete;

  void add(const mrib_route &route) {
    routes.push_back(route);
    mrib_route &kept = routes.back();
    if (kept.addrs.source_len == MROUTE_ANY_SOURCE_LEN) star_g = &kept;
    pt_add(tree_attributes(), &sources, sizeof(TreeKey), TreeKey(kept.addrs.source).bytes, tree_key_bits, &kept);
  }
  std::deque<mrib_route> routes;  // those that the tree has: the (*,G) route and those of single sources
};

using GroupKey = std::tuple<vrf_context_id_t, ip_addr_t, uint32_t>;  // context, group, group length

struct State {
  MribRoutes routes;
  std::map<GroupKey, ShownGroup> shown;
  std::map<EncapKey, MribEncap> encaps;
  std::set<vrf_context_id_t> initializing;
  std::vector<MribUpdate> updates;
  uint64_t updates_total = 0;
  uint32_t last_acked_xid = 0;
  bool acks = true;
  std::vector<std::pair<uint64_t, uint32_t>> held_acks;  // registration, xid
  uint32_t refuse_updates = 0, refuse_encaps = 0;
  std::shared_ptr<std::vector<vrf_context_id_t>> rpf_batch;  // VRFs of the latest request; null: it has run
  uint64_t rpf_place = 0;                                    // posts() when it was queued
};
State state;
mrib_client_handle client{0};
mrib_client_handle host_client{0};
uint64_t registrations = 0;
uint32_t readers = 0;

bool is_route(const mvpn_mdt_route_addrs &addrs) {
  return addrs.group_len <= MROUTE_HOST_LEN &&
         (addrs.source_len == MROUTE_ANY_SOURCE_LEN || (addrs.source != 0 && addrs.source_len <= MROUTE_HOST_LEN));
}

// ----------------------------------------------------------------------------------------------------------- routes

using Id = MribRoutes::Id;
using Record = MribRoutes::Record;

void tell_plane(Id id) {
  Record &route = state.routes[id];
  if (!route.installed && !route.forwarded) return;
  if (ForwardingPlane *plane = forwarding_plane())
    plane->core_route_changed(mrib_route_of(route.key(), state.routes.installed(id)), route.installed);
  if (observer() != nullptr && route.installed != route.forwarded)
    if (const MribTerms terms = state.routes.installed(id).terms; !terms.local)
      observer()->core_route_joined(terms.owner, route.source, route.group, route.installed);
  route.forwarded = route.installed;
}

// Brings what clients and the forwarding plane see up to date, and drops a route that nobody holds.
void settle_route(Id id) {
  state.shown.clear();
  tell_plane(id);
  state.routes.settle(id);
}

// Fills in what clients read; the rest of the route stays 0.
void show_route(Id id, mrib_route &to) {
  to.addrs = addrs_of(state.routes[id].key());
  to.mti_iod = state.routes.mti_of(id);
}

void erase_encaps(const EncapKey &first, const EncapKey &last) {
  auto next = state.encaps.lower_bound(first);
  while (next != state.encaps.end() && next->first <= last) {
    if (ForwardingPlane *plane = forwarding_plane()) plane->encap_changed(next->second, false);
    next = state.encaps.erase(next);
  }
}

void erase_encaps_of(vrf_context_id_t context_id) { erase_encaps({context_id, 0}, {context_id, UINT16_MAX}); }

void drop_installed() {
  for (const Id id : state.routes.sorted([](const Record &route) { return route.installed; })) {
    state.routes.forget_client(id);
    settle_route(id);
  }
  erase_encaps({0, 0}, {UINT32_MAX, UINT16_MAX});
}

// ---------------------------------------------------------------------------------------------------------- updates

MribKey decode_key(const uint8_t *entry) {
  mvpn_mdt_route_addrs addrs{};
  addrs.source = wire::load_host<uint32_t>(entry + MRIB_ENTRY_SOURCE);
  addrs.group = wire::load_host<uint32_t>(entry + MRIB_ENTRY_GROUP);
  addrs.source_len = entry[MRIB_ENTRY_SOURCE_LEN];
  addrs.group_len = entry[MRIB_ENTRY_GROUP_LEN];
  return mrib_key(wire::load_host<uint32_t>(entry + MRIB_ENTRY_CONTEXT_ID), addrs);
}

MribInstalled decode_installed(const MribKey &key, const uint8_t *entry, uint32_t xid) {
  MribTerms terms;
  terms.owner = wire::load_host<uint32_t>(entry + MRIB_ENTRY_OWNER);
  terms.mdt_source_iod = wire::load_host<uint32_t>(entry + MRIB_ENTRY_MDT_SOURCE_IOD);
  terms.mti_given = entry[MRIB_ENTRY_MTI_IOD_SET] != 0;
  if (terms.mti_given) terms.mti_iod = wire::load_host<uint32_t>(entry + MRIB_ENTRY_MTI_IOD);
  if (wire::load_host<uint32_t>(entry + MRIB_ENTRY_RPF_ADDR_SET) != 0)
    terms.rpf_addr = wire::load_host<uint32_t>(entry + MRIB_ENTRY_RPF_ADDR);
  terms.rpf_is_source = terms.rpf_addr != 0 && terms.rpf_addr == key.source;
  if (terms.rpf_is_source) terms.rpf_addr = 0;
  terms.local = entry[MRIB_ENTRY_LOCAL] != 0;
  terms.last_hop = entry[MRIB_ENTRY_LAST_HOP] != 0;
  terms.asm_shared_tree = entry[MRIB_ENTRY_ASM_SHARED_TREE] != 0;
  terms.teardown = entry[MRIB_ENTRY_TEARDOWN] != 0;
  return {terms, xid};
}

void apply_entry(const uint8_t *entry, uint32_t xid) {
  const MribKey key = decode_key(entry);
  if (!is_route(addrs_of(key))) return;
  if (entry[MRIB_ENTRY_ADD] != 0) {
    const Id id = state.routes.make(key);
    state.routes.install(id, decode_installed(key, entry, xid));
    settle_route(id);
  } else if (const Id id = state.routes.find(key); id != 0 && state.routes[id].installed) {
    state.routes.uninstall(id, wire::load_host<uint32_t>(entry + MRIB_ENTRY_OWNER));
    settle_route(id);
  }
}

void post_ack(uint64_t registration, uint32_t xid) {
  post([registration, xid] {
    if (registration != client.registration) return;
    uint8_t message[MRIB_ACK_SIZE] = {};
    wire::store_host(message + MRIB_ACK_XID_OFFSET, xid);
    state.last_acked_xid = xid;
    if (module().update_route_ack != nullptr) module().update_route_ack(message);
  });
}

void acknowledge(uint32_t xid) {
  if (state.acks)
    post_ack(client.registration, xid);
  else
    state.held_acks.emplace_back(client.registration, xid);
}

bool take_refusal(uint32_t &left) { return left > 0 && left-- > 0; }

// What is asked for with nothing else queued in between is one piece of work: a client asks for each of many routes.
void recompute_rpf_soon(vrf_context_id_t context_id) {
  if (state.rpf_batch != nullptr && state.rpf_place == posts()) {
    if (state.rpf_batch->back() != context_id) state.rpf_batch->push_back(context_id);
    return;
  }
  state.rpf_batch = std::make_shared<std::vector<vrf_context_id_t>>(1, context_id);
  post([batch = state.rpf_batch] {
    if (state.rpf_batch == batch) state.rpf_batch = nullptr;
    for (const vrf_context_id_t context : *batch) croute_recompute_rpf(context);
  });
  state.rpf_place = posts();
}

mrib_client_handle *register_client(const char *name) {
  if (std::strcmp(name, MRIB_CLIENT_NAME) != 0) return nullptr;
  client.registration = ++registrations;
  return &client;
}

// ---------------------------------------------------------------------------------------------------- notifications

std::vector<uint8_t> notify_entry(vrf_context_id_t context_id, const mvpn_mdt_route_addrs &addrs, uint8_t event) {
  std::vector<uint8_t> entry(MRIB_NOTIFY_ENTRY_SIZE);
  wire::store_host(&entry[MRIB_NOTIFY_ENTRY_CONTEXT_ID], context_id);
  entry[MRIB_NOTIFY_ENTRY_EVENT] = event;
  wire::store_host(&entry[MRIB_NOTIFY_ENTRY_SOURCE], addrs.source);
  wire::store_host(&entry[MRIB_NOTIFY_ENTRY_GROUP], addrs.group);
  entry[MRIB_NOTIFY_ENTRY_SOURCE_LEN] = addrs.source_len;
  entry[MRIB_NOTIFY_ENTRY_GROUP_LEN] = addrs.group_len;
  return entry;
}

void post_notification(const std::vector<std::vector<uint8_t>> &entries) {
  if (entries.empty()) return;
  std::vector<uint8_t> message(MRIB_NOTIFY_ENTRIES_OFFSET);
  wire::store_host(&message[MRIB_NOTIFY_COUNT_OFFSET], static_cast<uint32_t>(entries.size()));
  for (const std::vector<uint8_t> &entry : entries) message.insert(message.end(), entry.begin(), entry.end());
  post([message = std::move(message)] {
    if (client.registration != 0 && module().mdt_notify != nullptr) module().mdt_notify(message.data());
  });
}

}  // namespace

mrib_client_handle *mrib_host_client() { return &host_client; }

void mrib_reset() {
  state = State{};
  client.registration = 0;
  readers = 0;
}

void mrib_hold_route(vrf_context_id_t context_id, const mvpn_mdt_route_addrs &addrs, im_iod_t mti_iod) {
  const Id id = state.routes.make(mrib_key(context_id, addrs));
  state.routes.hold(id, mti_iod);
  settle_route(id);
}

void mrib_release_route(vrf_context_id_t context_id, const mvpn_mdt_route_addrs &addrs) {
  const Id id = state.routes.find(mrib_key(context_id, addrs));
  if (id == 0) return;
  state.routes.release(id);
  settle_route(id);
}

void mrib_drop_context(vrf_context_id_t context_id) {
  if (state.routes.context(context_id) != nullptr)
    for (const Id id : state.routes.sorted([=](const Record &route) { return route.context_id == context_id; })) {
      state.routes.forget_client(id);
      state.routes.release(id);
      settle_route(id);
    }
  erase_encaps_of(context_id);
  state.initializing.erase(context_id);
}

void mrib_tell_plane() {
  for (const Id id : state.routes.sorted([](const Record &) { return true; })) tell_plane(id);
  if (ForwardingPlane *plane = forwarding_plane())
    for (const auto &[key, encap] : state.encaps) plane->encap_changed(encap, true);
}

std::vector<MribRoute> mrib_routes() {
  std::vector<MribRoute> all;
  for (const Id id : state.routes.sorted([](const Record &route) { return route.installed; }))
    all.push_back(mrib_route_of(state.routes[id].key(), state.routes.installed(id)));
  return all;
}

std::vector<MribEncap> mrib_encaps() {
  std::vector<MribEncap> all;
  for (const auto &[key, encap] : state.encaps) all.push_back(encap);
  return all;
}

const std::vector<MribUpdate> &mrib_updates() { return state.updates; }
void clear_mrib_updates() { state.updates.clear(); }
uint32_t mrib_last_acked_xid() { return state.last_acked_xid; }
uint64_t mrib_updates_total() { return state.updates_total; }

void set_mrib_acks(bool on) {
  state.acks = on;
  if (!on) return;
  for (const auto &[registration, xid] : state.held_acks) post_ack(registration, xid);
  state.held_acks.clear();
}

void mrib_refuse_updates(uint32_t n) { state.refuse_updates = n; }
void mrib_refuse_encaps(uint32_t n) { state.refuse_encaps = n; }

void mrib_add_route(vrf_context_id_t context_id, const mvpn_mdt_route_addrs &addrs, im_iod_t mti_iod) {
  if (!is_route(addrs)) return;
  mrib_hold_route(context_id, addrs, mti_iod);
  mrib_notify_join(context_id, addrs);
}

bool mrib_delete_route(vrf_context_id_t context_id, const mvpn_mdt_route_addrs &addrs) {
  const Id id = state.routes.find(mrib_key(context_id, addrs));
  if (id == 0 || !state.routes[id].foreign) return false;
  mrib_release_route(context_id, addrs);
  mrib_notify_delete(context_id, addrs);
  return true;
}

void mrib_notify_join(vrf_context_id_t context_id, const mvpn_mdt_route_addrs &addrs) {
  post_notification({notify_entry(context_id, addrs, MRIB_NOTIFY_JOIN)});
}

void mrib_notify_delete(vrf_context_id_t context_id, const mvpn_mdt_route_addrs &addrs) {
  post_notification({notify_entry(context_id, addrs, MRIB_NOTIFY_DELETE)});
}

void mrib_notify_clear(vrf_context_id_t context_id, const mvpn_mdt_route_addrs &addrs, bool sg_only, bool star_g_only) {
  std::vector<uint8_t> entry = notify_entry(context_id, addrs, MRIB_NOTIFY_CLEAR);
  entry[MRIB_NOTIFY_ENTRY_ONLY_SOURCE] = sg_only ? 1 : 0;
  entry[MRIB_NOTIFY_ENTRY_ONLY_SHARED] = star_g_only ? 1 : 0;
  post([context_id, entry = std::move(entry)] {
    pim_cibtype *pcib = pim_get_cib_by_context_id(context_id);
    if (pcib != nullptr && module().clear_route_notify != nullptr) module().clear_route_notify(pcib, entry.data(), 1);
  });
}

void mrib_request_repopulate(vrf_context_id_t context_id, const mvpn_mdt_route_addrs *filter, uint32_t route_type) {
  std::optional<mvpn_mdt_route_addrs> kept;
  if (filter != nullptr) kept = *filter;
  post([context_id, kept, route_type] {
    if (module().repopulate != nullptr) module().repopulate(context_id, kept ? &*kept : nullptr, route_type);
  });
}

void set_mrib_initializing(vrf_context_id_t context_id, bool initializing) {
  if (initializing)
    state.initializing.insert(context_id);
  else
    state.initializing.erase(context_id);
}

}  // namespace ref

extern "C" {

mrib_client_handle *mrib_register(const char *name, mts_queue *, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t,
                                  uint32_t) {
  return ref::register_client(name);
}

mrib_client_handle *mrib_reregister(const char *name, mts_queue *, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t) {
  return ref::register_client(name);
}

mrib_client_handle *mrib_get_pib(const char *name) {
  const bool known = std::strcmp(name, MRIB_CLIENT_NAME) == 0 && ref::client.registration != 0;
  return known ? &ref::client : nullptr;
}

int mrib_deregister(const char *name, uint32_t) {
  if (mrib_get_pib(name) == nullptr) return 0;
  ref::client.registration = 0;
  ref::drop_installed();
  return 1;
}

int mrib_mts_update_route(mrib_client_handle *client, uint32_t operation, void *buffer, uint32_t length, uint32_t count,
                          uint32_t xid, uint32_t) {
  const uint64_t expected = MRIB_UPDATE_HEADER_SIZE + uint64_t{count} * MRIB_UPDATE_ENTRY_SIZE;
  if (client == nullptr || client->registration == 0 || operation != 1 || length != expected) return 1;
  if (ref::take_refusal(ref::state.refuse_updates)) return 1;
  auto *bytes = static_cast<uint8_t *>(buffer);
  ref::wire::store_host(bytes + MRIB_UPDATE_LENGTH, length);
  ref::wire::store_host(bytes + MRIB_UPDATE_COUNT, count);
  ref::wire::store_host(bytes + MRIB_UPDATE_XID, xid);
  const uint8_t *entries = bytes + MRIB_UPDATE_HEADER_SIZE, *end = bytes + length;
  const auto entry = [entries](size_t i) { return entries + i * MRIB_UPDATE_ENTRY_SIZE; };
  ref::state.routes.expect(count, [&entry](size_t i) { return ref::decode_key(entry(i)); });
  for (uint32_t i = 0; i < count; i++) ref::apply_entry(entry(i), xid);
  ref::state.updates_total++;
  if (ref::records_are_kept()) ref::remember(ref::state.updates, {xid, count, std::vector<uint8_t>(entries, end)});
  ref::acknowledge(xid);
  return 0;
}

int mrib_update_mdt_encap_info(mrib_client_handle *client, const void *record, uint32_t operation, uint32_t, uint32_t) {
  if (client == nullptr || client->registration == 0 || operation != 1) return 0;
  if (ref::take_refusal(ref::state.refuse_encaps)) return 0;
  const auto *bytes = static_cast<const uint8_t *>(record);
  ref::MribEncap encap{};
  encap.context_id = ref::wire::load_host<uint32_t>(bytes + MRIB_ENCAP_CONTEXT_ID);
  encap.index = ref::wire::load_host<uint16_t>(bytes + MRIB_ENCAP_INDEX);
  encap.group = ref::wire::load_host<uint32_t>(bytes + MRIB_ENCAP_GROUP);
  encap.source = ref::wire::load_host<uint32_t>(bytes + MRIB_ENCAP_SOURCE);
  encap.mti_iod = ref::wire::load_host<uint32_t>(bytes + MRIB_ENCAP_MTI_IOD);
  encap.source_iod = ref::wire::load_host<uint32_t>(bytes + MRIB_ENCAP_SOURCE_IOD);
  if (bytes[MRIB_ENCAP_ADD] != 0) {
    ref::state.encaps[{encap.context_id, encap.index}] = encap;
    if (ref::ForwardingPlane *plane = ref::forwarding_plane()) plane->encap_changed(encap, true);
    return 1;
  }
  // Index 0 stands for all of the VRF.
  if (const ref::EncapKey key(encap.context_id, encap.index); encap.index != 0)
    ref::erase_encaps(key, key);
  else
    ref::erase_encaps_of(encap.context_id);
  return 1;
}

void mrib_trigger_rpf_lookup(mrib_client_handle *, const mrib_rpf_request *request) {
  ref::pim_count().rpf_lookups++;
  ref::recompute_rpf_soon(request->context_id);
}

// The customer routes with receivers, and the sources that others have joined in the core.
void mrib_trigger_join_notify(mrib_client_handle *) {
  ref::pim_count().join_triggers++;
  ref::post([] {
    std::vector<std::vector<uint8_t>> entries;
    const auto joined = [](const ref::Record &route) {
      return route.foreign && route.context_id == VRF_CONTEXT_ID_DEFAULT && !ref::is_star_g(route.key());
    };
    for (const ref::Id id : ref::state.routes.sorted(joined)) {
      const ref::MribKey key = ref::state.routes[id].key();
      entries.push_back(ref::notify_entry(key.context_id, ref::addrs_of(key), MRIB_NOTIFY_JOIN));
    }
    ref::post_notification(entries);
    ref::croute_notify_joins();
  });
}

void mrib_acquire_rdlock() { ref::readers++; }
void mrib_release_rdlock() {
  if (ref::readers > 0) ref::readers--;
}

// Answers are kept for as many calls as no client makes before it yields.
const mrib_route *mrib_get_route_by_addr(vrf_context_id_t context_id, const mvpn_mdt_route_addrs *addrs) {
  static std::array<mrib_route, 64> answers{};
  static size_t next = 0;
  const ref::Id id = ref::state.routes.find(ref::mrib_key(context_id, *addrs));
  if (id == 0) return nullptr;
  mrib_route &answer = answers[next++ % answers.size()];
  ref::show_route(id, answer);
  return &answer;
}

mrib_context *mrib_get_context_by_context_id(vrf_context_id_t context_id) {
  return ref::state.routes.context(context_id);
}

const mrib_group *mrib_get_group(mrib_context *context, ip_addr_t group, uint32_t group_len) {
  if (context == nullptr) return nullptr;
  const auto [shown, is_new] = ref::state.shown.try_emplace({context->context_id, group, group_len});
  if (!is_new) return &shown->second;
  const std::vector<ref::Id> ids = ref::state.routes.of_group(context->context_id, group, group_len);
  for (const ref::Id id : ids) {
    const ref::MribKey key = ref::state.routes[id].key();
    if (!ref::is_star_g(key) && key.source_len != MROUTE_HOST_LEN) continue;  // no single source
    mrib_route route{};
    ref::show_route(id, route);
    shown->second.add(route);
  }
  if (!ids.empty()) return &shown->second;
  ref::state.shown.erase(shown);
  return nullptr;
}

int mrib_context_initializing(vrf_context_id_t context_id) {
  return ref::state.initializing.contains(context_id) ? 1 : 0;
}

const char *mrib_print_addrs(const mvpn_mdt_route_addrs *addrs) {
  const std::string group = ip_print_prefix(addrs->group, addrs->group_len);
  if (addrs->source_len == MROUTE_ANY_SOURCE_LEN) return ref::keep_text("(*, " + group + ")");
  return ref::keep_text("(" + std::string(ip_print_prefix(addrs->source, addrs->source_len)) + ", " + group + ")");
}

}  // extern "C"
