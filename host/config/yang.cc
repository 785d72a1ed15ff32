// A line that says one thing is a row of a table: where its value goes and what it is. Lines that say several have
// functions.
#include "host/config/yang.h"

#include <nlohmann/json.hpp>

namespace host {
namespace {

using Json = nlohmann::ordered_json;

// What becomes of a line: a text or number that it has, the keyword that it chooses, whether it stands there, or one
// more item of a list.
enum class Kind { text, number, keyword, is_on, item };

struct Leaf {
  Command command;
  std::string_view handler;   // of the module; empty: any
  std::string_view argument;  // that has the value
  Kind kind;
  const char *name;
};
constexpr Leaf kLeaves[] = {
    {Command::hostname, "", "name", Kind::text, "hostname"},
    {Command::clock_scale, "", "scale", Kind::number, "clock-scale"},
    {Command::feature_mvpn, "", "", Kind::is_on, "mvpn"},
    {Command::interface_vrf, "", "name", Kind::text, "vrf"},
    {Command::ip_address, "", "address", Kind::text, "address"},
    {Command::shutdown, "", "", Kind::is_on, "shutdown"},
    {Command::ssm_range, "", "prefix", Kind::item, "ssm-range"},
    {Command::bidir_range, "", "prefix", Kind::item, "bidir-range"},
    {Command::pim_mtu, "", "mtu", Kind::number, "mtu"},
    {Command::announcement_limit, "", "limit", Kind::number, "announcement-limit"},
    {Command::carrier, "", "endpoint", Kind::text, "gre-udp-listen"},
    {Command::peer, "", "endpoint", Kind::item, "peer"},
    {Command::forwarder_socket, "", "path", Kind::text, "socket"},
    {Command::core_interface, "", "name", Kind::text, "core-interface"},
    {Command::outer_ttl, "", "ttl", Kind::number, "ttl"},
    {Command::outer_tos, "", "tos", Kind::number, "tos"},
    {Command::outer_df, "", "", Kind::keyword, "dont-fragment"},
    {Command::context_id, "", "id", Kind::number, "context-id"},
    {Command::table_id, "", "id", Kind::number, "table-id"},
    {Command::rd, "", "rd", Kind::text, "route-distinguisher"},
    {Command::netns, "", "name", Kind::text, "network-namespace"},
    {Command::local_as, "", "as", Kind::number, "local-as"},
    {Command::router_id, "", "id", Kind::text, "router-id"},
    {Command::cluster_id, "", "id", Kind::text, "cluster-id"},
    {Command::bgp_listen, "", "endpoint", Kind::text, "listen"},
    {Command::update_source, "", "interface", Kind::text, "update-source"},
    {Command::graceful_restart, "", "", Kind::is_on, "graceful-restart"},
    {Command::restart_time, "", "seconds", Kind::number, "restart-time-seconds"},
    {Command::mdt, "mdt_default_cmd", "<mdt-default>", Kind::text, "default-group"},
    {Command::mdt, "mdt_source_cmd", "<interface>", Kind::text, "source-interface"},
    {Command::mdt, "mdt_data_bidir_enable_cmd", "", Kind::is_on, "data-bidir"},
    {Command::mdt, "mdt_data_inhibit_reuse_cmd", "", Kind::is_on, "data-inhibit-reuse"},
    {Command::mdt, "mdt_mtu_cmd", "<mtu-value>", Kind::number, "mtu"},
    {Command::mdt, "mdt_pim_hello_interval_cmd", "<interval>", Kind::number, "pim-hello-interval-milliseconds"},
    {Command::mdt, "mdt_pim_jp_interval_cmd", "<interval>", Kind::number, "pim-jp-interval-seconds"},
    {Command::mdt, "mdt_enforce_bgp_mdt_safi_cmd", "", Kind::is_on, "enforce-bgp-mdt-safi"},
    {Command::mdt, "mdt_asm_use_shared_tree_cmd", "", Kind::is_on, "asm-use-shared-tree"},
};

// What a line says of a neighbour, by the word behind its address; `value` and `text` are the arguments' names.
struct Setting {
  const char *word;
  const char *argument;
  Kind kind;
  const char *name;
};
constexpr Setting kSettings[] = {
    {"remote-as", "value", Kind::number, "remote-as"},
    {"port", "value", Kind::number, "port"},
    {"description", "text", Kind::text, "description"},
    {"hold-time", "value", Kind::number, "hold-time-seconds"},
    {"connect-retry", "value", Kind::number, "connect-retry-seconds"},
    {"passive", "", Kind::is_on, "passive"},
    {"ttl-security", "value", Kind::number, "ttl-security-hops"},
    {"shutdown", "", Kind::is_on, "shutdown"},
    {"route-reflector-client", "", Kind::is_on, "route-reflector-client"},
    {"ipv4-unicast", "", Kind::is_on, "ipv4-unicast"},
};

void put(const Statement &statement, Kind kind, std::string_view argument, const char *name, Json *node) {
  const std::string *value = argument.empty() ? nullptr : find_argument(statement, argument);
  if (kind == Kind::is_on)
    (*node)[name] = !statement.no;
  else if (kind == Kind::keyword)
    (*node)[name] = statement.arguments.front().name;
  else if (value == nullptr)
    return;
  else if (kind == Kind::item)
    (*node)[name].push_back(*value);
  else
    (*node)[name] = kind == Kind::number ? Json(number_value(*value)) : Json(*value);
}

// The item of a list with these keys, which is made when it is not there.
Json &item_of(Json *list, const Json &keys) {
  for (Json &item : *list) {
    bool same = true;
    for (const auto &[name, value] : keys.items()) same = same && item.at(name) == value;
    if (same) return item;
  }
  list->push_back(keys);
  return list->back();
}

void put_route_map(const Statement &statement, Json *router) {
  Json &map = item_of(&(*router)["route-map"], {{"name", *find_argument(statement, "name")}});
  map["rule"].push_back({{"action", find_argument(statement, "deny") != nullptr ? "deny" : "permit"},
                         {"sources", *find_argument(statement, "sources")},
                         {"groups", *find_argument(statement, "groups")}});
}

void put_metrics(const Statement &statement, Json *router) {
  Json &metrics = (*router)["metrics"] = Json::object();
  put(statement, Kind::text, "endpoint", "listen", &metrics);
}

void put_data_range(const Statement &statement, Json *mdt) {
  Json range = {{"prefix", *find_argument(statement, "<prefix>")}};
  put(statement, Kind::number, "<value>", "threshold-kbps", &range);
  if (find_argument(statement, "immediate-switch") != nullptr) range["immediate-switch"] = true;
  put(statement, Kind::text, "<policy-name>", "route-map", &range);
  (*mdt)["data-range"].push_back(std::move(range));
}

void put_customer_route(const Statement &statement, Json *vrf) {
  Json route = {{"customer-source", *find_argument(statement, "source")},
                {"customer-group", *find_argument(statement, "group")}};
  put(statement, Kind::text, "iif", "incoming-interface", &route);
  put(statement, Kind::text, "rpf", "rpf-neighbor", &route);
  for (const Argument &argument : statement.arguments)
    if (argument.name == "oif") route["outgoing-interface"].push_back(argument.value);
  if (find_argument(statement, "bidir") != nullptr) route["bidirectional"] = true;
  put(statement, Kind::number, "rate", "rate-kbps", &route);
  (*vrf)["customer-route"].push_back(std::move(route));
}

void put_neighbor(const Statement &statement, Config::Passwords passwords, Json *bgp) {
  Json &neighbor = item_of(&(*bgp)["neighbor"], {{"address", *find_argument(statement, "address")}});
  for (const Setting &setting : kSettings)
    if (find_argument(statement, setting.word) != nullptr)
      put(statement, setting.kind, setting.argument, setting.name, &neighbor);
  if (find_argument(statement, "shutdown") != nullptr)
    put(statement, Kind::text, "text", "shutdown-message", &neighbor);
  if (passwords == Config::Passwords::shown) put(statement, Kind::text, "secret", "password", &neighbor);
  if (find_argument(statement, "maximum-prefix") == nullptr) return;
  Json &maximum = neighbor["maximum-prefix"];
  put(statement, Kind::number, "value", "routes", &maximum);
  if (find_argument(statement, "warning-only") != nullptr) maximum["warning-only"] = true;
  put(statement, Kind::number, "restart-seconds", "restart-seconds", &maximum);
}

void put_line(const Statement &statement, Config::Passwords passwords, Json *block) {
  Json *node = statement.command == Command::mdt ? &(*block)["mdt"] : block;
  for (const Leaf &leaf : kLeaves)
    if (leaf.command == statement.command && (leaf.handler.empty() || leaf.handler == statement.handler))
      return put(statement, leaf.kind, leaf.argument, leaf.name, node);
  if (statement.command == Command::route_map) return put_route_map(statement, node);
  if (statement.command == Command::metrics) return put_metrics(statement, node);
  if (statement.command == Command::mroute) return put_customer_route(statement, node);
  if (statement.command == Command::neighbor) return put_neighbor(statement, passwords, node);
  if (statement.handler == "mdt_data_cmd") return put_data_range(statement, node);
}

// Where the lines of a block go. Interfaces and VRFs have one each.
Json &node_of(const BlockId &id, Json *router) {
  switch (id.mode) {
    case Mode::interface:
      return item_of(&(*router)["interface"], {{"name", id.name}});
    case Mode::vrf:
      return item_of(&(*router)["vrf"], {{"name", id.name}});
    case Mode::pim:
      return (*router)["pim"];
    case Mode::core:
      return (*router)["core"];
    case Mode::forwarding:
      return (*router)["forwarding"];
    case Mode::bgp:
      return (*router)["bgp"];
    default:
      return *router;
  }
}

}  // namespace

std::string yang_data(const Config &config, Config::Passwords passwords) {
  Json router = Json::object();
  for (const auto &[id, block] : config.blocks()) {
    Json &node = node_of(id, &router);
    if (node.is_null()) node = Json::object();
    for (const auto &[place, line] : block->lines()) put_line(line.statement, passwords, &node);
  }
  const Json data = {{"libmvpn-configuration:router", std::move(router)}};
  return data.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace host
