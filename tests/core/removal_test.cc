// The end of a VRF: its default group is removed in every status, and it goes, or is configured anew, in the middle of
// its own end.
#include "platform/reference/bgp.h"
#include "platform/reference/im.h"
#include "platform/reference/l3vm.h"
#include "platform/reference/mrib.h"
#include "platform/reference/oim.h"
#include "platform/reference/testing/runtime.h"
#include "platform/reference/testing/services.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_default_mdt_internal.h"
#include "routing/pim/mvpn/mvpn_mdt_route.h"
#include "tests/support/failing_new.h"
#include "tests/support/module_test.h"

namespace {

class Removal : public ModuleTest {
 protected:
  // Nothing of any VRF is left, in the module or on the platform.
  static void expect_nothing_left() {
    EXPECT_EQ(mvpn_mvrf_count, 0u);
    EXPECT_TRUE(ref::tunnels().empty());
    EXPECT_TRUE(ref::mrib_routes().empty());
    EXPECT_TRUE(ref::mrib_encaps().empty());
    EXPECT_TRUE(ref::bgp_local_entries().empty());
  }
  static void source(bool up) { ref::set_interface_state("loopback0", up); }
  static void source_unanswered(bool up) {
    ref::set_oim_answers(false);
    source(up);
    ref::settle();
  }
  // Brings VRF red, which has no group and whose source is up, to a status.
  void lead_to(mvpn_mti_status_t status) {
    if (status == MVPN_MTI_NONE) {
      command("mdt_default_cmd", "red", {{"<mdt-default>", "239.1.1.1"}}, false, false);
      return;
    }
    if (status == MVPN_MTI_CREATE_PENDING) ref::set_oim_answers(false);
    if (status == MVPN_MTI_CREATED || status == MVPN_MTI_UP_PENDING) source(false);
    configure("red", "239.1.1.1");
    switch (status) {
      case MVPN_MTI_UP_PENDING:
      case MVPN_MTI_DOWN_PENDING:
        return source_unanswered(status == MVPN_MTI_UP_PENDING);
      case MVPN_MTI_DOWN_IN_PROGRESS:
        return mvpn_default_tunnel_down(context("red"), 0);
      case MVPN_MTI_DOWN:
      case MVPN_MTI_DELETE_PENDING:
      case MVPN_MTI_DELETED:
        source(false);
        ref::settle();
        if (status == MVPN_MTI_DOWN) return;
        ref::set_oim_answers(status == MVPN_MTI_DELETED);
        command("mdt_default_cmd", "red", {}, true);
        configure("red", "239.1.1.2");
        return;
      default:
        return;
    }
  }
  // Routes that were never sent: freeing each hundredth yields.
  static void add_unsent_routes(mvpn_cibtype *mvpn) {
    ref::set_mrib_acks(false);
    for (uint32_t i = 0; i < 250; i++)
      mvpn_mdt_add_route_resources(mvpn, MVPN_MDT_ROUTE_REMOTE_DATA, addr("10.1.0.0") + i, 1, addr("239.7.7.7"), 0);
  }
};

// What is outstanding when the group goes is answered afterwards; however it went, nothing stays behind.
TEST_F(Removal, EveryStatusLeadsToTheEnd) {
  const mvpn_mti_status_t statuses[] = {
      MVPN_MTI_NONE,         MVPN_MTI_CREATE_PENDING,   MVPN_MTI_CREATED, MVPN_MTI_UP_PENDING,     MVPN_MTI_UP,
      MVPN_MTI_DOWN_PENDING, MVPN_MTI_DOWN_IN_PROGRESS, MVPN_MTI_DOWN,    MVPN_MTI_DELETE_PENDING, MVPN_MTI_DELETED};
  start();
  add_vrf("red", 2);
  for (const bool whole_vrf : {false, true}) {
    for (const mvpn_mti_status_t status : statuses) {
      SCOPED_TRACE(std::string(mvpn_mti_status_str[status]) + (whole_vrf ? ", with its VRF" : ""));
      lead_to(status);
      ASSERT_EQ(context("red")->mti_status, status) << mvpn_mti_status_str[context("red")->mti_status];
      if (whole_vrf) {
        mvpn_leave_vrf(pim_get_cib_by_context_name("red"));
        mvpn_leave_vrf(pim_get_cib_by_context_name("red"));  // once is enough
      } else {
        EXPECT_EQ(command("mdt_default_cmd", "red", {}, true), CLI_RESULT_OK) << printed;
      }
      ref::set_oim_answers(true);
      source(true);
      ref::settle();
      expect_nothing_left();
      ASSERT_EQ(context("red"), nullptr);
    }
  }
}

// Such a VRF has a context all the same, and no command that would take it away.
TEST_F(Removal, AVrfWhoseGroupWasRefusedGoesAtOnce) {
  start();
  add_vrf("red", 2);
  configure("red", "239.1.1.1");
  add_vrf("blue", 3);
  EXPECT_EQ(command("mdt_default_cmd", "blue", {{"<mdt-default>", "239.1.1.1"}}), CLI_RESULT_REJECTED);
  ASSERT_NE(context("blue"), nullptr);
  EXPECT_EQ(command("mdt_default_cmd", "blue", {}, true), CLI_RESULT_REJECTED);
  mvpn_leave_vrf(pim_get_cib_by_context_name("blue"));
  EXPECT_EQ(context("blue"), nullptr);
  EXPECT_EQ(context("red")->mti_status, MVPN_MTI_UP);
  mvpn_leave_vrf(pim_get_cib_by_context_name("blue"));
  mvpn_leave_vrf(nullptr);
}

// The last step yields while it drops what was left; in each of these yields the VRF's tunnel is reported deleted once
// more, which ends the VRF, or the VRF gets a group again, which keeps it.
TEST_F(Removal, AVrfMayGoOrComeBackDuringItsLastStep) {
  start();
  add_vrf("red", 2);
  for (const bool comes_back : {false, true}) {
    unsigned yields = 0;
    bool interrupted = true;
    for (unsigned at = 1; interrupted; at++) {
      SCOPED_TRACE((comes_back ? "comes back, yield " : "goes, yield ") + std::to_string(at));
      configure("red", "239.1.1.1");
      mvpn_cibtype *red = context("red");
      add_unsent_routes(red);
      interrupted = false;
      trace::on_yield([&](unsigned n) {
        if (n != at) return false;
        trace::on_yield(nullptr);
        interrupted = true;
        if (comes_back) {
          command("mdt_default_cmd", "red", {{"<mdt-default>", "239.1.1.2"}});
        } else {
          mvpn_finish_destroy_default_mdt(context("red"));
        }
        return true;
      });
      mvpn_set_mdt_default_group(red, 0);
      mvpn_finish_destroy_default_mdt(red);
      trace::on_yield(nullptr);
      ref::set_mrib_acks(true);
      EXPECT_EQ(context("red") != nullptr, comes_back && interrupted);
      if (interrupted) yields = at;
      if (context("red") != nullptr) command("mdt_default_cmd", "red", {}, true);
      ref::settle();
      if (context("red") != nullptr) mvpn_finish_destroy_default_mdt(context("red"));
      ref::settle();
      ASSERT_EQ(context("red"), nullptr);
    }
    EXPECT_GT(yields, 0u);
  }
}

TEST_F(Removal, AContextThatNoIndexHasRoomForIsNotMade) {
  start();
  add_vrf("red", 2);
  mvpn_finish_destroy_default_mdt(mvpn_create_context(nullptr, "red"));  // the slab has its object from now on
  for (unsigned index = 1; index <= 4; index++) {
    trace::fail_new(index);
    EXPECT_EQ(mvpn_create_context(nullptr, "red"), nullptr) << index;
    trace::fail_new(0);
    EXPECT_EQ(mvpn_get_context_by_mdt_group(0), nullptr);
    EXPECT_EQ(mvpn_get_context_by_mti(0), nullptr);
    EXPECT_EQ(mvpn_mvrf_count, 0u);
  }
  EXPECT_NE(mvpn_create_context(nullptr, "red"), nullptr);
}

// A stop that keeps the configuration: the VRF that went meanwhile is forgotten, with its group and its ranges.
TEST_F(Removal, AStartTakesOverTheVrfsThatAreStillThere) {
  start();
  bring_up("red", 2, "239.1.1.1");
  add_vrf("blue", 3);
  command("mdt_default_cmd", "blue", {{"<mdt-default>", "239.1.1.2"}}, false, false);
  for (const auto &[vrf, prefix] : {std::pair{"red", "239.2.0.0/24"}, std::pair{"blue", "239.3.0.0/24"}})
    EXPECT_EQ(command("mdt_data_cmd", vrf, {{"<prefix>", prefix}}), 0) << printed;
  ref::settle();
  mvpn_deinit(1);
  ASSERT_TRUE(ref::wait_for_threads());
  mvpn_cibtype *blue = context("blue");
  blue->pcib->mvpn = nullptr;
  ASSERT_TRUE(ref::delete_vrf("blue"));
  ASSERT_EQ(mvpn_init(), 1);
  ref::settle();
  EXPECT_EQ(mvpn_mvrf_count, 1u);
  EXPECT_EQ(mvpn_get_context_by_mdt_group(addr("239.1.1.1")), context("red"));
  EXPECT_EQ(mvpn_get_context_by_mti(context("red")->mti_ifindex), context("red"));
  EXPECT_EQ(mvpn_get_context_by_mdt_group(addr("239.1.1.2")), nullptr);
  add_vrf("green", 4);
  EXPECT_EQ(command("mdt_default_cmd", "green", {{"<mdt-default>", "239.2.0.7"}}), CLI_RESULT_REJECTED);
  EXPECT_EQ(printed, "The MDT-default group overlaps with VRF red\n");
  EXPECT_EQ(command("mdt_default_cmd", "green", {{"<mdt-default>", "239.3.0.7"}}), 0) << printed;
  // What the VRF left behind is nobody's any more.
  active_timer_cancel(blue->switchover_timer);
  mtrack_free(blue->data_mdt_config);
  slab_free(nullptr, blue);
}

}  // namespace
