// Plays the steps one after the other, in the lab's one thread. Each kind of step is a function; what it does goes to
// the report as an action, what it expects as an expectation.
//
// PEs are asked through pimctl, as an operator asks them: the run sees what an operator would see. What is expected may
// take its time, so it is asked for again and again until it is there or the step's limit has come. A control plane or
// a reflector counts as started when it says in its own log that it serves; whoever answers at its address may be a
// stranger.
//
// Two clocks: limits are in real seconds, "wait" is in seconds of the platform, which a scenario may let run faster.
#include "lab/runner.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace lab {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Words of a command line; quotes keep blanks together.
std::vector<std::string> split(const std::string &command) {
  std::vector<std::string> words;
  std::string word;
  char quote = 0;
  bool open = false;
  for (const char c : command) {
    if (quote != 0) {
      if (c == quote)
        quote = 0;
      else
        word.push_back(c);
    } else if (c == '\'' || c == '"') {
      quote = c;
      open = true;
    } else if (c == ' ') {
      if (open || !word.empty()) words.push_back(std::exchange(word, {}));
      open = false;
    } else {
      word.push_back(c);
    }
  }
  if (open || !word.empty()) words.push_back(word);
  return words;
}

size_t count_matches(const std::string &text, const std::string &pattern) {
  const std::regex regex(pattern, std::regex::ECMAScript | std::regex::multiline);
  return static_cast<size_t>(
      std::distance(std::sregex_iterator(text.begin(), text.end(), regex), std::sregex_iterator()));
}

// The line of a text that matches, else its first line.
std::string telling_line(const std::string &text, const std::string &pattern) {
  const std::regex regex(pattern, std::regex::ECMAScript | std::regex::multiline);
  std::istringstream in(text);
  std::string first;
  for (std::string line; std::getline(in, line);) {
    const size_t begin = line.find_first_not_of(' ');
    if (begin == std::string::npos) continue;
    const std::string shown = line.substr(begin, line.find_last_not_of(' ') - begin + 1);
    if (std::regex_search(line, regex)) return shown;
    if (first.empty()) first = shown;
  }
  return first.empty() ? "(nothing)" : first;
}

// The text of a log behind a position.
std::string log_from(const std::string &file, uintmax_t position) {
  std::ifstream in(file);
  in.seekg(static_cast<std::streamoff>(position));
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// The first line of a text that has a word; "" for none.
std::string line_with(const std::string &text, const std::string &word) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);)
    if (line.find(word) != std::string::npos) return line;
  return "";
}

// Seconds since 1970 of a time as views write it: 2030-01-31T12:00:00.123Z.
double seconds_of(const std::string &time) {
  std::tm parts{};
  const char *rest = strptime(time.c_str(), "%Y-%m-%dT%H:%M:%S", &parts);
  if (rest == nullptr) throw std::runtime_error("'" + time + "' is no time");
  return static_cast<double>(timegm(&parts)) + std::strtod(rest, nullptr);
}

constexpr int kNotUnderstood = 2;  // exit status of pimctl

Clock::time_point after(double seconds) {
  return Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

}  // namespace

Runner::Runner(const Scenario &scenario, Options options, Report *report)
    : scenario_(scenario),
      options_(std::move(options)),
      report_(report),
      scale_(options_.clock_scale > 0 ? options_.clock_scale : scenario.clock_scale) {
  std::filesystem::create_directories(options_.work);
}

bool Runner::play() {
  report_->line(scenario_.name);
  findings_.network = scenario_.network;
  try {
    play_steps();
  } catch (const std::exception &error) {
    report_->broken(error.what());
  }
  return report_->finish();
}

// Before anything is built: a scenario that cannot be played to its end should say so at once.
void Runner::check_files() const {
  const auto need = [](const std::string &file) {
    if (!std::filesystem::exists(file)) throw std::runtime_error("there is no " + file);
  };
  for (const char *program : {"pimhostd", "pimctl"}) need(program_in(options_.binaries, program));
  if (!scenario_.reflector.empty()) need(program_in(options_.binaries, "mdt-reflector"));
  if (scenario_.network) return;
  for (const auto &[pe, config] : scenario_.configs)
    if (!config.file.empty()) need(options_.project + "/" + config.file);
}

void Runner::play_steps() {
  check_files();
  if (scenario_.network) {
    real_.emplace(*scenario_.network,
                  RealLab::Settings{options_.binaries, options_.project, options_.work, options_.prefix});
    report_->line("the network stands, in namespaces whose names begin with " + options_.prefix + "-");
  }
  start_reflector();
  for (const Step &step : scenario_.steps) play(step);
  for (auto &[pe, daemon] : daemons_) collect_events(pe);
  std::stable_sort(findings_.events.begin(), findings_.events.end(),
                   [](const PeEvent &a, const PeEvent &b) { return a.at < b.at; });
  if (real_) findings_.flows = real_->traffic().history();
  for (auto &[pe, daemon] : daemons_) stop_control(pe);
}

// What the PE has noted since it was started, on the run's own clock.
void Runner::collect_events(const std::string &pe) {
  if (!daemons_.at(pe).running()) return;
  const Result clock = pimctl(pe, "show clock | json");
  const double now = report_->seconds();
  const Result events = pimctl(pe, "show events last 1000 | json");
  if (clock.status != 0 || events.status != 0) return;
  const nlohmann::json time = nlohmann::json::parse(clock.output).at("clock").at(0);
  for (const nlohmann::json &event : nlohmann::json::parse(events.output).value("event", nlohmann::json::array())) {
    const double ago = (time.at("clock-seconds").get<double>() - event.at("clock-seconds").get<double>()) /
                       time.at("scale").get<double>();
    findings_.events.push_back({now - ago, pe, event.at("text").get<std::string>()});
  }
  if (real_) collect_forwarder_events(pe);
}

// The forwarder outlives the control plane that tells of them: the same events are asked for more than once.
void Runner::collect_forwarder_events(const std::string &pe) {
  const Result events = pimctl(pe, "show forwarding events | json");
  if (events.status != 0) return;
  const nlohmann::json list = nlohmann::json::parse(events.output);
  for (const nlohmann::json &event : list.value("forwarding-event", nlohmann::json::array())) {
    if (!forwarder_events_.insert(pe + event.dump()).second) continue;
    const double at = seconds_of(event.at("time")) - static_cast<double>(report_->start_ns()) / 1e9;
    findings_.events.push_back({at, pe + " forwarder", event.at("text").get<std::string>()});
  }
}

void Runner::play(const Step &step) {
  using Kind = Step::Kind;
  switch (step.kind) {
    case Kind::say:
      return report_->heading(step.text);
    case Kind::start:
      return start(step);
    case Kind::stop:
      return stop(step);
    case Kind::kill:
      return kill(step);
    case Kind::command:
      return command(step);
    case Kind::expect:
      return expect(step);
    case Kind::wait:
      return wait(step.seconds);
    default:
      return play_on_network(step);
  }
}

void Runner::play_on_network(const Step &step) {
  using Kind = Step::Kind;
  TrafficControl &traffic = real_->traffic();
  switch (step.kind) {
    case Kind::mark:
      return mark(step);
    case Kind::memory:
      return memory(step);
    case Kind::rate:
      report_->action(step.flow + ": " + std::to_string(static_cast<int>(step.rate)) + " packets a second");
      return traffic.set_rate(scenario_.network->flow(step.flow), step.rate);
    case Kind::join:
      report_->action(step.flow + ": a receiver joins behind " + step.pe);
      return traffic.join(scenario_.network->flow(step.flow), step.pe);
    case Kind::leave:
      report_->action(step.flow + ": the receiver behind " + step.pe + " leaves");
      return traffic.leave(scenario_.network->flow(step.flow), step.pe);
    case Kind::arrive:
      return arrive(step);
    case Kind::judge:
      return judge(step);
    case Kind::carried:
      return carried(step);
    case Kind::set_link:
      report_->action(step.pe + ": the core link goes " + (step.present ? "up" : "down"));
      return real_->stage().set_link(step.pe, step.present);
    case Kind::impair:
    case Kind::lose:
      return impair(step);
    default:
      return set_vrf(step);
  }
}

// ----------------------------------------------------------------------------------------------------------- processes

void Runner::start_reflector() {
  if (scenario_.reflector.empty() && (!scenario_.network || scenario_.network->wired)) return;
  const std::string file =
      real_ ? real_->write_reflector_configuration() : options_.project + "/" + scenario_.reflector;
  Launch launch{
      .command = {program_in(options_.binaries, "mdt-reflector"), "--config", file, "--control", socket_of(kReflector)},
      .log_file = options_.work + "/reflector.log"};
  if (real_) launch.network_namespace = real_->namespace_path(scenario_.network->core_namespaces().front());
  daemons_.emplace(kReflector, Process(launch));
  wait_for_word(daemons_.at(kReflector), launch.log_file, 0, "serving on");
  // It tries an address that is taken again and again; the PEs would speak to a stranger meanwhile.
  if (const std::string text = log_from(launch.log_file, 0); text.find("cannot listen") != std::string::npos)
    throw std::runtime_error("the reflector does not listen; " + launch.log_file + ": " + text);
  report_->line("mdt-reflector started on " + file);
}

// The file that a PE is started with; one that the scenario or the network makes is written first.
std::string Runner::configuration_of(const std::string &pe) {
  if (real_) return real_->write_configuration(pe);
  const PeConfig &config = scenario_.configs.at(pe);
  if (!config.file.empty()) return options_.project + "/" + config.file;
  const std::string file = options_.work + "/" + pe + ".conf";
  std::ofstream out(file);
  for (const std::string &line : config.lines) out << line << '\n';
  return file;
}

void Runner::start(const Step &step) {
  if (real_) real_->start_forwarder(step.pe);
  if (step.forwarder) return report_->action(step.pe + ": mvpn-forwarder started");
  start_control(step.pe, step.stateful);
}

void Runner::start_control(const std::string &pe, bool stateful) {
  const std::string file = configuration_of(pe);
  Launch launch{.command = {program_in(options_.binaries, "pimhostd"), "--config", file, "--control", socket_of(pe),
                            "--store", options_.work + "/" + pe + ".store", "--clock-scale", std::to_string(scale_)},
                .log_file = options_.work + "/" + pe + ".log"};
  if (real_)
    launch.network_namespace = real_->namespace_path(pe);
  else
    launch.command.insert(launch.command.end(), {"--capture", options_.work + "/" + pe + ".pcap"});
  if (stateful) launch.command.insert(launch.command.end(), {"--restart", "stateful"});
  std::filesystem::create_directories(options_.work + "/" + pe + ".store");
  daemons_.erase(pe);
  std::error_code none;
  const uintmax_t written = std::filesystem::file_size(launch.log_file, none);
  daemons_.emplace(pe, Process(launch));
  wait_for_word(daemons_.at(pe), launch.log_file, none ? 0 : written, "serving on");
  report_->action(pe + (stateful ? ": pimhostd restarted statefully on " : ": pimhostd started on ") + file);
}

// Until a program says in its log, behind what stood there before, that it serves: a program that could not take its
// address ends, and whoever answers there is a stranger.
void Runner::wait_for_word(Process &program, const std::string &log, uintmax_t from, const std::string &word) {
  const Clock::time_point limit = Clock::now() + kPatience;
  for (;;) {
    const bool runs = program.running();  // before the log is read: its last words are in it
    const std::string text = log_from(log, from);
    if (runs && text.find(word) != std::string::npos) return;
    if (!runs || Clock::now() > limit)
      throw std::runtime_error(std::string(runs ? "it does not say that it serves" : "it has ended") + "; " + log +
                               ": " + telling_line(text, word));
    pause_for(20ms);
  }
}

void Runner::stop(const Step &step) {
  if (!step.forwarder) {
    collect_events(step.pe);
    return stop_control(step.pe);
  }
  collect_forwarder_events(step.pe);
  const std::optional<int> status = real_->stop_forwarder(step.pe, SIGTERM);
  report_->expectation(step.pe + ": the forwarder stops in order",
                       status ? "exit status " + std::to_string(*status) : "it still runs", status == 0);
}

void Runner::stop_control(const std::string &pe) {
  Process &daemon = daemons_.at(pe);
  if (!daemon.running()) return;
  const std::string log = options_.work + "/" + pe + ".log";
  const uintmax_t written = std::filesystem::file_size(log);
  daemon.signal(SIGTERM);
  const std::optional<int> status = daemon.wait(kPatience);
  const std::string error = line_with(log_from(log, written), " error ");
  std::string happened = status ? "exit status " + std::to_string(*status) : "it still runs";
  if (!error.empty()) happened += "; " + error;
  report_->expectation(pe + " stops in order", happened, status == 0 && error.empty());
}

void Runner::kill(const Step &step) {
  if (step.forwarder) {
    collect_forwarder_events(step.pe);
    real_->stop_forwarder(step.pe, SIGKILL);
  } else {
    collect_events(step.pe);  // they go with it
    daemons_.at(step.pe).signal(SIGKILL);
    daemons_.at(step.pe).wait(kPatience);
  }
  report_->action(step.pe + (step.forwarder ? ": the forwarder is killed with SIGKILL" : ": killed with SIGKILL"));
}

// ------------------------------------------------------------------------------------------- commands and their texts

Result Runner::pimctl(const std::string &pe, const std::string &command) {
  std::vector<std::string> words{program_in(options_.binaries, "pimctl"), "--timeout", "0", "--control", socket_of(pe)};
  for (const std::string &word : split(command)) words.push_back(word);
  return run(words, kPatience);
}

Result Runner::ask(const Step &step, const std::string &command) {
  return step.place.empty() ? pimctl(step.pe, command) : real_->stage().shell(step.place, command);
}

void Runner::command(const Step &step) {
  const std::string where = step.place.empty() ? step.pe : step.place;
  for (const std::string &line : step.commands) {
    report_->line(where + "> " + line);
    const Result result = ask(step, line);
    if (step.print || result.status != 0) report_->block(result.output);
    if (result.status != 0)
      report_->expectation(where + ": " + line, "exit status " + std::to_string(result.status), false);
  }
}

void Runner::expect(const Step &step) {
  const std::string where = step.place.empty() ? step.pe : step.place;
  const Clock::time_point limit = after(step.seconds);
  for (;;) {
    const Result result = ask(step, step.commands.front());
    const size_t matches = result.status == 0 ? count_matches(result.output, step.pattern) : 0;
    const bool holds = result.status == 0 &&
                       (step.times >= 0 ? matches == static_cast<size_t>(step.times) : (matches > 0) != step.absent);
    // A command with a mistake in it will not be understood later either.
    const bool mistaken = step.place.empty() && result.status == kNotUnderstood;
    if (holds || mistaken || Clock::now() > limit) {
      if (!holds || step.print) report_->block(result.output);
      const std::string line = telling_line(result.output, step.pattern);
      report_->expectation(where + ": " + step.text, step.absent && holds ? "it is gone" : line, holds);
      return;
    }
    report_->progress(where + ": " + step.text);
    pause_for(100ms);
  }
}

void Runner::wait(double platform_seconds) {
  report_->progress(std::to_string(static_cast<int>(platform_seconds)) + " s of platform time");
  pause_for(std::chrono::duration<double>(platform_seconds / scale_));
  report_->progress_done();
}

// ------------------------------------------------------------------------------------------------------------- packets

void Runner::arrive(const Step &step) {
  const NetworkFlow &flow = scenario_.network->flow(step.flow);
  const std::string what = step.flow + " at " + step.pe + ": " + step.text;
  const Clock::time_point start = Clock::now();
  const Clock::time_point limit = after(step.seconds);
  const uint64_t before = real_->traffic().sent(flow);
  for (;;) {
    const uint64_t number = real_->traffic().arrived(flow, step.pe);
    if (number > before || Clock::now() > limit) {
      char text[80];
      std::snprintf(text, sizeof text, "packet %llu, after %.1f s", static_cast<unsigned long long>(number),
                    std::chrono::duration<double>(Clock::now() - start).count());
      report_->expectation(what, number > before ? text : "no packet came", number > before);
      return;
    }
    report_->progress(what);
    pause_for(50ms);
  }
}

void Runner::judge(const Step &step) {
  const FlowResult result = real_->traffic().judge(scenario_.network->flow(step.flow), step.pe);
  const bool holds = result.sent > 0 && result.lost <= step.lost.value_or(UINT64_MAX) &&
                     result.duplicates <= step.duplicates.value_or(UINT64_MAX);
  report_->expectation(step.flow + " at " + step.pe + ": " + step.text, result.text(), holds);
}

void Runner::carried(const Step &step) {
  const Clock::time_point limit = after(step.packets ? 0 : step.seconds);
  for (;;) {
    const uint64_t packets = real_->traffic().carried(step.pe, step.groups, step.from_pe);
    const bool holds = step.packets ? packets == *step.packets : packets >= step.at_least;
    if (holds || Clock::now() > limit) {
      report_->expectation("core link of " + step.pe + ": " + step.text,
                           std::to_string(packets) + " packets to " + step.groups, holds);
      return;
    }
    pause_for(100ms);
  }
}

void Runner::mark(const Step &step) {
  report_->heading(step.text);
  real_->traffic().mark();
  for (const auto &[pe, config] : scenario_.configs)
    for (const bool forwarder : {false, true}) marked_memory_[{pe, forwarder}] = resident_kib(pe, forwarder);
}

uint64_t Runner::resident_kib(const std::string &pe, bool forwarder) const {
  if (forwarder) return real_->forwarder_resident_kib(pe);
  const auto found = daemons_.find(pe);
  return found == daemons_.end() ? 0 : found->second.resident_kib();
}

void Runner::memory(const Step &step) {
  const uint64_t before = marked_memory_[{step.pe, step.forwarder}], now = resident_kib(step.pe, step.forwarder);
  report_->expectation(step.pe + ": " + step.text,
                       std::to_string(before) + " KiB at the mark, " + std::to_string(now) + " KiB now",
                       before > 0 && now > 0 && now <= before + step.grows_kib);
}

void Runner::set_vrf(const Step &step) {
  if (step.present)
    real_->stage().add_vrf(step.pe, step.vrf);
  else
    real_->stage().remove_vrf(step.pe, step.vrf);
  report_->action(step.pe + ": the namespace of " + step.vrf + (step.present ? " is there again" : " is gone"));
}

void Runner::impair(const Step &step) {
  if (step.kind == Step::Kind::lose) {
    real_->stage().lose(step.pe, step.rate);
    report_->action(step.pe + ": the core link loses " + std::to_string(step.rate).substr(0, 4) + " % of the packets");
  } else {
    real_->stage().impair(step.pe, step.text);
    report_->action(step.pe + ": netem of the core link: " + (step.text.empty() ? "none" : step.text));
  }
}

}  // namespace lab
