// One function for each command that is no view, and the rows that name them. A function takes its arguments from the
// line, which the grammar has checked, and says in words what was wrong with the rest.
#include "host/daemon/operations.h"

#include <algorithm>
#include <cstring>

#include "host/daemon/config_commands.h"
#include "host/daemon/metrics.h"
#include "host/daemon/views.h"
#include "platform/pim.h"
#include "platform/reference/bgp.h"
#include "platform/reference/croute.h"
#include "platform/reference/diag.h"

namespace host {
namespace {

Outcome missing(const char *what, const std::string &name) {
  return {false, std::string("there is no ") + what + " " + name + "\n"};
}

Outcome set_flow(const OperationInput &input) {
  const Statement &statement = input.statement;
  const std::string &vrf = *find_argument(statement, "vrf");
  const mvpn_mdt_route_addrs addrs =
      route_address(*find_argument(statement, "source"), *find_argument(statement, "group"));
  const bool done = ref::set_customer_rate(vrf, addrs, number_value(*find_argument(statement, "rate")));
  return done ? Outcome() : missing("such customer route in VRF", vrf);
}

Outcome set_receiver(const OperationInput &input) {
  const Statement &statement = input.statement;
  const std::string &vrf = *find_argument(statement, "vrf");
  const std::string &oif = *find_argument(statement, "oif");
  const mvpn_mdt_route_addrs addrs =
      route_address(*find_argument(statement, "source"), *find_argument(statement, "group"));
  std::vector<ref::CustomerRoute> routes = ref::customer_routes(vrf);
  const auto route = std::find_if(routes.begin(), routes.end(), [&addrs](const ref::CustomerRoute &other) {
    return std::memcmp(&other.addrs, &addrs, sizeof addrs) == 0;
  });
  if (route == routes.end()) return missing("such customer route in VRF", vrf);
  const bool join = find_argument(statement, "join") != nullptr;
  const bool tunnel = oif == "mvpn";
  const auto at = std::find(route->oifs.begin(), route->oifs.end(), oif);
  const bool listed = tunnel ? route->to_mvpn : at != route->oifs.end();
  if (!join && !listed) return {false, oif + " is no outgoing interface of the route\n"};
  if (const std::string reason = input.router.running().why_not_in_vrf(oif, vrf); join && !reason.empty())
    return {false, reason + "\n"};
  if (join == listed) return {};
  if (tunnel)
    route->to_mvpn = join;
  else if (join)
    route->oifs.push_back(oif);
  else
    route->oifs.erase(at);
  return ref::set_customer_route(vrf, *route) != nullptr ? Outcome() : missing("interface", oif);
}

// An interface of the core that has an address; null when there is none.
const std::string *core_interface_with(const Config &config, const std::string &address) {
  for (const auto &[id, block] : config.blocks()) {
    if (id.mode != Mode::interface || block->find(Command::interface_vrf) != nullptr) continue;
    const std::string *own = block->value(Command::ip_address, "address");
    if (own != nullptr && *own == address) return &id.name;
  }
  return nullptr;
}

Outcome set_remote_pe(const OperationInput &input) {
  const Statement &statement = input.statement;
  const std::string &source = *find_argument(statement, "source");
  ref::MdtSafi safi;
  safi.source = address_value(source);
  safi.group = address_value(*find_argument(statement, "group"));
  const auto rd = ref::bgp_parse_rd(*find_argument(statement, "rd"));
  if (!rd) return {false, "that is not a route distinguisher\n"};
  std::copy(rd->begin(), rd->end(), safi.rd);
  if (find_argument(statement, "advertise") != nullptr) {
    if (const std::string *own = core_interface_with(input.router.running(), source))
      return {false, source + " is the address of this PE's interface " + *own + "\n"};
    ref::bgp_add_remote({safi});
    return {};
  }
  if (!ref::bgp_is_remote(safi)) return missing("such entry of PE", source);
  ref::bgp_withdraw_remote({safi});
  return {};
}

Outcome start_capture(const OperationInput &input) {
  Links &links = input.router.links();
  if (links.carrier() == nullptr) return {false, "there is no carrier of core packets; see 'core', 'carrier'\n"};
  const std::string reason = links.capture().start(*find_argument(input.statement, "path"),
                                                   find_argument(input.statement, "append") != nullptr);
  return reason.empty() ? Outcome() : Outcome{false, reason + "\n"};
}

Outcome captured(uint64_t packets, const std::string &path) {
  return {true, std::to_string(packets) + " packets in " + path + "\n"};
}

Outcome stop_capture(const OperationInput &input) {
  ref::Capture &file = input.router.links().capture();
  if (!file.running()) return {false, "there is no capture\n"};
  file.stop();
  return captured(file.packets(), file.path());
}

Outcome rotate_capture(const OperationInput &input) {
  ref::Capture &file = input.router.links().capture();
  if (!file.running()) return {false, "there is no capture\n"};
  const uint64_t packets = file.packets();
  std::string kept;
  const std::string reason = file.rotate(&kept);
  return reason.empty() ? captured(packets, kept) : Outcome{false, reason + "\n"};
}

Outcome clear_bgp(const OperationInput &input) {
  const std::string reason = input.router.links().exchange().bgp().clear(input.statement);
  return reason.empty() ? Outcome() : Outcome{false, reason + "\n"};
}

Outcome clear_counters(const OperationInput &input) {
  input.counters = counters_now();
  input.router.links().clear_counters();
  return {};
}

Outcome clear_events(const OperationInput &) {
  ref::clear_history();
  ref::clear_reports();
  return {};
}

Outcome set_log_level(const OperationInput &input) {
  input.process.log.set_level(*level_of(input.statement.arguments.front().name));
  return {};
}

Outcome debug_on(const OperationInput &input) {
  const std::string *vrf = find_argument(input.statement, "vrf");
  if (vrf != nullptr && pim_get_cib_by_context_name(vrf->c_str()) == nullptr) return missing("VRF", *vrf);
  debug_module(input.router, vrf == nullptr ? "" : *vrf, find_argument(input.statement, "detail") != nullptr);
  return {};
}

Outcome debug_off(const OperationInput &input) {
  pim_debug_flag &= ~uint32_t{PIM_DEBUG_MVPN};
  pim_dfilter_vrf_name[0] = '\0';
  *input.router.module().detail_debug = 0;
  return {};
}

Outcome set_link(const OperationInput &input) {
  const std::string &name = *find_argument(input.statement, "interface");
  const bool up = find_argument(input.statement, "up") != nullptr;
  return input.router.set_link(name, up) ? Outcome() : missing("configured interface", name);
}

Outcome pass_statistics(const OperationInput &) {
  ref::statistics_pass();
  return {};
}

void show_metrics(const OperationInput &input, const std::shared_ptr<OutputChannel> &channel) {
  channel->output(metrics_text(input.router, input.process.loop, metrics::Format::text));
  channel->end(kStatusDone);
}

void monitor(const OperationInput &input, const std::shared_ptr<OutputChannel> &channel) {
  input.monitor.serve(input.line, channel);
}

}  // namespace

const std::vector<Action> &operations() {
  static const std::vector<Action> rows = {
      {kConfigureAction, configure},
      {"configure_exclusive", configure_exclusive},
      {"commit", commit},
      {"rollback", rollback},
      {kAbortAction, abort_candidate},
      {"write", write_config},
      {"reload", reload_config},
      {"check", check_config},
      {"monitor", monitor},
      {"log_level", set_log_level},
      {"clear_counters", clear_counters},
      {"clear_events", clear_events},
      {"clear_bgp_neighbor", clear_bgp},
      {"debug_mvpn", debug_on},
      {"debug_off", debug_off},
      {"test_interface", set_link},
      {"test_flow", set_flow},
      {"test_receiver", set_receiver},
      {"test_remote_pe", set_remote_pe},
      {"test_statistics", pass_statistics},
      {"capture_start", start_capture},
      {"capture_stop", stop_capture},
      {"capture_rotate", rotate_capture},
      {.name = "show_metrics", .does = show_metrics, .tells_of_forwarder = true},
  };
  return rows;
}

void debug_module(const Router &router, const std::string &vrf, bool detail) {
  const std::string filter = vrf.empty() ? "all" : vrf;
  std::strncpy(pim_dfilter_vrf_name, filter.c_str(), VRF_NAME_MAX);
  pim_debug_flag |= PIM_DEBUG_MVPN;
  *router.module().detail_debug = detail ? 1 : 0;
}

}  // namespace host
