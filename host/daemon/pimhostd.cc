// pimhostd's command line. Errors of a configuration are printed and end the program before anything is started; with
// --check-config the module is asked as well, on a platform in memory.
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <stdexcept>

#include "host/config/config_warnings.h"
#include "host/daemon/daemon.h"
#include "host/event/daemon_options.h"
#include "options/command_line.h"

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

// What a check is to look at beside the file.
struct CheckOptions {
  bool wanted = false, strict = false;
  std::string running;  // file of what runs; empty: the way from there is not tried
};

// The module runs once in a process, so this one is copied for it, before it has any thread. Result: 0, or something
// failed and was said.
int in_a_copy(const std::function<int()> &work) {
  const pid_t copy = fork();
  if (copy == 0) {
    const int status = work();
    std::cerr.flush();
    _exit(status);
  }
  int status = 0;
  if (copy < 0 || waitpid(copy, &status, 0) != copy) throw std::runtime_error(std::strerror(errno));
  return status;
}

// The way from what runs to the file.
int check_change(const host::DaemonOptions &options, const host::Config &config, const std::string &running) {
  const host::ConfigFile before = host::read_config_file(running);
  if (!before.errors.empty()) return report(running, before.errors);
  return in_a_copy(
      [&] { return report(options.config_file, host::try_change(options.module, before.config, config)); });
}

int check(const host::DaemonOptions &options, host::Config config, bool strict) {
  std::vector<host::ConfigError> warnings = host::config_warnings(config);
  std::vector<host::ConfigError> errors = host::try_config(options.module, std::move(config));
  if (!strict)
    for (host::ConfigError &warning : warnings) warning.reason = "warning: " + warning.reason;
  const int status = report(options.config_file, errors);
  const bool warned = report(options.config_file, warnings) != 0;
  return strict && warned ? kFailed : status;
}

int run(host::DaemonOptions options, const CheckOptions &to_check) {
  host::ConfigFile file = host::read_config_file(options.config_file);
  if (!file.errors.empty()) return report(options.config_file, file.errors);
  if (!to_check.running.empty() && check_change(options, file.config, to_check.running) != 0) return kFailed;
  if (to_check.wanted) return check(options, std::move(file.config), to_check.strict);
  host::Daemon daemon(std::move(options), std::move(file.config));
  daemon.run();
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  ignore_signals();
  options::CommandLine app{"Runs the multicast-VPN module on a configuration file."};
  host::DaemonOptions options;
  options.control.path = host::kDefaultControlPath;
  options.module = default_module();
  CheckOptions to_check;
  double clock_scale = 0;
  std::string restart;
  host::LogOptions log;
  app.add("--config", &options.config_file, "configuration file").required();
  const options::Option checks = app.add_flag("--check-config", &to_check.wanted,
                                              "try the file with the module and end; exit status 1 when it has errors");
  app.add_flag("--strict", &to_check.strict, "with --check-config: warnings are errors");
  app.add("--running", &to_check.running, "with --check-config: a file of what runs; the way from it is tried, too")
      .needs(checks);
  host::add_control_options(app, &options.control, &options.looking);
  const options::Option store =
      app.add("--store", &options.store, "folder of what outlives the process; made when it is missing");
  app.add("--module", &options.module, "the module to load").show_default();
  app.add("--restart", &restart, "take up the state of the former process").one_of({"stateful"}).needs(store);
  app.add("--clock-scale", &clock_scale, "platform seconds per second; overrides the file's").within(0.001, 10000.0);
  app.add("--capture", &options.capture, "pcap file for the core packets that are sent and received");
  app.add("--agentx", &options.agentx, "AgentX master to serve SNMP through: unix:PATH or tcp:HOST:PORT")
      .check(check_agentx_address, "ADDRESS");
  host::add_log_options(app, &log);
  app.add_flag("--debug", &options.debug, "log the module's debug messages from the start");
  app.version("pimhostd " MVPN_VERSION);
  if (const std::optional<int> status = app.parse(argc, argv, kUsage)) return *status;
  if (clock_scale > 0) options.clock_scale = clock_scale;
  options.looking.read_only = true;
  options.stateful_restart = !restart.empty();
  options.log_to_syslog = log.to_syslog();
  options.log_level = log.least();
  try {
    return run(std::move(options), to_check);
  } catch (const std::exception &error) {
    std::cerr << "pimhostd: " << error.what() << '\n';
    return kFailed;
  }
}
