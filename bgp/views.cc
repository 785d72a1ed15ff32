// Pictures of the speaker for whoever shows it. They cost what they show and change nothing.
#include <algorithm>

#include "bgp/impl.h"
#include "bgp/selection.h"

namespace bgp {

void Peer::view(NeighborView &view) const {
  const Source &source = core_.table.source(source_);
  view.config = config_;
  view.state = state();
  view.since = since_;
  view.reason = reason_;
  view.router_id = router_id_;
  view.internal = internal();
  view.sent = sent_;
  view.received = received_;
  view.in = in_;
  view.out = out_;
  view.accepted = source.paths;
  view.stale = source.paths - source.fresh;
  view.established_count = established_count_;
  view.refused_loops = refused_loops_;
  view.treated_as_withdraw = as_withdraw_;
  view.discarded_attributes = discarded_;
  view.ignored_unicast = unicast_;
  view.over_limit = hold_ == Hold::limit || warned_;
  view.end_of_rib_received = end_of_rib_received_;
  if (restart_timer_.running()) view.restart_deadline = restart_timer_.deadline();
  view.last_sent = last_sent_;
  view.last_received = last_received_;
  if (established_ != nullptr) describe_session(view, *established_);
}

void Peer::describe_session(NeighborView &view, const Session &session) const {
  view.local_address = session.local_address();
  view.hold_time = session.hold_time();
  view.keepalive_time = session.hold_time() / 3;
  view.four_octet_as = session.four_octet_as();
  view.route_refresh = received_.route_refresh;
  view.enhanced_refresh = received_.enhanced_refresh;
  view.extended_messages = received_.extended_messages;
  view.mdt = mdt_agreed(session);
  view.output_pending = session.pending();
  if (adj_rib_out_ == nullptr) return;
  view.advertised = adj_rib_out_->advertised();
  view.end_of_rib_sent = adj_rib_out_->end_of_rib_sent();
}

std::vector<Ipv4> Speaker::Impl::neighbors() const {
  std::vector<Ipv4> addresses;
  for (const auto &[address, peer] : peers_) addresses.push_back(address);
  return addresses;
}

std::optional<NeighborView> Speaker::Impl::neighbor(Ipv4 address) const {
  const Peer *peer = find(address);
  if (peer == nullptr) return std::nullopt;
  NeighborView view;
  peer->view(view);
  return view;
}

TableSizes Speaker::Impl::sizes() const {
  return {core.table.routes(), core.table.paths(), core.attributes.used(), core.table.octets()};
}

Ipv4 Speaker::Impl::told_group(const RouteKey &key) const {
  const RouteId id = core.table.find(key);
  return id == 0 ? 0 : core.table.told_group(id);
}

std::vector<Nlri> Speaker::Impl::told_routes() const {
  std::vector<Nlri> routes;
  routes.reserve(core.table.told());
  for (RouteId id = 1; id < core.table.end(); id++)
    if (const Ipv4 group = core.table.told_group(id); group != 0) routes.push_back({core.table.route(id).key, group});
  return routes;
}

std::vector<RouteKey> Speaker::Impl::keys() const {
  std::vector<RouteKey> keys;
  for (RouteId id = 1; id < core.table.end(); id++)
    if (core.table.route(id).has_paths()) keys.push_back(core.table.route(id).key);
  std::sort(keys.begin(), keys.end());
  return keys;
}

PathView Speaker::Impl::view_of(PathId id) const {
  const Table &table = core.table;
  const RouteId route = table.route_of(id);
  const Path &path = table.path(id);
  PathView view;
  view.neighbor = table.source(path.source).address;
  view.group = path.group;
  core.attributes.decode(path.attributes, view.attributes);
  view.internal = table.source(path.source).internal;
  view.best = table.best(route) == id;
  view.stale = table.stale(path);
  view.why = reason(table, route, table.best(route), id);
  return view;
}

std::optional<RouteView> Speaker::Impl::route(const RouteKey &key) const {
  const RouteId id = core.table.find(key);
  if (id == 0 || !core.table.route(id).has_paths()) return std::nullopt;
  RouteView view{key, {}};
  for (PathId path = core.table.first_path(id); path != 0; path = core.table.next_path(path))
    view.paths.push_back(view_of(path));
  std::sort(view.paths.begin(), view.paths.end(),
            [](const PathView &a, const PathView &b) { return a.best != b.best ? a.best : a.neighbor < b.neighbor; });
  return view;
}

std::vector<RouteKey> Speaker::Impl::keys_received(Ipv4 neighbor) const {
  std::vector<RouteKey> keys;
  const Peer *peer = find(neighbor);
  if (peer == nullptr) return keys;
  for (PathId id = core.table.source(peer->source()).first; id != 0; id = core.table.path(id).after)
    keys.push_back(core.table.route(core.table.route_of(id)).key);
  std::sort(keys.begin(), keys.end());
  return keys;
}

std::vector<RouteKey> Speaker::Impl::keys_advertised(Ipv4 neighbor) const {
  std::vector<RouteKey> keys;
  const Peer *peer = find(neighbor);
  if (peer == nullptr || peer->adj_rib_out() == nullptr) return keys;
  for (RouteId id = 1; id < core.table.end(); id++)
    if (peer->adj_rib_out()->told(id)) keys.push_back(core.table.route(id).key);
  std::sort(keys.begin(), keys.end());
  return keys;
}

std::optional<PathView> Speaker::Impl::advertised(Ipv4 neighbor, const RouteKey &key) const {
  const Peer *peer = find(neighbor);
  const RouteId id = core.table.find(key);
  if (peer == nullptr || peer->adj_rib_out() == nullptr || id == 0) return std::nullopt;
  const PathId best = core.table.best(id);
  const ExportTarget &target = peer->adj_rib_out()->target();
  if (best == 0 || !may_send(core.table, core.table.path(best), target)) return std::nullopt;
  PathView view = view_of(best);
  const SourceId source = core.table.path(best).source;
  export_attributes(core.table.source(source), source == kLocal, target, view.attributes);
  return view;
}

}  // namespace bgp
