// Routes: what is taken, which path is best, who is told, in which words.
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/bgp/octets.h"
#include "tests/bgp/world.h"

namespace {

using bgp::Attributes;
using bgp::Nlri;
using bgp::State;
using world::address;
using world::attributes_of;
using world::route;
using world::seconds;

constexpr bgp::Ipv4 kUs = address(1);
const Nlri kRoute = route(1, address(50));

class Routes : public testing::Test {
 protected:
  void SetUp() override { start({}); }
  void start(bgp::SpeakerConfig config) {
    config.local_as = 65000;
    config.router_id = kUs;
    node = &network.node(kUs, config);
  }
  // A neighbour with an established session; what it has heard so far is forgotten.
  world::Script &add(bgp::Ipv4 where, bgp::NeighborConfig config = {}, const bgp::Open *open = nullptr) {
    config.address = where;
    config.passive = true;
    if (config.remote_as == 0) config.remote_as = 65000;
    EXPECT_EQ((*node)->set_neighbor(config), "");
    network.settle();
    world::Script &script = network.script(where);
    come_up(script, open != nullptr ? *open : world::open_of(where, config.remote_as));
    script.heard();
    return script;
  }
  void come_up(world::Script &script, const bgp::Open &open) {
    ASSERT_TRUE(script.call(kUs));
    script.establish(open);
  }
  bgp::PathView best(const Nlri &nlri = kRoute) {
    const auto view = (*node)->route(nlri.key);
    return view && view->paths[0].best ? view->paths[0] : bgp::PathView{};
  }
  // The one UPDATE that a script has heard, decoded.
  static bgp::Attributes heard_attributes(world::Script &script) {
    const auto messages = script.messages();
    EXPECT_EQ(messages.size(), 1U);
    if (messages.size() != 1) return {};
    static bgp::Update update;
    EXPECT_FALSE(bgp::decode_update(bgp::View(messages[0]).subspan(19), {}, update));
    return update.attributes;
  }

  world::Network network;
  world::Node *node = nullptr;
};

// ----------------------------------------------------------------------------------------------------------- selection

// Two neighbours say something about one key. `a` must win in either order of arrival, for the reason given.
TEST_F(Routes, EachStepOfTheDecision) {
  const auto path = [](std::vector<bgp::AsNumber> numbers) {
    return std::vector<bgp::AsSegment>{{bgp::SegmentType::as_sequence, std::move(numbers)}};
  };
  struct Case {
    const char *why;
    std::function<void(Attributes &a, Attributes &b)> make;
    bgp::AsNumber a_as = 65000;
    std::optional<uint32_t> b_cost = 0;
  };
  const Case cases[] = {
      {"higher local preference", [](auto &a, auto &) { a.local_pref = 101; }},
      {"shorter AS path",
       [&](auto &a, auto &b) {
         a.as_path = path({1}), b.as_path = path({2, 3});
       }},
      {"lower origin", [](auto &, auto &b) { b.origin = bgp::Origin::egp; }},
      {"lower MED", [](auto &a, auto &b) { a.med = 9, b.med = 10; }},
      {"external over internal", [&](auto &a, auto &b) { a.as_path = path({65009}), b.as_path = path({7}), b.med = 0; },
       65009},
      {"lower cost to the next hop", [](auto &, auto &) {}, 65000, 5},
      {"next hop cannot be reached", [](auto &, auto &b) { b.local_pref = 500; }, 65000, std::nullopt},
      {"lower router id", [](auto &, auto &) {}},
      {"lower router id", [](auto &a, auto &b) { a.originator_id = 1, b.originator_id = 2; }},
      {"shorter cluster list",
       [](auto &a, auto &b) {
         a.originator_id = b.originator_id = 5, a.cluster_list = {1}, b.cluster_list = {2, 3};
       }},
      {"lower neighbor address", [](auto &a, auto &b) { a.originator_id = b.originator_id = 5; }},
  };
  for (const Case &c : cases) {
    for (const bool a_first : {true, false}) {
      start({});
      bgp::NeighborConfig config;
      config.remote_as = c.a_as;
      world::Script &a = add(address(2), config);
      world::Script &b = add(address(3));
      node->costs[address(3)] = c.b_cost;
      Attributes of_a = attributes_of(address(2)), of_b = attributes_of(address(3));
      c.make(of_a, of_b);
      if (a_first) a.announce({kRoute}, of_a);
      b.announce({kRoute}, of_b);
      if (!a_first) a.announce({kRoute}, of_a);
      const auto view = (*node)->route(kRoute.key);
      ASSERT_TRUE(view);
      ASSERT_EQ(view->paths.size(), 2U) << c.why;
      EXPECT_EQ(view->paths[0].neighbor, address(2)) << c.why;
      EXPECT_TRUE(view->paths[0].best) << c.why;
      EXPECT_EQ(view->paths[1].why, c.why);
      EXPECT_EQ(node->best[kRoute.key].neighbor, address(2)) << c.why;
      a.withdraw({kRoute});
      EXPECT_EQ(node->best.contains(kRoute.key), c.b_cost.has_value()) << c.why;
    }
  }
}

// Discriminators are compared within one neighbouring AS; the result must not depend on the order of arrival.
TEST_F(Routes, MedDoesNotDependOnTheOrder) {
  struct Said {
    bgp::Ipv4 from;
    bgp::AsNumber as;
    uint32_t med;
  };
  std::vector<Said> said = {{address(2), 7, 10}, {address(3), 8, 5}, {address(4), 7, 1}};
  std::sort(said.begin(), said.end(), [](const Said &a, const Said &b) { return a.from < b.from; });
  do {
    start({});
    for (const Said &s : said) {
      Attributes attributes = attributes_of(s.from);
      attributes.as_path = {{bgp::SegmentType::as_sequence, {s.as}}};
      attributes.med = s.med;
      add(s.from).announce({kRoute}, attributes);
    }
    EXPECT_EQ(best().neighbor, address(3));  // 10.0.0.2 falls to 10.0.0.4 by MED, which has the higher router id
  } while (
      std::next_permutation(said.begin(), said.end(), [](const Said &a, const Said &b) { return a.from < b.from; }));
}

TEST_F(Routes, OwnRoutesComeFirstAndTheKeyIgnoresTheGroup) {
  world::Script &a = add(address(2));
  Attributes strong = attributes_of(address(2));
  strong.local_pref = 1000;
  a.announce({kRoute}, strong);
  EXPECT_EQ(a.heard(), "");
  (*node)->originate({kRoute.key, 0xEF020202}, kUs);
  network.settle();
  EXPECT_TRUE(node->best[kRoute.key].local);
  EXPECT_EQ(node->best[kRoute.key].nlri.group, 0xEF020202U);
  EXPECT_EQ(node->best.size(), 1U);
  EXPECT_EQ(best().why, "originated here");
  EXPECT_EQ(a.heard(), "UPDATE +1");
  // Another group for the same key replaces the first.
  (*node)->originate({kRoute.key, 0xEF030303}, kUs);
  network.settle();
  EXPECT_EQ(a.heard(), "UPDATE +1");
  EXPECT_EQ(node->best[kRoute.key].nlri.group, 0xEF030303U);
  EXPECT_TRUE((*node)->withdraw(kRoute.key));
  EXPECT_FALSE((*node)->withdraw(kRoute.key));
  network.settle();
  EXPECT_EQ(a.heard(), "UPDATE -1");
  EXPECT_EQ(node->best[kRoute.key].neighbor, address(2));
}

TEST_F(Routes, NothingIsToldTwice) {
  world::Script &a = add(address(2)), &b = add(address(3), {.remote_as = 65009});
  const std::vector<Nlri> routes = {route(1, address(50)), route(2, address(50))};
  a.announce(routes, attributes_of(address(2)));
  EXPECT_EQ(b.heard(), "UPDATE +2");
  const size_t changes = node->changes;
  a.announce(routes, attributes_of(address(2)));
  a.withdraw({route(9, address(50))});
  EXPECT_EQ(b.heard(), "");
  EXPECT_EQ(node->changes, changes);
  // Announced and withdrawn before anybody could be told.
  bgp::Octets octets, attributes;
  bgp::encode_attributes(attributes_of(address(2)), {}, attributes);
  bgp::UpdateBuilder in(octets, 4096, attributes, address(2));
  in.add(route(3, address(50)));
  in.finish();
  bgp::UpdateBuilder out(octets, 4096);
  out.add(route(3, address(50)));
  out.finish();
  a.send(octets);
  EXPECT_EQ(b.heard(), "");
  EXPECT_EQ(node->changes, changes);
}

TEST_F(Routes, NextHopsAreAskedForAgain) {
  world::Script &a = add(address(2));
  a.announce({kRoute}, attributes_of(address(2)));
  EXPECT_EQ(node->best.size(), 1U);
  node->costs[address(2)] = std::nullopt;
  (*node)->next_hops_changed();
  network.settle();
  EXPECT_TRUE(node->best.empty());
  EXPECT_EQ((*node)->route(kRoute.key)->paths[0].why, "next hop cannot be reached");
  node->costs.clear();
  (*node)->next_hops_changed();
  network.settle();
  EXPECT_EQ(node->best.size(), 1U);
}

// -------------------------------------------------------------------------------------------------------------- import

TEST_F(Routes, RoutesThatHaveBeenHereAreRefused) {
  start({.cluster_id = 99});
  world::Script &a = add(address(2));
  const struct {
    const char *name;
    std::function<void(Attributes &)> make;
  } cases[] = {
      {"own AS",
       [](auto &x) {
         x.as_path = {{bgp::SegmentType::as_sequence, {7, 65000}}};
       }},
      {"own identifier", [](auto &x) { x.originator_id = kUs; }},
      {"own cluster",
       [](auto &x) {
         x.cluster_list = {5, 99};
       }},
      {"own address as next hop", [](auto &x) { x.next_hop = kUs; }},
  };
  uint64_t refused = 0;
  for (const auto &c : cases) {
    a.announce({kRoute}, attributes_of(address(2)));
    EXPECT_EQ(node->best.size(), 1U) << c.name;
    Attributes attributes = attributes_of(address(2));
    c.make(attributes);
    a.announce({kRoute}, attributes);  // takes the place of the good one
    EXPECT_TRUE(node->best.empty()) << c.name;
    EXPECT_EQ(node->view(address(2)).refused_loops, ++refused) << c.name;
  }
  EXPECT_EQ(node->state(address(2)), State::established);
}

TEST_F(Routes, MalformedAttributesWithdrawAndStrangeRoutesAreNotTaken) {
  world::Script &a = add(address(2));
  a.announce({kRoute}, attributes_of(address(2)));
  const std::string reach = "90 0e 001a 0001 42 04 0a000002 00 80 0000fde800000001 0a000032 ef010101";
  const bgp::Octets body = octets::update_body(reach + "40 01 01 07 40 02 00");
  a.send(octets::message(2, octets::text(body)));
  EXPECT_TRUE(node->best.empty());
  EXPECT_EQ(node->view(address(2)).treated_as_withdraw, 1U);
  EXPECT_TRUE(node->logged("Invalid ORIGIN Attribute"));
  a.announce({route(1, 0), route(2, 0xE0000001), route(3, address(50), 0x0A000001), kRoute}, attributes_of(address(2)));
  EXPECT_EQ(node->best.size(), 1U);
  EXPECT_EQ(node->state(address(2)), State::established);
}

TEST_F(Routes, WithoutTheFamilyNothingIsExchanged) {
  bgp::Open open = world::open_of(address(2));
  open.capabilities.families = {bgp::kIpv4Unicast};
  (*node)->originate(kRoute, kUs);
  world::Script &a = add(address(2), {}, &open);
  a.announce({route(2, address(50))}, attributes_of(address(2)));
  a.send(octets::message(2, "0000 0007 40 01 01 00 40 02 00 18 0a0000"));
  network.advance(seconds(60));
  EXPECT_EQ(node->state(address(2)), State::established);
  EXPECT_EQ(node->best.size(), 1U);
  EXPECT_EQ(node->view(address(2)).ignored_unicast, 1U);
  EXPECT_EQ(a.heard().find("UPDATE"), std::string::npos);
}

TEST_F(Routes, MaximumPrefix) {
  const bgp::MaximumPrefix limit{.limit = 4, .warning_percent = 50, .warning_only = false, .restart = 100};
  world::Script &a = add(address(2), {.maximum_prefix = limit});
  a.announce({route(1, 50), route(2, 50)}, attributes_of(address(2)));
  EXPECT_TRUE(node->logged("has sent 2 routes of at most 4"));
  a.announce({route(1, 50), route(2, 50), route(3, 50), route(4, 50)}, attributes_of(address(2)));
  EXPECT_EQ(node->state(address(2)), State::established);
  a.announce({route(5, 50)}, attributes_of(address(2)));
  const auto messages = a.messages();
  ASSERT_EQ(messages.size(), 1U);
  EXPECT_EQ(octets::text(messages[0]), octets::text(octets::message(3, "06 01 0001 42 00000004")));
  EXPECT_TRUE(node->best.empty());
  EXPECT_TRUE(node->view(address(2)).over_limit);
  EXPECT_FALSE(a.call(kUs));
  network.advance(seconds(99));
  EXPECT_FALSE(a.call(kUs));
  network.advance(seconds(1));
  come_up(a, world::open_of(address(2)));
  EXPECT_EQ(node->state(address(2)), State::established);

  // Held until it is cleared, and a warning that is nothing but that.
  bgp::NeighborConfig config = node->view(address(2)).config;
  config.maximum_prefix = {.limit = 1, .warning_percent = 100, .warning_only = true, .restart = 0};
  ASSERT_EQ((*node)->set_neighbor(config), "");
  a.announce({route(1, 50), route(2, 50)}, attributes_of(address(2)));
  EXPECT_EQ(node->state(address(2)), State::established);
  config.maximum_prefix.warning_only = false;
  ASSERT_EQ((*node)->set_neighbor(config), "");
  network.advance(std::chrono::hours(5));
  EXPECT_EQ(node->state(address(2)), State::idle);
  EXPECT_FALSE(a.call(kUs));
  ASSERT_TRUE((*node)->clear(address(2), bgp::ClearKind::hard));
  network.advance(seconds(2));
  EXPECT_TRUE(a.call(kUs));
}

// -------------------------------------------------------------------------------------------------------------- export

// Who is told about a route from whom. The columns are the neighbours: client, other client, no client, other no
// client, outside, other outside.
TEST_F(Routes, WhoIsTold) {
  struct Kind {
    const char *name;
    bgp::Ipv4 where;
    bgp::AsNumber as;
    bool client;
  };
  const Kind kinds[] = {{"client", address(2), 65000, true},   {"other client", address(3), 65000, true},
                        {"inside", address(4), 65000, false},  {"other inside", address(5), 65000, false},
                        {"outside", address(6), 65006, false}, {"other outside", address(7), 65007, false}};
  const struct {
    size_t from;  // 6: from here
    const char *told;
  } cases[] = {{0, "-x xx xx"}, {2, "xx -- xx"}, {4, "xx xx -x"}, {6, "xx xx xx"}};
  std::vector<world::Script *> scripts;
  for (const Kind &kind : kinds)
    scripts.push_back(&add(kind.where, {.remote_as = kind.as, .reflector_client = kind.client}));
  for (const auto &c : cases) {
    Attributes attributes = attributes_of(address(50));
    if (c.from == 4) attributes.as_path = {{bgp::SegmentType::as_sequence, {65006}}};
    if (c.from < 6)
      scripts[c.from]->announce({kRoute}, attributes);
    else
      (*node)->originate(kRoute, kUs);
    network.settle();
    std::string told;
    for (size_t i = 0; i < 6; i++) {
      if (i == 2 || i == 4) told += ' ';
      const std::string heard = scripts[i]->heard();
      told += heard == "UPDATE +1" ? 'x' : heard.empty() ? '-' : '?';
    }
    EXPECT_EQ(told, c.told) << "from " << c.from;
    if (c.from < 6)
      scripts[c.from]->withdraw({kRoute});
    else
      (*node)->withdraw(kRoute.key);
    network.settle();
    // The withdrawal reaches those, and only those, that had the route.
    for (size_t i = 0, column = 0; i < 6; i++, column++) {
      if (i == 2 || i == 4) column++;
      EXPECT_EQ(scripts[i]->heard(), c.told[column] == 'x' ? "UPDATE -1" : "") << "from " << c.from << " to " << i;
    }
  }
}

TEST_F(Routes, ReflectionAddsOriginatorAndClusterAndLeavesTheRest) {
  start({.cluster_id = 0x63});
  world::Script &client = add(address(2), {.reflector_client = true}), &other = add(address(3));
  Attributes attributes = attributes_of(address(50));
  attributes.med = 7;
  attributes.communities = {0xFDE80001};
  attributes.extended_communities = {0x0002FDE800000001, 0x4002FDE800000001};
  attributes.large_communities = {{65000, 1, 2}};
  attributes.unknown = {{0xC0, 20, {1, 2, 3}}, {0xE0, 99, {}}};
  client.announce({kRoute}, attributes);
  Attributes expected = attributes;
  expected.originator_id = address(2);
  expected.cluster_list = {0x63};
  expected.unknown[0].flags = 0xE0;  // partial: passed on by one that does not know it
  EXPECT_EQ(heard_attributes(other), expected);
  // A second reflector leaves the originator and puts its cluster in front.
  attributes.originator_id = 0x77;
  attributes.cluster_list = {0x64};
  client.announce({kRoute}, attributes);
  const Attributes again = heard_attributes(other);
  EXPECT_EQ(again.originator_id, 0x77U);
  EXPECT_EQ(again.cluster_list, (std::vector<bgp::Ipv4>{0x63, 0x64}));
  EXPECT_EQ((*node)->advertised(address(3), kRoute.key)->attributes, again);
}

TEST_F(Routes, WhatLeavesTheAs) {
  world::Script &outside = add(address(6), {.remote_as = 65006}), &inside = add(address(2));
  Attributes attributes = attributes_of(address(50));
  attributes.as_path = {{bgp::SegmentType::as_sequence, {7}}};
  attributes.med = 5;
  attributes.originator_id = 9;
  attributes.cluster_list = {8};
  attributes.extended_communities = {0x0002FDE800000001, 0x4002FDE800000001};
  inside.announce({kRoute}, attributes);
  Attributes expected;
  expected.as_path = {{bgp::SegmentType::as_sequence, {65000, 7}}};
  expected.next_hop = kUs;
  expected.extended_communities = {0x0002FDE800000001};
  EXPECT_EQ(heard_attributes(outside), expected);
  // Well-known communities stop it there or everywhere.
  attributes.communities = {0xFFFFFF01};
  inside.announce({kRoute}, attributes);
  EXPECT_EQ(outside.heard(), "UPDATE -1");
  // What comes from outside goes inside with the default preference and its next hop.
  Attributes external;
  external.next_hop = address(60);
  external.as_path = {{bgp::SegmentType::as_sequence, {65006}}};
  outside.announce({route(2, address(60))}, external);
  external.local_pref = 100;
  EXPECT_EQ(heard_attributes(inside), external);
  external.communities = {0xFFFFFF02};
  outside.announce({route(2, address(60))}, external);
  EXPECT_EQ(inside.heard(), "UPDATE -1");
}

TEST_F(Routes, OldSpeakersAndSmallMessages) {
  bgp::Open open = world::open_of(address(6), 65006);
  open.capabilities.four_octet_as.reset();
  open.capabilities.extended_messages = false;
  world::Script &inside = add(address(2));
  world::Script &outside = add(address(6), {.remote_as = 65006}, &open);
  Attributes attributes = attributes_of(address(50));
  attributes.as_path = {{bgp::SegmentType::as_sequence, {4200000000}}};
  inside.announce({kRoute}, attributes);
  const auto messages = outside.messages();
  ASSERT_EQ(messages.size(), 1U);
  bgp::Update update;
  ASSERT_FALSE(bgp::decode_update(bgp::View(messages[0]).subspan(19), {false, false, 65000}, update));
  EXPECT_EQ(update.attributes.as_path,
            (std::vector<bgp::AsSegment>{{bgp::SegmentType::as_sequence, {65000, 4200000000}}}));
  // Attributes that leave no room for a route in its messages: it is told that the route is gone.
  attributes.communities.resize(2000, 1);
  inside.announce({kRoute}, attributes);
  EXPECT_EQ(outside.heard(), "UPDATE -1");
  EXPECT_EQ(node->best.size(), 1U);
}

TEST_F(Routes, ManyRoutesTravelInFewMessages) {
  world::Script &a = add(address(2));
  for (uint32_t vrf = 0; vrf < 5000; vrf++) (*node)->originate(route(vrf, kUs), kUs);
  network.settle();
  const auto messages = a.messages();
  EXPECT_EQ(node->best.size(), 5000U);
  EXPECT_LE(messages.size(), 8U);  // batches of 1,024, and messages of 64 KiB
  EXPECT_EQ((*node)->keys_advertised(address(2)).size(), 5000U);
  EXPECT_EQ(node->view(address(2)).advertised, 5000U);
  EXPECT_EQ((*node)->sizes().attribute_sets, 1U);
}

// Routes of two origins in turns, as a reflector has them: as many messages as if they had come sorted.
TEST_F(Routes, InterleavedAttributesAreSorted) {
  world::Script &a = add(address(2), {.reflector_client = true}), &b = add(address(3));
  std::vector<Nlri> even, odd;
  for (uint32_t vrf = 0; vrf < 400; vrf++) (vrf % 2 == 0 ? even : odd).push_back(route(vrf, address(50)));
  for (size_t i = 0; i < 200; i++) {
    a.announce({even[i]}, attributes_of(address(50)));
    a.announce({odd[i]}, attributes_of(address(51)));
  }
  b.heard();
  ASSERT_TRUE((*node)->clear(address(3), bgp::ClearKind::soft_out));
  network.settle();
  EXPECT_EQ(b.heard(), "UPDATE +200, UPDATE +200");
}

// Equal attributes from two neighbours are not equal when they leave: each has its own originator.
TEST_F(Routes, EqualAttributesOfTwoClientsKeepTheirOriginators) {
  world::Script &a = add(address(2), {.reflector_client = true}), &b = add(address(3), {.reflector_client = true});
  world::Script &c = add(address(4));
  a.announce({route(1, address(50)), route(3, address(50))}, attributes_of(address(50)));
  b.announce({route(2, address(51))}, attributes_of(address(50)));
  c.heard();
  ASSERT_TRUE((*node)->clear(address(4), bgp::ClearKind::soft_out));
  network.settle();
  std::map<bgp::Ipv4, size_t> routes;  // by originator
  for (const bgp::Octets &message : c.messages()) {
    bgp::Update update;
    ASSERT_FALSE(bgp::decode_update(bgp::View(message).subspan(19), {}, update));
    routes[update.attributes.originator_id.value_or(0)] += update.reachable.size();
  }
  EXPECT_EQ(routes, (std::map<bgp::Ipv4, size_t>{{address(2), 2}, {address(3), 1}}));
}

// ------------------------------------------------------------------------------------------------------- route refresh

TEST_F(Routes, Refresh) {
  (*node)->originate(kRoute, kUs);
  world::Script &a = add(address(2));
  a.send(octets::message(5, "0001 00 42"));
  EXPECT_EQ(a.heard(), "REFRESH 1, UPDATE +1, REFRESH 2");
  a.send(octets::message(5, "0001 00 01"));  // another family
  a.send(octets::message(5, "0001 07 42"));  // a kind that nobody knows
  EXPECT_EQ(a.heard(), "");
  ASSERT_TRUE((*node)->clear(address(2), bgp::ClearKind::soft_in));
  network.settle();
  EXPECT_EQ(a.heard(), "REFRESH 0");
  // What is not announced between the marks is gone.
  const Nlri kept = route(2, address(50)), lost = route(3, address(50));
  a.announce({kept, lost}, attributes_of(address(2)));
  a.send(octets::message(5, "0001 01 42"));
  EXPECT_EQ(node->view(address(2)).stale, 2U);
  a.announce({kept}, attributes_of(address(2)));
  EXPECT_EQ(node->best.size(), 3U);
  a.send(octets::message(5, "0001 02 42"));
  EXPECT_EQ(node->best.size(), 2U);
  EXPECT_TRUE(node->best.contains(kept.key));

  bgp::Open open = world::open_of(address(3));
  open.capabilities.enhanced_refresh = open.capabilities.route_refresh = false;
  world::Script &old = add(address(3), {}, &open);
  old.send(octets::message(5, "0001 00 42"));
  EXPECT_EQ(old.heard(), "UPDATE +1");
  EXPECT_FALSE((*node)->clear(address(3), bgp::ClearKind::soft_in));
}

// ----------------------------------------------------------------------------------------------------------- bounds

TEST_F(Routes, ASlowReaderCostsTheOthersNothing) {
  world::Script &feeder = add(address(2), {.reflector_client = true});
  world::Script &slow = add(address(3)), &quick = add(address(4));
  slow.end().in().room = 0;
  std::vector<Nlri> routes;
  for (uint32_t vrf = 0; vrf < 1000; vrf++) routes.push_back(route(vrf, address(50)));
  uint64_t most = 0;
  for (uint32_t round = 0; round < 50; round++) {
    Attributes attributes = attributes_of(address(50));
    attributes.med = round;
    feeder.announce(routes, attributes);
    EXPECT_EQ(quick.heard(), "UPDATE +1000");
    most = std::max(most, (*node)->sizes().octets);
  }
  EXPECT_LT(most, 180'000U);  // 50,000 changes remembered one by one would be 200,000 alone
  EXPECT_EQ(node->state(address(3)), State::established);
  // When it reads again it finds each route once, as it is now.
  slow.end().in().room = SIZE_MAX;
  network.settle();
  const auto messages = slow.messages();
  size_t heard = 0;
  std::optional<uint32_t> last_med;
  for (const bgp::Octets &message : messages) {
    bgp::Update update;
    ASSERT_FALSE(bgp::decode_update(bgp::View(message).subspan(19), {}, update));
    heard += update.reachable.size();
    last_med = update.reachable.empty() ? last_med : update.attributes.med;
  }
  EXPECT_EQ(last_med, 49U);
  EXPECT_LE(heard, 5000U);
  EXPECT_EQ(node->view(address(3)).advertised, 1000U);
}

TEST_F(Routes, ATurnIsBounded) {
  world::Script &feeder = add(address(2));
  bgp::Octets octets, attributes;
  bgp::encode_attributes(attributes_of(address(2)), {}, attributes);
  for (uint32_t vrf = 0; vrf < 20000;) {
    bgp::UpdateBuilder builder(octets, 4096, attributes, address(2));
    while (vrf < 20000 && builder.add(route(vrf, address(50)))) vrf++;
    builder.finish();
  }
  auto &wire = feeder.end().out().octets;
  wire.insert(wire.end(), octets.begin(), octets.end());
  (*node)->readable(1);
  size_t turns = 0;
  for (size_t seen = node->changes; node->changes < 20000; turns++) {
    (*node)->readable(1);
    (*node)->run();
    EXPECT_LE(node->changes - seen, bgp::kBestBatch);
    EXPECT_LE((*node)->sizes().routes - node->changes, 2000U) << "an observer is not left a whole table behind";
    seen = node->changes;
    ASSERT_LT(turns, 1000U);
  }
  EXPECT_GE(turns, 20U);
  feeder.close();
  EXPECT_GT((*node)->sizes().paths, 0U);  // it may be restarting
}

TEST_F(Routes, NothingIsLeftWhenAllAreGone) {
  world::Script &a = add(address(2)), &b = add(address(3), {.remote_as = 65003});
  for (uint32_t vrf = 0; vrf < 3000; vrf++) a.announce({route(vrf, address(50))}, attributes_of(address(50 + vrf % 7)));
  EXPECT_EQ((*node)->sizes().attribute_sets, 7U);
  a.notify(bgp::cease(bgp::Cease::administrative_shutdown));
  network.settle();
  const bgp::TableSizes sizes = (*node)->sizes();
  EXPECT_EQ(sizes.routes, 0U);
  EXPECT_EQ(sizes.paths, 0U);
  EXPECT_EQ(sizes.attribute_sets, 0U);
  EXPECT_TRUE(node->best.empty());
  EXPECT_EQ(node->view(address(3)).advertised, 0U);
  b.heard();
}

}  // namespace
