// A turn's share of what one neighbour is told: routes are gathered from the reader, grouped by attributes, and written
// as UPDATEs, announcements first, withdrawals behind them. A route that was told and may no longer be sent is
// withdrawn.
//
// Invariant: a route's bit in the reader is set exactly when the neighbour holds the route once it has read the output.
// Trap: attributes that alone fill a message are found out while announcing; such routes are withdrawn in the same
// turn.
#include "bgp/adj_rib_out.h"

namespace bgp {
namespace {

constexpr size_t kBatchOctets = 128 * 1024;  // of attributes in one batch: bounds what a turn writes

}  // namespace

void AdjRibOut::start() {
  if (started_) return;
  started_ = true;
  reader_.start_walk();
  mark_ = Mark::end_of_rib;
}

void AdjRibOut::refresh(bool enhanced) {
  if (!started_) return;  // everything is still to come anyway
  reader_.start_walk();
  if (mark_ == Mark::end_of_rib) return;  // the first walk begins anew, and ends with its own mark
  begin_refresh_ = enhanced;
  mark_ = enhanced ? Mark::refresh : Mark::none;
}

void AdjRibOut::gather(size_t most, RouteGroups &groups) {
  groups.clear();
  withdrawn_.clear();
  while (most-- > 0 && groups.octets() < kBatchOctets) {
    const RouteId id = reader_.next();
    if (id == 0) return;
    const Route &route = table_.route(id);
    const PathId best = table_.best(id);
    const bool send = best != 0 && may_send(table_, table_.path(best), target_);
    if (send)
      groups.add(table_, table_.path(best), id);
    else if (reader_.told(id))
      withdrawn_.push_back({route.key, route.group});
    reader_.set_told(id, send);
  }
}

void AdjRibOut::withdraw(Octets &out) {
  size_t next = 0;
  while (next < withdrawn_.size()) {
    UpdateBuilder builder(out, target_.largest);
    while (next < withdrawn_.size() && builder.add(withdrawn_[next])) next++;
    builder.finish();
    written_.updates++;
  }
}

void AdjRibOut::announce(const RouteGroup &group, Octets &out) {
  table_.attributes().decode(group.attributes, attributes_);
  export_attributes(table_.source(group.source), group.source == kLocal, target_, attributes_);
  encoded_.clear();
  encode_attributes(attributes_, {target_.internal, target_.four_octet_as, 0}, encoded_);
  size_t next = 0;
  while (next < group.routes.size()) {
    const size_t start = out.size();
    UpdateBuilder builder(out, target_.largest, encoded_, attributes_.next_hop);
    if (builder.room() == 0) {
      // The attributes alone fill the message: the neighbour cannot have these routes, nor keep what it has of them.
      out.resize(start);
      too_long_ += group.routes.size();
      for (const RouteId id : group.routes) {
        reader_.set_told(id, false);
        withdrawn_.push_back({table_.route(id).key, table_.route(id).group});
      }
      return;
    }
    for (; next < group.routes.size(); next++) {
      const Route &route = table_.route(group.routes[next]);
      if (!builder.add({route.key, route.group})) break;
    }
    builder.finish();
    written_.updates++;
  }
}

void AdjRibOut::mark_refresh(RefreshKind kind, Octets &out) {
  encode_route_refresh({kMdt, kind, true}, out);
  written_.refreshes++;
}

void AdjRibOut::finish_walk(Octets &out) {
  if (reader_.walking() || !mark_due()) return;
  if (mark_ == Mark::refresh) {
    mark_refresh(RefreshKind::end, out);
  } else {
    encode_end_of_rib(kMdt, out);
    written_.updates++;
    end_of_rib_sent_ = true;
  }
  mark_ = Mark::none;
}

AdjRibOut::Written AdjRibOut::run(size_t most, RouteGroups &groups, Octets &out) {
  written_ = {};
  if (!started_) return written_;
  if (begin_refresh_) mark_refresh(RefreshKind::begin, out);
  begin_refresh_ = false;
  gather(most, groups);
  for (const RouteGroup &group : groups.sort()) announce(group, out);
  withdraw(out);
  finish_walk(out);
  return written_;
}

}  // namespace bgp
