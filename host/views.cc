// A view takes a copy of what a service holds and prints it row by row, so that nothing it prints can go away while it
// yields.
#include "views.h"

#include <algorithm>
#include <cstdio>
#include <map>

#include "im.h"
#include "ip.h"
#include "mvpn.h"
#include "thread.h"

namespace host {
namespace {

using Kind = Column::Kind;

std::string yes_no(bool value) { return value ? "yes" : "no"; }

std::string vrf_name(vrf_context_id_t context_id) {
  const pim_cibtype *pcib = pim_get_cib_by_context_id(context_id);
  return pcib == nullptr ? "#" + std::to_string(context_id) : pcib->vrf_name;
}

std::string interface_name(im_iod_t iod) { return iod == 0 ? "-" : ksink_im_get_if_name(iod); }

std::string source_text(const mvpn_mdt_route_addrs &addrs) {
  return addrs.source_len == MROUTE_ANY_SOURCE_LEN ? "*" : address_text(addrs.source);
}

std::string seconds_text(std::chrono::nanoseconds time) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f", std::chrono::duration<double>(time).count());
  return text;
}

// Prints a row of each item, with yields; ends early when nobody wants more.
template <typename Items, typename Row>
void print_rows(Report &report, const Items &items, Row row) {
  constexpr size_t rows_between_yields = 100;
  size_t printed = 0;
  for (const auto &item : items) {
    report.row(row(item));
    if (++printed % rows_between_yields != 0) continue;
    tsp_sched_may_yield();
    if (!report.wanted()) return;
  }
}

void show_interfaces(const ViewInput &, Report &report) {
  static const std::vector<Column> columns = {
      {"Interface", "name", 16},       {"IOD", "iod", 7, Kind::number},
      {"If-Index", "if-index", 12},    {"VRF", "vrf", 16},
      {"Address", "address", 17},      {"State", "state", 7},
      {"MTU", "mtu", 7, Kind::number}, {"Tunnel", "mvpn-tunnel", 0, Kind::boolean}};
  report.table("interface", nullptr, columns);
  std::vector<ref::Interface> all;
  for (const ref::Interface *interface : ref::interfaces()) all.push_back(*interface);
  print_rows(report, all, [](const ref::Interface &interface) -> std::vector<std::string> {
    char if_index[16];
    std::snprintf(if_index, sizeof if_index, "0x%08x", interface.if_index);
    const ip_addr_t address = ip_get_local_addr(interface.iod);
    return {interface.name,
            std::to_string(interface.iod),
            if_index,
            vrf_name(interface.context_id),
            address == 0 ? "-" : address_text(address),
            interface.up ? "up" : "down",
            std::to_string(interface.mtu),
            yes_no(interface.mvpn_tunnel)};
  });
}

void show_tunnels(const ViewInput &, Report &report) {
  static const std::vector<Column> columns = {
      {"Tunnel", "name", 16},          {"VRF", "vrf", 16},          {"Source", "source", 17}, {"Group", "group", 17},
      {"MTU", "mtu", 7, Kind::number}, {"Admin", "admin-state", 7}, {"State", "state", 0}};
  report.table("tunnel", nullptr, columns);
  print_rows(report, ref::tunnels(), [](const ref::Tunnel &tunnel) -> std::vector<std::string> {
    return {oim_print_ifname(tunnel.if_index), tunnel.vrf_name,
            address_text(tunnel.source),       address_text(tunnel.destination),
            std::to_string(tunnel.mtu),        tunnel.admin_up != 0 ? "up" : "down",
            tunnel.up ? "up" : "down"};
  });
}

void show_bgp_mdt(const ViewInput &input, Report &report) {
  static const std::vector<Column> columns = {{"PE Source", "source", 17},
                                              {"RD", "rd", 22},
                                              {"Group", "group", 17},
                                              {"Origin", "origin", 8},
                                              {"VRF", "vrf", 0}};
  if (const safi::ReflectorLink *link = input.router.links().reflector())
    report.note("Reflector: " + (link->connected() ? "connected, " + std::to_string(link->learnt()) + " entries learnt"
                                                   : std::string("not connected")));
  report.table("mdt-safi", nullptr, columns);
  const auto row = [](const char *origin) {
    return [origin](const ref::MdtSafi &safi) -> std::vector<std::string> {
      return {address_text(safi.source), mvpn_bgp_print_rd(safi.rd), address_text(safi.group), origin,
              safi.vrf_name.empty() ? "-" : safi.vrf_name};
    };
  };
  print_rows(report, ref::bgp_local_entries(), row("local"));
  print_rows(report, ref::bgp_remote_entries(), row("remote"));
}

std::string hex_of(const std::vector<uint8_t> &bytes) {
  std::string text;
  char two[4];
  for (const uint8_t byte : bytes) {
    std::snprintf(two, sizeof two, "%02x", byte);
    text += two;
  }
  return text;
}

void show_mrib_routes(const ViewInput &input, Report &report) {
  static const std::vector<Column> plain = {{"Source", "source", 17},
                                            {"Group", "group", 17},
                                            {"Core VRF", "core-vrf", 12},
                                            {"VRF", "vrf", 16},
                                            {"MTI", "mti", 14},
                                            {"Source-If", "source-interface", 14},
                                            {"Local", "local", 7, Kind::boolean},
                                            {"Xid", "xid", 0}};
  static const std::vector<Column> detailed = {{"Source", "source", 17},
                                               {"Group", "group", 17},
                                               {"Core VRF", "core-vrf", 12},
                                               {"VRF", "vrf", 16},
                                               {"MTI", "mti", 14},
                                               {"Source-If", "source-interface", 14},
                                               {"Local", "local", 7, Kind::boolean},
                                               {"RPF", "rpf-address", 17},
                                               {"Last-hop", "last-hop", 10, Kind::boolean},
                                               {"Shared", "asm-shared-tree", 8, Kind::boolean},
                                               {"Xid", "xid", 12},
                                               {"Entry", "entry", 0}};
  const bool detail = find_argument(input.statement, "detail") != nullptr;
  report.table("mrib-route", nullptr, detail ? detailed : plain);
  print_rows(report, ref::mrib_routes(), [detail](const ref::MribRoute &route) {
    char xid[16];
    std::snprintf(xid, sizeof xid, "0x%08x", route.xid);
    std::vector<std::string> values = {
        source_text(route.addrs), address_text(route.addrs.group), vrf_name(route.context_id),
        vrf_name(route.owner),    interface_name(route.mti_iod),   interface_name(route.mdt_source_iod),
        yes_no(route.local)};
    if (detail) {
      values.push_back(route.rpf_addr == 0 ? "-" : address_text(route.rpf_addr));
      values.push_back(yes_no(route.last_hop));
      values.push_back(yes_no(route.asm_shared_tree));
    }
    values.push_back(xid);
    if (detail) values.push_back(hex_of(route.entry));
    return values;
  });
}

void show_mrib_encaps(const ViewInput &, Report &report) {
  static const std::vector<Column> columns = {{"VRF", "vrf", 16},     {"Index", "index", 7, Kind::number},
                                              {"Group", "group", 17}, {"Source", "source", 17},
                                              {"MTI", "mti", 14},     {"Source-If", "source-interface", 0}};
  report.table("encapsulation", nullptr, columns);
  print_rows(report, ref::mrib_encaps(), [](const ref::MribEncap &encap) -> std::vector<std::string> {
    return {vrf_name(encap.context_id), std::to_string(encap.index),   address_text(encap.group),
            address_text(encap.source), interface_name(encap.mti_iod), interface_name(encap.source_iod)};
  });
}

struct CoreGroup {
  size_t local = 0, remote = 0;  // routes
  std::string used_by;           // VRF:index, ...
};

void show_core_groups(const ViewInput &, Report &report) {
  static const std::vector<Column> columns = {{"Group", "group", 17},
                                              {"Mode", "mode", 8},
                                              {"Local", "local-routes", 8, Kind::number},
                                              {"Remote", "remote-routes", 8, Kind::number},
                                              {"Encapsulations (VRF:index)", "encapsulations", 0}};
  std::map<ip_addr_t, CoreGroup> groups;
  for (const ref::MribRoute &route : ref::mrib_routes()) {
    CoreGroup &group = groups[route.addrs.group];
    (route.local ? group.local : group.remote)++;
  }
  for (const ref::MribEncap &encap : ref::mrib_encaps()) {
    std::string &users = groups[encap.group].used_by;
    users += (users.empty() ? "" : " ") + vrf_name(encap.context_id) + ":" + std::to_string(encap.index);
  }
  report.table("core-group", nullptr, columns);
  print_rows(report, groups, [](const auto &item) -> std::vector<std::string> {
    const auto &[group, use] = item;
    const char *mode = pim_is_ssm_group(VRF_CONTEXT_ID_DEFAULT, group) != 0     ? "SSM"
                       : pim_is_bidir_group(VRF_CONTEXT_ID_DEFAULT, group) != 0 ? "Bidir"
                                                                                : "ASM";
    return {address_text(group), mode, std::to_string(use.local), std::to_string(use.remote),
            use.used_by.empty() ? "-" : use.used_by};
  });
}

// Encapsulation of a flow, as the module records it at the route: index and group.
std::pair<std::string, std::string> encapsulation_of(const std::string &vrf, const mvpn_mdt_route_addrs &addrs) {
  pim_cibtype *pcib = pim_get_cib_by_context_name(vrf.c_str());
  const pim_route *route = pcib == nullptr ? nullptr : pim_get_route_from_pt(pcib, &addrs);
  if (route == nullptr || route->send_join_info == nullptr) return {"", "-"};
  const mvpn_data_mdt_send_join_info &info = *route->send_join_info;
  return {std::to_string(info.encap_index), info.group == 0 ? "-" : address_text(info.group)};
}

void show_customer_routes(const ViewInput &input, Report &report) {
  static const std::vector<Column> columns = {{"VRF", "vrf", 12},
                                              {"Source", "source", 17},
                                              {"Group", "group", 17},
                                              {"IIF", "iif", 12},
                                              {"RPF", "rpf-neighbour", 17},
                                              {"OIFs", "oifs", 16},
                                              {"kbps", "rate-kbps", 9, Kind::number},
                                              {"Bidir", "bidirectional", 7, Kind::boolean},
                                              {"Encap", "encap-index", 7, Kind::number},
                                              {"Data group", "data-group", 0}};
  const std::string *wanted = find_argument(input.statement, "vrf");
  std::vector<std::string> vrfs;
  pim_cib_iterator iterator;
  for (const pim_cibtype *pcib = pim_get_first_cib_by_name(&iterator); pcib != nullptr;
       pcib = pim_get_next_cib_by_name(&iterator))
    if (wanted == nullptr || *wanted == pcib->vrf_name) vrfs.push_back(pcib->vrf_name);
  report.table("customer-route", nullptr, columns);
  for (const std::string &vrf : vrfs)
    print_rows(report, ref::customer_routes(vrf), [&vrf](const ref::CustomerRoute &route) -> std::vector<std::string> {
      std::string oifs;
      for (const std::string &oif : route.oifs) oifs += (oifs.empty() ? "" : ",") + oif;
      if (route.to_mvpn) oifs += oifs.empty() ? "mvpn" : ",mvpn";
      const auto [index, group] = encapsulation_of(vrf, route.addrs);
      return {vrf,
              source_text(route.addrs),
              address_text(route.addrs.group),
              route.iif.empty() ? "-" : route.iif,
              route.rpf_neighbor == 0 ? "-" : address_text(route.rpf_neighbor),
              oifs.empty() ? "-" : oifs,
              std::to_string(route.rate_kbps),
              yes_no(route.bidirectional),
              index,
              group};
    });
}

template <typename Items>
Items latest(const Items &items, const std::string *limit) {
  const size_t count = limit == nullptr ? items.size() : std::min<size_t>(items.size(), number_value(*limit));
  return Items(items.end() - static_cast<std::ptrdiff_t>(count), items.end());
}

void show_events(const ViewInput &input, Report &report) {
  static const std::vector<Column> events = {{"Time", "time", 13, Kind::number}, {"Event", "text", 0}};
  static const std::vector<Column> errors = {{"Report", "name", 28}, {"Arguments", "arguments", 0}};
  const std::string *last = find_argument(input.statement, "last");
  report.table("event", nullptr, events);
  print_rows(report, latest(ref::history(), last), [](const ref::Event &event) -> std::vector<std::string> {
    return {seconds_text(event.time), event.text.substr(0, event.text.find_last_not_of('\n') + 1)};
  });
  report.table("error-report", "Error reports", errors);
  print_rows(report, latest(ref::reports(), last), [](const ref::Report &error) -> std::vector<std::string> {
    std::string arguments;
    for (const std::string &argument : error.arguments) arguments += (arguments.empty() ? "" : ", ") + argument;
    return {error.name, arguments};
  });
}

void show_counters(const ViewInput &input, Report &report) {
  static const std::vector<Column> columns = {{"Counter", "name", 34}, {"Value", "value", 0, Kind::number}};
  const CounterBase now = counters_now();
  const CounterBase &base = input.counters;
  const ref::MemoryUse memory = ref::memory_use();
  std::vector<std::pair<std::string, uint64_t>> counters = {
      {"pim-hellos-sent", now.pim.hellos_sent - base.pim.hellos_sent},
      {"pim-routes-reinstalled", now.pim.routes_reinstalled - base.pim.routes_reinstalled},
      {"pim-oif-removals", now.pim.oif_removals - base.pim.oif_removals},
      {"pim-encap-setups", now.pim.encap_setups - base.pim.encap_setups},
      {"pim-rpf-lookups", now.pim.rpf_lookups - base.pim.rpf_lookups},
      {"pim-join-triggers", now.pim.join_triggers - base.pim.join_triggers},
      {"mrib-updates", now.mrib_updates - base.mrib_updates},
      {"module-threads", ref::thread_count()},
      {"slab-objects", memory.slab_objects},
      {"tracked-buffers", memory.tracked_buffers},
      {"tracked-bytes", memory.tracked_bytes},
      {"timers", memory.timers},
      {"policy-bindings", ref::policy_bindings()},
      {"stored-records", ref::pss_records().size()},
  };
  if (const ref::GreUdpCarrier *carrier = input.router.links().carrier()) {
    const ref::GreUdpCarrier::Counters &core = carrier->counters();
    counters.insert(counters.end(), {{"core-sent", core.sent},
                                     {"core-send-errors", core.send_errors},
                                     {"core-received", core.received},
                                     {"core-malformed", core.malformed},
                                     {"core-strangers", core.strangers}});
  }
  report.table("counter", nullptr, columns);
  print_rows(report, counters, [](const auto &counter) -> std::vector<std::string> {
    return {counter.first, std::to_string(counter.second)};
  });
}

void show_running_config(const ViewInput &input, Report &report) {
  static const std::vector<Column> columns = {{"", "line", 0}};
  report.table("running-config", nullptr, columns);
  const std::string text = input.router.running().print();
  std::vector<std::string> lines;
  for (size_t at = 0; at < text.size(); at = text.find('\n', at) + 1)
    lines.push_back(text.substr(at, text.find('\n', at) - at));
  print_rows(report, lines, [](const std::string &line) -> std::vector<std::string> { return {line}; });
}

void show_clock(const ViewInput &, Report &report) {
  static const std::vector<Column> columns = {{"Platform seconds", "seconds", 18, Kind::number},
                                              {"Scale", "scale", 0, Kind::number}};
  char scale[32];
  std::snprintf(scale, sizeof scale, "%g", ref::clock_scale());
  report.table("clock", nullptr, columns);
  report.row({seconds_text(ref::now()), scale});
}

}  // namespace

CounterBase counters_now() { return {ref::pim_counters(), ref::mrib_updates_total()}; }

bool show_view(const ViewInput &input, Report &report) {
  using View = void (*)(const ViewInput &, Report &);
  static const std::map<Command, View> views = {
      {Command::show_interfaces, show_interfaces},
      {Command::show_tunnels, show_tunnels},
      {Command::show_bgp_mdt, show_bgp_mdt},
      {Command::show_mrib_routes, show_mrib_routes},
      {Command::show_mrib_encaps, show_mrib_encaps},
      {Command::show_core_groups, show_core_groups},
      {Command::show_customer_routes, show_customer_routes},
      {Command::show_events, show_events},
      {Command::show_counters, show_counters},
      {Command::show_running_config, show_running_config},
      {Command::show_clock, show_clock},
  };
  const auto view = views.find(input.statement.command);
  if (view == views.end()) return false;
  view->second(input, report);
  return true;
}

}  // namespace host
