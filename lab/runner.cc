#include "lab/runner.h"

#include <csignal>
#include <filesystem>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <thread>
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
  start_reflector();
  for (const Step &step : scenario_.steps) play(step);
  for (auto &[pe, daemon] : daemons_) stop(pe);
  return report_->finish();
}

void Runner::play(const Step &step) {
  switch (step.kind) {
    case Step::Kind::say:
      return report_->heading(step.text);
    case Step::Kind::start:
      return start(step.text, step.stateful);
    case Step::Kind::stop:
      return stop(step.text);
    case Step::Kind::kill:
      return kill(step.text);
    case Step::Kind::command:
      return command(step);
    case Step::Kind::expect:
      return expect(step);
    case Step::Kind::wait:
      return wait(step.seconds);
  }
}

void Runner::start_reflector() {
  if (scenario_.reflector.empty()) return;
  reflector_.emplace(std::vector<std::string>{options_.binaries + "/mdt-reflector", "--listen", scenario_.reflector},
                     options_.work + "/reflector.log");
  report_->line("mdt-reflector started on " + scenario_.reflector);
}

void Runner::start(const std::string &pe, bool stateful) {
  std::vector<std::string> command{options_.binaries + "/pimhostd",
                                   "--config",
                                   options_.project + "/" + scenario_.configs.at(pe),
                                   "--control",
                                   socket_of(pe),
                                   "--store",
                                   options_.work + "/" + pe + ".store",
                                   "--capture",
                                   options_.work + "/" + pe + ".pcap",
                                   "--clock-scale",
                                   std::to_string(scale_)};
  if (stateful) command.insert(command.end(), {"--restart", "stateful"});
  std::filesystem::create_directories(options_.work + "/" + pe + ".store");
  daemons_.erase(pe);
  daemons_.emplace(pe, Process(command, options_.work + "/" + pe + ".log"));
  report_->line(pe + (stateful ? ": pimhostd restarted statefully on " : ": pimhostd started on ") +
                scenario_.configs.at(pe));
  wait_for_daemon(pe);
}

void Runner::wait_for_daemon(const std::string &pe) {
  const Clock::time_point limit = Clock::now() + 15s;
  while (pimctl(pe, "show clock").status != 0) {
    if (!daemons_.at(pe).running() || Clock::now() > limit)
      throw std::runtime_error(pe + " does not answer; see " + options_.work + "/" + pe + ".log");
    std::this_thread::sleep_for(20ms);
  }
}

void Runner::stop(const std::string &pe) {
  Process &daemon = daemons_.at(pe);
  if (!daemon.running()) return;
  daemon.signal(SIGTERM);
  const std::optional<int> status = daemon.wait(15s);
  report_->expectation(pe + " stops in order", status ? "exit status " + std::to_string(*status) : "it still runs",
                       status == 0);
}

void Runner::kill(const std::string &pe) {
  daemons_.at(pe).signal(SIGKILL);
  daemons_.at(pe).wait(5s);
  report_->line(pe + ": killed with SIGKILL");
}

Result Runner::pimctl(const std::string &pe, const std::string &command) {
  std::vector<std::string> words{options_.binaries + "/pimctl", "--control", socket_of(pe)};
  for (const std::string &word : split(command)) words.push_back(word);
  return run(words, 20s);
}

void Runner::command(const Step &step) {
  for (const std::string &line : step.commands) {
    report_->line(step.pe + "> " + line);
    const Result result = pimctl(step.pe, line);
    if (step.print || result.status != 0) report_->block(result.output);
    if (result.status != 0)
      report_->expectation(step.pe + ": " + line, "exit status " + std::to_string(result.status), false);
  }
}

void Runner::expect(const Step &step) {
  const Clock::time_point limit =
      Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(step.seconds));
  for (;;) {
    const Result result = pimctl(step.pe, step.commands.front());
    const size_t matches = result.status == 0 ? count_matches(result.output, step.pattern) : 0;
    const bool holds = result.status == 0 &&
                       (step.times >= 0 ? matches == static_cast<size_t>(step.times) : (matches > 0) != step.absent);
    if (holds || Clock::now() > limit) {
      if (!holds || step.print) report_->block(result.output);
      const std::string line = telling_line(result.output, step.pattern);
      report_->expectation(step.pe + ": " + step.text, step.absent && holds ? "it is gone" : line, holds);
      return;
    }
    report_->progress(step.pe + ": " + step.text);
    std::this_thread::sleep_for(100ms);
  }
}

void Runner::wait(double platform_seconds) {
  report_->progress(std::to_string(static_cast<int>(platform_seconds)) + " s of platform time");
  std::this_thread::sleep_for(std::chrono::duration<double>(platform_seconds / scale_));
  report_->progress_done();
}

}  // namespace lab
