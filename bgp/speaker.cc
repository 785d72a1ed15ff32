// The facade, and the turn in which a speaker does all its work.
//
// A turn takes bounded shares: so many octets of input, so many routes to select, tell and write. Neighbours take turns
// within it, so that one with a full table to send or to tell delays the others by one share and not by a table.
#include "bgp/speaker.h"

#include <algorithm>

#include "bgp/impl.h"

namespace bgp {
namespace {

// Shares of a turn. Larger ones cost less for each route, smaller ones let the owner's loop go on sooner.
struct InputShare {
  size_t of_session, of_turn;  // octets
};
constexpr InputShare kInput{16 * 1024, 32 * 1024};
constexpr InputShare kInputWhileBehind{1024, 2048};  // while the observer has more than a turn's changes to hear of
constexpr size_t kCallCost = 128;                    // octets that a call of the transport is worth
constexpr size_t kRoutesOfPeer = 1024;               // looked at for output, a turn
constexpr size_t kRoutesOfTurn = 4096;
constexpr size_t kTableOfTurn = 2048;  // swept, selected
constexpr uint16_t kRestartTimeMost = 4095;

std::string check_limit(const MaximumPrefix &maximum) {
  if (maximum.limit != 0 && (maximum.warning_percent == 0 || maximum.warning_percent > 100))
    return "the warning threshold must be 1 to 100 percent";
  return {};
}

}  // namespace

// -------------------------------------------------------------------------------------------------------------- checks

std::string Speaker::check(const SpeakerConfig &config) {
  if (config.local_as == 0 || config.local_as == kAsTrans) return "the AS number must not be 0 or 23456";
  if (config.router_id == 0) return "the router id must not be 0.0.0.0";
  if (config.restart_time == 0 || config.restart_time > kRestartTimeMost)
    return "the restart time must be 1 to 4095 seconds";
  if (config.stale_time == 0 || config.deferral_time == 0) return "stale and deferral time must not be 0";
  return {};
}

std::string Speaker::check(const NeighborConfig &config) {
  if (config.address == 0) return "the neighbor needs an address";
  if (config.remote_as == 0 || config.remote_as == kAsTrans) return "the remote AS must not be 0 or 23456";
  if (config.port == 0) return "the port must not be 0";
  if (config.hold_time == 1 || config.hold_time == 2) return "the hold time must be 0 or at least 3 seconds";
  if (config.connect_retry == 0) return "the connect retry time must not be 0";
  if (config.password.size() > 80) return "a password has at most 80 characters";
  return check_limit(config.maximum_prefix);
}

// ------------------------------------------------------------------------------------------------------ configuration

Speaker::Impl::Impl(const SpeakerConfig &config, Transport &transport, Clock &clock, Observer &observer,
                    std::pmr::memory_resource *memory)
    : core(config, transport, clock, observer, memory), deferral_(core.timers, [this] { deferral_expired(); }) {
  if (!config.restarting) return;
  core.local_awaited = config.await_local;
  core.table.defer_selection();
  deferral_.start(std::chrono::seconds(config.deferral_time));
  wake();
}

Peer *Speaker::Impl::find(Ipv4 address) const {
  const auto found = peers_.find(address);
  return found == peers_.end() ? nullptr : found->second.get();
}

void Speaker::Impl::reconfigure(const SpeakerConfig &config) {
  core.timers.set_now(core.clock.now());
  const SpeakerConfig before = std::exchange(core.config, config);
  const bool all = config.local_as != before.local_as || config.router_id != before.router_id ||
                   config.graceful_restart != before.graceful_restart || config.restart_time != before.restart_time;
  for (const auto &[address, peer] : peers_)
    if (all || (config.cluster_id != before.cluster_id && peer->config().reflector_client)) peer->speaker_changed();
  wake();
}

std::string Speaker::Impl::set_neighbor(const NeighborConfig &config) {
  if (std::string wrong = check(config); !wrong.empty()) return wrong;
  core.timers.set_now(core.clock.now());
  if (Peer *peer = find(config.address)) {
    peer->reconfigure(config);
  } else {
    const auto source = core.table.add_source(config.address);
    if (!source) return "too many neighbors";
    auto added = std::make_unique<Peer>(core, config, *source);
    added->start();
    peers_[config.address] = std::move(added);
  }
  wake();
  return {};
}

bool Speaker::Impl::remove_neighbor(Ipv4 address) {
  Peer *peer = find(address);
  if (peer == nullptr) return false;
  core.timers.set_now(core.clock.now());
  peer->stop(error(ErrorCode::cease, Cease::peer_deconfigured));
  peers_.erase(address);
  wake();
  return true;
}

void Speaker::Impl::stop(StopKind kind, const std::string &message) {
  core.timers.set_now(core.clock.now());
  core.stopped = true;
  for (const auto &[address, peer] : peers_) {
    if (kind == StopKind::restart)
      peer->stop_quietly();
    else
      peer->stop(cease(Cease::administrative_shutdown, message));
  }
  wake();
}

void Speaker::Impl::originate(const Nlri &nlri, Ipv4 next_hop, const Attributes *more) {
  Attributes attributes = more != nullptr ? *more : Attributes{};
  attributes.next_hop = next_hop;
  const AttributeId id = core.attributes.intern(attributes);
  core.table.update(kLocal, nlri, id);
  core.attributes.release(id);
  wake();
}

bool Speaker::Impl::withdraw(const RouteKey &key) {
  wake();
  return core.table.withdraw(kLocal, key);
}

bool Speaker::Impl::clear(Ipv4 neighbor, ClearKind kind, const std::string &message) {
  Peer *peer = find(neighbor);
  if (peer == nullptr) return false;
  core.timers.set_now(core.clock.now());
  wake();
  switch (kind) {
    case ClearKind::hard:
      peer->clear_hold();
      peer->reset(cease(Cease::administrative_reset, message));
      return true;
    case ClearKind::soft_in:
      return peer->refresh_in();
    case ClearKind::soft_out:
      return peer->refresh_out();
  }
  return false;
}

void Speaker::Impl::local_complete() {
  core.local_awaited = false;
  for (const auto &[address, peer] : peers_) peer->release_end_of_rib();
  wake();
}

void Speaker::Impl::next_hops_changed() {
  if (!core.table.deferred()) core.table.start_selection();
  wake();
}

// -------------------------------------------------------------------------------------------------------- connections

Session *Speaker::Impl::session(ConnectionId connection) const {
  const auto found = core.sessions.find(connection);
  return found == core.sessions.end() ? nullptr : found->second;
}

std::optional<ConnectionId> Speaker::Impl::accepted(Ipv4 remote, Ipv4 local) {
  core.timers.set_now(core.clock.now());
  Peer *peer = find(remote);
  Session *session = peer == nullptr ? nullptr : peer->accept();
  if (session == nullptr) return std::nullopt;
  note(session->id(), true, local, {});
  return session->id();
}

void Speaker::Impl::note(ConnectionId connection, bool up, Ipv4 local, std::string_view words) {
  told_.push_back({connection, up, false, local, std::string(words)});
  wake();
}

void Speaker::Impl::readable(ConnectionId connection) {
  Session *found = session(connection);
  if (found == nullptr) return;
  found->note_readable();
  wake();
}

void Speaker::Impl::writable(ConnectionId connection) {
  told_.push_back({connection, true, true, 0, {}});
  wake();
}

void Speaker::Impl::take_told() {
  const std::vector<Told> told = std::exchange(told_, {});
  for (const Told &what : told) {
    Session *found = session(what.connection);
    if (found == nullptr) continue;
    if (!what.up)
      found->lost(what.words);
    else if (what.writable)
      found->writable();
    else
      found->connected(what.local);
  }
}

// -------------------------------------------------------------------------------------------------------------- turns

void Speaker::Impl::wake() {
  if (awake_) return;
  awake_ = true;
  core.clock.wake_at(core.clock.now());
}

// An observer that takes its time is not left far behind: routes are still at hand when it is told, a change does not
// queue behind a whole table, and what is too much waits at the neighbours. Something is always read, since a
// neighbour must not be taken for silent.
void Speaker::Impl::read_input(size_t most_told) {
  const InputShare &share = core.news.changes_left() > most_told ? kInputWhileBehind : kInput;
  size_t octets = 0;
  for (size_t left = core.readable.size(); left > 0 && octets < share.of_turn; left--) {
    if (core.readable.empty()) return;  // sessions that ended take others with them
    Session *session = core.readable.front();
    core.readable.erase(core.readable.begin());
    const size_t read = session->read(share.of_session);
    if (read > 0) session->note_readable();
    octets += read + kCallCost;
  }
}

void Speaker::Impl::deferral_expired() {
  if (core.table.deferred()) core.log(LogLevel::warning, "not every neighbor has sent its routes in the deferral time");
  end_deferral();
  local_complete();
}

void Speaker::Impl::end_deferral() {
  if (!core.table.deferred()) return;
  core.table.start_selection();
  core.events.push_back({Event::Kind::selection, LogLevel::info, 0, State::idle, State::idle, {}, 0});
}

void Speaker::Impl::select() {
  if (core.table.deferred() &&
      std::all_of(peers_.begin(), peers_.end(), [](const auto &p) { return p.second->all_received(); }))
    end_deferral();
  core.table.sweep(kTableOfTurn);
  const bool selecting = core.table.selecting();
  core.table.select(kTableOfTurn);
  if (!selecting || core.table.selecting()) return;
  for (const auto &[address, peer] : peers_) peer->start_output();
}

void Speaker::Impl::tell_changes(size_t most) {
  changes_.clear();
  Table &table = core.table;
  while (changes_.size() < most) {
    const RouteId id = core.news.next();
    if (id == 0) break;
    const Route &route = table.route(id);
    const PathId best = table.best(id);
    if (best == 0 && route.told == ToldOf::nothing) continue;
    BestChange change{{route.key, route.group}, table.told_group(id), best != 0, false, 0, 0};
    if (best != 0) {
      const Path &path = table.path(best);
      change.local = path.source == kLocal;
      change.next_hop = table.attributes()[path.attributes].next_hop;
      change.neighbor = table.source(path.source).address;
    }
    changes_.push_back(change);
    table.note_told(id);
  }
  if (!changes_.empty()) core.observer.best_changed(changes_);
}

void Speaker::Impl::write_output() {
  auto next = peers_.upper_bound(last_writer_);
  size_t routes = 0;
  for (size_t i = 0; i < peers_.size() && routes < kRoutesOfTurn; i++, next++) {
    if (next == peers_.end()) next = peers_.begin();
    if (!next->second->output_pending()) continue;
    next->second->run_output(kRoutesOfPeer);
    last_writer_ = next->first;
    routes += kRoutesOfPeer;
  }
}

void Speaker::Impl::tell(const Event &event) {
  switch (event.kind) {
    case Event::Kind::log:
      return core.observer.log(event.level, event.text);
    case Event::Kind::session:
      return core.observer.session_changed(event.neighbor, event.from, event.to, event.text);
    case Event::Kind::end_of_rib:
      return core.observer.end_of_rib(event.neighbor);
    case Event::Kind::selection:
      return core.observer.selection_begins();
  }
}

// In order, up to an end-of-RIB mark whose routes the observer has not been told yet.
void Speaker::Impl::tell_events() {
  while (!core.events.empty()) {
    const bool early = core.events.front().kind == Event::Kind::end_of_rib && core.news.behind() &&
                       core.news.position() < core.events.front().position;
    if (early) return;
    const Event event = std::move(core.events.front());
    core.events.pop_front();
    tell(event);
  }
}

bool Speaker::Impl::work_left() const {
  if (!told_.empty() || !core.readable.empty() || core.table.sweeping() || core.table.selecting() ||
      core.news.behind() || !core.events.empty())
    return true;
  return std::any_of(peers_.begin(), peers_.end(), [](const auto &p) { return p.second->output_pending(); });
}

void Speaker::Impl::run() {
  awake_ = true;  // what is asked for during the turn is seen at its end
  core.timers.set_now(core.clock.now());
  const size_t most_told = core.observer.best_batch();
  take_told();
  read_input(most_told);
  core.timers.run();
  select();
  tell_changes(most_told);
  write_output();
  core.table.trim();
  core.graveyard.clear();
  tell_events();
  awake_ = work_left();
  core.clock.wake_at(awake_ ? core.timers.now() : core.timers.next());
}

// ------------------------------------------------------------------------------------------------------------- facade

Speaker::Speaker(const SpeakerConfig &config, Transport &transport, Clock &clock, Observer &observer,
                 std::pmr::memory_resource *memory)
    : impl_(std::make_unique<Impl>(config, transport, clock, observer, memory)) {}
Speaker::~Speaker() = default;

const SpeakerConfig &Speaker::config() const { return impl_->core.config; }
void Speaker::reconfigure(const SpeakerConfig &config) { impl_->reconfigure(config); }
std::string Speaker::set_neighbor(const NeighborConfig &config) { return impl_->set_neighbor(config); }
bool Speaker::remove_neighbor(Ipv4 address) { return impl_->remove_neighbor(address); }
void Speaker::stop(StopKind kind, const std::string &message) { impl_->stop(kind, message); }
void Speaker::originate(const Nlri &nlri, Ipv4 next_hop, const Attributes *more) {
  impl_->originate(nlri, next_hop, more);
}
bool Speaker::withdraw(const RouteKey &key) { return impl_->withdraw(key); }
bool Speaker::clear(Ipv4 neighbor, ClearKind kind, const std::string &message) {
  return impl_->clear(neighbor, kind, message);
}
void Speaker::local_complete() { impl_->local_complete(); }
void Speaker::next_hops_changed() { impl_->next_hops_changed(); }

std::optional<ConnectionId> Speaker::accepted(Ipv4 remote, Ipv4 local) { return impl_->accepted(remote, local); }
void Speaker::connected(ConnectionId connection, Ipv4 local) { impl_->note(connection, true, local, {}); }
void Speaker::connection_failed(ConnectionId connection, std::string_view words) {
  impl_->note(connection, false, 0, words);
}
void Speaker::readable(ConnectionId connection) { impl_->readable(connection); }
void Speaker::writable(ConnectionId connection) { impl_->writable(connection); }
void Speaker::run() { impl_->run(); }

std::vector<Ipv4> Speaker::neighbors() const { return impl_->neighbors(); }
std::optional<NeighborView> Speaker::neighbor(Ipv4 address) const { return impl_->neighbor(address); }
bool Speaker::deferring() const { return impl_->core.table.deferred(); }
TableSizes Speaker::sizes() const { return impl_->sizes(); }
size_t Speaker::told() const { return impl_->core.table.told(); }
Ipv4 Speaker::told_group(const RouteKey &key) const { return impl_->told_group(key); }
std::vector<Nlri> Speaker::told_routes() const { return impl_->told_routes(); }

std::vector<RouteKey> Speaker::keys() const { return impl_->keys(); }
std::optional<RouteView> Speaker::route(const RouteKey &key) const { return impl_->route(key); }
std::vector<RouteKey> Speaker::keys_received(Ipv4 neighbor) const { return impl_->keys_received(neighbor); }
std::vector<RouteKey> Speaker::keys_advertised(Ipv4 neighbor) const { return impl_->keys_advertised(neighbor); }
std::optional<PathView> Speaker::advertised(Ipv4 neighbor, const RouteKey &key) const {
  return impl_->advertised(neighbor, key);
}

// --------------------------------------------------------------------------------------------------------------- core

void Core::log(LogLevel level, std::string text) {
  events.push_back({Event::Kind::log, level, 0, State::idle, State::idle, std::move(text), 0});
}

Duration Core::jitter(Duration whole) {
  const auto quarter = static_cast<uint64_t>(whole.count() / 4);
  return whole - Duration(random() % (quarter + 1));
}

}  // namespace bgp
