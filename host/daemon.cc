// Start and stop. Everything that can be refused is tried before the module starts: files, the store, the control socket.
// The module stops when nothing calls it any more: control socket, views, links, module.
#include "daemon.h"

#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "notify.h"

namespace host {
namespace {

std::vector<ConfigError> read_config(const std::string &file, Config *config) {
  std::ifstream in(file);
  if (!in) return {{0, std::strerror(errno)}};
  std::ostringstream text;
  text << in.rdbuf();
  std::vector<ConfigError> errors;
  *config = Config::read(text.str(), &errors);
  for (ConfigError &error : config->check()) errors.push_back(std::move(error));
  std::stable_sort(errors.begin(), errors.end(),
                   [](const ConfigError &a, const ConfigError &b) { return a.line < b.line; });
  return errors;
}

std::string described(const std::string &file, const ConfigError &error) {
  return file + ":" + (error.line > 0 ? std::to_string(error.line) + ":" : "") + " " + error.reason;
}

}  // namespace

std::optional<Config> load_config(const std::string &file) {
  Config config;
  const std::vector<ConfigError> errors = read_config(file, &config);
  for (const ConfigError &error : errors) std::cerr << described(file, error) << '\n';
  return errors.empty() ? std::optional(std::move(config)) : std::nullopt;
}

Daemon::Daemon(DaemonOptions options, Config config)
    : options_(std::move(options)), signals_(loop_.io(), SIGINT, SIGTERM, SIGHUP) {
  if (options_.log_to_syslog) openlog("pimhostd", LOG_PID, LOG_DAEMON);
  const LoadedModule module = load_module(options_.module);
  Loop::Turn turn(loop_);
  ref::set_log_sink(options_.log_to_syslog ? ref::LogSink::syslog : ref::LogSink::standard_error);
  ref::clock_use_real(options_.clock_scale.value_or(1));
  open_store();
  module.trace_buffers[0][MVPN_TRACE_SLOT] = 1;  // the event history is always kept
  Router::Options router_options;
  router_options.clock_scale = options_.clock_scale;
  router_options.capture = options_.capture;
  router_options.log = [this](const std::string &text) { log(text); };
  router_.emplace(loop_, module, std::move(router_options));
  engine_.emplace(*router_);
  if (options_.debug) engine_->debug("", true);
  // Clients that come early wait until the loop runs.
  control_.emplace(loop_.io(), options_.control_path,
                   [this](const ControlServer::Request &request, const std::shared_ptr<OutputChannel> &channel) {
                     Loop::Turn command(loop_);
                     engine_->execute(request, channel);
                   });
  if (!options_.agentx.empty())
    agentx_.emplace(
        loop_.io(), options_.agentx,
        [this](const std::function<void()> &work) {
          Loop::Turn agent_turn(loop_);
          work();
        },
        [this](const std::string &text) { log(text); });
  router_->start(std::move(config));
  loop_.set_turn_end([this] { router_->settle(); });
  watch_signals();
  log("serving on " + options_.control_path);
  notify_service_manager("READY=1");
}

Daemon::~Daemon() { loop_.set_turn_end(nullptr); }

void Daemon::open_store() {
  ref::set_stateful_restart(options_.stateful_restart);
  if (options_.store.empty()) return;
  if (mkdir(options_.store.c_str(), 0700) != 0 && errno != EEXIST)
    throw std::runtime_error(options_.store + ": " + std::strerror(errno));
  const std::string records = options_.store + "/records";
  if (mkdir(records.c_str(), 0700) != 0 && errno != EEXIST)
    throw std::runtime_error(records + ": " + std::strerror(errno));
  if (!ref::pss_use_directory(records)) throw std::runtime_error(records + ": the store cannot be opened");
  if (!ref::oim_use_file(options_.store + "/tunnels"))
    throw std::runtime_error(options_.store + "/tunnels: the tunnel database cannot be read");
}

void Daemon::run() { loop_.run(); }

void Daemon::watch_signals() {
  signals_.async_wait([this](const boost::system::error_code &error, int number) {
    if (error) return;
    if (number != SIGHUP) return stop();
    reload();
    watch_signals();
  });
}

// A file with an error changes nothing.
void Daemon::reload() {
  Config config;
  const std::vector<ConfigError> errors = read_config(options_.config_file, &config);
  for (const ConfigError &error : errors) log(described(options_.config_file, error));
  if (!errors.empty()) return log("the configuration stays as it is");
  notify_service_manager("RELOADING=1");
  Loop::Turn turn(loop_);
  const Outcome outcome = router_->replace(std::move(config));
  if (!outcome.text.empty()) log(options_.config_file + ": " + outcome.text);
  log(outcome.accepted ? "the configuration was read again" : "the configuration was read again, but for these lines");
  notify_service_manager("READY=1");
}

void Daemon::end_views() {
  control_->close();
  for (;;) {
    {
      Loop::Turn turn(loop_);
      if (engine_->idle()) return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

void Daemon::stop() {
  notify_service_manager("STOPPING=1");
  log("stopping");
  agentx_.reset();
  end_views();
  {
    Loop::Turn turn(loop_);
    router_->stop();
    if (!ref::wait_for_threads()) log("a thread of the module has not ended");
  }
  loop_.stop();
}

void Daemon::log(const std::string &text) {
  if (options_.log_to_syslog)
    syslog(LOG_NOTICE, "%s", text.c_str());
  else
    std::cerr << "pimhostd: " << text << (text.ends_with('\n') ? "" : "\n");
}

}  // namespace host
