// Ranges, the mapping of customer routes onto them, the group pool with its counts and encapsulation indexes.
#include <algorithm>

#include "platform/l3vm.h"
#include "platform/reference/croute.h"
#include "platform/reference/pss.h"
#include "platform/reference/rpm.h"
#include "platform/reference/testing/runtime.h"
#include "platform/reference/testing/services.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_datamdt.h"
#include "routing/pim/mvpn/mvpn_default_mdt.h"
#include "routing/pim/mvpn/mvpn_ha.h"
#include "routing/pim/mvpn/mvpn_mdt_route.h"
#include "tests/support/data_mdt_test.h"

namespace {

class Pool : public DataMdtTest {
 protected:
  // The group of a flow as its distance from the prefix, and its index: "3@5"; "default" on the default MDT.
  static std::string choice(const pim_route *croute, std::string_view prefix) {
    const mvpn_data_mdt_send_join_info *record = croute->send_join_info;
    if (record == nullptr || record->encap_index < MVPN_ENCAP_INDEX_FIRST_DATA) return "default";
    return std::to_string(record->group - addr(prefix)) + "@" + std::to_string(record->encap_index);
  }
  std::string switched(pim_route *croute, std::string_view prefix) {
    check(croute);
    return choice(croute, prefix);
  }
  void remember(std::string_view source, std::string_view group, uint16_t index, ip_addr_t data_group) {
    const mvpn_mdt_route_addrs addrs = route_addrs(source, group);
    EXPECT_EQ(mvpn_ha_add_encap_info(context("red"), &addrs, {index, data_group}), 1);
  }
  static void open_recovery() {
    pim_sup_switchover = 1;
    mvpn_ha_recovery_start();
    ASSERT_NE(mvpn_ha_recovery_timer, nullptr);
  }
};

TEST_F(Pool, CountsAreKeptForTheGroupsThatARangeCanHandOut) {
  mvpn_cibtype *mvpn = start_red();
  range("238.0.0.0/8");
  range("237.0.0.0/24");
  mvpn_data_mdt_range *wide = mvpn->data_mdt_config;
  mvpn_data_mdt_range *narrow = wide->next;
  const mvpn_mdt_route_addrs key = route_addrs("172.16.9.1", "225.0.0.1");
  const struct {
    mvpn_data_mdt_range *range;
    ip_addr_t group;
    uint32_t slot;
  } cases[] = {
      {wide, wide->prefix, 0},
      {wide, wide->prefix + 1023, 1023},
      {wide, wide->prefix + 1024, MVPN_DATA_MDT_POOL_GROUPS},
      {wide, wide->prefix + 65535, MVPN_DATA_MDT_POOL_GROUPS},
      {wide, wide->prefix + 65536, MVPN_DATA_MDT_POOL_GROUPS},
      {wide, wide->prefix - 1, MVPN_DATA_MDT_POOL_GROUPS},
      {narrow, narrow->prefix + 255, 255},
      {narrow, narrow->prefix + 256, MVPN_DATA_MDT_POOL_GROUPS},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(dotted(c.group));
    const bool counted = c.slot < MVPN_DATA_MDT_POOL_GROUPS;
    EXPECT_EQ(mvpn_data_mdt_pool_slot(c.range, c.group), c.slot);
    EXPECT_EQ(mvpn_decrement_data_mdt_group_refcount(mvpn, c.range, c.group, 9, &key), 0u);
    EXPECT_EQ(mvpn_increment_data_mdt_group_refcount(mvpn, c.range, c.group, 9, &key, 5, 1), counted ? 1u : 0u);
    EXPECT_TRUE(ref::pss_records().empty());
    EXPECT_EQ(mvpn_increment_data_mdt_group_refcount(mvpn, c.range, c.group, 9, &key, 5, 0), counted ? 2u : 0u);
    EXPECT_EQ(ref::pss_records().size(), counted ? 1u : 0u);
    EXPECT_EQ(std::count_if(c.range->group_refcount, c.range->group_refcount + MVPN_DATA_MDT_POOL_GROUPS,
                            [](uint32_t count) { return count != 0; }),
              counted ? 1 : 0);
    EXPECT_EQ(mvpn_decrement_data_mdt_group_refcount(mvpn, c.range, c.group, 9, &key), counted ? 1u : 0u);
    EXPECT_EQ(mvpn_decrement_data_mdt_group_refcount(mvpn, c.range, c.group, 9, &key), 0u);
    EXPECT_TRUE(ref::pss_records().empty());
  }
}

TEST_F(Pool, RoutesAreMappedWhenTheirSourceIsOnThisSide) {
  mvpn_cibtype *mvpn = start_red();
  range("239.2.0.0/24", "9999999");
  const struct {
    const char *name, *iif, *neighbor;
    bool bidirectional;
    int mapped;
  } cases[] = {
      {"local source", "ethernet1", "172.16.0.2", false, 1},    {"no incoming interface", "", "172.16.0.2", false, 0},
      {"no neighbour", "ethernet1", "0.0.0.0", false, 0},       {"behind the MVPN", "mvpn", remote_pe, false, 0},
      {"bidirectional, behind it", "mvpn", remote_pe, true, 1},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    ref::CustomerRoute route = flow_of("172.16.9.1", "225.0.0.1");
    route.iif = c.iif;
    route.rpf_neighbor = addr(c.neighbor);
    route.bidirectional = c.bidirectional;
    pim_route *croute = set(route);
    EXPECT_EQ(mvpn_map_data_mdt_config(mvpn, &croute->addrs, croute), c.mapped);
    EXPECT_EQ(croute->send_join_info != nullptr && croute->send_join_info->config != nullptr, c.mapped != 0);
    check_invariants();
    remove("172.16.9.1", "225.0.0.1");
  }
}

TEST_F(Pool, TheFirstRangeWhoseRouteMapMatchesIsTaken) {
  mvpn_cibtype *mvpn = start_red();
  ref::set_policy("one-source", {{true, addr("172.16.9.1"), addr("225.0.0.0"), 32, 8}});
  ref::set_policy("all-sources", {{true, 0, addr("225.0.0.0"), 0, 8}});
  range("239.2.0.0/24");
  range_with_policy("239.3.0.0/24", "all-sources");
  range_with_policy("239.4.0.0/24", "one-source");
  range_with_policy("239.5.0.0/24", "unknown");  // nearest the head
  const struct {
    const char *source, *group, *first_group;
  } cases[] = {
      {"172.16.9.1", "225.0.0.1", "239.4.0.0"},
      {"172.16.9.2", "225.0.0.1", "239.3.0.0"},
      {"*", "225.0.0.1", "239.3.0.0"},
      {"172.16.9.1", "226.0.0.1", "239.2.0.0"},
  };
  for (const auto &c : cases) {
    pim_route *croute = flow(c.source, c.group, 9);
    ASSERT_EQ(mvpn_map_data_mdt_config(mvpn, &croute->addrs, croute), 1);
    EXPECT_EQ(dotted(croute->send_join_info->config->prefix), c.first_group) << c.source << " " << c.group;
  }
  // An unswitched flow takes its range anew each time; one on a data MDT keeps it while it matches.
  pim_route *kept = active_flow("172.16.9.7", "226.0.0.1");
  ref::set_policy("unknown", {{true, 0, addr("224.0.0.0"), 0, 4}});
  pim_route *anew = ref::set_customer_route("red", flow_of("172.16.9.1", "226.0.0.1"));
  EXPECT_EQ(mvpn_map_data_mdt_config(mvpn, &anew->addrs, anew), 1);
  EXPECT_EQ(mvpn_map_data_mdt_config(mvpn, &kept->addrs, kept), 1);
  EXPECT_EQ(dotted(anew->send_join_info->config->prefix), "239.5.0.0");
  EXPECT_EQ(dotted(kept->send_join_info->config->prefix), "239.2.0.0");
  // A route-map that no longer matches moves the flow off; the next range takes it.
  kept = active_flow("172.16.9.8", "225.1.0.1");
  ASSERT_EQ(dotted(kept->send_join_info->group), "239.5.0.0");
  ref::set_policy("unknown", {{false, 0, addr("224.0.0.0"), 0, 4}});
  EXPECT_EQ(mvpn_map_data_mdt_config(mvpn, &kept->addrs, kept), 1);
  EXPECT_EQ(kept->send_join_info->state, MVPN_DATA_MDT_STATE_DEFAULT);
  EXPECT_EQ(dotted(kept->send_join_info->config->prefix), "239.3.0.0");
}

TEST_F(Pool, GroupsAreHandedOutInOrderThenShared) {
  start_red();
  range("239.2.0.0/30");
  const char *expected[] = {"0@2", "1@3", "2@4", "3@5", "0@2", "1@3"};
  for (size_t i = 0; i < std::size(expected); i++) {
    pim_route *croute = flow("172.16.9.1", "225.0.0." + std::to_string(i + 1));
    EXPECT_EQ(switched(croute, "239.2.0.0"), expected[i]);
  }
  remove("172.16.9.1", "225.0.0.1");  // slot 0 stays with its other flow
  EXPECT_EQ(data_encaps(), 4u);
  check_invariants();
  EXPECT_EQ(switched(flow("172.16.9.2", "225.0.0.1"), "239.2.0.0"), "0@2") << "lowest of the least used";
  remove("172.16.9.1", "225.0.0.3");  // slot 2 and index 4 are free again
  EXPECT_EQ(data_encaps(), 3u);
  remove("172.16.9.1", "225.0.0.2");
  remove("172.16.9.1", "225.0.0.6");  // slot 1 and index 3, too
  check_invariants();
  EXPECT_EQ(switched(flow("172.16.9.2", "225.0.0.3"), "239.2.0.0"), "1@3");
  EXPECT_EQ(switched(flow("172.16.9.2", "225.0.0.2"), "239.2.0.0"), "2@4");
}

TEST_F(Pool, WithoutAFreeIndexOnlyGroupsInUseAreShared) {
  mvpn_cibtype *mvpn = start_red();
  ref::set_policy("special", {{true, addr("172.16.1.1"), addr("226.0.0.0"), 32, 8}});
  range("239.2.0.0/16", "1");
  range_with_policy("239.3.0.0/24", "special");
  std::vector<pim_route *> flows;
  for (uint32_t i = 0; i < 1023; i++) {
    ref::CustomerRoute route = flow_of("172.16.9.1", "225.0.0.0");
    route.addrs.group += i;
    flows.push_back(ref::set_customer_route("red", route));
  }
  ref::settle();
  for (pim_route *croute : flows) check(croute);
  EXPECT_EQ(choice(flows[1021], "239.2.0.0"), "1021@1023");
  EXPECT_EQ(choice(flows[1022], "239.2.0.0"), "0@2") << "every index is taken: the least used group is shared";
  EXPECT_EQ(mvpn->mdt_encap_group[MVPN_ENCAP_INDEX_DEFAULT], addr("239.1.1.1"));
  // The other range has no group in use, so its flow stays where it is.
  pim_route *left_out = flow("172.16.1.1", "226.0.0.1");
  const auto stored = ref::pss_records().size();
  const uint32_t routes = mvpn->mdt_route_count;
  check(left_out);
  EXPECT_EQ(left_out->send_join_info->state, MVPN_DATA_MDT_STATE_DEFAULT);
  EXPECT_EQ(left_out->send_join_info->encap_index, MVPN_ENCAP_INDEX_DEFAULT);
  EXPECT_EQ(ref::pss_records().size(), stored);
  EXPECT_EQ(mvpn->mdt_route_count, routes);
  check_invariants();
  mvpn_data_mdt_unmap_local_source_from_receiver(mvpn, flows[500], &flows[500]->addrs);
  EXPECT_EQ(switched(left_out, "239.3.0.0"), "0@502") << "the index that became free";
}

TEST_F(Pool, PersistedChoicesAreReusedOnlyWhenTheyFit) {
  mvpn_cibtype *mvpn = start_red();
  range("239.2.0.0/16");
  open_recovery();
  ASSERT_EQ(switched(flow("172.16.8.1", "225.0.0.1"), "239.2.0.0"), "0@2");
  const ip_addr_t prefix = addr("239.2.0.0");
  const struct {
    uint16_t index;
    ip_addr_t group;
    const char *expected;
  } cases[] = {
      {7, prefix + 5, "5@7"},  // as it was
      {2, prefix, "0@2"},      // shared with the flow above
      {9, prefix, "0@2"},      // the group has another index by now
      {2, prefix + 5, "1@3"},  // the index stands for another group: a fresh choice
      {1, prefix + 5, "1@3"},  // the default MDT's index
      {0, prefix + 5, "1@3"},
      {1024, prefix + 5, "1@3"},
      {5000, prefix + 5, "1@3"},
      {1023, prefix + 2000, "2000@1023"},  // beyond the pool: used, not counted
      {7, addr("239.3.0.5"), "1@3"},       // another range's group
      {7, addr("239.1.1.1"), "1@3"},       // the default group
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::to_string(c.index) + " " + dotted(c.group));
    remember("172.16.9.1", "225.0.0.9", c.index, c.group);
    pim_route *croute = flow("172.16.9.1", "225.0.0.9");
    capture_debug();
    EXPECT_EQ(switched(croute, "239.2.0.0"), c.expected);
    const auto *record = croute->send_join_info;
    EXPECT_EQ(mvpn->mdt_encap_group[record->encap_index], record->group);
    mvpn_ha_encap_info_t stored{};
    EXPECT_EQ(mvpn_ha_get_encap_info(mvpn, &croute->addrs, &stored), 1);
    EXPECT_EQ(stored.encap_index, record->encap_index);
    EXPECT_EQ(stored.mdt_group, record->group);
    EXPECT_EQ(mvpn->mdt_encap_group[MVPN_ENCAP_INDEX_DEFAULT], addr("239.1.1.1"));
    EXPECT_EQ(debug_count("Data mdt Group " + dotted(c.group) + " doesn't fall in 239.2.0.0"),
              (c.group & 0xFFFF0000) == prefix ? 0u : 1u);
    check_invariants();
    remove("172.16.9.1", "225.0.0.9");
    EXPECT_EQ(data_encaps(), 1u);
    EXPECT_EQ(ref::pss_records().size(), 1u);
    check_invariants();
  }
}

// Groups beyond the pool have no count; what keeps them are the flows that use them.
TEST_F(Pool, AnUncountedGroupStaysWithItsOtherFlow) {
  start_red();
  range("239.2.0.0/16");
  open_recovery();
  for (const char *group : {"225.0.0.1", "225.0.0.2"}) {
    remember("172.16.9.1", group, 9, addr("239.2.7.208"));
    ASSERT_EQ(choice(active_flow("172.16.9.1", group), "239.2.0.0"), "2000@9");
  }
  EXPECT_EQ(data_encaps(), 1u);
  remove("172.16.9.1", "225.0.0.1");
  EXPECT_EQ(data_encaps(), 1u);
  EXPECT_TRUE(mrib_holds("10.0.0.1", "239.2.7.208"));
  EXPECT_EQ(ref::pss_records().size(), 1u);
  check_invariants();
  remove("172.16.9.1", "225.0.0.2");
  EXPECT_EQ(data_encaps(), 0u);
  EXPECT_FALSE(mrib_holds("10.0.0.1", "239.2.7.208"));
}

TEST_F(Pool, AFailedSwitchoverLeavesEverythingAsItWas) {
  mvpn_cibtype *mvpn = start_red();
  range("239.2.0.0/24");
  pim_route *croute = flow("172.16.9.1", "225.0.0.1");
  for (const char *call : {"mrib_update_mdt_encap_info", "slab_calloc", "pt_add"}) {
    SCOPED_TRACE(call);
    const uint32_t routes = mvpn->mdt_route_count;
    trace::fail(call);
    EXPECT_EQ(check(croute), 0);
    EXPECT_EQ(croute->send_join_info->state, MVPN_DATA_MDT_STATE_DEFAULT);
    EXPECT_EQ(croute->send_join_info->encap_index, MVPN_ENCAP_INDEX_DEFAULT);
    EXPECT_EQ(mvpn->mdt_route_count, routes);
    EXPECT_EQ(data_encaps(), 0u);
    EXPECT_TRUE(ref::pss_records().empty());
    EXPECT_EQ(mvpn_get_entry_from_switchover_cache(mvpn, croute), nullptr);
    check_invariants();
  }
  check(croute);
  EXPECT_EQ(croute->send_join_info->state, MVPN_DATA_MDT_STATE_SWITCHOVER_PENDING) << "the next check tries again";
}

TEST_F(Pool, AFlowSurvivesItsVrfGoingDownAndComingUp) {
  for (const bool vrf_down : {false, true}) {
    SCOPED_TRACE(vrf_down);
    mvpn_cibtype *mvpn = vrf_down ? context("red") : start_red();
    if (!vrf_down) range("239.2.0.0/32");
    active_flow("172.16.9.1", "225.0.0.1");
    if (vrf_down) {
      ref::set_vrf_state("red", L3VM_STATE_DOWN);
      mvpn_interface_status(mvpn->mti_iod, 0);
    } else {
      mvpn_default_tunnel_down(mvpn, 0);
    }
    check_invariants();
    ref::settle();
    if (vrf_down) {
      ref::set_vrf_state("red", L3VM_STATE_UP);
      mvpn_setup_default_mdt(mvpn);
      ref::settle();
    }
    ASSERT_EQ(mvpn->mti_status, MVPN_MTI_UP) << mvpn_mti_status_str[mvpn->mti_status];
    pim_route *croute = active_flow("172.16.9.1", "225.0.0.1");
    EXPECT_EQ(choice(croute, "239.2.0.0"), "0@2");
    EXPECT_EQ(mvpn->data_mdt_config->group_refcount[0], 1u);
    check_invariants();
  }
}

TEST_F(Pool, TheDefaultIndexIsNeverGivenToAFlow) {
  mvpn_cibtype *mvpn = start_red();
  range("239.2.0.0/24");
  pim_route *croute = flow("172.16.9.1", "225.0.0.1");
  ref::set_vrf_state("red", L3VM_STATE_DOWN);
  mvpn_interface_status(mvpn->mti_iod, 0);
  ref::settle();
  ASSERT_EQ(mvpn->mti_status, MVPN_MTI_DOWN);
  ASSERT_EQ(mvpn->mdt_encap_group[MVPN_ENCAP_INDEX_DEFAULT], 0u);
  check(croute);
  EXPECT_EQ(mvpn->mdt_encap_group[MVPN_ENCAP_INDEX_DEFAULT], 0u);
  if (croute->send_join_info != nullptr && croute->send_join_info->state != MVPN_DATA_MDT_STATE_DEFAULT) {
    EXPECT_GE(croute->send_join_info->encap_index, MVPN_ENCAP_INDEX_FIRST_DATA);
  }
  ref::set_vrf_state("red", L3VM_STATE_UP);
  mvpn_setup_default_mdt(mvpn);
  ref::settle();
  EXPECT_EQ(mvpn->mdt_encap_group[MVPN_ENCAP_INDEX_DEFAULT], addr("239.1.1.1"));
  check_invariants();
}

// A range may hold the default group, when it was configured before it.
TEST_F(Pool, TheDefaultGroupIsNeverGivenToAFlow) {
  mvpn_cibtype *mvpn = start_red();
  range("239.2.0.0/31");
  mvpn_set_mdt_default_group(mvpn, addr("239.2.0.0"));
  EXPECT_EQ(switched(flow("172.16.9.1", "225.0.0.1"), "239.2.0.0"), "1@2");
  EXPECT_EQ(switched(flow("172.16.9.1", "225.0.0.2"), "239.2.0.0"), "1@2");
  mvpn_set_mdt_default_group(mvpn, addr("239.2.0.1"));
  EXPECT_EQ(switched(flow("172.16.9.1", "225.0.0.3"), "239.2.0.0"), "0@3");
  mvpn_set_mdt_default_group(mvpn, addr("239.1.1.1"));
}

TEST_F(Pool, RemovingARangeMovesItsFlowsOff) {
  mvpn_cibtype *mvpn = start_red();
  range("239.2.0.0/32");
  std::vector<pim_route *> flows;
  for (const char *group : {"225.0.0.1", "225.0.0.2", "225.0.0.3"}) flows.push_back(active_flow("172.16.9.1", group));
  EXPECT_EQ(data_encaps(), 1u);
  // One flow's way to the source is gone: the pass leaves such routes alone, the range goes nevertheless.
  ref::CustomerRoute lost = flow_of("172.16.9.1", "225.0.0.2");
  lost.rpf_neighbor = 0;
  set(lost);
  ASSERT_EQ(choice(flows[1], "239.2.0.0"), "0@2");
  // Another is between its announcement and its switchover.
  flows.push_back(flow("172.16.9.1", "225.0.0.4"));
  check(flows.back());
  ASSERT_EQ(flows.back()->send_join_info->state, MVPN_DATA_MDT_STATE_SWITCHOVER_PENDING);
  trace::start();
  no_range("239.2.0.0/32");
  mvpn_process_data_mdt_switchover_expiry(mvpn);
  for (pim_route *croute : flows) {
    EXPECT_EQ(choice(croute, "239.2.0.0"), "default");
    EXPECT_EQ(croute->send_join_info->config, nullptr);
    EXPECT_EQ(croute->send_join_info->mdt_route, nullptr);
    EXPECT_EQ(croute->send_join_info->state, MVPN_DATA_MDT_STATE_DEFAULT);
  }
  EXPECT_EQ(data_encaps(), 0u);
  EXPECT_TRUE(ref::pss_records().empty());
  EXPECT_FALSE(mrib_holds("10.0.0.1", "239.2.0.0"));
  check_invariants();
  EXPECT_EQ(trace::count("tsp_lock_acquire_wrlock"), trace::count("pim_release_wrlock"));
  EXPECT_EQ(mvpn->last_change_code, MVPN_LAST_CHANGE_DATA_MDT);
  for (pim_route *croute : flows) {
    EXPECT_EQ(check(croute), 0);
    mvpn_data_mdt_unmap_local_source_from_receiver(mvpn, croute, &croute->addrs);
  }
}

// A flow that no range takes any more has been changed all the same; the time after, there is nothing to change.
TEST_F(Pool, MappingSaysWhetherItDidAnything) {
  mvpn_cibtype *mvpn = start_red();
  ref::set_policy("sites", {{true, 0, addr("225.0.0.0"), 0, 8}});
  range_with_policy("239.2.0.0/24", "sites");
  pim_route *croute = active_flow("172.16.9.1", "225.0.0.1");
  ASSERT_EQ(choice(croute, "239.2.0.0"), "0@2");
  ref::set_policy("sites", {{false, 0, addr("225.0.0.0"), 0, 8}});
  EXPECT_EQ(mvpn_map_data_mdt_config(mvpn, &croute->addrs, croute), 1);
  EXPECT_EQ(croute->send_join_info->config, nullptr);
  EXPECT_EQ(mvpn_map_data_mdt_config(mvpn, &croute->addrs, croute), 0);
  check_invariants();
}

// A flow whose range goes is the next matching range's at once, not only when its rate is checked.
TEST_F(Pool, AFlowWhoseRangeGoesBelongsToTheNextOne) {
  mvpn_cibtype *mvpn = start_red();
  range("239.2.0.0/32");
  range("239.3.0.0/32");
  pim_route *croute = active_flow("172.16.9.1", "225.0.0.1");
  const mvpn_data_mdt_range *next = mvpn->data_mdt_config->next;
  ASSERT_EQ(croute->send_join_info->config, mvpn->data_mdt_config);
  no_range("239.2.0.0/32");
  EXPECT_EQ(croute->send_join_info->config, next);
  EXPECT_EQ(choice(croute, "239.2.0.0"), "default");
  check(croute);
  EXPECT_EQ(choice(croute, "239.3.0.0"), "0@2");
  check_invariants();
}

// The host may take a flow's index away with the exported setter; what the flow held is given back by the next mapping.
TEST_F(Pool, AFlowWhoseIndexWasTakenAwayGivesItsGroupBack) {
  mvpn_cibtype *mvpn = start_red();
  range("239.2.0.0/24");
  for (const uint32_t index : {0u, 1u}) {
    SCOPED_TRACE(index);
    pim_route *croute = active_flow("172.16.9.1", "225.0.0.1");
    EXPECT_EQ(mvpn_set_encap_index_for_customer_route(mvpn, croute, index), 1);
    if (index == 0) {
      mvpn_map_data_mdt_config(mvpn, &croute->addrs, croute);
      check_invariants();
      EXPECT_EQ(croute->send_join_info->mdt_route, nullptr);
    }
    remove("172.16.9.1", "225.0.0.1");
    mvpn_mdt_delete_route_resources(mvpn, addr("10.0.0.1"), addr("239.2.0.0"), 1);
    ref::settle();
    check_invariants();
  }
  EXPECT_EQ(mvpn_set_encap_index_for_customer_route(mvpn, nullptr, 1), 0);
  pim_route *fresh = ref::set_customer_route("red", flow_of("172.16.9.3", "225.0.0.3"));
  ASSERT_EQ(fresh->send_join_info, nullptr);
  trace::fail("slab_calloc");
  EXPECT_EQ(mvpn_set_encap_index_for_customer_route(mvpn, fresh, 1), 0);
  EXPECT_EQ(last_report().substr(0, 10), "PIM_MALLOC");
  EXPECT_EQ(mvpn_set_encap_index_for_customer_route(mvpn, fresh, 1), 1);
  EXPECT_EQ(fresh->send_join_info->encap_index, 1);
}

TEST_F(Pool, LongWalksSurviveTheEndOfTheVrfAndReleaseTheirLocks) {
  const struct {
    const char *name;
    std::function<void(mvpn_cibtype *)> walk;
  } walks[] = {
      {"configuration change", mvpn_process_data_mdt_config_change},
      {"removal of a range",
       [this](mvpn_cibtype *) {
         command("mdt_data_cmd", "red", {{"<prefix>", "239.2.0.0/24"}}, true);
       }},
      {"end of all records", mvpn_destroy_all_data_mdt_send_join_info},
  };
  start_red();
  for (const auto &walk : walks) {
    SCOPED_TRACE(walk.name);
    mvpn_cibtype *mvpn = configure("red", "239.1.1.1");
    range("239.2.0.0/24");
    for (uint32_t i = 0; i < 1500; i++) {
      ref::CustomerRoute route = flow_of("172.16.9.1", "225.0.0.0");
      route.addrs.group += i;
      ref::set_customer_route("red", route);
    }
    ref::settle();
    bool gone = false;
    at_yield(1, [&] {
      gone = true;
      vanish();
    });
    trace::start();
    walk.walk(mvpn);
    EXPECT_TRUE(gone);
    trace::on_yield(nullptr);
    EXPECT_EQ(pim_wrlock_count, 0u);
    EXPECT_EQ(trace::count("mrib_acquire_rdlock"), trace::count("mrib_release_rdlock"));
    EXPECT_EQ(trace::count("tsp_lock_acquire_wrlock"), trace::count("pim_release_wrlock"));
  }
}

}  // namespace
