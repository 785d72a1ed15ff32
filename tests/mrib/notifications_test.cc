// MRIB notifications, the clearing walk and encapsulation updates.
#include <algorithm>
#include <cstring>

#include "platform/ip.h"
#include "platform/reference/diag.h"
#include "platform/reference/im.h"
#include "platform/reference/mrib.h"
#include "platform/reference/pim.h"
#include "platform/reference/testing/runtime.h"
#include "platform/reference/testing/services.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_default_mdt_internal.h"
#include "routing/pim/mvpn/mvpn_mdt_route.h"
#include "routing/pim/mvpn/mvpn_mdt_route_walk.h"
#include "routing/pim/mvpn/mvpn_mrib_queue.h"
#include "tests/support/module_test.h"

namespace {

class Notifications : public ModuleTest {
 protected:
  // A VRF with an ASM default group that takes its remote PEs from the MRIB: its own route is (*,G).
  mvpn_cibtype *shared_tree_vrf() {
    mvpn_cibtype *mvpn = bring_up("red", 2, "239.1.1.1");
    command("mdt_enforce_bgp_mdt_safi_cmd", "red", {}, true);
    mvpn_mdt_delete_route_resources(mvpn, addr("10.0.0.1"), addr("239.1.1.1"), 1);
    ref::settle();
    return mvpn;
  }
  static std::vector<std::string> sources(mvpn_cibtype *mvpn) {
    std::vector<std::string> out;
    for (const mvpn_mdt_route *route = mvpn_mdt_mroute_first(mvpn); route != nullptr;
         route = mvpn_mdt_mroute_after(mvpn, route->source, route->group))
      out.push_back((route->source != 0 ? ip_print_addr(route->source) : std::string("*")) + " " +
                    std::to_string(route->route_type));
    return out;
  }
};

using Texts = std::vector<std::string>;

TEST_F(Notifications, AJoinOnASharedTreeAddsTheSourcesRoute) {
  start();
  mvpn_cibtype *mvpn = shared_tree_vrf();
  ASSERT_EQ(sources(mvpn), Texts{"* 1"});
  const struct {
    const char *source, *group;
    const char *expected;  // added row; empty: none
  } cases[] = {
      {"10.0.0.9", "239.1.1.1", "10.0.0.9 2"},
      {"10.0.0.1", "239.1.1.1", "10.0.0.1 1"},
      {"10.0.0.9", "239.9.9.9", ""},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.source) + " " + c.group);
    const auto before = sources(mvpn);
    ref::mrib_notify_join(VRF_CONTEXT_ID_DEFAULT, route_addrs(c.source, c.group));
    ref::settle();
    const auto after = sources(mvpn);
    EXPECT_EQ(after.size(), before.size() + (*c.expected != '\0' ? 1 : 0));
    if (*c.expected != '\0') {
      EXPECT_NE(std::find(after.begin(), after.end(), c.expected), after.end());
    }
  }
  ref::mrib_notify_join(VRF_CONTEXT_ID_DEFAULT, route_addrs("*", "239.1.1.1"));
  ref::settle();
  EXPECT_EQ(sources(mvpn), (Texts{"* 1", "10.0.0.1 1", "10.0.0.9 2"}));
}

TEST_F(Notifications, AJoinWithoutASharedTreeAddsNothing) {
  start();
  mvpn_cibtype *mvpn = bring_up("red", 2, "239.1.1.1");
  ref::mrib_notify_join(VRF_CONTEXT_ID_DEFAULT, route_addrs("10.0.0.9", "239.1.1.1"));
  ref::settle();
  EXPECT_EQ(sources(mvpn), Texts{"10.0.0.1 1"});
}

// Ordinal 0 stands for no tunnel, in the MRIB's route as in a VRF whose tunnel has not been made.
TEST_F(Notifications, AJoinWithoutATunnelIsNobodysEvenWhileAVrfHasNone) {
  start();
  bring_up("red", 2, "239.1.1.1");
  ref::set_oim_answers(false);
  add_vrf("blue", 3);
  mvpn_cibtype *blue = configure("blue", "239.1.1.2");
  command("mdt_enforce_bgp_mdt_safi_cmd", "blue", {}, true);
  ASSERT_EQ(blue->mti_iod, 0u);
  ref::mrib_add_route(VRF_CONTEXT_ID_DEFAULT, route_addrs("*", "239.1.1.2"), 0);
  ref::mrib_add_route(VRF_CONTEXT_ID_DEFAULT, route_addrs("10.0.0.9", "239.1.1.2"), 0);
  ref::mrib_notify_join(VRF_CONTEXT_ID_DEFAULT, route_addrs("10.0.0.9", "239.1.1.2"));
  ref::settle();
  EXPECT_EQ(sources(blue), Texts{});
  ref::set_oim_answers(true);
  ref::settle();
}

// The end of enforcement learns the sources that the core has had all along.
TEST_F(Notifications, TheEndOfEnforcementTakesTheSourcesOfTheCore) {
  start();
  mvpn_cibtype *mvpn = bring_up("red", 2, "239.1.1.1");
  ref::mrib_add_route(VRF_CONTEXT_ID_DEFAULT, route_addrs("10.0.0.9", "239.1.1.1"), 0);
  ref::settle();
  ASSERT_EQ(sources(mvpn), Texts{"10.0.0.1 1"});
  command("mdt_enforce_bgp_mdt_safi_cmd", "red", {}, true);
  ref::settle();
  const Texts found = sources(mvpn);
  EXPECT_NE(std::find(found.begin(), found.end(), "10.0.0.9 2"), found.end());
}

// So does a bring-up without enforcement.
TEST_F(Notifications, ABringUpWithoutEnforcementTakesTheSourcesOfTheCore) {
  start();
  add_vrf("red", 2);
  ref::mrib_add_route(VRF_CONTEXT_ID_DEFAULT, route_addrs("*", "239.1.1.1"), 0);
  ref::mrib_add_route(VRF_CONTEXT_ID_DEFAULT, route_addrs("10.0.0.9", "239.1.1.1"), 0);
  ref::set_oim_answers(false);
  mvpn_cibtype *mvpn = configure("red", "239.1.1.1");
  command("mdt_enforce_bgp_mdt_safi_cmd", "red", {}, true);
  ref::set_oim_answers(true);
  ref::settle();
  ASSERT_EQ(mvpn->mti_status, MVPN_MTI_UP);
  const Texts found = sources(mvpn);
  EXPECT_NE(std::find(found.begin(), found.end(), "10.0.0.9 2"), found.end());
}

TEST_F(Notifications, ADeletedRouteIsInstalledAgain) {
  start();
  bring_up("red", 2, "239.1.1.1");
  ref::set_mrib_acks(true);
  ref::clear_mrib_updates();
  // The MRIB's own default-MDT routes carry the tunnel.
  remote_update({{addr("10.0.0.9"), {0, 0, 0, 1, 0, 0, 0, 9}, addr("239.1.1.1"), {}}}, true);
  ref::clear_mrib_updates();
  ref::mrib_notify_delete(VRF_CONTEXT_ID_DEFAULT, route_addrs("10.0.0.9", "239.1.1.1"));
  ref::settle();
  ASSERT_EQ(ref::mrib_updates().size(), 1u);
  EXPECT_EQ(ref::mrib_updates()[0].entries[MRIB_ENTRY_ADD], 1);
  EXPECT_EQ(word_at(ref::mrib_updates()[0].entries, MRIB_ENTRY_SOURCE), addr("10.0.0.9"));
}

TEST_F(Notifications, WakesOncePerMessageAndNotForAnEmptyOne) {
  start();
  bring_up("red", 2, "239.1.1.1");
  std::vector<uint8_t> message(MRIB_NOTIFY_ENTRIES_OFFSET + 2 * MRIB_NOTIFY_ENTRY_SIZE);
  trace::start();
  mvpn_process_mrib_mdt_notify(message.data());
  EXPECT_EQ(trace::count("pthread_cond_signal"), 0u);
  const uint32_t two = 2;
  std::memcpy(&message[MRIB_NOTIFY_COUNT_OFFSET], &two, sizeof two);
  mvpn_process_mrib_mdt_notify(message.data());
  EXPECT_EQ(trace::count("pthread_cond_signal"), 1u);
  mvpn_process_clear_route_notify(pim_default_cib, message.data(), 0);
  EXPECT_EQ(trace::count("pthread_cond_signal"), 2u);
  mvpn_process_clear_route_notify(nullptr, message.data(), 2);
  EXPECT_EQ(trace::count("pthread_cond_signal"), 2u);
  mvpn_functionality_status = MVPN_FUNCTIONALITY_UP_PENDING;
  mvpn_process_mrib_mdt_notify(message.data());
  mvpn_process_clear_route_notify(pim_default_cib, message.data(), 2);
  mvpn_mrib_repopulate_mdt_routes(VRF_CONTEXT_ID_DEFAULT, nullptr, 0);
  mvpn_functionality_status = MVPN_FUNCTIONALITY_UP;
  EXPECT_EQ(trace::count("pthread_cond_signal"), 2u) << "only while the module is up";
}

TEST_F(Notifications, AClearDropsSilentlyAndRebuilds) {
  start();
  mvpn_cibtype *mvpn = bring_up("red", 2, "239.1.1.1");
  remote_update({{addr("10.0.0.9"), {0, 0, 0, 1, 0, 0, 0, 9}, addr("239.1.1.1"), {}}}, true);
  mvpn_mdt_add_route_resources(mvpn, MVPN_MDT_ROUTE_REMOTE_DATA, 0, 1, addr("239.5.5.5"), 1);
  ref::settle();
  // The MRIB now takes the group for SSM.
  ref::add_ssm_range(addr("239.1.0.0"), 16);
  const mvpn_mdt_route_addrs all{};
  ref::clear_mrib_updates();
  ref::mrib_notify_clear(VRF_CONTEXT_ID_DEFAULT, all, true, false);
  ref::settle();
  EXPECT_EQ(mvpn->mdt_group_mode, MVPN_MDT_GROUP_MODE_SSM);
  EXPECT_EQ(sources(mvpn), (Texts{"* 4", "10.0.0.1 1", "10.0.0.9 2"})) << "the (*,G) route stayed";
  for (const ref::MribUpdate &update : ref::mrib_updates())
    for (uint32_t i = 0; i < update.count; i++)
      EXPECT_EQ(update.entries[i * MRIB_UPDATE_ENTRY_SIZE + MRIB_ENTRY_ADD], 1) << "nothing is deleted in the MRIB";
  ref::mrib_notify_clear(VRF_CONTEXT_ID_DEFAULT, all, false, true);
  ref::settle();
  EXPECT_EQ(sources(mvpn), (Texts{"10.0.0.1 1", "10.0.0.9 2"}));
}

TEST_F(Notifications, AClearRebuildsNothingForAVrfWhoseGroupIsGone) {
  start();
  mvpn_cibtype *mvpn = bring_up("red", 2, "239.1.1.1");
  ref::set_oim_answers(false);
  command("mdt_default_cmd", "red", {}, true);
  ref::mrib_notify_clear(VRF_CONTEXT_ID_DEFAULT, mvpn_mdt_route_addrs{}, false, false);
  ref::settle();
  EXPECT_EQ(sources(mvpn), Texts{});
  ref::set_oim_answers(true);
}

TEST_F(Notifications, AVrfThatVanishesWhileItsRoutesAreClearedIsLeftAlone) {
  start();
  mvpn_cibtype *mvpn = bring_up("red", 2, "239.1.1.1");
  for (uint32_t i = 0; i < 300; i++)
    mvpn_mdt_add_route_resources(mvpn, MVPN_MDT_ROUTE_REMOTE_DATA, addr("10.1.0.0") + i, 1, addr("239.7.7.7"), 0);
  bool vanished = false;
  trace::on_call("tsp_sched_may_yield", [&] {
    if (vanished) return;
    vanished = true;
    mvpn_finish_destroy_default_mdt(mvpn);
  });
  trace::on_yield([](unsigned) { return true; });
  ref::mrib_notify_clear(VRF_CONTEXT_ID_DEFAULT, mvpn_mdt_route_addrs{}, false, false);
  ref::run_pending();
  trace::reset();
  EXPECT_TRUE(vanished);
  EXPECT_EQ(context("red"), nullptr);
}

TEST_F(Notifications, ARepopulateRequestSendsWhatMatchesAndIsNotPending) {
  start();
  mvpn_cibtype *mvpn = bring_up("red", 2, "239.1.1.1");
  for (const char *source : {"10.1.0.1", "10.1.0.2", "10.2.0.1"})
    mvpn_mdt_add_route_resources(mvpn, MVPN_MDT_ROUTE_REMOTE_DEFAULT, addr(source), 1, addr("239.1.1.1"), 0);
  mvpn_mrib_wakeup_worker_thread();
  ref::settle();
  const auto sent = [](vrf_context_id_t context_id, const mvpn_mdt_route_addrs *filter, uint32_t type) {
    ref::clear_mrib_updates();
    ref::mrib_request_repopulate(context_id, filter, type);
    ref::settle();
    uint32_t count = 0;
    for (const ref::MribUpdate &update : ref::mrib_updates()) count += update.count;
    return count;
  };
  EXPECT_EQ(sent(VRF_CONTEXT_ID_DEFAULT, nullptr, 0), 4u);
  EXPECT_EQ(sent(VRF_CONTEXT_ID_DEFAULT, nullptr, MVPN_MDT_ROUTE_LOCAL_DEFAULT), 1u);
  EXPECT_EQ(sent(7, nullptr, 0), 0u) << "another core VRF";
  mvpn_mdt_route_addrs filter{addr("10.1.0.0"), addr("239.0.0.0"), 16, 8, {}};
  EXPECT_EQ(sent(VRF_CONTEXT_ID_DEFAULT, &filter, 0), 2u);
  filter = {addr("10.1.0.2"), 0, 255, 0, {}};
  EXPECT_EQ(sent(VRF_CONTEXT_ID_DEFAULT, &filter, 0), 1u) << "lengths beyond 32 count as 32, 0 matches everything";
  mvpn_mdt_route_schedule(mvpn_mdt_mroute_lookup(mvpn, addr("10.1.0.1"), addr("239.1.1.1")), 0, 0);
  EXPECT_EQ(sent(VRF_CONTEXT_ID_DEFAULT, nullptr, 0), 2u + 3u) << "two entries of the queued delete, three refreshes";
}

TEST_F(Notifications, ClearingFiltersByTypeModeAndAddress) {
  start();
  mvpn_cibtype *mvpn = bring_up("red", 2, "239.1.1.1");
  const auto rebuild = [mvpn] {
    mvpn_mrib_clear_mdt_routes(mvpn, {}, 0, 0);
    mvpn_mdt_add_route_resources(mvpn, MVPN_MDT_ROUTE_LOCAL_DEFAULT, addr("10.0.0.1"), 1, addr("239.1.1.1"), 0);
    mvpn_mdt_add_route_resources(mvpn, MVPN_MDT_ROUTE_REMOTE_DEFAULT, addr("10.0.0.2"), 1, addr("239.1.1.1"), 0);
    mvpn_mdt_add_route_resources(mvpn, MVPN_MDT_ROUTE_REMOTE_DATA, 0, 1, addr("239.2.2.2"), 0);
    mvpn_mdt_add_route_resources(mvpn, MVPN_MDT_ROUTE_REMOTE_DATA, addr("10.0.0.3"), 1, addr("232.2.2.2"), 0);
  };
  const mvpn_mdt_route_addrs exact = route_addrs("10.0.0.2", "239.1.1.1");
  const mvpn_mdt_route_addrs absent = route_addrs("10.0.0.2", "239.1.1.2");
  const mvpn_mdt_route_addrs group{0, addr("239.0.0.0"), 0, 8, {}};
  const struct {
    mvpn_route_selection selection;
    uint32_t left;
  } cases[] = {
      {{}, 0},
      {{.route_type = MVPN_MDT_ROUTE_REMOTE_DATA}, 2},
      {{.mode = MVPN_MDT_GROUP_MODE_SSM}, 3},
      {{.only_shared = 1}, 3},
      {{.only_source = 1}, 1},
      {{.filter = &exact}, 3},
      {{.filter = &absent}, 4},
      {{.filter = &group}, 1},
      {{.filter = &exact, .route_type = MVPN_MDT_ROUTE_LOCAL_DEFAULT}, 4},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(&c - cases);
    rebuild();
    EXPECT_EQ(mvpn_mrib_clear_mdt_routes(mvpn, c.selection, 0, 0), c.left < 4 ? 1 : 0);
    EXPECT_EQ(mvpn->mdt_route_count, c.left);
  }
}

TEST_F(Notifications, ClearingWithAMessageSchedulesOnlyWhatWasWritten) {
  start();
  mvpn_cibtype *mvpn = bring_up("red", 2, "239.1.1.1");
  ref::mrib_refuse_updates(1);
  mvpn_mdt_add_route_resources(mvpn, MVPN_MDT_ROUTE_REMOTE_DATA, addr("10.0.0.2"), 1, addr("239.2.2.2"), 1);
  ref::settle();
  mvpn_mdt_add_route_resources(mvpn, MVPN_MDT_ROUTE_REMOTE_DATA, addr("10.0.0.3"), 1, addr("239.2.2.2"), 0);
  EXPECT_EQ(mvpn_mrib_clear_mdt_routes(mvpn, {}, 1, 1), 1);
  EXPECT_EQ(mvpn->mdt_route_count, 2u) << "never sent: freed at once; written: scheduled";
  for (const mvpn_mdt_route *route = mvpn_mdt_mroute_first(mvpn); route != nullptr;
       route = mvpn_mdt_mroute_after(mvpn, route->source, route->group)) {
    EXPECT_EQ(route->pending, MVPN_MDT_ROUTE_DELETE_PENDING);
    EXPECT_EQ(route->teardown, 1);
  }
}

// A delete notification during the teardown revives a route; the context is freed nevertheless.
TEST_F(Notifications, ARouteRevivedDuringTheTeardownDoesNotOutliveItsVrf) {
  start();
  mvpn_cibtype *mvpn = bring_up("red", 2, "239.1.1.1");
  remote_update({{addr("10.0.0.9"), {0, 0, 0, 1, 0, 0, 0, 9}, addr("239.1.1.1"), {}}}, true);
  command("mdt_default_cmd", "red", {}, true);
  mvpn_default_tunnel_down(mvpn, 0);
  mvpn_mdt_route *route = mvpn_mdt_mroute_lookup(mvpn, addr("10.0.0.9"), addr("239.1.1.1"));
  ASSERT_NE(route, nullptr);
  mvpn_mdt_route_schedule(route, 0, 1);
  ref::settle();
  EXPECT_EQ(mvpn_mvrf_count, 0u);
}

TEST_F(Notifications, AllSourcesOfAGroupAreTakenFromTheMrib) {
  start();
  mvpn_cibtype *mvpn = bring_up("red", 2, "239.1.1.1");
  mvpn_mrib_clear_mdt_routes(mvpn, {}, 0, 0);
  ref::create_interface("ethernet1", VRF_CONTEXT_ID_DEFAULT, addr("10.0.0.50"), true);
  ref::mrib_add_route(VRF_CONTEXT_ID_DEFAULT, route_addrs("*", "239.8.8.8"), 0);
  ref::settle();
  capture_debug();
  trace::start();
  mvpn_mdt_add_all_sg_route_resources(mvpn, addr("239.8.8.8"));
  EXPECT_EQ(trace::count("pthread_cond_signal"), 0u) << "the group's own route is not examined";
  EXPECT_EQ(mvpn->mdt_route_count, 0u);
  for (const char *source : {"10.0.0.1", "10.0.0.50", "10.0.0.9"})
    ref::mrib_add_route(VRF_CONTEXT_ID_DEFAULT, route_addrs(source, "239.8.8.8"), 0);
  ref::settle();
  capture_debug();
  trace::start();
  mvpn_mdt_add_all_sg_route_resources(mvpn, addr("239.8.8.8"));
  EXPECT_EQ(sources(mvpn), (Texts{"10.0.0.1 1", "10.0.0.9 2"}));
  EXPECT_EQ(debug_count(" Adding local MDT route (10.0.0.1,239.8.8.8)"), 1u);
  EXPECT_EQ(debug_count("Not Adding remote MDT route (10.0.0.50,239.8.8.8)"), 1u);
  EXPECT_EQ(trace::count("pthread_cond_signal"), 1u);
  const auto order = trace::calls_of({"mrib_release_rdlock", "pthread_cond_signal"});
  EXPECT_EQ(order, (Texts{"mrib_release_rdlock()", "pthread_cond_signal()"})) << "the worker is woken without the lock";
}

// What the MRIB reads out of encapsulation records, and which requests never reach it.
TEST_F(Notifications, EncapsulationRecordsReachTheMribFieldByField) {
  start();
  add_vrf("red", 7);
  mvpn_cibtype *mvpn = mvpn_create_context(nullptr, "red");
  mvpn->mdt_source_addr = addr("10.0.0.1");
  mvpn_set_mdt_source_iod(mvpn, 0x33);
  mvpn_set_mti_iod(mvpn, 0x55);
  EXPECT_EQ(mvpn_add_mdt_encap_info(mvpn, addr("239.2.0.1"), 1023), 1);
  ASSERT_EQ(ref::mrib_encaps().size(), 1u);
  const ref::MribEncap encap = ref::mrib_encaps()[0];
  EXPECT_EQ(encap.context_id, 7u);
  EXPECT_EQ(encap.index, 1023);
  EXPECT_EQ(encap.group, addr("239.2.0.1"));
  EXPECT_EQ(encap.source, addr("10.0.0.1"));
  EXPECT_EQ(encap.mti_iod, 0x55u);
  EXPECT_EQ(encap.source_iod, 0x33u);
  EXPECT_EQ(mvpn_add_mdt_encap_info(mvpn, addr("239.2.0.2"), 1024), 0);
  EXPECT_EQ(mvpn_delete_mdt_encap_info(mvpn, addr("239.2.0.9")), 0);
  trace::start();
  EXPECT_EQ(mvpn_delete_mdt_encap_info(mvpn, 0), 0);
  EXPECT_EQ(trace::count("mrib_update_mdt_encap_info"), 0u) << "no group must not mean every group";
  EXPECT_EQ(mvpn_delete_mdt_encap_info(mvpn, addr("239.2.0.1")), 1);
  EXPECT_TRUE(ref::mrib_encaps().empty());
}

TEST_F(Notifications, RefusedEncapsulationsLeaveTheTableAsItMustBe) {
  start();
  add_vrf("red", 7);
  mvpn_cibtype *mvpn = mvpn_create_context(nullptr, "red");
  const auto reported = [](const char *first, const char *second) {
    EXPECT_EQ(ref::reports().back().arguments, (Texts{first, second}));
  };
  ref::mrib_refuse_encaps(1);
  EXPECT_EQ(mvpn_add_mdt_encap_info(mvpn, addr("239.2.0.1"), 2), 0);
  EXPECT_EQ(mvpn->mdt_encap_group[2], 0u);
  reported("mvpn_mrib_update_mdt_encap_info()", "mvpn_mrib_update_one_mdt_encap_info()");
  mvpn_add_mdt_encap_info(mvpn, addr("239.2.0.1"), 2);
  ref::mrib_refuse_encaps(1);
  EXPECT_EQ(mvpn_delete_mdt_encap_info(mvpn, addr("239.2.0.1")), 0);
  EXPECT_EQ(mvpn->mdt_encap_group[2], addr("239.2.0.1"));
  ref::mrib_refuse_encaps(1);
  EXPECT_EQ(mvpn_delete_all_mdt_encap_info(mvpn, 1), 0);
  EXPECT_EQ(mvpn->mdt_encap_group[2], 0u);
  reported("mvpn_delete_all_mdt_encap_info()", "mvpn_delete_all_mdt_encap_info()");
}

}  // namespace
