// Graceful restart (RFC 4724) towards one neighbour.
//
// A neighbour that restarts keeps forwarding, so its routes are kept while it is away, and only those that it does not
// announce again go. They are dated by generation (table.h): losing the session raises the number, which makes all of
// them stale at once. The routes go when the neighbour does not come back within its restart time, comes back without
// having preserved its forwarding state, or has sent its end-of-RIB mark. A session that ended by a NOTIFICATION ended
// on purpose: its routes go at once.
#include <algorithm>

#include "bgp/peer.h"

namespace bgp {
namespace {

using std::chrono::seconds;

// What the neighbour says about this family in its restart capability.
const RestartFamily *restart_family(const Open &open) {
  if (!open.capabilities.restart) return nullptr;
  const auto &families = open.capabilities.restart->families;
  const auto found =
      std::find_if(families.begin(), families.end(), [](const RestartFamily &f) { return f.family == kMdt; });
  return found == families.end() ? nullptr : &*found;
}

}  // namespace

bool Peer::mdt_agreed(const Session &session) const {
  const auto &families = session.open().capabilities.families;
  return std::find(families.begin(), families.end(), kMdt) != families.end();
}

bool Peer::restart_agreed(const Session &session) const {
  return core_.config.graceful_restart && session.stage() >= Session::Stage::open_confirm &&
         restart_family(session.open()) != nullptr;
}

void Peer::routes_left_behind(const Session &session, bool by_transport) {
  Table &table = core_.table;
  stale_timer_.stop();
  table.start_generation(source_);
  const bool keep = by_transport && core_.config.graceful_restart && restart_family(session.open()) != nullptr &&
                    session.open().capabilities.restart->time > 0 && !core_.stopped;
  // Routes that were stale before and never announced again go in any case.
  table.start_sweep(source_, keep ? 2 : 1);
  if (!keep || table.source(source_).paths == 0) return;
  restart_timer_.start(seconds(session.open().capabilities.restart->time));
  core_.log(LogLevel::info, name() + " may be restarting: its routes are kept for " +
                                std::to_string(session.open().capabilities.restart->time) + " seconds");
}

void Peer::routes_coming_back(const Session &session) {
  if (!restart_timer_.running()) return;
  restart_timer_.stop();
  const RestartFamily *family = restart_family(session.open());
  if (family == nullptr || !family->forwarding || !mdt_agreed(session)) return drop_stale();
  stale_timer_.start(seconds(core_.config.stale_time));
}

void Peer::restart_expired() {
  core_.log(LogLevel::warning, name() + " has not come back in its restart time");
  drop_stale();
}

void Peer::drop_stale() {
  restart_timer_.stop();
  stale_timer_.stop();
  refreshing_ = false;
  core_.table.start_sweep(source_, 1);
}

void Peer::end_of_rib() {
  if (end_of_rib_received_) return;
  end_of_rib_received_ = true;
  if (stale_timer_.running() && !refreshing_) drop_stale();
  core_.events.push_back({Event::Kind::end_of_rib,
                          LogLevel::info,
                          config_.address,
                          State::established,
                          State::established,
                          {},
                          core_.news.log_end()});
}

// A neighbour that restarts itself, or cannot mark its end, is not waited for (RFC 4724, 4.1).
bool Peer::all_received() const {
  if (config_.shutdown || end_of_rib_received_) return true;
  if (established_ == nullptr) return false;
  return restart_family(established_->open()) == nullptr || established_->open().capabilities.restart->restarting;
}

}  // namespace bgp
