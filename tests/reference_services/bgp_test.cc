// Route distinguishers, MDT SAFI messages in both directions.
#include <cstring>

#include "platform/bgp.h"

#include "platform/reference/bgp.h"
#include "platform/reference/l3vm.h"
#include "platform/reference/module.h"
#include "platform/reference/testing/runtime.h"
#include "tests/reference_services/services_test.h"

namespace {

using Texts = std::vector<std::string>;

class BgpTest : public ServicesTest {
 public:
  void SetUp() override {
    ServicesTest::SetUp();
    payloads.clear();
    ref::Module module = ref::module();
    module.process_msg = [](mts_message *msg) {
      const auto *bytes = static_cast<const uint8_t *>(mts_payload_get(msg));
      payloads.emplace_back(bytes, bytes + mts_payload_length_get(msg));
      return 1;
    };
    ref::set_module(module);
  }

  static ref::MdtSafi entry(uint32_t n) {
    ref::MdtSafi safi;
    safi.source = 0x0A000000 + n;
    safi.group = address("239.1.1.1");
    safi.rd[7] = 1;
    return safi;
  }

  // A local update as the module sends it; every word in it lies at an odd multiple of two.
  static void send_local(const ref::MdtSafi &safi, uint8_t add, uint8_t eor = 0, uint8_t end = 0) {
    std::vector<uint8_t> payload(BGP_MDT_SAFI_COUNT_SIZE + BGP_MDT_SAFI_ENTRY_SIZE);
    put_at(payload, 0, uint16_t{1});
    std::copy(safi.vrf_name.begin(), safi.vrf_name.end(), payload.begin() + 2);
    put_at(payload, 2 + BGP_MDT_SAFI_ENTRY_SOURCE, safi.source);
    std::copy(std::begin(safi.rd), std::end(safi.rd), payload.begin() + 2 + BGP_MDT_SAFI_ENTRY_RD);
    put_at(payload, 2 + BGP_MDT_SAFI_ENTRY_GROUP, safi.group);
    payload[2 + BGP_MDT_SAFI_ENTRY_ADD] = add;
    payload[2 + BGP_MDT_SAFI_ENTRY_EOR] = eor;
    payload[2 + BGP_MDT_SAFI_ENTRY_END_OF_LOCAL] = end;
    mts_send(pim_mts_q, MTS_DESTINATION_BGP, 0, MTS_OPC_MVPN_BGP_MDT_SAFI_LOCAL_UPDATE, payload.data(),
             static_cast<uint32_t>(payload.size()), 0, 0, 0);
    ref::settle();
  }

  static uint16_t count_of(const std::vector<uint8_t> &payload) {
    uint16_t count;
    std::memcpy(&count, payload.data(), sizeof count);
    return count;
  }

  static std::vector<std::vector<uint8_t>> payloads;
};
std::vector<std::vector<uint8_t>> BgpTest::payloads;

TEST_F(BgpTest, RouteDistinguishersPrintAndReadBack) {
  struct Case {
    const char *text;
    std::vector<uint8_t> bytes;
  };
  const Case cases[] = {
      {"65000:1", {0, 0, 0xFD, 0xE8, 0, 0, 0, 1}},
      {"65535:4294967295", {0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}},
      {"0:0", {0, 0, 0, 0, 0, 0, 0, 0}},
      {"10.0.0.1:5", {0, 1, 10, 0, 0, 1, 0, 5}},
      {"4200000000:1", {0, 2, 0xFA, 0x56, 0xEA, 0x00, 0, 1}},
      {"65536:65535", {0, 2, 0, 1, 0, 0, 0xFF, 0xFF}},
      {"0.65000:1", {0, 2, 0, 0, 0xFD, 0xE8, 0, 1}},  // a 4-byte AS that would fit into two bytes
      {"0x0003000102030405", {0, 3, 0, 1, 2, 3, 4, 5}},
  };
  for (const Case &c : cases) {
    EXPECT_STREQ(mvpn_bgp_print_rd(c.bytes.data()), c.text);
    const auto parsed = ref::bgp_parse_rd(c.text);
    ASSERT_TRUE(parsed) << c.text;
    EXPECT_EQ(*parsed, c.bytes) << c.text;
  }
}

TEST_F(BgpTest, BadRouteDistinguishersAreRefused) {
  for (const char *text :
       {"", ":", "65000", "65000:", ":1", "65000:4294967296", "65536:65536", "10.0.0.1:65536", "4294967296:1", "-1:1",
        "65000:1:1", "10.0.0:1", "1.65536:1", "65000:1 ", "0x00", "0x000000000000000g"})
    EXPECT_FALSE(ref::bgp_parse_rd(text)) << text;
}

TEST_F(BgpTest, ModuleAdvertisesAndWithdraws) {
  Texts changes;
  ref::set_bgp_local_sink([&changes](const ref::MdtSafi &safi, bool add) {
    changes.push_back((add ? "+" : "-") + safi.vrf_name + " " + mvpn_bgp_print_rd(safi.rd));
  });
  ref::MdtSafi safi = entry(1);
  safi.vrf_name = std::string(VRF_NAME_MAX, 'v');
  send_local(safi, 1);
  ASSERT_EQ(ref::bgp_local_entries().size(), 1u);
  EXPECT_EQ(ref::bgp_local_entries()[0].vrf_name, safi.vrf_name);
  EXPECT_EQ(ref::bgp_local_entries()[0].source, safi.source);
  send_local(ref::MdtSafi{}, 0, 0, 1);  // end mark of a whole set
  send_local(entry(2), 0);              // never advertised
  EXPECT_EQ(ref::bgp_local_entries().size(), 1u);
  send_local(safi, 0);
  EXPECT_TRUE(ref::bgp_local_entries().empty());
  EXPECT_EQ(changes, (Texts{"+" + safi.vrf_name + " 0:1", "-" + safi.vrf_name + " 0:1"}));
  send_local(safi, 1);
  changes.clear();
  ref::bgp_forget_local();  // the module has gone
  EXPECT_TRUE(ref::bgp_local_entries().empty());
  EXPECT_EQ(changes, (Texts{"-" + safi.vrf_name + " 0:1"}));
}

TEST_F(BgpTest, AVrfHasOneEntryAndNoneWithoutItsRouteDistinguisher) {
  Texts changes;
  ref::set_bgp_local_sink([&changes](const ref::MdtSafi &safi, bool add) {
    changes.push_back((add ? "+" : "-") + std::string(mvpn_bgp_print_rd(safi.rd)));
  });
  ref::create_vrf("red", 7, 7);
  ref::MdtSafi first = entry(1), second = entry(1);
  first.vrf_name = second.vrf_name = "red";
  second.rd[7] = 2;
  ref::bgp_set_rd("red", first.rd, false);
  send_local(first, 1);
  send_local(second, 1);
  EXPECT_EQ(std::exchange(changes, {}), (Texts{"+0:1", "-0:1", "+0:2"}));
  send_local(first, 0);
  EXPECT_EQ(std::exchange(changes, {}), (Texts{"-0:2"}));
  // A module that left the VRF before it heard of the change withdraws nothing.
  send_local(first, 1);
  ref::bgp_set_rd("red", first.rd, true);
  ref::bgp_set_rd("red", second.rd, true);
  EXPECT_EQ(std::exchange(changes, {}), (Texts{"+0:1", "-0:1"}));
  send_local(second, 1);
  ASSERT_TRUE(ref::delete_vrf("red"));
  EXPECT_EQ(std::exchange(changes, {}), (Texts{"+0:2", "-0:2"}));
  EXPECT_TRUE(ref::bgp_local_entries().empty());
}

TEST_F(BgpTest, CountBeyondThePayloadIsClipped) {
  std::vector<uint8_t> payload(BGP_MDT_SAFI_COUNT_SIZE + BGP_MDT_SAFI_ENTRY_SIZE);
  put_at(payload, 0, uint16_t{0xFFFF});
  payload[2 + BGP_MDT_SAFI_ENTRY_ADD] = 1;
  for (const size_t size : {payload.size(), payload.size() - 1, size_t{1}})
    mts_send(pim_mts_q, MTS_DESTINATION_BGP, 0, MTS_OPC_MVPN_BGP_MDT_SAFI_LOCAL_UPDATE, payload.data(),
             static_cast<uint32_t>(size), 0, 0, 0);
  ref::settle();
  EXPECT_EQ(ref::bgp_local_entries().size(), 1u);
}

TEST_F(BgpTest, RemoteEntriesTravelInMessagesOfAHundred) {
  std::vector<ref::MdtSafi> entries;
  for (uint32_t n = 0; n < 201; n++) entries.push_back(entry(n));
  ref::bgp_add_remote(entries);
  EXPECT_TRUE(payloads.empty());
  ref::settle();
  ASSERT_EQ(payloads.size(), 3u);
  EXPECT_EQ(count_of(payloads[1]), 100u);
  EXPECT_EQ(payloads[1].size(), 5602u);
  EXPECT_EQ(count_of(payloads[2]), 1u);
  EXPECT_EQ(payloads[2].size(), 58u);
  EXPECT_EQ(payloads[2][2 + BGP_MDT_SAFI_ENTRY_ADD], 1);

  payloads.clear();
  send_local(ref::MdtSafi{}, 1, 1);  // the module asks for the whole set
  ASSERT_EQ(payloads.size(), 4u);
  EXPECT_EQ(payloads[3].size(), 58u);
  EXPECT_EQ(payloads[3][2 + BGP_MDT_SAFI_ENTRY_EOR], 1);
  EXPECT_EQ(payloads[3][2 + BGP_MDT_SAFI_ENTRY_ADD], 0) << "the mark would be stored as an entry";
  EXPECT_TRUE(ref::bgp_local_entries().empty());

  payloads.clear();
  ref::bgp_withdraw_remote({entries[5]});
  ref::settle();
  EXPECT_EQ(payloads.at(0)[2 + BGP_MDT_SAFI_ENTRY_ADD], 0);
  EXPECT_EQ(ref::bgp_remote_entries().size(), 200u);
}

// A host's table of entries 0 to `held` - 1.
class Table : public ref::RemoteTable {
 public:
  explicit Table(uint32_t count) : held(count) { ref::set_bgp_remote_table(this); }
  ~Table() override { ref::set_bgp_remote_table(nullptr); }
  size_t size() const override { return held; }
  bool holds(const ref::MdtSafi &entry) const override { return entry.source - 0x0A000000 < held; }
  void visit(const std::function<void(const ref::MdtSafi &)> &visitor) const override {
    for (uint32_t n = held; n-- > 0;) visitor(BgpTest::entry(n));
  }
  uint32_t held;
};

TEST_F(BgpTest, EntriesBesideTheHostsTable) {
  Table table(3);
  const auto remote = [] {
    std::string text;
    for (const ref::MdtSafi &entry : ref::bgp_remote_entries()) text += std::to_string(entry.source & 0xFF) + " ";
    EXPECT_EQ(ref::bgp_remote_count(), static_cast<size_t>(std::count(text.begin(), text.end(), ' '))) << text;
    return text;
  };
  EXPECT_EQ(remote(), "0 1 2 ");
  ref::bgp_add_remote({entry(7), entry(2)});
  ref::bgp_withdraw_remote({entry(1), entry(9)});
  EXPECT_EQ(remote(), "0 2 7 ");
  EXPECT_TRUE(ref::bgp_is_remote(entry(7)));
  EXPECT_FALSE(ref::bgp_is_remote(entry(1)));
  ASSERT_EQ(ref::bgp_added_entries().size(), 1u);
  EXPECT_EQ(ref::bgp_added_entries()[0].source, entry(7).source);
  // Each back to where the table has it.
  ref::bgp_withdraw_remote({entry(7)});
  ref::bgp_add_remote({entry(1)});
  EXPECT_EQ(remote(), "0 1 2 ");
  // What the table does later counts.
  ref::bgp_withdraw_remote({entry(2)});
  ref::bgp_add_remote({entry(3)});
  table.held = 4;
  ref::bgp_remote_table_changed(std::vector{entry(3)}, true);
  EXPECT_EQ(remote(), "0 1 3 ");
  EXPECT_TRUE(ref::bgp_added_entries().empty());
  table.held = 2;
  ref::bgp_remote_table_changed(std::vector{entry(3), entry(2)}, false);
  EXPECT_EQ(remote(), "0 1 ");
}

TEST_F(BgpTest, NamesAreTerminatedWhereThereIsRoom) {
  const uint8_t rd[ROUTE_DISTINGUISHER_SIZE] = {0, 0, 0xFD, 0xE8, 0, 0, 0, 1};
  ref::bgp_set_rd(std::string(40, 'v'), rd, true);
  ref::bgp_set_update_source(std::string(50, 'i'), true);
  ref::settle();
  ASSERT_EQ(payloads.size(), 2u);
  ASSERT_EQ(payloads[0].size(), size_t{BGP_RD_NOTIFY_SIZE});
  EXPECT_EQ(payloads[0][VRF_NAME_MAX], 0);
  EXPECT_EQ(payloads[1].size(), size_t{BGP_UPDATE_SOURCE_NAME_SIZE});
  char name[BGP_UPDATE_SOURCE_NAME_SIZE + 1] = {};
  name[BGP_UPDATE_SOURCE_NAME_SIZE] = '!';
  bgp_mvpn_get_update_source(name, BGP_UPDATE_SOURCE_NAME_SIZE);
  EXPECT_EQ(std::string(name, sizeof name), std::string(40, 'i') + "!");
  ref::bgp_set_update_source("", false);
  name[0] = 'x';
  bgp_mvpn_get_update_source(name, BGP_UPDATE_SOURCE_NAME_SIZE);
  EXPECT_EQ(name[0], 'x') << "left alone when there is none";
}

}  // namespace
