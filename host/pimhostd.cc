// pimhostd's command line.
#include <CLI/CLI.hpp>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "daemon.h"

namespace {

// libmvpn.so stands beside the program in a build, and in the library folder when it is installed.
std::string default_module() {
  std::error_code error;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
  const std::filesystem::path beside = self.parent_path() / "libmvpn.so";
  return !error && std::filesystem::exists(beside, error) ? beside.string() : "libmvpn.so";
}

}  // namespace

int main(int argc, char **argv) {
  CLI::App app{"Runs the multicast-VPN module on a configuration file."};
  host::DaemonOptions options;
  options.control_path = host::kDefaultControlPath;
  options.module = default_module();
  bool check_only = false;
  double clock_scale = 0;
  std::string restart, log = "stderr";
  app.add_option("--config", options.config_file, "configuration file")->required();
  app.add_flag("--check-config", check_only, "check the file and end; exit status 1 when it has errors");
  app.add_option("--control", options.control_path, "control socket")->capture_default_str();
  app.add_option("--store", options.store, "folder of what outlives the process; made when it is missing");
  app.add_option("--module", options.module, "the module to load")->capture_default_str();
  app.add_option("--restart", restart, "take up the state of the former process")->check(CLI::IsMember({"stateful"}));
  app.add_option("--clock-scale", clock_scale, "platform seconds per second; overrides the file's")
      ->check(CLI::Range(0.001, 10000.0));
  app.add_option("--capture", options.capture, "pcap file for the core packets that are sent and received");
  app.add_option("--agentx", options.agentx, "AgentX master to serve SNMP through: unix:PATH or tcp:HOST:PORT");
  app.add_option("--log", log, "where messages go")->check(CLI::IsMember({"stderr", "syslog"}))->capture_default_str();
  app.add_flag("--debug", options.debug, "log the module's debug messages from the start");
  CLI11_PARSE(app, argc, argv);
  if (clock_scale > 0) options.clock_scale = clock_scale;
  options.stateful_restart = !restart.empty();
  options.log_to_syslog = log == "syslog";
  try {
    std::optional<host::Config> config = host::load_config(options.config_file);
    if (!config) return 1;
    if (check_only) return 0;
    host::Daemon daemon(options, std::move(*config));
    daemon.run();
    return 0;
  } catch (const std::exception &error) {
    std::cerr << "pimhostd: " << error.what() << '\n';
    return 1;
  }
}
