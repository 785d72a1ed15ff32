// Sessions: how they come up and go, on a stepped clock, against neighbours played message by message.
#include <gtest/gtest.h>

#include "tests/bgp/octets.h"
#include "tests/bgp/world.h"

namespace {

using bgp::State;
using world::address;
using world::seconds;

constexpr bgp::Ipv4 kUs = address(1), kThem = address(2);

class Session : public testing::Test {
 protected:
  void start(bgp::NeighborConfig neighbor = {}, bgp::SpeakerConfig config = {}) {
    config.local_as = 65000;
    if (config.router_id == 0) config.router_id = kUs;
    node = &network.node(kUs, config);
    neighbor.address = kThem;
    if (neighbor.remote_as == 0) neighbor.remote_as = 65000;
    ASSERT_EQ((*node)->set_neighbor(neighbor), "");
    network.settle();
  }
  void establish(bgp::NeighborConfig neighbor = {}) {
    start(neighbor);
    them.take_call();
    them.establish(world::open_of(kThem));
    ASSERT_EQ(state(), State::established);
    them.heard();
  }
  State state() { return node->state(kThem); }

  world::Network network;
  world::Script &them = network.script(kThem);
  world::Node *node = nullptr;
};

TEST_F(Session, ComesUpActively) {
  start();
  ASSERT_TRUE(them.called());
  them.take_call();
  EXPECT_EQ(them.heard(), "OPEN");
  EXPECT_EQ(state(), State::open_sent);
  bgp::Octets octets;
  bgp::encode_open(world::open_of(kThem), octets);
  them.send(octets);
  EXPECT_EQ(them.heard(), "KEEPALIVE");
  EXPECT_EQ(state(), State::open_confirm);
  them.keepalive();
  EXPECT_EQ(state(), State::established);
  EXPECT_EQ(them.heard(), "EOR");
  EXPECT_EQ(node->states, (std::vector<std::string>{"Idle>Connect", "Connect>OpenSent", "OpenSent>OpenConfirm",
                                                    "OpenConfirm>Established"}));
}

TEST_F(Session, ComesUpPassively) {
  start({.passive = true});
  network.advance(seconds(300));
  EXPECT_FALSE(them.called());
  EXPECT_EQ(state(), State::active);
  ASSERT_TRUE(them.call(kUs));
  EXPECT_EQ(them.heard(), "OPEN");
  them.establish(world::open_of(kThem));
  EXPECT_EQ(state(), State::established);
  EXPECT_EQ(them.heard(), "KEEPALIVE, EOR");
}

TEST_F(Session, OffersWhatIsConfigured) {
  start({.hold_time = 30, .ipv4_unicast = true}, {.router_id = 7, .restart_time = 77});
  them.take_call();
  const auto messages = them.messages();
  ASSERT_EQ(messages.size(), 1U);
  const auto open = bgp::decode_open(bgp::View(messages[0]).subspan(19), {65000, 1, 1}).value;
  bgp::Open expected{65000, 30, 7, {}};
  expected.capabilities.families = {bgp::kMdt, bgp::kIpv4Unicast};
  expected.capabilities.route_refresh = expected.capabilities.enhanced_refresh = true;
  expected.capabilities.extended_messages = true;
  expected.capabilities.four_octet_as = 65000;
  expected.capabilities.restart = bgp::GracefulRestart{false, false, 77, {{bgp::kMdt, false}}};
  EXPECT_EQ(open, expected);
}

// The answer to each message in each state: what is sent, and that the session is gone.
TEST_F(Session, UnexpectedMessages) {
  const bgp::Octets keepalive = octets::message(4, ""), update = octets::message(2, "0000 0000"),
                    refresh = octets::message(5, "0001 00 42"), nonsense = octets::message(9, "");
  bgp::Octets open;
  bgp::encode_open(world::open_of(kThem), open);
  const struct {
    const char *name;
    std::vector<bgp::Octets> sent;
    const char *heard;
  } cases[] = {
      {"KEEPALIVE in OpenSent", {keepalive}, "OPEN, NOTIFICATION 5/1"},
      {"UPDATE in OpenSent", {update}, "OPEN, NOTIFICATION 5/1"},
      {"OPEN in OpenConfirm", {open, open}, "OPEN, KEEPALIVE, NOTIFICATION 5/2"},
      {"UPDATE in OpenConfirm", {open, update}, "OPEN, KEEPALIVE, NOTIFICATION 5/2"},
      {"ROUTE-REFRESH in OpenConfirm", {open, refresh}, "OPEN, KEEPALIVE, NOTIFICATION 5/2"},
      {"OPEN in Established", {open, keepalive, open}, "OPEN, KEEPALIVE, EOR, NOTIFICATION 5/3"},
      {"unknown type", {open, keepalive, nonsense}, "OPEN, KEEPALIVE, EOR, NOTIFICATION 1/3"},
      {"broken UPDATE", {open, keepalive, octets::message(2, "0009 0000")}, "OPEN, KEEPALIVE, EOR, NOTIFICATION 3/1"},
      {"long ROUTE-REFRESH",
       {open, keepalive, octets::message(5, "0001 00 42 00")},
       "OPEN, KEEPALIVE, EOR, NOTIFICATION 7/1"},
  };
  for (const auto &c : cases) {
    start();
    them.take_call();
    for (const bgp::Octets &octets : c.sent) them.send(octets);
    EXPECT_EQ(them.heard(), c.heard) << c.name;
    EXPECT_TRUE(them.closed()) << c.name;
    EXPECT_EQ(state(), State::idle) << c.name;
  }
}

TEST_F(Session, RefusedOpens) {
  bgp::Open open = world::open_of(kThem, 65001);
  start();
  them.take_call();
  them.establish(open);
  EXPECT_EQ(them.heard(), "OPEN, NOTIFICATION 2/2");
  EXPECT_EQ(node->view(kThem).last_sent->words, "OPEN Message Error, Bad Peer AS");
  EXPECT_EQ(state(), State::idle);
  // It is tried again, ever more seldom.
  network.advance(seconds(2));
  EXPECT_TRUE(them.called());
}

// What a NOTIFICATION does in every state, with its words kept.
TEST_F(Session, NotificationsEndIt) {
  for (const bool established : {false, true}) {
    start();
    them.take_call();
    if (established) them.establish(world::open_of(kThem));
    them.heard();
    them.notify(bgp::cease(bgp::Cease::administrative_shutdown, "maintenance"));
    EXPECT_EQ(them.heard(), "");
    EXPECT_TRUE(them.closed());
    EXPECT_EQ(node->view(kThem).last_received->words, "Cease, Administrative Shutdown: maintenance");
    EXPECT_EQ(node->view(kThem).reason, "Cease, Administrative Shutdown: maintenance");
  }
}

TEST_F(Session, MessagesMayComeInPieces) {
  start();
  them.take_call();
  bgp::Octets octets;
  bgp::encode_open(world::open_of(kThem), octets);
  bgp::encode_keepalive(octets);
  for (const uint8_t octet : octets) them.send({octet});
  EXPECT_EQ(state(), State::established);
}

// -------------------------------------------------------------------------------------------------------------- timers

TEST_F(Session, KeepsAlive) {
  establish();
  size_t keepalives = 0;
  for (int i = 0; i < 10; i++) {
    network.advance(seconds(20));
    them.keepalive();
    keepalives += them.messages().size();
  }
  EXPECT_EQ(state(), State::established);
  // A third of 90 seconds, less at most a quarter: in 200 seconds 6 at least, 8 at most.
  EXPECT_GE(keepalives, 6U);
  EXPECT_LE(keepalives, 9U);
  EXPECT_EQ(node->view(kThem).hold_time, 90);
}

TEST_F(Session, HoldTimeIsTheSmallerAndExpires) {
  start();
  them.take_call();
  bgp::Open open = world::open_of(kThem);
  open.hold_time = 9;
  them.establish(open);
  network.advance(seconds(8));
  EXPECT_EQ(state(), State::established);
  them.heard();
  network.advance(seconds(1));
  EXPECT_EQ(state(), State::idle);
  EXPECT_EQ(them.heard(), "KEEPALIVE, NOTIFICATION 4/0");
  EXPECT_EQ(node->view(kThem).last_sent->words, "Hold Timer Expired");
}

TEST_F(Session, HoldTimeNoneMeansNoKeepalives) {
  start({.hold_time = 0});
  them.take_call();
  them.establish(world::open_of(kThem));
  them.heard();
  network.advance(std::chrono::hours(10));
  EXPECT_EQ(state(), State::established);
  EXPECT_EQ(them.heard(), "");
}

TEST_F(Session, SilenceBeforeTheOpenEndsAfterFourMinutes) {
  start();
  them.take_call();
  network.advance(seconds(239));
  EXPECT_EQ(state(), State::open_sent);
  network.advance(seconds(1));
  EXPECT_EQ(them.heard(), "OPEN, NOTIFICATION 4/0");
}

TEST_F(Session, ConnectionsAreRetried) {
  network.deaf.insert(kThem);
  start({.connect_retry = 20});
  EXPECT_EQ(state(), State::connect);
  network.advance(seconds(60));
  EXPECT_EQ(node->states, (std::vector<std::string>{"Idle>Connect"}));  // and stays there over the retries
  network.deaf.clear();
  network.advance(seconds(20));
  EXPECT_EQ(state(), State::open_sent);
  // Lost before the OPEN: Active, and again after the retry time.
  them.take_call();
  them.close();
  EXPECT_EQ(state(), State::active);
  network.advance(seconds(14));
  EXPECT_FALSE(them.called());
  network.advance(seconds(6));
  EXPECT_TRUE(them.called());
}

TEST_F(Session, IdleHoldDoublesAndIsForgotten) {
  start();
  std::vector<int> waits;
  for (int i = 0; i < 5; i++) {
    them.take_call();
    them.send(octets::message(4, ""));
    int waited = 0;
    for (; !them.called() && waited < 200; waited++) network.advance(seconds(1));
    waits.push_back(waited);
  }
  for (size_t i = 1; i < waits.size(); i++) EXPECT_GT(waits[i], waits[i - 1] + (i > 1 ? 1 : -1));
  EXPECT_LE(waits[4], 16);
  them.take_call();
  bgp::Open open = world::open_of(kThem);
  open.hold_time = 0;
  them.establish(open);
  network.advance(seconds(61));
  them.close();
  network.advance(seconds(1));
  them.take_call();
  them.send(octets::message(4, ""));
  network.advance(seconds(2));
  EXPECT_TRUE(them.called());
}

TEST_F(Session, ASlowReaderIsDroppedAfterItsHoldTime) {
  establish();
  them.end().out().octets.clear();
  them.end().in().room = 10;
  (*node)->originate(world::route(1, kUs), kUs);
  for (int i = 0; i < 4; i++) {
    network.advance(seconds(20));
    them.keepalive();
  }
  EXPECT_EQ(state(), State::established);
  EXPECT_GT(node->view(kThem).output_pending, 0U);
  network.advance(seconds(20));
  EXPECT_NE(state(), State::established);
  EXPECT_EQ(node->view(kThem).last_sent->words, "Send Hold Timer Expired");
}

TEST_F(Session, ASlowReaderThatStillReadsStays) {
  establish();
  them.end().in().room = 10;
  (*node)->originate(world::route(1, kUs), kUs);
  for (int i = 0; i < 20; i++) {
    them.end().in().room = 1;
    network.advance(seconds(20));
    them.keepalive();
  }
  EXPECT_EQ(state(), State::established);
}

// ----------------------------------------------------------------------------------------------------------- collision

// Both sides connect at once. Of the two connections the one lives that the side with the higher identifier opened.
TEST_F(Session, CollisionsAreResolvedByIdentifier) {
  for (const bgp::Ipv4 their_id : {address(200), bgp::Ipv4{1}}) {
    const bool ours_lives = their_id < kUs;
    start();
    them.take_call();
    const world::End ours = them.end();
    ASSERT_TRUE(them.call(kUs));
    const world::End theirs = them.end();
    bgp::Octets open;
    bgp::encode_open(world::open_of(their_id), open);
    for (const world::End &end : {ours, theirs}) {
      them.end() = end;
      them.send(open);
    }
    EXPECT_EQ(ours.in().closed, !ours_lives);
    EXPECT_EQ(theirs.in().closed, ours_lives);
    them.end() = ours_lives ? theirs : ours;
    EXPECT_EQ(them.heard().substr(6), ours_lives ? "NOTIFICATION 6/7" : "KEEPALIVE, NOTIFICATION 6/7");
    them.end() = ours_lives ? ours : theirs;
    them.keepalive();
    EXPECT_EQ(state(), State::established);
  }
}

TEST_F(Session, AnEstablishedSessionIsNotDisturbed) {
  start({}, {.graceful_restart = false});
  them.take_call();
  them.establish(world::open_of(kThem));
  EXPECT_FALSE(them.call(kUs));
  EXPECT_EQ(state(), State::established);
}

TEST_F(Session, TwoSpeakersFindEachOther) {
  world::Node &a = network.node(address(11), {.local_as = 65000, .router_id = address(11), .seed = 1});
  world::Node &b = network.node(address(12), {.local_as = 65001, .router_id = address(12), .seed = 2});
  ASSERT_EQ(a->set_neighbor({.address = address(12), .remote_as = 65001}), "");
  ASSERT_EQ(b->set_neighbor({.address = address(11), .remote_as = 65000}), "");
  network.advance(seconds(5));
  EXPECT_EQ(a.state(address(12)), State::established);
  EXPECT_EQ(b.state(address(11)), State::established);
  network.advance(seconds(600));
  EXPECT_EQ(a.view(address(12)).established_count, 1U);
}

TEST_F(Session, StrangersAreRefused) {
  start();
  EXPECT_FALSE(network.script(address(66)).call(kUs));
}

// ------------------------------------------------------------------------------------------------------------ operator

TEST_F(Session, ShutdownSaysWhyAndStays) {
  establish();
  bgp::NeighborConfig config = node->view(kThem).config;
  config.shutdown = true;
  config.shutdown_message = "until noon";
  ASSERT_EQ((*node)->set_neighbor(config), "");
  network.settle();
  const auto messages = them.messages();
  ASSERT_EQ(messages.size(), 1U);
  EXPECT_EQ(octets::text(messages[0]), octets::text(octets::message(3, "06 02 0a 756e74696c206e6f6f6e")));
  network.advance(std::chrono::hours(1));
  EXPECT_EQ(state(), State::idle);
  EXPECT_FALSE(them.called());
  EXPECT_FALSE(them.call(kUs));
  config.shutdown = false;
  ASSERT_EQ((*node)->set_neighbor(config), "");
  network.advance(seconds(2));
  EXPECT_TRUE(them.called());
}

TEST_F(Session, ChangesTouchWhatTheyMust) {
  establish();
  bgp::NeighborConfig config = node->view(kThem).config;
  config.description = "a colleague";
  config.connect_retry = 99;
  config.maximum_prefix.limit = 5;
  ASSERT_EQ((*node)->set_neighbor(config), "");
  network.settle();
  EXPECT_EQ(them.heard(), "");
  EXPECT_EQ(state(), State::established);
  config.hold_time = 30;
  ASSERT_EQ((*node)->set_neighbor(config), "");
  network.settle();
  EXPECT_EQ(them.heard(), "NOTIFICATION 6/6");
  network.advance(seconds(2));
  them.take_call();
  EXPECT_EQ(them.heard(), "OPEN");
  config.hold_time = 2;
  EXPECT_NE((*node)->set_neighbor(config), "");
  EXPECT_EQ(node->view(kThem).config.hold_time, 30);
}

TEST_F(Session, RemovalResetAndStop) {
  establish();
  ASSERT_TRUE((*node)->clear(kThem, bgp::ClearKind::hard, "spring cleaning"));
  network.settle();
  EXPECT_EQ(them.heard(), "NOTIFICATION 6/4");
  network.advance(seconds(2));
  them.take_call();
  them.establish(world::open_of(kThem));
  them.heard();
  ASSERT_TRUE((*node)->remove_neighbor(kThem));
  network.settle();
  EXPECT_EQ(them.heard(), "NOTIFICATION 6/3");
  EXPECT_FALSE((*node)->neighbor(kThem).has_value());
  EXPECT_TRUE(node->options.empty());
  establish();
  (*node)->stop(bgp::StopKind::shutdown, "bye");
  network.advance(seconds(100));
  EXPECT_EQ(them.heard(), "NOTIFICATION 6/2");
  EXPECT_FALSE(them.called());
  establish();
  (*node)->stop(bgp::StopKind::restart);
  network.settle();
  EXPECT_EQ(them.heard(), "");
  EXPECT_TRUE(them.closed());
}

TEST_F(Session, OptionsThatTheSystemLacksKeepItIdleWithTheirWords) {
  bgp::SpeakerConfig config{.local_as = 65000, .router_id = kUs};
  node = &network.node(kUs, config);
  node->socket_trouble = "no TCP MD5 signatures in this kernel";
  ASSERT_EQ((*node)->set_neighbor({.address = kThem, .remote_as = 65000, .password = "secret"}), "");
  network.settle();
  EXPECT_EQ(state(), State::idle);
  EXPECT_EQ(node->view(kThem).reason, "no TCP MD5 signatures in this kernel");
  EXPECT_TRUE(node->logged("no TCP MD5 signatures in this kernel"));
  EXPECT_FALSE(them.call(kUs));
  node->socket_trouble.clear();
  network.advance(seconds(70));
  EXPECT_TRUE(them.called());
  EXPECT_EQ(node->options[kThem].password, "secret");
}

TEST_F(Session, ConfigurationsThatCannotBe) {
  EXPECT_EQ(bgp::Speaker::check(bgp::SpeakerConfig{.local_as = 65000, .router_id = 1}), "");
  EXPECT_NE(bgp::Speaker::check(bgp::SpeakerConfig{.local_as = 0, .router_id = 1}), "");
  EXPECT_NE(bgp::Speaker::check(bgp::SpeakerConfig{.local_as = 23456, .router_id = 1}), "");
  EXPECT_NE(bgp::Speaker::check(bgp::SpeakerConfig{.local_as = 1, .router_id = 0}), "");
  const bgp::NeighborConfig good{.address = kThem, .remote_as = 65000};
  EXPECT_EQ(bgp::Speaker::check(good), "");
  const auto with = [&good](auto change) {
    bgp::NeighborConfig config = good;
    change(config);
    return bgp::Speaker::check(config);
  };
  EXPECT_NE(with([](auto &c) { c.address = 0; }), "");
  EXPECT_NE(with([](auto &c) { c.remote_as = 0; }), "");
  EXPECT_NE(with([](auto &c) { c.hold_time = 1; }), "");
  EXPECT_NE(with([](auto &c) { c.password = std::string(81, 'x'); }), "");
  EXPECT_NE(with([](auto &c) { c.maximum_prefix = {.limit = 1, .warning_percent = 101}; }), "");
}

}  // namespace
