// Plays a scenario.
#ifndef LAB_RUNNER_H
#define LAB_RUNNER_H

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "lab/pages.h"
#include "lab/process.h"
#include "lab/real_lab.h"
#include "lab/report.h"
#include "lab/scenario.h"

namespace lab {

struct Options {
  std::string binaries;    // folder of pimhostd, pimctl, mdt-reflector, libmvpn.so
  std::string project;     // folder that configuration files are relative to
  std::string work;        // folder for stores, sockets and logs
  double clock_scale = 0;  // 0: the scenario's
  std::string prefix;      // of namespaces
};

class Runner {
 public:
  Runner(const Scenario &scenario, Options options, Report *report);

  // Plays every step; true when everything expected happened. What keeps a step from being played ends the run and
  // counts as an expectation that failed.
  bool play();

  // What the run found out, complete once play has returned.
  const Findings &findings() const { return findings_; }

 private:
  void play_steps();
  void collect_events(const std::string &pe);
  void collect_forwarder_events(const std::string &pe);
  void play(const Step &step);
  void play_on_network(const Step &step);
  void start_reflector();
  void start(const Step &step);
  void start_control(const std::string &pe, bool stateful);
  std::string configuration_of(const std::string &pe);
  void stop(const Step &step);
  void stop_control(const std::string &pe);
  void kill(const Step &step);
  void command(const Step &step);
  void expect(const Step &step);
  void arrive(const Step &step);
  void judge(const Step &step);
  void carried(const Step &step);
  void set_vrf(const Step &step);
  void mark(const Step &step);
  void memory(const Step &step);
  uint64_t resident_kib(const std::string &pe, bool forwarder) const;
  void impair(const Step &step);
  void wait(double platform_seconds);
  Result ask(const Step &step, const std::string &command);
  Result pimctl(const std::string &pe, const std::string &command);
  void check_files() const;
  static void wait_for_word(Process &program, const std::string &log, uintmax_t from, const std::string &word);
  std::string socket_of(const std::string &pe) const { return options_.work + "/" + pe + ".sock"; }

  const Scenario &scenario_;
  Options options_;
  Report *report_;
  double scale_;
  std::optional<RealLab> real_;                                     // before the processes that run in its namespaces
  std::map<std::string, Process> daemons_;                          // the reflector is one of them
  std::map<std::pair<std::string, bool>, uint64_t> marked_memory_;  // KiB by PE, and whether it is the forwarder's
  std::set<std::string> forwarder_events_;                          // that have been collected
  Findings findings_;
};

}  // namespace lab

#endif  // LAB_RUNNER_H
