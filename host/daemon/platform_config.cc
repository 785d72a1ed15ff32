// An interface or a customer route may name what is not there yet. It is kept by name and tried again at every turn's
// end; what then stands in the running configuration counts, not what stood there when it was kept.
#include "host/daemon/platform_config.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "host/daemon/vrf_commands.h"
#include "platform/pim.h"
#include "platform/reference/bgp.h"
#include "platform/reference/im.h"
#include "platform/reference/pim.h"
#include "platform/reference/rpm.h"
#include "platform/reference/runtime.h"

namespace host {
namespace {

constexpr std::string_view kMetricsEndpoint = "127.0.0.1:9469";  // unless another one is configured

}  // namespace

mvpn_mdt_route_addrs route_address(const std::string &source, const std::string &group) {
  mvpn_mdt_route_addrs addrs{};
  addrs.source = address_value(source);
  addrs.source_len = static_cast<uint8_t>(source == "*" ? MROUTE_ANY_SOURCE_LEN : MROUTE_HOST_LEN);
  addrs.group = address_value(group);
  addrs.group_len = MROUTE_HOST_LEN;
  return addrs;
}

ref::CustomerRoute customer_route(const Statement &statement) {
  ref::CustomerRoute route;
  route.addrs = route_address(*find_argument(statement, "source"), *find_argument(statement, "group"));
  for (const Argument &argument : statement.arguments) {
    if (argument.name == "iif") route.iif = argument.value;
    if (argument.name == "rpf") route.rpf_neighbor = address_value(argument.value);
    if (argument.name == "bidir") route.bidirectional = true;
    if (argument.name == "rate") route.rate_kbps = number_value(argument.value);
    if (argument.name != "oif") continue;
    if (argument.value == "mvpn")
      route.to_mvpn = true;
    else
      route.oifs.push_back(argument.value);
  }
  return route;
}

PlatformConfig::PlatformConfig(const Sources &sources, Options options)
    : running_(sources.running),
      absent_(sources.absent),
      module_(sources.module),
      forwarding_(sources.forwarding),
      options_(std::move(options)),
      default_mtu_(pim_mtu),
      default_announcement_limit_(*module_.entry_points().recv_cache_limit) {}

void PlatformConfig::apply_global(const LineChange &change) {
  const Statement &statement = statement_of(change);
  const auto range = [&](auto add, auto remove) {
    const PrefixValue prefix = prefix_value(*find_argument(statement, "prefix"));
    (change.after != nullptr ? add : remove)(prefix.address, prefix.length);
  };
  const auto number = [&](const char *name, uint32_t without) {
    return change.after != nullptr ? static_cast<uint32_t>(number_value(*find_argument(statement, name))) : without;
  };
  switch (statement.command) {
    case Command::ssm_range:
      return range(ref::add_ssm_range, ref::remove_ssm_range);
    case Command::bidir_range:
      return range(ref::add_bidir_range, ref::remove_bidir_range);
    case Command::pim_mtu:
      pim_mtu = number("mtu", default_mtu_);
      return;
    case Command::announcement_limit:
      *module_.entry_points().recv_cache_limit = number("limit", default_announcement_limit_);
      return;
    case Command::clock_scale:
      return follow_clock();
    case Command::metrics:
      return follow_metrics();
    default:
      return;
  }
}

void PlatformConfig::follow_clock() {
  const Block *global = running_.find({});
  const std::string *scale = global == nullptr ? nullptr : global->value(Command::clock_scale, "scale");
  const double configured = scale == nullptr ? 1 : static_cast<double>(number_value(*scale));
  ref::clock_use_real(options_.clock_scale.value_or(configured));
}

void PlatformConfig::follow_metrics() {
  if (!options_.follow_metrics) return;
  const Block *global = running_.find({});
  if (global == nullptr || global->find(Command::metrics) == nullptr) return options_.follow_metrics(std::nullopt);
  const std::string *given = global->value(Command::metrics, "endpoint");
  options_.follow_metrics(endpoint_value(given != nullptr ? std::string_view(*given) : kMetricsEndpoint));
}

void PlatformConfig::follow_policy(const std::string &name) {
  std::vector<ref::PolicyEntry> entries;
  static const Block none;
  const Block *global = running_.find({});
  for (const auto &[place, line] : (global == nullptr ? none : *global).lines()) {
    const Statement &statement = line.statement;
    if (statement.command != Command::route_map || *find_argument(statement, "name") != name) continue;
    const PrefixValue sources = prefix_value(*find_argument(statement, "sources"));
    const PrefixValue groups = prefix_value(*find_argument(statement, "groups"));
    ref::PolicyEntry entry;
    entry.permit = find_argument(statement, "permit") != nullptr;
    entry.source = sources.address;
    entry.source_len = sources.length;
    entry.group = groups.address;
    entry.group_len = groups.length;
    entries.push_back(entry);
  }
  if (entries.empty())
    ref::delete_policy(name);
  else
    ref::set_policy(name, entries);
}

void PlatformConfig::follow_route_distinguisher(const std::string &vrf) {
  const Block *block = running_.vrf(vrf);
  if (block == nullptr || absent_.contains(vrf)) return;
  const std::string *text = block->value(Command::rd, "rd");
  const auto rd = text == nullptr ? std::nullopt : ref::bgp_parse_rd(*text);
  ref::bgp_set_rd(vrf, rd ? rd->data() : nullptr, module_.runs());
}

void PlatformConfig::follow_update_source() {
  const Block *bgp = running_.find({Mode::bgp, ""});
  const std::string *name = bgp == nullptr ? nullptr : bgp->value(Command::update_source, "interface");
  ref::bgp_set_update_source(name == nullptr ? "" : *name, module_.runs());
}

void PlatformConfig::follow_interface(const std::string &name) {
  waiting_interfaces_.erase(name);
  const Block *block = running_.find({Mode::interface, name});
  if (block == nullptr) {
    links_down_.erase(name);
    ref::delete_interface(name);
    return;
  }
  const std::string *vrf = block->value(Command::interface_vrf, "name");
  const pim_cibtype *pcib = vrf == nullptr ? pim_default_cib : pim_get_cib_by_context_name(vrf->c_str());
  const bool vrf_ready = pcib != nullptr && (vrf == nullptr || !absent_.contains(*vrf));
  const std::string *text = block->value(Command::ip_address, "address");
  ip_addr_t address = text == nullptr ? 0 : address_value(*text);
  bool up = block->find(Command::shutdown) == nullptr && !links_down_.contains(name);
  if (forwarding_.active()) {
    // The kernel's address; the line chooses among several.
    const Forwarding::Seen seen = forwarding_.seen(name);
    if (std::ranges::count(seen.addresses, address) == 0) address = seen.addresses.empty() ? 0 : seen.addresses.front();
    up = up && seen.up;
  }
  const ref::Interface *interface = ref::find_interface(std::string_view(name));
  const bool stays = interface != nullptr && !interface->leaving;
  if (stays && vrf_ready && interface->context_id == pcib->context_id) {
    ref::set_interface_address(name, address);
    ref::set_interface_state(name, up);
    return;
  }
  // Another VRF's now, or its own was made anew: it goes there when it has left, and when the VRF is there.
  if (stays) ref::delete_interface(name);
  if (!vrf_ready || ref::find_interface(std::string_view(name)) != nullptr)
    waiting_interfaces_.insert(name);
  else if (ref::create_interface(name, pcib->context_id, address, up) == 0)
    options_.log(Level::error, "interface " + name + " cannot be created");
}

bool PlatformConfig::set_link(const std::string &interface, bool up) {
  if (running_.find({Mode::interface, interface}) == nullptr) return false;
  if (up)
    links_down_.erase(interface);
  else
    links_down_.insert(interface);
  follow_interface(interface);
  return true;
}

void PlatformConfig::set_route(const std::string &vrf, const std::string &key) {
  waiting_routes_.erase({vrf, key});
  const Block *block = running_.vrf(vrf);
  const Line *line = block == nullptr ? nullptr : block->find_key(key);
  if (line == nullptr) return;
  if (absent_.contains(vrf) || ref::set_customer_route(vrf, customer_route(line->statement)) == nullptr)
    waiting_routes_.insert({vrf, key});
}

void PlatformConfig::settle() {
  for (const std::string &name : std::set<std::string>(waiting_interfaces_)) follow_interface(name);
  for (const auto &[vrf, key] : std::set<std::pair<std::string, std::string>>(waiting_routes_)) set_route(vrf, key);
}

}  // namespace host
