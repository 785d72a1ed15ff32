// mvpn-traffic: numbered multicast packets, sent, received and watched in the core.
#include <poll.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>

#include "lab/traffic/agent.h"
#include "lab/traffic/capture.h"
#include "lab/traffic/hostile.h"
#include "lab/traffic/receiver.h"
#include "lab/traffic/sender.h"

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
          .group = traffic::address_of(options.group),
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
                                      .group = traffic::address_of(options.group),
                                      .pe = traffic::address_of(options.pe)};
  using Side = traffic::Hostile::Side;
  traffic::Hostile hostile(options.customer ? Side::customer : Side::core, target, options.seed);
  const uint64_t taken =
      traffic::flood(options.interface, &hostile, options.count, options.rate, [] { return stopped == 0; });
  std::cout << json{{"attacks", options.count}, {"datagrams", taken}} << std::endl;
}

void add_hostile(CLI::App *app, Options *options) {
  auto *hostile = app->add_subcommand("hostile", "sends packets that no sound router sends, to try a forwarder");
  hostile->add_option("INTERFACE", options->interface, "where they leave")->required();
  hostile->add_option("SOURCE", options->source, "whose packets the PE takes")->required();
  hostile->add_option("GROUP", options->group, "that it takes from there")->required();
  hostile->add_option("PE", options->pe, "its own address in the core")->required();
  hostile->add_flag("--customer", options->customer, "as from a customer; default: as from the core");
  hostile->add_option("--count", options->count)->capture_default_str();
  hostile->add_option("--rate", options->rate, "a second")->check(CLI::Range(1.0, 1e6))->capture_default_str();
  hostile->add_option("--seed", options->seed, "of the details")->capture_default_str();
}

void add_flow_options(CLI::App *command, Options *options) {
  command->add_option("--flow", options->flow, "number of the flow, which its packets carry")->capture_default_str();
  command->add_option("--port", options->port, "UDP port")->capture_default_str();
}

void add_commands(CLI::App *app, Options *options) {
  app->require_subcommand(1);
  auto *sending = app->add_subcommand("send", "sends a flow, and tells every second how many packets have left");
  sending->add_option("SOURCE", options->source, "address of this machine")->required();
  sending->add_option("GROUP", options->group)->required();
  sending->add_option("--rate", options->rate, "packets a second")->capture_default_str();
  sending->add_option("--size", options->size, "bytes of UDP payload")->capture_default_str();
  add_flow_options(sending, options);
  auto *receiving =
      app->add_subcommand("receive", "joins a flow, and tells every second what came and what is missing");
  receiving->add_option("INTERFACE", options->interface)->required();
  receiving->add_option("GROUP", options->group)->required();
  receiving->add_option("--source", options->source, "only from there (IGMPv3); default: from anywhere");
  add_flow_options(receiving, options);
  auto *watching = app->add_subcommand("watch", "counts GRE packets of links in the core, by group and flow");
  watching->add_option("INTERFACE", options->interfaces)->required();
  watching->add_option("--write", options->write, "also write what comes in to a capture file");
  for (CLI::App *command : {sending, receiving, watching})
    command->add_option("--seconds", options->seconds, "ends after so long; default: at a signal");
  add_hostile(app, options);
  app->add_subcommand("agent", "serves requests on standard input: the lab's hand in a namespace");
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app{
      "Sends and receives numbered multicast packets and tells what became of them. Prints JSON, one object a "
      "line."};
  Options options;
  add_commands(&app, &options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    return app.exit(error) == 0 ? 0 : kUsage;
  }
  const auto on_signal = [](int) { stopped = 1; };
  std::signal(SIGINT, on_signal);
  std::signal(SIGTERM, on_signal);
  std::signal(SIGPIPE, SIG_IGN);
  try {
    if (app.got_subcommand("send")) send(options);
    if (app.got_subcommand("receive")) receive(options);
    if (app.got_subcommand("watch")) watch(options);
    if (app.got_subcommand("hostile")) attack(options);
    if (app.got_subcommand("agent")) traffic::run_agent();
    return 0;
  } catch (const std::exception &error) {
    std::cerr << "mvpn-traffic: " << error.what() << '\n';
    return 1;
  }
}
