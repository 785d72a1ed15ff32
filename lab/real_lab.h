// What a real scenario has beside the control planes: the network, a forwarder for each PE, and traffic.
#ifndef LAB_REAL_LAB_H
#define LAB_REAL_LAB_H

#include <map>
#include <string>

#include "lab/process.h"
#include "lab/stage.h"
#include "lab/traffic_control.h"

namespace lab {

// Why a real scenario cannot be played here; empty when it can.
std::string why_not_real();

class RealLab {
 public:
  struct Settings {
    std::string binaries;  // folder of the programs
    std::string project;   // folder that templates are relative to
    std::string work;      // folder for configurations, sockets, logs and captures; exists
    std::string prefix;    // of the namespaces' names
  };

  // Builds the network. Throws std::runtime_error; what was built is gone then.
  RealLab(const Network &network, const Settings &settings);

  Stage &stage() { return stage_; }
  TrafficControl &traffic() { return traffic_; }

  // The namespace that a PE's processes run in, and its configuration file, written anew.
  std::string namespace_path(const std::string &pe) const { return stage_.namespaces().path(pe); }
  std::string write_configuration(const std::string &pe) const;
  std::string write_reflector_configuration() const;

  // Starts the PE's forwarder unless it runs, and waits until it listens.
  void start_forwarder(const std::string &pe);
  bool forwarder_runs(const std::string &pe);
  uint64_t forwarder_resident_kib(const std::string &pe) const;  // 0: it does not run
  // With SIGTERM: the exit status, or nothing when it does not end.
  std::optional<int> stop_forwarder(const std::string &pe, int signal);

 private:
  std::string socket_of(const std::string &pe) const { return settings_.work + "/" + pe + ".forwarder"; }

  Settings settings_;
  Stage stage_;
  TrafficControl traffic_;
  std::map<std::string, Process> forwarders_;  // by PE; those that have ended too, until they are started again
};

}  // namespace lab

#endif  // LAB_REAL_LAB_H
