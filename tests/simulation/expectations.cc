// What must hold, worked out from the wishes of the operator and the neighbours without asking the module what is
// right. The module is judged by what the platform holds: tunnels, routes and encapsulations of the multicast RIB,
// BGP's entries, the store, datagrams sent. Only which group a flow was given is read from its record, since any group
// of the range will do.
//
// Known consequences of how the system is meant to work stand as exceptions beside the check that they touch, each with
// its reason.
#include <algorithm>
#include <set>
#include <tuple>

#include "platform/im.h"
#include "platform/l3vm.h"
#include "platform/pim.h"
#include "platform/reference/bgp.h"
#include "platform/reference/croute.h"
#include "platform/reference/im.h"
#include "platform/reference/mem.h"
#include "platform/reference/mrib.h"
#include "platform/reference/oim.h"
#include "platform/reference/packet.h"
#include "platform/reference/pss.h"
#include "platform/reference/testing/runtime.h"
#include "platform/reference/testing/services.h"
#include "routing/pim/mvpn/mvpn_mdt_safi.h"
#include "tests/simulation/world.h"
#include "tests/support/module_test.h"

namespace simulation {
namespace {

using namespace std::chrono_literals;

using Problems = std::vector<std::string>;
using CoreRoute = std::pair<ip_addr_t, ip_addr_t>;  // source (0: any), group

enum class Mode { ssm, bidir, asm_ };

Mode mode_of(ip_addr_t group) {
  if (group >> 24 == 232) return Mode::ssm;
  return group >> 16 == address("239.9.0.0") >> 16 ? Mode::bidir : Mode::asm_;
}

std::string status_of(const Vrf &vrf) {
  const pim_cibtype *pcib = pim_get_cib_by_context_name(vrf.name.c_str());
  if (pcib == nullptr || pcib->mvpn == nullptr) return "no context";
  return mvpn_mti_status_str[pcib->mvpn->mti_status];
}

const mvpn_data_mdt_send_join_info *record_of(const Vrf &vrf, const ref::CustomerRoute &route) {
  pim_cibtype *pcib = pim_get_cib_by_context_name(vrf.name.c_str());
  const pim_route *croute = pcib == nullptr ? nullptr : pim_get_route_from_pt(pcib, &route.addrs);
  return croute == nullptr ? nullptr : croute->send_join_info;
}

bool on_data_mdt(const mvpn_data_mdt_send_join_info *record) { return record != nullptr && record->encap_index >= 2; }

bool a_tunnel_went_down(const World &world) {
  const auto &requests = ref::oim_requests();
  return world.tunnel_fell || std::any_of(requests.begin(), requests.end(),
                                          [](const auto &request) { return request.operation == "bringdown"; });
}

// ------------------------------------------------------------------------------------------- the state of the network

// Everything that must be there, gathered VRF by VRF and compared at the end.
class Expectation {
 public:
  explicit Expectation(World &world) : world_(world), announced_(announced_entries()) {}

  Problems problems() {
    for (auto &[name, vrf] : world_.vrfs()) {
      if (vrf.config.group == 0)
        expect_nothing(vrf);
      else if (!is_up(vrf))
        problem(vrf, "is not Up but " + status_of(vrf));
      else
        expect_up(vrf);
    }
    compare_routes();
    compare_store();
    compare_adverts();
    return problems_;
  }

  // Announcements that the check makes beforehand: by every PE that a route of the VRF could be fed by.
  static std::vector<Announcement> announcements(World &world) {
    std::vector<Announcement> all;
    uint32_t number = 0;
    for (const auto &[name, vrf] : world.vrfs())
      for (const ref::CustomerRoute &route : ref::customer_routes(name))
        for (const ip_addr_t pe : {route.rpf_neighbor, address("10.9.0.7")}) {
          static const ip_addr_t bases[] = {address("239.7.100.0"), address("232.7.100.0"), address("239.9.100.0")};
          const ip_addr_t group = bases[number % 3] + number / 3;
          all.push_back({name, route.addrs.source, route.addrs.group, pe, group});
          number++;
        }
    return all;
  }

 private:
  void problem(const Vrf &vrf, const std::string &text) { problems_.push_back(vrf.name + " " + text); }

  static std::vector<ref::MribEncap> encaps_of(const Vrf &vrf) {
    std::vector<ref::MribEncap> own;
    for (const ref::MribEncap &encap : ref::mrib_encaps())
      if (encap.context_id == vrf.context_id) own.push_back(encap);
    return own;
  }

  void expect_nothing(const Vrf &vrf) {
    if (status_of(vrf) != "no context") problem(vrf, "has a context without a default group: " + status_of(vrf));
    // Left where the VRF manager reported the VRF down (see below), and where the RIB refused to take them away.
    if (!encaps_of(vrf).empty() && !vrf.state_changed && !world_.faulty)
      problem(vrf, "has encapsulations without a default group");
    // Left where the module was told that it is deleted, and where it was asked for by a module that has stopped since.
    if (world_.faulty || world_.answers_late) return;
    for (const ref::Tunnel &tunnel : ref::tunnels())
      if (tunnel.vrf_name == vrf.name) problem(vrf, "has a tunnel without a default group");
  }

  void expect_up(const Vrf &vrf) {
    const ref::Interface *source = world_.source_of(vrf);
    if (source == nullptr) return problem(vrf, "is Up without a source");
    expect_tunnel(vrf, *source);
    adverts_.insert({vrf.name, source->address, vrf.rd, vrf.config.group});
    expect_default_routes(vrf, source->address);
    std::set<ip_addr_t> groups{vrf.config.group};
    for (const ref::CustomerRoute &route : ref::customer_routes(vrf.name))
      if (expect_flow(vrf, route)) {
        const ip_addr_t group = record_of(vrf, route)->group;
        groups.insert(group);
        routes_.insert(core_route(vrf, source->address, group));
      }
    expect_encaps(vrf, source->address, groups);
    for (const Announcement &announcement : announcements(world_))
      if (announcement.vrf == vrf.name && is_joined(vrf, announcement))
        routes_.insert(core_route(vrf, announcement.pe, announcement.group));
  }

  void expect_tunnel(const Vrf &vrf, const ref::Interface &source) {
    const ref::Tunnel *found = nullptr;
    const auto tunnels = ref::tunnels();
    for (const ref::Tunnel &tunnel : tunnels)
      if (tunnel.vrf_name == vrf.name) found = &tunnel;
    if (found == nullptr || !found->up) return problem(vrf, "is Up without a tunnel that is");
    if (found->source != source.address) problem(vrf, "has a tunnel from " + dotted(found->source));
    if (found->destination != vrf.config.group) problem(vrf, "has a tunnel to " + dotted(found->destination));
    if (found->mtu != vrf.config.mtu) problem(vrf, "has a tunnel of MTU " + std::to_string(found->mtu));
    const pim_iftype *interface = pim_get_iftype(found->iod);
    if (interface == nullptr || interface->pim_enabled == 0) return problem(vrf, "has no PIM on its tunnel");
    if (interface->local_addr != source.address) problem(vrf, "runs PIM from " + dotted(interface->local_addr));
    if (interface->hello_interval != vrf.config.hello || interface->jp_interval != vrf.config.jp ||
        interface->mtu != vrf.config.mtu)
      problem(vrf, "runs PIM with other intervals or MTU than configured");
  }

  void expect_encaps(const Vrf &vrf, ip_addr_t source, const std::set<ip_addr_t> &groups) {
    std::set<ip_addr_t> held;
    for (const ref::MribEncap &encap : encaps_of(vrf)) {
      held.insert(encap.group);
      if (encap.index == 1 && encap.group != vrf.config.group) problem(vrf, "encapsulates index 1 in another group");
      // The encapsulations of a VRF that the VRF manager reports down are left to the RIB, which drops them with the
      // VRF; this one does not.
      if (vrf.state_changed) continue;
      if (encap.source != source) problem(vrf, "encapsulates from " + dotted(encap.source));
      if (!groups.contains(encap.group)) problem(vrf, "encapsulates for nobody in " + dotted(encap.group));
    }
    for (const ip_addr_t group : groups)
      if (!held.contains(group)) problem(vrf, "does not encapsulate in " + dotted(group));
  }

  // The core source that the route of a PE into a group has.
  CoreRoute core_route(const Vrf &vrf, ip_addr_t pe, ip_addr_t group) const {
    const Mode mode = mode_of(group);
    if (mode == Mode::ssm) return {pe, group};
    if (mode == Mode::bidir || vrf.config.shared_tree) return {0, group};
    const ref::Interface *source = world_.source_of(vrf);
    const bool own_default = group == vrf.config.group && source != nullptr && pe == source->address;
    return {own_default && !vrf.config.enforce ? 0 : pe, group};
  }

  void expect_default_routes(const Vrf &vrf, ip_addr_t source) {
    const ip_addr_t group = vrf.config.group;
    routes_.insert(core_route(vrf, source, group));
    // Without enforcement, and with shared trees, sources that others join in the core are added too, and they stay
    // when the setting changes while the VRF is up.
    // A local entry under an RD that has changed unnoticed counts as another PE's.
    const bool learns = !vrf.config.enforce || vrf.config.shared_tree || vrf.enforce_toggled ||
                        world_.rd_changed_unready.contains(vrf.name);
    if (learns) any_source_.insert(group);
    if (!vrf.config.enforce) return;
    for (const ref::MdtSafi &entry : ref::bgp_remote_entries()) {
      if (entry.group != group) continue;
      // Of two entries that differ in their RD alone one stands for both; withdrawing it takes the route away.
      if (world_.ambiguous_pes.contains(entry.source))
        allowed_.insert(core_route(vrf, entry.source, group));
      else
        routes_.insert(core_route(vrf, entry.source, group));
    }
  }

  std::vector<Range> ranges_for(const Vrf &vrf, const ref::CustomerRoute &route) const {
    std::vector<Range> matching;
    for (const Range &range : vrf.config.ranges)
      if (world_.permits(range.policy, route.addrs.source)) matching.push_back(range);
    return matching;
  }

  // Whether the flow is on a data MDT. Which of several ranges it has depends on the order in which they came; with any
  // of them it must be when it reaches the highest threshold, and cannot be below the lowest.
  bool expect_flow(const Vrf &vrf, const ref::CustomerRoute &route) {
    const auto matching = ranges_for(vrf, route);
    uint32_t lowest = UINT32_MAX, highest = 0;
    for (const Range &range : matching) {
      lowest = std::min(lowest, range.threshold);
      highest = std::max(highest, range.threshold);
    }
    const bool local = route.iif == vrf.name + "-site" || (route.bidirectional && !route.iif.empty());
    const bool sent = route.bidirectional ? vrf.config.bidir : route.to_mvpn;
    const bool can = local && sent && route.rpf_neighbor != 0 && !matching.empty();
    const auto *record = record_of(vrf, route);
    const bool is = on_data_mdt(record);
    const std::string name = "(" + dotted(route.addrs.source) + ", " + dotted(route.addrs.group) + ")";
    if (is && !(can && route.rate_kbps >= lowest)) problem(vrf, "has " + name + " on a data MDT for no reason");
    if (!is && can && route.rate_kbps >= highest) problem(vrf, "does not have " + name + " on a data MDT");
    if (!is) return false;
    expect_data_mdt(vrf, route, *record, matching, name);
    return true;
  }

  void expect_data_mdt(const Vrf &vrf, const ref::CustomerRoute &route, const mvpn_data_mdt_send_join_info &record,
                       const std::vector<Range> &matching, const std::string &name) {
    if (record.state != MVPN_DATA_MDT_STATE_ACTIVE) problem(vrf, "has " + name + " on a data MDT half switched");
    if (!std::any_of(matching.begin(), matching.end(),
                     [&](const Range &range) { return range.hands_out(record.group); }))
      problem(vrf, "has " + name + " in " + dotted(record.group) + ", which is in none of its ranges");
    choices_[{vrf.name, route.addrs.source, route.addrs.group}] = {record.encap_index, record.group};
    if (!announced_.contains({vrf.config.group, route.addrs.source, route.addrs.group, record.group}))
      problem(vrf, "does not announce " + name);
    for (const ref::MribEncap &encap : encaps_of(vrf))
      if (encap.index == record.encap_index && encap.group == record.group) return;
    problem(vrf, "does not encapsulate " + name + " at its index");
  }

  // ------------------------------------------------------------------------------------------------ receiving side

  static bool has_tunnel_as_source(const ref::CustomerRoute &route) { return route.iif == "mvpn"; }

  static bool wants_data_mdts(const Vrf &vrf, const ref::CustomerRoute &route) {
    if (on_data_mdt(record_of(vrf, route))) return true;
    if (route.bidirectional && !has_tunnel_as_source(route)) return true;
    return has_tunnel_as_source(route) && !route.oifs.empty();
  }

  bool is_joined(const Vrf &vrf, const Announcement &a) const {
    bool wanted = false;
    for (const ref::CustomerRoute &route : ref::customer_routes(vrf.name)) {
      if (route.addrs.group != a.c_group || (route.addrs.source != 0 && route.addrs.source != a.c_source)) continue;
      // Only the PE towards the source is believed about the source's flow.
      if (route.addrs.source != 0 && route.rpf_neighbor != a.pe) return false;
      wanted = wanted || wants_data_mdts(vrf, route);
    }
    return wanted;
  }

  // -------------------------------------------------------------------------------------------------- comparisons

  void compare_routes() {
    std::set<CoreRoute> held;
    for (const ref::MribRoute &route : ref::mrib_routes()) held.insert({route.addrs.source, route.addrs.group});
    for (const CoreRoute &route : routes_)
      if (!held.contains(route)) problems_.push_back("the RIB lacks " + text(route));
    // Clearing routes drops the module's records of what the RIB has dropped by itself; this one keeps it.
    if (world_.cleared) return;
    for (const CoreRoute &route : held)
      if (!routes_.contains(route) && !allowed_.contains(route) && !any_source_.contains(route.second))
        problems_.push_back("the RIB has " + text(route) + " for nobody");
  }

  static std::string text(const CoreRoute &route) {
    return "(" + (route.first == 0 ? "*" : dotted(route.first)) + ", " + dotted(route.second) + ")";
  }

  // A flow whose tunnel went down keeps its choice in the store until it chooses again or is deleted, which may be
  // never when its sources have moved away or its rate has fallen meanwhile.
  bool keeps_choice(const FlowKey &flow) const {
    const auto &[name, flow_source, flow_group] = flow;
    const auto routes = ref::customer_routes(name);
    const bool exists = std::any_of(routes.begin(), routes.end(),
                                    [source = flow_source, group = flow_group](const ref::CustomerRoute &route) {
                                      return route.addrs.source == source && route.addrs.group == group;
                                    });
    return exists && a_tunnel_went_down(world_);
  }

  void compare_store() {
    const auto stored = world_.stored_choices();
    for (const auto &[flow, choice] : choices_)
      if (!stored.contains(flow) || stored.at(flow) != choice) problems_.push_back("the store lacks a choice in use");
    for (const auto &[flow, choice] : stored)
      if (!choices_.contains(flow) && !world_.unclaimed.contains(std::get<0>(flow)) && !keeps_choice(flow))
        problems_.push_back("the store holds a choice that is not in use");
  }

  // A new RD reaches a VRF that is not ready, or not up yet, without the old advertisement being withdrawn, or the
  // new one being sent at its time.
  void compare_adverts() {
    std::multiset<std::tuple<std::string, ip_addr_t, std::string, ip_addr_t>> held;
    const auto excepted = [this](const std::string &name) { return world_.rd_changed_unready.contains(name); };
    std::erase_if(adverts_, [&](const auto &advert) { return excepted(std::get<0>(advert)); });
    for (const ref::MdtSafi &entry : ref::bgp_local_entries())
      if (!excepted(entry.vrf_name))
        held.insert({entry.vrf_name, entry.source, mvpn_bgp_print_rd(entry.rd), entry.group});
    if (held != adverts_) {
      std::string text = "BGP advertises";
      for (const auto &[name, source, rd, group] : held) text += " " + name + "/" + dotted(source) + "/" + rd;
      problems_.push_back(text + ", not what it should");
    }
  }

  // What was announced in the core since the datagrams were cleared: default group, flow, data group.
  using Announced = std::set<std::tuple<ip_addr_t, ip_addr_t, ip_addr_t, ip_addr_t>>;
  static Announced announced_entries() {
    Announced all;
    for (const ref::CorePacket &packet : ref::sent_core_packets()) {
      const auto word = [&packet](size_t at) {
        const uint8_t *b = packet.datagram.data() + at;
        return uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | b[3];
      };
      for (size_t at = 28; at + 16 <= packet.datagram.size(); at += 16)
        all.insert({packet.provider_group, word(at + 4), word(at + 8), word(at + 12)});
    }
    return all;
  }

  World &world_;
  Announced announced_;
  Problems problems_;
  std::set<CoreRoute> routes_, allowed_;
  std::set<ip_addr_t> any_source_;
  std::map<FlowKey, Choice> choices_;
  std::multiset<std::tuple<std::string, ip_addr_t, std::string, ip_addr_t>> adverts_;
};

// --------------------------------------------------------------------------------------------------------- the end

// Everything that a VRF needs is there, and the module is told in the ways in which it is told of changes.
void make_well(World &world) {
  world.cease_faults();
  ref::settle();
  // A stop that keeps the feature is for a process that ends: what the contexts that stay behind stand for is gone.
  if (world.contexts_survived) {
    world.start();
    world.stop(false);
  }
  world.start();
  if (!world.running()) world.fail("the module does not start");
  ref::settle();
  for (const std::string name : {"core0", "core1", "core2"}) {
    if (ref::find_interface(std::string_view(name)) == nullptr)
      ref::create_interface(name, VRF_CONTEXT_ID_DEFAULT, 0, false);
    if (ref::find_interface(std::string_view(name))->address == 0)
      ref::set_interface_address(name, address("10.0.0.0") + world.next_address++);
    ref::set_interface_state(name, true);
  }
  // An entry that found no memory is not asked for again: BGP's session starts anew.
  if (world.calls_failed) {
    const auto remote = ref::bgp_remote_entries();
    ref::bgp_withdraw_remote(remote);
    ref::bgp_add_remote(remote);
  }
  if (world.update_source().empty()) world.set_update_source("core0");
  for (auto &[name, vrf] : world.vrfs()) {
    world.set_vrf_state(name, true);
    if (vrf.rd.empty()) world.set_rd(name, "65000:" + std::to_string(vrf.context_id));
  }
  ref::settle();
}

// Whether a bring-up was asked for right behind a creation.
bool bring_up_overtook() {
  std::map<if_index_t, std::string> last;
  for (const ref::OimRequest &request : ref::oim_requests()) {
    if (request.operation == "bringup" && last[request.if_index] == "create") return true;
    last[request.if_index] = request.operation;
  }
  return false;
}

// Nobody tells the module that a VRF's state has changed; its source coming up does.
void flap_sources(World &world, bool all) {
  bool any = all;
  for (const auto &[name, vrf] : world.vrfs()) any = any || vrf.state_changed;
  // A bring-up that is asked for before the creation has been answered goes without the tunnel's parameters, because
  // there is no interface yet that they could be given to.
  any = any || bring_up_overtook() || world.answers_late || world.idle_tunnel;
  // The tunnel that comes up goes to the former group; nobody asks for another one before the next bring-up.
  any = any || world.group_changed_in_bring_up;
  // A flow can be moved while its VRF is down, bidirectional ones above all: its route has the source that the VRF had.
  any = any || world.moved_while_down;
  // The notice of an RD reads the source's address too; the notice of the address then finds nothing changed.
  any = any || world.address_overtaken;
  // A tunnel that comes up while its VRF is not ready is taken as it is when the VRF is: with the source and the group
  // that it had. Hence twice.
  for (int times = any ? 2 : 0; times > 0; times--)
    for (const bool up : {false, true}) {
      for (const std::string name : {"core0", "core1", "core2"}) ref::set_interface_state(name, up);
      ref::settle();
    }
}

// A context without a group, which only another group ends: of a VRF that was refused one while an earlier life's
// tunnel was there, and of one whose deletion could not be asked for.
void end_contexts_without_group(World &world) {
  for (const auto &[name, vrf] : world.vrfs()) {
    if (vrf.config.group != 0 || status_of(vrf) == "no context") continue;
    if (!world.faulty && !world.refused_defaults.contains(name)) continue;
    world.set_default(name, "225.1.0." + std::to_string(vrf.context_id));
    ref::settle();
    world.no_default(name);
    ref::settle();
  }
}

// A route-map that changes, or is bound to a range, moves flows when the ranges are looked at next.
void look_at_ranges_again(World &world) {
  for (const auto &[name, vrf] : world.vrfs()) {
    world.set_range(name, {"238.250." + std::to_string(vrf.context_id) + ".0/24", 4000000000, false, ""});
    world.no_range(name, "238.250." + std::to_string(vrf.context_id) + ".0/24");
  }
}

// What an operator does when a VRF stays away: takes its default group off and gives it again.
void configure_anew(World &world) {
  std::map<std::string, ip_addr_t> groups;
  for (auto &[name, vrf] : world.vrfs()) groups[name] = vrf.config.group;
  for (const auto &[name, group] : groups) world.no_default(name);
  ref::settle();
  for (const auto &[name, group] : groups)
    if (group != 0) world.set_default(name, dotted(group));
  ref::settle();
}

Problems problems_in_time(World &world) {
  look_at_ranges_again(world);
  ref::advance(310s);  // recovery is over, flows have been checked, former announcements have aged out
  for (const Announcement &announcement : Expectation::announcements(world)) world.announce(announcement);
  ref::settle();
  ref::clear_sent_core_packets();
  ref::advance(64s);
  return Expectation(world).problems();
}

void check_nothing_is_left(World &world) {
  std::vector<std::string> names;
  bool any_state_changed = false;
  for (const auto &[name, vrf] : world.vrfs()) {
    names.push_back(name);
    any_state_changed = any_state_changed || vrf.state_changed;
  }
  for (const std::string &name : names) {
    for (const ref::CustomerRoute &route : ref::customer_routes(name)) ref::delete_customer_route(name, route.addrs);
    ref::settle();
    for (const Range &range : std::vector<Range>(world.vrf(name)->config.ranges)) world.no_range(name, range.prefix);
    world.delete_vrf(name);
    if (world.vrf(name) != nullptr) world.fail(name + " cannot be deleted: " + status_of(*world.vrf(name)));
  }
  if (!world.cleared && !world.faulty && !ref::mrib_routes().empty()) world.fail("routes are left in the RIB");
  if (!ref::mrib_encaps().empty() && !any_state_changed && !world.faulty) world.fail("encapsulations are left");
  if (!ref::bgp_local_entries().empty() && world.rd_changed_unready.empty()) world.fail("advertisements are left");
  if (!ref::pss_records().empty() && world.unclaimed.empty() && !world.faulty)
    world.fail("choices are left in the store");
  for (const ref::Tunnel &tunnel : ref::tunnels())
    if ((tunnel.if_index & 0xFFFFFF) < 40 && !world.faulty && !world.answers_late)
      world.fail("a tunnel is left");  // from 40: orphans that a step made
  world.stop(false);
  const ref::MemoryUse left = ref::memory_use();
  if (left.slab_objects != 0) world.fail(std::to_string(left.slab_objects) + " records are left");
  if (left.tracked_buffers != 0) world.fail(std::to_string(left.tracked_buffers) + " buffers are left");
  if (left.timers != 0) world.fail(std::to_string(left.timers) + " timers are left");
}

}  // namespace

namespace {

// What must hold at any time, whatever is under way.
void check_core_groups(World &world) {
  for (const ref::MribRoute &route : ref::mrib_routes())
    if (route.addrs.group >> 28 != 14) world.fail("a core route is for " + dotted(route.addrs.group));
}

// An announcement is joined for a customer route.
void check_joined(World &world, const Vrf &vrf, const mvpn_cibtype &mvpn) {
  std::set<std::pair<ip_addr_t, ip_addr_t>> routes;
  for (const ref::CustomerRoute &route : ref::customer_routes(vrf.name))
    routes.insert({route.addrs.source, route.addrs.group});
  for (pt_node *node = pt_get_first_node(mvpn.data_mdt_recv_cache, nullptr, 0); node != nullptr;
       node = pt_get_next_node(mvpn.data_mdt_recv_cache, pt_node_key(node), 0)) {
    const auto *join = static_cast<const mvpn_data_mdt_recv_join_info *>(pt_node_data(node));
    if (join->mdt_route != nullptr && !routes.contains({join->c_src, join->c_grp}) &&
        !routes.contains({0, join->c_grp}))
      world.fail(vrf.name + " has joined " + dotted(join->p_grp) + " for nobody");
  }
}

// A VRF that is up encapsulates, unless the RIB was not told.
void check_default_encap(World &world, const Vrf &vrf) {
  if (!is_up(vrf) || world.calls_failed || world.contexts_survived) return;
  for (const ref::MribEncap &encap : ref::mrib_encaps())
    if (encap.context_id == vrf.context_id && encap.index == 1) return;
  world.fail(vrf.name + " is Up and does not encapsulate");
}

// The core routes of a default group are there while its VRF is up, and no others; see expect_default_routes and
// compare_routes for what is left out here.
void check_default_routes(World &world, const Vrf &vrf) {
  const Config &config = vrf.config;
  const bool loose = !config.enforce || config.shared_tree || vrf.enforce_toggled || world.cleared || world.faulty ||
                     world.acks_late || !world.rd_changed_unready.empty() || !world.ambiguous_pes.empty();
  if (loose || !is_up(vrf) || mode_of(config.group) == Mode::bidir) return;
  const ref::Interface *source = world.source_of(vrf);
  std::set<ip_addr_t> expected, held;
  if (source != nullptr) expected.insert(source->address);
  for (const ref::MdtSafi &entry : ref::bgp_remote_entries())
    if (entry.group == config.group) expected.insert(entry.source);
  for (const ref::MribRoute &route : ref::mrib_routes())
    if (route.addrs.group == config.group) held.insert(route.addrs.source);
  if (held != expected) world.fail(vrf.name + " has not the core routes of its default group");
}

// A VRF whose tunnel is down is not advertised.
void check_not_advertised(World &world, const Vrf &vrf) {
  if (world.faulty || status_of(vrf) != "Down" || world.rd_changed_unready.contains(vrf.name)) return;
  for (const ref::MdtSafi &entry : ref::bgp_local_entries())
    if (entry.vrf_name == vrf.name) world.fail(vrf.name + " is advertised while it is down");
}

// Ranges with route-maps may stand in another order after the restart.
void check_remembered(World &world, const Vrf &vrf) {
  for (const Range &range : vrf.config.ranges)
    if (!range.policy.empty()) return;
  for (const ref::CustomerRoute &route : ref::customer_routes(vrf.name)) {
    const auto former = world.remembered.find({vrf.name, route.addrs.source, route.addrs.group});
    const auto *record = record_of(vrf, route);
    if (former == world.remembered.end() || !on_data_mdt(record)) continue;
    if (former->second != Choice{record->encap_index, record->group})
      world.fail(vrf.name + " has a flow with another choice than before the restart");
  }
}

}  // namespace

void check_settled(World &world) {
  // A choice outlives its flow where the store refused to delete it, and see World::unclaimed.
  const bool leftovers = world.faulty || !world.unclaimed.empty();
  for (const std::string &wrong : invariant_violations())
    if (!leftovers || wrong.find("stored choice") == std::string::npos) world.fail(wrong);
  check_core_groups(world);
  if (!world.running() && !ref::oim_requests().empty()) world.fail("a module that has been stopped makes requests");
  for (const ref::Tunnel &tunnel : ref::tunnels()) {
    const Vrf *vrf = world.vrf(tunnel.vrf_name);
    world.idle_tunnel = world.idle_tunnel || (tunnel.up && vrf != nullptr && !is_up(*vrf));
  }
  for (const auto &[name, vrf] : world.vrfs()) {
    const pim_cibtype *pcib = pim_get_cib_by_context_name(name.c_str());
    if (pcib == nullptr || pcib->mvpn == nullptr || !world.running()) continue;
    for (const ref::CustomerRoute &route : ref::customer_routes(name))
      if (!is_up(vrf) && on_data_mdt(record_of(vrf, route))) world.moved_while_down = true;
    check_joined(world, vrf, *pcib->mvpn);
    check_default_encap(world, vrf);
    check_default_routes(world, vrf);
    check_not_advertised(world, vrf);
    if (world.recovers() && !world.faulty) check_remembered(world, vrf);
  }
}

void check_end(World &world) {
  make_well(world);
  flap_sources(world, world.faulty);
  end_contexts_without_group(world);
  Problems problems = problems_in_time(world);
  if (world.faulty && !problems.empty()) {
    configure_anew(world);
    problems = problems_in_time(world);
  }
  // A request stays outstanding when its answer is lost, or cannot be understood: no answer has a time limit.
  if (world.requests_left_open && !problems.empty()) {
    world.stop(false);
    world.start();
    ref::settle();
    problems = problems_in_time(world);
  }
  for (const std::string &problem : problems) world.fail(problem);
  check_settled(world);
  check_nothing_is_left(world);
}

}  // namespace simulation
