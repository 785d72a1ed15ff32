// Builds the network by means of the programs ip, tc, nft and sysctl and of daemon configurations made from templates.
//
// Order matters in three places: interfaces stand before the daemons that read them are started; the bridge's querier
// is switched on last; the zebra of a place listens before the other daemons of that place look for it. What is built
// is not undone here but with remove_vrf(): it goes with its namespace.
#include "lab/stage.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "lab/config_template.h"

namespace lab {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

const std::string kDaemonFolder = "/usr/lib/frr/";
constexpr char kDaemonUser[] = "frr";

json lines_of(const std::vector<std::string> &lines) {
  json result = json::array();
  for (const std::string &line : lines) result.push_back({{"LINE", line}});
  return result;
}

}  // namespace

std::string why_no_daemons() {
  for (const char *name : {"zebra", "staticd", "pimd"})
    if (access((kDaemonFolder + name).c_str(), X_OK) != 0)
      return std::string(name) + " of the package frr is not installed";
  if (getpwnam(kDaemonUser) == nullptr) return "there is no user frr";
  return {};
}

Stage::Stage(const Network &network, std::string prefix, std::string project, std::string work)
    : network_(network), namespaces_(std::move(prefix)), project_(std::move(project)), work_(std::move(work)) {
  const std::string reason = why_no_daemons();
  if (!reason.empty()) throw std::runtime_error(reason);
}

void Stage::build() {
  if (network_.routed)
    build_routers();
  else
    build_bridge();
  std::vector<std::string> places = network_.routed ? network_.core_namespaces() : std::vector<std::string>{};
  for (const NetworkPe &pe : network_.pes) {
    add_pe(pe);
    for (const NetworkVrf &vrf : network_.vrfs) {
      if (!network_.has(pe.name, vrf.name)) continue;
      add_customer(pe, vrf);
      places.push_back(pe.name + "-" + vrf.name);
    }
  }
  if (network_.wired) add_wires();
  start_daemons(places);
}

// A link for each VRF that joins its namespaces, each end with the name and address that the tunnel would have.
void Stage::add_wires() {
  namespaces_.add("wires");
  for (const NetworkVrf &vrf : network_.vrfs) {
    namespaces_.ip("wires", {"link add " + vrf.name + " type bridge mcast_snooping 0", "link set " + vrf.name + " up"});
    for (const std::string &pe : vrf.pes) {
      const std::string place = pe + "-" + vrf.name;
      const std::string end = "w" + std::to_string(vrf.number) + "-" + std::to_string(network_.pe(pe).number);
      namespaces_.ip("wires",
                     {"link add " + end + " type veth peer name " + vrf.tunnel() + " netns " + namespaces_.full(place),
                      "link set " + end + " master " + vrf.name + " up"});
      namespaces_.ip(place, {"addr add " + network_.core_address(network_.pe(pe)) + "/32 dev " + vrf.tunnel(),
                             "link set " + vrf.tunnel() + " up"});
    }
  }
}

// ---------------------------------------------------------------------------------------------------------------- core

void Stage::build_bridge() {
  namespaces_.add("core");
  // The querier is switched on last: it counts from the intervals that it finds.
  namespaces_.ip("core",
                 {"link add br0 type bridge mcast_snooping 1 mcast_igmp_version 3 mcast_query_interval 1000 "
                  "mcast_query_response_interval 100 mcast_startup_query_interval 100 stp_state 0 forward_delay 0",
                  "addr add " + std::string(kReflectorAddress) + "/24 dev br0", "link set br0 up",
                  "link set br0 type bridge mcast_querier 1"});
}

void Stage::add_router(const std::string &name, const std::string &other) {
  json pes = json::array();
  std::vector<std::string> routes;
  const std::string next = name == "p1" ? "10.1.0.2" : "10.1.0.1";
  for (const NetworkPe &pe : network_.pes) {
    if (network_.core_namespace(pe) == name) pes.push_back({{"PE", pe.name}});
    if (network_.core_namespace(pe) == other)
      routes.push_back("route add 10.0." + std::to_string(pe.number) + ".0/24 via " + next);
  }
  if (name == "p2") routes.push_back("route add " + std::string(kReflectorAddress) + "/32 via " + next);
  namespaces_.ip(name, routes);
  namespaces_.in(name, {"sysctl", "-qw", "net.ipv4.ip_forward=1"});
  write_daemon_file(name, "staticd", "");
  write_daemon_file(name, "pimd", fill_template(template_file("p-pimd.conf"), {{"PES", pes}}));
}

void Stage::build_routers() {
  namespaces_.add("p1");
  namespaces_.add("p2");
  namespaces_.ip("p1",
                 {"link add p type veth peer name p netns " + namespaces_.full("p2"), "addr add 10.1.0.1/30 dev p",
                  "addr add " + std::string(kReflectorAddress) + "/32 dev lo", "link set p up"});
  namespaces_.ip("p2", {"addr add 10.1.0.2/30 dev p", "link set p up"});
  add_router("p1", "p2");
  add_router("p2", "p1");
}

// ----------------------------------------------------------------------------------------------------------------- PEs

void Stage::add_pe(const NetworkPe &pe) {
  const std::string core = network_.core_namespace(pe);
  const std::string number = std::to_string(pe.number);
  namespaces_.add(pe.name);
  namespaces_.in(pe.name, {"sysctl", "-qw", "net.ipv4.igmp_max_memberships=100000", "net.ipv4.igmp_max_msf=100000"});
  namespaces_.ip(core, {"link add " + pe.name + " type veth peer name core netns " + namespaces_.full(pe.name)});
  if (network_.routed) {
    namespaces_.ip(core, {"addr add 10.0." + number + ".1/24 dev " + pe.name, "link set " + pe.name + " up"});
    namespaces_.ip(pe.name, {"addr add 10.0." + number + ".2/24 dev core", "link set core up",
                             "route add default via 10.0." + number + ".1"});
    return;
  }
  namespaces_.ip(core, {"link add " + pe.name + "b type veth peer name core2 netns " + namespaces_.full(pe.name),
                        "link set " + pe.name + " master br0 up", "link set " + pe.name + "b master br0 up"});
  namespaces_.ip(pe.name,
                 {"addr add " + network_.core_address(pe) + "/24 dev core", "link set core up",
                  "addr add 10.0.0." + std::to_string(100 + pe.number) + "/24 dev core2", "link set core2 up"});
}

void Stage::add_customer(const NetworkPe &pe, const NetworkVrf &vrf) {
  const std::string host = pe.name + "-" + vrf.name + "-h";
  namespaces_.add(host);
  namespaces_.ip(host, {"link add eth0 type bridge mcast_snooping 0 stp_state 0 forward_delay 0",
                        "addr add " + Network::source(pe) + "/24 dev eth0", "link set eth0 up",
                        "route add default via " + Network::site(pe) + "1"});
  const std::string place = pe.name + "-" + vrf.name;
  write_vrf_daemons(pe, vrf, place);
  connect_vrf(pe, place);
}

// Makes the VRF's namespace and its link to the customer.
void Stage::connect_vrf(const NetworkPe &pe, const std::string &place) {
  namespaces_.add(place);
  namespaces_.in(place, {"sysctl", "-qw", "net.ipv4.ip_forward=1"});
  namespaces_.ip(place, {"link add lan type veth peer name lan netns " + namespaces_.full(place + "-h"),
                         "addr add " + Network::site(pe) + "1/24 dev lan", "link set lan up"});
  namespaces_.ip(place + "-h", {"link set lan master eth0 up"});
}

void Stage::write_vrf_daemons(const NetworkPe &pe, const NetworkVrf &vrf, const std::string &place) {
  json sites = json::array();
  for (const std::string &name : vrf.pes) {
    const NetworkPe &other = network_.pe(name);
    if (other.name == pe.name) continue;
    sites.push_back(
        {{"SITE", Network::site(other) + "0/24"}, {"ADDRESS", network_.core_address(other)}, {"TUNNEL", vrf.tunnel()}});
  }
  write_daemon_file(place, "staticd", fill_template(template_file("vrf-staticd.conf"), {{"SITES", sites}}));
  write_daemon_file(place, "pimd", fill_template(template_file("vrf-pimd.conf"), {{"TUNNEL", vrf.tunnel()}}));
}

void Stage::add_vrf(const std::string &pe, const std::string &vrf) {
  const std::string place = pe + "-" + vrf;
  connect_vrf(network_.pe(pe), place);
  // A forwarder that serves the VRF makes its tunnel at once. An interface that gets its address just while zebra reads
  // what is there is not told to pimd: the daemons start when the tunnel stands, or when there will be none yet.
  const std::string tunnel = network_.vrf(vrf).tunnel();
  for (int i = 0; i < 20; ++i) {
    const Result result = namespaces_.in(place, {"ip", "-o", "address", "show", "dev", tunnel, "up"});
    if (result.status == 0 && result.output.find("inet ") != std::string::npos) break;
    pause_for(100ms);
  }
  start_daemons({place});
}

void Stage::remove_vrf(const std::string &pe, const std::string &vrf) {
  const std::string place = pe + "-" + vrf;
  daemons_.erase(place);
  namespaces_.ip(place + "-h", {"link del lan"});
  namespaces_.remove(place);
}

void Stage::set_link(const std::string &pe, bool up) {
  const std::string core = network_.core_namespace(network_.pe(pe));
  namespaces_.ip(core, {"link set " + pe + (up ? " up" : " down")});
}

std::array<std::pair<std::string, std::string>, 2> Stage::link_ends(const std::string &pe) const {
  return {{{network_.core_namespace(network_.pe(pe)), pe}, {pe, "core"}}};
}

void Stage::in_or_throw(const std::string &place, const std::string &command) const {
  const Result result = namespaces_.in(place, {"sh", "-c", command});
  if (result.status != 0) throw std::runtime_error(place + ": " + command + ": " + result.output);
}

void Stage::impair(const std::string &pe, const std::string &netem) {
  for (const auto &[place, interface] : link_ends(pe))
    in_or_throw(place, netem.empty() ? "tc qdisc del dev " + interface + " root"
                                     : "tc qdisc replace dev " + interface + " root netem " + netem);
}

// Where a packet comes in, behind whoever captures there: the capture of the core shows what was on the wire.
void Stage::lose(const std::string &pe, double percent) {
  for (const auto &[place, interface] : link_ends(pe)) {
    const std::string table = "netdev lose-" + interface;
    in_or_throw(place, "nft 'add table " + table + "; delete table " + table + "'");
    if (percent <= 0) continue;
    in_or_throw(place, "nft 'add table " + table + "; add chain " + table + " in { type filter hook ingress device " +
                           interface + " priority 0; }; add rule " + table + " in numgen random mod 10000 < " +
                           std::to_string(static_cast<int>(percent * 100)) + " drop'");
  }
}

std::string Stage::reflector_configuration() const {
  json pes = json::array();
  for (const NetworkPe &pe : network_.pes) pes.push_back({{"PE", pe.name}, {"ADDRESS", network_.core_address(pe)}});
  return fill_template(template_file("reflector.conf"), {{"REFLECTOR", kReflectorAddress}, {"PES", pes}});
}

std::string Stage::configuration(const std::string &pe, const std::string &forwarder_socket) const {
  const NetworkPe &of = network_.pe(pe);
  json vrfs = json::array();
  for (const NetworkVrf &vrf : network_.vrfs) {
    if (!network_.has(pe, vrf.name)) continue;
    vrfs.push_back({{"VRF", vrf.name},
                    {"NETNS", namespaces_.full(pe + "-" + vrf.name)},
                    {"TABLE", vrf.table()},
                    {"NUMBER", vrf.number},
                    {"GROUP", vrf.default_group},
                    {"DATA", vrf.data_range},
                    {"THRESHOLD", vrf.threshold},
                    {"VRFLINES", lines_of(vrf.lines)}});
  }
  return fill_template(project_ + "/" + network_.config_template, {{"PE", pe},
                                                                   {"NUMBER", of.number},
                                                                   {"ADDRESS", network_.core_address(of)},
                                                                   {"SOCKET", forwarder_socket},
                                                                   {"REFLECTOR", kReflectorAddress},
                                                                   {"VRFS", vrfs},
                                                                   {"LINES", lines_of(of.lines)}});
}

// ------------------------------------------------------------------------------------------------------------ daemons

void Stage::write_daemon_file(const std::string &place, const std::string &daemon, const std::string &text) const {
  const std::string folder = daemon_folder(place);
  std::filesystem::create_directories(folder);
  const passwd *user = getpwnam(kDaemonUser);
  if (user == nullptr || chown(folder.c_str(), user->pw_uid, user->pw_gid) != 0)
    throw std::runtime_error(folder + ": " + std::strerror(errno));
  std::ofstream(folder + "/" + daemon + ".conf") << text;
}

// zebra first, in all places, since the others give up a zebra that they do not find and try again later.
void Stage::start_daemons(const std::vector<std::string> &places) {
  for (const char *daemon : {"zebra", "staticd", "pimd"}) {
    for (const std::string &place : places) {
      const std::string folder = daemon_folder(place);
      if (daemon == std::string("zebra")) {
        write_daemon_file(place, daemon, "");
        std::filesystem::remove(folder + "/zserv.api");  // a former zebra's: it would be taken for the new one's
      }
      daemons_[place].emplace_back(
          Launch{.command = {kDaemonFolder + daemon, "-f", folder + "/" + daemon + ".conf", "-i",
                             folder + "/" + daemon + ".pid", "-z", folder + "/zserv.api", "--vty_socket", folder, "-P",
                             "0", "--log", "file:" + folder + "/log"},
                 .log_file = folder + "/output",
                 .network_namespace = namespaces_.path(place)});
    }
    if (daemon != std::string("zebra")) continue;
    for (const std::string &place : places)
      for (int i = 0; i < 500 && !std::filesystem::exists(daemon_folder(place) + "/zserv.api"); ++i) pause_for(20ms);
  }
}

Result Stage::shell(const std::string &place, const std::string &command) const {
  const std::string name = network_.namespace_of(place);
  return namespaces_.in(name, {"env", "VTYSH=vtysh --vty_socket " + daemon_folder(name), "sh", "-c", command});
}

}  // namespace lab
