// The MDT source: its interface is replaced, loses or changes its address, goes down, appears late.

#include "platform/reference/bgp.h"
#include "platform/reference/im.h"
#include "platform/reference/mrib.h"
#include "platform/reference/oim.h"
#include "platform/reference/testing/runtime.h"
#include "platform/reference/testing/services.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_mdt_source.h"
#include "tests/support/module_test.h"

namespace {

class Source : public ModuleTest {
 protected:
  static std::vector<std::string> operations() {
    std::vector<std::string> out;
    for (const ref::OimRequest &request : ref::oim_requests()) out.push_back(request.operation);
    return out;
  }
};

TEST_F(Source, AnAddressChangeActsByStatus) {
  using S = std::vector<std::string>;
  const struct {
    mvpn_mti_status_t status;
    S with_address;
    S without;
  } cases[] = {
      {MVPN_MTI_NONE, {}, {}},
      {MVPN_MTI_CREATE_PENDING, {}, {}},
      {MVPN_MTI_CREATED, {"modify", "bringup"}, {}},
      {MVPN_MTI_DOWN_PENDING, {}, {}},
      {MVPN_MTI_DOWN_IN_PROGRESS, {}, {}},
      {MVPN_MTI_DOWN, {"modify", "bringup"}, {}},
      {MVPN_MTI_DELETE_PENDING, {}, {}},
      {MVPN_MTI_DELETED, {}, {}},
      {MVPN_MTI_UP_PENDING, {"modify"}, {"bringdown"}},
      {MVPN_MTI_UP, {"bringdown"}, {"bringdown"}},
  };
  start();
  mvpn_cibtype *red = bring_up("red", 2, "239.1.1.1");
  const im_iod_t source = red->mdt_source_iod;
  ref::set_oim_answers(false);
  ref::enable_interface_events(false);
  // The tunnel interface exists and is down, so that a bring-up is a request.
  ref::set_interface_state(ref::find_interface(red->mti_iod)->name, false);
  uint32_t host = 10;
  for (const auto &c : cases)
    for (const bool address : {true, false}) {
      SCOPED_TRACE(std::string(mvpn_mti_status_str[c.status]) + (address ? ", new address" : ", no address"));
      red->mti_status = c.status;
      ref::set_interface_address("loopback0", address ? addr("10.0.0.0") + ++host : 0);
      ref::clear_oim_requests();
      mvpn_process_address_change(source);
      EXPECT_EQ(operations(), address ? c.with_address : c.without);
      EXPECT_EQ(red->mdt_source_addr != 0, address);
    }
  red->mti_status = MVPN_MTI_UP;
  ref::set_oim_answers(true);
}

TEST_F(Source, AnAddressChangeBringsUpNothingThatIsNotReady) {
  start();
  mvpn_cibtype *red = bring_up("red", 2, "239.1.1.1");
  ref::set_interface_state("loopback0", false);
  ref::settle();
  for (const auto status : {MVPN_MTI_CREATED, MVPN_MTI_DOWN}) {
    red->mti_status = status;
    red->bgp_rd_set = 0;
    ref::clear_oim_requests();
    ref::set_interface_address("loopback0", addr("10.0.0.10") + status);
    mvpn_process_address_change(red->mdt_source_iod);
    EXPECT_EQ(operations(), std::vector<std::string>{});
    EXPECT_EQ(red->mti_status, status);
  }
  red->bgp_rd_set = 1;
}

TEST_F(Source, TheSameAddressOnAnotherInterfaceChangesNoTunnel) {
  start();
  const im_iod_t other = ref::create_interface("loopback1", VRF_CONTEXT_ID_DEFAULT, addr("10.0.0.1"), true);
  mvpn_cibtype *red = bring_up("red", 2, "239.1.1.1");
  ref::clear_oim_requests();
  mvpn_process_mdt_source_change(red, other);
  EXPECT_EQ(red->mdt_source_iod, other);
  EXPECT_TRUE(ref::oim_requests().empty());
}

// The group is exchanged while the source is away: the tunnel goes, and the VRF waits for its source without one.
TEST_F(Source, AVrfWithoutTunnelGetsOneWhenItsSourceReturns) {
  const struct {
    const char *name;
    std::function<void()> lose, give_back;
  } cases[] = {
      {"interface", [] { ref::set_interface_state("loopback0", false); },
       [] { ref::set_interface_state("loopback0", true); }},
      {"address", [] { ref::set_interface_address("loopback0", 0); },
       [] { ref::set_interface_address("loopback0", addr("10.0.0.5")); }},
  };
  start();
  add_vrf("red", 2);
  for (const auto &c : cases)
    for (const bool removed : {false, true}) {
      SCOPED_TRACE(std::string(c.name) + (removed ? ", group removed meanwhile" : ""));
      ASSERT_EQ(configure("red", "239.1.1.1")->mti_status, MVPN_MTI_UP);
      c.lose();
      ref::settle();
      command("mdt_default_cmd", "red", {}, true);
      configure("red", "239.1.1.2");
      ASSERT_NE(context("red"), nullptr);
      ASSERT_EQ(context("red")->mti_status, MVPN_MTI_DELETED);
      if (removed) {
        command("mdt_default_cmd", "red", {}, true);
        EXPECT_EQ(context("red"), nullptr) << "nothing is outstanding";
      }
      ref::clear_oim_requests();
      c.give_back();
      ref::settle();
      if (removed) continue;
      EXPECT_EQ(operations().front(), "create");
      EXPECT_EQ(context("red")->mti_status, MVPN_MTI_UP);
      command("mdt_default_cmd", "red", {}, true);
      ref::settle();
      EXPECT_EQ(context("red"), nullptr);
    }
}

// A stop that keeps the configuration: the module asks for nothing while it is stopped. Its next start finds the tunnel
// down and the address changed.
TEST_F(Source, AnAddressThatChangesDuringAStopIsFollowedByTheNextStart) {
  start();
  mvpn_cibtype *red = bring_up("red", 2, "239.1.1.1");
  mvpn_deinit(1);
  ASSERT_TRUE(ref::wait_for_threads());
  ref::clear_oim_requests();
  ref::set_interface_address("loopback0", addr("10.0.0.77"));
  ref::settle();
  mvpn_process_address_change(red->mdt_source_iod);
  EXPECT_TRUE(ref::oim_requests().empty());
  EXPECT_EQ(red->mti_status, MVPN_MTI_UP);
  ASSERT_EQ(mvpn_init(), 1);
  ref::settle();
  EXPECT_EQ(red->mti_status, MVPN_MTI_UP);
  EXPECT_EQ(ref::find_tunnel(red->mti_ifindex)->source, addr("10.0.0.77"));
  ASSERT_EQ(ref::bgp_local_entries().size(), 1u);
  EXPECT_EQ(ref::bgp_local_entries()[0].source, addr("10.0.0.77"));
}

// A name must not keep the end of a longer one before it; without a name of its own the VRF has BGP's source again.
TEST_F(Source, AConfiguredSourceIsReplacedByAShorterNameAndByNone) {
  start();
  ref::create_interface("loopback100", VRF_CONTEXT_ID_DEFAULT, addr("10.0.0.100"), true);
  ref::create_interface("lo", VRF_CONTEXT_ID_DEFAULT, addr("10.0.0.2"), true);
  mvpn_cibtype *red = bring_up("red", 2, "239.1.1.1");
  for (const auto &[name, address] : {std::pair("loopback100", "10.0.0.100"), std::pair("lo", "10.0.0.2")}) {
    ASSERT_EQ(command("mdt_source_cmd", "red", {{"<interface>", name}}), 0);
    ref::settle();
    EXPECT_EQ(red->mdt_source_addr, addr(address)) << name;
    EXPECT_EQ(red->mti_status, MVPN_MTI_UP);
  }
  ASSERT_EQ(command("mdt_source_cmd", "red", {}, true), 0);
  ref::settle();
  EXPECT_EQ(red->mdt_source_addr, addr("10.0.0.1"));
  EXPECT_EQ(ref::find_tunnel(red->mti_ifindex)->source, addr("10.0.0.1"));
}

// VRFs wait for an update source that is created late: each is told once, though telling one walks all of them.
TEST_F(Source, AnUpdateSourceThatAppearsReachesEveryWaitingVrf) {
  ref::bgp_set_update_source("loopback9", false);
  start();
  for (const char *vrf : {"a", "b", "c"}) {
    add_vrf(vrf, static_cast<vrf_context_id_t>(vrf[0]));
    configure(vrf, std::string("239.1.1.") + std::to_string(vrf[0]));
    EXPECT_EQ(context(vrf)->mdt_source_iod, 0u);
  }
  capture_debug();
  ref::create_interface("loopback9", VRF_CONTEXT_ID_DEFAULT, addr("10.0.0.9"), true);
  ref::settle();
  EXPECT_EQ(debug_count("BGP: Update MTI source for "), 3u);
  for (const char *vrf : {"a", "b", "c"}) {
    EXPECT_EQ(context(vrf)->mdt_source_addr, addr("10.0.0.9"));
    EXPECT_EQ(context(vrf)->mti_status, MVPN_MTI_UP);
  }
}

TEST_F(Source, AConfiguredSourceThatAppearsIsOnlyNoted) {
  start();
  ref::enable_interface_events(false);
  add_vrf("red", 2);
  mvpn_cibtype *red = mvpn_create_context(nullptr, "red");
  command("mdt_source_cmd", "red", {{"<interface>", "ethernet7"}});
  EXPECT_EQ(red->mdt_source_iod, 0u);
  const im_iod_t iod = ref::create_interface("ethernet7", VRF_CONTEXT_ID_DEFAULT, addr("10.7.7.7"), true);
  mvpn_interface_create(iod);
  EXPECT_EQ(red->mdt_source_iod, iod);
  EXPECT_EQ(red->mdt_source_addr, 0u) << "the address comes with the next set-up or address change";
}

}  // namespace
