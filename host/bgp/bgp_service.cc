// Follows the configuration: a speaker while there is a local AS, changed in place where that is possible, so that
// sessions whose lines stay the same stay up. All of it runs on the main thread, in turns of the loop that
// Callbacks::enter opens.
//
// Words that come from neighbours are made printable before they reach the log or a change.
#include "host/bgp/bgp_service.h"

#include <algorithm>
#include <chrono>
#include <random>
#include <set>
#include <utility>

namespace host {
namespace {

constexpr std::chrono::seconds kListenRetry{5};  // an address that comes later is soon served, a log is not filled
constexpr std::chrono::seconds kFarewell{2};     // so long neighbours may take to read their last words
constexpr uint16_t kDeferralLeast = 30;          // seconds
constexpr size_t kUnheardBatch = 4096;           // changes that a turn passes over when nobody wants them

bool same(const bgp::SpeakerConfig &a, const bgp::SpeakerConfig &b) {
  return a.local_as == b.local_as && a.router_id == b.router_id && a.cluster_id == b.cluster_id &&
         a.graceful_restart == b.graceful_restart && a.restart_time == b.restart_time;
}

std::string endpoint_text(const BgpSettings &settings) {
  return address_text(settings.listen_address) + ":" + std::to_string(settings.listen_port);
}

std::string neighbor_name(bgp::Ipv4 neighbor) { return "BGP: neighbor " + address_text(neighbor); }

}  // namespace

BgpService::BgpService(boost::asio::io_context &io, Callbacks callbacks, bool restarting)
    : callbacks_(std::move(callbacks)),
      transport_(io, callbacks_.enter),
      listen_retry_(io),
      farewell_(io),
      restarting_(restarting),
      awaits_local_(restarting) {}

BgpService::~BgpService() {
  transport_.attach(nullptr);
  speaker_.reset();
}

// ------------------------------------------------------------------------------------------ following a configuration

void BgpService::follow(const std::optional<BgpSettings> &settings) {
  if (!settings) return end();
  const std::optional<BgpSettings> former = std::exchange(settings_, settings);
  if (!speaker_) return begin(*settings);
  if (!same(former->speaker, settings->speaker)) {
    bgp::SpeakerConfig config = settings->speaker;
    config.seed = speaker_->config().seed;
    speaker_->reconfigure(config);
  }
  if (endpoint_text(*former) != endpoint_text(*settings)) listen();
  set_neighbors(*settings);
}

// Neighbours forget this router's routes with its restart time; to wait for any of them longer gains nothing.
void BgpService::begin(const BgpSettings &settings) {
  bgp::SpeakerConfig config = settings.speaker;
  config.seed = std::random_device()();
  config.restarting = std::exchange(restarting_, false);
  config.await_local = awaits_local_;
  config.deferral_time = std::max(config.restart_time, kDeferralLeast);
  bgp::Observer &observer = *this;
  speaker_ = std::make_unique<bgp::Speaker>(config, transport_, transport_, observer, &memory_);
  transport_.attach(speaker_.get());
  listen();
  if (callbacks_.began) callbacks_.began();
  set_neighbors(settings);
}

void BgpService::complete() {
  if (std::exchange(awaits_local_, false) && speaker_) speaker_->local_complete();
}

void BgpService::set_neighbors(const BgpSettings &settings) {
  std::set<bgp::Ipv4> wanted;
  for (const bgp::NeighborConfig &neighbor : settings.neighbors) wanted.insert(neighbor.address);
  for (const bgp::Ipv4 neighbor : speaker_->neighbors()) {
    if (wanted.contains(neighbor)) continue;
    speaker_->remove_neighbor(neighbor);
    failures_.erase(neighbor);
  }
  for (const bgp::NeighborConfig &neighbor : settings.neighbors)
    if (const std::string words = speaker_->set_neighbor(neighbor); !words.empty())
      callbacks_.log(Level::error, neighbor_name(neighbor.address) + ": " + words);
}

void BgpService::end() {
  settings_.reset();
  if (!speaker_) return;
  stop("");
  transport_.attach(nullptr);
  if (callbacks_.ends) callbacks_.ends();
  speaker_.reset();
  failures_.clear();
}

void BgpService::stop(const std::string &words) {
  listen_retry_.cancel();
  transport_.stop_listening();
  listening_.clear();
  if (!speaker_) return;
  speaker_->stop(bgp::StopKind::shutdown, words);
  speaker_->run();
}

void BgpService::when_delivered(const std::function<void()> &then) {
  await_delivery(std::chrono::steady_clock::now() + kFarewell, then);
}

void BgpService::await_delivery(std::chrono::steady_clock::time_point limit, const std::function<void()> &then) {
  if (transport_.idle() || std::chrono::steady_clock::now() > limit) return then();
  farewell_.expires_after(std::chrono::milliseconds(10));
  farewell_.async_wait([this, limit, then](const boost::system::error_code &error) {
    if (!error) await_delivery(limit, then);
  });
}

std::string BgpService::missing_neighbor(const Statement &statement) const {
  const std::string *address = find_argument(statement, "address");
  if (address == nullptr || (speaker_ && speaker_->neighbor(address_value(*address)))) return "";
  return "there is no BGP neighbor " + *address;
}

std::string BgpService::clear(const Statement &statement) {
  if (std::string reason = missing_neighbor(statement); !reason.empty()) return reason;
  const std::string *address = find_argument(statement, "address");
  const bgp::ClearKind kind = find_argument(statement, "in") != nullptr    ? bgp::ClearKind::soft_in
                              : find_argument(statement, "out") != nullptr ? bgp::ClearKind::soft_out
                                                                           : bgp::ClearKind::hard;
  std::vector<bgp::Ipv4> neighbors = speaker_ ? speaker_->neighbors() : std::vector<bgp::Ipv4>();
  if (address != nullptr) std::erase_if(neighbors, [&](bgp::Ipv4 other) { return other != address_value(*address); });
  if (neighbors.empty()) return "there is no BGP neighbor";
  std::string failed;
  for (const bgp::Ipv4 neighbor : neighbors)
    if (!speaker_->clear(neighbor, kind)) failed += " " + address_text(neighbor);
  return failed.empty() ? "" : "cannot be asked for its routes now:" + failed;
}

// The address or the port may be free later, or the right to use it given.
void BgpService::listen() {
  const std::string endpoint = endpoint_text(*settings_);
  const std::string reason = transport_.listen(settings_->listen_address, settings_->listen_port);
  const std::string result = reason.empty() ? endpoint : endpoint + ": " + reason;
  if (result != std::exchange(listening_, result))
    callbacks_.log(reason.empty() ? Level::notice : Level::error,
                   reason.empty() ? "BGP listens on " + endpoint
                                  : "BGP cannot listen on " + result + "; tried again every " +
                                        std::to_string(kListenRetry.count()) + " seconds");
  listen_retry_.cancel();
  if (reason.empty()) return;
  listen_retry_.expires_after(kListenRetry);
  listen_retry_.async_wait([this](const boost::system::error_code &error) {
    if (!error) callbacks_.enter([this] { listen(); });
  });
}

// ------------------------------------------------------------------------------------------- what the speaker tells

void BgpService::best_changed(std::span<const bgp::BestChange> changes) {
  if (callbacks_.best_changed) callbacks_.best_changed(changes);
}

// Nobody is kept waiting when nobody wants to know.
size_t BgpService::best_batch() const { return callbacks_.best_batch ? callbacks_.best_batch() : kUnheardBatch; }

void BgpService::end_of_rib(bgp::Ipv4 neighbor) {
  if (callbacks_.end_of_rib) callbacks_.end_of_rib(neighbor);
}

// Sessions that come and go are told, and why there is none, when it is not what was said before: a neighbour that is
// away is tried again and again.
void BgpService::session_changed(bgp::Ipv4 neighbor, bgp::State from, bgp::State to, std::string_view reason) {
  const bool up = to == bgp::State::established, down = from == bgp::State::established;
  if (up) failures_.erase(neighbor);
  if (down) failures_[neighbor] = reason;
  const bool news =
      up || down ||
      (to == bgp::State::idle && !reason.empty() && std::exchange(failures_[neighbor], std::string(reason)) != reason);
  if (!news) return;
  // The reason may be that of the other connection of a collision.
  callbacks_.changed({.what = SessionChange{neighbor, to_string(from), to_string(to)},
                      .level = up ? Level::notice : Level::warning,
                      .reason = up ? "" : printable(reason)});
}

void BgpService::log(bgp::LogLevel level, std::string_view line) {
  constexpr Level levels[] = {Level::debug, Level::info, Level::warning, Level::error};
  callbacks_.log(levels[static_cast<size_t>(level)], "BGP: " + printable(line));
}

}  // namespace host
