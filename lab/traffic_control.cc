// Asks the agents and puts their answers together. Agents answer each request with one line, so that one is asked at a
// time and a lost answer is an error and not a wrong figure.
//
// A loss is assigned to a core group by numbers: those that the receiver misses, and those that the sending PE's link
// carried under that group. Trap: lists of missing numbers and of carried runs are cut by the agents beyond a length,
// so the groups' losses may sum up to less than the loss as a whole; the rest is then shown as lost before the core.
#include "lab/traffic_control.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <stdexcept>
#include <utility>

namespace lab {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

uint32_t address_of(const std::string &text) {
  in_addr address{};
  if (inet_pton(AF_INET, text.c_str(), &address) != 1) throw std::runtime_error("'" + text + "' is no IPv4 address");
  return ntohl(address.s_addr);
}

// How many numbers two lists of ranges share.
uint64_t shared(const json &left, const json &right) {
  uint64_t count = 0;
  for (const json &a : left)
    for (const json &b : right) {
      const uint64_t first = std::max(a.at(0).get<uint64_t>(), b.at(0).get<uint64_t>());
      const uint64_t last = std::min(a.at(1).get<uint64_t>(), b.at(1).get<uint64_t>());
      if (first <= last) count += last - first + 1;
    }
  return count;
}

int64_t now_tenths() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count() / 100;
}

std::string key_of(const json &item) {
  return item.at("interface").get<std::string>() + " " + item.at("direction").get<std::string>() + " " +
         item.at("group").get<std::string>() + " " + std::to_string(item.at("flow").get<uint32_t>());
}

json flow_address(const NetworkFlow &flow, const Network &network) {
  return {{"flow", flow.number}, {"source", Network::source(network.pe(flow.from))}, {"group", flow.group}};
}

}  // namespace

bool in_prefix(const std::string &address, const std::string &prefix) {
  const size_t slash = prefix.find('/');
  uint32_t length = 32;
  if (slash != std::string::npos) {
    const char *end = prefix.data() + prefix.size();
    const auto [stop, error] = std::from_chars(prefix.data() + slash + 1, end, length);
    if (error != std::errc{} || stop != end || length > 32) throw std::runtime_error("'" + prefix + "' is no prefix");
  }
  const uint32_t mask = length == 0 ? 0 : ~0U << (32 - length);
  return (address_of(address) & mask) == (address_of(prefix.substr(0, slash)) & mask);
}

std::string FlowResult::text() const {
  char line[160];
  std::snprintf(line, sizeof line, "%llu sent, %llu received, %llu lost, %llu twice, %llu late, longest gap %.1f ms",
                static_cast<unsigned long long>(sent), static_cast<unsigned long long>(received),
                static_cast<unsigned long long>(lost), static_cast<unsigned long long>(duplicates),
                static_cast<unsigned long long>(reordered), gap_ms);
  std::string result = line;
  for (const auto &[group, count] : sent_by_group) {
    result += "; " + group + ": " + std::to_string(count) + " sent";
    const auto lost_there = lost_by_group.find(group);
    if (lost_there != lost_by_group.end()) result += ", " + std::to_string(lost_there->second) + " lost";
  }
  const auto before = lost_by_group.find("before the core");
  if (before != lost_by_group.end()) result += "; before the core: " + std::to_string(before->second) + " lost";
  if (dropped_here > 0) result += "; " + std::to_string(dropped_here) + " dropped by the receiver's own socket";
  return result;
}

TrafficControl::TrafficControl(const Stage &stage, std::string program, std::string work)
    : stage_(stage), program_(std::move(program)), work_(std::move(work)) {
  for (const std::string &place : stage_.network().core_namespaces()) {
    json links = json::array();
    for (const NetworkPe &pe : stage_.network().pes)
      if (stage_.network().core_namespace(pe) == place) links.push_back(pe.name);
    ask(place, {{"do", "watch"}, {"interfaces", links}, {"write", work_ + "/" + place + ".pcap"}});
  }
}

Process &TrafficControl::agent(const std::string &place) {
  const auto found = agents_.find(place);
  if (found != agents_.end()) return found->second;
  return agents_
      .emplace(place, Process(Launch{.command = {program_, "agent"},
                                     .log_file = work_ + "/traffic.log",
                                     .network_namespace = stage_.namespaces().path(place),
                                     .piped = true}))
      .first->second;
}

json TrafficControl::ask(const std::string &place, const json &request) {
  Process &process = agent(place);
  process.write_line(request.dump());
  json answer = json::parse(process.read_line(kPatience));
  if (!answer.at("ok").get<bool>())
    throw std::runtime_error(place + ": " + request.dump() + ": " + answer.at("error").get<std::string>());
  return answer;
}

void TrafficControl::set_rate(const NetworkFlow &flow, double rate) {
  json request = flow_address(flow, stage_.network());
  request["do"] = started_.insert(flow.name).second ? "send" : "rate";
  request["rate"] = rate;
  request["size"] = flow.size;
  ask(host(flow.from, flow), request);
}

void TrafficControl::join(const NetworkFlow &flow, const std::string &pe) {
  json request = flow_address(flow, stage_.network());
  request["do"] = "join";
  request["interface"] = "eth0";
  ask(host(pe, flow), request);
  json &spans = joined_[flow.name][pe];
  if (spans.is_null()) spans = json::array();
  spans.push_back({now_tenths(), INT64_MAX});
}

void TrafficControl::leave(const NetworkFlow &flow, const std::string &pe) {
  ask(host(pe, flow), {{"do", "leave"}, {"flow", flow.number}});
  joined_.at(flow.name).at(pe).back().at(1) = now_tenths();
}

uint64_t TrafficControl::sent(const NetworkFlow &flow) {
  if (!started_.contains(flow.name)) return 0;
  return ask(host(flow.from, flow), {{"do", "sent"}, {"flow", flow.number}}).at("last");
}

uint64_t TrafficControl::arrived(const NetworkFlow &flow, const std::string &pe) {
  return ask(host(pe, flow), {{"do", "stretch"}, {"flow", flow.number}, {"from", 1}, {"to", 0}}).at("highest");
}

void TrafficControl::mark() {
  for (const NetworkFlow &flow : stage_.network().flows) marked_[flow.name] = sent(flow);
  for (const NetworkPe &pe : stage_.network().pes)
    for (const json &item : carried_list(pe.name, json::object())) marked_carried_[key_of(item)] = item.at("packets");
}

json TrafficControl::carried_list(const std::string &pe, const json &options) {
  json request = options;
  request["do"] = "carried";
  request["interface"] = pe;
  const json answer = ask(stage_.network().core_namespace(stage_.network().pe(pe)), request);
  if (answer.at("dropped_here") != 0)
    throw std::runtime_error("the machine was too slow to watch the core: " + answer.at("dropped_here").dump() +
                             " packets were not counted");
  return answer.at("carried");
}

// What the sending PE's link says of the flow: group to "numbers" or "series".
json TrafficControl::groups_of(const NetworkFlow &flow, const char *what) {
  json result = json::object();
  for (const json &item : carried_list(flow.from, {{what, true}}))
    if (item.at("direction") == "in" && item.at("flow") == flow.number)
      result[item.at("group").get<std::string>()] = item.at(what);
  return result;
}

FlowResult TrafficControl::judge(const NetworkFlow &flow, const std::string &pe) {
  const uint64_t from = marked_[flow.name] + 1;
  const uint64_t to = sent(flow);
  // What is still on its way is not lost: the last packet is waited for, and the ones before it with it.
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (arrived(flow, pe) < to && std::chrono::steady_clock::now() < end) pause_for(50ms);
  const json heard = ask(host(pe, flow), {{"do", "stretch"}, {"flow", flow.number}, {"from", from}, {"to", to}});
  FlowResult result;
  result.sent = to + 1 - from;
  result.received = heard.at("received");
  result.lost = heard.at("lost");
  result.duplicates = heard.at("duplicates");
  result.reordered = heard.at("reordered");
  result.dropped_here = heard.at("dropped_here");
  result.gap_ms = heard.at("gap_ns").get<double>() / 1e6;
  const json whole = json::array({json::array({from, to})});
  uint64_t placed = 0;
  const json groups = groups_of(flow, "numbers");
  for (const auto &[group, numbers] : groups.items()) {
    const uint64_t sent_there = shared(numbers, whole);
    const uint64_t lost_there = shared(numbers, heard.at("missing"));
    if (sent_there > 0) result.sent_by_group[group] = sent_there;
    if (lost_there > 0) result.lost_by_group[group] = lost_there;
    placed += lost_there;
  }
  if (result.lost > placed) result.lost_by_group["before the core"] = result.lost - placed;
  return result;
}

uint64_t TrafficControl::carried(const std::string &pe, const std::string &groups, bool from_pe) {
  uint64_t packets = 0;
  for (const json &item : carried_list(pe, json::object())) {
    if (item.at("direction") != (from_pe ? "in" : "out") || !in_prefix(item.at("group"), groups)) continue;
    const auto before = marked_carried_.find(key_of(item));
    packets += item.at("packets").get<uint64_t>() - (before == marked_carried_.end() ? 0 : before->second);
  }
  return packets;
}

json TrafficControl::history() {
  json result = json::array();
  for (const NetworkFlow &flow : stage_.network().flows) {
    if (!started_.contains(flow.name)) continue;
    json received = json::object();
    for (const auto &[pe, spans] : joined_[flow.name])
      received[pe] = ask(host(pe, flow), {{"do", "received-series"}, {"flow", flow.number}}).at("series");
    result.push_back({{"flow", flow.name},
                      {"vrf", flow.vrf},
                      {"from", flow.from},
                      {"group", flow.group},
                      {"sent", ask(host(flow.from, flow), {{"do", "sent-series"}, {"flow", flow.number}}).at("series")},
                      {"received", received},
                      {"joined", joined_[flow.name]},
                      {"groups", groups_of(flow, "series")}});
  }
  return result;
}

}  // namespace lab
