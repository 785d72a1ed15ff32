// The kinds of steps in one table: weight, how the words are drawn, what is done. Pools of words are small and repeat
// what should be drawn more often, so that steps meet each other.
#include "tests/simulation/steps.h"

#include <algorithm>
#include <array>
#include <random>
#include <sstream>

#include "platform/l3vm.h"
#include "platform/pim.h"
#include "platform/reference/bgp.h"
#include "platform/reference/croute.h"
#include "platform/reference/im.h"
#include "platform/reference/mrib.h"
#include "platform/reference/mts.h"
#include "platform/reference/oim.h"
#include "platform/reference/testing/runtime.h"
#include "platform/reference/testing/services.h"
#include "tests/support/platform_trace.h"

namespace simulation {
namespace {

using namespace std::chrono_literals;

// ---------------------------------------------------------------------------------------------------------- drawing

using Pool = std::vector<std::string>;

const Pool vrfs = {"v1", "v1", "v2", "v2", "v3"};
const Pool default_groups = {"239.1.0.1", "239.1.0.1", "239.1.0.2", "239.1.0.3", "232.1.0.1",
                             "232.1.0.2", "239.9.0.1", "239.9.0.2", "239.2.0.7"};
const Pool ranges = {"239.2.0.0/24", "239.2.1.0/30", "239.2.2.0/31", "232.2.0.0/28",
                     "239.9.8.0/30", "239.2.0.0/16", "239.0.0.0/8",  "239.2.3.4/32"};
const Pool thresholds = {"0", "0", "1", "100", "500"};
const Pool mtus = {"90", "100", "124", "1400", "1500"};  // the least have room for three announcements
const Pool rates = {"0", "1", "50", "99", "100", "101", "400", "600", "1000"};
const Pool sources = {"192.168.1.1", "192.168.1.2", "192.168.1.3", "192.168.1.4"};
const Pool far_sources = {"192.168.9.1", "192.168.9.2", "192.168.1.1"};
const Pool groups = {"232.8.0.1", "232.8.0.2", "239.8.0.1", "239.8.0.2"};
const Pool data_groups = {"239.7.0.1", "239.7.0.2", "239.7.0.3", "232.7.0.1", "239.9.7.1"};
const Pool pes = {"10.9.0.1", "10.9.0.1", "10.9.0.2", "10.9.0.3"};
const Pool heard_groups = {"232.8.0.1", "232.8.0.1", "239.8.0.1"};
const Pool core = {"core0", "core0", "core1", "core2"};
const Pool failing = {"slab_calloc",
                      "pt_add",
                      "ravl_insert",
                      "renqueue_data",
                      "active_timer_create",
                      "active_timer_start",
                      "zeph_sys_mclock_get",
                      "mts_send",
                      "mtrack_alloc",
                      "mrib_mts_update_route",
                      "mrib_update_mdt_encap_info",
                      "oim_if_info_list_add_new_if",
                      "oim_if_info_list_add_new_param_tlv",
                      "l3vm_get_context_info",
                      "ksink_im_get_ifindex_frm_iod",
                      "if_index_overlay_cli_init",
                      "bgp_get_rd",
                      "pim_get_iftype",
                      "m_get_prio",
                      "m_copyback",
                      "rpm_policy_bind",
                      "rpm_policy_unbind",
                      "quillon_pthread_create",
                      "pt_attr_create"};
const Pool failing_store = {"ksink_pss_update", "ksink_pss_delete", "ksink_pss_delete_range"};

class Random {
 public:
  explicit Random(uint64_t seed) : generator_(seed) {}
  size_t below(size_t n) { return generator_() % n; }
  bool chance(unsigned percent) { return below(100) < percent; }
  std::string of(const Pool &pool) { return pool[below(pool.size())]; }
  std::string number(size_t first, size_t last) { return std::to_string(first + below(last - first + 1)); }

 private:
  std::mt19937_64 generator_;
};

// A word of a kind's pattern: one of a pool, or a number between two.
struct Draw {
  const Pool *pool = nullptr;
  size_t first = 0, last = 0;
  Draw(const Pool &all) : pool(&all) {}                                  // NOLINT(google-explicit-constructor)
  Draw(std::pair<size_t, size_t> r) : first(r.first), last(r.second) {}  // NOLINT(google-explicit-constructor)
  std::string operator()(Random &random) const {
    return pool != nullptr ? random.of(*pool) : random.number(first, last);
  }
};

std::pair<size_t, size_t> number(size_t first, size_t last) { return {first, last}; }

using Play = void (*)(World &, const Words &);

enum class Level { plain, disturbance, fault };

// A kind of step. Weights are relative. Of three seeds one draws plain steps only and can be held to most, one also
// disturbances, one also faults. Words beyond the kind are there when `play` is called.
struct Kind {
  const char *name;
  unsigned weight;
  std::vector<Draw> words;
  Play play;
  Level level;
};

// -------------------------------------------------------------------------------------------------- what is played

uint32_t value(const std::string &word) { return static_cast<uint32_t>(std::stoul(word)); }

mvpn_mdt_route_addrs addrs(const std::string &source, const std::string &group) {
  mvpn_mdt_route_addrs out{};
  out.source = source == "*" ? 0 : address(source);
  out.source_len = source == "*" ? MROUTE_ANY_SOURCE_LEN : MROUTE_HOST_LEN;
  out.group = address(group);
  out.group_len = MROUTE_HOST_LEN;
  return out;
}

// The VRF's route, or a new one.
ref::CustomerRoute route_of(const std::string &vrf, const std::string &source, const std::string &group) {
  const mvpn_mdt_route_addrs wanted = addrs(source, group);
  for (const ref::CustomerRoute &route : ref::customer_routes(vrf))
    if (route.addrs.source == wanted.source && route.addrs.group == wanted.group) return route;
  ref::CustomerRoute route;
  route.addrs = wanted;
  return route;
}

bool has_route(const std::string &vrf, const std::string &source, const std::string &group) {
  const ref::CustomerRoute route = route_of(vrf, source, group);
  return !route.iif.empty() || !route.oifs.empty();
}

void flow(const std::string &vrf, const std::string &source, const std::string &group, uint32_t kbps, bool bidir) {
  ref::CustomerRoute route;
  route.addrs = addrs(source, group);
  route.iif = vrf + "-site";
  route.rpf_neighbor = address("172.16.0.200");
  route.rate_kbps = kbps;
  route.to_mvpn = true;
  route.bidirectional = bidir;
  ref::set_customer_route(vrf, route);
}

void receiver(const std::string &vrf, const std::string &source, const std::string &group, const std::string &pe,
              bool bidir = false) {
  ref::CustomerRoute route;
  route.bidirectional = bidir;
  route.addrs = addrs(source, group);
  route.iif = "mvpn";
  route.rpf_neighbor = address(pe);
  route.oifs = {vrf + "-site"};
  ref::set_customer_route(vrf, route);
}

// A change of an existing route.
template <typename Change>
void change_route(const std::string &vrf, const std::string &source, const std::string &group, Change change) {
  if (!has_route(vrf, source, group)) return;
  ref::CustomerRoute route = route_of(vrf, source, group);
  change(route);
  ref::set_customer_route(vrf, route);
}

// Below every threshold for one check, and back.
void let_dip(const std::string &vrf, const std::string &source, const std::string &group) {
  if (!has_route(vrf, source, group)) return;
  const uint64_t rate = route_of(vrf, source, group).rate_kbps;
  ref::set_customer_rate(vrf, addrs(source, group), 0);
  ref::statistics_pass();
  ref::settle();
  ref::set_customer_rate(vrf, addrs(source, group), rate);
  ref::statistics_pass();
}

// The host's news about a bidirectional route: before and after are the two bits of `change`.
void look_up_rpf(World &world, const std::string &vrf, const std::string &group, uint32_t change) {
  pim_cibtype *pcib = pim_get_cib_by_context_name(vrf.c_str());
  const mvpn_mdt_route_addrs key = addrs("*", group);
  pim_route *route = pcib == nullptr ? nullptr : pim_get_route_from_pt(pcib, &key);
  if (route == nullptr || !world.running()) return;
  mvpn_process_rpf_lookup(pcib, &key, route, address("172.16.0.1"), change & 1, change >> 1);
}

ref::MdtSafi remote_entry(const std::string &pe, const std::string &group, unsigned rd) {
  ref::MdtSafi entry;
  entry.source = address(pe);
  const auto bytes = ref::bgp_parse_rd("65001:" + std::to_string((entry.source & 0xFFFF) + rd * 0x10000));
  std::copy(bytes->begin(), bytes->end(), entry.rd);
  entry.group = address(group);
  return entry;
}

// A PE's entries under its first RD: it takes part in one group at a time.
void join_group(const std::string &pe, const std::string &group) {
  for (const ref::MdtSafi &entry : ref::bgp_remote_entries())
    if (entry.source == address(pe) && entry.group != address(group)) ref::bgp_withdraw_remote({entry});
  ref::bgp_add_remote({remote_entry(pe, group, 0)});
}

// PEs of a network of their own, so many that they fill several update buffers.
void join_many(const std::string &group, uint32_t count) {
  std::vector<ref::MdtSafi> left, joined;
  for (const ref::MdtSafi &entry : ref::bgp_remote_entries())
    if (entry.source >> 16 == address("10.8.0.0") >> 16 && entry.group != address(group)) left.push_back(entry);
  ref::bgp_withdraw_remote(left);
  for (uint32_t i = 0; i < count; i++) joined.push_back(remote_entry(dotted(address("10.8.0.0") + i), group, 0));
  ref::bgp_add_remote(joined);
}

void leave_group(const std::string &pe) {
  for (const ref::MdtSafi &entry : ref::bgp_remote_entries())
    if (entry.source == address(pe)) ref::bgp_withdraw_remote({entry});
}

std::string tunnel_of(const std::string &vrf) {
  for (const ref::Tunnel &tunnel : ref::tunnels())
    if (tunnel.vrf_name == vrf) return "mti" + std::to_string(tunnel.if_index & 0xFFFFFF);
  return "";
}

void hostile_datagram(World &world, const std::string &vrf, uint32_t seed) {
  std::mt19937 bytes(seed);
  std::vector<uint8_t> datagram(20 + bytes() % 80);
  for (uint8_t &byte : datagram) byte = static_cast<uint8_t>(bytes());
  datagram[0] = static_cast<uint8_t>(0x40 | bytes() % 16);
  if (datagram.size() > 60 && seed % 2 == 0) {  // one whose entries are read
    datagram[0] = 0x45;
    for (const size_t at : {size_t{28}, size_t{44}}) {
      datagram[at] = 1;
      datagram[at + 1] = 0;
      datagram[at + 2] = 16;
    }
  }
  world.hear(vrf, datagram);
}

void hostile_message(uint32_t seed) {
  std::mt19937 random(seed);
  const std::array<uint32_t, 8> opcodes = {
      MTS_OPC_MVPN_BGP_MDT_SAFI_REMOTE_UPDATE, MTS_OPC_MVPN_BGP_RD_NOTIFY,
      MTS_OPC_MVPN_BGP_UPDATE_SOURCE_NOTIFY,   MTS_OPC_OIM_IF_CREATE_RESPONSE,
      MTS_OPC_OIM_IF_DELETE_RESPONSE,          MTS_OPC_OIM_IF_PARAM_UPDATE_RESPONSE,
      MTS_OPC_MVPN_BGP_MDT_SAFI_LOCAL_REQUEST, 62467};
  std::vector<uint8_t> payload(random() % 50);  // too short for what it claims
  for (uint8_t &byte : payload) byte = static_cast<uint8_t>(random() % 3 == 0 ? random() : 0);
  ref::deliver(opcodes[random() % opcodes.size()], payload.data(), payload.size());
}

void core_route_freed(const std::string &group) {
  for (const ref::MribRoute &route : ref::mrib_routes()) {
    if (route.addrs.group >> 8 != address(group) >> 8) continue;
    pim_core_route freed{};
    freed.addrs = route.addrs;
    freed.marker_a = 1;
    mvpn_free_dependent_route_resources(pim_default_cib, &freed);
    return;
  }
}

// ------------------------------------------------------------------------------------------------------- the kinds

class Kinds {
 public:
  void add(const char *name, unsigned weight, std::vector<Draw> words, Play play) {
    all.push_back({name, weight, std::move(words), play, Level::plain});
  }
  void disturb(const char *name, unsigned weight, std::vector<Draw> words, Play play) {
    all.push_back({name, weight, std::move(words), play, Level::disturbance});
  }
  void fault(const char *name, unsigned weight, std::vector<Draw> words, Play play) {
    all.push_back({name, weight, std::move(words), play, Level::fault});
  }
  std::vector<Kind> all;
};

// The machine's VRFs.
void add_vrfs(Kinds &all) {
  all.add("vrf_add", 6, {vrfs}, [](World &world, const Words &w) { world.add_vrf(w[1]); });
  all.add("vrf_delete", 2, {vrfs}, [](World &world, const Words &w) { world.delete_vrf(w[1]); });
  all.add("vrf_down", 1, {vrfs}, [](World &world, const Words &w) { world.set_vrf_state(w[1], false); });
  all.add("vrf_up", 1, {vrfs}, [](World &world, const Words &w) { world.set_vrf_state(w[1], true); });
}

// Commands.
void add_commands(Kinds &all) {
  all.add("default", 14, {vrfs, default_groups}, [](World &world, const Words &w) { world.set_default(w[1], w[2]); });
  all.add("no_default", 4, {vrfs}, [](World &world, const Words &w) { world.no_default(w[1]); });
  all.add("default_flap", 3, {vrfs, default_groups}, [](World &world, const Words &w) {
    world.no_default(w[1]);
    world.set_default(w[1], w[2]);
  });
  all.add("source", 4, {vrfs, core}, [](World &world, const Words &w) { world.set_source(w[1], w[2]); });
  all.add("no_source", 2, {vrfs}, [](World &world, const Words &w) { world.set_source(w[1], ""); });
  all.add("range", 10, {vrfs, ranges, thresholds}, [](World &world, const Words &w) {
    world.set_range(w[1], {w[2], value(w[3]), false, ""});
  });
  all.add("range_immediate", 4, {vrfs, ranges}, [](World &world, const Words &w) {
    world.set_range(w[1], {w[2], 0, true, ""});
  });
  all.add("range_policy", 3, {vrfs, ranges, thresholds}, [](World &world, const Words &w) {
    world.set_range(w[1], {w[2], value(w[3]), false, "odd"});
  });
  all.add("range_no_flow", 1, {vrfs, ranges}, [](World &world, const Words &w) {
    world.set_range(w[1], {w[2], 0, true, "none"});
  });
  all.add("no_range", 4, {vrfs, ranges}, [](World &world, const Words &w) { world.no_range(w[1], w[2]); });
}

void add_settings(Kinds &all) {
  all.add("mtu", 3, {vrfs, mtus}, [](World &world, const Words &w) {
    world.set_number(w[1], "mdt_mtu_cmd", "<mtu-value>", &Config::mtu, w[2]);
  });
  all.add("no_mtu", 1, {vrfs},
          [](World &world, const Words &w) { world.set_number(w[1], "mdt_mtu_cmd", "", &Config::mtu, ""); });
  all.add("hello", 1, {vrfs, number(1000, 20000)}, [](World &world, const Words &w) {
    world.set_number(w[1], "mdt_pim_hello_interval_cmd", "<interval>", &Config::hello, w[2]);
  });
  all.add("no_hello", 1, {vrfs}, [](World &world, const Words &w) {
    world.set_number(w[1], "mdt_pim_hello_interval_cmd", "", &Config::hello, "");
  });
  all.add("jp", 1, {vrfs, number(1, 3)}, [](World &world, const Words &w) {
    world.set_number(w[1], "mdt_pim_jp_interval_cmd", "<interval>", &Config::jp, std::to_string(60 * value(w[2])));
  });
  all.add("no_jp", 1, {vrfs},
          [](World &world, const Words &w) { world.set_number(w[1], "mdt_pim_jp_interval_cmd", "", &Config::jp, ""); });
  all.add("bidir", 2, {vrfs, number(0, 1)}, [](World &world, const Words &w) {
    world.set_flag(w[1], "mdt_data_bidir_enable_cmd", &Config::bidir, w[2] == "1");
  });
  all.add("inhibit", 1, {vrfs, number(0, 1)}, [](World &world, const Words &w) {
    world.set_flag(w[1], "mdt_data_inhibit_reuse_cmd", &Config::inhibit, w[2] == "1");
  });
  all.add("shared_tree", 2, {vrfs, number(0, 1)}, [](World &world, const Words &w) {
    world.set_flag(w[1], "mdt_asm_use_shared_tree_cmd", &Config::shared_tree, w[2] == "1");
  });
  all.add("enforce", 3, {vrfs, number(0, 1)}, [](World &world, const Words &w) {
    if (Vrf *vrf = world.vrf(w[1])) vrf->enforce_toggled = true;
    world.set_flag(w[1], "mdt_enforce_bgp_mdt_safi_cmd", &Config::enforce, w[2] == "1");
  });
  all.add("bad_range", 1, {vrfs, number(0, 3)}, [](World &world, const Words &w) {
    constexpr const char *bad[] = {"10.1.0.0/16", "239.2.0.1/24", "224.0.0.0/4", "0.0.0.0/0"};
    world.set_range(w[1], {bad[value(w[2])], 1, false, ""});
  });
  all.add("views", 2, {vrfs}, [](World &world, const Words &w) { world.all_commands_without_effect(w[1]); });
  all.add("views_of_all", 1, {}, [](World &world, const Words &) { world.all_commands_without_effect(""); });
  all.fault("unusable", 1, {vrfs}, [](World &world, const Words &w) {
    world.unusable.insert(w[1]);
    ref::set_pcib_usable(w[1], false);
  });
}

// Flows of the sites.
void add_flows(Kinds &all) {
  all.add("flow", 16, {vrfs, sources, groups, rates},
          [](World &, const Words &w) { flow(w[1], w[2], w[3], value(w[4]), false); });
  all.add("flow_of_group", 2, {vrfs, groups, rates},
          [](World &, const Words &w) { flow(w[1], "*", w[2], value(w[3]), false); });
  all.add("flow_bidir", 3, {vrfs, groups, rates},
          [](World &, const Words &w) { flow(w[1], "*", w[2], value(w[3]), true); });
  all.add("rate", 10, {vrfs, sources, groups, rates},
          [](World &, const Words &w) { ref::set_customer_rate(w[1], addrs(w[2], w[3]), value(w[4])); });
  all.add("flows_many", 2, {vrfs, number(2, 25), rates}, [](World &, const Words &w) {
    for (uint32_t i = 0; i < value(w[2]); i++)
      flow(w[1], dotted(address("192.168.2.1") + i), "232.8.2.1", value(w[3]), false);
  });
  all.add("flow_dips", 3, {vrfs, sources, groups}, [](World &, const Words &w) { let_dip(w[1], w[2], w[3]); });
  all.add("rpf_lookup", 2, {vrfs, groups, number(0, 3)},
          [](World &world, const Words &w) { look_up_rpf(world, w[1], w[2], value(w[3])); });
  all.add("flow_stays", 2, {vrfs, sources, groups}, [](World &, const Words &w) {
    change_route(w[1], w[2], w[3], [](ref::CustomerRoute &route) { route.to_mvpn = false; });
  });
  all.add("flow_moves", 4, {vrfs, sources, groups, number(201, 204)}, [](World &, const Words &w) {
    change_route(w[1], w[2], w[3],
                 [&w](ref::CustomerRoute &route) { route.rpf_neighbor = address("172.16.0." + w[4]); });
  });
  all.add("route_delete", 6, {vrfs, sources, groups},
          [](World &, const Words &w) { ref::delete_customer_route(w[1], addrs(w[2], w[3])); });
  all.add("route_of_group_delete", 3, {vrfs, groups},
          [](World &, const Words &w) { ref::delete_customer_route(w[1], addrs("*", w[2])); });
}

// Receivers at the sites.
void add_receivers(Kinds &all) {
  all.add("receiver", 8, {vrfs, far_sources, heard_groups, pes},
          [](World &, const Words &w) { receiver(w[1], w[2], w[3], w[4]); });
  all.add("receiver_of_group", 4, {vrfs, heard_groups, pes},
          [](World &, const Words &w) { receiver(w[1], "*", w[2], w[3]); });
  all.add("receiver_bidir", 2, {vrfs, heard_groups, pes},
          [](World &, const Words &w) { receiver(w[1], "*", w[2], w[3], true); });
  all.add("receiver_leaves", 3, {vrfs, far_sources, heard_groups}, [](World &, const Words &w) {
    change_route(w[1], w[2], w[3], [](ref::CustomerRoute &route) { route.oifs.clear(); });
  });
  all.add("receiver_delete", 3, {vrfs, far_sources, heard_groups},
          [](World &, const Words &w) { ref::delete_customer_route(w[1], addrs(w[2], w[3])); });
  all.add("policy", 1, {sources}, [](World &world, const Words &w) { world.set_policy({address(w[1])}); });
}

// Announcements of other PEs.
void add_announcements(Kinds &all) {
  all.add("announce", 8, {vrfs, far_sources, heard_groups, pes, data_groups}, [](World &world, const Words &w) {
    world.announce({w[1], address(w[2]), address(w[3]), address(w[4]), address(w[5])});
  });
  all.add("announce_group", 3, {vrfs, heard_groups, pes, data_groups}, [](World &world, const Words &w) {
    world.announce({w[1], 0, address(w[2]), address(w[3]), address(w[4])});
  });
  all.add("announce_own", 2, {vrfs, sources, heard_groups, data_groups}, [](World &world, const Words &w) {
    world.announce({w[1], address(w[2]), address(w[3]), address("172.16.0.200"), address(w[4])});
  });
  all.add("announce_no_group", 1, {vrfs, far_sources, heard_groups, pes, number(0, 1)},
          [](World &world, const Words &w) {
            world.announce({w[1], address(w[2]), address(w[3]), address(w[4]), w[5] == "0" ? 0 : address("10.1.2.3")});
          });
  all.add("announce_many", 1, {vrfs, pes, number(1, 1200)}, [](World &world, const Words &w) {
    for (uint32_t i = 0; i < value(w[3]); i++)
      world.announce({w[1], address("192.168.9.1"), address("232.8.1.0") + i, address(w[2]), address("239.7.1.0") + i});
  });
  all.add("announcement_limit", 1, {number(1, 50)},
          [](World &, const Words &w) { mvpn_data_mdt_recv_cache_limit = value(w[1]); });
  all.add("announce_stored", 1, {vrfs}, [](World &world, const Words &w) {
    const pim_cibtype *pcib = pim_get_cib_by_context_name(w[1].c_str());
    if (world.running() && pcib != nullptr && pcib->mvpn != nullptr)
      mvpn_unconditional_announce_data_mdt_join(pcib->mvpn);
  });
  all.add("datagram_hostile", 2, {vrfs, number(0, 9999)},
          [](World &world, const Words &w) { hostile_datagram(world, w[1], value(w[2])); });
}

// BGP.
void add_bgp(Kinds &all) {
  all.add("bgp_add", 8, {pes, default_groups}, [](World &, const Words &w) { join_group(w[1], w[2]); });
  all.add("bgp_withdraw", 3, {pes}, [](World &, const Words &w) { leave_group(w[1]); });
  all.add("bgp_many", 1, {default_groups, number(1, 400)},
          [](World &, const Words &w) { join_many(w[1], value(w[2])); });
  all.add("bgp_many_withdraw", 1, {}, [](World &, const Words &) {
    std::vector<ref::MdtSafi> entries;
    for (const ref::MdtSafi &entry : ref::bgp_remote_entries())
      if (entry.source >> 16 == address("10.8.0.0") >> 16) entries.push_back(entry);
    ref::bgp_withdraw_remote(entries);
  });
  all.add("bgp_second_rd", 1, {pes, default_groups}, [](World &world, const Words &w) {
    world.ambiguous_pes.insert(address(w[1]));
    ref::bgp_add_remote({remote_entry(w[1], w[2], 1)});
  });
  all.add("bgp_request_local", 1, {}, [](World &, const Words &) { ref::bgp_request_local(); });
  all.add("bgp_end_of_rib", 1, {}, [](World &, const Words &) { ref::bgp_end_of_rib(); });
  all.fault("message_hostile", 2, {number(0, 9999)}, [](World &, const Words &w) { hostile_message(value(w[1])); });
  all.add("bgp_connector", 1, {pes}, [](World &world, const Words &w) {
    const ref::MdtSafi entry = remote_entry(w[1], "239.1.0.1", 0);
    ip_addr_t source = 0;
    if (world.running())
      mvpn_bgp_get_context_by_connector_attribute(nullptr, ref::bgp_make_connector_attribute(entry.rd, entry.source),
                                                  &source);
  });
  all.add("rd", 3, {vrfs, number(1, 3)},
          [](World &world, const Words &w) { world.set_rd(w[1], "65000:" + w[2] + "00" + w[1].substr(1)); });
  all.add("rd_again", 1, {vrfs}, [](World &world, const Words &w) {
    if (const Vrf *vrf = world.vrf(w[1])) world.set_rd(w[1], vrf->rd);
  });
  all.add("no_rd", 1, {vrfs}, [](World &world, const Words &w) { world.set_rd(w[1], ""); });
  all.add("update_source", 2, {core}, [](World &world, const Words &w) { world.set_update_source(w[1]); });
  all.add("no_update_source", 1, {}, [](World &world, const Words &) { world.set_update_source(""); });
}

// Interfaces of the core.
void add_interfaces(Kinds &all) {
  all.add("interface_down", 4, {core}, [](World &, const Words &w) { ref::set_interface_state(w[1], false); });
  all.add("interface_up", 5, {core}, [](World &, const Words &w) { ref::set_interface_state(w[1], true); });
  all.add("interface_flap", 3, {core}, [](World &, const Words &w) {
    ref::set_interface_state(w[1], false);
    ref::set_interface_state(w[1], true);
  });
  all.add("interface_address", 3, {core}, [](World &world, const Words &w) {
    world.address_overtaken = world.address_overtaken || world.rd_in_flight;
    ref::set_interface_address(w[1], address("10.0.0.0") + world.next_address++);
  });
  all.add("interface_no_address", 1, {core}, [](World &, const Words &w) { ref::set_interface_address(w[1], 0); });
  all.add("interface_remove", 1, {core}, [](World &, const Words &w) { ref::delete_interface(w[1]); });
  all.add("interface_add", 1, {core}, [](World &world, const Words &w) {
    if (ref::create_interface(w[1], VRF_CONTEXT_ID_DEFAULT, 0, false) == 0) return;
    ref::set_interface_address(w[1], address("10.0.0.0") + world.next_address++);
    ref::set_interface_state(w[1], true);
  });
}

// Tunnel manager.
void add_tunnels(Kinds &all) {
  all.disturb("tunnel_answers", 6, {number(0, 1)}, [](World &world, const Words &w) {
    world.answers_late = world.answers_late || w[1] == "0";
    ref::set_oim_answers(w[1] == "1");
  });
  all.fault("tunnel_answers_lost", 2, {number(1, 3)},
            [](World &world, const Words &w) { world.lose_answers(value(w[1])); });
  all.fault("tunnel_answer_unasked", 3, {vrfs, number(0, 2), number(0, 1)}, [](World &world, const Words &w) {
    world.spurious_answer(w[1], MTS_OPC_OIM_IF_CREATE_RESPONSE + value(w[2]), w[3] == "1");
  });
  all.disturb("tunnel_flap", 3, {vrfs}, [](World &world, const Words &w) {
    world.tunnel_fell = true;
    const std::string name = tunnel_of(w[1]);
    const ref::Interface *tunnel = ref::find_interface(std::string_view(name));
    if (tunnel == nullptr || !tunnel->up) return;
    ref::set_interface_state(name, false);
    ref::set_interface_state(name, true);
  });
  all.disturb("tunnel_down", 2, {vrfs}, [](World &world, const Words &w) {
    world.tunnel_fell = true;
    ref::set_interface_state(tunnel_of(w[1]), false);
  });
  all.add("orphan", 1, {number(40, 42)}, [](World &, const Words &w) { ref::create_orphan_tunnel(value(w[1])); });
}

// Multicast RIB.
void add_mrib(Kinds &all) {
  all.disturb("mrib_acks", 5, {number(0, 1)}, [](World &world, const Words &w) {
    world.acks_late = world.acks_late || w[1] == "0";
    ref::set_mrib_acks(w[1] == "1");
  });
  all.add("mrib_refuses", 2, {number(1, 3)}, [](World &, const Words &w) { ref::mrib_refuse_updates(value(w[1])); });
  all.fault("mrib_refuses_encaps", 1, {number(1, 3)},
            [](World &, const Words &w) { ref::mrib_refuse_encaps(value(w[1])); });
  all.add("core_join", 3, {default_groups, pes}, [](World &world, const Words &w) {
    world.joined_sources.insert(address(w[2]));
    ref::mrib_add_route(VRF_CONTEXT_ID_DEFAULT, addrs(w[2], w[1]), 0);
  });
  all.add("core_leave", 1, {default_groups, pes},
          [](World &, const Words &w) { ref::mrib_delete_route(VRF_CONTEXT_ID_DEFAULT, addrs(w[2], w[1])); });
  all.add("core_deleted", 2, {default_groups, pes},
          [](World &, const Words &w) { ref::mrib_notify_delete(VRF_CONTEXT_ID_DEFAULT, addrs(w[2], w[1])); });
  all.add("core_cleared", 1, {default_groups, number(0, 1)}, [](World &world, const Words &w) {
    world.cleared = true;
    mvpn_mdt_route_addrs filter = addrs("*", w[1]);
    filter.group_len = w[2] == "1" ? 8 : 32;
    ref::mrib_notify_clear(VRF_CONTEXT_ID_DEFAULT, filter, false, false);
  });
  all.add("mrib_asks_again", 2, {number(0, 4)},
          [](World &, const Words &w) { ref::mrib_request_repopulate(VRF_CONTEXT_ID_DEFAULT, nullptr, value(w[1])); });
  all.add("mrib_initializing", 2, {vrfs, number(0, 1)}, [](World &world, const Words &w) {
    if (const Vrf *vrf = world.vrf(w[1])) ref::set_mrib_initializing(vrf->context_id, w[2] == "1");
  });
  all.add("core_route_freed", 1, {data_groups}, [](World &, const Words &w) { core_route_freed(w[1]); });
}

// Failures of platform calls.
void add_failures(Kinds &all) {
  all.fault("fail_any", 5, {number(1, 60)}, [](World &, const Words &w) { trace::fail_any(value(w[1])); });
  all.fault("fail", 5, {failing, number(1, 4), number(1, 3)},
            [](World &, const Words &w) { trace::fail(w[1], value(w[2]), value(w[3])); });
  all.fault("fail_store", 2, {failing_store, number(1, 3)},
            [](World &, const Words &w) { trace::fail(w[1], value(w[2])); });
}

// The module's life.
void add_life(Kinds &all) {
  all.add("start", 1, {}, [](World &world, const Words &) { world.start(); });
  all.fault("stop", 1, {number(0, 1)}, [](World &world, const Words &w) { world.stop(w[1] == "1"); });
  all.add("feature_off_on", 1, {}, [](World &world, const Words &) {
    if (!world.running()) return;
    world.stop(false);
    world.start();
  });
  all.add("crash", 1, {}, [](World &world, const Words &) { world.crash(); });
  all.add("cli_done", 1, {}, [](World &world, const Words &) {
    if (world.running()) mvpn_cli_done();
  });
}

// Time.
void add_time(Kinds &all) {
  all.add("settle", 1, {}, [](World &, const Words &) {});
  all.add("seconds", 5, {number(1, 40)},
          [](World &, const Words &w) { ref::advance(std::chrono::seconds(value(w[1]))); });
  all.add("minutes", 8, {number(1, 3)},
          [](World &, const Words &w) { ref::advance(std::chrono::seconds(60 * value(w[1]) + 4)); });
  all.add("statistics", 3, {}, [](World &, const Words &) { ref::statistics_pass(); });
}

const std::vector<Kind> &kinds() {
  static const Kinds made = [] {
    Kinds all;
    for (const auto add : {add_vrfs, add_commands, add_settings, add_flows, add_receivers, add_announcements, add_bgp,
                           add_interfaces, add_tunnels, add_mrib, add_failures, add_life, add_time})
      add(all);
    return all;
  }();
  return made.all;
}

const Kind *kind_of(const std::string &name) {
  for (const Kind &kind : kinds())
    if (name == kind.name) return &kind;
  return nullptr;
}

// Kinds that cannot be played inside a call of the module: they end it, or move the clock that the call stands on.
bool is_for_the_top(const std::string &kind) {
  static const std::set<std::string> top = {"start", "stop", "feature_off_on", "crash", "seconds", "minutes"};
  return top.contains(kind);
}

Words draw_words(Random &random, Level level) {
  unsigned total = 0;
  for (const Kind &kind : kinds())
    if (kind.level <= level) total += kind.weight;
  size_t at = random.below(total);
  for (const Kind &kind : kinds()) {
    if (kind.level > level) continue;
    if (at >= kind.weight) {
      at -= kind.weight;
      continue;
    }
    Words words{kind.name};
    for (const Draw &word : kind.words) words.push_back(word(random));
    return words;
  }
  return {"settle"};
}

// "in_yield N STEP ; STEP": the steps run when the module gives way.
Step draw_step(Random &random, Level level) {
  Step step;
  step.settles = !random.chance(25);
  if (!random.chance(4)) {
    step.words = draw_words(random, level);
    return step;
  }
  step.words = {"in_yield", random.number(1, 3)};
  for (size_t left = 1 + random.below(2); left > 0; left--) {
    Words inner = draw_words(random, level);
    if (is_for_the_top(inner[0])) continue;
    if (step.words.size() > 2) step.words.push_back(";");
    step.words.insert(step.words.end(), inner.begin(), inner.end());
  }
  return step;
}

// What comes first, since little happens without it.
void draw_beginning(Random &random, std::vector<Step> &steps) {
  const bool replayed = random.chance(20);  // the configuration is there before the module
  if (!replayed) steps.push_back({true, {"start"}});
  for (const char *vrf : {"v1", "v2"}) {
    steps.push_back({true, {"vrf_add", vrf}});
    steps.push_back({true, {"default", vrf, random.of(default_groups)}});
    if (random.chance(70)) steps.push_back({true, {"range", vrf, random.of(ranges), random.of(thresholds)}});
  }
  if (replayed) steps.push_back({true, {"start"}});
}

// Kinds after which a flow must still get the choice that it had before a restart.
bool leaves_choices(const std::string &kind) {
  static const std::set<std::string> leave = {
      "settle",      "seconds",     "minutes",        "statistics", "views",   "interface_down", "interface_up",
      "tunnel_flap", "tunnel_down", "tunnel_answers", "mrib_acks",  "bgp_add", "announce"};
  return leave.contains(kind);
}

// Kinds after which the module may wait for ever for an answer that it has missed.
bool leaves_requests_open(const Words &words) {
  static const std::set<std::string> open = {"tunnel_answers_lost", "tunnel_answer_unasked", "message_hostile", "stop",
                                             "fail_any"};
  return open.contains(words[0]) || (words[0] == "fail" && words[1] == "ksink_im_get_ifindex_frm_iod");
}

bool play_words(World &world, const Words &words) {
  const Kind *kind = kind_of(words[0]);
  if (kind == nullptr || words.size() != kind->words.size() + 1) return false;
  if (kind->level == Level::fault) world.faulty = true;
  if (words[0].starts_with("fail") || words[0] == "mrib_refuses_encaps") world.calls_failed = true;
  if (leaves_requests_open(words)) world.requests_left_open = true;
  if (!leaves_choices(words[0])) world.remembered.clear();
  kind->play(world, words);
  return true;
}

std::vector<Words> inner_steps(const Words &words) {
  std::vector<Words> all(1);
  for (size_t i = 2; i < words.size(); i++) {
    if (words[i] == ";")
      all.emplace_back();
    else
      all.back().push_back(words[i]);
  }
  std::erase_if(all, [](const Words &one) { return one.empty(); });
  return all;
}

bool is_known(const Words &words) {
  if (words[0] == "in_yield") {
    const auto inner = inner_steps(words);
    return words.size() >= 2 && std::all_of(inner.begin(), inner.end(), is_known);
  }
  const Kind *kind = kind_of(words[0]);
  return kind != nullptr && words.size() == kind->words.size() + 1;
}

}  // namespace

size_t kinds_of_steps() { return kinds().size() + 1; }

Script draw(uint64_t seed) {
  Random random(seed);
  Script script;
  script.scheduler = seed;
  const Level level = seed % 3 == 0 ? Level::fault : seed % 3 == 1 ? Level::disturbance : Level::plain;
  draw_beginning(random, script.steps);
  for (size_t left = 15 + random.below(45); left > 0; left--) script.steps.push_back(draw_step(random, level));
  return script;
}

void play(World &world, const Step &step) {
  if (step.words[0] == "in_yield") {
    world.in_yield(value(step.words[1]), [&world, inner = inner_steps(step.words)] {
      for (const Words &words : inner) {
        play_words(world, words);
        ref::settle();
      }
    });
  } else {
    play_words(world, step.words);
  }
  world.under_way = true;
  if (!step.settles) return;
  ref::settle();
  world.under_way = world.rd_in_flight = false;
  check_settled(world);
}

std::string print(const Script &script) {
  std::string text = "scheduler " + std::to_string(script.scheduler) + "\n";
  for (const Step &step : script.steps) {
    if (!step.settles) text += "+ ";
    for (size_t i = 0; i < step.words.size(); i++) text += (i == 0 ? "" : " ") + step.words[i];
    text += "\n";
  }
  return text;
}

std::optional<Script> parse(const std::string &text, std::string *problem) {
  Script script;
  std::istringstream lines(text);
  unsigned number = 0;
  for (std::string line; std::getline(lines, line);) {
    number++;
    std::istringstream in(line.substr(0, line.find('#')));
    Step step;
    for (std::string word; in >> word;) {
      if (word == "+" && step.words.empty())
        step.settles = false;
      else
        step.words.push_back(word);
    }
    if (step.words.empty()) continue;
    if (step.words[0] == "scheduler" && step.words.size() == 2) {
      script.scheduler = std::stoull(step.words[1]);
      continue;
    }
    if (!is_known(step.words)) {
      *problem = "line " + std::to_string(number) + ": no such step: " + line;
      return std::nullopt;
    }
    script.steps.push_back(step);
  }
  return script;
}

}  // namespace simulation
