// Everything happens on one thread: sessions, reloads and commands. A listing is put together in one go; what a client
// reads slowly waits in its channel, which bounds it.
#include "reflector/reflector.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

#include "host/bgp/bgp_views.h"
#include "host/config/yang.h"
#include "host/language/actions.h"

namespace reflector {

using host::Command;
using host::ConfigError;
using host::Level;
using host::Mode;

namespace {

// Lines that only a router has a use for.
std::vector<ConfigError> foreign_lines(const host::Config &config) {
  std::vector<ConfigError> errors;
  for (const auto &[id, block] : config.blocks()) {
    if (id.mode != Mode::global && id.mode != Mode::bgp) {
      errors.push_back({block->number, "mdt-reflector has no such block; it has hostname and bgp"});
      continue;
    }
    for (const auto &[place, line] : block->lines()) {
      const Command command = line.statement.command;
      const bool ours = id.mode == Mode::bgp ? command != Command::update_source : command == Command::hostname;
      if (!ours) errors.push_back({line.number, "mdt-reflector has no '" + shown_text(line.statement) + "'"});
    }
  }
  return errors;
}

}  // namespace

host::ConfigFile read_file(const std::string &path) {
  host::ConfigFile file = host::read_config_file(path);
  for (ConfigError &error : foreign_lines(file.config)) file.errors.push_back(std::move(error));
  std::ranges::stable_sort(file.errors, {}, &ConfigError::line);
  if (file.errors.empty() && !host::bgp_settings(file.config))
    file.errors.push_back({0, "there is no local-as: a reflector that speaks to nobody"});
  return file;
}

Reflector::Reflector(Options options, host::Config config)
    : options_(std::move(options)),
      log_("mdt-reflector", options_.log_to_syslog),
      change_log_(events_, log_),
      monitor_(events_, [this] { return config_.hostname(""); }),
      config_(std::move(config)),
      bgp_(io_, {.enter = [](const std::function<void()> &work) { work(); },
                 .changed = [this](host::Change change) { events_.publish(std::move(change)); },
                 .log = [this](host::Level level, const std::string &text) { log_.write(level, text); }}),
      control_(io_, options_.control,
               [this](const host::ControlServer::Request &request,
                      const std::shared_ptr<host::OutputChannel> &channel) { execute(request, channel); }),
      signals_(io_, SIGINT, SIGTERM, SIGHUP),
      watchdog_(io_) {
  check_actions();
  log_.set_level(options_.log_level);
  if (!options_.looking.path.empty())
    looking_.emplace(io_, options_.looking,
                     [this](const host::ControlServer::Request &request,
                            const std::shared_ptr<host::OutputChannel> &channel) { execute(request, channel); });
  bgp_.follow(host::bgp_settings(config_));
  watch_signals();
  log_.write(Level::notice, "serving on " + options_.control.path);
  service::notify("READY=1");
}

void Reflector::watch_signals() {
  signals_.async_wait([this](const boost::system::error_code &error, int number) {
    if (error) return;
    if (number != SIGHUP) return stop();
    reload();
    watch_signals();
  });
}

// A file with an error changes nothing; neighbours whose lines are the same notice nothing.
void Reflector::reload() {
  service::notify_reloading();
  read_again();
  service::notify("READY=1");
}

void Reflector::read_again() {
  host::ConfigFile file = read_file(options_.config_file);
  for (const std::string &line : host::described(options_.config_file, file.errors)) log_.write(Level::error, line);
  if (!file.errors.empty()) return log_.write(Level::error, "the configuration stays as it is");
  config_ = std::move(file.config);
  bgp_.follow(host::bgp_settings(config_));
  log_.write(Level::notice, "reloaded " + options_.config_file);
}

void Reflector::stop() {
  service::notify("STOPPING=1");
  log_.write(Level::notice, "stopping");
  control_.close();
  if (looking_) looking_->close();
  bgp_.stop("");
  bgp_.when_delivered([this] { io_.stop(); });
}

// --------------------------------------------------------------------------------------------------------- commands

void Reflector::execute(const host::ControlServer::Request &request,
                        const std::shared_ptr<host::OutputChannel> &channel) {
  const host::CommandLine line = host::read_command_line(request, config_.hostname(""));
  if (!line.error.empty()) return refuse(line, host::kStatusSyntax, line.error, *channel);
  const host::Statement &statement = line.match.statements.front();
  if (is_view(statement)) return show(line, *channel);
  if (statement.effect == host::Effect::stream) return monitor_.serve(line, channel);
  const std::string reason = operate(statement, request.by);
  if (!reason.empty()) return refuse(line, host::kStatusFailed, reason + "\n", *channel);
  finish(line, "", *channel);
}

// Of the language's actions a reflector has these.
const std::map<std::string_view, Reflector::View> Reflector::kViewActions = {
    {"show_bgp_summary", &Reflector::show_summary},
    {"show_bgp_neighbor", &Reflector::show_neighbors},
    {"show_bgp_mdt", &Reflector::show_routes},
    {"show_running_config", &Reflector::show_config},
};
const std::map<std::string_view, Reflector::Operation> Reflector::kOperations = {
    {"log_level", &Reflector::set_log_level},
    {"clear_bgp_neighbor", &Reflector::clear_neighbor},
};

void Reflector::check_actions() {
  std::vector<host::OfferedAction> offered;
  for (const auto &[name, view] : kViewActions) offered.push_back({std::string(name), true});
  for (const auto &[name, operation] : kOperations) offered.push_back({std::string(name), false});
  for (const std::string &fault : host::actions_without_line(offered))
    throw std::runtime_error("the command language: " + fault);
}

// Empty: done; else why not.
std::string Reflector::operate(const host::Statement &statement, const std::string &by) {
  const auto operation = kOperations.find(statement.action);
  if (operation == kOperations.end())
    return "mdt-reflector has no such command; it is configured by its file, " + options_.config_file +
           ", and reads it again on SIGHUP";
  events_.set_cause(by);
  const std::string reason = (this->*operation->second)(statement);
  if (reason.empty()) events_.publish({.what = host::CommandChange{statement.text}});
  events_.set_cause("");
  return reason;
}

std::string Reflector::set_log_level(const host::Statement &statement) {
  log_.set_level(*host::level_of(statement.arguments.front().name));
  return "";
}

std::string Reflector::clear_neighbor(const host::Statement &statement) { return bgp_.clear(statement); }

void Reflector::show(const host::CommandLine &line, host::OutputChannel &channel) {
  const host::Statement &statement = line.match.statements.front();
  const auto view = kViewActions.find(statement.action);
  std::string reason = "mdt-reflector has no such view; it has show bgp and show running-config";
  if (view != kViewActions.end()) reason = bgp_.missing_neighbor(statement);
  if (!reason.empty()) return refuse(line, host::kStatusFailed, reason + "\n", channel);
  const auto writer = host::writer_for(line, channel);
  output::Listing listing(*writer);
  (this->*view->second)(statement, listing);
  writer->finish();
  channel.end(host::kStatusDone);
}

void Reflector::show_summary(const host::Statement &, output::Listing &listing) const {
  host::show_bgp_summary(bgp_, listing);
}

void Reflector::show_neighbors(const host::Statement &statement, output::Listing &listing) const {
  const std::string *address = find_argument(statement, "address");
  host::show_bgp_neighbors(bgp_, address == nullptr ? 0 : host::address_value(*address), listing);
}

void Reflector::show_routes(const host::Statement &statement, output::Listing &listing) const {
  listing.begin(output::kBgp, find_argument(statement, "detail") != nullptr);
  host::show_bgp_routes(
      bgp_, [](const bgp::RouteKey &) { return std::string(); }, listing);
}

void Reflector::show_config(const host::Statement &statement, output::Listing &listing) const {
  const host::Config::Passwords passwords = host::passwords_of(statement);
  if (listing.instead([&] { return host::yang_data(config_, passwords); })) return;
  listing.begin(output::kConfig);
  std::istringstream text(config_.print(passwords));
  for (std::string line; std::getline(text, line);)
    if (!listing.row({line})) return;
}

}  // namespace reflector
