// A view takes a copy of what a service holds and prints it row by row, so that nothing it prints can go away while it
// yields.
#include "host/daemon/views.h"

#include <algorithm>
#include <cstdio>
#include <map>

#include "host/bgp/bgp_views.h"
#include "host/config/yang.h"
#include "host/daemon/config_views.h"
#include "host/daemon/forwarding_views.h"
#include "host/daemon/status_views.h"
#include "platform/im.h"
#include "platform/ip.h"
#include "platform/oim.h"
#include "platform/reference/bgp.h"
#include "platform/reference/croute.h"
#include "platform/reference/diag.h"
#include "platform/reference/im.h"
#include "platform/reference/mem.h"
#include "platform/reference/mrib.h"
#include "platform/reference/oim.h"
#include "platform/reference/pss.h"
#include "platform/reference/rpm.h"
#include "platform/reference/runtime.h"
#include "routing/pim/mvpn/mvpn.h"

namespace host {
namespace {

using output::Cell;
using output::Listing;
using output::Row;

std::string vrf_name(vrf_context_id_t context_id) {
  const pim_cibtype *pcib = pim_get_cib_by_context_id(context_id);
  return pcib == nullptr ? "#" + std::to_string(context_id) : pcib->vrf_name;
}

Cell interface_cell(im_iod_t iod) { return iod == 0 ? Cell() : Cell(ksink_im_get_if_name(iod)); }
Cell interface_cell(const std::string &name) { return name.empty() ? Cell() : Cell(name); }
Cell address_cell(ip_addr_t address) { return address == 0 ? Cell() : Cell(address_text(address)); }
const char *state_text(bool up) { return up ? "up" : "down"; }

std::string source_text(const mvpn_mdt_route_addrs &addrs) {
  return addrs.source_len == MROUTE_ANY_SOURCE_LEN ? "*" : address_text(addrs.source);
}

// Prints a row of each item; false when nobody wants more.
template <typename Items, typename MakeRow>
bool print_rows(Listing &listing, const Items &items, MakeRow make_row) {
  for (const auto &item : items)
    if (!listing.row(make_row(item))) return false;
  return true;
}

void show_interfaces(const ViewInput &, Listing &listing) {
  listing.begin(output::kInterfaces);
  std::vector<ref::Interface> all;
  for (const ref::Interface *interface : ref::interfaces()) all.push_back(*interface);
  print_rows(listing, all, [](const ref::Interface &interface) -> Row {
    return {interface.name,
            interface.iod,
            interface.if_index,
            vrf_name(interface.context_id),
            address_cell(ip_get_local_addr(interface.iod)),
            state_text(interface.up),
            interface.mtu,
            interface.mvpn_tunnel};
  });
}

void show_tunnels(const ViewInput &, Listing &listing) {
  listing.begin(output::kTunnels);
  print_rows(listing, ref::tunnels(), [](const ref::Tunnel &tunnel) -> Row {
    return {oim_print_ifname(tunnel.if_index),
            tunnel.vrf_name,
            address_text(tunnel.source),
            address_text(tunnel.destination),
            tunnel.mtu,
            state_text(tunnel.admin_up != 0),
            state_text(tunnel.up)};
  });
}

const BgpService &bgp_of(const ViewInput &input) { return input.router.links().exchange().bgp(); }

void show_summary(const ViewInput &input, Listing &listing) { show_bgp_summary(bgp_of(input), listing); }

void show_neighbors(const ViewInput &input, Listing &listing) {
  const std::string *address = find_argument(input.statement, "address");
  show_bgp_neighbors(bgp_of(input), address == nullptr ? 0 : address_value(*address), listing);
}

std::string missing_neighbor(const ViewInput &input) {
  const std::string reason = bgp_of(input).missing_neighbor(input.statement);
  return reason.empty() ? "" : reason + "\n";
}

Row entry_row(const ref::MdtSafi &entry, bool local) {
  Row row = {address_text(entry.source), mvpn_bgp_print_rd(entry.rd), address_text(entry.group), local,
             entry.vrf_name.empty() ? Cell() : Cell(entry.vrf_name)};
  row.resize(std::size(output::kBgpColumns));
  return row;
}

// BGP's routes; without BGP what the module advertises all the same; and the entries of PEs that exist only here.
void show_bgp_mdt(const ViewInput &input, Listing &listing) {
  listing.begin(output::kBgp, find_argument(input.statement, "detail") != nullptr);
  const MdtExchange &exchange = input.router.links().exchange();
  if (!show_bgp_routes(
          exchange.bgp(), [&](const bgp::RouteKey &key) { return exchange.vrf_of(key); }, listing))
    return;
  if (exchange.bgp().speaker() == nullptr &&
      !print_rows(listing, ref::bgp_local_entries(), [](const auto &entry) { return entry_row(entry, true); }))
    return;
  print_rows(listing, ref::bgp_added_entries(), [](const auto &entry) { return entry_row(entry, false); });
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

void show_mrib_routes(const ViewInput &input, Listing &listing) {
  listing.begin(output::kRoutes, find_argument(input.statement, "detail") != nullptr);
  print_rows(listing, ref::mrib_routes(), [](const ref::MribRoute &route) -> Row {
    return {source_text(route.addrs),
            address_text(route.addrs.group),
            vrf_name(route.context_id),
            vrf_name(route.owner),
            interface_cell(route.mti_iod),
            interface_cell(route.mdt_source_iod),
            route.local,
            address_cell(route.rpf_addr),
            route.last_hop,
            route.asm_shared_tree,
            route.xid,
            hex_of(route.entry)};
  });
}

void show_mrib_encaps(const ViewInput &, Listing &listing) {
  listing.begin(output::kEncaps);
  print_rows(listing, ref::mrib_encaps(), [](const ref::MribEncap &encap) -> Row {
    return {vrf_name(encap.context_id),    encap.index,
            address_text(encap.group),     address_text(encap.source),
            interface_cell(encap.mti_iod), interface_cell(encap.source_iod)};
  });
}

struct CoreGroup {
  size_t local = 0, remote = 0;  // routes
  std::vector<Row> users;
};

const char *mode_text(ip_addr_t group) {
  if (pim_is_ssm_group(VRF_CONTEXT_ID_DEFAULT, group) != 0) return "SSM";
  return pim_is_bidir_group(VRF_CONTEXT_ID_DEFAULT, group) != 0 ? "Bidir" : "ASM";
}

void show_core_groups(const ViewInput &, Listing &listing) {
  std::map<ip_addr_t, CoreGroup> groups;
  for (const ref::MribRoute &route : ref::mrib_routes()) {
    CoreGroup &group = groups[route.addrs.group];
    (route.local ? group.local : group.remote)++;
  }
  for (const ref::MribEncap &encap : ref::mrib_encaps())
    groups[encap.group].users.push_back({vrf_name(encap.context_id), encap.index});
  listing.begin(output::kGroups);
  print_rows(listing, groups, [](const auto &item) -> Row {
    const auto &[group, use] = item;
    return {address_text(group), mode_text(group), use.local, use.remote, use.users};
  });
}

// Encapsulation of a flow, as the module records it at the route: index and group.
std::pair<Cell, Cell> encapsulation_of(const std::string &vrf, const mvpn_mdt_route_addrs &addrs) {
  pim_cibtype *pcib = pim_get_cib_by_context_name(vrf.c_str());
  const pim_route *route = pcib == nullptr ? nullptr : pim_get_route_from_pt(pcib, &addrs);
  if (route == nullptr || route->send_join_info == nullptr) return {};
  const mvpn_data_mdt_send_join_info &info = *route->send_join_info;
  return {info.encap_index, address_cell(info.group)};
}

Row customer_row(const std::string &vrf, const ref::CustomerRoute &route) {
  std::vector<Row> oifs;
  for (const std::string &oif : route.oifs) oifs.push_back({oif});
  if (route.to_mvpn) oifs.push_back({"mvpn"});
  const auto [index, group] = encapsulation_of(vrf, route.addrs);
  return {vrf,
          source_text(route.addrs),
          address_text(route.addrs.group),
          interface_cell(route.iif),
          address_cell(route.rpf_neighbor),
          oifs,
          route.rate_kbps,
          route.bidirectional,
          index,
          group};
}

void show_customer_routes(const ViewInput &input, Listing &listing) {
  const std::string *wanted = find_argument(input.statement, "vrf");
  std::vector<std::string> vrfs;
  pim_cib_iterator iterator;
  for (const pim_cibtype *pcib = pim_get_first_cib_by_name(&iterator); pcib != nullptr;
       pcib = pim_get_next_cib_by_name(&iterator))
    if (wanted == nullptr || *wanted == pcib->vrf_name) vrfs.push_back(pcib->vrf_name);
  listing.begin(output::kCustomers);
  for (const std::string &vrf : vrfs)
    if (!print_rows(listing, ref::customer_routes(vrf),
                    [&vrf](const ref::CustomerRoute &route) { return customer_row(vrf, route); }))
      return;
}

template <typename Items>
Items latest(const Items &items, const std::string *limit) {
  const size_t count = limit == nullptr ? items.size() : std::min<size_t>(items.size(), number_value(*limit));
  return Items(items.end() - static_cast<std::ptrdiff_t>(count), items.end());
}

void show_events(const ViewInput &input, Listing &listing) {
  const std::string *last = find_argument(input.statement, "last");
  listing.begin(output::kEvents);
  const bool wanted = print_rows(listing, latest(ref::history(), last), [](const ref::Event &event) -> Row {
    return {Cell::Seconds(event.time), event.text.substr(0, event.text.find_last_not_of('\n') + 1)};
  });
  if (!wanted) return;
  listing.begin(output::kErrors);
  print_rows(listing, latest(ref::reports(), last), [](const ref::Report &error) -> Row {
    std::vector<Row> arguments;
    for (const std::string &argument : error.arguments) arguments.push_back({argument});
    return {error.name, arguments};
  });
}

uint64_t refused_announcements() {
  uint64_t refused = 0;
  pim_cib_iterator iterator;
  for (const pim_cibtype *pcib = pim_get_first_cib_by_name(&iterator); pcib != nullptr;
       pcib = pim_get_next_cib_by_name(&iterator))
    if (pcib->mvpn != nullptr) refused += pcib->mvpn->data_mdt_recv_refused.count;
  return refused;
}

void show_counters(const ViewInput &input, Listing &listing) {
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
      // A VRF that has gone takes its part along.
      {"announcements-refused",
       now.announcements_refused - std::min(now.announcements_refused, base.announcements_refused)},
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
  listing.begin(output::kCounters);
  print_rows(listing, counters, [](const auto &counter) -> Row { return {counter.first, counter.second}; });
}

void show_running_config(const ViewInput &input, Listing &listing) {
  const Config &config = input.router.running();
  const Config::Passwords passwords = passwords_of(input.statement);
  if (listing.instead([&] { return yang_data(config, passwords); })) return;
  const std::string text = config.print(passwords);
  std::vector<std::string> lines;
  for (size_t at = 0; at < text.size(); at = text.find('\n', at) + 1)
    lines.push_back(text.substr(at, text.find('\n', at) - at));
  listing.begin(output::kConfig);
  print_rows(listing, lines, [](const std::string &line) -> Row { return {line}; });
}

void show_clock(const ViewInput &, Listing &listing) {
  listing.begin(output::kClock);
  listing.row({Cell::Seconds(ref::now()), ref::clock_scale()});
}

}  // namespace

CounterBase counters_now() { return {ref::pim_counters(), ref::mrib_updates_total(), refused_announcements()}; }

const std::vector<Action> &view_actions() {
  static const std::vector<Action> rows = {
      {"show_vrfs", show_vrfs},
      {"show_version", show_version},
      {"show_status", show_status},
      {"show_interfaces", show_interfaces},
      {"show_tunnels", show_tunnels},
      {"show_bgp_summary", show_summary},
      {.name = "show_bgp_neighbor", .does = show_neighbors, .refusal = missing_neighbor},
      {"show_bgp_mdt", show_bgp_mdt},
      {"show_mrib_routes", show_mrib_routes},
      {"show_mrib_encaps", show_mrib_encaps},
      {"show_core_groups", show_core_groups},
      {"show_customer_routes", show_customer_routes},
      {.name = "show_forwarding", .does = show_forwarding, .tells_of_forwarder = true},
      {.name = "show_forwarding_events", .does = show_forwarding_events, .tells_of_forwarder = true},
      {"show_events", show_events},
      {"show_counters", show_counters},
      {"show_running_config", show_running_config},
      {"show_config_diff", show_config_diff},
      {"show_config_candidate", show_config_candidate},
      {"show_config_former", show_config_former},
      {"show_clock", show_clock},
  };
  return rows;
}

}  // namespace host
