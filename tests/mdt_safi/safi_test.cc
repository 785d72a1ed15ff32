// MDT SAFI entries: the database, the local advertisement, remote updates and BGP's notifications.
#include <algorithm>
#include <cstring>

#include "platform/reference/bgp.h"
#include "platform/reference/diag.h"
#include "platform/reference/im.h"
#include "platform/reference/mem.h"
#include "platform/reference/mrib.h"
#include "platform/reference/mts.h"
#include "platform/reference/pim.h"
#include "platform/reference/testing/runtime.h"
#include "platform/reference/testing/services.h"
#include "routing/pim/mvpn/mvpn_bgp.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_default_mdt.h"
#include "routing/pim/mvpn/mvpn_mdt_route.h"
#include "routing/pim/mvpn/mvpn_mdt_safi_internal.h"
#include "tests/support/failing_new.h"
#include "tests/support/module_test.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Sizes = std::vector<size_t>;

mvpn_bgp_mdt_safi_key key_of(const char *source, uint8_t rd_number, const char *group) {
  mvpn_bgp_mdt_safi_key key{addr(source), {}, addr(group)};
  key.bgp_rd[7] = rd_number;
  return key;
}

ref::MdtSafi remote(const char *source, uint8_t rd_number, const char *group) {
  ref::MdtSafi entry;
  entry.source = addr(source);
  entry.rd[7] = rd_number;
  entry.group = addr(group);
  return entry;
}

class Safi : public ModuleTest {
 protected:
  static Sizes sent_sizes() {
    Sizes sizes;
    for (const ref::SentMessage &message : ref::sent_messages()) sizes.push_back(message.payload.size());
    return sizes;
  }
  static uint16_t count_of(const ref::SentMessage &message) {
    uint16_t count;
    std::memcpy(&count, message.payload.data(), sizeof count);
    return count;
  }
  void rd_notify(const std::string &vrf, bool valid, const Bytes &value, size_t length = BGP_RD_NOTIFY_SIZE) {
    Bytes payload(BGP_RD_NOTIFY_SIZE);
    std::memcpy(payload.data(), vrf.data(), std::min(vrf.size(), size_t{BGP_RD_NOTIFY_VRF_NAME_SIZE}));
    const uint32_t flag = valid;
    std::memcpy(&payload[BGP_RD_NOTIFY_VALID], &flag, sizeof flag);
    std::memcpy(&payload[BGP_RD_NOTIFY_RD], value.data(), value.size());
    ref::deliver(MTS_OPC_MVPN_BGP_RD_NOTIFY, payload.data(), length);
    ref::settle();
  }
  void update_source_notify(const std::string &name) {
    ref::deliver(MTS_OPC_MVPN_BGP_UPDATE_SOURCE_NOTIFY, name.data(), name.size());
    ref::settle();
  }
};

TEST_F(Safi, TheGroupIsNoPartOfTheTreeKey) {
  start();
  const auto first = key_of("10.0.0.2", 1, "239.1.1.1");
  const auto other_group = key_of("10.0.0.2", 1, "239.1.1.2");
  const auto other_rd = key_of("10.0.0.2", 2, "239.1.1.1");
  mvpn_bgp_mdt_safi *entry = mvpn_bgp_create_mdt_safi_entry(&first);
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(mvpn_bgp_create_mdt_safi_entry(&other_group), nullptr);
  EXPECT_EQ(ref::reports().back().arguments, (std::vector<std::string>{"ravl_insert", "mvpn_bgp_mdt_safi_db"}));
  EXPECT_EQ(mvpn_bgp_get_mdt_safi_entry(&other_group), entry);
  EXPECT_EQ(mvpn_bgp_get_mdt_safi_entry(nullptr), nullptr);
  EXPECT_EQ(mvpn_bgp_get_equivalent_mdt_safi_entry(&other_rd), entry);
  EXPECT_EQ(mvpn_bgp_get_equivalent_mdt_safi_entry(&first), nullptr);
  const auto other_source = key_of("10.0.0.3", 2, "239.1.1.1");
  EXPECT_EQ(mvpn_bgp_get_equivalent_mdt_safi_entry(&other_source), nullptr);
  trace::fail("slab_calloc");
  EXPECT_EQ(mvpn_bgp_create_mdt_safi_entry(&other_rd), nullptr);
  EXPECT_EQ(ref::reports().back().arguments[1], "mvpn_bgp_create_mdt_safi_entry");
}

TEST_F(Safi, AnAdvertisementIsLaidOutByteByByte) {
  start();
  const std::string name(VRF_NAME_MAX, 'v');
  bring_up(name, 2, "239.1.1.1");
  ASSERT_EQ(sent_sizes(), Sizes{58});
  Bytes expected(58);
  const uint16_t one = 1;
  const uint32_t source = addr("10.0.0.1"), group = addr("239.1.1.1");
  std::memcpy(&expected[0], &one, 2);
  std::memset(&expected[2], 'v', VRF_NAME_MAX);
  std::memcpy(&expected[2 + 36], &source, 4);
  const Bytes value = rd("65000:2");
  std::memcpy(&expected[2 + 40], value.data(), 8);
  std::memcpy(&expected[2 + 48], &group, 4);
  expected[2 + 52] = 1;
  EXPECT_EQ(ref::sent_messages()[0].payload, expected);
  EXPECT_EQ(ref::sent_messages()[0].destination, 0xFE000000u);
  EXPECT_EQ(ref::sent_messages()[0].opcode, 43011u);
}

TEST_F(Safi, AWithdrawalOfNothingSendsNoEntry) {
  start();
  add_vrf("red", 2);
  mvpn_cibtype *mvpn = mvpn_create_context(nullptr, "red");
  EXPECT_EQ(mvpn_bgp_mdt_safi_send_one_local_update(mvpn, 0), 1);
  ASSERT_EQ(sent_sizes(), Sizes{58});
  const ref::SentMessage &message = ref::sent_messages()[0];
  EXPECT_EQ(count_of(message), 0u);
  EXPECT_STREQ(reinterpret_cast<const char *>(&message.payload[2]), "red");
  trace::fail("mts_send");
  EXPECT_EQ(mvpn_bgp_mdt_safi_send_one_local_update(mvpn, 0), 0);
  EXPECT_EQ(ref::reports().back().arguments[0], "mvpn_bgp_mdt_safi_send_local_update");
}

TEST_F(Safi, AWithdrawalNamesWhatWasAdvertised) {
  start();
  mvpn_cibtype *mvpn = bring_up("red", 2, "239.1.1.1");
  mvpn->mdt_source_addr = addr("10.9.9.9");
  ref::clear_sent_messages();
  mvpn_bgp_mdt_safi_send_one_local_update(mvpn, 0);
  EXPECT_EQ(word_at(ref::sent_messages()[0].payload, 2 + BGP_MDT_SAFI_ENTRY_SOURCE), addr("10.0.0.1"));
  EXPECT_EQ(mvpn_bgp_mdt_safi_db.count, 0u);
}

// BGP may give back what this PE advertised in a former life: the entry stays a peer's, and is withdrawn all the same.
TEST_F(Safi, AnEntryLearntFromAPeerStaysThePeersUntilItIsWithdrawn) {
  start();
  add_vrf("red", 2);
  ref::MdtSafi same;
  same.source = addr("10.0.0.1");
  const Bytes value = rd("65000:2");
  std::memcpy(same.rd, value.data(), value.size());
  same.group = addr("239.1.1.1");
  ref::MdtSafi other = same;
  other.source = addr("10.0.0.9");
  remote_update({same, other}, true);
  capture_debug();
  mvpn_cibtype *mvpn = configure("red", "239.1.1.1");
  EXPECT_EQ(mvpn->mti_status, MVPN_MTI_UP);
  const auto count_local = [] { return ref::bgp_local_entries().size(); };
  EXPECT_EQ(count_local(), 1u);
  mvpn_bgp_mdt_safi_key key{};
  key.mdt_src = same.source;
  std::memcpy(key.bgp_rd, same.rd, sizeof key.bgp_rd);
  ASSERT_NE(mvpn_bgp_get_mdt_safi_entry(&key), nullptr);
  EXPECT_EQ(mvpn_bgp_get_mdt_safi_entry(&key)->local, 0);
  ref::clear_sent_messages();
  mvpn_bgp_mdt_safi_send_one_local_update(mvpn, 0);
  EXPECT_EQ(debug_count("Our MDT-SAFI is marked as non-local !"), 1u);
  EXPECT_EQ(word_at(ref::sent_messages()[0].payload, 2 + BGP_MDT_SAFI_ENTRY_SOURCE), same.source);
  EXPECT_EQ(mvpn_bgp_get_mdt_safi_entry(&key), nullptr);
  ref::settle();
  EXPECT_EQ(count_local(), 0u);
  // Nothing is left of the VRF's; what another PE announces is not its own.
  mvpn_bgp_mdt_safi_send_one_local_update(mvpn, 0);
  EXPECT_EQ(ref::sent_messages()[1].payload[0], 0);
  EXPECT_EQ(mvpn_bgp_mdt_safi_db.count, 1u);
  EXPECT_EQ(mvpn_bgp_mdt_safi_delete_local(key), 0);
}

TEST_F(Safi, TheWholeSetGoesInBatchesWithAnEndMarker) {
  start();
  uint32_t vrfs = 0;
  const struct {
    uint32_t ready;
    Sizes sizes;
  } cases[] = {{0, {58}}, {100, {5602, 58}}, {250, {5602, 5602, 2858}}};
  for (const auto &c : cases) {
    for (; vrfs < c.ready; vrfs++)
      bring_up("vrf" + std::to_string(vrfs), 100 + vrfs,
               "239.1." + std::to_string(vrfs / 200) + "." + std::to_string(1 + vrfs % 200));
    ref::clear_sent_messages();
    ref::deliver(MTS_OPC_MVPN_BGP_MDT_SAFI_LOCAL_REQUEST, nullptr, 0);
    ref::settle();
    EXPECT_EQ(sent_sizes(), c.sizes);
    const ref::SentMessage &last = ref::sent_messages().back();
    const size_t marker = 2 + size_t{BGP_MDT_SAFI_ENTRY_SIZE} * (count_of(last) - 1u);
    EXPECT_EQ(last.payload[marker + BGP_MDT_SAFI_ENTRY_END_OF_LOCAL], 1);
    EXPECT_EQ(last.payload[marker + BGP_MDT_SAFI_ENTRY_ADD], 0);
    EXPECT_EQ(ref::bgp_local_entries().size(), c.ready);
  }
}

TEST_F(Safi, RemoteEntriesMakeRoutesOfVrfsThatAreUp) {
  start();
  mvpn_cibtype *mvpn = bring_up("red", 2, "239.1.1.1");
  trace::start();
  remote_update({remote("10.0.0.2", 1, "239.1.1.1"), remote("10.0.0.3", 1, "239.1.1.1"),
                 remote("10.0.0.4", 1, "239.1.1.1"), remote("10.0.0.5", 1, "239.4.4.4")},
                true);
  EXPECT_EQ(trace::count("mrib_trigger_rpf_lookup"), 3u);
  EXPECT_EQ(mvpn->mdt_route_count, 4u);
  EXPECT_EQ(mvpn_bgp_mdt_safi_db.count, 5u);

  trace::start();
  remote_update({remote("10.0.0.2", 1, "239.1.1.2")}, true);  // the same entry with another group
  EXPECT_EQ(trace::count("mrib_trigger_rpf_lookup"), 0u);
  EXPECT_EQ(mvpn_bgp_mdt_safi_db.count, 5u);
  remote_update({remote("10.0.0.2", 7, "239.1.1.1")}, true);  // equivalent: replaces, the route is the same
  EXPECT_EQ(trace::count("mrib_trigger_rpf_lookup"), 0u);
  EXPECT_EQ(mvpn_bgp_mdt_safi_db.count, 5u);
  EXPECT_EQ(mvpn->mdt_route_count, 4u);

  remote_update({remote("10.0.0.2", 7, "239.1.1.1"), remote("10.0.0.9", 1, "239.1.1.1")}, false);
  EXPECT_EQ(trace::count("mrib_trigger_rpf_lookup"), 1u);
  EXPECT_EQ(mvpn->mdt_route_count, 3u);
  EXPECT_EQ(ref::mrib_routes().size(), 3u);
  mvpn->mti_status = MVPN_MTI_DOWN_PENDING;
  remote_update({remote("10.0.0.3", 1, "239.1.1.1")}, false);
  EXPECT_EQ(mvpn->mdt_route_count, 3u) << "the teardown removes the route";
  mvpn->mti_status = MVPN_MTI_UP;
  EXPECT_EQ(mvpn_bgp_mdt_safi_db.count, 3u);
}

TEST_F(Safi, AMessageWakesTheWorkerOnce) {
  start();
  mvpn_cibtype *mvpn = bring_up("red", 2, "239.1.1.1");
  ref::set_mrib_acks(false);
  trace::start();
  remote_update({remote("10.0.0.2", 1, "239.1.1.1"), remote("10.0.0.3", 1, "239.1.1.1")}, true);
  EXPECT_EQ(trace::count("pthread_cond_signal"), 1u);
  remote_update({}, true);
  EXPECT_EQ(trace::count("pthread_cond_signal"), 2u);
  EXPECT_EQ(mvpn->mdt_route_count, 3u);
  ref::set_mrib_acks(true);
}

// Withdrawals in modes whose routes are shared, and while BGP is not enforced.
TEST_F(Safi, WithdrawalsDeleteRoutesOnlyWhereTheyAreThePeers) {
  start();
  ref::add_bidir_range(addr("239.3.0.0"), 16);
  mvpn_cibtype *bidir = bring_up("bidir", 2, "239.3.0.1");
  remote_update({remote("10.0.0.2", 1, "239.3.0.1")}, true);
  EXPECT_EQ(bidir->mdt_route_count, 1u);
  trace::start();
  remote_update({remote("10.0.0.2", 1, "239.3.0.1")}, false);
  EXPECT_EQ(bidir->mdt_route_count, 1u);
  EXPECT_EQ(trace::count("mrib_trigger_rpf_lookup"), 1u);

  mvpn_cibtype *free = bring_up("free", 3, "239.1.1.1");
  command("mdt_enforce_bgp_mdt_safi_cmd", "free", {}, true);
  remote_update({remote("10.0.0.2", 1, "239.1.1.1")}, true);
  const uint32_t routes = free->mdt_route_count;
  remote_update({remote("10.0.0.2", 1, "239.1.1.1")}, false);
  EXPECT_EQ(free->mdt_route_count, routes);
}

TEST_F(Safi, RoutesAreRebuiltFromTheDatabase) {
  start();
  ref::add_ssm_range(addr("239.0.0.0"), 8);
  remote_update(
      {remote("10.0.0.2", 1, "239.1.1.1"), remote("10.0.0.3", 1, "239.1.1.1"), remote("10.0.0.4", 1, "239.1.1.2")},
      true);
  ref::clear_mrib_updates();
  mvpn_cibtype *mvpn = bring_up("red", 2, "239.1.1.1");
  EXPECT_EQ(mvpn->mdt_route_count, 3u);
  ASSERT_EQ(ref::mrib_updates().size(), 1u);
  EXPECT_EQ(ref::mrib_updates()[0].count, 3u) << "this PE's own entry makes no second route";
  EXPECT_EQ(mvpn_mdt_mroute_lookup(mvpn, addr("10.0.0.1"), addr("239.1.1.1"))->route_type,
            MVPN_MDT_ROUTE_LOCAL_DEFAULT);
}

TEST_F(Safi, TheRequestForRemoteEntriesIsOneSpecialEntry) {
  start();
  EXPECT_EQ(mvpn_request_remote_mdt_safis(), 1);
  ASSERT_EQ(sent_sizes(), Sizes{58});
  Bytes expected(58);
  const uint16_t one = 1;
  std::memcpy(&expected[0], &one, 2);
  expected[2 + 52] = 1;
  expected[2 + 53] = 1;
  EXPECT_EQ(ref::sent_messages()[0].payload, expected);
  mvpn_functionality_status = MVPN_FUNCTIONALITY_UP_PENDING;
  EXPECT_EQ(mvpn_request_remote_mdt_safis(), 0);
  mvpn_functionality_status = MVPN_FUNCTIONALITY_UP;
  EXPECT_EQ(ref::sent_messages().size(), 1u);
}

TEST_F(Safi, AChangedRouteDistinguisherIsOneMessage) {
  start();
  bring_up("red", 2, "239.1.1.1");
  ref::clear_sent_messages();
  rd_notify("red", true, rd("65000:77"));
  ASSERT_EQ(sent_sizes(), Sizes{114});
  const Bytes &message = ref::sent_messages()[0].payload;
  EXPECT_EQ(message[2 + BGP_MDT_SAFI_ENTRY_ADD], 0);
  EXPECT_EQ(std::memcmp(&message[2 + BGP_MDT_SAFI_ENTRY_RD], rd("65000:2").data(), 8), 0);
  EXPECT_EQ(message[58 + BGP_MDT_SAFI_ENTRY_ADD], 1);
  EXPECT_EQ(std::memcmp(&message[58 + BGP_MDT_SAFI_ENTRY_RD], rd("65000:77").data(), 8), 0);
  EXPECT_EQ(mvpn_bgp_mdt_safi_db.count, 1u);

  ref::clear_sent_messages();
  capture_debug();
  rd_notify("red", true, rd("65000:77"));
  EXPECT_EQ(sent_sizes(), Sizes{58}) << "the same again: advertised again";
  EXPECT_EQ(debug_count("Received dup RD notification for VRF red."), 1u);

  ref::clear_sent_messages();
  rd_notify("red", false, rd("65000:77"));
  ASSERT_EQ(sent_sizes(), Sizes{58});
  EXPECT_EQ(count_of(ref::sent_messages()[0]), 1u);
  EXPECT_EQ(context("red")->bgp_rd_set, 0);
  EXPECT_EQ(context("red")->mti_status, MVPN_MTI_UP);

  // The teardown that follows finds nothing to withdraw.
  ref::clear_sent_messages();
  mvpn_interface_status(context("red")->mti_iod, 0);
  ASSERT_EQ(sent_sizes(), Sizes{58});
  EXPECT_EQ(count_of(ref::sent_messages()[0]), 0u);
}

TEST_F(Safi, AFirstRouteDistinguisherStartsTheVrf) {
  start();
  end_replay();
  add_vrf("red", 2);
  ref::bgp_set_rd("red", nullptr, false);
  mvpn_cibtype *mvpn = configure("red", "239.1.1.1");
  ASSERT_EQ(mvpn->mti_status, MVPN_MTI_CREATED);
  ref::clear_sent_messages();
  rd_notify("red", true, rd("65000:5"));
  EXPECT_EQ(mvpn->mti_status, MVPN_MTI_UP);
  EXPECT_EQ(sent_sizes(), (Sizes{58, 58})) << "the notification's, the bring-up's";
}

// The VRF's source is down: its route distinguisher changes and goes without a word, and the last one is advertised.
TEST_F(Safi, ARouteDistinguisherOfAVrfThatIsNotReadyIsOnlyRecorded) {
  start();
  end_replay();
  mvpn_cibtype *mvpn = bring_up("red", 2, "239.1.1.1");
  ref::set_interface_state("loopback0", false);
  ref::settle();
  ref::clear_sent_messages();
  ref::clear_oim_requests();
  rd_notify("red", true, rd("65000:77"));
  EXPECT_EQ(std::memcmp(mvpn->bgp_rd, rd("65000:77").data(), sizeof mvpn->bgp_rd), 0);
  rd_notify("red", true, rd("65000:77"));
  rd_notify("red", false, rd("65000:77"));
  EXPECT_EQ(mvpn->bgp_rd_set, 0);
  rd_notify("red", false, rd("65000:77"));
  rd_notify("red", true, rd("65000:78"));
  EXPECT_EQ(sent_sizes(), Sizes{});
  EXPECT_TRUE(ref::oim_requests().empty());
  ref::set_interface_state("loopback0", true);
  ref::settle();
  ASSERT_EQ(ref::bgp_local_entries().size(), 1u);
  EXPECT_EQ(std::memcmp(ref::bgp_local_entries()[0].rd, rd("65000:78").data(), 8), 0);
}

TEST_F(Safi, AnEntryThatItsIndexHasNoRoomForIsNotStored) {
  start();
  const mvpn_bgp_mdt_safi_key key{addr("10.0.0.9"), {1}, addr("239.1.1.1")};
  const size_t objects = ref::memory_use().slab_objects;
  trace::on_call("ravl_insert", [] { trace::fail_new(1); });
  EXPECT_EQ(mvpn_bgp_create_mdt_safi_entry(&key), nullptr);
  trace::reset();
  trace::fail_new(0);
  EXPECT_EQ(mvpn_bgp_mdt_safi_db.count, 0u);
  EXPECT_EQ(mvpn_bgp_mdt_safi_of_group_after(key.mdt_grp, nullptr), nullptr);
  EXPECT_EQ(ref::memory_use().slab_objects, objects);
  EXPECT_NE(mvpn_bgp_create_mdt_safi_entry(&key), nullptr);
}

TEST_F(Safi, NotificationsWithUnterminatedNamesAreBounded) {
  start();
  bring_up("red", 2, "239.1.1.1");
  ref::clear_sent_messages();
  rd_notify(std::string(BGP_RD_NOTIFY_VRF_NAME_SIZE, 'A'), true, rd("65000:9"));
  rd_notify("red", true, rd("65000:9"), 20);
  EXPECT_EQ(ref::sent_messages().size(), 0u);
  const std::string name(BGP_UPDATE_SOURCE_NAME_SIZE, 'B');
  update_source_notify(name);
  EXPECT_EQ(std::string(mvpn_bgp_updatesrc_ifname), name);
  trace::start();
  update_source_notify(name);
  EXPECT_EQ(trace::count("im_get_if_by_name"), 0u) << "the same name again changes nothing";
}

TEST_F(Safi, AnEmptyUpdateSourceKeepsTheOldInterface) {
  start();
  mvpn_cibtype *mvpn = bring_up("red", 2, "239.1.1.1");
  ref::bgp_set_update_source("", false);
  update_source_notify(std::string(1, '\0'));
  EXPECT_STREQ(mvpn_bgp_updatesrc_ifname, "");
  EXPECT_EQ(mvpn_bgp_updatesrc_iod, 1u);
  EXPECT_EQ(mvpn->mdt_source_addr, addr("10.0.0.1"));
  EXPECT_EQ(mvpn->mti_status, MVPN_MTI_UP);
}

TEST_F(Safi, AConnectorAttributeLeadsToTheVrfOfItsGroup) {
  start();
  mvpn_cibtype *mvpn = bring_up("red", 2, "239.1.1.1");
  remote_update({remote("10.0.0.2", 1, "239.1.1.1"), remote("10.0.0.3", 1, "239.9.9.9")}, true);
  const uint8_t one[] = {0, 0, 0, 0, 0, 0, 0, 1};
  const struct {
    const char *source;
    mvpn_cibtype *expected;
  } cases[] = {{"10.0.0.2", mvpn}, {"10.0.0.3", nullptr}, {"10.0.0.4", nullptr}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.source);
    ip_addr_t source = 0;
    void *attribute = ref::bgp_make_connector_attribute(one, addr(c.source));
    EXPECT_EQ(mvpn_bgp_get_context_by_connector_attribute(nullptr, attribute, &source), c.expected);
    EXPECT_EQ(source, addr(c.source));
  }
  EXPECT_EQ(mvpn_bgp_get_context_by_connector_attribute(nullptr, nullptr, nullptr), nullptr);
}

TEST_F(Safi, AHundredThousandStrangersDoNotSlowAVrfDown) {
  start();
  mvpn_cibtype *mvpn = bring_up("red", 2, "239.1.1.1");
  constexpr uint32_t kEntries = 100000, kBatch = 1000;
  for (uint32_t first = 0; first < kEntries; first += kBatch) {
    std::vector<ref::MdtSafi> entries(kBatch);
    for (uint32_t i = 0; i < kBatch; i++) {
      entries[i].source = addr("20.0.0.0") + first + i;
      entries[i].rd[7] = 1;
      entries[i].group = addr("239.200.0.0") + (first + i) % 5000;
    }
    remote_update(entries, true);
  }
  EXPECT_EQ(mvpn_bgp_mdt_safi_db.count, kEntries + 1);
  EXPECT_EQ(mvpn->mdt_route_count, 1u);
  trace::start();
  mvpn_repopulate_default_mdt_routes_from_bgp_cache(mvpn);
  EXPECT_EQ(mvpn->mdt_route_count, 1u);
}

TEST_F(Safi, OnlyMulticastGroupsAreTakenFromRemotePes) {
  start();
  const auto entry = [](const char *group) {
    return std::vector<ref::MdtSafi>{{addr("10.0.0.9"), {0, 0, 0, 1, 0, 0, 0, 9}, addr(group), {}}};
  };
  remote_update(entry("10.1.1.1"), true);
  remote_update(entry("240.1.1.1"), true);
  EXPECT_EQ(mvpn_bgp_mdt_safi_db.count, 0u);
  remote_update(entry("232.1.1.1"), true);
  EXPECT_EQ(mvpn_bgp_mdt_safi_db.count, 1u);
}

}  // namespace
