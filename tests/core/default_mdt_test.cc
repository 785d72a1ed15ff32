// A VRF's default MDT from its configuration to Up and back: order of platform calls, readiness, teardown.
#include <cstring>
#include <functional>

#include "platform/l3vm.h"
#include "platform/oim.h"
#include "platform/reference/address_sanitizer.h"
#include "platform/reference/bgp.h"
#include "platform/reference/croute.h"
#include "platform/reference/im.h"
#include "platform/reference/l3vm.h"
#include "platform/reference/mrib.h"
#include "platform/reference/mts.h"
#include "platform/reference/oim.h"
#include "platform/reference/pim.h"
#include "platform/reference/rpm.h"
#include "platform/reference/testing/runtime.h"
#include "platform/reference/testing/services.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_default_mdt.h"
#include "routing/pim/mvpn/mvpn_mdt_route.h"
#include "routing/pim/mvpn/mvpn_mrib_queue.h"
#include "tests/support/module_test.h"

namespace {

using namespace std::chrono_literals;

class DefaultMdt : public ModuleTest {
 protected:
  if_index_t tunnel_of(std::string_view vrf) { return context(vrf)->mti_ifindex; }
};

TEST_F(DefaultMdt, SetUpFromNoneAsksForTheTunnel) {
  start();
  add_vrf("red", 7, 9);
  ref::set_oim_answers(false);
  ref::add_ssm_range(addr("239.0.0.0"), 8);
  trace::start();
  command("mdt_default_cmd", "red", {{"<mdt-default>", "239.1.1.1"}});
  trace::stop();
  const std::vector<std::string> expected = {"ip_get_local_addr(1)",
                                             "l3vm_if_get_context_id(1)",
                                             "pim_is_ssm_group(1)",
                                             "bgp_get_rd(red)",
                                             "if_index_overlay_cli_init(3,9)",
                                             "im_get_iod_frm_ifindex()",
                                             "oim_if_info_list_get_size(1,5,33)",
                                             "oim_create_if()"};
  EXPECT_EQ(trace::calls_of({"ip_get_local_addr", "l3vm_if_get_context_id", "pim_is_ssm_group", "pim_is_bidir_group",
                             "bgp_get_rd", "if_index_overlay_cli_init", "im_get_iod_frm_ifindex",
                             "oim_if_info_list_get_size", "oim_create_if", "oim_modify_if"}),
            expected);
  const mvpn_cibtype *red = context("red");
  EXPECT_EQ(red->mti_status, MVPN_MTI_CREATE_PENDING);
  EXPECT_EQ(red->mdt_group_mode, MVPN_MDT_GROUP_MODE_SSM);
  ASSERT_EQ(ref::oim_requests().size(), 1u);
  const ref::OimRequest &request = ref::oim_requests()[0];
  EXPECT_EQ(request.operation, "create");
  EXPECT_EQ(request.if_index, red->mti_ifindex);
  const std::vector<std::pair<uint16_t, std::vector<uint8_t>>> params = {
      {1, {1}},
      {7, {'r', 'e', 'd'}},
      {6, {0, 0, 0, 1, 10, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
      {5, {0, 0, 0, 1, 239, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}}};
  EXPECT_EQ(request.params, params);
}

TEST_F(DefaultMdt, CreateResponseRefreshesAndBringsUp) {
  start();
  add_vrf("red", 2);
  ref::set_oim_answers(false);
  configure("red", "239.1.1.1");
  // The interface exists but is not up: the tunnel manager created it without telling.
  const if_index_t tunnel = tunnel_of("red");
  ref::set_oim_answers(true);
  ref::clear_oim_requests();
  trace::start();
  ref::settle();
  trace::stop();
  const auto &requests = ref::oim_requests();
  ASSERT_GE(requests.size(), 2u);
  EXPECT_EQ(requests[0].operation, "modify");
  EXPECT_EQ(requests[0].if_index, tunnel);
  ASSERT_EQ(requests[0].params.size(), 5u);
  EXPECT_EQ(requests[0].params[2].first, OIM_PARAM_MTU);
  EXPECT_EQ(requests[0].params[2].second, (std::vector<uint8_t>{0, 0, 0x05, 0x60}));
  EXPECT_EQ(requests[1].operation, "bringup");
  EXPECT_EQ(context("red")->mti_status, MVPN_MTI_UP);
}

TEST_F(DefaultMdt, TunnelUpDoesEverythingInOrder) {
  start();
  trace::start();
  bring_up("red", 2, "239.1.1.1");
  trace::stop();
  const std::vector<std::string> expected = {"ip_set_unnumbered(loopback0)",           "pim_enable()",
                                             "pim_calculate_holdtime(30000)",          "mts_send(43011,58)",
                                             "mrib_update_mdt_encap_info(0xaabbccde)", "mrib_trigger_rpf_lookup(2)",
                                             "pim_setup_encap_for_pending_routes()",   "pim_send_periodic_hello()",
                                             "mrib_mts_update_route(156,1,0xaabbccdf)"};
  EXPECT_EQ(trace::calls_of({"ip_set_unnumbered", "pim_enable", "pim_calculate_holdtime", "mts_send",
                             "mrib_update_mdt_encap_info", "mrib_trigger_rpf_lookup",
                             "pim_setup_encap_for_pending_routes", "pim_send_periodic_hello", "mrib_mts_update_route"}),
            expected);
  const mvpn_cibtype *red = context("red");
  ASSERT_NE(red->mti_pim_if, nullptr);
  EXPECT_EQ(red->mti_pim_if->local_addr, addr("10.0.0.1"));
  EXPECT_EQ(red->mti_pim_if->hello_interval, 30000u);
  EXPECT_EQ(red->mti_pim_if->jp_interval, 60);
  EXPECT_EQ(red->mti_pim_if->configured_jp_interval, 60);
  EXPECT_EQ(red->mti_pim_if->mtu, 1376u);
  EXPECT_EQ(red->mdt_encap_group[1], addr("239.1.1.1"));
  EXPECT_EQ(ref::mrib_last_acked_xid(), 0xaabbccdfu);
  EXPECT_EQ(rqueue_count(&mvpn_mrib_info->free_buffers), MVPN_MRIB_BUFFERS);
}

TEST_F(DefaultMdt, AFurtherUpEventRepeatsTheBringUp) {
  start();
  mvpn_cibtype *red = bring_up("red", 2, "239.1.1.1");
  ref::clear_sent_messages();
  ref::clear_mrib_updates();
  trace::start();
  mvpn_interface_status(red->mti_iod, 1);
  ref::settle();
  EXPECT_EQ(ref::sent_messages().size(), 1u);
  EXPECT_EQ(trace::count("mrib_update_mdt_encap_info"), 1u);
  ASSERT_EQ(ref::mrib_updates().size(), 1u);
  EXPECT_EQ(ref::mrib_updates()[0].count, 1u);
  EXPECT_EQ(red->mdt_route_count, 1u);
}

TEST_F(DefaultMdt, WithoutAPimInterfaceTheTunnelStaysUpAlone) {
  start();
  add_vrf("red", 2);
  trace::fail("pim_get_iftype", 1, 100);
  mvpn_cibtype *red = configure("red", "239.1.1.1");
  EXPECT_EQ(red->mti_status, MVPN_MTI_UP);
  EXPECT_EQ(red->mdt_route_count, 0u);
  EXPECT_TRUE(ref::sent_messages().empty());
}

// Each readiness condition, made to fail alone.
TEST_F(DefaultMdt, ReadinessNamesTheFirstConditionThatFails) {
  start();
  mvpn_cibtype *red = bring_up("red", 2, "239.1.1.1");
  const struct {
    const char *message;
    std::function<void()> spoil;
    std::function<void()> mend;
  } cases[] = {
      {"Context-id doesn't exist", [red] { red->pcib->context_id = 0; }, [red] { red->pcib->context_id = 2; }},
      {"l3vm_get_context_info() failed", [] { trace::fail("l3vm_get_context_info"); }, [] {}},
      {"l3vm state for context is not UP", [] { ref::set_vrf_state("red", L3VM_STATE_DOWN); },
       [] { ref::set_vrf_state("red", L3VM_STATE_UP); }},
      {"BGP RD is not set", [red] { red->bgp_rd_set = 0; }, [red] { red->bgp_rd_set = 1; }},
      {"MDT source iod is unknown", [red] { mvpn_set_mdt_source_iod(red, 0); },
       [red] { mvpn_set_mdt_source_iod(red, 1); }},
      {"MDT source iod is down",
       [] {
         ref::enable_interface_events(false);
         ref::set_interface_state("loopback0", false);
       },
       [] { ref::set_interface_state("loopback0", true); }},
      {"MDT source address doesn't exist", [red] { red->mdt_source_addr = 0; },
       [red] { red->mdt_source_addr = addr("10.0.0.1"); }},
      {"MDT default group is not configured", [red] { mvpn_set_mdt_default_group(red, 0); },
       [red] { mvpn_set_mdt_default_group(red, addr("239.1.1.1")); }},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.message);
    c.spoil();
    capture_debug();
    EXPECT_EQ(mvpn_is_default_mdt_ready(red), 0);
    EXPECT_EQ(debug_texts(), std::vector<std::string>{c.message});
    c.mend();
    EXPECT_EQ(mvpn_is_default_mdt_ready(red), 1);
  }
}

TEST_F(DefaultMdt, WithoutARouteDistinguisherTheTunnelIsOnlyCreated) {
  start();
  add_vrf("red", 2);
  ref::bgp_set_rd("red", nullptr, false);
  mvpn_cibtype *red = configure("red", "239.1.1.1");
  EXPECT_EQ(red->mti_status, MVPN_MTI_CREATED);
  for (const ref::OimRequest &request : ref::oim_requests()) EXPECT_EQ(request.operation, "create");
}

TEST_F(DefaultMdt, AVanishedSourceInterfaceKeepsTheOldAddress) {
  start();
  ref::create_interface("ethernet1", VRF_CONTEXT_ID_DEFAULT, addr("10.9.9.9"), true);
  mvpn_cibtype *red = bring_up("red", 2, "239.1.1.1");
  std::strcpy(red->mdt_source_ifname, "gone");
  capture_debug();
  mvpn_setup_default_mdt(red);
  EXPECT_EQ(red->mdt_source_iod, 0u);
  EXPECT_EQ(red->mdt_source_addr, addr("10.0.0.1"));
  std::strcpy(red->mdt_source_ifname, "");
  mvpn_setup_default_mdt(red);
  EXPECT_EQ(red->mdt_source_iod, 1u);
}

// 'no mdt default' of a VRF that is Up, from the request to the freed context.
TEST_F(DefaultMdt, RemovalOfTheGroupTakesEverythingApartInOrder) {
  start();
  ref::add_ssm_range(addr("239.0.0.0"), 8);
  mvpn_cibtype *red = bring_up("red", 2, "239.1.1.1");
  remote_update({{addr("10.0.0.2"), {0, 0, 0, 1, 0, 0, 0, 2}, addr("239.1.1.1"), {}},
                 {addr("10.0.0.3"), {0, 0, 0, 1, 0, 0, 0, 3}, addr("239.1.1.1"), {}}},
                true);
  ASSERT_EQ(red->mdt_route_count, 3u);
  const if_index_t tunnel = red->mti_ifindex;
  ref::clear_mrib_updates();
  ref::clear_sent_messages();
  trace::start();
  EXPECT_EQ(command("mdt_default_cmd", "red", {}, true), CLI_RESULT_OK);
  EXPECT_EQ(red->mti_status, MVPN_MTI_DOWN_PENDING);
  ref::settle();
  trace::stop();
  const std::vector<std::string> expected = {
      "oim_send_if_bringdown_request(0)",
      // The interface is down.
      "mts_send(43011,58)", "mrib_update_mdt_encap_info(0xaabbcce1)", "active_timer_stop()",
      "pim_delete_oif_from_all_routes(0)", "mrib_trigger_rpf_lookup(2)",
      // The worker: entries are built, the tunnel is asked to go, then the buffer leaves.
      "oim_delete_if()", "mrib_mts_update_route(616,6,0xaabbcce2)",
      // The tunnel is deleted.
      "pim_is_enabled()", "pim_disable(1,0,0)", "ip_unset_unnumbered()", "active_timer_cancel()",
      "ksink_pss_delete_range(8)"};
  EXPECT_EQ(trace::calls_of({"oim_send_if_bringdown_request", "mts_send", "mrib_update_mdt_encap_info",
                             "active_timer_stop", "pim_delete_oif_from_all_routes", "mrib_trigger_rpf_lookup",
                             "oim_delete_if", "mrib_mts_update_route", "pim_is_enabled", "pim_disable",
                             "ip_unset_unnumbered", "active_timer_cancel", "ksink_pss_delete_range"}),
            expected);
  EXPECT_EQ(context("red"), nullptr);
  EXPECT_EQ(mvpn_mvrf_count, 0u);
  EXPECT_EQ(ref::find_tunnel(tunnel), nullptr);
  EXPECT_TRUE(ref::mrib_routes().empty());
  EXPECT_TRUE(ref::mrib_encaps().empty());
  ASSERT_EQ(ref::mrib_updates().size(), 1u);
  for (size_t i = 0; i < 6; i++)
    EXPECT_EQ(ref::mrib_updates()[0].entries[i * MRIB_UPDATE_ENTRY_SIZE + MRIB_ENTRY_TEARDOWN], 1) << i;
  // The withdrawal names what was advertised.
  ASSERT_EQ(ref::sent_messages().size(), 1u);
  const std::vector<uint8_t> &message = ref::sent_messages()[0].payload;
  ASSERT_EQ(message.size(), 58u);
  EXPECT_EQ(message[0], 1);
  EXPECT_STREQ(reinterpret_cast<const char *>(&message[2]), "red");
  EXPECT_EQ(word_at(message, 2 + BGP_MDT_SAFI_ENTRY_SOURCE), addr("10.0.0.1"));
  EXPECT_EQ(word_at(message, 2 + BGP_MDT_SAFI_ENTRY_GROUP), addr("239.1.1.1"));
  EXPECT_EQ(message[2 + BGP_MDT_SAFI_ENTRY_ADD], 0);
}

TEST_F(DefaultMdt, AVrfThatIsDownKeepsItsOutgoingInterfacesAndSaysNothingToTheMrib) {
  start();
  mvpn_cibtype *red = bring_up("red", 2, "239.1.1.1");
  ref::set_vrf_state("red", L3VM_STATE_DOWN);
  trace::start();
  mvpn_interface_status(red->mti_iod, 0);
  EXPECT_EQ(trace::count("mts_send"), 1u) << "the withdrawal";
  EXPECT_EQ(trace::count("mrib_update_mdt_encap_info"), 0u);
  EXPECT_EQ(trace::count("pim_delete_oif_from_all_routes"), 0u);
  EXPECT_EQ(trace::count("mrib_trigger_rpf_lookup"), 0u);
  EXPECT_EQ(red->mti_status, MVPN_MTI_DOWN_IN_PROGRESS);
  EXPECT_EQ(red->mdt_encap_group[1], 0u);
  ref::settle();
  EXPECT_EQ(red->mti_status, MVPN_MTI_DOWN);
  ref::set_vrf_state("red", L3VM_STATE_UP);
  mvpn_setup_default_mdt(red);
  ref::settle();
  EXPECT_EQ(red->mti_status, MVPN_MTI_UP);
}

// Nothing is sent into a tunnel that is down, and the flows are in it again when it is up.
TEST_F(DefaultMdt, CustomerRoutesLoseTheTunnelWithItAndGetItBack) {
  start();
  mvpn_cibtype *red = bring_up("red", 2, "239.1.1.1");
  ref::create_interface("ethernet1", 2, addr("172.16.0.1"), true);
  ref::CustomerRoute flow;
  flow.addrs = route_addrs("172.16.9.1", "225.0.0.1");
  flow.iif = "ethernet1";
  flow.rpf_neighbor = addr("172.16.0.2");
  flow.to_mvpn = true;
  const pim_route *croute = ref::set_customer_route("red", flow);
  ASSERT_NE(croute, nullptr);
  const im_iod_t tunnel = red->mti_iod;
  ASSERT_NE(bitfield_test(&croute->oifs, tunnel), 0);
  mvpn_default_tunnel_down(red, 0);
  EXPECT_EQ(bitfield_test(&croute->oifs, tunnel), 0);
  ref::settle();
  ASSERT_EQ(red->mti_status, MVPN_MTI_UP);
  EXPECT_NE(bitfield_test(&croute->oifs, red->mti_iod), 0);
}

TEST_F(DefaultMdt, ASecondGoingDownIsIgnored) {
  start();
  mvpn_cibtype *red = bring_up("red", 2, "239.1.1.1");
  ref::clear_sent_messages();
  trace::start();
  mvpn_default_tunnel_down(red, 0);
  mvpn_default_tunnel_down(red, 0);
  EXPECT_EQ(ref::sent_messages().size(), 1u);
  EXPECT_EQ(trace::count("pthread_cond_signal"), 2u) << "the clear walk and the VRF's element, each once";
}

TEST_F(DefaultMdt, GoingDownBeforeUpOnlyQueuesTheVrfOnce) {
  start();
  add_vrf("red", 2);
  ref::bgp_set_rd("red", nullptr, false);
  mvpn_cibtype *red = configure("red", "239.1.1.1");
  ASSERT_EQ(red->mti_status, MVPN_MTI_CREATED);
  trace::start();
  mvpn_default_tunnel_down(red, 0);
  mvpn_default_tunnel_down(red, 0);
  EXPECT_EQ(trace::count("pthread_cond_signal"), 1u);
  EXPECT_EQ(trace::count("mts_send"), 0u);
  EXPECT_EQ(red->mti_status, MVPN_MTI_CREATED);
  ref::settle();
  EXPECT_EQ(red->mti_status, MVPN_MTI_DOWN) << "the worker has evaluated the VRF again";
}

// The interface is still up when the worker has finished with the routes: the tunnel comes up again on the worker.
TEST_F(DefaultMdt, TheWorkerBringsAReadyTunnelUpAgain) {
  start();
  mvpn_cibtype *red = bring_up("red", 2, "239.1.1.1");
  ref::clear_sent_messages();
  mvpn_default_tunnel_down(red, 0);
  ref::settle();
  EXPECT_EQ(red->mti_status, MVPN_MTI_UP);
  EXPECT_EQ(ref::sent_messages().size(), 2u) << "one withdrawal, one advertisement";
  EXPECT_EQ(ref::mrib_routes().size(), 1u);
}

// A delete response that nobody asked for, while routes still wait for the worker.
TEST_F(DefaultMdt, ASpuriousDeleteResponseDuringTheTeardownIsSafe) {
  start();
  mvpn_cibtype *red = bring_up("red", 2, "239.1.1.1");
  EXPECT_EQ(
      command("mdt_data_cmd", "red", {{"<prefix>", "239.2.0.0/24"}, {"route-map", ""}, {"<policy-name>", "flows"}}),
      CLI_RESULT_OK)
      << printed;
  ASSERT_EQ(ref::policy_bindings(), 1u);
  const if_index_t tunnel = red->mti_ifindex;
  command("mdt_default_cmd", "red", {}, true);
  oim_response(MTS_OPC_OIM_IF_DELETE_RESPONSE, {{tunnel, 0, 0}});
  EXPECT_EQ(mvpn_mvrf_count, 0u);
  EXPECT_EQ(ref::policy_bindings(), 0u);
}

// A VRF may go in any yield of its teardown. Its successor, which has the address of the context that is being taken
// apart, is not taken apart with it.
TEST_F(DefaultMdt, AVrfThatIsConfiguredAnewInAnyYieldOfATeardownStaysWhole) {
  start();
  add_vrf("red", 2);
  bool replaced = true;
  unsigned yields = 0;
  for (unsigned at = 1; replaced; at++) {
    SCOPED_TRACE(at);
    mvpn_cibtype *red = configure("red", "239.1.1.1");
    ASSERT_EQ(red->mti_status, MVPN_MTI_UP);
    ref::set_mrib_acks(false);
    for (uint32_t i = 0; i < 250; i++)
      mvpn_mdt_add_route_resources(red, MVPN_MDT_ROUTE_REMOTE_DATA, addr("10.1.0.0") + i, 1, addr("239.7.7.7"), 0);
    replaced = false;
    trace::on_yield([&](unsigned n) {
      if (n != at) return false;
      replaced = true;
      trace::on_yield(nullptr);
      ref::set_mrib_acks(true);
      const if_index_t tunnel = red->mti_ifindex;
      command("mdt_default_cmd", "red", {}, true);
      oim_response(MTS_OPC_OIM_IF_DELETE_RESPONSE, {{tunnel, 0, 0}});
      ref::settle();
      EXPECT_EQ(context("red"), nullptr);
      const mvpn_cibtype *former = red;
      red = configure("red", "239.1.1.2");
#if !WATCHED_BY_ADDRESS_SANITIZER  // which keeps freed memory back
      EXPECT_EQ(red, former) << "the slab gives the same address";
#else
      (void)former;
#endif
      return true;
    });
    mvpn_default_tunnel_down(red, 0);
    trace::on_yield(nullptr);
    ref::set_mrib_acks(true);
    if (replaced) {
      EXPECT_EQ(red->mti_status, MVPN_MTI_UP);
      EXPECT_EQ(red->mdt_route_count, 1u);
      EXPECT_EQ(red->mdt_encap_group[MVPN_ENCAP_INDEX_DEFAULT], addr("239.1.1.2"));
      yields = at;
    }
    command("mdt_default_cmd", "red", {}, true);
    ref::settle();
    ASSERT_EQ(context("red"), nullptr);
  }
  EXPECT_GT(yields, 0u) << "the teardown must yield";
}

}  // namespace
