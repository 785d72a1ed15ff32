// Reads the "network" of a scenario, and derives names and addresses from the numbers of PEs and VRFs.
//
// Whatever is wrong is found while the scenario is read, before anything is built: names that are too long for an
// interface, members that are not there, words that nobody knows. The order of the file matters, since it numbers VRFs
// and flows; the JSON type keeps it.
#include "lab/network.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>

namespace lab {
namespace {

using json = nlohmann::ordered_json;  // VRFs and flows are numbered in the order in which they are written

constexpr int kMostPes = 99;    // core2 addresses end with 100 + number
constexpr int kMostVrfs = 100;  // the VRF's number is a byte of its groups, and 7 more than it one of its data range
constexpr char kTemplate[] = "lab/templates/pe.conf";

void refuse_unknown(const json &object, const std::set<std::string> &known) {
  for (const auto &[word, value] : object.items())
    if (!known.contains(word)) throw std::runtime_error("'" + word + "' is not known here");
}

// A namespace, an interface (15 characters, behind a few of ours) and a file are named after it.
const std::string &checked_name(const std::string &name) {
  const auto plain = [](char c) { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'); };
  if (name.empty() || name.size() > 12 || !std::all_of(name.begin(), name.end(), plain))
    throw std::runtime_error("'" + name + "': names are 1 to 12 small letters and digits");
  return name;
}

std::vector<std::string> numbered(const std::string &prefix, int count, int most) {
  if (count < 1 || count > most)
    throw std::runtime_error("there may be 1 to " + std::to_string(most) + " of '" + prefix + "'");
  std::vector<std::string> names;
  for (int i = 1; i <= count; ++i) names.push_back(prefix + std::to_string(i));
  return names;
}

void read_pes(const json &object, Network *network) {
  const json &value = object.at("pes");
  const std::vector<std::string> names =
      value.is_number() ? numbered("pe", value, kMostPes) : value.get<std::vector<std::string>>();
  if (names.empty() || names.size() > kMostPes) throw std::runtime_error("there may be 1 to 99 PEs");
  for (const std::string &name : names)
    network->pes.push_back({checked_name(name), static_cast<int>(network->pes.size()) + 1, {}});
  if (!object.contains("lines")) return;
  for (const auto &[name, lines] : object["lines"].items())
    const_cast<NetworkPe &>(network->pe(name)).lines = lines.get<std::vector<std::string>>();
}

std::vector<std::string> read_members(const Network &network, const json &object, const char *key) {
  std::vector<std::string> names;
  if (object.contains(key)) {
    names = object[key].get<std::vector<std::string>>();
    for (const std::string &name : names) network.pe(name);
  } else {
    for (const NetworkPe &pe : network.pes) names.push_back(pe.name);
  }
  return names;
}

void add_vrf(const std::string &name, const json &object, Network *network) {
  refuse_unknown(object, {"pes", "data", "threshold", "lines"});
  NetworkVrf vrf;
  vrf.name = checked_name(name);
  vrf.number = static_cast<int>(network->vrfs.size()) + 1;
  if (vrf.number > kMostVrfs) throw std::runtime_error("there may be 1 to 100 VRFs");
  vrf.pes = read_members(*network, object, "pes");
  vrf.default_group = "239.1.1." + std::to_string(vrf.number);
  vrf.data_range = object.value("data", "239.1." + std::to_string(7 + vrf.number) + ".0/24");
  vrf.threshold = object.value("threshold", vrf.threshold);
  vrf.lines = object.value("lines", vrf.lines);
  network->vrfs.push_back(std::move(vrf));
}

void read_vrfs(const json &value, Network *network) {
  if (value.is_number())
    for (const std::string &name : numbered("v", value, kMostVrfs)) add_vrf(name, json::object(), network);
  else
    for (const auto &[name, object] : value.items()) add_vrf(name, object, network);
  if (network->vrfs.empty()) throw std::runtime_error("a network without VRFs");
}

void add_flow(const std::string &name, const std::string &vrf, const json &object, Network *network) {
  refuse_unknown(object, {"vrf", "from", "to", "group", "size"});
  NetworkFlow flow;
  flow.name = name;
  flow.number = static_cast<uint32_t>(network->flows.size()) + 1;
  flow.vrf = network->vrf(vrf).name;
  flow.from = network->pe(object.at("from")).name;
  flow.group = object.at("group");
  flow.size = object.value("size", flow.size);
  for (const std::string &pe : read_members(*network, object, "to"))
    if (pe != flow.from) flow.to.push_back(pe);
  flow.to.erase(
      std::remove_if(flow.to.begin(), flow.to.end(), [&](const std::string &pe) { return !network->has(pe, vrf); }),
      flow.to.end());
  if (!network->has(flow.from, vrf)) throw std::runtime_error(flow.from + " has no VRF " + vrf);
  network->flows.push_back(std::move(flow));
}

void read_flows(const json &flows, Network *network) {
  for (const auto &[name, object] : flows.items()) {
    const auto vrf = object.at("vrf").get<std::string>();
    if (vrf != "*") {
      add_flow(name, vrf, object, network);
      continue;
    }
    for (const NetworkVrf &each : network->vrfs) add_flow(name + "-" + each.name, each.name, object, network);
  }
}

template <typename Item>
const Item &find(const std::vector<Item> &items, const std::string &name, const char *kind) {
  const auto found = std::find_if(items.begin(), items.end(), [&](const Item &item) { return item.name == name; });
  if (found == items.end()) throw std::runtime_error(std::string("there is no ") + kind + " '" + name + "'");
  return *found;
}

}  // namespace

const NetworkPe &Network::pe(const std::string &name) const { return find(pes, name, "PE"); }
const NetworkVrf &Network::vrf(const std::string &name) const { return find(vrfs, name, "VRF"); }
const NetworkFlow &Network::flow(const std::string &name) const { return find(flows, name, "flow"); }

bool Network::has(const std::string &pe_name, const std::string &vrf_name) const {
  const std::vector<std::string> &members = vrf(vrf_name).pes;
  return std::find(members.begin(), members.end(), pe_name) != members.end();
}

std::string Network::core_address(const NetworkPe &pe) const {
  const std::string number = std::to_string(pe.number);
  return routed ? "10.0." + number + ".2" : "10.0.0." + number;
}

std::string Network::core_namespace(const NetworkPe &pe) const {
  if (!routed) return "core";
  return pe.number % 2 == 1 ? "p1" : "p2";
}

std::vector<std::string> Network::core_namespaces() const {
  return routed ? std::vector<std::string>{"p1", "p2"} : std::vector<std::string>{"core"};
}

std::string Network::namespace_of(const std::string &place) const {
  for (const std::string &name : core_namespaces())
    if (place == name) return name;
  const size_t slash = place.find('/');
  const std::string &name = pe(place.substr(0, slash)).name;
  if (slash == std::string::npos) return name;
  std::string vrf_name = place.substr(slash + 1);
  const bool host = vrf_name.ends_with("/host");
  if (host) vrf_name.resize(vrf_name.size() - 5);
  if (!has(name, vrf_name)) throw std::runtime_error(name + " has no VRF " + vrf_name);
  return name + "-" + vrf_name + (host ? "-h" : "");
}

Network read_network(const json &object) {
  refuse_unknown(object, {"core", "tunnels", "pes", "vrfs", "template", "lines", "flows"});
  Network network;
  const std::string core = object.value("core", std::string("bridge"));
  if (core != "bridge" && core != "routed") throw std::runtime_error("the core is a bridge or routed");
  network.routed = core == "routed";
  const std::string tunnels = object.value("tunnels", std::string("real"));
  if (tunnels != "real" && tunnels != "wired") throw std::runtime_error("tunnels are real or wired");
  network.wired = tunnels == "wired";
  network.config_template = object.value("template", std::string(kTemplate));
  read_pes(object, &network);
  read_vrfs(object.at("vrfs"), &network);
  if (object.contains("flows")) read_flows(object["flows"], &network);
  return network;
}

}  // namespace lab
