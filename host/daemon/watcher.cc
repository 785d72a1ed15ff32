// Looks at what changed when a turn ends, compares it with what was told last (vrfs_, flows_, joined_), and publishes
// the difference. Services call the observer's functions in the middle of their work, on any thread that holds the
// scheduling locks; vrf_touched() takes a note, the others publish at once.
//
// A change is somebody's doing when a command was running (EventBus::cause), and stays so until the VRF has settled: a
// tunnel that a command brought up comes up turns later.
#include "host/daemon/watcher.h"

#include <algorithm>
#include <utility>

#include "host/daemon/readiness.h"
#include "platform/mrib.h"
#include "platform/oim.h"
#include "platform/reference/im.h"
#include "platform/reference/oim.h"
#include "platform/reference/pim.h"
#include "platform/reference/runtime.h"
#include "routing/pim/mvpn/mvpn.h"

namespace host {
namespace {

constexpr const char *kUp = "Up";

const mvpn_cibtype *context_of(const std::string &vrf) {
  const pim_cibtype *pcib = pim_get_cib_by_context_name(vrf.c_str());
  return pcib == nullptr ? nullptr : pcib->mvpn;
}

std::string why_moved(const pim_route &route, const mvpn_data_mdt_send_join_info &info) {
  if (info.config == nullptr) return "";
  if (info.config->immediate_switch != 0) return "flows of its range move at once";
  constexpr uint64_t kBytesAMinutePerKbps = 7500;  // 60 s of 1000 bits
  return "it had " + std::to_string(pim_data_bytes_in_last_minute(&route) / kBytesAMinutePerKbps) +
         " kbit/s, the threshold is " + std::to_string(info.config->threshold);
}

std::string why_left(const mvpn_cibtype *mvpn, const pim_route &route) {
  if (mvpn == nullptr || mvpn->mti_status != MVPN_MTI_UP) return "the default MDT goes down";
  const mvpn_data_mdt_send_join_info *info = route.send_join_info;
  if (info == nullptr || info->encap_index == MVPN_ENCAP_INDEX_NONE) return "it is not sent to other PEs any more";
  if (info->config == nullptr) return "no range of the VRF holds it any more";
  return "it stayed below the threshold of " + std::to_string(info->config->threshold) + " kbit/s";
}

}  // namespace

Watcher::Watcher(const Router &router, EventBus &bus) : router_(router), bus_(bus) { ref::set_observer(this); }

Watcher::~Watcher() { ref::set_observer(nullptr); }

// Threads of the module work between the turns of the main loop: one is asked for.
void Watcher::vrf_touched(const char *vrf_name, void *&note) {
  if (note == nullptr) note = &*vrfs_.try_emplace(vrf_name).first;
  touch(*static_cast<Vrfs::value_type *>(note));
}

void Watcher::touch(Vrfs::value_type &vrf) {
  if (std::exchange(vrf.second.glance.touched, true)) return;
  if (touched_.empty()) ref::post([] {});
  touched_.push_back(&vrf);
}

void Watcher::settle() {
  settle_feature();
  when_ = {};
  if (touched_.empty()) return;
  std::vector<Vrfs::value_type *> touched = std::exchange(touched_, {});
  for (Vrfs::value_type *vrf : touched) {
    vrf->second.glance.touched = false;
    if (!bus_.cause().empty()) vrf->second.by = bus_.cause();
  }
  std::erase_if(touched, [this](const Vrfs::value_type *vrf) { return is_as_before(vrf->second.glance); });
  std::sort(touched.begin(), touched.end(), [](const auto *a, const auto *b) { return a->first < b->first; });
  for (Vrfs::value_type *vrf : touched) settle_vrf(vrf->first, vrf->second);
}

// Whether it is up and was, with the same tunnel.
bool Watcher::is_as_before(const Glance &glance) const {
  if (!feature_ || !glance.up || glance.interfaces != ref::interface_changes() ||
      glance.contexts != ref::context_changes())
    return false;
  const mvpn_cibtype *mvpn = glance.pcib->mvpn;
  return mvpn != nullptr && mvpn->mti_status == MVPN_MTI_UP && mvpn->mdt_default_group == glance.group &&
         mvpn->mti_ifindex == glance.tunnel;
}

void Watcher::take_glance(const std::string &name, Vrf &vrf) {
  const pim_cibtype *pcib = pim_get_cib_by_context_name(name.c_str());
  vrf.glance = {.touched = vrf.glance.touched,
                .up = pcib != nullptr && vrf.status == kUp && vrf.reason.empty(),
                .group = vrf.group,
                .tunnel = vrf.tunnel.if_index,
                .interfaces = ref::interface_changes(),
                .contexts = ref::context_changes(),
                .pcib = pcib};
}

void Watcher::settle_feature() {
  const bool on = router_.running().feature_mvpn();
  if (std::exchange(feature_, on) == on) return;
  bus_.publish({.what = ServiceChange{"mvpn", on ? "off" : "on", on ? "on" : "off"}});
  for (auto &vrf : vrfs_) touch(vrf);
}

void Watcher::settle_vrf(const std::string &name, Vrf &vrf) {
  settle_tunnel(name, vrf);
  settle_status(name, vrf);
  take_glance(name, vrf);
  // While it is there it has a note of the record.
  if (vrf.glance.pcib == nullptr && vrf.status.empty() && vrf.tunnel.if_index == 0 && !vrf.glance.touched)
    vrfs_.erase(vrfs_.find(name));
}

void Watcher::settle_status(const std::string &name, Vrf &vrf) {
  const mvpn_cibtype *mvpn = context_of(name);
  const std::string status = mti_status(name), reason = status.empty() && feature_ ? "" : why_not_up(router_, name);
  const ip_addr_t group = mvpn == nullptr ? 0 : mvpn->mdt_default_group;
  if (group != vrf.group) {
    if (const auto former = by_group_.find(vrf.group); former != by_group_.end() && former->second == name)
      by_group_.erase(former);
    if (group != 0) by_group_[group] = name;
  }
  vrf.group = group;
  if (group != 0) vrf.last_group = group;
  const bool same = status == vrf.status && reason == vrf.reason;
  const std::string before = std::exchange(vrf.status, status);
  vrf.reason = reason;
  if (status != kUp) end_flows(name);
  if (same) return;
  const bool failed = before == kUp && group != 0;
  bus_.publish({.what = VrfChange{name, before, status, vrf.last_group},
                .level = failed ? Level::warning : Level::notice,
                .reason = reason,
                .by = vrf.by});
  if (status == kUp || status.empty()) vrf.by.clear();
}

void Watcher::settle_tunnel(const std::string &name, Vrf &vrf) {
  const mvpn_cibtype *mvpn = context_of(name);
  const if_index_t if_index = mvpn != nullptr && mvpn->mti_ifindex != 0 ? mvpn->mti_ifindex : vrf.tunnel.if_index;
  const ref::Tunnel *tunnel = if_index == 0 ? nullptr : ref::find_tunnel(if_index);
  Tunnel now;
  if (tunnel != nullptr) {
    const ref::Interface *interface = ref::find_interface(tunnel->iod);
    now = {oim_print_ifname(if_index), if_index, interface != nullptr && interface->up ? "up" : "down", tunnel->source,
           tunnel->destination};
  }
  if (now == vrf.tunnel) return;
  const Tunnel before = std::exchange(vrf.tunnel, now);
  const Tunnel &named = tunnel == nullptr ? before : now;
  bus_.publish({.what = TunnelChange{named.name, name, before.state, now.state, now.source, now.group},
                .level = Level::info,
                .by = vrf.by});
}

// ------------------------------------------------------------------------------------------------ data MDTs and PEs

void Watcher::customer_route_installed(const std::string &vrf_name, const pim_route &route) {
  const Flow key{vrf_name, route.is_star_g != 0 ? 0 : route.addrs.source, route.addrs.group};
  const mvpn_data_mdt_send_join_info *info = route.send_join_info;
  const ip_addr_t group = info != nullptr && info->encap_index >= MVPN_ENCAP_INDEX_FIRST_DATA ? info->group : 0;
  const auto known = flows_.find(key);
  if (known != flows_.end() && known->second == group) return;
  if (known != flows_.end()) end_flow(known, why_left(context_of(vrf_name), route));
  if (group == 0) return;
  flows_[key] = group;
  bus_.publish({.what = DataMdtChange{vrf_name, true, true, std::get<1>(key), std::get<2>(key), 0, group},
                .level = Level::info,
                .reason = why_moved(route, *info)});
}

void Watcher::customer_route_deleted(const std::string &vrf_name, const mvpn_mdt_route_addrs &addrs) {
  const ip_addr_t source = addrs.source_len == MROUTE_ANY_SOURCE_LEN ? 0 : addrs.source;
  const auto known = flows_.find({vrf_name, source, addrs.group});
  if (known != flows_.end()) end_flow(known, "its route is gone");
}

// The module takes flows off their data MDTs with the tunnel, without having them installed again.
void Watcher::end_flows(const std::string &vrf) {
  for (auto flow = flows_.lower_bound({vrf, 0, 0}); flow != flows_.end() && std::get<0>(flow->first) == vrf;)
    end_flow(flow++, "the default MDT goes down");
}

void Watcher::end_flow(std::map<Flow, ip_addr_t>::iterator flow, const std::string &reason) {
  const auto &[vrf, source, group] = flow->first;
  const DataMdtChange change{vrf, true, false, source, group, 0, flow->second};
  flows_.erase(flow);
  bus_.publish({.what = change, .level = Level::info, .reason = reason});
}

// A core route is a data MDT's when its group is not the VRF's default group.
void Watcher::core_route_joined(vrf_context_id_t owner, ip_addr_t source, ip_addr_t group, bool joined) {
  const Joined key{owner, source, group};
  const auto known = joined_.find(key);
  if (joined == (known != joined_.end())) return;
  std::string vrf;
  if (joined) {
    const pim_cibtype *pcib = pim_get_cib_by_context_id(owner);
    if (pcib == nullptr || pcib->mvpn == nullptr || pcib->mvpn->mdt_default_group == group) return;
    vrf = joined_[key] = pcib->vrf_name;
  } else {
    vrf = std::move(known->second);
    joined_.erase(known);
  }
  bus_.publish({.what = DataMdtChange{vrf, false, joined, 0, 0, source, group}, .level = Level::info});
}

// Hundreds in a turn share one look at the clock.
void Watcher::remote_entry_changed(const ref::MdtSafi &entry, bool present) {
  if (when_ == std::chrono::system_clock::time_point{}) when_ = std::chrono::system_clock::now();
  const auto vrf = [&] {
    const auto found = by_group_.find(entry.group);
    return found == by_group_.end() ? "" : found->second;
  };
  const auto rd = [&] { return std::string(mvpn_bgp_print_rd(entry.rd)); };
  bus_.publish({.what = PeChange{entry.source, rd, entry.group, vrf, present}, .level = Level::info, .when = when_});
}

void Watcher::store_changed(const std::string &failure) {
  const bool failed = !failure.empty();
  store_failure_ = failure;
  bus_.publish({.what = ServiceChange{"store", failed ? "writing" : "failing", failed ? "failing" : "writing"},
                .level = failed ? Level::error : Level::notice,
                .reason = failed ? failure + "; tried again every turn" : "what was kept back has been written"});
}

}  // namespace host
