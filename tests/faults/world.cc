// Four VRFs, a customer site in each, one remote PE. What was configured is kept as lines, so that a module that is
// started anew is given them again.
#include "tests/faults/world.h"
#include "routing/pim/mvpn/mvpn_ha.h"
#include "routing/pim/mvpn/mvpn_mdt_route.h"
#include "routing/pim/mvpn/mvpn_mdt_safi.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <set>
#include <type_traits>

#include "platform/reference/bgp.h"
#include "platform/reference/cli.h"
#include "platform/reference/croute.h"
#include "platform/reference/diag.h"
#include "platform/reference/im.h"
#include "platform/reference/l3vm.h"
#include "platform/reference/module.h"
#include "platform/reference/mrib.h"
#include "platform/reference/oim.h"
#include "platform/reference/packet.h"
#include "platform/reference/pim.h"
#include "platform/reference/pss.h"
#include "platform/reference/rpm.h"
#include "platform/reference/testing/runtime.h"
#include "tests/support/command.h"
#include "tests/support/linked_module.h"
#include "tests/support/module_test.h"

namespace faults {
namespace {

using namespace std::chrono_literals;

constexpr const char *remote_pe_address = "10.0.0.9";

ref::MdtSafi safi(std::string_view source, std::string_view distinguisher, std::string_view group) {
  ref::MdtSafi entry;
  entry.source = addr(source);
  std::copy_n(rd(distinguisher).begin(), ROUTE_DISTINGUISHER_SIZE, entry.rd);
  entry.group = addr(group);
  return entry;
}

void put_be32(std::vector<uint8_t> &out, uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(value >> shift));
}

std::string site_of(const std::string &vrf) { return "site-" + vrf; }

}  // namespace

World::World() {
  trace::reset();
  ref::reset();
  ref::set_module(linked_module());
  ref::set_log_sink(ref::LogSink::none);
  ref::add_bidir_range(addr("239.128.0.0"), 16);
  ref::create_interface("loopback0", VRF_CONTEXT_ID_DEFAULT, addr("10.0.0.1"), true);
  ref::create_interface("loopback1", VRF_CONTEXT_ID_DEFAULT, addr("10.0.0.101"), true);
  ref::bgp_set_update_source("loopback0", false);
  vrf_context_id_t context_id = 2;
  for (const std::string vrf : {"red", "blue", "green", "white"}) {
    ref::create_vrf(vrf, context_id, context_id);
    ref::bgp_set_rd(vrf, rd("65000:" + std::to_string(context_id)).data(), false);
    ref::create_interface(site_of(vrf), context_id, addr("172.16.0.1"), true);
    context_id++;
  }
  ref::set_policy("flows", {{true, addr("172.16.9.1"), addr("225.0.0.0"), 32, 8}});
  ref::set_cli_replay([this](const std::string &vrf) { replay_vrf(vrf); });
}

// ------------------------------------------------------------------------------------------------------ start and stop

void World::replay_vrf(const std::string &vrf) {
  for (const Line &line : configuration_)
    if (line.vrf == vrf) run(line, false, false);
  if (pim_cibtype *pcib = pim_get_cib_by_context_name(vrf.c_str())) mvpn_cli_vrf_done(pcib);
}

void World::replay() {
  std::set<std::string> vrfs;
  for (const Line &line : configuration_) vrfs.insert(line.vrf);
  pim_cli_requests_sent_count = static_cast<uint16_t>(vrfs.size());
  pim_cli_done_recv_count = 0;
  for (const std::string &vrf : vrfs) {
    replay_vrf(vrf);
    pim_cli_done_recv_count++;
    mvpn_cli_done();
  }
}

bool World::start() {
  ref::set_feature_configured(true);
  const bool started = mvpn_init() == 1;
  mvpn_init_cli();
  replay();
  ref::enable_interface_events(false);
  ref::enable_interface_events(true);
  ref::bgp_add_remote(ref::bgp_remote_entries());
  ref::settle();
  return started;
}

void World::restart() {
  ref::set_feature_configured(false);
  mvpn_deinit(1);
  ref::bgp_forget_local();
  ref::wait_for_threads();
  ref::settle();
  start();
}

void World::restart_in_place() {
  mvpn_deinit(1);
  ref::wait_for_threads();
  ref::settle();
  start();
}

void World::crash() {
  const auto survived = ref::pss_records();
  ref::set_feature_configured(false);
  mvpn_deinit(1);
  ref::bgp_forget_local();
  ref::wait_for_threads();
  ref::settle();
  for (const auto &[key, value] : survived)
    ksink_pss_update(pim_ha_handle, key.data(), PSS_KEY_SIZE, value.data(), static_cast<uint32_t>(value.size()));
  ref::set_stateful_restart(true);
  start();
  ref::set_stateful_restart(false);
}

// ------------------------------------------------------------------------------------------------------- the operator

int World::run(const Line &line, bool no_form, bool interactive) {
  std::vector<ref::CliArgument> arguments;
  for (size_t i = 0; i + 1 < line.arguments.size(); i += 2)
    arguments.push_back({line.arguments[i], line.arguments[i + 1]});
  return run_handler({.handler = line.handler,
                      .arguments = std::move(arguments),
                      .vrf_name = line.vrf,
                      .no_form = no_form,
                      .interactive = interactive});
}

// A line replaces the one of the same command that starts with the same argument.
static bool is_same_setting(const std::string &handler, const World::Words &a, const World::Words &b) {
  return handler != "mdt_data_cmd" || (a.size() > 1 && b.size() > 1 && a[1] == b[1]);
}

void World::configure(const std::string &vrf, const std::string &handler, const Words &arguments) {
  const auto same = [&](const Line &line) {
    return line.vrf == vrf && line.handler == handler && is_same_setting(handler, line.arguments, arguments);
  };
  const auto found = std::find_if(configuration_.begin(), configuration_.end(), same);
  const Line line{vrf, handler, arguments};
  if (found != configuration_.end())
    *found = line;
  else
    configuration_.push_back(line);
  run(line, false, true);
  ref::settle();
}

void World::unconfigure(const std::string &vrf, const std::string &handler, const Words &arguments) {
  std::erase_if(configuration_, [&](const Line &line) {
    const bool whole_vrf = handler == "mdt_default_cmd";  // its other lines go with the default group
    return line.vrf == vrf &&
           (whole_vrf || (line.handler == handler && is_same_setting(handler, line.arguments, arguments)));
  });
  run({vrf, handler, arguments}, true, true);
  ref::settle();
}

void World::look_at_everything() {
  const std::vector<std::string> names = ref::cli_registered();
  for (const std::string &name : std::set<std::string>(names.begin(), names.end())) {
    if (!name.starts_with("mvpn_show")) continue;
    for (const bool getnext : {false, true})
      run_handler({.handler = name, .arguments = {}, .vrf_name = {}, .all_vrfs = true, .getnext = getnext});
  }
  ref::settle();
}

// ---------------------------------------------------------------------------------------------- routes and neighbours

void World::flow(const std::string &vrf, std::string_view source, std::string_view group, uint64_t kbps,
                 bool bidirectional) {
  ref::CustomerRoute route;
  route.addrs = route_addrs(source, group);
  route.iif = site_of(vrf);
  route.rpf_neighbor = addr("172.16.0.2");
  route.rate_kbps = kbps;
  route.bidirectional = bidirectional;
  route.to_mvpn = true;
  ref::set_customer_route(vrf, route);
  ref::settle();
}

void World::receiver(const std::string &vrf, std::string_view source, std::string_view group) {
  ref::CustomerRoute route;
  route.addrs = route_addrs(source, group);
  route.iif = "mvpn";
  route.rpf_neighbor = addr(remote_pe_address);
  route.oifs = {site_of(vrf)};
  ref::set_customer_route(vrf, route);
  ref::settle();
}

void World::no_route(const std::string &vrf, std::string_view source, std::string_view group) {
  ref::delete_customer_route(vrf, route_addrs(source, group));
  ref::settle();
}

void World::remote_pe(std::string_view source, std::string_view distinguisher, std::string_view group) {
  ref::bgp_add_remote({safi(source, distinguisher, group)});
  ref::settle();
}

void World::no_remote_pe(std::string_view source, std::string_view distinguisher, std::string_view group) {
  ref::bgp_withdraw_remote({safi(source, distinguisher, group)});
  ref::settle();
}

void World::announce(const Announcement &announcement) {
  std::vector<uint8_t> datagram = {0x45, 0xC0, 0, 44, 0, 0, 0, 0, 1, 17, 0, 0};
  put_be32(datagram, addr(remote_pe_address));
  put_be32(datagram, addr("224.0.0.13"));
  for (const uint8_t byte : {0x0C, 0xA0, 0x0C, 0xA0, 0, 24, 0, 0, 1, 0, 16, 0}) datagram.push_back(byte);
  for (const uint32_t word : {announcement.c_src, announcement.c_grp, announcement.data_group})
    put_be32(datagram, word);
  ref::receive_core_packet({addr(remote_pe_address), announcement.default_group, datagram});
  ref::settle();
}

void World::announcement(std::string_view default_group, std::string_view c_src, std::string_view c_grp,
                         std::string_view data_group) {
  const Announcement wanted{addr(default_group), c_src == "*" ? 0 : addr(c_src), addr(c_grp), addr(data_group)};
  std::erase_if(announcements_, [&](const Announcement &other) {
    return other.default_group == wanted.default_group && other.c_src == wanted.c_src && other.c_grp == wanted.c_grp;
  });
  announcements_.push_back(wanted);
  announce(wanted);
}

void World::minute() {
  ref::statistics_pass();
  ref::settle();
  ref::advance(4s);  // switchovers end
  for (const Announcement &announcement : announcements_) announce(announcement);
  ref::advance(56s);
}

void World::bounce() {
  for (const bool up : {false, true}) {
    for (const char *name : {"loopback0", "loopback1"}) ref::set_interface_state(name, up);
    ref::settle();
  }
}

// -------------------------------------------------------------------------------------------------------------- state

namespace {

using Lines = std::vector<std::string>;

template <typename... Parts>
std::string line(const Parts &...parts) {
  std::string text;
  const auto add = [&text](const auto &part) {
    if (!text.empty()) text += ' ';
    if constexpr (std::is_arithmetic_v<std::decay_t<decltype(part)>>)
      text += std::to_string(part);
    else
      text += part;
  };
  (add(parts), ...);
  return text;
}

void add_configuration(const mvpn_cibtype *mvpn, Lines &out) {
  const std::string vrf = mvpn->pcib->vrf_name;
  out.push_back(line(vrf, "settings", mvpn->mdt_mtu, mvpn->pim_hello_interval, mvpn->pim_jp_interval,
                     mvpn->data_mdt_bidir_enable, mvpn->data_mdt_inhibit_reuse, mvpn->asm_use_shared_tree,
                     mvpn->enforce_bgp_mdt_safi, mvpn->mdt_source_ifname));
  for (const mvpn_data_mdt_range *range = mvpn->data_mdt_config; range != nullptr; range = range->next)
    out.push_back(line(vrf, "range", dotted(range->prefix), range->masklen, range->threshold, range->immediate_switch,
                       range->policy.policy_name != nullptr ? range->policy.policy_name : "-"));
}

void add_tunnel_interface(const mvpn_cibtype *mvpn, Lines &out) {
  const pim_iftype *interface = mvpn->mti_pim_if;
  if (interface == nullptr) return;
  out.push_back(line(mvpn->pcib->vrf_name, "PIM", interface->pim_enabled, dotted(interface->local_addr),
                     interface->hello_interval, interface->jp_interval, interface->mtu));
}

// A core route of a flow is one of many that would do: only their number is kept.
void add_core_routes(mvpn_cibtype *mvpn, Lines &out) {
  uint32_t local_data = 0;
  for (const mvpn_mdt_route *route = mvpn_mdt_mroute_first(mvpn); route != nullptr;
       route = mvpn_mdt_mroute_after(mvpn, route->source, route->group)) {
    if (route->route_type == MVPN_MDT_ROUTE_LOCAL_DATA)
      local_data++;
    else
      out.push_back(line(mvpn->pcib->vrf_name, "core", dotted(route->source), dotted(route->group),
                         uint32_t{route->route_type}, uint32_t{route->pending}));
  }
  out.push_back(line(mvpn->pcib->vrf_name, "data routes", local_data));
}

void add_flows(const mvpn_cibtype *mvpn, Lines &out) {
  pim_cibtype *pcib = mvpn->pcib;
  for (pt_node *node = pt_get_first_node(pcib->route_tree, nullptr, 0); node != nullptr;
       node = pt_get_next_node(pcib->route_tree, pt_node_key(node), 0)) {
    const auto *croute = static_cast<const pim_route *>(pt_node_data(node));
    const mvpn_data_mdt_send_join_info *record = croute->send_join_info;
    const std::string name = line(pcib->vrf_name, "flow", dotted(croute->addrs.source), dotted(croute->addrs.group));
    if (record == nullptr)
      out.push_back(name + " -");
    else
      out.push_back(line(name, uint32_t{record->state}, std::min<uint32_t>(record->encap_index, 2),
                         record->mdt_route != nullptr ? "routed" : "-", record->config != nullptr ? "ranged" : "-",
                         record->group != 0 ? "group" : "-"));
  }
}

void add_received(const mvpn_cibtype *mvpn, Lines &out) {
  for (pt_node *node = pt_get_first_node(mvpn->data_mdt_recv_cache, nullptr, 0); node != nullptr;
       node = pt_get_next_node(mvpn->data_mdt_recv_cache, pt_node_key(node), 0)) {
    const auto *join = static_cast<const mvpn_data_mdt_recv_join_info *>(pt_node_data(node));
    out.push_back(line(mvpn->pcib->vrf_name, "heard", dotted(join->c_src), dotted(join->c_grp), dotted(join->p_grp),
                       join->flags));
  }
}

void add_vrfs(Lines &out) {
  pim_cib_iterator iterator;
  for (pim_cibtype *pcib = pim_get_first_cib_by_name(&iterator); pcib != nullptr;
       pcib = pim_get_next_cib_by_name(&iterator)) {
    mvpn_cibtype *mvpn = pcib->mvpn;
    if (mvpn == nullptr) continue;
    out.push_back(line(pcib->vrf_name, mvpn_mti_status_str[mvpn->mti_status], dotted(mvpn->mdt_default_group),
                       mvpn_mdt_group_mode_str[mvpn->mdt_group_mode], dotted(mvpn->mdt_source_addr),
                       mvpn->bgp_rd_set != 0 ? "RD" : "no RD", mvpn->bgp_rd[7],
                       mvpn->switchover_timer != nullptr ? "timer" : "no timer"));
    add_configuration(mvpn, out);
    add_tunnel_interface(mvpn, out);
    add_core_routes(mvpn, out);
    add_flows(mvpn, out);
    add_received(mvpn, out);
  }
}

bool is_own(ip_addr_t source) { return source == addr("10.0.0.1") || source == addr("10.0.0.101"); }
bool is_data_group(ip_addr_t group) { return group >> 16 == 0xEF02; }  // 239.2.0.0/16: the ranges of this PE

void add_mrib(Lines &out) {
  size_t own_data = 0;
  for (const ref::MribRoute &route : ref::mrib_routes()) {
    if (is_own(route.addrs.source) && is_data_group(route.addrs.group))
      own_data++;
    else
      out.push_back(line("MRIB", route.context_id, dotted(route.addrs.source), dotted(route.addrs.group)));
  }
  std::map<vrf_context_id_t, size_t> data_encaps;
  for (const ref::MribEncap &encap : ref::mrib_encaps()) {
    if (encap.index == MVPN_ENCAP_INDEX_DEFAULT)
      out.push_back(line("encap", encap.context_id, dotted(encap.group), dotted(encap.source)));
    else
      data_encaps[encap.context_id]++;
  }
  for (const auto &[context_id, count] : data_encaps) out.push_back(line("data encaps", context_id, count));
  out.push_back(line("MRIB data routes", own_data));
}

void add_services(Lines &out) {
  for (const ref::MdtSafi &entry : ref::bgp_local_entries())
    out.push_back(line("advertised", dotted(entry.source), entry.rd[7], dotted(entry.group)));
  ravl_iterator iterator;
  ravl_init_iterator(&iterator, &mvpn_bgp_mdt_safi_db);
  for (auto *entry = static_cast<mvpn_bgp_mdt_safi *>(ravl_get_first_user_data(&iterator)); entry != nullptr;
       entry = static_cast<mvpn_bgp_mdt_safi *>(ravl_get_next_user_data(&iterator)))
    out.push_back(
        line("SAFI", dotted(entry->key.mdt_src), entry->key.bgp_rd[7], dotted(entry->key.mdt_grp), entry->local));
  for (const ref::Tunnel &tunnel : ref::tunnels())
    out.push_back(line("tunnel", tunnel.vrf_name, dotted(tunnel.source), dotted(tunnel.destination), tunnel.mtu,
                       tunnel.up ? "up" : "down"));
  for (const auto &[key, value] : ref::pss_records()) {
    const mvpn_mdt_route_addrs addrs = mvpn_ha_addrs_of_encap_key(key.data());
    out.push_back(line("stored", key[7], dotted(addrs.source), dotted(addrs.group)));
  }
  const std::vector<std::string> commands = ref::cli_registered();
  out.push_back(line("commands", std::set<std::string>(commands.begin(), commands.end()).size()));
  out.push_back(line("policies", ref::policy_bindings()));
  out.push_back(line("module", mvpn_functionality_status_str[mvpn_functionality_status], ref::thread_count()));
}

}  // namespace

Lines World::state() const {
  Lines out;
  add_vrfs(out);
  add_mrib(out);
  add_services(out);
  std::sort(out.begin(), out.end());
  return out;
}

}  // namespace faults
