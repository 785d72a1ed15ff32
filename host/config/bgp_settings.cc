// A neighbour's lines may stand in any order and between those of others, so they are collected by its address first.
//
// BGP speaks from the address that it listens on, when that is one; else from the update source's, so that both ends of
// a session name the same pair of addresses; else from the one that the system chooses.
#include "host/config/bgp_settings.h"

#include <map>

namespace host {
namespace {

using bgp::NeighborConfig;

const Block *bgp_block(const Config &config) { return config.find({Mode::bgp, ""}); }

uint32_t number_or(const Statement &statement, std::string_view name, uint32_t otherwise) {
  const std::string *value = find_argument(statement, name);
  return value == nullptr ? otherwise : static_cast<uint32_t>(number_value(*value));
}

uint32_t value_of(const Statement &statement) { return number_or(statement, "value", 0); }

std::string text_of(const Statement &statement, std::string_view name) {
  const std::string *value = find_argument(statement, name);
  return value == nullptr ? "" : *value;
}

void set_limit(const Statement &line, NeighborConfig &neighbor) {
  neighbor.maximum_prefix.limit = value_of(line);
  neighbor.maximum_prefix.warning_only = find_argument(line, "warning-only") != nullptr;
  neighbor.maximum_prefix.restart = number_or(line, "restart-seconds", 0);
}

void set_shutdown(const Statement &line, NeighborConfig &neighbor) {
  neighbor.shutdown = true;
  neighbor.shutdown_message = text_of(line, "text");
}

// What each of a neighbour's lines sets, by the word behind the address.
using Set = void (*)(const Statement &line, NeighborConfig &neighbor);
const std::map<std::string_view, Set> kSettings = {
    {"remote-as", [](const Statement &line, NeighborConfig &neighbor) { neighbor.remote_as = value_of(line); }},
    {"port",
     [](const Statement &line, NeighborConfig &neighbor) { neighbor.port = static_cast<uint16_t>(value_of(line)); }},
    {"description",
     [](const Statement &line, NeighborConfig &neighbor) { neighbor.description = text_of(line, "text"); }},
    {"password", [](const Statement &line, NeighborConfig &neighbor) { neighbor.password = text_of(line, "secret"); }},
    {"hold-time", [](const Statement &line,
                     NeighborConfig &neighbor) { neighbor.hold_time = static_cast<uint16_t>(value_of(line)); }},
    {"connect-retry", [](const Statement &line,
                         NeighborConfig &neighbor) { neighbor.connect_retry = static_cast<uint16_t>(value_of(line)); }},
    {"passive", [](const Statement &, NeighborConfig &neighbor) { neighbor.passive = true; }},
    {"ttl-security", [](const Statement &line,
                        NeighborConfig &neighbor) { neighbor.ttl_security = static_cast<uint8_t>(value_of(line)); }},
    {"maximum-prefix", set_limit},
    {"shutdown", set_shutdown},
    {"route-reflector-client", [](const Statement &, NeighborConfig &neighbor) { neighbor.reflector_client = true; }},
    {"ipv4-unicast", [](const Statement &, NeighborConfig &neighbor) { neighbor.ipv4_unicast = true; }},
};

struct Neighbor {
  NeighborConfig config;
  int line = 0;  // the first of its lines
};

std::map<bgp::Ipv4, Neighbor> neighbors_of(const Block &block) {
  std::map<bgp::Ipv4, Neighbor> neighbors;
  for (const auto &[place, line] : block.lines()) {
    if (line.statement.command != Command::neighbor) continue;
    const std::vector<Argument> &arguments = line.statement.arguments;  // the address, the setting, its values
    const bgp::Ipv4 address = address_value(arguments[0].value);
    const auto [at, added] = neighbors.try_emplace(address);
    if (added) at->second.line = line.number;
    at->second.config.address = address;
    kSettings.at(arguments[1].name)(line.statement, at->second.config);
  }
  return neighbors;
}

// 0: it has none.
bgp::Ipv4 update_source_address(const Config &config, const Block &block) {
  const std::string *source = block.value(Command::update_source, "interface");
  const Block *interface = source == nullptr ? nullptr : config.find({Mode::interface, *source});
  const std::string *address = interface == nullptr ? nullptr : interface->value(Command::ip_address, "address");
  return address == nullptr ? 0 : address_value(*address);
}

bgp::SpeakerConfig speaker_of(const Config &config, const Block &block) {
  const auto address = [&block](Command command) {
    const std::string *value = block.value(command, "id");
    return value == nullptr ? 0 : address_value(*value);
  };
  bgp::SpeakerConfig speaker;
  if (const std::string *as = block.value(Command::local_as, "as"))
    speaker.local_as = static_cast<bgp::AsNumber>(number_value(*as));
  speaker.router_id = address(Command::router_id);
  if (speaker.router_id == 0) speaker.router_id = update_source_address(config, block);
  speaker.cluster_id = address(Command::cluster_id);
  speaker.graceful_restart = block.find(Command::graceful_restart) == nullptr;
  if (const std::string *seconds = block.value(Command::restart_time, "seconds"))
    speaker.restart_time = static_cast<uint16_t>(number_value(*seconds));
  return speaker;
}

}  // namespace

std::optional<BgpSettings> bgp_settings(const Config &config) {
  const Block *block = bgp_block(config);
  if (block == nullptr || block->find(Command::local_as) == nullptr) return std::nullopt;
  BgpSettings settings;
  settings.speaker = speaker_of(config, *block);
  if (const std::string *endpoint = block->value(Command::bgp_listen, "endpoint")) {
    const EndpointValue value = endpoint_value(*endpoint);
    settings.listen_address = address_value(value.address);
    settings.listen_port = value.port;
  }
  const bgp::Ipv4 from = settings.listen_address != 0 ? settings.listen_address : update_source_address(config, *block);
  for (auto &[address, neighbor] : neighbors_of(*block)) {
    neighbor.config.local_address = from;
    settings.neighbors.push_back(std::move(neighbor.config));
  }
  return settings;
}

std::vector<ConfigError> check_bgp(const Config &config) {
  const Block *block = bgp_block(config);
  if (block == nullptr) return {};
  std::vector<ConfigError> errors;
  const std::map<bgp::Ipv4, Neighbor> neighbors = neighbors_of(*block);
  const Line *as = block->find(Command::local_as);
  if (as == nullptr && !neighbors.empty())
    errors.push_back({neighbors.begin()->second.line, "BGP has neighbours, but no local-as"});
  for (const auto &[address, neighbor] : neighbors) {
    const std::string name = "neighbor " + address_text(address) + ": ";
    const std::string words =
        neighbor.config.remote_as == 0 ? "its remote-as is missing" : bgp::Speaker::check(neighbor.config);
    if (!words.empty()) errors.push_back({neighbor.line, name + words});
  }
  if (as == nullptr) return errors;
  const bgp::SpeakerConfig speaker = speaker_of(config, *block);
  const std::string words = speaker.router_id == 0 ? "BGP has no router-id, nor an update-source with an address"
                                                   : bgp::Speaker::check(speaker);
  if (!words.empty()) errors.push_back({as->number, words});
  return errors;
}

}  // namespace host
