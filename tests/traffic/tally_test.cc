// What is counted as lost, repeated and late, and what is read out of a packet of the core.
#include "lab/traffic/tally.h"

#include <gtest/gtest.h>

#include "lab/traffic/test_packet.h"

namespace traffic {
namespace {

Tally arrived(const std::vector<uint64_t> &numbers) {
  Tally tally;
  int64_t at = 1000;
  for (const uint64_t number : numbers) {
    tally.arrived({.flow = 1, .number = number, .sent_ns = at}, at + 10);
    at += 10;
  }
  return tally;
}

struct StretchCase {
  const char *name;
  std::vector<uint64_t> numbers;
  uint64_t first, last;
  uint64_t received, lost, duplicates, reordered;
  int64_t gap;
  Ranges missing;
};

TEST(Tally, JudgesAStretchByItsOwnPackets) {
  const StretchCase cases[] = {
      {"all in order", {1, 2, 3}, 1, 3, 3, 0, 0, 0, 10, {}},
      {"one is missing", {1, 3}, 1, 3, 2, 1, 0, 0, 10, {{2, 2}}},
      {"the end is missing, as only the sender knows", {1, 2}, 1, 5, 2, 3, 0, 0, 10, {{3, 5}}},
      {"what was lost before the stretch does not count", {3, 4}, 3, 4, 2, 0, 0, 0, 10, {}},
      {"one comes twice", {1, 2, 2, 3}, 1, 3, 3, 0, 1, 0, 20, {}},
      {"one comes twice, outside the stretch", {1, 1, 2, 3}, 2, 3, 2, 0, 0, 0, 10, {}},
      {"a late one is not lost", {1, 3, 2}, 1, 3, 3, 0, 0, 1, 10, {}},
      {"a late one comes twice", {1, 3, 2, 2}, 1, 3, 3, 0, 1, 1, 10, {}},
      {"two holes", {1, 4, 7}, 1, 8, 3, 5, 0, 0, 10, {{2, 3}, {5, 6}, {8, 8}}},
      {"nothing came", {}, 1, 2, 0, 2, 0, 0, 0, {{1, 2}}},
  };
  for (const StretchCase &item : cases) {
    SCOPED_TRACE(item.name);
    const Stretch stretch = arrived(item.numbers).stretch(item.first, item.last);
    EXPECT_EQ(stretch.received, item.received);
    EXPECT_EQ(stretch.lost, item.lost);
    EXPECT_EQ(stretch.duplicates, item.duplicates);
    EXPECT_EQ(stretch.reordered, item.reordered);
    EXPECT_EQ(stretch.longest_gap_ns, item.gap);
    EXPECT_EQ(stretch.missing, item.missing);
  }
}

TEST(Tally, ANumberOutOfBoundsTakesNoMemory) {
  Tally tally = arrived({0, UINT64_MAX, kMostPackets + 1});
  EXPECT_EQ(tally.beyond(), 3U);
  EXPECT_EQ(tally.highest(), 0U);
}

// An outer header of 20 bytes, GRE, an inner header, UDP and a test packet.
std::vector<uint8_t> core_datagram(const TestPacket &packet, size_t payload = kTestPacketSize) {
  std::vector<uint8_t> bytes(20 + 4 + 20 + 8 + payload);
  const auto header = [&](size_t at, uint8_t protocol) {
    bytes[at] = 0x45;
    bytes[at + 2] = static_cast<uint8_t>((bytes.size() - at) >> 8);
    bytes[at + 3] = static_cast<uint8_t>(bytes.size() - at);
    bytes[at + 9] = protocol;
  };
  header(0, 47);
  const uint8_t addresses[] = {10, 0, 0, 1, 239, 1, 8, 7};
  std::copy(std::begin(addresses), std::end(addresses), bytes.begin() + 12);
  bytes[22] = 0x08;
  header(24, 17);
  encode(packet, std::span(bytes).subspan(52));
  return bytes;
}

TEST(CorePacket, IsReadDownToTheNumberOfTheCustomersPacket) {
  const auto packet = decode_core(core_datagram({.flow = 7, .number = 1ULL << 40, .sent_ns = 1234567890123456789}));
  ASSERT_TRUE(packet && packet->test);
  EXPECT_EQ(packet->source, 0x0A000001U);
  EXPECT_EQ(packet->group, 0xEF010807U);
  EXPECT_EQ(packet->test->flow, 7U);
  EXPECT_EQ(packet->test->number, 1ULL << 40);
  EXPECT_EQ(packet->test->sent_ns, 1234567890123456789);
}

TEST(CorePacket, WhatIsCutOrSomethingElseIsRefused) {
  const std::vector<uint8_t> whole = core_datagram({.flow = 1, .number = 1, .sent_ns = 1});
  for (size_t size = 0; size < whole.size(); ++size) {
    const auto packet = decode_core(std::span(whole).first(size));
    EXPECT_FALSE(packet) << size << " bytes of a longer datagram were taken";
  }
  struct Change {
    const char *name;
    size_t at;
    uint8_t value;
    bool outer_stands;  // the group is still told, though no test packet is in it
  };
  const Change changes[] = {
      {"IPv6", 0, 0x65, false},
      {"header shorter than the shortest", 0, 0x44, false},
      {"UDP in place of GRE", 9, 17, false},
      {"a later fragment", 7, 1, false},
      {"GRE with a key", 20, 0x20, false},
      {"GRE of another protocol", 23, 1, false},
      {"TCP inside", 33, 6, true},
      {"another payload", 52, 0, true},
  };
  for (const Change &change : changes) {
    std::vector<uint8_t> bytes = whole;
    bytes[change.at] = change.value;
    const auto packet = decode_core(bytes);
    EXPECT_EQ(packet.has_value(), change.outer_stands) << change.name;
    if (packet) {
      EXPECT_FALSE(packet->test) << change.name;
    }
  }
}

}  // namespace
}  // namespace traffic
