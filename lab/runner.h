// Plays a scenario.
#ifndef LAB_RUNNER_H
#define LAB_RUNNER_H

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "lab/process.h"
#include "lab/report.h"
#include "lab/scenario.h"

namespace lab {

struct Options {
  std::string binaries;    // folder of pimhostd, pimctl, mdt-reflector, libmvpn.so
  std::string project;     // folder that configuration files are relative to
  std::string work;        // folder for stores, sockets and logs
  double clock_scale = 0;  // 0: the scenario's
};

class Runner {
 public:
  Runner(const Scenario &scenario, Options options, Report *report);

  // Plays every step; true when everything expected happened.
  bool play();

 private:
  void play(const Step &step);
  void start_reflector();
  void start(const std::string &pe, bool stateful);
  void stop(const std::string &pe);
  void kill(const std::string &pe);
  void command(const Step &step);
  void expect(const Step &step);
  void wait(double platform_seconds);
  Result pimctl(const std::string &pe, const std::string &command);
  void wait_for_daemon(const std::string &pe);
  void expectation(const Step &step, const std::string &happened, bool holds);
  std::string socket_of(const std::string &pe) const { return options_.work + "/" + pe + ".sock"; }

  const Scenario &scenario_;
  Options options_;
  Report *report_;
  double scale_;
  std::map<std::string, Process> daemons_;
  std::optional<Process> reflector_;
};

}  // namespace lab

#endif  // LAB_RUNNER_H
