// mvpn-traffic: numbered multicast packets, sent, received and watched in the core. Each command but "agent" does one
// of these by hand and prints what it counted every second; the lab uses "agent" only.
#include <poll.h>

#include <algorithm>
#include <csignal>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>

#include "lab/traffic/agent.h"
#include "lab/traffic/capture.h"
#include "lab/traffic/hostile.h"
#include "lab/traffic/receiver.h"
#include "lab/traffic/sender.h"
#include "options/command_line.h"

namespace {

using nlohmann::json;
using traffic::now_ns;

constexpr int kUsage = 2;
constexpr int64_t kSecond = 1'000'000'000;

volatile std::sig_atomic_t stopped = 0;

struct Options {
  std::string source;
  std::string group;
  std::string interface;
  std::vector<std::string> interfaces;
  std::string write;
  uint32_t flow = 1;
  uint16_t port = traffic::kDefaultPort;
  double rate = 100;
  size_t size = 200;
  double seconds = 0;  // 0: until a signal ends it
  std::string pe;      // hostile
  bool customer = false;
  uint64_t count = 10'000;
  uint32_t seed = 1;
};

// Calls tick(), which returns for how many nanoseconds it has nothing to do, and every second report(), until the time
// is over or a signal came.
template <typename Tick, typename Report>
void work(const Options &options, const std::vector<int> &descriptors, Tick tick, Report report) {
  const int64_t start = now_ns();
  const int64_t end = options.seconds > 0 ? start + static_cast<int64_t>(options.seconds * 1e9) : INT64_MAX;
  int64_t next_report = start + kSecond;
  std::vector<pollfd> waiting;
  for (const int fd : descriptors) waiting.push_back({fd, POLLIN, 0});
  while (stopped == 0 && now_ns() < end) {
    const int64_t idle = std::min({tick(), next_report - now_ns(), end - now_ns()});
    const timespec limit{0, std::clamp<int64_t>(idle, 0, kSecond - 1)};
    ppoll(waiting.data(), waiting.size(), &limit, nullptr);
    if (now_ns() < next_report) continue;
    report();
    next_report += kSecond;
  }
}

traffic::FlowAddress address_of(const Options &options) {
  return {.source = options.source.empty() ? 0 : traffic::address_of(options.source),
          .group = traffic::group_of(options.group),
          .port = options.port};
}

void send(const Options &options) {
  traffic::Sender sender;
  sender.add(options.flow, address_of(options), options.rate, options.size);
  const auto report = [&] {
    const auto &sent = sender.sent(options.flow);
    std::cout << json{{"sent", sent.last}, {"errors", sent.errors}} << std::endl;
  };
  work(
      options, {}, [&] { return sender.send_due(); }, report);
  report();
}

void receive(const Options &options) {
  traffic::Receiver receiver;
  receiver.join(options.flow, address_of(options), options.interface);
  const std::vector<int> descriptors = receiver.descriptors();
  const auto tick = [&] {
    for (const int fd : descriptors) receiver.read(fd);
    return kSecond;
  };
  const auto report = [&] {
    const auto &flow = receiver.flow(options.flow);
    const auto stretch = flow.tally.stretch(std::max<uint64_t>(flow.tally.first(), 1), flow.tally.highest());
    std::cout << json{{"received", stretch.received},
                      {"lost", stretch.lost},
                      {"duplicates", stretch.duplicates},
                      {"reordered", stretch.reordered},
                      {"gap_ms", static_cast<double>(stretch.longest_gap_ns) / 1e6},
                      {"foreign", flow.foreign}}
              << std::endl;
  };
  work(options, descriptors, tick, report);
  report();
}

void watch(const Options &options) {
  traffic::Capture capture;
  if (!options.write.empty()) capture.write(options.write);
  for (const std::string &interface : options.interfaces) capture.watch(interface);
  const std::vector<int> descriptors = capture.descriptors();
  const auto tick = [&] {
    for (const int fd : descriptors) capture.read(fd);
    return kSecond;
  };
  const auto report = [&] {
    for (const auto &[key, item] : capture.carried())
      std::cout << json{{"interface", key.interface},
                        {"direction", key.direction == traffic::Direction::in ? "in" : "out"},
                        {"group", traffic::text_of(key.group)},
                        {"flow", key.flow},
                        {"packets", item.packets},
                        {"bytes", item.bytes}}
                << '\n';
    std::cout << json{{"malformed", capture.malformed()}, {"dropped_here", capture.dropped()}} << std::endl;
  };
  work(options, descriptors, tick, report);
  report();
  capture.flush();
}

void attack(const Options &options) {
  const traffic::HostileTarget target{.source = traffic::address_of(options.source),
                                      .group = traffic::group_of(options.group),
                                      .pe = traffic::address_of(options.pe)};
  using Side = traffic::Hostile::Side;
  traffic::Hostile hostile(options.customer ? Side::customer : Side::core, target, options.seed);
  const uint64_t taken =
      traffic::flood(options.interface, &hostile, options.count, options.rate, [] { return stopped == 0; });
  std::cout << json{{"attacks", options.count}, {"datagrams", taken}} << std::endl;
}

void add_hostile(options::CommandLine *app, Options *options) {
  options::Command hostile =
      app->add_command("hostile", "sends packets that no sound router sends, to try a forwarder");
  hostile.add("INTERFACE", &options->interface, "where they leave").required();
  hostile.add("SOURCE", &options->source, "whose packets the PE takes").required();
  hostile.add("GROUP", &options->group, "that it takes from there").required();
  hostile.add("PE", &options->pe, "its own address in the core").required();
  hostile.add_flag("--customer", &options->customer, "as from a customer; default: as from the core");
  hostile.add("--count", &options->count).show_default();
  hostile.add("--rate", &options->rate, "a second").within(1.0, 1e6).show_default();
  hostile.add("--seed", &options->seed, "of the details").show_default();
}

void add_flow_options(options::Command command, Options *options) {
  command.add("--flow", &options->flow, "number of the flow, which its packets carry").show_default();
  command.add("--port", &options->port, "UDP port").show_default();
}

void add_commands(options::CommandLine *app, Options *options) {
  app->require_command();
  options::Command sending =
      app->add_command("send", "sends a flow, and tells every second how many packets have left");
  sending.add("SOURCE", &options->source, "address of this machine").required();
  sending.add("GROUP", &options->group, "that it is sent to, 224.0.0.0 to 239.255.255.255").required();
  sending.add("--rate", &options->rate, "packets a second").show_default();
  sending.add("--size", &options->size, "bytes of UDP payload").show_default();
  add_flow_options(sending, options);
  options::Command receiving =
      app->add_command("receive", "joins a flow, and tells every second what came and what is missing");
  receiving.add("INTERFACE", &options->interface, "where it is joined").required();
  receiving.add("GROUP", &options->group, "that is joined").required();
  receiving.add("--source", &options->source, "only from there (IGMPv3); default: from anywhere");
  add_flow_options(receiving, options);
  options::Command watching = app->add_command("watch", "counts GRE packets of links in the core, by group and flow");
  watching.add("INTERFACE", &options->interfaces).required();
  watching.add("--write", &options->write, "also write what comes in to a capture file");
  for (options::Command command : {sending, receiving, watching})
    command.add("--seconds", &options->seconds, "ends after so long; default: at a signal");
  add_hostile(app, options);
  app->add_command("agent", "serves requests on standard input: the lab's hand in a namespace");
}

}  // namespace

int main(int argc, char **argv) {
  options::CommandLine app{
      "Sends and receives numbered multicast packets and tells what became of them. Prints JSON, one object a "
      "line."};
  Options options;
  add_commands(&app, &options);
  app.version("mvpn-traffic " MVPN_VERSION);
  if (const std::optional<int> status = app.parse(argc, argv, kUsage)) return *status;
  const auto on_signal = [](int) { stopped = 1; };
  std::signal(SIGINT, on_signal);
  std::signal(SIGTERM, on_signal);
  std::signal(SIGPIPE, SIG_IGN);
  try {
    if (app.given("send")) send(options);
    if (app.given("receive")) receive(options);
    if (app.given("watch")) watch(options);
    if (app.given("hostile")) attack(options);
    if (app.given("agent")) traffic::run_agent();
    return 0;
  } catch (const std::exception &error) {
    std::cerr << "mvpn-traffic: " << error.what() << '\n';
    return 1;
  }
}
