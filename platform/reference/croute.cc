// Customer routes of the VRFs, their traffic, and the periodic statistics pass.
//
// A route stands in its VRF's tree under a 10-byte key, group before source, so that the routes of a group are
// neighbours. What the host set (names of interfaces, "into the MVPN") is kept beside the record; the ordinals in the
// record follow it when the VRF's tunnel comes and goes. An incoming interface named croute_tunnel_name stands for the
// VRF's tunnel, whatever its ordinal is at the time.
//
// What the module is told, always from the main loop and in this order:
//   added or changed    the MRIB holds the route from then on; join when it has receivers, prune when it has none; RPF
//                       down when a former incoming interface or neighbour is gone, RPF up when there is one; mapping
//                       onto the local source when the tunnel became an outgoing interface
//   deleted             route delete, unmapping from the local source, and only then is the record freed: until both
//                       calls have returned the module may hold a pointer to it
// Any of these calls may yield, so VRF and route are looked up again by name and address before each.
#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <memory>
#include <unordered_map>

#include "platform/im.h"
#include "platform/pim.h"
#include "platform/reference/croute.h"
#include "platform/reference/forwarding_plane.h"
#include "platform/reference/im.h"
#include "platform/reference/internal.h"
#include "platform/reference/module.h"
#include "platform/reference/observer.h"
#include "platform/reference/runtime.h"
#include "platform/reference/services.h"
#include "platform/reference/wire.h"

namespace ref {
namespace {

using std::chrono::seconds;

constexpr seconds statistics_interval{60};
constexpr seconds switchover_delay{3};              // from the pass that finds a flow to the end of its switchover
constexpr uint64_t bytes_a_minute_per_kbps = 7500;  // 60 s of 1000 bits

enum KeyOffset { key_group = 0, key_group_len = 4, key_source = 5, key_source_len = 9 };
using Key = std::array<uint8_t, PIM_ROUTE_KEY_BYTES>;
constexpr uint32_t key_bits = PIM_ROUTE_KEY_BYTES * 8;

struct Record {
  pim_route route{};
  CustomerRoute wanted;         // as the host set it
  std::vector<uint32_t> words;  // of route.oifs
  uint64_t bytes_last_minute = 0;
  bool doomed = false;  // its deletion is posted
};
using Records = std::map<Key, std::unique_ptr<Record>>;

struct Routes {
  std::map<std::string, Records, std::less<>> by_vrf;
  std::unordered_map<const pim_route *, const Record *> by_address;
  uint64_t statistics_run = 0;  // changes with every start and reset: what was scheduled before is void
};
Routes routes;

// ------------------------------------------------------------------------------------------------ keys and look-ups

bool is_any_source(const mvpn_mdt_route_addrs &addrs) { return addrs.source_len == MROUTE_ANY_SOURCE_LEN; }

Key key_of(const mvpn_mdt_route_addrs &addrs) {
  Key key{};
  const bool any = is_any_source(addrs);
  wire::store_be32(&key[key_group], addrs.group);
  key[key_group_len] = addrs.group_len;
  wire::store_be32(&key[key_source], any ? 0 : addrs.source);
  key[key_source_len] = any ? 0 : addrs.source_len;
  return key;
}

// The one form of an address: source 0 when any source is meant, padding 0. False when it is none.
bool normalise(mvpn_mdt_route_addrs &addrs) {
  if (addrs.source_len == 0) addrs.source_len = MROUTE_ANY_SOURCE_LEN;
  if (is_any_source(addrs)) addrs.source = 0;
  addrs.padding[0] = addrs.padding[1] = 0;
  return addrs.group != 0 && addrs.group_len <= MROUTE_HOST_LEN &&
         (is_any_source(addrs) || (addrs.source != 0 && addrs.source_len <= MROUTE_HOST_LEN));
}

// None is usual: most VRFs of a large router have no customer routes yet when their tunnels come up.
const Records &records_of(std::string_view vrf_name) {
  static const Records none;
  const auto vrf = routes.by_vrf.find(vrf_name);
  return vrf != routes.by_vrf.end() ? vrf->second : none;
}

Record *find_record(std::string_view vrf_name, const mvpn_mdt_route_addrs &addrs) {
  const Records &records = records_of(vrf_name);
  const auto found = records.find(key_of(addrs));
  return found == records.end() ? nullptr : found->second.get();
}

// A route that the host has not asked to delete.
Record *find_live(std::string_view vrf_name, mvpn_mdt_route_addrs addrs) {
  Record *record = normalise(addrs) ? find_record(vrf_name, addrs) : nullptr;
  return record != nullptr && !record->doomed ? record : nullptr;
}

// The forwarding plane looks at the flow again: whether it goes into the tunnel, and under which index. installed: the
// module has asked for the route to be installed again.
void tell_plane(const std::string &vrf_name, const mvpn_mdt_route_addrs &addrs, bool installed = false) {
  ForwardingPlane *plane = forwarding_plane();
  const Record *record = plane == nullptr ? nullptr : find_record(vrf_name, addrs);
  if (record == nullptr) return;
  const im_iod_t tunnel = oim_working_tunnel(vrf_name);
  plane->customer_route_changed(vrf_name, record->route, tunnel != 0 && bitfield_test(&record->route.oifs, tunnel) != 0,
                                installed);
}

// Calls `call` with VRF, address and route when both still exist.
template <typename Call>
void with_route(const std::string &vrf_name, const mvpn_mdt_route_addrs &addrs, Call call) {
  pim_cibtype *pcib = pim_find(vrf_name);
  Record *record = find_record(vrf_name, addrs);
  if (pcib != nullptr && record != nullptr) call(pcib, &addrs, &record->route);
}

// ------------------------------------------------------------------------------------------------------- interfaces

bool has_oif(const Record &record, im_iod_t iod) { return iod != 0 && bitfield_test(&record.route.oifs, iod) != 0; }

void set_oif(Record &record, im_iod_t iod) {
  if (iod / 32 >= record.words.size()) record.words.resize(iod / 32 + 1);
  record.words[iod / 32] |= 1u << iod % 32;
  record.route.oifs = {record.words.data(), static_cast<uint32_t>(record.words.size())};
}

void clear_oif(Record &record, im_iod_t iod) {
  if (iod / 32 < record.words.size()) record.words[iod / 32] &= ~(1u << iod % 32);
}

im_iod_t incoming_of(const std::string &vrf_name, const std::string &name) {
  if (name.empty()) return 0;
  return name == croute_tunnel_name ? oim_working_tunnel(vrf_name) : im_get_if_by_name(name.c_str());
}

bool interfaces_exist(const CustomerRoute &route) {
  const auto exists = [](const std::string &name) { return find_interface(std::string_view(name)) != nullptr; };
  return (route.iif.empty() || route.iif == croute_tunnel_name || exists(route.iif)) &&
         std::all_of(route.oifs.begin(), route.oifs.end(), exists);
}

void refresh_mrib(const pim_cibtype *pcib, const Record &record) {
  const im_iod_t iif = record.route.iif;
  mrib_hold_route(pcib->context_id, record.route.addrs, ksink_im_is_mvpn_tunnel(iif) != 0 ? iif : 0);
}

// ---------------------------------------------------------------------------------------------------- notifications

struct Change {
  bool rpf_down = false;  // the former way to the source is gone
  bool rpf_up = false;    // there is a new one
  bool mapped = false;    // the tunnel became an outgoing interface
};

void tell_receivers(const std::string &vrf_name, const mvpn_mdt_route_addrs &addrs) {
  with_route(vrf_name, addrs, [](auto *pcib, auto *key, auto *route) {
    const auto entry = bitfield_is_any_set(&route->oifs) != 0 ? module().mrib_join : module().mrib_prune;
    if (entry != nullptr) entry(pcib, key, route);
  });
}

void tell_rpf(const std::string &vrf_name, const mvpn_mdt_route_addrs &addrs, bool up) {
  with_route(vrf_name, addrs, [up](auto *pcib, auto *key, auto *route) {
    if (module().rpf_notify != nullptr) module().rpf_notify(pcib, key, route, up ? 1 : 0);
  });
}

void tell_mapped(const std::string &vrf_name, const mvpn_mdt_route_addrs &addrs) {
  with_route(vrf_name, addrs, [](auto *pcib, auto *key, auto *route) {
    if (pcib->mvpn != nullptr && module().map_local_source != nullptr)
      module().map_local_source(pcib->mvpn, key, route);
  });
}

void post_change(const std::string &vrf_name, const mvpn_mdt_route_addrs &addrs, Change change) {
  post([=] {
    tell_receivers(vrf_name, addrs);
    if (change.rpf_down) tell_rpf(vrf_name, addrs, false);
    if (change.rpf_up) tell_rpf(vrf_name, addrs, true);
    if (change.mapped) tell_mapped(vrf_name, addrs);
    tell_plane(vrf_name, addrs);
  });
}

// ------------------------------------------------------------------------------------------------- adding, removing

Record *add_record(pim_cibtype *pcib, const mvpn_mdt_route_addrs &addrs) {
  const Key key = key_of(addrs);
  auto record = std::make_unique<Record>();
  record->route.addrs = addrs;
  record->route.is_star_g = is_any_source(addrs) ? 1 : 0;
  record->route.oifless_join_barred = 1;
  pt_attr *attr = pt_attr_create(0, 1, PIM_ROUTE_KEY_BYTES);
  if (attr == nullptr || pt_add(attr, &pcib->route_tree, key.size(), key.data(), key_bits, &record->route) != 0)
    return nullptr;
  Record *added = record.get();
  routes.by_address[&added->route] = added;
  routes.by_vrf[pcib->vrf_name][key] = std::move(record);
  return added;
}

void free_record(pim_cibtype *pcib, const mvpn_mdt_route_addrs &addrs) {
  const Key key = key_of(addrs);
  Records &records = routes.by_vrf[pcib->vrf_name];
  const auto found = records.find(key);
  if (found == records.end()) return;
  if (ForwardingPlane *plane = forwarding_plane()) plane->customer_route_deleted(pcib->vrf_name, addrs);
  if (observer() != nullptr) observer()->customer_route_deleted(pcib->vrf_name, addrs);
  pt_delete(pt_attr_create(0, 1, PIM_ROUTE_KEY_BYTES), &pcib->route_tree, key.data(), key_bits);
  mrib_release_route(pcib->context_id, found->second->route.addrs);
  routes.by_address.erase(&found->second->route);
  records.erase(found);
}

void finish_deletion(const std::string &vrf_name, const mvpn_mdt_route_addrs &addrs) {
  const Record *record = find_record(vrf_name, addrs);
  if (record == nullptr || !record->doomed) return;  // set again meanwhile
  with_route(vrf_name, addrs, [](auto *pcib, auto *key, auto *route) {
    if (module().route_delete != nullptr) module().route_delete(pcib, key, route);
  });
  with_route(vrf_name, addrs, [](auto *pcib, auto *key, auto *route) {
    if (pcib->mvpn != nullptr && module().unmap_local_source != nullptr)
      module().unmap_local_source(pcib->mvpn, route, key);
  });
  with_route(vrf_name, addrs, [&addrs](auto *pcib, auto *, auto *) { free_record(pcib, addrs); });
}

// Writes what the host wants into the record; tells what that changed.
Change apply(const std::string &vrf_name, Record &record, const CustomerRoute &wanted) {
  pim_route &route = record.route;
  const im_iod_t tunnel = oim_working_tunnel(vrf_name);
  const bool had_tunnel = has_oif(record, tunnel);
  const im_iod_t iif = incoming_of(vrf_name, wanted.iif);
  const bool moved = iif != route.iif || wanted.rpf_neighbor != route.rpf_neighbor;
  Change change;
  change.rpf_down = moved && route.iif != 0;
  change.rpf_up = moved && iif != 0;
  record.wanted = wanted;
  record.wanted.addrs = route.addrs;
  record.bytes_last_minute = wanted.rate_kbps * bytes_a_minute_per_kbps;
  record.words.clear();
  route.oifs = {};
  for (const std::string &name : wanted.oifs) set_oif(record, im_get_if_by_name(name.c_str()));
  if (wanted.to_mvpn && tunnel != 0) set_oif(record, tunnel);
  route.iif = iif;
  route.rpf_neighbor = wanted.rpf_neighbor;
  route.bidirectional = wanted.bidirectional ? 1 : 0;
  change.mapped = !had_tunnel && has_oif(record, tunnel);
  return change;
}

// ------------------------------------------------------------------------------------------------------- statistics

void check_routes(const std::string &vrf_name) {
  Key last{};
  for (bool first = true;; first = false) {
    const pim_cibtype *pcib = pim_find(vrf_name);
    if (pcib == nullptr || pcib->mvpn == nullptr || pcib->route_tree == nullptr) return;
    const pt_node *node =
        first ? pt_get_first_node(pcib->route_tree, nullptr, 0) : pt_get_next_node(pcib->route_tree, last.data(), 0);
    if (node == nullptr) return;
    std::memcpy(last.data(), pt_node_key(node), last.size());
    mvpn_mdt_route_addrs addrs{};
    pim_get_addrs_from_pt_key(last.data(), &addrs);
    normalise(addrs);
    // The check may yield: the route is not touched after it.
    module().stats_check(pcib->mvpn, &addrs, static_cast<pim_route *>(pt_node_data(node)));
    tell_plane(vrf_name, addrs);
  }
}

bool has_flows(const std::string &vrf_name) {
  const Records &records = records_of(vrf_name);
  const auto is_flow = [](const auto &item) { return item.second->route.send_join_info != nullptr; };
  return std::any_of(records.begin(), records.end(), is_flow);
}

void end_switchovers(const std::string &vrf_name) {
  const pim_cibtype *pcib = pim_find(vrf_name);
  if (pcib != nullptr && pcib->mvpn != nullptr && module().switchover_expiry != nullptr)
    module().switchover_expiry(pcib->mvpn);
}

void check_vrf(const std::string &vrf_name) {
  if (module().stats_check != nullptr) check_routes(vrf_name);
  const pim_cibtype *pcib = pim_find(vrf_name);
  if (pcib == nullptr || pcib->mvpn == nullptr) return;
  if (module().send_join_packet != nullptr) module().send_join_packet(pcib->mvpn, 0);
  if (has_flows(vrf_name)) schedule(switchover_delay, [vrf_name] { end_switchovers(vrf_name); });
}

void run_statistics(uint64_t run) {
  if (run != routes.statistics_run) return;
  statistics_pass();
  schedule(statistics_interval, [run] { run_statistics(run); });
}

std::vector<std::string> vrf_names() {
  std::vector<std::string> names;
  pim_cib_iterator iterator;
  for (const pim_cibtype *pcib = pim_get_first_cib_by_name(&iterator); pcib != nullptr;
       pcib = pim_get_next_cib_by_name(&iterator))
    names.push_back(pcib->vrf_name);
  return names;
}

}  // namespace

void croute_reset() {
  for (const std::string &name : vrf_names()) croute_drop_all(pim_find(name));
  const uint64_t run = routes.statistics_run;
  routes = Routes{};
  routes.statistics_run = run + 1;
}

void croute_tell_plane() {
  for (const auto &[vrf_name, records] : routes.by_vrf)
    for (const auto &[key, record] : records) tell_plane(vrf_name, record->route.addrs);
}

void croute_recompute_rpf(vrf_context_id_t context_id) {
  const pim_cibtype *pcib = pim_get_cib_by_context_id(context_id);
  if (pcib == nullptr || pcib->route_tree == nullptr) return;
  const std::string vrf_name = pcib->vrf_name;
  std::vector<std::pair<mvpn_mdt_route_addrs, Change>> changed;
  for (const auto &[key, record] : records_of(vrf_name)) {
    const im_iod_t iif = incoming_of(vrf_name, record->wanted.iif);
    if (iif == record->route.iif) continue;
    Change change;
    change.rpf_down = record->route.iif != 0;
    change.rpf_up = iif != 0;
    record->route.iif = iif;
    refresh_mrib(pcib, *record);
    changed.emplace_back(record->route.addrs, change);
  }
  for (const auto &[addrs, change] : changed) {
    if (change.rpf_down) tell_rpf(vrf_name, addrs, false);
    if (change.rpf_up) tell_rpf(vrf_name, addrs, true);
  }
}

void croute_notify_joins() {
  std::vector<std::pair<std::string, mvpn_mdt_route_addrs>> joined;
  for (const auto &[vrf_name, records] : routes.by_vrf)
    for (const auto &[key, record] : records)
      if (bitfield_is_any_set(&record->route.oifs) != 0) joined.emplace_back(vrf_name, record->route.addrs);
  for (const auto &[vrf_name, addrs] : joined) tell_receivers(vrf_name, addrs);
}

void croute_attach_tunnel(pim_cibtype *pcib) {
  const std::string vrf_name = pcib->vrf_name;
  const im_iod_t tunnel = oim_working_tunnel(vrf_name);
  if (tunnel == 0) return;
  for (const auto &[key, record] : records_of(vrf_name)) {
    if (!record->wanted.to_mvpn) continue;
    // Also of a route that kept the tunnel: a module that was stopped and started anew knows nothing of it.
    set_oif(*record, tunnel);
    post([vrf_name, addrs = record->route.addrs] {
      tell_mapped(vrf_name, addrs);
      tell_plane(vrf_name, addrs);
    });
  }
}

void croute_detach_oif(pim_cibtype *pcib, im_iod_t iod) {
  for (const auto &[key, record] : records_of(pcib->vrf_name)) {
    clear_oif(*record, iod);
    tell_plane(pcib->vrf_name, record->route.addrs);
  }
}

void croute_drop_all(pim_cibtype *pcib) {
  std::vector<mvpn_mdt_route_addrs> all;
  for (const auto &[key, record] : records_of(pcib->vrf_name)) all.push_back(record->route.addrs);
  for (const mvpn_mdt_route_addrs &addrs : all) free_record(pcib, addrs);
  routes.by_vrf.erase(pcib->vrf_name);
}

pim_route *set_customer_route(std::string_view vrf_name, const CustomerRoute &route) {
  pim_cibtype *pcib = pim_find(vrf_name);
  mvpn_mdt_route_addrs addrs = route.addrs;
  if (pcib == nullptr || !normalise(addrs) || !interfaces_exist(route)) return nullptr;
  Record *record = find_record(vrf_name, addrs);
  if (record == nullptr) record = add_record(pcib, addrs);
  if (record == nullptr) return nullptr;
  record->doomed = false;
  const std::string name(vrf_name);
  const Change change = apply(name, *record, route);
  refresh_mrib(pcib, *record);
  post_change(name, addrs, change);
  return &record->route;
}

bool delete_customer_route(std::string_view vrf_name, const mvpn_mdt_route_addrs &addrs) {
  Record *record = find_live(vrf_name, addrs);
  if (record == nullptr) return false;
  record->doomed = true;
  post([name = std::string(vrf_name), key = record->route.addrs] { finish_deletion(name, key); });
  return true;
}

bool set_customer_rate(std::string_view vrf_name, const mvpn_mdt_route_addrs &addrs, uint64_t rate_kbps) {
  Record *record = find_live(vrf_name, addrs);
  if (record == nullptr) return false;
  record->wanted.rate_kbps = rate_kbps;
  record->bytes_last_minute = rate_kbps * bytes_a_minute_per_kbps;
  return true;
}

bool set_customer_bytes(std::string_view vrf_name, const mvpn_mdt_route_addrs &addrs, uint64_t bytes_last_minute) {
  Record *record = find_live(vrf_name, addrs);
  if (record == nullptr) return false;
  record->bytes_last_minute = bytes_last_minute;
  record->wanted.rate_kbps = bytes_last_minute / bytes_a_minute_per_kbps;
  return true;
}

std::vector<CustomerRoute> customer_routes(std::string_view vrf_name) {
  std::vector<CustomerRoute> all;
  for (const auto &[key, record] : records_of(vrf_name))
    if (!record->doomed) all.push_back(record->wanted);
  return all;
}

void statistics_pass() {
  const auto check_all = [] {
    for (const std::string &name : vrf_names()) check_vrf(name);
  };
  ForwardingPlane *plane = forwarding_plane();
  plane == nullptr ? check_all() : plane->count_customer_bytes(check_all);
}

void start_statistics() {
  const uint64_t run = ++routes.statistics_run;
  schedule(statistics_interval, [run] { run_statistics(run); });
}

}  // namespace ref

extern "C" {

pim_route *pim_get_route_from_pt(pim_cibtype *pcib, const mvpn_mdt_route_addrs *addrs) {
  if (pcib == nullptr || pcib->route_tree == nullptr) return nullptr;
  const ref::Key key = ref::key_of(*addrs);
  return static_cast<pim_route *>(pt_lookup(pcib->route_tree, key.data(), ref::key_bits, 1));
}

void pim_get_addrs_from_pt_key(const uint8_t *key, mvpn_mdt_route_addrs *addrs) {
  *addrs = mvpn_mdt_route_addrs{};
  addrs->group = ref::wire::load_be32(key + ref::key_group);
  addrs->group_len = key[ref::key_group_len];
  addrs->source = ref::wire::load_be32(key + ref::key_source);
  addrs->source_len = key[ref::key_source_len];
}

void pim_add_route(pim_cibtype *pcib, pim_route *route, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t) {
  ref::pim_count().routes_reinstalled++;
  ref::tell_plane(pcib->vrf_name, route->addrs, true);
  if (ref::observer() != nullptr) ref::observer()->customer_route_installed(pcib->vrf_name, *route);
}

uint64_t pim_data_bytes_in_last_minute(const pim_route *route) {
  const auto found = ref::routes.by_address.find(route);
  return found == ref::routes.by_address.end() ? 0 : found->second->bytes_last_minute;
}

}  // extern "C"
