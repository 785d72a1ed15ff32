// Start and stop. Everything that can be refused is tried before the module starts: files, the store, the control
// socket. The module stops when nothing calls it any more: control socket, views, links, module.
#include "host/daemon/daemon.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <utility>

#include "host/config/config_warnings.h"
#include "host/daemon/metrics.h"
#include "host/daemon/notifications.h"
#include "host/daemon/operations.h"
#include "platform/reference/diag.h"
#include "platform/reference/oim.h"
#include "platform/reference/pss.h"
#include "platform/reference/runtime.h"
#include "service/notify.h"

namespace host {
namespace {

// A folder of the store; made when it is missing.
void make_folder(const std::string &path) {
  if (mkdir(path.c_str(), 0700) == 0) return;
  struct stat status {};
  const int error = errno;
  if (error != EEXIST) throw std::runtime_error("--store: " + path + ": " + std::strerror(error));
  if (stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))
    throw std::runtime_error("--store: " + path + ": " + std::strerror(ENOTDIR));
}

constexpr size_t kMaxChecks = 4;  // at a time; each is a process
const std::string kNotChecked = "the configuration cannot be checked: ";
const std::string kUnchanged = "the configuration stays as it is";

}  // namespace

Daemon::Daemon(DaemonOptions options, Config config)
    : options_(std::move(options)),
      log_("pimhostd", options_.log_to_syslog),
      change_log_(events_, log_),
      signals_(loop_.io(), SIGINT, SIGTERM, SIGHUP) {
  log_.set_level(options_.log_level);
  const LoadedModule module = load_module(options_.module);
  Loop::Turn turn(loop_);
  ref::set_log_writer([this](uint32_t severity, std::string_view line) { log_module(severity, line); });
  ref::clock_use_real(options_.clock_scale.value_or(1));
  open_store();
  check_capture();
  module.trace_buffers[0][MVPN_TRACE_SLOT] = 1;  // the event history is always kept
  Router::Options router_options;
  router_options.clock_scale = options_.clock_scale;
  router_options.capture = options_.capture;
  router_options.recovering = options_.stateful_restart;
  router_options.follow_metrics = [this](const std::optional<EndpointValue> &at) { follow_metrics(at); };
  router_options.events = &events_;
  router_options.log = [this](Level level, const std::string &text) { log_.write(level, text); };
  router_.emplace(loop_, module, std::move(router_options));
  watcher_.emplace(*router_, events_);
  process_.emplace(Process{events_, log_, *watcher_, options_.module, !options_.store.empty(), loop_});
  process_->reload = [this](const std::string &by, Process::Done done) { reload(by, std::move(done)); };
  process_->check = [this](bool strict, const Process::Done &done) { check(strict, done); };
  engine_.emplace(*router_, *process_);
  if (options_.debug) debug_module(*router_, "", true);
  open_sockets();
  if (!options_.agentx.empty()) start_agent();
  for (const std::string &line : described(options_.config_file, config_warnings(config)))
    log_.write(Level::warning, line);
  for (const std::string &line : described(options_.config_file, router_->start(std::move(config))))
    log_.write(Level::error, line);
  const auto log = [this](Level level, const std::string &text) { log_.write(level, text); };
  const auto try_config = [this](std::string text, ConfigCheck::Done done) {
    start_check({"", std::move(text), router_->running().print(Config::Passwords::shown)}, false, std::move(done));
  };
  work_.emplace(loop_, *router_, events_, log, try_config, options_.config_file);
  process_->work = &*work_;
  loop_.set_turn_end([this] { settle(); });
  watch_signals();
  log_.write(Level::notice, "serving on " + options_.control.path);
  service::notify("READY=1");
  // Alive is who gets the scheduling locks and through a turn.
  watchdog_.emplace(loop_.io(), [this] { Loop::Turn alive(loop_); });
}

Daemon::~Daemon() {
  loop_.set_turn_end(nullptr);
  ref::set_log_writer(nullptr);
}

// Clients that come early wait until the loop runs.
void Daemon::open_sockets() {
  const auto execute = [this](const ControlServer::Request &request, const std::shared_ptr<OutputChannel> &channel) {
    Loop::Turn command(loop_);
    engine_->execute(request, channel);
  };
  control_.emplace(loop_.io(), options_.control, execute);
  if (!options_.looking.path.empty()) looking_.emplace(loop_.io(), options_.looking, execute);
}

void Daemon::start_agent() {
  agentx_.emplace(
      loop_.io(), options_.agentx,
      [this](const std::function<void()> &work) {
        Loop::Turn agent_turn(loop_);
        work();
      },
      [this](const std::string &text) { log_.write(Level::notice, text); });
  told_ = events_.subscribe([this](const Change &change) {
    if (auto notification = notification_of(change)) agentx_->notify(std::move(*notification));
  });
}

void Daemon::settle() {
  router_->settle();
  watcher_->settle();
  events_.set_cause("");
  change_log_.settle();
}

// Debug messages have a switch of their own, which is why the log's level does not matter to them.
void Daemon::log_module(uint32_t severity, std::string_view line) {
  const Level level = static_cast<Level>(std::clamp(severity, uint32_t{LOG_ERR}, uint32_t{LOG_DEBUG}));
  level == Level::debug ? log_.write_always(level, line) : log_.write(level, line);
}

void Daemon::follow_metrics(const std::optional<EndpointValue> &at) {
  if (!metrics_)
    metrics_.emplace(
        loop_.io(),
        [this](metrics::Format format, const std::function<void(std::string)> &answer) {
          Loop::Turn turn(loop_);
          router_->forwarding().refresh([this, format, answer] { answer(metrics_text(*router_, loop_, format)); });
        },
        [this](const std::string &text) { log_.write(Level::error, text); });
  metrics_->listen(at ? at->address : "", at ? at->port : 0);
}

void Daemon::open_store() {
  ref::set_stateful_restart(options_.stateful_restart);
  if (options_.store.empty()) return;
  make_folder(options_.store);
  lock_store();
  const std::string records = options_.store + "/records";
  make_folder(records);
  if (!ref::pss_use_directory(records))
    throw std::runtime_error("--store: " + records + ": the store cannot be opened");
  const std::string tunnels = options_.store + "/tunnels";
  if (!ref::oim_use_file(tunnels))
    throw std::runtime_error("--store: " + tunnels + ": the tunnel database cannot be read");
}

void Daemon::check_capture() const {
  if (options_.capture.empty()) return;
  const int file = open(options_.capture.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
  if (file < 0) throw std::runtime_error("--capture: " + options_.capture + ": " + std::strerror(errno));
  close(file);
}

// Held until the process ends, however it does.
void Daemon::lock_store() {
  const std::string path = options_.store + "/lock";
  const int lock = open(path.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
  if (lock < 0) throw std::runtime_error("--store: " + path + ": " + std::strerror(errno));
  if (flock(lock, LOCK_EX | LOCK_NB) == 0) return;
  const int error = errno;
  close(lock);
  throw std::runtime_error("--store: " + (error == EWOULDBLOCK ? options_.store + ": another pimhostd uses this folder"
                                                               : path + ": " + std::strerror(error)));
}

void Daemon::run() { loop_.run(); }

void Daemon::watch_signals() {
  signals_.async_wait([this](const boost::system::error_code &error, int number) {
    if (error) return;
    if (number != SIGHUP) return stop();
    reload("SIGHUP", nullptr);
    watch_signals();
  });
}

// A file with an error changes nothing. It is read and tried in another process, which takes its time while this one
// goes on, however long the file is and whatever is wrong in it.
void Daemon::reload(const std::string &by, Process::Done done) {
  reloads_.push_back({by, std::move(done)});
  if (check_)
    reload_again_ = true;
  else
    check_for_reload();
}

void Daemon::check_for_reload() {
  service::notify_reloading();
  const auto done = [this, stamp = stamp_of(options_.config_file)](const ConfigCheck::Result &result) {
    finish_reload(stamp, result);
  };
  const ConfigCheck::Input input{options_.config_file, {}, router_->running().print(Config::Passwords::shown)};
  try {
    check_ = std::make_unique<ConfigCheck>(loop_.io(), input, options_.module, false, done);
  } catch (const std::runtime_error &error) {
    end_reload({kNotChecked + error.what()}, {}, kUnchanged);
  }
}

void Daemon::finish_reload(const FileStamp &checked, const ConfigCheck::Result &check) {
  check_.reset();
  ConfigFile file;
  if (check.passed) file = read_config_file(options_.config_file);
  // What was checked must be what was read.
  if (std::exchange(reload_again_, false) || stamp_of(options_.config_file) != checked) return check_for_reload();
  if (!check.passed) return end_reload(check.problems, {}, kUnchanged);
  if (!file.errors.empty()) return end_reload(described(options_.config_file, file.errors), {}, kUnchanged);
  Loop::Turn turn(loop_);
  if (const std::string reason = work_->why_not_loaded(); !reason.empty()) return end_reload({reason}, {}, kUnchanged);
  const std::string by = reloads_.front().by;
  events_.set_cause(by);
  const ConfigWork::Loaded loaded = work_->load(std::move(file.config), by);
  if (!loaded.errors.empty())
    return end_reload(described(options_.config_file, loaded.errors), {}, "the former configuration is restored");
  std::vector<std::string> warnings = check.problems;
  for (const std::string &line : loaded.lost) warnings.push_back("was entered and is not in the file: " + line);
  end_reload({}, warnings, "the configuration was read again");
}

void Daemon::end_reload(const std::vector<std::string> &errors, const std::vector<std::string> &warnings,
                        const std::string &outcome) {
  std::string text;
  const auto tell = [&](Level level, const std::string &line) {
    log_.write(level, line);
    text += line + "\n";
  };
  for (const std::string &error : errors) tell(Level::error, error);
  for (const std::string &warning : warnings) tell(Level::warning, warning);
  tell(errors.empty() ? Level::notice : Level::error, outcome);
  service::notify("READY=1");
  for (const Reload &reload : std::exchange(reloads_, {}))
    if (reload.done) reload.done(errors.empty(), text);
}

// Throws std::runtime_error.
void Daemon::start_check(const ConfigCheck::Input &input, bool strict, ConfigCheck::Done done) {
  std::erase_if(checks_, [](const auto &other) { return other->ended(); });
  if (checks_.size() >= kMaxChecks) throw std::runtime_error("others are running; try again later");
  checks_.push_back(std::make_unique<ConfigCheck>(loop_.io(), input, options_.module, strict, std::move(done)));
}

void Daemon::check(bool strict, const Process::Done &done) {
  try {
    start_check({options_.config_file, {}}, strict,
                [done](const ConfigCheck::Result &result) { done(result.passed, result.text()); });
  } catch (const std::runtime_error &error) {
    done(false, kNotChecked + error.what() + "\n");
  }
}

void Daemon::end_views() {
  control_->close();
  if (looking_) looking_->close();
  for (;;) {
    {
      Loop::Turn turn(loop_);
      if (engine_->idle()) return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

void Daemon::stop() {
  service::notify("STOPPING=1");
  log_.write(Level::notice, "stopping");
  check_.reset();
  checks_.clear();
  told_ = {};
  agentx_.reset();
  metrics_.reset();
  end_views();
  {
    Loop::Turn turn(loop_);
    router_->stop();
    if (!ref::wait_for_threads()) log_.write(Level::error, "a thread of the module has not ended");
  }
  // The neighbours have been told that this PE goes.
  router_->links().exchange().bgp().when_delivered([this] { loop_.stop(); });
}

}  // namespace host
