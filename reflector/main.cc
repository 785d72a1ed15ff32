// mdt-reflector's command line. A file with an error ends the program before anything is started.
#include <csignal>
#include <iostream>

#include "host/event/daemon_options.h"
#include "options/command_line.h"
#include "reflector/reflector.h"

namespace {

constexpr int kFailed = 1;
constexpr int kUsage = 2;

int run(reflector::Reflector::Options options, bool check_only) {
  host::ConfigFile file = reflector::read_file(options.config_file);
  for (const std::string &line : host::described(options.config_file, file.errors))
    std::cerr << "mdt-reflector: " << line << '\n';
  if (!file.errors.empty()) return kFailed;
  if (check_only) return 0;
  reflector::Reflector reflector(std::move(options), std::move(file.config));
  reflector.run();
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  // Neither a log whose reader has gone nor a signal that means nothing here is a reason to end.
  for (const int number : {SIGPIPE, SIGUSR1, SIGUSR2}) std::signal(number, SIG_IGN);
  options::CommandLine app{"Reflects the MDT SAFI routes of BGP neighbours to each other."};
  reflector::Reflector::Options options;
  bool check_only = false;
  host::LogOptions log;
  app.add("--config", &options.config_file, "configuration file").required();
  app.add_flag("--check-config", &check_only, "read the file and end; exit status 1 when it has errors");
  host::add_control_options(app, &options.control, &options.looking);
  host::add_log_options(app, &log);
  app.version("mdt-reflector " MVPN_VERSION);
  if (const std::optional<int> status = app.parse(argc, argv, kUsage)) return *status;
  options.log_to_syslog = log.to_syslog();
  options.log_level = log.least();
  try {
    return run(std::move(options), check_only);
  } catch (const std::exception &error) {
    std::cerr << "mdt-reflector: " << error.what() << '\n';
    return kFailed;
  }
}
