// Messages against octets that were written by hand from the RFCs, both directions, and malformed ones against the
// NOTIFICATION or the treatment that each must get.
#include "bgp/message.h"

#include <gtest/gtest.h>

#include "tests/bgp/octets.h"

namespace {

using bgp::Octets;

constexpr bgp::OpenExpectation kExpected{65001, 65000, 0x0A000001};
const bgp::Rd kRd{0, 0, 0xFD, 0xE8, 0, 0, 0, 1};  // 65000:1
const bgp::Nlri kRoute{{kRd, 0x0A000002}, 0xEF010101};
constexpr char kRouteDigits[] = "80 0000fde800000001 0a000002 ef010101";

std::string printed(const std::optional<bgp::Notification> &notification) {
  if (!notification) return "none";
  const std::string codes =
      std::to_string(static_cast<int>(notification->code)) + "/" + std::to_string(notification->subcode);
  return notification->data.empty() ? codes : codes + " " + octets::text(notification->data);
}

// ------------------------------------------------------------------------------------------------------------- header

TEST(Header, WhatIsWrongWithIt) {
  struct Case {
    const char *name;
    Octets octets;
    size_t largest;
    const char *answer;
  };
  const auto header = [](size_t length, uint8_t type) {
    Octets octets(16, 0xFF);
    octets.insert(octets.end(), {static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length), type});
    return octets;
  };
  Octets marker = header(19, 4);
  marker[7] = 0xFE;
  const Case cases[] = {
      {"keepalive", header(19, 4), 4096, "none"},
      {"marker", marker, 4096, "1/1"},
      {"shorter than a header", header(18, 4), 4096, "1/2 0012"},
      {"longest update", header(4096, 2), 4096, "none"},
      {"longer than agreed", header(4097, 2), 4096, "1/2 1001"},
      {"extended update", header(65535, 2), 65535, "none"},
      {"an OPEN is never extended", header(4097, 1), 65535, "1/2 1001"},
      {"short OPEN", header(28, 1), 4096, "1/2 001c"},
      {"short UPDATE", header(22, 2), 4096, "1/2 0016"},
      {"short NOTIFICATION", header(20, 3), 4096, "1/2 0014"},
      {"KEEPALIVE with a body", header(20, 4), 4096, "1/2 0014"},
      {"ROUTE-REFRESH is judged by its decoder", header(22, 5), 4096, "none"},
      {"type 0", header(19, 0), 4096, "1/3 00"},
      {"type 6", header(19, 6), 4096, "1/3 06"},
  };
  for (const Case &c : cases) EXPECT_EQ(printed(bgp::decode_header(c.octets, c.largest).error), c.answer) << c.name;
}

// --------------------------------------------------------------------------------------------------------------- open

constexpr char kFullOpen[] =
    "04 5ba0 005a 0a000001  26  02 24"
    " 01 04 0001 00 42"                  // multiprotocol, IPv4 MDT
    " 01 04 0001 00 01"                  // multiprotocol, IPv4 unicast
    " 02 00"                             // route refresh
    " 06 00"                             // extended messages
    " 40 0a 8078 0001 42 80 0001 01 00"  // restarting, 120 s, MDT with forwarding, unicast without
    " 41 04 fa56ea00"                    // AS 4200000000
    " 46 00";                            // enhanced refresh

bgp::Open full_open() {
  bgp::Open open{4200000000, 90, 0x0A000001, {}};
  open.capabilities.families = {bgp::kMdt, bgp::kIpv4Unicast};
  open.capabilities.route_refresh = true;
  open.capabilities.extended_messages = true;
  open.capabilities.restart = bgp::GracefulRestart{true, false, 120, {{bgp::kMdt, true}, {bgp::kIpv4Unicast, false}}};
  open.capabilities.four_octet_as = 4200000000;
  open.capabilities.enhanced_refresh = true;
  return open;
}

TEST(Open, EveryCapabilityBothWays) {
  Octets out;
  bgp::encode_open(full_open(), out);
  EXPECT_EQ(octets::text(out), octets::text(octets::message(1, kFullOpen)));
  const auto decoded = bgp::decode_open(octets::of(kFullOpen), {4200000000, 65000, 0x0A000009});
  ASSERT_EQ(printed(decoded.error), "none");
  EXPECT_EQ(decoded.value, full_open());
}

TEST(Open, PlainAndOddButWellFormed) {
  const auto plain = bgp::decode_open(octets::of("04 fde9 0000 0a000002 00"), kExpected);
  ASSERT_EQ(printed(plain.error), "none");
  EXPECT_EQ(plain.value, (bgp::Open{65001, 0, 0x0A000002, {}}));
  // Two parameters, an unknown capability (9), a family named twice.
  const auto odd = bgp::decode_open(
      octets::of("04 fde9 005a 0a000002 15 02 0f 09 01 03 01 04 0001 00 42 01 04 0001 00 42 02 02 02 00"), kExpected);
  ASSERT_EQ(printed(odd.error), "none");
  EXPECT_EQ(odd.value.capabilities.others, (std::vector<uint8_t>{9}));
  EXPECT_EQ(odd.value.capabilities.families, (std::vector<bgp::Family>{bgp::kMdt}));
  EXPECT_TRUE(odd.value.capabilities.route_refresh);
  // Lengths of two octets (RFC 9072).
  const auto wide = bgp::decode_open(octets::of("04 fde9 005a 0a000002 ff ff 0005 02 0002 02 00"), kExpected);
  ASSERT_EQ(printed(wide.error), "none");
  EXPECT_TRUE(wide.value.capabilities.route_refresh);
}

TEST(Open, WhatIsRefused) {
  struct Case {
    const char *name, *body, *answer;
  };
  const Case cases[] = {
      {"version 3", "03 fde9 005a 0a000002 00", "2/1 0004"},
      {"another AS", "04 fdea 005a 0a000002 00", "2/2"},
      {"another AS in four octets", "04 fde9 005a 0a000002 08 02 06 41 04 00000001", "2/2"},
      {"AS 0", "04 0000 005a 0a000002 00", "2/2"},
      {"identifier 0", "04 fde9 005a 00000000 00", "2/3"},
      {"hold time 1", "04 fde9 0001 0a000002 00", "2/6"},
      {"hold time 2", "04 fde9 0002 0a000002 00", "2/6"},
      {"unknown parameter", "04 fde9 005a 0a000002 03 01 01 00", "2/4"},
      {"parameters beyond the message", "04 fde9 005a 0a000002 04 02 02", "2/0"},
      {"parameter beyond the list", "04 fde9 005a 0a000002 03 02 02 02", "2/0"},
      {"octets behind the list", "04 fde9 005a 0a000002 00 00", "2/0"},
      {"capability beyond the parameter", "04 fde9 005a 0a000002 04 02 02 41 04", "2/0"},
      {"four-octet AS of two octets", "04 fde9 005a 0a000002 06 02 04 41 02 fde9", "2/0"},
      {"restart without its time", "04 fde9 005a 0a000002 04 02 02 40 00", "2/0"},
      {"half a wide list", "04 fde9 005a 0a000002 ff ff 00", "2/0"},
  };
  for (const Case &c : cases)
    EXPECT_EQ(printed(bgp::decode_open(octets::of(c.body), kExpected).error), c.answer) << c.name;
  // Within one AS identifiers must differ; between ASes they may be equal (RFC 6286).
  const Octets same = octets::of("04 fde9 005a 0a000001 00");
  EXPECT_EQ(printed(bgp::decode_open(same, kExpected).error), "none");
  EXPECT_EQ(printed(bgp::decode_open(same, {65001, 65001, 0x0A000001}).error), "2/3");
}

// ------------------------------------------------------------------------------------------------------------- update

constexpr bgp::UpdateContext kInternal{true, true, 65000};
constexpr bgp::UpdateContext kExternal{false, true, 65001};
constexpr bgp::UpdateContext kExternalOld{false, false, 65001};

bgp::Attributes full_attributes() {
  bgp::Attributes attributes;
  attributes.origin = bgp::Origin::incomplete;
  attributes.as_path = {{bgp::SegmentType::as_sequence, {65001, 4200000000}}, {bgp::SegmentType::as_set, {7, 8}}};
  attributes.next_hop = 0x0A000002;
  attributes.med = 50;
  attributes.local_pref = 200;
  attributes.atomic_aggregate = true;
  attributes.aggregator = bgp::Aggregator{4200000000, 0x0A000003};
  attributes.communities = {0xFDE80001, 0xFFFFFF01};
  attributes.originator_id = 0x0A000004;
  attributes.cluster_list = {0x0A000005, 0x0A000006};
  attributes.extended_communities = {0x0002FDE800000001};
  attributes.large_communities = {{65000, 1, 2}};
  attributes.unknown = {{0xE0, 20, {1, 2, 3}}, {0xC0, 99, {}}};
  return attributes;
}

constexpr char kFullAttributes[] =
    "40 01 01 02"
    "40 02 14 02 02 0000fde9 fa56ea00 01 02 00000007 00000008"
    "80 04 04 00000032"
    "40 05 04 000000c8"
    "40 06 00"
    "c0 07 08 fa56ea00 0a000003"
    "c0 08 08 fde80001 ffffff01"
    "80 09 04 0a000004"
    "80 0a 08 0a000005 0a000006"
    "c0 10 08 0002fde800000001"
    "e0 14 03 010203"
    "c0 20 0c 0000fde8 00000001 00000002"
    "c0 63 00";

TEST(Update, EveryAttributeBothWays) {
  Octets attributes, out;
  bgp::encode_attributes(full_attributes(), kInternal, attributes);
  EXPECT_EQ(octets::text(attributes), octets::text(octets::of(kFullAttributes)));
  bgp::UpdateBuilder builder(out, bgp::kMessageMax, attributes, 0x0A000002);
  ASSERT_TRUE(builder.add(kRoute));
  builder.finish();
  const std::string reach = "90 0e 001a 0001 42 04 0a000002 00" + std::string(kRouteDigits);
  EXPECT_EQ(octets::text(out), octets::text(octets::message(2, "0000 0095" + reach + kFullAttributes)));

  bgp::Update update;
  ASSERT_EQ(printed(bgp::decode_update(bgp::View(out).subspan(19), kInternal, update)), "none");
  EXPECT_EQ(update.remark, "");
  EXPECT_EQ(update.attributes, full_attributes());
  ASSERT_EQ(update.reachable.size(), 1U);
  EXPECT_EQ(update.reachable[0], kRoute);
}

TEST(Update, OldSpeakersGetAsTransAndTheAs4Attributes) {
  bgp::Attributes attributes;
  attributes.as_path = {{bgp::SegmentType::as_sequence, {65001, 4200000000}}};
  attributes.aggregator = bgp::Aggregator{4200000000, 0x0A000003};
  Octets out;
  bgp::encode_attributes(attributes, kExternalOld, out);
  EXPECT_EQ(octets::text(out), octets::text(octets::of("40 01 01 00"
                                                       "40 02 06 02 02 fde9 5ba0"
                                                       "c0 07 06 5ba0 0a000003"
                                                       "c0 11 0a 02 02 0000fde9 fa56ea00"
                                                       "c0 12 08 fa56ea00 0a000003")));
}

// What arrives from a speaker with two-octet numbers: path, aggregator, AS4 path, AS4 aggregator, and what becomes of
// it.
TEST(Update, As4AttributesAreMerged) {
  struct Case {
    const char *name, *attributes;
    std::vector<bgp::AsSegment> path;
  };
  const auto sequence = bgp::SegmentType::as_sequence;
  const Case cases[] = {
      {"whole path", "40 02 06 02 02 fde9 5ba0 c0 11 0a 02 02 0000fde9 fa56ea00", {{sequence, {65001, 4200000000}}}},
      {"lead of the old part",
       "40 02 08 02 03 fde9 0007 5ba0 c0 11 06 02 01 fa56ea00",
       {{sequence, {65001, 7}}, {sequence, {4200000000}}}},
      {"longer than the path: ignored", "40 02 04 02 01 fde9 c0 11 0a 02 02 0000fde9 fa56ea00", {{sequence, {65001}}}},
      {"aggregated by an old speaker since: ignored",
       "40 02 06 02 02 fde9 5ba0 c0 07 06 0007 0a000003 c0 11 0a 02 02 0000fde9 fa56ea00",
       {{sequence, {65001, 23456}}}},
      {"malformed: dropped", "40 02 06 02 02 fde9 5ba0 c0 11 03 02 02 00", {{sequence, {65001, 23456}}}},
  };
  for (const Case &c : cases) {
    bgp::Update update;
    const std::string reach = "90 0e 001a 0001 42 04 0a000002 00" + std::string(kRouteDigits);
    const Octets body = octets::update_body(reach + "40 01 01 00" + c.attributes);
    ASSERT_EQ(printed(bgp::decode_update(body, kExternalOld, update)), "none") << c.name;
    EXPECT_EQ(update.attributes.as_path, c.path) << c.name;
    EXPECT_FALSE(update.as_withdraw) << c.name << update.remark;
  }
}

TEST(Update, WithdrawalsAndEndOfRib) {
  Octets out;
  bgp::UpdateBuilder builder(out, bgp::kMessageMax);
  ASSERT_TRUE(builder.add(kRoute));
  builder.finish();
  const std::string unreach = "90 0f 0014 0001 42" + std::string(kRouteDigits);
  EXPECT_EQ(octets::text(out), octets::text(octets::message(2, "0000 0018" + unreach)));
  bgp::Update update;
  ASSERT_EQ(printed(bgp::decode_update(bgp::View(out).subspan(19), kInternal, update)), "none");
  ASSERT_EQ(update.unreachable.size(), 1U);
  EXPECT_EQ(update.unreachable[0], kRoute);
  EXPECT_EQ(update.end_of_rib, std::nullopt);

  const struct {
    bgp::Family family;
    const char *body;
  } ends[] = {{bgp::kMdt, "0000 0006 80 0f 03 0001 42"}, {bgp::kIpv4Unicast, "0000 0000"}};
  for (const auto &end : ends) {
    out.clear();
    bgp::encode_end_of_rib(end.family, out);
    EXPECT_EQ(octets::text(out), octets::text(octets::message(2, end.body)));
    ASSERT_EQ(printed(bgp::decode_update(bgp::View(out).subspan(19), kInternal, update)), "none");
    EXPECT_EQ(update.end_of_rib, end.family);
  }
}

TEST(Update, PacksAsManyRoutesAsTheMessageTakes) {
  Octets attributes, out;
  bgp::encode_attributes({}, kInternal, attributes);
  for (const size_t largest : {bgp::kMessageMax, bgp::kExtendedMessageMax}) {
    out.clear();
    bgp::UpdateBuilder builder(out, largest, attributes, 1);
    size_t count = 0;
    while (builder.add(kRoute)) count++;
    builder.finish();
    EXPECT_LE(out.size(), largest);
    EXPECT_GT(out.size() + bgp::kNlriSize, largest);
    bgp::Update update;
    ASSERT_EQ(printed(bgp::decode_update(bgp::View(out).subspan(19), kInternal, update)), "none");
    EXPECT_EQ(update.reachable.size(), count);
  }
  bgp::Attributes huge;
  huge.communities.resize(1100, 7);
  attributes.clear();
  bgp::encode_attributes(huge, kInternal, attributes);
  out.clear();
  EXPECT_EQ(bgp::UpdateBuilder(out, bgp::kMessageMax, attributes, 1).room(), 0U);
}

// Attributes beside a valid route. `answer`: a NOTIFICATION, or "withdraw", "drop N", "ok".
TEST(Update, WhatIsWrongWithAnAttribute) {
  struct Case {
    const char *name;
    const bgp::UpdateContext &context;
    const char *attributes, *answer;
  };
  const Case cases[] = {
      {"well", kInternal, "40 01 01 00 40 02 00 40 05 04 00000064", "ok"},
      {"well, external", kExternal, "40 01 01 00 40 02 06 02 01 0000fde9", "ok"},
      {"ORIGIN of two octets", kInternal, "40 01 02 0000 40 02 00", "withdraw"},
      {"ORIGIN 3", kInternal, "40 01 01 03 40 02 00", "withdraw"},
      {"ORIGIN optional", kInternal, "c0 01 01 00 40 02 00", "withdraw"},
      {"no ORIGIN", kInternal, "40 02 00", "withdraw"},
      {"no AS_PATH", kInternal, "40 01 01 00", "withdraw"},
      {"AS_PATH with an empty segment", kInternal, "40 01 01 00 40 02 02 02 00", "withdraw"},
      {"AS_PATH overrun", kInternal, "40 01 01 00 40 02 05 02 02 000000", "withdraw"},
      {"AS_PATH with one octet left", kInternal, "40 01 01 00 40 02 07 02 01 0000fde9 02", "withdraw"},
      {"AS_PATH of a confederation", kInternal, "40 01 01 00 40 02 06 03 01 0000fde9", "withdraw"},
      {"AS 0 in AS_PATH", kInternal, "40 01 01 00 40 02 06 02 01 00000000", "withdraw"},
      {"external path of somebody else", kExternal, "40 01 01 00 40 02 06 02 01 00000007", "withdraw"},
      {"external path empty", kExternal, "40 01 01 00 40 02 00", "withdraw"},
      {"external path begins with a set", kExternal, "40 01 01 00 40 02 06 01 01 0000fde9", "withdraw"},
      {"NEXT_HOP of three octets", kInternal, "40 01 01 00 40 02 00 40 03 03 0a0000", "withdraw"},
      {"MED of three octets", kInternal, "40 01 01 00 40 02 00 80 04 03 000000", "withdraw"},
      {"LOCAL_PREF of five octets", kInternal, "40 01 01 00 40 02 00 40 05 05 0000000000", "withdraw"},
      {"LOCAL_PREF from outside", kExternal, "40 01 01 00 40 02 06 02 01 0000fde9 40 05 05 0000000000", "drop 1"},
      {"ATOMIC_AGGREGATE with a value", kInternal, "40 01 01 00 40 02 00 40 06 01 00", "drop 1"},
      {"AGGREGATOR of six octets", kInternal, "40 01 01 00 40 02 00 c0 07 06 000700000003", "drop 1"},
      {"AGGREGATOR AS 0", kInternal, "40 01 01 00 40 02 00 c0 07 08 00000000 0a000003", "drop 1"},
      {"no community", kInternal, "40 01 01 00 40 02 00 c0 08 00", "withdraw"},
      {"community and a half", kInternal, "40 01 01 00 40 02 00 c0 08 06 000000000000", "withdraw"},
      {"communities not transitive", kInternal, "40 01 01 00 40 02 00 80 08 04 00000001", "withdraw"},
      {"ORIGINATOR_ID of five", kInternal, "40 01 01 00 40 02 00 80 09 05 0000000000", "withdraw"},
      {"ORIGINATOR_ID from outside", kExternal, "40 01 01 00 40 02 06 02 01 0000fde9 80 09 05 0000000000", "drop 1"},
      {"CLUSTER_LIST of five", kInternal, "40 01 01 00 40 02 00 80 0a 05 0000000000", "withdraw"},
      {"CLUSTER_LIST from outside", kExternal, "40 01 01 00 40 02 06 02 01 0000fde9 80 0a 04 00000001", "drop 1"},
      {"extended community of four", kInternal, "40 01 01 00 40 02 00 c0 10 04 00000001", "withdraw"},
      {"large community of eight", kInternal, "40 01 01 00 40 02 00 c0 20 08 0000000000000001", "withdraw"},
      {"AS4_PATH from a new speaker", kInternal, "40 01 01 00 40 02 00 c0 11 06 02 01 0000fde9", "drop 1"},
      {"unknown well-known", kInternal, "40 01 01 00 40 02 00 40 63 01 07", "3/2 40630107"},
      {"unknown optional, not transitive", kInternal, "40 01 01 00 40 02 00 80 63 01 07", "ok"},
      {"the second of two counts for nothing", kInternal, "40 01 01 00 40 01 01 03 40 02 00", "drop 1"},
      {"two MP_REACH_NLRI", kInternal, "40 01 01 00 40 02 00 80 0e 09 0001 42 04 0a000002 00", "3/1"},
      {"attribute beyond the list", kInternal, "40 01 01 00 40 02 05 02", "withdraw"},
      {"half an attribute head", kInternal, "40 01 01 00 40 02 00 40", "withdraw"},
  };
  const std::string reach = "90 0e 001a 0001 42 04 0a000002 00" + std::string(kRouteDigits);
  for (const Case &c : cases) {
    bgp::Update update;
    const auto error = bgp::decode_update(octets::update_body(reach + c.attributes), c.context, update);
    std::string answer = printed(error);
    if (!error) {
      answer = update.as_withdraw     ? "withdraw"
               : update.discarded > 0 ? "drop " + std::to_string(update.discarded)
                                      : "ok";
      EXPECT_EQ(update.remark.empty(), answer == "ok") << c.name;
      EXPECT_EQ(update.reachable.size(), 1U) << c.name;
    }
    EXPECT_EQ(answer, c.answer) << c.name;
  }
}

TEST(Update, WhatIsWrongWithTheMessageOrItsRoutes) {
  struct Case {
    const char *name, *body, *answer;
  };
  const Case cases[] = {
      {"withdrawn routes beyond the message", "0002 0000", "3/1"},
      {"attributes beyond the message", "0000 0001", "3/1"},
      {"withdrawn prefix of 33 bits", "0001 21 0000", "3/10"},
      {"prefix beyond the message", "0000 0000 18 0a00", "3/10"},
      {"unicast routes are counted only", "0002 08 0a 0007 40 01 01 00 40 02 00 18 0a0000", "unicast 2"},
      {"broken list without a route", "0000 0003 40 01 01", "3/1"},
      {"broken attribute without a route", "0000 0004 40 01 01 03", "3/6 40010103"},
      {"MP_REACH_NLRI of four octets", "0000 0007 80 0e 04 0001 42 04", "3/9 800e0400014204"},
      {"next hop of 12 octets", "0000 0014 80 0e 11 0001 42 0c 000000000000000000000000 00",
       "3/9 800e110001420c00000000000000000000000000"},
      {"next hop beyond the attribute", "0000 0009 80 0e 06 0001 42 04 0a00", "3/9 800e06000142040a00"},
      {"route of 96 bits", "0000 0019 80 0e 16 0001 42 04 0a000002 00 60 0000fde800000001 0a000002",
       "3/9 800e16000142040a00000200600000fde8000000010a000002"},
      {"half a route", "0000 000d 80 0e 0a 0001 42 04 0a000002 00 80", "3/9 800e0a000142040a0000020080"},
      {"MP_UNREACH_NLRI of two octets", "0000 0005 80 0f 02 0001", "3/9 800f020001"},
      {"withdrawn route of 127 bits", "0000 0017 80 0f 14 0001 42 7f 0000fde800000001 0a000002 ef010101",
       "3/9 800f140001427f0000fde8000000010a000002ef010101"},
      {"another family is left alone", "0000 0009 80 0f 06 0002 01 203ffe", "unicast 0"},
  };
  for (const Case &c : cases) {
    bgp::Update update;
    const auto error = bgp::decode_update(octets::of(c.body), kInternal, update);
    const std::string answer = error ? printed(error) : "unicast " + std::to_string(update.unicast);
    EXPECT_EQ(answer, c.answer) << c.name;
    EXPECT_TRUE(update.reachable.empty()) << c.name;
  }
}

TEST(Update, NextHopsThatNobodyHasWithdrawTheRoutes) {
  for (const char *next_hop : {"00000000", "e0000001", "ffffffff"}) {
    bgp::Update update;
    const Octets body =
        octets::update_body("40 01 01 00 40 02 00 90 0e 001a 0001 42 04" + std::string(next_hop) + "00" + kRouteDigits);
    ASSERT_EQ(printed(bgp::decode_update(body, kInternal, update)), "none");
    EXPECT_TRUE(update.as_withdraw) << next_hop;
  }
}

// ------------------------------------------------------------------------------------- notification and route refresh

TEST(Notification, OctetsAndWords) {
  struct Case {
    bgp::Notification notification;
    const char *body, *words;
  };
  const Case cases[] = {
      {bgp::error(bgp::ErrorCode::hold_timer_expired, 0), "04 00", "Hold Timer Expired"},
      {bgp::error(bgp::ErrorCode::open, bgp::OpenError::bad_peer_as), "02 02", "OPEN Message Error, Bad Peer AS"},
      {bgp::error(bgp::ErrorCode::cease, bgp::Cease::maximum_prefixes, {0, 1, 66, 0, 0, 0, 9}), "06 01 00014200000009",
       "Cease, Maximum Number of Prefixes Reached"},
      {bgp::cease(bgp::Cease::administrative_shutdown, "caf\xc3\xa9"), "06 02 05 636166c3a9",
       "Cease, Administrative Shutdown: caf\xc3\xa9"},
      {bgp::cease(bgp::Cease::administrative_reset, "two\nlines"), "06 04 09 74776f0a6c696e6573",
       "Cease, Administrative Reset: two lines"},
      {bgp::error(bgp::ErrorCode::cease, 77), "06 4d", "Cease, subcode 77"},
      {bgp::error(static_cast<bgp::ErrorCode>(99), 0), "63 00", "Error code 99"},
  };
  for (const Case &c : cases) {
    Octets out;
    bgp::encode_notification(c.notification, bgp::kMessageMax, out);
    EXPECT_EQ(octets::text(out), octets::text(octets::message(3, c.body)));
    EXPECT_EQ(bgp::decode_notification(octets::of(c.body)).value, c.notification);
    EXPECT_EQ(bgp::describe(c.notification), c.words);
  }
  // A length that the message does not hold is no communication.
  EXPECT_EQ(bgp::describe(bgp::decode_notification(octets::of("06 02 09 6162")).value),
            "Cease, Administrative Shutdown");
  // Long texts are cut between characters, long quotations at the end of the message.
  const auto cut = bgp::cease(bgp::Cease::administrative_shutdown, std::string(254, 'x') + "\xc3\xa9");
  EXPECT_EQ(cut.data.size(), 255U);
  Octets out;
  bgp::encode_notification(bgp::error(bgp::ErrorCode::update, 9, Octets(5000, 1)), bgp::kMessageMax, out);
  EXPECT_EQ(out.size(), bgp::kMessageMax);
}

TEST(RouteRefresh, BothWaysAndWrong) {
  for (const auto kind : {bgp::RefreshKind::request, bgp::RefreshKind::begin, bgp::RefreshKind::end}) {
    Octets out;
    bgp::encode_route_refresh({bgp::kMdt, kind, true}, out);
    EXPECT_EQ(octets::text(out),
              octets::text(octets::message(5, "0001 0" + std::to_string(static_cast<int>(kind)) + " 42")));
    EXPECT_EQ(bgp::decode_route_refresh(out, true).value.kind, kind);
    EXPECT_EQ(bgp::decode_route_refresh(out, false).value.kind, bgp::RefreshKind::request);
  }
  EXPECT_FALSE(bgp::decode_route_refresh(octets::message(5, "0001 09 42"), true).value.known);
  const Octets wrong = octets::message(5, "0001 00 42 00");
  EXPECT_EQ(printed(bgp::decode_route_refresh(wrong, true).error), "7/1 " + octets::text(wrong));
}

TEST(Text, RouteDistinguishers) {
  EXPECT_EQ(bgp::to_string(kRd), "65000:1");
  EXPECT_EQ(bgp::to_string(bgp::Rd{0, 1, 10, 0, 0, 1, 0, 5}), "10.0.0.1:5");
  EXPECT_EQ(bgp::to_string(bgp::Rd{0, 2, 0xFA, 0x56, 0xEA, 0, 0, 1}), "4200000000:1");
  EXPECT_EQ(bgp::to_string(bgp::Rd{0, 2, 0, 0, 0, 7, 0, 1}), "0.7:1");
  EXPECT_EQ(bgp::to_string(bgp::Rd{0xFF, 0, 1, 2, 3, 4, 5, 6}), "0xff00010203040506");
}

}  // namespace
