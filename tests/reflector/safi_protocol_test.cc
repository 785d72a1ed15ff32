// Frames between a PE and the reflector: what is sent arrives, and what no sender sends is refused with a reason.
#include <gtest/gtest.h>

#include "reflector/safi_protocol.h"

namespace {

std::vector<uint8_t> without_length(const safi::Message &message) {
  const std::vector<uint8_t> frame = safi::encode(message);
  return {frame.begin() + safi::kLengthSize, frame.end()};
}

const safi::Entry entry{0x0A000002, {0, 0, 0, 1, 0, 0, 0, 1}, 0xEF010101};

TEST(SafiProtocol, AnUpdateArrivesAsItWasSent) {
  std::string error;
  const auto message = safi::decode(without_length(safi::Update{{{entry, true}, {entry, false}}}), &error);
  ASSERT_TRUE(message) << error;
  const auto &changes = std::get<safi::Update>(*message).changes;
  ASSERT_EQ(changes.size(), 2u);
  EXPECT_EQ(changes[0].entry, entry);
  EXPECT_TRUE(changes[0].add);
  EXPECT_EQ(changes[1].entry, entry);
  EXPECT_FALSE(changes[1].add);
}

TEST(SafiProtocol, MalformedUpdatesAreRefused) {
  const std::vector<uint8_t> good = without_length(safi::Update{{{entry, true}}});
  const struct {
    const char *name;
    size_t at;  // byte to change; the size: append one, 0: cut one off
    uint8_t value;
  } cases[] = {
      {"neither advertised nor withdrawn", good.size() - 1, 2},
      {"fewer entries than counted", 2, 2},
      {"more bytes than counted", good.size(), 0},
      {"fewer bytes than counted", 0, 0},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<uint8_t> bad = good;
    if (c.at == 0)
      bad.pop_back();
    else if (c.at == good.size())
      bad.push_back(c.value);
    else
      bad[c.at] = c.value;
    std::string error;
    EXPECT_FALSE(safi::decode(bad, &error));
    EXPECT_FALSE(error.empty());
  }
}

}  // namespace
