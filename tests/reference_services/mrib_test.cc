// Updates, acknowledgements, ownership and notifications of the MRIB.
#include "platform/mrib.h"

#include <array>
#include <map>

#include "platform/reference/im.h"
#include "platform/reference/module.h"
#include "platform/reference/mrib.h"
#include "platform/reference/testing/runtime.h"
#include "platform/reference/testing/services.h"
#include "tests/reference_services/services_test.h"

namespace {

using Texts = std::vector<std::string>;

class MribTest : public ServicesTest {
 protected:
  struct Entry {
    bool add;
    ip_addr_t source, group;
    uint32_t owner;
    im_iod_t mti = 0;
    ip_addr_t rpf = 0;
  };

  static std::vector<uint8_t> update_of(const std::vector<Entry> &entries) {
    std::vector<uint8_t> buffer(MRIB_UPDATE_HEADER_SIZE + entries.size() * MRIB_UPDATE_ENTRY_SIZE);
    for (size_t i = 0; i < entries.size(); i++) {
      const size_t at = MRIB_UPDATE_HEADER_SIZE + i * MRIB_UPDATE_ENTRY_SIZE;
      put_at(buffer, at + 0, uint32_t{1});
      put_at(buffer, at + 4, entries[i].source);
      put_at(buffer, at + 8, entries[i].group);
      buffer[at + 12] = entries[i].source != 0 ? 32 : MROUTE_ANY_SOURCE_LEN;
      buffer[at + 13] = 32;
      put_at(buffer, at + 16, entries[i].rpf);
      put_at(buffer, at + 24, uint32_t{entries[i].rpf != 0});
      put_at(buffer, at + 32, entries[i].owner);
      put_at(buffer, at + 40, entries[i].mti);
      buffer[at + 62] = entries[i].add ? 1 : 0;
      buffer[at + 72] = entries[i].mti != 0 ? 1 : 0;
    }
    return buffer;
  }

  int update(const std::vector<Entry> &entries, uint32_t xid = 1) {
    std::vector<uint8_t> buffer = update_of(entries);
    return mrib_mts_update_route(client, 1, buffer.data(), static_cast<uint32_t>(buffer.size()),
                                 static_cast<uint32_t>(entries.size()), xid, 0);
  }

  int encap(vrf_context_id_t context_id, uint16_t index, bool add) {
    std::vector<uint8_t> record(MRIB_ENCAP_RECORD_SIZE);
    record[36] = add ? 1 : 0;
    put_at(record, 40, context_id);
    put_at(record, 52, index);
    put_at(record, 56, address("239.1.1.1"));
    return mrib_update_mdt_encap_info(client, record.data(), 1, 1, 0);
  }

  const ip_addr_t g_ = address("239.1.1.1"), s_ = address("10.0.0.2");
};

TEST_F(MribTest, AcknowledgesFromTheMainLoop) {
  EXPECT_EQ(update({{true, s_, g_, 7}}, 0xAABBCCDE), 0);
  EXPECT_TRUE(told.empty());
  ref::settle();
  EXPECT_EQ(told, (Texts{"ack 2864434398"}));
  ref::set_mrib_acks(false);
  update({{true, s_, g_, 7}}, 2);
  ref::settle();
  EXPECT_EQ(told.size(), 1u);
  ref::set_mrib_acks(true);
  ref::settle();
  EXPECT_EQ(told.back(), "ack 2");
  EXPECT_EQ(ref::mrib_last_acked_xid(), 2u);
}

TEST_F(MribTest, RefusedUpdatesChangeNothing) {
  ref::mrib_refuse_updates(1);
  EXPECT_NE(update({{true, s_, g_, 7}}), 0);
  std::vector<uint8_t> buffer = update_of({{true, s_, g_, 7}});
  const auto size = static_cast<uint32_t>(buffer.size());
  EXPECT_NE(mrib_mts_update_route(client, 1, buffer.data(), size, 2, 1, 0), 0) << "count beyond the length";
  EXPECT_NE(mrib_mts_update_route(client, 1, buffer.data(), size - 1, 1, 1, 0), 0);
  EXPECT_NE(mrib_mts_update_route(nullptr, 1, buffer.data(), size, 1, 1, 0), 0);
  ref::settle();
  EXPECT_TRUE(told.empty());
  EXPECT_TRUE(ref::mrib_routes().empty());
  EXPECT_EQ(ref::mrib_updates_total(), 0u);
}

TEST_F(MribTest, AcknowledgementOfAFormerRegistrationIsDropped) {
  update({{true, s_, g_, 7}}, 5);
  EXPECT_NE(mrib_deregister(MRIB_CLIENT_NAME, 1), 0);
  EXPECT_EQ(mrib_deregister(MRIB_CLIENT_NAME, 1), 0) << "a second time";
  EXPECT_TRUE(ref::mrib_routes().empty());
  client = mrib_register(MRIB_CLIENT_NAME, pim_mrib_mts_q, 0, MRIB_REGISTER_FLAGS, 0, 0, 0, 0);
  ref::settle();
  EXPECT_TRUE(told.empty());
}

TEST_F(MribTest, RouteStaysWhileAnyOwnerWantsIt) {
  update({{true, s_, g_, 7}, {true, s_, g_, 8}});
  update({{false, s_, g_, 7}, {false, s_, g_, 0}});
  EXPECT_EQ(ref::mrib_routes().size(), 1u);
  update({{false, s_, g_, 8}, {false, s_, g_, 0}});
  EXPECT_TRUE(ref::mrib_routes().empty());
  // A deletion that follows the next owner's add must not take it away.
  update({{true, s_, g_, 7}});
  update({{true, s_, g_, 8}, {false, s_, g_, 7}, {false, s_, g_, 0}});
  EXPECT_EQ(ref::mrib_routes().size(), 1u);
}

TEST_F(MribTest, RouteOfTwoOwnersIsTheRemainingOnes) {
  const im_iod_t red = ref::create_interface("red", VRF_CONTEXT_ID_DEFAULT, 0, true);
  const im_iod_t blue = ref::create_interface("blue", VRF_CONTEXT_ID_DEFAULT, 0, true);
  const mvpn_mdt_route_addrs addrs = star_g("239.1.1.1");
  const auto holder = [&] {
    const std::vector<ref::MribRoute> routes = ref::mrib_routes();
    const mrib_route *shown = mrib_get_route_by_addr(1, &addrs);
    return routes.size() == 1 && shown != nullptr && shown->mti_iod == routes[0].mti_iod ? routes[0].owner : 0;
  };
  update({{true, 0, g_, 7, red}, {true, 0, g_, 8, blue}});
  EXPECT_EQ(holder(), 8u);
  update({{false, 0, g_, 8}, {false, 0, g_, 0}});
  EXPECT_EQ(holder(), 7u);
  update({{true, 0, g_, 8, blue}, {false, 0, g_, 7}, {false, 0, g_, 0}});
  EXPECT_EQ(holder(), 8u);
}

// Routes share what their owners installed of them: each has its own all the same, whichever come and go.
TEST_F(MribTest, RoutesAreAsTheirOwnersInstalledThem) {
  std::map<ip_addr_t, std::array<uint32_t, 4>> expected;  // by source: owner, tunnel, reverse path, transaction
  for (uint32_t i = 0; i < 400; i++) {
    const ip_addr_t source = s_ + i * 7 % 60;
    const uint32_t owner = 7 + i % 3, mti = i % 4 == 0 ? 0 : 40 + i % 2;
    const ip_addr_t rpf = i % 5 == 0 ? 0 : i % 5 == 1 ? source : s_ + i % 2;
    if (const auto held = expected.find(source); held != expected.end()) {
      update({{false, source, g_, held->second[0]}, {false, source, g_, 0}}, i);
      expected.erase(held);
    }
    if (i % 6 == 5) continue;
    update({{true, source, g_, owner, mti, rpf}}, i);
    expected[source] = {owner, mti, rpf, i};
    std::map<ip_addr_t, std::array<uint32_t, 4>> read;
    for (const ref::MribRoute &route : ref::mrib_routes())
      read[route.addrs.source] = {route.owner, route.mti_iod, route.rpf_addr, route.xid};
    ASSERT_EQ(read, expected) << i;
  }
}

TEST_F(MribTest, GroupsAreWalkedBySource) {
  update({{true, 0, g_, 7, 42}, {true, address("10.0.0.9"), g_, 7}});
  ref::mrib_add_route(VRF_CONTEXT_ID_DEFAULT, sg("2.0.0.1", "239.1.1.1"), 0);
  mvpn_mdt_route_addrs wide = sg("10.0.0.0", "239.1.1.1");
  wide.source_len = 8;
  ref::mrib_add_route(VRF_CONTEXT_ID_DEFAULT, wide, 0);  // a prefix is no source
  mrib_context *context = mrib_get_context_by_context_id(VRF_CONTEXT_ID_DEFAULT);
  ASSERT_NE(context, nullptr);
  const mrib_group *group = mrib_get_group(context, g_, 32);
  ASSERT_NE(group, nullptr);
  ASSERT_NE(group->star_g, nullptr);
  EXPECT_EQ(group->star_g->mti_iod, 42u);
  Texts sources;
  for (const pt_node *node = pt_get_first_node(group->sources, nullptr, 0); node != nullptr;
       node = pt_get_next_node(group->sources, pt_node_key(node), 0))
    sources.push_back(
        mrib_print_addrs(&static_cast<const mrib_route *>(pt_node_data(const_cast<pt_node *>(node)))->addrs));
  EXPECT_EQ(sources, (Texts{"(*, 239.1.1.1/32)", "(2.0.0.1/32, 239.1.1.1/32)", "(10.0.0.9/32, 239.1.1.1/32)"}));
  EXPECT_EQ(mrib_get_group(context, g_, 24), nullptr);
  update(
      {{false, 0, g_, 7}, {false, 0, g_, 0}, {false, address("10.0.0.9"), g_, 7}, {false, address("10.0.0.9"), g_, 0}});
  EXPECT_EQ(mrib_get_group(context, g_, 32)->star_g, nullptr);
  EXPECT_TRUE(ref::mrib_delete_route(VRF_CONTEXT_ID_DEFAULT, sg("2.0.0.1", "239.1.1.1")));
  EXPECT_TRUE(ref::mrib_delete_route(VRF_CONTEXT_ID_DEFAULT, wide));
  EXPECT_FALSE(ref::mrib_delete_route(VRF_CONTEXT_ID_DEFAULT, wide));
  EXPECT_EQ(mrib_get_context_by_context_id(VRF_CONTEXT_ID_DEFAULT), nullptr);
}

TEST_F(MribTest, RouteHeldTwiceOutlivesEitherHolder) {
  const mvpn_mdt_route_addrs addrs = sg("10.0.0.2", "239.1.1.1");
  ref::mrib_add_route(VRF_CONTEXT_ID_DEFAULT, addrs, 3);
  update({{true, s_, g_, 7, 42}});
  EXPECT_EQ(mrib_get_route_by_addr(VRF_CONTEXT_ID_DEFAULT, &addrs)->mti_iod, 42u);
  update({{false, s_, g_, 7}, {false, s_, g_, 0}});
  ASSERT_NE(mrib_get_route_by_addr(VRF_CONTEXT_ID_DEFAULT, &addrs), nullptr);
  EXPECT_EQ(mrib_get_route_by_addr(VRF_CONTEXT_ID_DEFAULT, &addrs)->mti_iod, 3u);
  update({{true, s_, g_, 7, 42}});
  ref::mrib_delete_route(VRF_CONTEXT_ID_DEFAULT, addrs);
  EXPECT_NE(mrib_get_route_by_addr(VRF_CONTEXT_ID_DEFAULT, &addrs), nullptr);
}

TEST_F(MribTest, DeletingIndexZeroDropsTheVrfsEncapsulations) {
  for (const vrf_context_id_t context_id : {6u, 7u, 8u})
    for (const uint16_t index : {uint16_t{1}, uint16_t{1023}}) EXPECT_NE(encap(context_id, index, true), 0);
  EXPECT_NE(encap(7, 0, false), 0);
  ASSERT_EQ(ref::mrib_encaps().size(), 4u);
  for (const ref::MribEncap &left : ref::mrib_encaps()) EXPECT_NE(left.context_id, 7u);
  ref::mrib_refuse_encaps(1);
  EXPECT_EQ(encap(6, 1, false), 0);
  EXPECT_EQ(ref::mrib_encaps().size(), 4u);
}

TEST_F(MribTest, NotificationsCarryAddressAndEvent) {
  static std::vector<uint8_t> message;
  ref::Module module = ref::module();
  module.mdt_notify = [](const void *bytes) {
    const auto *from = static_cast<const uint8_t *>(bytes);
    message.assign(from, from + MRIB_NOTIFY_ENTRIES_OFFSET + MRIB_NOTIFY_ENTRY_SIZE);
  };
  module.clear_route_notify = [](pim_cibtype *pcib, const void *entries, uint32_t count) {
    const auto *from = static_cast<const uint8_t *>(entries);
    EXPECT_EQ(pcib, pim_default_cib);
    EXPECT_EQ(count, 1u);
    message.assign(from, from + MRIB_NOTIFY_ENTRY_SIZE);
  };
  ref::set_module(module);
  ref::mrib_notify_delete(VRF_CONTEXT_ID_DEFAULT, star_g("239.1.1.1"));
  ref::settle();
  std::vector<uint8_t> expected(MRIB_NOTIFY_ENTRIES_OFFSET + MRIB_NOTIFY_ENTRY_SIZE);
  put_at(expected, 24, uint32_t{1});
  put_at(expected, 32, uint32_t{1});
  expected[36] = MRIB_NOTIFY_DELETE;
  put_at(expected, 44, g_);
  expected[48] = MROUTE_ANY_SOURCE_LEN;
  expected[49] = 32;
  EXPECT_EQ(message, expected);

  ref::mrib_notify_clear(VRF_CONTEXT_ID_DEFAULT, sg("10.0.0.2", "239.1.1.1"), true, false);
  ref::settle();
  EXPECT_EQ(message[4], MRIB_NOTIFY_CLEAR);
  EXPECT_EQ(message[56], 1);
  EXPECT_EQ(message[57], 0);
}

}  // namespace
