// pimhostd's command line.
#include <CLI/CLI.hpp>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>

#include "host/daemon/daemon.h"

namespace {

// libmvpn.so stands beside the program in a build, and in a folder of its own when it is installed.
std::string default_module() {
  std::error_code error;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) return "libmvpn.so";
  const std::filesystem::path beside = self.parent_path() / "libmvpn.so";
  if (std::filesystem::exists(beside, error)) return beside.string();
  return (self.parent_path() / MVPN_MODULE_FROM_PROGRAM).lexically_normal().string();
}

constexpr int kFailed = 1;
constexpr int kUsage = 2;

// Empty when it is one.
std::string check_agentx_address(const std::string &address) {
  const bool known = address.starts_with("unix:") || address.starts_with("tcp:");
  return known ? "" : address + " is neither unix:PATH nor tcp:HOST:PORT";
}

// Neither a log whose reader has gone nor a signal that means nothing here is a reason to end.
void ignore_signals() {
  for (const int number : {SIGPIPE, SIGUSR1, SIGUSR2}) std::signal(number, SIG_IGN);
}

// What is wrong with a file, on standard error.
int report(const std::string &file, const std::vector<host::ConfigError> &errors) {
  for (const std::string &line : host::described(file, errors)) std::cerr << "pimhostd: " << line << '\n';
  return errors.empty() ? 0 : kFailed;
}

int run(host::DaemonOptions options, bool check_only) {
  host::ConfigFile file = host::read_config_file(options.config_file);
  if (!file.errors.empty()) return report(options.config_file, file.errors);
  if (check_only) return report(options.config_file, host::try_config(options.module, std::move(file.config)));
  host::Daemon daemon(std::move(options), std::move(file.config));
  daemon.run();
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  ignore_signals();
  CLI::App app{"Runs the multicast-VPN module on a configuration file."};
  host::DaemonOptions options;
  options.control_path = host::kDefaultControlPath;
  options.module = default_module();
  bool check_only = false;
  double clock_scale = 0;
  std::string restart, log = "stderr";
  app.add_option("--config", options.config_file, "configuration file")->required();
  app.add_flag("--check-config", check_only, "try the file with the module and end; exit status 1 when it has errors");
  app.add_option("--control", options.control_path, "control socket")->capture_default_str();
  CLI::Option *store =
      app.add_option("--store", options.store, "folder of what outlives the process; made when it is missing");
  app.add_option("--module", options.module, "the module to load")->capture_default_str();
  app.add_option("--restart", restart, "take up the state of the former process")
      ->check(CLI::IsMember({"stateful"}))
      ->needs(store);
  app.add_option("--clock-scale", clock_scale, "platform seconds per second; overrides the file's")
      ->check(CLI::Range(0.001, 10000.0));
  app.add_option("--capture", options.capture, "pcap file for the core packets that are sent and received");
  app.add_option("--agentx", options.agentx, "AgentX master to serve SNMP through: unix:PATH or tcp:HOST:PORT")
      ->check(CLI::Validator(check_agentx_address, "ADDRESS"));
  app.add_option("--log", log, "where messages go")->check(CLI::IsMember({"stderr", "syslog"}))->capture_default_str();
  app.add_flag("--debug", options.debug, "log the module's debug messages from the start");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &error) {
    return app.exit(error) == 0 ? 0 : kUsage;
  }
  if (clock_scale > 0) options.clock_scale = clock_scale;
  options.stateful_restart = !restart.empty();
  options.log_to_syslog = log == "syslog";
  try {
    return run(std::move(options), check_only);
  } catch (const std::exception &error) {
    std::cerr << "pimhostd: " << error.what() << '\n';
    return kFailed;
  }
}
