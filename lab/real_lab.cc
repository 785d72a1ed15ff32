// Puts the parts of a real scenario together and owns the forwarders. A forwarder is a process beside its PE's control
// plane and is started and killed apart from it, since outliving the control plane is what scenarios want to see.
#include "lab/real_lab.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace lab {
namespace {

using namespace std::chrono_literals;

// The stage is complete before anything else is made on it.
Stage &built(Stage &stage) {
  stage.build();
  return stage;
}

}  // namespace

std::string why_not_real() {
  const std::string reason = why_no_namespaces();
  return reason.empty() ? why_no_daemons() : reason;
}

RealLab::RealLab(const Network &network, const Settings &settings)
    : settings_(settings),
      stage_(network, settings.prefix, settings.project, settings.work),
      traffic_(built(stage_), program_in(settings.binaries, "mvpn-traffic"), settings.work) {
  // Shell commands of scenarios find the lab's programs.
  const char *path = std::getenv("PATH");
  const std::string folder = std::filesystem::absolute(settings.binaries),
                    programs = folder + ":" + folder + "/../sbin";
  ::setenv("PATH", path == nullptr ? programs.c_str() : (programs + ":" + path).c_str(), 1);
}

std::string RealLab::write_configuration(const std::string &pe) const {
  const std::string file = settings_.work + "/" + pe + ".conf";
  std::ofstream(file) << stage_.configuration(pe, socket_of(pe));
  return file;
}

std::string RealLab::write_reflector_configuration() const {
  const std::string file = settings_.work + "/reflector.conf";
  std::ofstream(file) << stage_.reflector_configuration();
  return file;
}

bool RealLab::forwarder_runs(const std::string &pe) {
  const auto found = forwarders_.find(pe);
  return found != forwarders_.end() && found->second.running();
}

uint64_t RealLab::forwarder_resident_kib(const std::string &pe) const {
  const auto found = forwarders_.find(pe);
  return found == forwarders_.end() ? 0 : found->second.resident_kib();
}

void RealLab::start_forwarder(const std::string &pe) {
  if (forwarder_runs(pe)) return;
  forwarders_.erase(pe);
  std::filesystem::remove(socket_of(pe));
  Process &process = forwarders_
                         .emplace(pe, Process(Launch{.command = {program_in(settings_.binaries, "mvpn-forwarder"),
                                                                 "--control", socket_of(pe)},
                                                     .log_file = settings_.work + "/" + pe + ".forwarder.log",
                                                     .network_namespace = namespace_path(pe)}))
                         .first->second;
  for (const auto end = std::chrono::steady_clock::now() + kPatience; std::chrono::steady_clock::now() < end;) {
    if (std::filesystem::exists(socket_of(pe))) return;
    if (!process.running()) break;
    pause_for(20ms);
  }
  throw std::runtime_error(pe + ": the forwarder does not start; see " + settings_.work + "/" + pe + ".forwarder.log");
}

std::optional<int> RealLab::stop_forwarder(const std::string &pe, int signal) {
  const auto found = forwarders_.find(pe);
  if (found == forwarders_.end()) throw std::runtime_error(pe + " has no forwarder");
  found->second.signal(signal);
  return found->second.wait(kPatience);
}

}  // namespace lab
