// The states Idle, Connect and Active (RFC 4271, 8.2.2), and the choice between two connections (6.8).
//
// Failures lead to Idle, and out of it again after a hold that doubles from one second, so that two speakers that
// cannot agree do not do so in a tight loop. A connection that cannot be made is tried again after the connect retry
// time. The neighbour's own connection is taken in Idle too, unless the neighbour is held down for good reason: it may
// have been restarted, and its next try may be minutes away.
#include "bgp/peer.h"

#include <algorithm>

namespace bgp {
namespace {

using std::chrono::seconds;

// Between two attempts that fail, doubled each time: soon enough for a neighbour that only begins anew, seldom enough
// for one that is misconfigured (RFC 4271, 8.1.1, leaves the numbers open).
constexpr Duration kIdleHoldFirst = seconds(1), kIdleHoldMost = seconds(64);
constexpr size_t kOutputHigh = 64 * 1024;      // octets waiting for the socket, beyond which no more are made
constexpr Duration kLastedLong = seconds(60);  // a session of that length ends the doubling

bool running(const std::unique_ptr<Session> &session) {
  return session != nullptr && session->stage() != Session::Stage::closed;
}

State state_of(const Session &session) {
  switch (session.stage()) {
    case Session::Stage::connecting:
      return State::connect;
    case Session::Stage::open_sent:
      return State::open_sent;
    case Session::Stage::open_confirm:
      return State::open_confirm;
    case Session::Stage::established:
      return State::established;
    case Session::Stage::closed:
      break;
  }
  return State::idle;
}

}  // namespace

Peer::Peer(Core &core, const NeighborConfig &config, SourceId source)
    : core_(core),
      config_(config),
      source_(source),
      idle_hold_(kIdleHoldFirst),
      connect_retry_(core.timers, [this] { retry(); }),
      idle_timer_(core.timers,
                  [this] {
                    hold_ = Hold::none;
                    start();
                  }),
      restart_timer_(core.timers, [this] { restart_expired(); }),
      stale_timer_(core.timers, [this] { drop_stale(); }),
      since_(core.timers.now()) {
  core_.table.source(source_).internal = internal();
  core_.table.source(source_).client = config_.reflector_client;
}

Peer::~Peer() {
  core_.transport.remove_peer_options(config_.address);
  core_.table.remove_source(source_);
}

std::string Peer::name() const { return "neighbor " + to_string_address(config_.address); }

State Peer::state() const {
  State state = active_ ? State::active : State::idle;
  for (const auto *session : {&outgoing_, &incoming_}) {
    if (!running(*session)) continue;
    const State of_session = state_of(**session);
    // Waiting for the neighbour and trying oneself are one state, the trying.
    state = std::max(state == State::active && of_session == State::connect ? State::idle : state, of_session);
  }
  return state;
}

void Peer::state_changed(std::string reason) {
  const State now = state();
  if (now == shown_) return;
  const State from = std::exchange(shown_, now);
  since_ = core_.timers.now();
  if (now == State::idle || now == State::active) reason_ = reason;
  core_.events.push_back({Event::Kind::session, LogLevel::info, config_.address, from, now, std::move(reason), 0});
}

// --------------------------------------------------------------------------------------------------- start and restart

void Peer::start() {
  if (core_.stopped || config_.shutdown || hold_ == Hold::limit || running(outgoing_) || running(incoming_)) return;
  const PeerOptions options{config_.port, config_.local_address, config_.password, config_.ttl_security};
  const std::string trouble = core_.transport.set_peer_options(config_.address, options);
  if (!trouble.empty()) {
    if (hold_ != Hold::options) core_.log(LogLevel::error, name() + ": " + trouble);
    hold_ = Hold::options;
    reason_ = trouble;
    idle_timer_.start(core_.jitter(kIdleHoldMost));
    return;
  }
  hold_ = Hold::none;
  if (config_.passive)
    wait_for_connection();
  else
    connect();
}

void Peer::wait_for_connection() {
  active_ = true;
  connect_retry_.stop();
  state_changed("waiting for the neighbor's connection");
}

void Peer::connect() {
  active_ = true;
  outgoing_ = std::make_unique<Session>(core_, *this, true);
  connect_retry_.start(core_.jitter(seconds(config_.connect_retry)));
  core_.transport.connect(outgoing_->id(), config_.address,
                          {config_.port, config_.local_address, config_.password, config_.ttl_security});
  state_changed({});
}

// The connect retry time is over: without an answer the connection is tried anew.
void Peer::retry() {
  if (config_.passive || (running(outgoing_) && outgoing_->stage() != Session::Stage::connecting)) return;
  if (running(incoming_)) return;
  if (running(outgoing_)) outgoing_->abandon();
  forget(outgoing_);
  connect();
}

void Peer::go_idle() {
  active_ = false;
  connect_retry_.stop();
  if (core_.stopped || config_.shutdown || hold_ == Hold::limit) return;
  hold_ = Hold::waiting;
  idle_timer_.start(core_.jitter(idle_hold_));
  idle_hold_ = std::min(2 * idle_hold_, kIdleHoldMost);
}

void Peer::drop(std::unique_ptr<Session> &session, const Notification &notification) {
  if (running(session)) session->end(notification);
}

void Peer::stop(const Notification &notification) {
  hold_ = Hold::none;
  idle_timer_.stop();
  connect_retry_.stop();
  active_ = false;
  drop(outgoing_, notification);
  drop(incoming_, notification);
  idle_timer_.stop();
  connect_retry_.stop();
  active_ = false;
  drop_stale();
  state_changed(describe(notification));
}

void Peer::stop_quietly() {
  for (auto *session : {&outgoing_, &incoming_})
    if (running(*session)) (*session)->end_quietly("restarting");
  idle_timer_.stop();
  connect_retry_.stop();
  active_ = false;
  state_changed("restarting");
}

void Peer::reset(const Notification &notification) {
  stop(notification);
  idle_hold_ = kIdleHoldFirst;
  if (config_.shutdown || core_.stopped) return;
  go_idle();
}

void Peer::speaker_changed() {
  core_.table.source(source_).internal = internal();
  reset(error(ErrorCode::cease, Cease::other_configuration_change));
}

void Peer::clear_hold() {
  if (hold_ == Hold::limit) hold_ = Hold::none;
  warned_ = false;
}

bool Peer::only_light_changes(const NeighborConfig &config) const {
  NeighborConfig like = config;
  like.description = config_.description;
  like.maximum_prefix = config_.maximum_prefix;
  like.shutdown_message = config_.shutdown_message;
  like.connect_retry = config_.connect_retry;
  return like == config_;
}

void Peer::reconfigure(const NeighborConfig &config) {
  if (config == config_) return;
  const bool light = only_light_changes(config);
  const bool shuts = config.shutdown && !config_.shutdown;
  const bool limit_changes = !(config.maximum_prefix == config_.maximum_prefix);
  config_ = config;
  core_.table.source(source_).internal = internal();
  core_.table.source(source_).client = config_.reflector_client;
  if (shuts) return stop(cease(Cease::administrative_shutdown, config_.shutdown_message));
  if (!light) {
    hold_ = Hold::none;
    return reset(error(ErrorCode::cease, Cease::other_configuration_change));
  }
  if (!limit_changes) return;
  if (hold_ == Hold::limit) {
    clear_hold();
    return go_idle();
  }
  if (established_ == nullptr) return;
  if (const auto over = check_limit()) established_->end(*over);
}

// --------------------------------------------------------------------------------------------------------- connections

Session *Peer::accept() {
  if (core_.stopped || config_.shutdown || hold_ == Hold::limit || hold_ == Hold::options) return nullptr;
  if (established_ != nullptr) {
    // A neighbour that can restart and connects anew has restarted, whatever the old connection seems to say
    // (RFC 4724, section 5); from any other it is one connection too many.
    if (!restart_agreed(*established_)) return nullptr;
    established_->lost("the neighbor has connected anew");
  }
  drop(incoming_, error(ErrorCode::cease, Cease::collision));
  active_ = true;
  idle_timer_.stop();
  if (hold_ == Hold::waiting) hold_ = Hold::none;
  incoming_ = std::make_unique<Session>(core_, *this, false);
  return incoming_.get();
}

void Peer::connection_up() {
  connect_retry_.stop();
  state_changed({});
}

bool Peer::opened(Session &session) {
  std::unique_ptr<Session> &other = session.outgoing() ? incoming_ : outgoing_;
  if (!running(other)) return true;
  const Notification collision = error(ErrorCode::cease, Cease::collision);
  if (other->stage() == Session::Stage::established) {
    session.end(collision);
    return false;
  }
  if (other->stage() != Session::Stage::open_confirm) return true;
  // The connection that the side with the higher identifier has opened lives; equal ones: the higher AS (RFC 6286).
  const auto ours = std::pair(core_.config.router_id, core_.config.local_as);
  const auto theirs = std::pair(session.open().router_id, config_.remote_as);
  const bool keep_outgoing = ours > theirs;
  if (keep_outgoing == session.outgoing()) {
    drop(other, collision);
    return true;
  }
  session.end(collision);
  return false;
}

void Peer::established(Session &session) {
  std::unique_ptr<Session> &other = session.outgoing() ? incoming_ : outgoing_;
  drop(other, error(ErrorCode::cease, Cease::collision));
  established_ = &session;
  active_ = false;
  connect_retry_.stop();
  idle_timer_.stop();
  established_count_++;
  sent_ = session.sent_open().capabilities;
  received_ = session.open().capabilities;
  router_id_ = session.open().router_id;
  core_.table.source(source_).router_id = router_id_;
  end_of_rib_received_ = refreshing_ = warned_ = false;
  state_changed({});
  routes_coming_back(session);
  if (!mdt_agreed(session)) core_.log(LogLevel::warning, name() + " does not exchange MDT routes");
  start_output();
}

// Moves an ended session out of the way; it may still be on the call stack.
void Peer::forget(std::unique_ptr<Session> &session) {
  if (session != nullptr) core_.graveyard.push_back(std::move(session));
}

void Peer::session_ended(Session &session, Session::Stage reached, SessionEnd end) {
  forget(session.outgoing() ? outgoing_ : incoming_);
  const bool was_established = established_ == &session;
  if (was_established) {
    established_ = nullptr;
    adj_rib_out_.reset();
    routes_left_behind(session, end.by == SessionEnd::By::transport);
    if (core_.timers.now() - since_ >= kLastedLong) idle_hold_ = kIdleHoldFirst;
  }
  if (running(outgoing_) || running(incoming_)) return state_changed(std::move(end.words));
  const bool never_opened = reached == Session::Stage::connecting || reached == Session::Stage::open_sent;
  if (end.by == SessionEnd::By::transport && never_opened && !config_.shutdown && !core_.stopped) {
    active_ = true;
    if (!config_.passive) connect_retry_.start(core_.jitter(seconds(config_.connect_retry)));
    reason_ = end.words;
  } else if (end.by == SessionEnd::By::quietly) {
    active_ = false;
  } else {
    go_idle();
  }
  state_changed(std::move(end.words));
}

// --------------------------------------------------------------------------------------------------------- routes out

void Peer::start_output() {
  if (established_ == nullptr || !mdt_agreed(*established_)) return;
  if (adj_rib_out_ == nullptr)
    adj_rib_out_ = std::make_unique<AdjRibOut>(
        core_.table, ExportTarget{source_, internal(), config_.reflector_client, established_->four_octet_as(),
                                  core_.config.local_as, core_.cluster_id(), established_->local_address(),
                                  established_->largest()});
  adj_rib_out_->hold_end_of_rib(core_.local_awaited);
  if (!core_.table.deferred() && !core_.table.selecting()) adj_rib_out_->start();
}

void Peer::release_end_of_rib() {
  if (adj_rib_out_ != nullptr) adj_rib_out_->hold_end_of_rib(false);
}

bool Peer::output_pending() const {
  return adj_rib_out_ != nullptr && adj_rib_out_->pending() && !established_->blocked() &&
         established_->pending() < kOutputHigh;
}

void Peer::run_output(size_t most) {
  const AdjRibOut::Written written = adj_rib_out_->run(most, core_.groups, established_->output());
  established_->count_sent(MessageType::update, written.updates);
  established_->count_sent(MessageType::route_refresh, written.refreshes);
  established_->flush();
}

bool Peer::refresh_out() {
  if (adj_rib_out_ == nullptr) return false;
  adj_rib_out_->refresh(false);
  return true;
}

// --------------------------------------------------------------------------------------------------------------- views

void Peer::count(MessageCounters &counters, MessageType type, size_t messages) {
  switch (type) {
    case MessageType::open:
      counters.open += messages;
      break;
    case MessageType::update:
      counters.update += messages;
      break;
    case MessageType::notification:
      counters.notification += messages;
      break;
    case MessageType::keepalive:
      counters.keepalive += messages;
      break;
    case MessageType::route_refresh:
      counters.route_refresh += messages;
      break;
  }
}

void Peer::note_sent(const Notification &notification) {
  last_sent_ = ErrorView{notification, describe(notification), core_.timers.now()};
  core_.log(LogLevel::info, name() + ": sent " + last_sent_->words);
}

void Peer::note_received(const Notification &notification) {
  last_received_ = ErrorView{notification, describe(notification), core_.timers.now()};
  core_.log(LogLevel::info, name() + ": received " + last_received_->words);
}

}  // namespace bgp
