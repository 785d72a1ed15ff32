// What a neighbour's UPDATE and ROUTE-REFRESH messages do to the table. A message is decoded as a whole before any of
// it counts; then its withdrawals, then its routes.
//
// A route that is refused, for a loop or because it cannot be one, is taken as withdrawn: what the neighbour said
// before under the same key does not hold any more. A NOTIFICATION that is returned ends the session; the session sends
// it, not this file.
#include <algorithm>

#include "bgp/peer.h"
#include "bgp/wire.h"

namespace bgp {
namespace {

constexpr uint32_t kClassD = 0xE0000000, kClassE = 0xF0000000;

// A key or a group that cannot be one is no reason to end a session (RFC 4271, 6.3): the route is not taken.
bool plausible(const Nlri &nlri) {
  return nlri.key.source != 0 && nlri.key.source < kClassD && nlri.group >= kClassD && nlri.group < kClassE;
}

bool names(const std::vector<AsSegment> &path, AsNumber as) {
  return std::any_of(path.begin(), path.end(), [as](const AsSegment &segment) {
    return std::find(segment.numbers.begin(), segment.numbers.end(), as) != segment.numbers.end();
  });
}

}  // namespace

std::optional<Notification> Peer::receive_update(Session &session, View body) {
  const UpdateContext context{internal(), session.four_octet_as(), config_.remote_as};
  if (auto wrong = decode_update(body, context, update_)) return wrong;
  note_remarks();
  if (!mdt_agreed(session)) return std::nullopt;
  if (update_.end_of_rib == kMdt) end_of_rib();
  withdraw(update_.unreachable);
  if (update_.reachable.empty()) return std::nullopt;
  return apply(session);
}

void Peer::note_remarks() {
  unicast_ += update_.unicast;
  discarded_ += update_.discarded;
  if (update_.as_withdraw) as_withdraw_++;
  if (update_.remark.empty()) return;
  core_.log(LogLevel::warning, name() + ": UPDATE with " + update_.remark +
                                   (update_.as_withdraw ? "; its routes are taken as withdrawn" : "; ignored"));
}

// Routes that have been here already: own AS in the path (RFC 4271, 9.1.2), own identifier or cluster (RFC 4456, 8).
bool Peer::looped(const Session &session) const {
  const Attributes &attributes = update_.attributes;
  const SpeakerConfig &config = core_.config;
  const auto &clusters = attributes.cluster_list;
  return names(attributes.as_path, config.local_as) || attributes.originator_id == config.router_id ||
         std::find(clusters.begin(), clusters.end(), core_.cluster_id()) != clusters.end() ||
         attributes.next_hop == session.local_address();
}

// While one route of a message is worked on, memory of those further on is fetched.
void Peer::fetch_ahead(const NlriList &routes, size_t at) const {
  constexpr size_t kRoute = 8, kBucket = 16;  // routes ahead
  if (at + kBucket < routes.size()) core_.table.fetch_bucket(routes[at + kBucket].key);
  if (at + kRoute < routes.size()) core_.table.fetch_route(routes[at + kRoute].key);
}

void Peer::withdraw(const NlriList &routes) {
  for (size_t i = 0; i < routes.size(); i++) {
    fetch_ahead(routes, i);
    core_.table.withdraw(source_, routes[i].key);
  }
}

std::optional<Notification> Peer::apply(Session &session) {
  const NlriList &routes = update_.reachable;
  const bool loop = !update_.as_withdraw && looped(session);
  if (loop) refused_loops_ += routes.size();
  if (loop || update_.as_withdraw) {
    withdraw(routes);
    return std::nullopt;
  }
  const AttributeId attributes = core_.attributes.intern(update_.attributes);
  std::optional<Notification> over;
  for (size_t i = 0; i < routes.size() && !over; i++) {
    fetch_ahead(routes, i);
    const Nlri nlri = routes[i];
    if (plausible(nlri))
      core_.table.update(source_, nlri, attributes);
    else
      core_.table.withdraw(source_, nlri.key);
    if (config_.maximum_prefix.limit != 0) over = check_limit();
  }
  core_.attributes.release(attributes);
  return over;
}

std::optional<Notification> Peer::check_limit() {
  const MaximumPrefix &maximum = config_.maximum_prefix;
  const uint64_t count = core_.table.source(source_).fresh;
  const bool warn = maximum.limit != 0 && count * 100 >= uint64_t{maximum.limit} * maximum.warning_percent;
  if (warn && !warned_)
    core_.log(LogLevel::warning,
              name() + " has sent " + std::to_string(count) + " routes of at most " + std::to_string(maximum.limit));
  warned_ = warn;
  if (maximum.limit == 0 || count <= maximum.limit || maximum.warning_only) return std::nullopt;
  hold_ = Hold::limit;
  if (maximum.restart != 0) idle_timer_.start(std::chrono::seconds(maximum.restart));
  Notification notification = error(ErrorCode::cease, Cease::maximum_prefixes);
  wire::put16(notification.data, kMdt.afi);
  wire::put8(notification.data, kMdt.safi);
  wire::put32(notification.data, maximum.limit);
  return notification;
}

std::optional<Notification> Peer::receive_refresh(View message) {
  const auto refresh = decode_route_refresh(message, received_.enhanced_refresh);
  if (refresh.error) return refresh.error;
  if (!refresh.value.known || refresh.value.family != kMdt || adj_rib_out_ == nullptr) return std::nullopt;
  switch (refresh.value.kind) {
    case RefreshKind::request:
      adj_rib_out_->refresh(received_.enhanced_refresh);
      break;
    case RefreshKind::begin:
      refresh_begins();
      break;
    case RefreshKind::end:
      if (refreshing_) drop_stale();
      break;
  }
  return std::nullopt;
}

// RFC 7313: what is not announced again before the end mark is gone. The mark may never come, hence the timer.
void Peer::refresh_begins() {
  refreshing_ = true;
  core_.table.start_generation(source_);
  stale_timer_.start(std::chrono::seconds(core_.config.stale_time));
}

bool Peer::refresh_in() {
  if (established_ == nullptr || !received_.route_refresh || !mdt_agreed(*established_)) return false;
  encode_route_refresh({kMdt, RefreshKind::request, true}, established_->output());
  established_->count_sent(MessageType::route_refresh, 1);
  established_->flush();
  return true;
}

}  // namespace bgp
