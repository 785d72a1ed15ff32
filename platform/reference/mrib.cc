// Multicast RIB: routes of the core and of the customer VRFs, encapsulations, and the dealings with its one client, the
// module.
//
// A route is held by the client, who installs it with 92-byte entries, or by somebody else (a receiver in the core, the
// host's customer routes), or by both; it goes when nobody holds it. Several of the client's VRFs may own one route, each
// with its own tunnel; what counts is what the latest of them installed, and when that one goes what another did. The
// first entry of a deletion takes one owner away, the second one, which names no owner, drops the client's hold when no
// owner is left. Each VRF's groups keep their routes in a tree by source, as clients walk them.
//
// An accepted update is acknowledged from the main loop. Registrations are numbered, so that an acknowledgement cannot
// reach a client that registered again meanwhile and counts its transactions anew.
#include "platform/mrib.h"

#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <tuple>

#include "platform/ip.h"
#include "platform/pim.h"
#include "platform/reference/forwarding_plane.h"
#include "platform/reference/internal.h"
#include "platform/reference/services.h"
#include "platform/reference/text.h"
#include "platform/reference/wire.h"

struct mrib_client_handle {
  uint64_t registration;  // 0: not registered
};

struct mrib_context {
  struct Group : mrib_group {
    size_t routes = 0;  // of every source length; the tree has the (*,G) route and those for single sources
  };
  std::map<std::pair<ip_addr_t, uint32_t>, Group> groups;  // by group, group length
};

namespace ref {
namespace {

struct RouteKey {
  vrf_context_id_t context_id;
  ip_addr_t group, source;
  uint8_t group_len, source_len;
  auto operator<=>(const RouteKey &) const = default;
};

struct Route {
  mrib_route shown{};    // what clients read
  bool foreign = false;  // held by somebody else than the client
  im_iod_t foreign_mti = 0;
  bool installed = false;                // held by the client
  MribRoute client;                      // as it installed it
  std::map<uint32_t, MribRoute> owners;  // VRFs of the client that want it, and what they installed
  bool forwarded = false;                // a forwarding plane was told of it
};

using EncapKey = std::pair<vrf_context_id_t, uint16_t>;

struct State {
  std::map<RouteKey, std::unique_ptr<Route>> routes;
  std::map<vrf_context_id_t, std::unique_ptr<mrib_context>> contexts;
  std::map<EncapKey, MribEncap> encaps;
  std::set<vrf_context_id_t> initializing;
  std::vector<MribUpdate> updates;
  uint64_t updates_total = 0;
  uint32_t last_acked_xid = 0;
  bool acks = true;
  std::vector<std::pair<uint64_t, uint32_t>> held_acks;  // registration, xid
  uint32_t refuse_updates = 0, refuse_encaps = 0;
};
State state;
mrib_client_handle client{0};
mrib_client_handle host_client{0};
uint64_t registrations = 0;
uint32_t readers = 0;

RouteKey key_of(vrf_context_id_t context_id, const mvpn_mdt_route_addrs &addrs) {
  const bool any = addrs.source_len == MROUTE_ANY_SOURCE_LEN;
  return {context_id, addrs.group, any ? 0 : addrs.source, addrs.group_len, addrs.source_len};
}

bool is_star_g(const RouteKey &key) { return key.source_len == MROUTE_ANY_SOURCE_LEN; }

mvpn_mdt_route_addrs addrs_of(const RouteKey &key) {
  mvpn_mdt_route_addrs addrs{};
  addrs.source = key.source;
  addrs.group = key.group;
  addrs.source_len = key.source_len;
  addrs.group_len = key.group_len;
  return addrs;
}

bool is_route(const mvpn_mdt_route_addrs &addrs) {
  return addrs.group_len <= MROUTE_HOST_LEN &&
         (addrs.source_len == MROUTE_ANY_SOURCE_LEN || (addrs.source != 0 && addrs.source_len <= MROUTE_HOST_LEN));
}

// ----------------------------------------------------------------------------------------------------------- routes

struct TreeKey {
  explicit TreeKey(ip_addr_t source) { wire::store_be32(bytes, source); }
  uint8_t bytes[4];
};
constexpr uint32_t tree_key_bits = 32;

pt_attr *tree_attributes() { return pt_attr_create(0, 1, sizeof(TreeKey)); }

// Whether clients meet the route when they walk its group.
bool is_walked(const RouteKey &key) { return is_star_g(key) || key.source_len == MROUTE_HOST_LEN; }

void link(const RouteKey &key, Route &route) {
  std::unique_ptr<mrib_context> &context = state.contexts[key.context_id];
  if (context == nullptr) context = std::make_unique<mrib_context>();
  mrib_context::Group &group = context->groups[{key.group, key.group_len}];
  group.routes++;
  if (is_star_g(key)) group.star_g = &route.shown;
  if (is_walked(key))
    pt_add(tree_attributes(), &group.sources, sizeof(TreeKey), TreeKey(key.source).bytes, tree_key_bits, &route.shown);
}

void unlink(const RouteKey &key) {
  const auto context = state.contexts.find(key.context_id);
  auto &groups = context->second->groups;
  const auto group = groups.find({key.group, key.group_len});
  if (is_star_g(key)) group->second.star_g = nullptr;
  if (is_walked(key)) pt_delete(tree_attributes(), &group->second.sources, TreeKey(key.source).bytes, tree_key_bits);
  if (--group->second.routes == 0) groups.erase(group);
  if (groups.empty()) state.contexts.erase(context);
}

Route *find_route(const RouteKey &key) {
  const auto found = state.routes.find(key);
  return found == state.routes.end() ? nullptr : found->second.get();
}

Route &route_at(const RouteKey &key) {
  std::unique_ptr<Route> &route = state.routes[key];
  if (route == nullptr) {
    route = std::make_unique<Route>();
    route->shown.addrs = addrs_of(key);
    link(key, *route);
  }
  return *route;
}

void tell_plane(Route &route) {
  ForwardingPlane *plane = forwarding_plane();
  if (plane == nullptr || (!route.installed && !route.forwarded)) return;
  plane->core_route_changed(route.client, route.installed);
  route.forwarded = route.installed;
}

// Brings what clients and the forwarding plane see up to date, or drops a route that nobody holds.
void settle_route(const RouteKey &key) {
  const auto found = state.routes.find(key);
  Route &route = *found->second;
  tell_plane(route);
  if (route.installed || route.foreign) {
    route.shown.mti_iod = route.installed && route.client.mti_iod != 0 ? route.client.mti_iod : route.foreign_mti;
    return;
  }
  unlink(key);
  state.routes.erase(found);
}

template <typename Matches>
void erase_encaps(Matches matches) {
  std::erase_if(state.encaps, [&matches](const auto &item) {
    if (!matches(item.first)) return false;
    if (ForwardingPlane *plane = forwarding_plane()) plane->encap_changed(item.second, false);
    return true;
  });
}

void drop_installed() {
  std::vector<RouteKey> keys;
  for (const auto &[key, route] : state.routes)
    if (route->installed) keys.push_back(key);
  for (const RouteKey &key : keys) {
    Route &route = *state.routes.at(key);
    route.installed = false;
    route.owners.clear();
    settle_route(key);
  }
  erase_encaps([](const EncapKey &) { return true; });
}

// ---------------------------------------------------------------------------------------------------------- updates

MribRoute decode_entry(const uint8_t *entry, uint32_t xid) {
  MribRoute route;
  route.context_id = wire::load_host<uint32_t>(entry + MRIB_ENTRY_CONTEXT_ID);
  route.addrs.source = wire::load_host<uint32_t>(entry + MRIB_ENTRY_SOURCE);
  route.addrs.group = wire::load_host<uint32_t>(entry + MRIB_ENTRY_GROUP);
  route.addrs.source_len = entry[MRIB_ENTRY_SOURCE_LEN];
  route.addrs.group_len = entry[MRIB_ENTRY_GROUP_LEN];
  route.owner = wire::load_host<uint32_t>(entry + MRIB_ENTRY_OWNER);
  route.mdt_source_iod = wire::load_host<uint32_t>(entry + MRIB_ENTRY_MDT_SOURCE_IOD);
  if (entry[MRIB_ENTRY_MTI_IOD_SET] != 0) route.mti_iod = wire::load_host<uint32_t>(entry + MRIB_ENTRY_MTI_IOD);
  if (wire::load_host<uint32_t>(entry + MRIB_ENTRY_RPF_ADDR_SET) != 0)
    route.rpf_addr = wire::load_host<uint32_t>(entry + MRIB_ENTRY_RPF_ADDR);
  route.local = entry[MRIB_ENTRY_LOCAL] != 0;
  route.last_hop = entry[MRIB_ENTRY_LAST_HOP] != 0;
  route.asm_shared_tree = entry[MRIB_ENTRY_ASM_SHARED_TREE] != 0;
  route.entry.assign(entry, entry + MRIB_UPDATE_ENTRY_SIZE);
  route.xid = xid;
  return route;
}

void install(const RouteKey &key, MribRoute decoded) {
  Route &route = route_at(key);
  route.installed = true;
  route.owners[decoded.owner] = decoded;
  route.client = std::move(decoded);
  settle_route(key);
}

void uninstall(const RouteKey &key, uint32_t owner) {
  Route *route = find_route(key);
  if (route == nullptr || !route->installed) return;
  if (owner != 0) {
    route->owners.erase(owner);
    if (route->client.owner == owner && !route->owners.empty()) route->client = route->owners.begin()->second;
  } else if (route->owners.empty()) {
    route->installed = false;
  }
  settle_route(key);
}

void apply_entry(const uint8_t *entry, uint32_t xid) {
  MribRoute decoded = decode_entry(entry, xid);
  if (!is_route(decoded.addrs)) return;
  const RouteKey key = key_of(decoded.context_id, decoded.addrs);
  if (entry[MRIB_ENTRY_ADD] != 0)
    install(key, std::move(decoded));
  else
    uninstall(key, decoded.owner);
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
  for (const auto &[key, route] : state.routes) unlink(key);
  state = State{};
  client.registration = 0;
  readers = 0;
}

void mrib_hold_route(vrf_context_id_t context_id, const mvpn_mdt_route_addrs &addrs, im_iod_t mti_iod) {
  const RouteKey key = key_of(context_id, addrs);
  Route &route = route_at(key);
  route.foreign = true;
  route.foreign_mti = mti_iod;
  settle_route(key);
}

void mrib_release_route(vrf_context_id_t context_id, const mvpn_mdt_route_addrs &addrs) {
  const RouteKey key = key_of(context_id, addrs);
  Route *route = find_route(key);
  if (route == nullptr) return;
  route->foreign = false;
  route->foreign_mti = 0;
  settle_route(key);
}

void mrib_drop_context(vrf_context_id_t context_id) {
  std::vector<RouteKey> keys;
  for (const auto &[key, route] : state.routes)
    if (key.context_id == context_id) keys.push_back(key);
  for (const RouteKey &key : keys) {
    state.routes.at(key)->foreign = state.routes.at(key)->installed = false;
    settle_route(key);
  }
  erase_encaps([context_id](const EncapKey &key) { return key.first == context_id; });
  state.initializing.erase(context_id);
}

void mrib_tell_plane() {
  for (const auto &[key, route] : state.routes) tell_plane(*route);
  if (ForwardingPlane *plane = forwarding_plane())
    for (const auto &[key, encap] : state.encaps) plane->encap_changed(encap, true);
}

std::vector<MribRoute> mrib_routes() {
  std::vector<MribRoute> all;
  for (const auto &[key, route] : state.routes)
    if (route->installed) all.push_back(route->client);
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
  const Route *route = find_route(key_of(context_id, addrs));
  if (route == nullptr || !route->foreign) return false;
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
  for (uint32_t i = 0; i < count; i++) ref::apply_entry(entries + size_t{i} * MRIB_UPDATE_ENTRY_SIZE, xid);
  ref::state.updates_total++;
  ref::remember(ref::state.updates, {xid, count, std::vector<uint8_t>(entries, end)});
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
  ref::erase_encaps([&encap](const ref::EncapKey &key) {
    return key.first == encap.context_id && (encap.index == 0 || key.second == encap.index);
  });
  return 1;
}

void mrib_trigger_rpf_lookup(mrib_client_handle *, const mrib_rpf_request *request) {
  ref::pim_count().rpf_lookups++;
  ref::post([context_id = request->context_id] { ref::croute_recompute_rpf(context_id); });
}

// The customer routes with receivers, and the sources that others have joined in the core.
void mrib_trigger_join_notify(mrib_client_handle *) {
  ref::pim_count().join_triggers++;
  ref::post([] {
    std::vector<std::vector<uint8_t>> entries;
    for (const auto &[key, route] : ref::state.routes)
      if (route->foreign && key.context_id == VRF_CONTEXT_ID_DEFAULT && !ref::is_star_g(key))
        entries.push_back(ref::notify_entry(key.context_id, route->shown.addrs, MRIB_NOTIFY_JOIN));
    ref::post_notification(entries);
    ref::croute_notify_joins();
  });
}

void mrib_acquire_rdlock() { ref::readers++; }
void mrib_release_rdlock() {
  if (ref::readers > 0) ref::readers--;
}

const mrib_route *mrib_get_route_by_addr(vrf_context_id_t context_id, const mvpn_mdt_route_addrs *addrs) {
  const ref::Route *route = ref::find_route(ref::key_of(context_id, *addrs));
  return route == nullptr ? nullptr : &route->shown;
}

mrib_context *mrib_get_context_by_context_id(vrf_context_id_t context_id) {
  const auto found = ref::state.contexts.find(context_id);
  return found == ref::state.contexts.end() ? nullptr : found->second.get();
}

const mrib_group *mrib_get_group(mrib_context *context, ip_addr_t group, uint32_t group_len) {
  if (context == nullptr) return nullptr;
  const auto found = context->groups.find({group, group_len});
  return found == context->groups.end() ? nullptr : &found->second;
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
