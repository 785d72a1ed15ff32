// Prints copies of what the forwarder said last. The engine has it asked before the view begins, so that it is fresh;
// rows come in an order of their own, since the forwarder tells them in none.
#include "host/daemon/forwarding_views.h"

#include <algorithm>
#include <chrono>
#include <vector>

#include "host/output/view.h"
#include "host/output/wall_time.h"

namespace host {
namespace {

using forwarder::Counters;
using output::Cell;
using output::Listing;
using output::Row;

constexpr uint64_t kBytesPerKbit = 125;  // kilobits of 1000 bits

Cell address_or_none(uint32_t address) { return address == 0 ? Cell() : Cell(address_text(address)); }
Cell text_or_none(const std::string &text) { return text.empty() ? Cell() : Cell(text); }
std::string source_text(uint32_t address) { return address == 0 ? "*" : address_text(address); }

// Prints what is of the wanted VRF (null: of any) in the order of `before`; false when nobody wants more.
template <typename Item, typename Before, typename MakeRow>
bool print(Listing &listing, const output::View &view, std::vector<Item> items, const std::string *vrf, Before before,
           MakeRow make_row) {
  std::erase_if(items, [vrf](const Item &item) { return vrf != nullptr && item.vrf() != *vrf; });
  if (items.empty()) {
    listing.promise(view);
    return true;
  }
  std::sort(items.begin(), items.end(), before);
  listing.begin(view);
  return std::all_of(items.begin(), items.end(), [&](const Item &item) { return listing.row(make_row(item)); });
}

template <typename... Fields>
auto by(Fields... fields) {
  return [fields...](const auto &a, const auto &b) {
    return std::make_tuple(fields(a)...) < std::make_tuple(fields(b)...);
  };
}
constexpr auto vrf_field = [](const auto &item) { return item.vrf(); };
constexpr auto source_field = [](const auto &item) { return item.source(); };
constexpr auto group_field = [](const auto &item) { return item.group(); };

bool print_vrfs(Listing &listing, const Counters &counters, const std::string *vrf) {
  return print(listing, output::kForwardingVrfs, counters.vrfs, vrf, by(vrf_field), [](const auto &item) -> Row {
    return {item.vrf(),        item.namespace_present(), item.tunnel_up(),      item.sent_packets(),
            item.sent_bytes(), item.received_packets(),  item.received_bytes(), item.unlisted_packets()};
  });
}

bool print_flows(Listing &listing, const Counters &counters, const std::string *vrf) {
  return print(listing, output::kFlows, counters.flows, vrf, by(vrf_field, group_field, source_field),
               [](const auto &item) -> Row {
                 return {item.vrf(),   source_text(item.source()),         address_text(item.group()),
                         item.index(), address_or_none(item.core_group()), item.packets(),
                         item.bytes(), item.rate() / kBytesPerKbit};
               });
}

bool print_memberships(Listing &listing, const Counters &counters, const std::string *vrf) {
  return print(listing, output::kMemberships, counters.core, vrf, by(group_field, source_field),
               [](const auto &item) -> Row {
                 return {source_text(item.source()),
                         address_text(item.group()),
                         item.vrf(),
                         item.joined(),
                         text_or_none(item.interface()),
                         item.packets(),
                         item.bytes()};
               });
}

void print_drops(Listing &listing, const Counters &counters, const std::string *vrf) {
  const auto reason = [](const auto &item) { return item.reason(); };
  print(listing, output::kDrops, counters.drops, vrf, by(vrf_field, reason), [](const auto &item) -> Row {
    return {item.reason(), text_or_none(item.vrf()), item.packets()};
  });
}

std::chrono::system_clock::time_point wall_clock(uint64_t milliseconds) {
  return std::chrono::system_clock::time_point(std::chrono::milliseconds(milliseconds));
}

}  // namespace

void show_forwarding(const ViewInput &input, Listing &listing) {
  const Forwarding &forwarding = input.router.forwarding();
  listing.promise(output::kForwarder);
  if (!forwarding.active()) return;
  const auto counters = forwarding.counters();  // a copy: rows yield
  listing.begin(output::kForwarder);
  if (!listing.row({forwarding.socket(), forwarding.connected(), forwarding.recovering()}) || !counters) return;
  const std::string *vrf = find_argument(input.statement, "vrf");
  if (print_vrfs(listing, *counters, vrf) && print_flows(listing, *counters, vrf) &&
      print_memberships(listing, *counters, vrf))
    print_drops(listing, *counters, vrf);
}

void show_forwarding_events(const ViewInput &input, Listing &listing) {
  const auto counters = input.router.forwarding().counters();
  listing.promise(output::kForwardingEvents);
  if (!counters) return;
  listing.begin(output::kForwardingEvents);
  for (const forwarder::protocol::Event &event : counters->events)
    if (!listing.row({output::wall_time(wall_clock(event.milliseconds())), event.text()})) return;
}

}  // namespace host
