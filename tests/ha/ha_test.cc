// Persisted encapsulation choices and the recovery period after a restart.
#include <cstring>

#include "platform/reference/croute.h"
#include "platform/reference/diag.h"
#include "platform/reference/im.h"
#include "platform/reference/mem.h"
#include "platform/reference/packet.h"
#include "platform/reference/pim.h"
#include "platform/reference/pss.h"
#include "platform/reference/testing/runtime.h"
#include "platform/reference/testing/services.h"
#include "routing/pim/mvpn/mvpn_datamdt_join.h"
#include "routing/pim/mvpn/mvpn_ha_internal.h"
#include "tests/support/data_mdt_test.h"

using namespace std::chrono_literals;

namespace {

using Bytes = std::vector<uint8_t>;

class HighAvailability : public DataMdtTest {
 protected:
  static Bytes key_of(const pim_cibtype *pcib, const mvpn_mdt_route_addrs *addrs) {
    Bytes key(PSS_KEY_SIZE, 0xEE);
    mvpn_ha_make_encap_info_pss_key(pcib, addrs, key.data());
    return key;
  }
  static Bytes value_of(uint16_t index, ip_addr_t group) {
    const mvpn_ha_encap_info_t record{index, group};
    Bytes value(mvpn_ha_encap_info_get_tlv_sz(&record));
    EXPECT_EQ(mvpn_ha_make_encap_info_pss_value({index, group}, value.data(), static_cast<uint32_t>(value.size())), 0);
    return value;
  }
  // Stores a choice of a VRF, whether or not the module knows the VRF.
  static void store(vrf_context_id_t context_id, const mvpn_mdt_route_addrs &addrs, const Bytes &value) {
    pim_cibtype pcib{};
    pcib.context_id = context_id;
    const Bytes key = key_of(&pcib, &addrs);
    ksink_pss_update(pim_ha_handle, key.data(), PSS_KEY_SIZE, value.data(), static_cast<uint32_t>(value.size()));
  }
  // Stored choices as "context source group index@data-group".
  static Texts stored() {
    Texts out;
    for (const auto &[key, value] : ref::pss_records()) {
      const mvpn_mdt_route_addrs addrs = mvpn_ha_addrs_of_encap_key(key.data());
      mvpn_ha_encap_info_t record{};
      const int code = mvpn_ha_get_encap_info_by_pss_value(value.data(), static_cast<uint32_t>(value.size()), &record);
      out.push_back(std::to_string(key[6] * 256 + key[7]) + " " + dotted(addrs.source) + " " + dotted(addrs.group) +
                    " " + (code != 0 ? "bad" : std::to_string(record.encap_index) + "@" + dotted(record.mdt_group)));
    }
    return out;
  }
  static void open_recovery() {
    pim_sup_switchover = 1;
    EXPECT_EQ(mvpn_ha_recovery_start(), 1);
    ASSERT_NE(mvpn_ha_recovery_timer, nullptr);
  }
};

TEST_F(HighAvailability, KeysHaveTheseBytes) {
  pim_cibtype pcib{};
  pcib.context_id = 0x01020304;
  const mvpn_mdt_route_addrs sg = route_addrs("172.16.9.1", "225.0.0.7");
  const mvpn_mdt_route_addrs star_g = route_addrs("*", "225.0.0.7");
  EXPECT_EQ(key_of(&pcib, &sg), (Bytes{16, 0, 0, 0, 1, 2, 3, 4, 172, 16, 9, 1, 225, 0, 0, 7, 32, 32, 0, 0}));
  EXPECT_EQ(key_of(&pcib, &star_g), (Bytes{16, 0, 0, 0, 1, 2, 3, 4, 0, 0, 0, 0, 225, 0, 0, 7, 255, 32, 0, 0}));
  EXPECT_EQ(key_of(&pcib, nullptr), (Bytes{16, 0, 0, 0, 1, 2, 3, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(key_of(nullptr, nullptr), (Bytes{16, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  mvpn_bgp_mdt_safi entry{};
  entry.key.mdt_src = addr("10.0.0.9");
  entry.key.mdt_grp = addr("239.1.1.1");
  std::memcpy(entry.key.bgp_rd, rd("65000:5").data(), sizeof entry.key.bgp_rd);
  Bytes expected{17, 0, 0, 0, 10, 0, 0, 9, 0, 0, 0, 0, 0, 0, 0, 0, 239, 1, 1, 1};
  std::memcpy(&expected[8], entry.key.bgp_rd, sizeof entry.key.bgp_rd);
  Bytes key(PSS_KEY_SIZE, 0xEE);
  EXPECT_EQ(mvpn_ha_make_mdt_safi_pss_key(&entry, key.data()), 1);
  EXPECT_EQ(key, expected);
  EXPECT_EQ(mvpn_ha_make_bgp_update_src_if_pss_key(key.data()), 1);
  expected.assign(PSS_KEY_SIZE, 0);
  expected[0] = 18;
  EXPECT_EQ(key, expected);
  EXPECT_EQ(mvpn_ha_make_mdt_safi_pss_key(&entry, nullptr), 0);
  EXPECT_EQ(mvpn_ha_make_bgp_update_src_if_pss_key(nullptr), 0);
}

TEST_F(HighAvailability, ValuesSurviveARoundTripAndBadOnesAreRefused) {
  const Bytes good = value_of(1023, addr("239.2.3.4"));
  mvpn_ha_encap_info_t record{};
  EXPECT_EQ(mvpn_ha_get_encap_info_by_pss_value(good.data(), static_cast<uint32_t>(good.size()), &record), 0);
  EXPECT_EQ(record.encap_index, 1023);
  EXPECT_EQ(record.mdt_group, addr("239.2.3.4"));
  EXPECT_EQ(mvpn_ha_encap_info_get_struct_sz(good.data(), static_cast<uint32_t>(good.size())), 8);
  for (size_t length = 0; length < good.size(); length++) {
    const Bytes cut(good.begin(), good.begin() + static_cast<long>(length));  // its own block: overreads are seen
    EXPECT_NE(mvpn_ha_encap_info_to_struct(cut.data(), static_cast<uint32_t>(length), &record), 0) << length;
  }
  Bytes tight(good.size() - 1);
  EXPECT_NE(mvpn_ha_make_encap_info_pss_value({2, 3}, tight.data(), static_cast<uint32_t>(tight.size())), 0);
  tlvu_field_iterator iterator;
  ASSERT_EQ(mvpn_ha_encap_info_field_itr_init(good.data(), static_cast<uint32_t>(good.size()), &iterator), 0);
  uint32_t id = 0, size = 0;
  const uint8_t *value = nullptr;
  std::vector<std::pair<uint32_t, uint32_t>> fields;
  while (mvpn_ha_encap_info_field_get_next(&iterator, &id, &value, &size) == 0) fields.emplace_back(id, size);
  EXPECT_EQ(fields, (std::vector<std::pair<uint32_t, uint32_t>>{{1, 2}, {2, 4}}));
  ASSERT_EQ(mvpn_ha_encap_info_get_field(good.data(), static_cast<uint32_t>(good.size()), 2, &value, &size), 0);
  EXPECT_EQ(Bytes(value, value + size), (Bytes{239, 2, 3, 4}));
}

TEST_F(HighAvailability, ChoicesAreStoredFetchedAndDeletedPerFlowVrfAndProcess) {
  start();
  mvpn_cibtype *red = bring_up("red", 7, "239.1.1.1");
  mvpn_cibtype *blue = bring_up("blue", 8, "239.1.1.2");
  const mvpn_mdt_route_addrs first = route_addrs("172.16.9.1", "225.0.0.1");
  const mvpn_mdt_route_addrs second = route_addrs("*", "225.0.0.1");
  const auto fill = [&] {
    for (mvpn_cibtype *mvpn : {red, blue}) {
      EXPECT_EQ(mvpn_ha_add_encap_info(mvpn, &first, {2, addr("239.2.0.0")}), 1);
      EXPECT_EQ(mvpn_ha_add_encap_info(mvpn, &second, {3, addr("239.2.0.1")}), 1);
    }
  };
  fill();
  const Texts all = {"7 * 225.0.0.1 3@239.2.0.1", "7 172.16.9.1 225.0.0.1 2@239.2.0.0", "8 * 225.0.0.1 3@239.2.0.1",
                     "8 172.16.9.1 225.0.0.1 2@239.2.0.0"};
  EXPECT_EQ(stored(), all);
  mvpn_ha_encap_info_t choice{};
  EXPECT_EQ(mvpn_ha_get_encap_info(red, &first, &choice), 0) << "no recovery is going on";
  open_recovery();
  EXPECT_EQ(mvpn_ha_get_encap_info(red, &first, &choice), 1);
  EXPECT_EQ(choice.encap_index, 2);
  EXPECT_EQ(choice.mdt_group, addr("239.2.0.0"));
  EXPECT_EQ(mvpn_ha_get_encap_info(red, &first, nullptr), 1);
  const mvpn_mdt_route_addrs absent = route_addrs("172.16.9.2", "225.0.0.1");
  EXPECT_EQ(mvpn_ha_get_encap_info(red, &absent, &choice), 0);
  store(7, first, {1, 2, 3});
  EXPECT_EQ(mvpn_ha_get_encap_info(red, &first, &choice), 0) << "an unreadable choice is none";
  for (const auto &[stored_index, usable] : {std::pair(1023, 1), std::pair(1024, 0), std::pair(65535, 0)}) {
    EXPECT_EQ(mvpn_ha_add_encap_info(red, &first, {static_cast<uint16_t>(stored_index), addr("239.2.0.0")}), 1);
    EXPECT_EQ(mvpn_ha_get_encap_info(red, &first, &choice), usable) << stored_index;
  }
  fill();
  EXPECT_EQ(mvpn_ha_delete_encap_info(red, &second), 1);
  EXPECT_EQ(stored(), (Texts{all[1], all[2], all[3]}));
  EXPECT_EQ(mvpn_ha_delete_encap_info(red, nullptr), 1);
  EXPECT_EQ(stored(), (Texts{all[2], all[3]}));
  const Bytes other(PSS_KEY_SIZE, 17);
  ksink_pss_update(pim_ha_handle, other.data(), PSS_KEY_SIZE, "x", 1);
  EXPECT_EQ(mvpn_ha_delete_encap_info(nullptr, nullptr), 1);
  ASSERT_EQ(ref::pss_records().size(), 1u);
  EXPECT_EQ(ref::pss_records()[0].first, other) << "records of other kinds stay";
  ksink_pss_delete(pim_ha_handle, other.data(), PSS_KEY_SIZE);

  trace::fail("ksink_pss_update");
  EXPECT_EQ(mvpn_ha_add_encap_info(red, &first, {2, 3}), 0);
  EXPECT_EQ(last_report(), "PIM_API_FAILED [ksink_pss_update()] [mvpn_ha_add_encap_info()]");
  trace::fail("mtrack_alloc");
  EXPECT_EQ(mvpn_ha_add_encap_info(red, &first, {2, 3}), 0);
  EXPECT_EQ(ref::reports()[ref::reports().size() - 2].arguments.back(), "mvpn_ha_add_encap_info");
  EXPECT_EQ(ref::reports().back().arguments.back(), "mvpn_ha_add_encap_info()");
  trace::fail("ksink_pss_delete");
  EXPECT_EQ(mvpn_ha_delete_encap_info(red, &first), 1);
  EXPECT_EQ(last_report(), "PIM_API_FAILED [ksink_pss_delete()] [mvpn_ha_delete_encap_info()]");
  trace::fail("ksink_pss_delete_range");
  EXPECT_EQ(mvpn_ha_delete_encap_info(red, nullptr), 1);
  EXPECT_EQ(last_report(), "PIM_API_FAILED [ksink_pss_delete_range() ] [mvpn_ha_delete_encap_info]");
}

TEST_F(HighAvailability, TheRecoveryPeriodOpensAfterARestartOfTheActiveSupervisor) {
  start();
  const struct {
    uint32_t active, switchover;
    bool stateful, opens;
  } cases[] = {
      {1, 0, false, false}, {1, 1, false, true}, {1, 0, true, true}, {0, 1, true, false}, {0, 0, false, false},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(&c - cases);
    pim_sup_state_active = c.active;
    pim_sup_switchover = c.switchover;
    ref::set_stateful_restart(c.stateful);
    EXPECT_EQ(mvpn_ha_recovery_start(), 1);
    EXPECT_EQ(mvpn_ha_recovery_timer != nullptr, c.opens);
    ref::advance(239s);
    EXPECT_EQ(mvpn_ha_recovery_timer != nullptr, c.opens);
    ref::advance(1s);
    EXPECT_EQ(mvpn_ha_recovery_timer, nullptr);
  }
  pim_sup_state_active = 1;
  ref::set_stateful_restart(true);
  trace::fail("active_timer_create");
  EXPECT_EQ(mvpn_ha_recovery_start(), 1);
  EXPECT_EQ(mvpn_ha_recovery_timer, nullptr);
  trace::fail("active_timer_start");
  EXPECT_EQ(mvpn_ha_recovery_start(), 1);
  EXPECT_NE(mvpn_ha_recovery_timer, nullptr) << "the period stays open";
  // The end of a second replay starts the period anew; nothing is left of the first.
  const size_t timers = ref::memory_use().timers;
  ref::advance(100s);
  end_replay();
  ref::advance(150s);
  end_replay();
  EXPECT_EQ(ref::memory_use().timers, timers);
  ref::advance(239s);
  EXPECT_NE(mvpn_ha_recovery_timer, nullptr);
  ref::advance(1s);
  EXPECT_EQ(mvpn_ha_recovery_timer, nullptr);
  EXPECT_EQ(ref::memory_use().timers, timers - 1);
}

TEST_F(HighAvailability, TheSweepDeletesWhatNoFlowHasClaimed) {
  start_red();
  range("239.2.0.0/24");
  const Bytes value = value_of(2, addr("239.2.0.0"));
  pim_route *claimed = active_flow("172.16.9.1", "225.0.0.2");
  ASSERT_EQ(claimed->send_join_info->encap_index, 2);
  flow("172.16.9.1", "225.0.0.3", 0);  // on the default MDT
  pim_route *moved = active_flow("172.16.9.1", "225.0.0.4");
  ASSERT_EQ(moved->send_join_info->encap_index, 3);
  ref::set_customer_route("red", flow_of("172.16.9.9", "225.0.0.5"));
  open_recovery();
  for (const vrf_context_id_t context_id : {1u, 3u, 0x0200u}) store(context_id, claimed->addrs, value);
  const struct {
    const char *source, *group;
    bool bad, kept;
  } records[] = {
      {"172.16.9.1", "225.0.0.2", false, true},              // claimed
      {"172.16.9.1", "225.0.0.3", false, false},             // its flow is on the default MDT
      {"172.16.9.1", "225.0.0.4", false, false},             // its flow has another index
      {"172.16.9.1", "225.0.0.1", false, false},             // no such route
      {"*", "225.0.0.2", false, false},                      // nor this one
      {"172.16.9.0", "225.0.0.2", true, false},              // unreadable, before the claimed one
      {"255.255.255.255", "239.255.255.255", false, false},  // the VRF's last
  };
  for (const auto &c : records) store(2, route_addrs(c.source, c.group), c.bad ? Bytes{0xFF, 1, 2} : value);
  ref::advance(240s);
  EXPECT_EQ(stored(), (Texts{"1 172.16.9.1 225.0.0.2 2@239.2.0.0", "2 172.16.9.1 225.0.0.2 2@239.2.0.0",
                             "3 172.16.9.1 225.0.0.2 2@239.2.0.0", "512 172.16.9.1 225.0.0.2 2@239.2.0.0"}));
  // The very last record of the store.
  store(2, route_addrs("255.255.255.255", "239.255.255.255"), value);
  for (const vrf_context_id_t context_id : {1u, 3u, 0x0200u}) {
    pim_cibtype pcib{};
    pcib.context_id = context_id;
    ksink_pss_delete(pim_ha_handle, key_of(&pcib, &claimed->addrs).data(), PSS_KEY_SIZE);
  }
  open_recovery();
  ref::advance(240s);
  EXPECT_EQ(stored(), Texts{"2 172.16.9.1 225.0.0.2 2@239.2.0.0"});
  // A record that cannot be deleted does not hold up the walk.
  for (const char *group : {"226.0.0.1", "226.0.0.2"}) store(2, route_addrs("172.16.9.1", group), value);
  open_recovery();
  trace::fail("ksink_pss_delete");
  ref::advance(240s);
  EXPECT_EQ(stored(), (Texts{"2 172.16.9.1 225.0.0.2 2@239.2.0.0", "2 172.16.9.1 226.0.0.1 2@239.2.0.0"}));
  const mvpn_mdt_route_addrs left = route_addrs("172.16.9.1", "226.0.0.1");
  mvpn_ha_delete_encap_info(context("red"), &left);
}

// A process that was killed comes up again: flows that return in another order get what they had; what does not return
// is forgotten.
TEST_F(HighAvailability, FlowsKeepTheirChoicesOverARestart) {
  start_red();
  range("239.2.0.0/24");
  const char *const groups[] = {"225.0.0.1", "225.0.0.2", "225.0.0.3", "225.0.0.4"};
  for (const char *group : groups) active_flow("172.16.9.1", group);
  const auto survived = ref::pss_records();
  ASSERT_EQ(survived.size(), 4u);
  ref::set_feature_configured(false);
  mvpn_deinit(1);
  ASSERT_TRUE(ref::wait_for_threads());
  EXPECT_TRUE(ref::pss_records().empty()) << "a stop for good forgets the choices";
  for (const char *group : groups) remove("172.16.9.1", group);
  for (const auto &[key, value] : survived)
    ksink_pss_update(pim_ha_handle, key.data(), PSS_KEY_SIZE, value.data(), static_cast<uint32_t>(value.size()));

  ref::set_feature_configured(true);
  ref::set_stateful_restart(true);
  ASSERT_EQ(mvpn_init(), 1);
  EXPECT_EQ(command("mdt_default_cmd", "red", {{"<mdt-default>", "239.1.1.1"}}, false, false), 0);
  EXPECT_EQ(command("mdt_data_cmd", "red", {{"<prefix>", "239.2.0.0/24"}}, false, false), 0);
  EXPECT_EQ(mvpn_cli_vrf_done(pim_get_cib_by_context_name("red")), 1);
  end_replay();
  ref::settle();
  ASSERT_EQ(context("red")->mti_status, MVPN_MTI_UP);
  for (const int i : {3, 2, 0}) {
    const pim_route *croute = active_flow("172.16.9.1", groups[i]);
    EXPECT_EQ(croute->send_join_info->encap_index, 2 + i);
    EXPECT_EQ(croute->send_join_info->group, addr("239.2.0.0") + static_cast<uint32_t>(i));
  }
  EXPECT_EQ(stored().size(), 4u);
  ref::advance(240s);
  EXPECT_EQ(stored(), (Texts{"2 172.16.9.1 225.0.0.1 2@239.2.0.0", "2 172.16.9.1 225.0.0.3 4@239.2.0.2",
                             "2 172.16.9.1 225.0.0.4 5@239.2.0.3"}));
  check_invariants();
  EXPECT_EQ(active_flow("172.16.9.1", groups[1])->send_join_info->encap_index, 3) << "the lowest free one";
}

// The flows come back in another order than they were switched first.
TEST_F(HighAvailability, FlowsKeepTheirChoicesOverAFlapOfTheTunnel) {
  start_red();
  range("239.2.0.0/24");
  open_recovery();
  pim_route *first = active_flow("192.168.1.10", "232.1.1.1");
  pim_route *second = active_flow("192.168.1.10", "232.1.1.2");
  const Texts before = stored();
  ASSERT_EQ(before.size(), 2u);
  ref::set_interface_state("loopback0", false);
  ref::settle();
  EXPECT_EQ(first->send_join_info, nullptr);
  EXPECT_EQ(stored(), before);
  ref::set_interface_state("loopback0", true);
  ref::settle();
  check(second);
  check(first);
  EXPECT_EQ(stored(), before);
  EXPECT_EQ(second->send_join_info->encap_index, 3u);
  // After the period a choice goes with its flow, whether or not the flow has made it again.
  mvpn_ha_recovery_stop();
  ref::set_interface_state("loopback0", false);
  ref::settle();
  ref::set_interface_state("loopback0", true);
  ref::settle();
  check(second);
  remove("192.168.1.10", "232.1.1.1");
  remove("192.168.1.10", "232.1.1.2");
  EXPECT_EQ(stored(), Texts{});
}

TEST_F(HighAvailability, StoredChoicesAreAnnouncedUnconditionally) {
  mvpn_cibtype *mvpn = start_red();
  const auto announced = [] {
    Texts out;
    for (const ref::CorePacket &packet : ref::sent_core_packets())
      for (size_t at = 28; at + 16 <= packet.datagram.size(); at += 16)
        out.push_back(dotted(__builtin_bswap32(word_at(packet.datagram, at + 4))) + " " +
                      dotted(__builtin_bswap32(word_at(packet.datagram, at + 8))) + " " +
                      dotted(__builtin_bswap32(word_at(packet.datagram, at + 12))));
    ref::clear_sent_core_packets();
    return out;
  };
  const Bytes value = value_of(2, addr("239.2.0.0"));
  const mvpn_mdt_route_addrs addrs = route_addrs("172.16.9.1", "225.0.0.1");
  store(1, addrs, value);
  mvpn_fill_one_data_mdt_join(mvpn, {1 << 24, 2 << 24, 3 << 24});
  mvpn_unconditional_announce_data_mdt_join(mvpn);
  EXPECT_EQ(announced(), Texts{}) << "no record at or behind the VRF's: nothing is sent";
  store(3, addrs, value);
  mvpn_unconditional_announce_data_mdt_join(mvpn);
  EXPECT_EQ(announced(), Texts{"1.0.0.0 2.0.0.0 3.0.0.0"}) << "what was waiting leaves";
  EXPECT_EQ(mvpn->data_mdt_join_pkt, nullptr);
  store(2, addrs, value);
  store(2, route_addrs("172.16.9.2", "225.0.0.1"), {9, 9});
  store(2, route_addrs("172.16.9.3", "225.0.0.1"), value);
  mvpn_unconditional_announce_data_mdt_join(mvpn);
  EXPECT_EQ(announced(), (Texts{"172.16.9.1 225.0.0.1 239.2.0.0", "172.16.9.3 225.0.0.1 239.2.0.0"}));
  // More than a datagram holds: the sends in between yield, and the store is used by others meanwhile.
  for (uint32_t i = 0; i < 200; i++) {
    mvpn_mdt_route_addrs more = addrs;
    more.group += 1 + i;
    store(2, more, value);
  }
  at_yield(1, [] {
    const void *key = nullptr, *found = nullptr;
    uint32_t length = 0;
    const uint8_t first = 0;
    ksink_pss_get_first(pim_ha_handle, &key, &first, 1, &found, &length);
  });
  mvpn_unconditional_announce_data_mdt_join(mvpn);
  EXPECT_EQ(announced().size(), 202u);
  at_yield(1, [this] { vanish(); });
  mvpn_unconditional_announce_data_mdt_join(mvpn);
  trace::on_yield(nullptr);
  EXPECT_EQ(context("red"), nullptr);
}

}  // namespace
