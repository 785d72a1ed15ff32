// Graceful restart in both roles, and whole networks of speakers with neighbours that come and go.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "tests/bgp/world.h"

namespace {

using bgp::Nlri;
using bgp::State;
using world::address;
using world::attributes_of;
using world::route;
using world::seconds;

constexpr bgp::Ipv4 kUs = address(1), kThem = address(2);
const Nlri kOne = route(1, address(50)), kTwo = route(2, address(50));

class Restart : public testing::Test {
 protected:
  void start(bgp::SpeakerConfig config = {}) {
    config.local_as = 65000;
    config.router_id = kUs;
    node = &network.node(kUs, config);
    ASSERT_EQ((*node)->set_neighbor({.address = kThem, .remote_as = 65000, .passive = true}), "");
    network.settle();
  }
  void come_up(const bgp::Open &open = world::open_of(kThem)) {
    ASSERT_TRUE(them.call(kUs));
    them.establish(open);
    ASSERT_EQ(node->state(kThem), State::established);
  }
  void with_routes(const bgp::Open &open = world::open_of(kThem)) {
    start();
    come_up(open);
    them.announce({kOne, kTwo}, attributes_of(kThem));
    them.end_of_rib();
    ASSERT_EQ(node->best.size(), 2U);
  }
  static bgp::Open open_with(std::function<void(bgp::Open &)> change) {
    bgp::Open open = world::open_of(kThem);
    change(open);
    return open;
  }

  world::Network network;
  world::Script &them = network.script(kThem);
  world::Node *node = nullptr;
};

// How a session ends, and whether the routes stay for the time being.
TEST_F(Restart, WhatKeepsTheRoutes) {
  const struct {
    const char *name;
    std::function<void()> end;
    bool kept;
    std::function<void(bgp::Open &)> open = [](bgp::Open &) {};
  } cases[] = {
      {"the connection breaks", [this] { them.close(); }, true},
      {"a new connection comes", [this] { EXPECT_TRUE(them.call(kUs)); }, true},
      {"a NOTIFICATION", [this] { them.notify(bgp::cease(bgp::Cease::administrative_reset)); }, false},
      {"the hold timer", [this] { network.advance(seconds(91)); }, false},
      {"cleared here", [this] { (*node)->clear(kThem, bgp::ClearKind::hard), network.settle(); }, false},
      {"without the capability", [this] { them.close(); }, false,
       [](bgp::Open &open) { open.capabilities.restart.reset(); }},
      {"with other families only", [this] { them.close(); }, false,
       [](bgp::Open &open) {
         open.capabilities.restart->families = {{bgp::kIpv4Unicast, true}};
       }},
      {"with no time", [this] { them.close(); }, false, [](bgp::Open &open) { open.capabilities.restart->time = 0; }},
  };
  for (const auto &c : cases) {
    with_routes(open_with(c.open));
    c.end();
    EXPECT_EQ(node->best.size(), c.kept ? 2U : 0U) << c.name;
    EXPECT_EQ(node->view(kThem).stale, c.kept ? 2U : 0U) << c.name;
    EXPECT_EQ(node->view(kThem).restart_deadline.has_value(), c.kept) << c.name;
  }
}

TEST_F(Restart, TheRoutesGoWithTheRestartTime) {
  with_routes();
  them.close();
  network.advance(seconds(119));
  EXPECT_EQ(node->best.size(), 2U);
  network.advance(seconds(1));
  EXPECT_TRUE(node->best.empty());
}

TEST_F(Restart, WhatIsNotSaidAgainGoesWithTheEndOfRib) {
  with_routes();
  const size_t changes = node->changes;
  them.close();
  network.advance(seconds(10));
  come_up(open_with([](bgp::Open &open) { open.capabilities.restart->restarting = true; }));
  network.advance(seconds(30));
  them.keepalive();
  EXPECT_EQ(node->best.size(), 2U);
  them.announce({kOne}, attributes_of(kThem));
  EXPECT_EQ(node->changes, changes);  // nobody notices the restart
  EXPECT_EQ(node->view(kThem).stale, 1U);
  them.end_of_rib();
  EXPECT_EQ(node->best.size(), 1U);
  EXPECT_TRUE(node->best.contains(kOne.key));
  EXPECT_EQ(node->view(kThem).stale, 0U);
}

TEST_F(Restart, WithoutItsForwardingNothingIsKept) {
  for (const bool capability : {true, false}) {
    with_routes();
    them.close();
    come_up(open_with([capability](bgp::Open &open) {
      if (capability)
        open.capabilities.restart->families[0].forwarding = false;
      else
        open.capabilities.restart.reset();
    }));
    EXPECT_TRUE(node->best.empty());
  }
}

TEST_F(Restart, AnEndOfRibThatNeverComes) {
  with_routes();
  them.close();
  bgp::Open open = world::open_of(kThem);
  open.hold_time = 0;
  come_up(open);
  network.advance(seconds(359));
  EXPECT_EQ(node->best.size(), 2U);
  network.advance(seconds(1));
  EXPECT_TRUE(node->best.empty());
}

TEST_F(Restart, RoutesThatWereStaleBeforeTheSecondRestartGo) {
  with_routes();
  them.close();
  come_up();
  them.announce({kOne}, attributes_of(kThem));
  them.close();  // before the end-of-RIB mark
  EXPECT_EQ(node->best.size(), 1U);
  EXPECT_TRUE(node->best.contains(kOne.key));
}

TEST_F(Restart, TheMarkComesAfterTheRoutesBeforeIt) {
  start();
  come_up();
  bgp::Octets octets, attributes;  // all in one piece, and more than the observer is told in a turn
  bgp::encode_attributes(attributes_of(kThem), {}, attributes);
  bgp::UpdateBuilder builder(octets, bgp::kExtendedMessageMax, attributes, kThem);
  for (uint32_t vrf = 0; vrf < 3000; vrf++) builder.add(route(vrf, address(50)));
  builder.finish();
  bgp::encode_end_of_rib(bgp::kMdt, octets);
  them.send(octets);
  EXPECT_EQ(node->best.size(), 3000U);
  ASSERT_FALSE(node->events.empty());
  EXPECT_EQ(node->events.back(), "end of rib 10.0.0.2");
  EXPECT_EQ(std::count(node->events.begin(), node->events.end(), "end of rib 10.0.0.2"), 1);
}

// ------------------------------------------------------------------------------------------------- the restarting side

TEST_F(Restart, NothingIsSelectedBeforeTheNeighborsHaveSpoken) {
  start({.restart_time = 50, .restarting = true});
  const bgp::Ipv4 other = address(3);
  ASSERT_EQ((*node)->set_neighbor({.address = other, .remote_as = 65000, .passive = true}), "");
  world::Script &second = network.script(other);
  (*node)->originate(route(9, kUs), kUs);
  ASSERT_TRUE(them.call(kUs));
  const auto messages = them.messages();
  ASSERT_EQ(messages.size(), 1U);
  const auto open = bgp::decode_open(bgp::View(messages[0]).subspan(19), {65000, 1, 1}).value;
  EXPECT_EQ(open.capabilities.restart, (bgp::GracefulRestart{true, false, 50, {{bgp::kMdt, true}}}));
  them.establish(world::open_of(kThem));
  them.announce({kOne}, attributes_of(kThem));
  them.end_of_rib();
  EXPECT_EQ(them.heard(), "KEEPALIVE");
  EXPECT_TRUE((*node)->deferring());
  EXPECT_TRUE(node->best.empty());
  ASSERT_TRUE(second.call(kUs));
  second.establish(world::open_of(other));
  second.heard();
  second.announce({kTwo}, attributes_of(other));
  EXPECT_TRUE(node->best.empty());
  second.end_of_rib();
  EXPECT_FALSE((*node)->deferring());
  EXPECT_EQ(node->best.size(), 3U);
  EXPECT_NE(std::find(node->events.begin(), node->events.end(), "selection"), node->events.end());
  EXPECT_EQ(them.heard(), "UPDATE +1, EOR");
  EXPECT_EQ(second.heard(), "UPDATE +1, EOR");
  // From now on it is an ordinary speaker whose forwarding outlives its sessions.
  them.close();
  ASSERT_TRUE(them.call(kUs));
  const auto later = bgp::decode_open(bgp::View(them.messages()[0]).subspan(19), {65000, 1, 1}).value;
  EXPECT_EQ(later.capabilities.restart, (bgp::GracefulRestart{false, false, 50, {{bgp::kMdt, true}}}));
}

TEST_F(Restart, SelectionWaitsForNobodyInParticular) {
  const struct {
    const char *name;
    std::function<void(bgp::Open &)> open;
  } cases[] = {{"cannot restart", [](bgp::Open &open) { open.capabilities.restart.reset(); }},
               {"restarts itself", [](bgp::Open &open) { open.capabilities.restart->restarting = true; }}};
  for (const auto &c : cases) {
    start({.restarting = true});
    come_up(open_with(c.open));
    EXPECT_FALSE((*node)->deferring()) << c.name;
    EXPECT_NE(them.heard().find("EOR"), std::string::npos) << c.name;
  }
  // A neighbour that does not come back.
  start({.deferral_time = 40, .restarting = true});
  (*node)->originate(kOne, kUs);
  network.advance(seconds(39));
  EXPECT_TRUE(node->best.empty());
  network.advance(seconds(1));
  EXPECT_EQ(node->best.size(), 1U);
}

// The speaker's own routes come some time after its start; the neighbours must not forget them with the mark.
TEST_F(Restart, TheMarkWaitsForOwnRoutes) {
  start({.deferral_time = 40, .restarting = true, .await_local = true});
  come_up();
  them.announce({kOne}, attributes_of(kThem));
  them.end_of_rib();
  EXPECT_EQ(node->best.size(), 1U);
  EXPECT_EQ(them.heard(), "OPEN, KEEPALIVE");
  (*node)->originate(kTwo, kUs);
  network.settle();
  EXPECT_EQ(them.heard(), "UPDATE +1");
  (*node)->local_complete();
  network.settle();
  EXPECT_EQ(them.heard(), "EOR");
  // Nobody says that they are complete: the deferral time is long enough.
  start({.deferral_time = 40, .restarting = true, .await_local = true});
  come_up();
  them.end_of_rib();
  them.heard();
  network.advance(seconds(39));
  EXPECT_EQ(them.heard().find("EOR"), std::string::npos);
  network.advance(seconds(1));
  EXPECT_EQ(them.heard(), "EOR");
}

// A PE that is killed and comes back with its forwarding: nobody behind the reflector notices.
TEST_F(Restart, EndToEndThroughAReflector) {
  world::Node &reflector = network.node(address(100), {.local_as = 65000, .router_id = address(100)});
  const auto pe_config = [](bgp::Ipv4 where, bool restarting) {
    return bgp::SpeakerConfig{.local_as = 65000, .router_id = where, .seed = where, .restarting = restarting};
  };
  std::vector<world::Node *> pes;
  for (uint8_t i = 1; i <= 3; i++) {
    pes.push_back(&network.node(address(i), pe_config(address(i), false)));
    (*pes.back())->set_neighbor({.address = address(100), .remote_as = 65000});
    reflector->set_neighbor({.address = address(i), .remote_as = 65000, .reflector_client = true});
    for (uint32_t vrf = 0; vrf < 5; vrf++) (*pes.back())->originate(route(vrf, address(i)), address(i));
  }
  network.advance(seconds(60));
  for (world::Node *pe : pes) EXPECT_EQ(pe->best.size(), 15U);
  const size_t before = pes[1]->changes;
  pes[0]->kill();
  network.advance(seconds(20));
  EXPECT_EQ(reflector.view(address(1)).stale, 5U);
  pes[0]->start(pe_config(address(1), true));
  (*pes[0])->set_neighbor({.address = address(100), .remote_as = 65000});
  for (uint32_t vrf = 0; vrf < 5; vrf++) (*pes[0])->originate(route(vrf, address(1)), address(1));
  network.advance(seconds(60));
  EXPECT_EQ(pes[0]->best.size(), 15U);
  EXPECT_EQ(pes[1]->changes, before);
  EXPECT_EQ(reflector.view(address(1)).stale, 0U);
  pes[0]->kill();
  network.advance(seconds(130));
  EXPECT_EQ(pes[1]->best.size(), 10U);
}

// ---------------------------------------------------------------------------------------------------------- simulation

// Speakers around two reflectors that are killed, cleared, changed and restarted, and originate and withdraw, all from
// a seed. When it is quiet again everybody must know exactly what is originated, and hold nothing else.
class Simulation : public testing::TestWithParam<uint32_t> {
 protected:
  static constexpr uint8_t kPes = 6;
  static constexpr bgp::Ipv4 kReflectors[] = {address(101), address(102)};

  bgp::SpeakerConfig config_of(bgp::Ipv4 where, bool restarting) {
    return {.local_as = 65000, .router_id = where, .seed = static_cast<uint32_t>(random()), .restarting = restarting};
  }
  void start_pe(uint8_t pe, bool restarting) {
    const bgp::Ipv4 where = address(pe);
    if (nodes[where] == nullptr)
      nodes[where] = &network.node(where, config_of(where, restarting));
    else
      nodes[where]->start(config_of(where, restarting));
    for (const bgp::Ipv4 reflector : kReflectors)
      (*nodes[where])->set_neighbor({.address = reflector, .remote_as = 65000, .hold_time = 30});
    for (const auto &[key, group] : wanted)
      if (key.source == where) (*nodes[where])->originate({key, group}, where);
  }
  void start_reflector(bgp::Ipv4 where) {
    if (nodes[where] == nullptr)
      nodes[where] = &network.node(where, config_of(where, false));
    else
      nodes[where]->start(config_of(where, false));
    for (uint8_t pe = 1; pe <= kPes; pe++)
      (*nodes[where])
          ->set_neighbor({.address = address(pe), .remote_as = 65000, .hold_time = 30, .reflector_client = true});
  }
  void change_routes(bgp::Ipv4 where) {
    for (int i = 0; i < 5; i++) {
      const Nlri nlri = route(random() % 20, where, 0xEF000001 + random() % 3);
      if (random() % 3 == 0) {
        wanted.erase(nlri.key);
        (*nodes[where])->withdraw(nlri.key);
      } else {
        wanted[nlri.key] = nlri.group;
        (*nodes[where])->originate(nlri, where);
      }
    }
  }
  void disturb() {
    const bgp::Ipv4 where = address(static_cast<uint8_t>(1 + random() % kPes));
    const bgp::Ipv4 reflector = kReflectors[random() % 2];
    switch (random() % 7) {
      case 0:
        nodes[where]->kill(), network.advance(seconds(random() % 5)),
            start_pe(static_cast<uint8_t>(where & 255), random() % 2 == 0);
        break;
      case 1:
        nodes[reflector]->kill(), network.advance(seconds(random() % 40)), start_reflector(reflector);
        break;
      case 2:
        (*nodes[where])->clear(reflector, bgp::ClearKind::hard);
        break;
      case 3:
        (*nodes[reflector])->clear(where, bgp::ClearKind::soft_out);
        break;
      case 4:
        (*nodes[where])->clear(reflector, bgp::ClearKind::soft_in);
        break;
      default:
        change_routes(where);
    }
  }

  world::Network network;
  std::map<bgp::Ipv4, world::Node *> nodes;
  std::map<bgp::RouteKey, bgp::Ipv4> wanted;  // group
  std::mt19937 random;
};

TEST_P(Simulation, EverybodyKnowsEverythingInTheEnd) {
  random.seed(GetParam() + 1);
  for (const bgp::Ipv4 reflector : kReflectors) start_reflector(reflector);
  for (uint8_t pe = 1; pe <= kPes; pe++) start_pe(pe, false);
  for (int step = 0; step < 60; step++) {
    disturb();
    network.advance(std::chrono::milliseconds(random() % 3000));
  }
  network.advance(seconds(1200));
  for (const auto &[where, node] : nodes) {
    std::map<bgp::RouteKey, bgp::Ipv4> known;
    for (const auto &[key, change] : node->best) known[key] = change.nlri.group;
    EXPECT_EQ(known, wanted) << "at " << bgp::to_string_address(where);
    for (const bgp::Ipv4 neighbor : (*node)->neighbors()) {
      EXPECT_EQ(node->state(neighbor), State::established);
      EXPECT_EQ(node->view(neighbor).stale, 0U);
    }
    EXPECT_EQ((*node)->sizes().routes, wanted.size());
  }
}
INSTANTIATE_TEST_SUITE_P(Seeds, Simulation, testing::Range(0U, 20U));

}  // namespace
