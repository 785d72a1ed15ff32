// Rows of the views, from the speaker's own pictures of its neighbours and routes. Keys are copied before the first
// row, and each is looked up when its turn comes: a listing yields, and what it was about to show may have gone. What
// neighbours sent as text is made printable.
#include "host/bgp/bgp_views.h"

#include <algorithm>
#include <cstdio>

namespace host {
namespace {

using output::Cell;
using output::Listing;
using output::Row;

constexpr const char *kSilent = "BGP does not speak: the configuration has no 'local-as' in its bgp block";

Cell address_cell(bgp::Ipv4 address) { return address == 0 ? Cell() : Cell(address_text(address)); }
Cell text_cell(const std::string &text) { return text.empty() ? Cell() : Cell(printable(text)); }
Cell number_cell(std::optional<uint32_t> number) { return number ? Cell(*number) : Cell(); }
Cell non_zero(uint64_t number) { return number == 0 ? Cell() : Cell(number); }
Cell seconds_cell(bgp::Duration duration) { return Cell::Seconds(duration); }

void append(std::string *list, const std::string &item, const char *between = ", ") {
  *list += (list->empty() ? "" : between) + item;
}

// ------------------------------------------------------------------------------------------------------- neighbours

std::string restart_text(const bgp::GracefulRestart &restart) {
  std::string text = "graceful restart " + std::to_string(restart.time) + " s";
  if (restart.restarting) text += ", restarting";
  for (const bgp::RestartFamily &family : restart.families)
    text += ", " + to_string(family.family) + (family.forwarding ? " preserved" : " not preserved");
  return text;
}

std::string capabilities_text(const bgp::Capabilities &capabilities) {
  std::string text;
  for (const bgp::Family &family : capabilities.families) append(&text, to_string(family));
  if (capabilities.route_refresh) append(&text, "route refresh");
  if (capabilities.enhanced_refresh) append(&text, "enhanced route refresh");
  if (capabilities.extended_messages) append(&text, "extended messages");
  if (capabilities.four_octet_as) append(&text, "four-octet AS " + std::to_string(*capabilities.four_octet_as));
  if (capabilities.restart) append(&text, restart_text(*capabilities.restart));
  for (const uint8_t code : capabilities.others) append(&text, "code " + std::to_string(code));
  return text;
}

std::string agreed_text(const bgp::NeighborView &view) {
  std::string text;
  if (view.mdt) append(&text, to_string(bgp::kMdt));
  if (view.four_octet_as) append(&text, "four-octet AS");
  if (view.route_refresh) append(&text, "route refresh");
  if (view.enhanced_refresh) append(&text, "enhanced route refresh");
  if (view.extended_messages) append(&text, "extended messages");
  return text;
}

std::vector<Row> message_rows(const bgp::NeighborView &view) {
  const bgp::MessageCounters &in = view.in, &out = view.out;
  return {{"open", in.open, out.open},
          {"update", in.update, out.update},
          {"notification", in.notification, out.notification},
          {"keepalive", in.keepalive, out.keepalive},
          {"route-refresh", in.route_refresh, out.route_refresh},
          {"octets", in.octets, out.octets}};
}

struct ErrorCells {
  Cell words, age;
};
ErrorCells error_cells(const std::optional<bgp::ErrorView> &error, bgp::Time now) {
  if (!error) return {};
  return {text_cell(error->words), seconds_cell(now - error->when)};
}

Row neighbor_row(const bgp::NeighborView &view, bgp::Time now) {
  const bgp::NeighborConfig &config = view.config;
  const bool up = view.state == bgp::State::established;
  const ErrorCells sent = error_cells(view.last_sent, now), received = error_cells(view.last_received, now);
  return {address_text(config.address),
          config.remote_as,
          view.internal ? "internal" : "external",
          text_cell(config.description),
          to_string(view.state),
          seconds_cell(now - view.since),
          up ? Cell() : text_cell(view.reason),
          view.established_count,
          address_cell(view.router_id),
          address_cell(view.local_address),
          config.port,
          up ? Cell(view.hold_time) : Cell(),
          up ? Cell(view.keepalive_time) : Cell(),
          config.hold_time,
          !config.password.empty(),
          non_zero(config.ttl_security),
          config.passive,
          config.shutdown,
          config.reflector_client,
          up ? text_cell(agreed_text(view)) : Cell(),
          text_cell(capabilities_text(view.sent)),
          text_cell(capabilities_text(view.received)),
          view.accepted,
          view.stale,
          view.advertised,
          non_zero(config.maximum_prefix.limit),
          view.over_limit,
          view.end_of_rib_received,
          view.end_of_rib_sent,
          view.restart_deadline ? seconds_cell(std::max(*view.restart_deadline - now, bgp::Duration(0))) : Cell(),
          view.refused_loops,
          view.treated_as_withdraw,
          view.discarded_attributes,
          view.ignored_unicast,
          uint64_t{view.output_pending},
          sent.words,
          sent.age,
          received.words,
          received.age,
          message_rows(view)};
}

// ----------------------------------------------------------------------------------------------------------- routes

std::string as_path_text(const std::vector<bgp::AsSegment> &path) {
  std::string text;
  for (const bgp::AsSegment &segment : path) {
    std::string numbers;
    for (const bgp::AsNumber number : segment.numbers) append(&numbers, std::to_string(number), " ");
    append(&text, segment.type == bgp::SegmentType::as_set ? "{" + numbers + "}" : numbers, " ");
  }
  return text;
}

std::string communities_text(const bgp::Attributes &attributes) {
  std::string text;
  for (const uint32_t community : attributes.communities)
    append(&text, std::to_string(community >> 16) + ":" + std::to_string(community & 0xFFFF), " ");
  for (const uint64_t community : attributes.extended_communities) {
    char hexadecimal[20];
    std::snprintf(hexadecimal, sizeof hexadecimal, "0x%016llx", static_cast<unsigned long long>(community));
    append(&text, hexadecimal, " ");
  }
  for (const bgp::LargeCommunity &large : attributes.large_communities)
    append(&text, std::to_string(large[0]) + ":" + std::to_string(large[1]) + ":" + std::to_string(large[2]), " ");
  return text;
}

const char *origin_text(bgp::Origin origin) {
  switch (origin) {
    case bgp::Origin::igp:
      return "igp";
    case bgp::Origin::egp:
      return "egp";
    default:
      return "incomplete";
  }
}

Row path_row(const bgp::RouteKey &key, const bgp::PathView &path, const std::string &vrf) {
  const bool local = path.neighbor == 0;
  const bgp::Attributes &attributes = path.attributes;
  std::string clusters, unknown;
  for (const bgp::Ipv4 cluster : attributes.cluster_list) append(&clusters, address_text(cluster), " ");
  for (const bgp::UnknownAttribute &attribute : attributes.unknown)
    append(&unknown, std::to_string(attribute.type), " ");
  return {address_text(key.source),
          bgp::to_string(key.rd),
          address_text(path.group),
          local,
          local ? text_cell(vrf) : Cell(),
          address_cell(path.neighbor),
          path.best,
          path.stale,
          address_cell(attributes.next_hop),
          text_cell(as_path_text(attributes.as_path)),
          origin_text(attributes.origin),
          number_cell(attributes.local_pref),
          number_cell(attributes.med),
          address_cell(attributes.originator_id.value_or(0)),
          text_cell(clusters),
          text_cell(communities_text(attributes)),
          text_cell(unknown),
          text_cell(path.why)};
}

}  // namespace

void show_bgp_summary(const BgpService &bgp, Listing &listing) {
  const bgp::Speaker *speaker = bgp.speaker();
  for (const output::View *view : {&output::kBgpSpeaker, &output::kBgpSessions}) listing.promise(*view);
  if (speaker == nullptr) return listing.note(kSilent);
  listing.begin(output::kBgpSpeaker);
  const bgp::SpeakerConfig &config = speaker->config();
  const bgp::TableSizes sizes = speaker->sizes();
  const std::vector<bgp::Ipv4> neighbors = speaker->neighbors();
  listing.row({config.local_as, address_text(config.router_id), address_cell(config.cluster_id), bgp.listening(),
               speaker->deferring(), sizes.routes, sizes.paths, sizes.attribute_sets, sizes.octets});
  listing.begin(output::kBgpSessions);
  for (const bgp::Ipv4 address : neighbors) {
    speaker = bgp.speaker();
    const auto view = speaker == nullptr ? std::nullopt : speaker->neighbor(address);
    if (!view) continue;
    const Row row = {address_text(address),
                     view->config.remote_as,
                     to_string(view->state),
                     seconds_cell(bgp.now() - view->since),
                     view->accepted,
                     view->advertised,
                     view->in.total(),
                     view->out.total(),
                     text_cell(view->config.description)};
    if (!listing.row(row)) return;
  }
}

void show_bgp_neighbors(const BgpService &bgp, bgp::Ipv4 address, Listing &listing) {
  listing.promise(output::kBgpNeighbors);
  if (bgp.speaker() == nullptr) return listing.note(kSilent);
  listing.begin(output::kBgpNeighbors);
  const std::vector<bgp::Ipv4> all = bgp.speaker() == nullptr ? std::vector<bgp::Ipv4>() : bgp.speaker()->neighbors();
  for (const bgp::Ipv4 neighbor : all) {
    if (address != 0 && neighbor != address) continue;
    const auto view = bgp.speaker() == nullptr ? std::nullopt : bgp.speaker()->neighbor(neighbor);
    if (view && !listing.row(neighbor_row(*view, bgp.now()))) return;
  }
}

bool show_bgp_routes(const BgpService &bgp, const std::function<std::string(const bgp::RouteKey &)> &vrf_of,
                     Listing &listing) {
  const std::vector<bgp::RouteKey> keys =
      bgp.speaker() == nullptr ? std::vector<bgp::RouteKey>() : bgp.speaker()->keys();
  for (const bgp::RouteKey &key : keys) {
    const auto route = bgp.speaker() == nullptr ? std::nullopt : bgp.speaker()->route(key);
    if (!route) continue;
    for (const bgp::PathView &path : route->paths)
      if (!listing.row(path_row(key, path, path.neighbor == 0 ? vrf_of(key) : ""))) return false;
  }
  return true;
}

}  // namespace host
