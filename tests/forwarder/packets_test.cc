// The forwarder without a system: packets, flows, memberships, what is held.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

#include "forwarder/flow_table.h"
#include "forwarder/memberships.h"
#include "forwarder/packet.h"
#include "forwarder/state.h"
#include "tests/forwarder/bytes.h"

namespace forwarder {
namespace {

constexpr uint32_t kOwn = 0x0A000001, kPeer = 0x0A000002;                // 10.0.0.1, .2
constexpr uint32_t kDefaultGroup = 0xEF010101, kDataGroup = 0xEF010800;  // 239.1.1.1, 239.1.8.0
constexpr uint32_t kSource = 0xC0A8010A, kGroup = 0xE8010101;            // 192.168.1.10, 232.1.1.1

Bytes customer(uint8_t tos = 0, size_t payload = 8) { return ipv4(kSource, kGroup, 17, Bytes(payload), tos); }

TEST(OuterHeader, CarriesWhatThePolicySays) {
  struct Case {
    OuterPolicy policy;
    uint8_t inner_tos, inner_fragment;
    uint8_t tos, fragment;
  };
  const Case cases[] = {
      {{64, {}, DontFragment::copy}, 0xB9, 0x40, 0xB9, 0x40},
      {{64, {}, DontFragment::copy}, 0x00, 0x00, 0x00, 0x00},
      {{1, uint8_t{0xC3}, DontFragment::clear}, 0x02, 0x40, 0xC2, 0x00},  // congestion bits are always the customer's
      {{255, uint8_t{0x00}, DontFragment::set},
       0xFC,
       0x20,
       0x00,
       0x40},  // fragments of customers are whole to the core
  };
  for (const Case &item : cases) {
    Bytes inner = customer(item.inner_tos);
    inner[6] = item.inner_fragment;
    Bytes packet(kOuterSize);
    OuterHeader(kOwn, kDataGroup, item.policy).write(packet.data(), inner.data(), inner.size(), 0x1234);
    EXPECT_EQ(packet[1], item.tos);
    EXPECT_EQ(packet[6], item.fragment);
    EXPECT_EQ(packet[8], item.policy.ttl);
    EXPECT_EQ(checksum(std::span(packet).first(20)), 0);
    packet.insert(packet.end(), inner.begin(), inner.end());
    CorePacket decoded;
    ASSERT_FALSE(decapsulate(packet, false, &decoded).has_value());
    EXPECT_EQ(decoded.source, kOwn);
    EXPECT_EQ(decoded.group, kDataGroup);
    EXPECT_TRUE(std::equal(decoded.datagram.begin(), decoded.datagram.end(), inner.begin(), inner.end()));
  }
}

TEST(Decapsulation, DropsWhatIsNoCorePacketAndSaysWhy) {
  using Change = void (*)(Bytes &);
  const struct {
    const char *what;
    Change change;
    Drop reason;
  } cases[] = {
      {"empty", [](Bytes &b) { b.clear(); }, Drop::too_short},
      {"half an outer header", [](Bytes &b) { b.resize(19); }, Drop::too_short},
      {"an outer length beyond the bytes", [](Bytes &b) { store16(b, 2, 1000); }, Drop::too_short},
      {"an outer length below its header", [](Bytes &b) { store16(b, 2, 19); }, Drop::too_short},
      {"a header length of 16", [](Bytes &b) { b[0] = 0x44; }, Drop::too_short},
      {"an outer header without GRE behind it", [](Bytes &b) { store16(b, 2, 23); }, Drop::too_short},
      {"GRE with nothing in it", [](Bytes &b) { store16(b, 2, 24); }, Drop::too_short},
      {"half an inner header", [](Bytes &b) { store16(b, 2, 43); }, Drop::too_short},
      {"an inner length beyond the packet", [](Bytes &b) { store16(b, 26, 29); }, Drop::too_short},
      {"an inner header beyond its length", [](Bytes &b) { b[24] = 0x4F; }, Drop::too_short},
      {"another protocol than GRE", [](Bytes &b) { b[9] = 4; }, Drop::not_ipv4},
      {"GRE for IPv6", [](Bytes &b) { store16(b, 22, 0x86DD); }, Drop::not_ipv4},
      {"IPv6 under the name of IPv4", [](Bytes &b) { b[24] = 0x60; }, Drop::not_ipv4},
      {"a checksum", [](Bytes &b) { b[20] = 0x80; }, Drop::gre_options},
      {"a key", [](Bytes &b) { b[20] = 0x20; }, Drop::gre_options},
      {"a sequence number", [](Bytes &b) { b[20] = 0x10; }, Drop::gre_options},
      {"version 1", [](Bytes &b) { b[21] = 1; }, Drop::gre_options},
  };
  for (const auto &item : cases) {
    Bytes packet = core_packet(kPeer, kDefaultGroup, customer());
    item.change(packet);
    CorePacket decoded;
    const auto reason = decapsulate(packet, false, &decoded);
    ASSERT_TRUE(reason.has_value()) << item.what;
    EXPECT_EQ(*reason, item.reason) << item.what;
  }
  Bytes whole = core_packet(kPeer, kDefaultGroup, customer());
  CorePacket decoded;
  EXPECT_EQ(decapsulate(whole, true, &decoded), Drop::too_big);
}

TEST(Decapsulation, TakesOptionsAndPaddingOfTheOuterHeader) {
  Bytes packet = core_packet(kPeer, kDefaultGroup, customer());
  packet.insert(packet.begin() + 20, {1, 1, 1, 1});
  packet[0] = 0x46;
  store16(packet, 2, static_cast<uint32_t>(packet.size()));
  packet.insert(packet.end(), 7, 0xEE);
  CorePacket decoded;
  ASSERT_FALSE(decapsulate(packet, false, &decoded).has_value());
  EXPECT_EQ(decoded.datagram.size(), customer().size());
}

TEST(Congestion, IsHandedOnWithARightChecksum) {
  for (const uint8_t tos : {0x01, 0x02, 0x03, 0xB9, 0xBA}) {
    Bytes inner = customer(tos);
    ASSERT_TRUE(mark_congestion(inner));
    EXPECT_EQ(inner[1], tos | 0x03);
    EXPECT_EQ(checksum(std::span(inner).first(20)), 0) << unsigned{tos};
  }
  Bytes unaware = customer(0xB8);
  EXPECT_FALSE(mark_congestion(unaware));
}

TEST(Fragments, CoverThePacketOnce) {
  Bytes inner = customer(0, 3000);
  Bytes packet(kOuterSize);
  OuterHeader(kOwn, kDefaultGroup, {}).write(packet.data(), inner.data(), inner.size(), 7);
  packet.insert(packet.end(), inner.begin(), inner.end());
  for (size_t i = 44; i < packet.size(); i++) packet[i] = static_cast<uint8_t>(i * 31 >> 3);
  ASSERT_TRUE(may_be_cut(packet));
  Bytes joined(packet.size() - 20);
  const auto parts = cut(packet, 1500);
  for (size_t i = 0; i < parts.size(); i++) {
    EXPECT_LE(parts[i].size(), 1500u);
    EXPECT_EQ(parts[i].size(), size_t{parts[i][2]} << 8 | parts[i][3]);
    EXPECT_EQ(checksum(std::span(parts[i]).first(20)), 0);
    const uint32_t fragment = uint32_t{parts[i][6]} << 8 | parts[i][7];
    EXPECT_EQ((fragment & 0x2000) != 0, i + 1 < parts.size());
    std::copy(parts[i].begin() + 20, parts[i].end(), joined.begin() + (fragment & 0x1FFF) * 8);
  }
  EXPECT_TRUE(std::equal(joined.begin(), joined.end(), packet.begin() + 20));
  packet[6] = 0x40;
  EXPECT_FALSE(may_be_cut(packet));
}

// Against a plain map, with keys that collide often.
TEST(FlowTable, AgreesWithAMapUnderRandomChanges) {
  FlowTable table;
  std::map<std::pair<uint32_t, uint32_t>, uint16_t> model;
  std::mt19937 random(1);
  for (int step = 0; step < 200'000; step++) {
    const uint32_t source = random() % 64, group = kGroup + random() % 64;
    if (random() % 2 == 0) {
      const auto index = static_cast<uint16_t>(random() % 1024);
      table.insert(source, group).index = index;
      model[{source, group}] = index;
    } else {
      EXPECT_EQ(table.erase(source, group), model.erase({source, group}) != 0);
    }
    const uint32_t probe_source = random() % 64, probe_group = kGroup + random() % 64;
    const auto expected = model.find({probe_source, probe_group});
    const Flow *found = table.find(probe_source, probe_group);
    ASSERT_EQ(found != nullptr, expected != model.end());
    if (found != nullptr) {
      ASSERT_EQ(found->index, expected->second);
    }
    ASSERT_EQ(table.size(), model.size());
  }
}

// Carries the plan's steps out as a kernel would, and compares with the wishes.
TEST(Memberships, StandWhereTheKernelTakesThem) {
  constexpr size_t limit = 8;
  MembershipPlan plan(limit);
  std::set<Membership> wishes;
  std::map<size_t, std::set<Membership>> kernel;  // by socket
  std::mt19937 random(2);
  for (int step = 0; step < 20'000; step++) {
    const Membership wish{static_cast<uint32_t>(kDataGroup + random() % 16), static_cast<uint32_t>(random() % 4),
                          static_cast<int>(random() % 2)};
    const bool want = random() % 2 == 0;
    for (const MembershipPlan::Step &done : want ? plan.want(wish) : plan.drop(wish)) {
      std::set<Membership> &socket = kernel[done.socket];
      if (done.join)
        ASSERT_TRUE(socket.insert(done.membership).second);
      else
        ASSERT_EQ(socket.erase(done.membership), 1u);
    }
    if (want)
      wishes.insert(wish);
    else
      wishes.erase(wish);
    ASSERT_EQ(plan.size(), wishes.size());
  }
  std::set<Membership> joined;
  for (const auto &[socket, memberships] : kernel) joined.insert(memberships.begin(), memberships.end());
  for (const Membership &wish : wishes) {
    const bool any = wishes.contains({wish.group, 0, wish.interface});
    EXPECT_EQ(joined.contains(wish), wish.source == 0 || !any);
  }
  for (const Membership &membership : joined) EXPECT_TRUE(wishes.contains(membership));
}

class StateTest : public testing::Test {
 protected:
  void SetUp() override {
    state_.begin_session();
    red();
  }
  void red() {
    ASSERT_EQ(state_.put_vrf("red", "red"), "");
    ASSERT_EQ(state_.put_tunnel("red", {"mti2", kOwn, kDefaultGroup, 1376, true}), "");
    ASSERT_EQ(state_.put_encapsulation("red", 1, kDefaultGroup, kOwn), "");
    ASSERT_EQ(state_.put_core_route({kPeer, kDefaultGroup}, "red"), "");
  }
  uint32_t group_of(const Bytes &datagram) {
    const Encapsulation *chosen = state_.choose(vrf(), datagram);
    return chosen == nullptr ? 0 : chosen->group;
  }
  Vrf &vrf() { return *state_.find_vrf("red"); }
  uint64_t dropped(const DropCounters &counters, Drop reason) { return counters[static_cast<size_t>(reason)]; }
  bool accepted(Bytes packet) {
    std::span<uint8_t> datagram;
    return state_.accept(packet, false, &datagram) != nullptr;
  }

  std::vector<CoreKey> joined_, left_;
  std::string passed_;
  State state_{{[](Vrf &) {}, [](Vrf &) {}, [](Vrf &) {},
                [this](const CoreKey &key, bool present) { (present ? joined_ : left_).push_back(key); },
                [this](const CoreKey &, const Vrf &from, const Vrf &to) { passed_ += from.name + ">" + to.name; }}};
};

TEST_F(StateTest, FlowsTakeTheirIndexAndTheRestTheDefault) {
  EXPECT_EQ(group_of(customer()), kDefaultGroup);
  ASSERT_EQ(state_.put_encapsulation("red", 2, kDataGroup, kOwn), "");
  ASSERT_EQ(state_.put_flow("red", kSource, kGroup, 2), "");
  EXPECT_EQ(group_of(customer()), kDataGroup);
  EXPECT_EQ(group_of(ipv4(kSource, kGroup + 1, 17, Bytes(8))), kDefaultGroup);
  state_.remove_encapsulation("red", 2);
  EXPECT_EQ(group_of(customer()), kDefaultGroup) << "an index that stands for nothing";
  state_.remove_encapsulation("red", 1);
  EXPECT_EQ(group_of(customer()), 0u);
  EXPECT_EQ(dropped(vrf().drops, Drop::no_encapsulation), 1u);
  EXPECT_EQ(vrf().flows.find(kSource, kGroup)->packets, 2u);
  EXPECT_EQ(vrf().unlisted.packets, 2u);
}

TEST_F(StateTest, TakesFromTheCoreWhatTheRoutesSay) {
  ASSERT_EQ(state_.put_core_route({0, kDataGroup}, "red"), "");
  const Bytes own_core = core_packet(kOwn, kDefaultGroup, customer());
  EXPECT_TRUE(accepted(core_packet(kPeer, kDefaultGroup, customer())));
  EXPECT_TRUE(accepted(core_packet(kPeer + 7, kDataGroup, customer()))) << "any source";
  EXPECT_TRUE(accepted(core_packet(kPeer, kDefaultGroup, ipv4(kPeer, kOwn, 103, Bytes(8))))) << "unicast to this PE";
  const struct {
    Bytes packet;
    Drop reason;
    bool of_vrf;
  } cases[] = {
      {core_packet(kPeer + 7, kDefaultGroup, customer()), Drop::unknown_group, false},
      {core_packet(kPeer, kOwn, customer()), Drop::unknown_group, false},
      {own_core, Drop::own_source, false},
      {core_packet(kPeer, kDefaultGroup, own_core), Drop::looped, true},
      {core_packet(kPeer, kDefaultGroup, core_packet(kPeer, kDefaultGroup, customer())), Drop::looped, true},
      {core_packet(kPeer, kDefaultGroup, ipv4(kSource, kPeer, 17, Bytes(8))), Drop::stray_unicast, true},
      {core_packet(kPeer, kDefaultGroup, customer(0x00), 0x03), Drop::congestion, true},
  };
  for (const auto &item : cases) {
    DropCounters &counters = item.of_vrf ? vrf().drops : state_.drops();
    const uint64_t before = dropped(counters, item.reason);
    EXPECT_FALSE(accepted(item.packet)) << drop_name(item.reason);
    EXPECT_EQ(dropped(counters, item.reason), before + 1) << drop_name(item.reason);
  }
  EXPECT_EQ(group_of(own_core), 0u) << "a core packet of ours that a VRF sends";
  EXPECT_EQ(dropped(vrf().drops, Drop::looped), 3u);
}

TEST_F(StateTest, ACoreRouteHasOneVrfAndPasses) {
  ASSERT_EQ(state_.put_vrf("blue", "blue"), "");
  ASSERT_EQ(state_.put_tunnel("blue", {"mti3", kOwn, kDataGroup, 1376, true}), "");
  ASSERT_EQ(state_.put_core_route({kPeer, kDefaultGroup}, "red"), "");
  EXPECT_EQ(passed_, "") << "it was red's already";
  ASSERT_EQ(state_.put_core_route({kPeer, kDefaultGroup}, "blue"), "");
  EXPECT_EQ(passed_, "red>blue");
  std::span<uint8_t> datagram;
  Bytes packet = core_packet(kPeer, kDefaultGroup, customer());
  EXPECT_EQ(state_.accept(packet, false, &datagram), state_.find_vrf("blue"));
  state_.remove_vrf("red");
  EXPECT_TRUE(left_.empty()) << "it is not red's any more";
  EXPECT_TRUE(accepted(core_packet(kPeer, kDefaultGroup, customer())));
}

TEST_F(StateTest, WhatNobodyClaimsIsSwept) {
  ASSERT_EQ(state_.put_encapsulation("red", 2, kDataGroup, kOwn), "");
  ASSERT_EQ(state_.put_flow("red", kSource, kGroup, 2), "");
  ASSERT_EQ(state_.put_flow("red", kSource, kGroup + 1, 2), "");
  ASSERT_EQ(state_.put_vrf("blue", "blue"), "");
  ASSERT_EQ(state_.put_core_route({kPeer, kDataGroup}, "blue"), "");
  state_.begin_session();
  EXPECT_EQ(group_of(customer()), kDataGroup) << "held while nobody has said anything";
  red();
  ASSERT_EQ(state_.put_encapsulation("red", 2, kDataGroup, kOwn), "");
  ASSERT_EQ(state_.put_flow("red", kSource, kGroup, 2), "");
  EXPECT_EQ(state_.sweep(), 3u) << "the second flow, blue, its route";
  EXPECT_EQ(group_of(customer()), kDataGroup);
  EXPECT_EQ(vrf().flows.size(), 1u);
  EXPECT_EQ(state_.flows(), 1u);
  EXPECT_EQ(state_.find_vrf("blue"), nullptr);
  EXPECT_EQ(left_.size(), 1u);
  EXPECT_EQ(state_.sweep(), 0u);
}

TEST_F(StateTest, UnclaimedFlowsDoNotFollowTheirIndexToAnotherGroup) {
  ASSERT_EQ(state_.put_encapsulation("red", 2, kDataGroup, kOwn), "");
  ASSERT_EQ(state_.put_flow("red", kSource, kGroup, 2), "");
  state_.begin_session();
  ASSERT_EQ(state_.put_encapsulation("red", 2, kDataGroup, kOwn), "");
  EXPECT_EQ(group_of(customer()), kDataGroup) << "the same group";
  ASSERT_EQ(state_.put_encapsulation("red", 2, kDataGroup + 1, kOwn), "");
  EXPECT_EQ(group_of(customer()), kDefaultGroup);
}

TEST_F(StateTest, RefusesWhatIsOutOfRange) {
  EXPECT_NE(state_.put_vrf("", "red"), "");
  EXPECT_NE(state_.put_vrf("x", "../red"), "");
  EXPECT_NE(state_.put_vrf(std::string(100, 'x'), "red"), "");
  EXPECT_NE(state_.put_tunnel("green", {"mti2", kOwn, kDefaultGroup, 1376, true}), "");
  EXPECT_NE(state_.put_tunnel("red", {"a-name-that-is-too-long", kOwn, kDefaultGroup, 1376, true}), "");
  EXPECT_NE(state_.put_tunnel("red", {"mti2", kOwn, kDefaultGroup, 67, true}), "");
  EXPECT_NE(state_.put_encapsulation("red", 1024, kDataGroup, kOwn), "");
  EXPECT_NE(state_.put_encapsulation("red", 2, kOwn, kOwn), "");
  EXPECT_NE(state_.put_flow("red", kSource, kGroup, 0), "");
  EXPECT_NE(state_.put_flow("red", kSource, kOwn, 1), "");
  EXPECT_NE(state_.put_core_route({kPeer, kOwn}, "red"), "");
  EXPECT_EQ(state_.flows(), 0u);
}

}  // namespace
}  // namespace forwarder
