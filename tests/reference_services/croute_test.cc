// Customer routes: what the module is told and when, the statistics pass, VRFs coming and going.
#include "platform/reference/croute.h"
#include "platform/im.h"
#include "platform/mrib.h"
#include "platform/oim.h"
#include "platform/reference/im.h"
#include "platform/reference/l3vm.h"
#include "platform/reference/oim.h"
#include "platform/reference/testing/runtime.h"
#include "tests/reference_services/services_test.h"

namespace {

using namespace std::chrono_literals;
using Texts = std::vector<std::string>;

const std::string flow = "(10.5.0.1/32, 232.1.1.1/32)";

class CustomerRouteTest : public ServicesTest {
 protected:
  void SetUp() override {
    ServicesTest::SetUp();
    red_ = ref::create_vrf("red", 7, 7);
    ref::create_interface("lan", 7, address("10.5.0.254"), true);
    ref::create_interface("wan", 7, address("10.6.0.254"), true);
    ref::settle();
    told.clear();
  }

  void bring_up_tunnel() {
    ref::delete_vrf("red");
    red_ = vrf_with_tunnel("red", 7, address("239.1.1.1"));
    ref::create_interface("lan", 7, address("10.5.0.254"), true);
    ref::create_interface("wan", 7, address("10.6.0.254"), true);
    ref::settle();
    told.clear();
  }

  Texts set(const ref::CustomerRoute &route) {
    told.clear();
    EXPECT_NE(ref::set_customer_route("red", route), nullptr);
    EXPECT_TRUE(told.empty()) << "told before the main loop ran";
    ref::settle();
    return told;
  }

  ref::CustomerRoute local_flow() {
    ref::CustomerRoute route;
    route.addrs = sg("10.5.0.1", "232.1.1.1");
    route.iif = "lan";
    route.rpf_neighbor = address("10.5.0.1");
    route.to_mvpn = true;
    return route;
  }

  pim_cibtype *red_ = nullptr;
};

TEST_F(CustomerRouteTest, RefusesWhatCannotBeARoute) {
  const auto refused = [](auto change) {
    ref::CustomerRoute route;
    route.addrs = sg("10.5.0.1", "232.1.1.1");
    change(route);
    return ref::set_customer_route("red", route) == nullptr;
  };
  EXPECT_TRUE(refused([](auto &route) { route.addrs.group_len = 33; }));
  EXPECT_TRUE(refused([](auto &route) { route.addrs.source_len = 33; }));
  EXPECT_TRUE(refused([](auto &route) { route.addrs.source = 0; }));
  EXPECT_TRUE(refused([](auto &route) { route.addrs.group = 0; }));
  EXPECT_TRUE(refused([](auto &route) { route.iif = "nowhere"; }));
  EXPECT_TRUE(refused([](auto &route) { route.oifs = {"wan", "nowhere"}; }));
  EXPECT_TRUE(ref::customer_routes("red").empty());
  EXPECT_EQ(ref::set_customer_route("blue", local_flow()), nullptr);
}

TEST_F(CustomerRouteTest, TellsReceiversRpfAndMappingInOrder) {
  bring_up_tunnel();
  EXPECT_EQ(set(local_flow()), (Texts{"join " + flow, "rpf up " + flow, "map " + flow}));
  EXPECT_EQ(set(local_flow()), (Texts{"join " + flow})) << "nothing about RPF or mapping changed";
  ref::CustomerRoute changed = local_flow();
  changed.iif = "wan";
  changed.to_mvpn = false;
  EXPECT_EQ(set(changed), (Texts{"prune " + flow, "rpf down " + flow, "rpf up " + flow}));
}

TEST_F(CustomerRouteTest, MribHoldsTheRouteBeforeTheModuleHearsOfIt) {
  const mvpn_mdt_route_addrs addrs = sg("10.5.0.1", "232.1.1.1");
  ref::set_customer_route("red", local_flow());
  EXPECT_NE(mrib_get_route_by_addr(7, &addrs), nullptr);
  ref::settle();
  ref::delete_customer_route("red", addrs);
  EXPECT_NE(mrib_get_route_by_addr(7, &addrs), nullptr);
  ref::settle();
  EXPECT_EQ(mrib_get_route_by_addr(7, &addrs), nullptr);
}

TEST_F(CustomerRouteTest, DeletionTellsBothCallsBeforeTheRecordGoes) {
  bring_up_tunnel();
  set(local_flow());
  told.clear();
  const mvpn_mdt_route_addrs addrs = sg("10.5.0.1", "232.1.1.1");
  EXPECT_TRUE(ref::delete_customer_route("red", addrs));
  EXPECT_FALSE(ref::delete_customer_route("red", addrs)) << "a second time";
  EXPECT_TRUE(told.empty());
  EXPECT_NE(pim_get_route_from_pt(red_, &addrs), nullptr) << "freed before the module was told";
  ref::settle();
  EXPECT_EQ(told, (Texts{"delete " + flow, "unmap " + flow}));
  EXPECT_EQ(pim_get_route_from_pt(red_, &addrs), nullptr);
  EXPECT_EQ(red_->route_tree, nullptr);
}

TEST_F(CustomerRouteTest, SettingADeletedRouteAgainKeepsIt) {
  bring_up_tunnel();
  set(local_flow());
  told.clear();
  ref::delete_customer_route("red", local_flow().addrs);
  ref::set_customer_route("red", local_flow());
  ref::settle();
  EXPECT_EQ(told, (Texts{"join " + flow}));
  EXPECT_EQ(ref::customer_routes("red").size(), 1u);
}

TEST_F(CustomerRouteTest, EventsOfARouteThatIsGoneAreDropped) {
  ref::set_customer_route("red", local_flow());
  ref::delete_vrf("red");
  ref::settle();
  for (const std::string &text : told) EXPECT_EQ(text.find(flow), std::string::npos) << text;
}

TEST_F(CustomerRouteTest, RoutesFollowTheTunnel) {
  bring_up_tunnel();
  const if_index_t if_index = ref::tunnels()[0].if_index;
  const im_iod_t tunnel = tunnel_iod("red");
  oim_send_if_bringdown_request(if_index, 0);
  ref::settle();
  ref::CustomerRoute remote;
  remote.addrs = sg("10.9.0.1", "232.1.1.2");
  remote.iif = "mvpn";
  remote.oifs = {"lan"};
  const pim_route *received = ref::set_customer_route("red", remote);
  const pim_route *sent = ref::set_customer_route("red", local_flow());
  ref::settle();
  EXPECT_EQ(received->iif, 0u);
  EXPECT_FALSE(bitfield_test(&sent->oifs, tunnel));
  told.clear();

  oim_send_if_bringup_request(if_index, 0);
  ref::settle();
  mrib_rpf_request request{};
  request.context_id = 7;
  mrib_trigger_rpf_lookup(client, &request);
  pim_setup_encap_for_pending_routes(red_);
  ref::settle();
  EXPECT_EQ(told, (Texts{"mti7 up", "rpf up (10.9.0.1/32, 232.1.1.2/32)", "map " + flow}));
  EXPECT_EQ(received->iif, tunnel);
  EXPECT_TRUE(bitfield_test(&sent->oifs, tunnel));
  const mvpn_mdt_route_addrs addrs = remote.addrs;
  EXPECT_EQ(mrib_get_route_by_addr(7, &addrs)->mti_iod, tunnel);

  told.clear();
  pim_delete_oif_from_all_routes(red_, tunnel, 0);
  oim_send_if_bringdown_request(if_index, 0);
  ref::settle();
  mrib_trigger_rpf_lookup(client, &request);
  ref::settle();
  EXPECT_EQ(told, (Texts{"mti7 down", "rpf down (10.9.0.1/32, 232.1.1.2/32)"}));
  EXPECT_FALSE(bitfield_test(&sent->oifs, tunnel));
}

TEST_F(CustomerRouteTest, JoinsAreNotifiedAgainForRoutesWithReceivers) {
  ref::CustomerRoute idle = local_flow();
  idle.addrs.source = address("10.5.0.2");
  ref::CustomerRoute wanted = local_flow();
  wanted.oifs = {"wan"};
  set(idle);
  set(wanted);
  told.clear();
  mrib_trigger_join_notify(pim_mpib);
  EXPECT_TRUE(told.empty());
  ref::settle();
  EXPECT_EQ(told, (Texts{"join " + flow}));
}

TEST_F(CustomerRouteTest, KeysPutGroupBeforeSourceAndAnySourceFirst) {
  for (const char *source : {"10.5.0.2", "10.5.0.1"}) {
    ref::CustomerRoute route;
    route.addrs = sg(source, "232.1.1.2");
    set(route);
  }
  ref::CustomerRoute shared;
  shared.addrs = star_g("232.1.1.2");
  shared.addrs.source = 77;  // junk
  set(shared);
  ref::CustomerRoute first;
  first.addrs = sg("10.9.9.9", "232.1.1.1");
  set(first);
  Texts order;
  for (const ref::CustomerRoute &route : ref::customer_routes("red")) order.push_back(mrib_print_addrs(&route.addrs));
  EXPECT_EQ(order, (Texts{"(10.9.9.9/32, 232.1.1.1/32)", "(*, 232.1.1.2/32)", "(10.5.0.1/32, 232.1.1.2/32)",
                          "(10.5.0.2/32, 232.1.1.2/32)"}));
  const std::vector<uint8_t> expected{232, 1, 1, 2, 32, 0, 0, 0, 0, 0};
  const pt_node *node =
      pt_get_next_node(red_->route_tree, pt_node_key(pt_get_first_node(red_->route_tree, nullptr, 0)), 0);
  EXPECT_EQ(std::vector<uint8_t>(pt_node_key(node), pt_node_key(node) + PIM_ROUTE_KEY_BYTES), expected);
  const mvpn_mdt_route_addrs wanted = star_g("232.1.1.2");
  const pim_route *route = pim_get_route_from_pt(red_, &wanted);
  ASSERT_NE(route, nullptr);
  EXPECT_EQ(route->is_star_g, 1);
  EXPECT_EQ(route->addrs.source, 0u);
}

TEST_F(CustomerRouteTest, StatisticsPassChecksRoutesThenSendsThenEndsSwitchovers) {
  bring_up_tunnel();
  ref::CustomerRoute rated = local_flow();
  rated.rate_kbps = 1000;
  const pim_route *route = ref::set_customer_route("red", rated);
  ref::settle();
  const_cast<pim_route *>(route)->send_join_info = reinterpret_cast<mvpn_data_mdt_send_join_info *>(0x2000);
  ref::start_statistics();
  told.clear();
  ref::advance(59s);
  EXPECT_TRUE(told.empty());
  ref::advance(1s);
  EXPECT_EQ(told, (Texts{"check " + flow + " 7500000", "send 0"}));
  ref::advance(2s);
  EXPECT_EQ(told.size(), 2u);
  ref::advance(1s);
  EXPECT_EQ(told.back(), "expiry");
  EXPECT_TRUE(ref::set_customer_bytes("red", rated.addrs, 1'000'000));
  told.clear();
  ref::advance(57s);
  EXPECT_EQ(told.front(), "check " + flow + " 1000000");
}

TEST_F(CustomerRouteTest, VrfWithAContextOfTheModuleStays) {
  EXPECT_EQ(ref::create_vrf("red", 8, 8), nullptr);
  EXPECT_EQ(ref::create_vrf("blue", 7, 8), nullptr);
  EXPECT_EQ(ref::create_vrf("blue", 8, 7), nullptr);
  EXPECT_EQ(ref::create_vrf(std::string(33, 'x'), 8, 8), nullptr);
  EXPECT_NE(ref::create_vrf(std::string(32, 'x'), 8, 8), nullptr);
  EXPECT_FALSE(ref::delete_vrf("default"));
  red_->mvpn = reinterpret_cast<mvpn_cibtype *>(0x1000);
  EXPECT_FALSE(ref::delete_vrf("red"));
  red_->mvpn = nullptr;
  EXPECT_TRUE(ref::delete_vrf("red"));
  EXPECT_EQ(pim_get_cib_by_context_name("red"), nullptr);
  EXPECT_NE(ref::create_vrf("red", 7, 7), nullptr);
}

TEST_F(CustomerRouteTest, ContextsWalkByNameAndByNumber) {
  ref::create_vrf("b", 9, 9);
  ref::create_vrf("a", 256, 10);  // above 9 as a number, below it as bytes in memory
  Texts by_name, by_number;
  pim_cib_iterator at;
  for (pim_cibtype *pcib = pim_get_first_cib_by_name(&at); pcib != nullptr; pcib = pim_get_next_cib_by_name(&at)) {
    by_name.push_back(pcib->vrf_name);
    if (by_name.back() == "a") ref::delete_vrf("b");  // the next one
  }
  ravl_iterator walk;
  ravl_init_iterator(&walk, &pim_contexts_by_context_id);
  for (void *data = ravl_get_first_user_data(&walk); data != nullptr; data = ravl_get_next_user_data(&walk))
    by_number.push_back(static_cast<pim_cibtype *>(data)->vrf_name);
  EXPECT_EQ(by_name, (Texts{"a", "default", "red"}));
  EXPECT_EQ(by_number, (Texts{"default", "red", "a"}));
}

TEST_F(CustomerRouteTest, ContextMadeByPimIsTakenOver) {
  pim_cibtype *early = pim_create_context("early");
  ASSERT_NE(early, nullptr);
  EXPECT_EQ(early->context_id, 0u);
  EXPECT_EQ(ref::create_vrf("early", 11, 11), early);
  EXPECT_EQ(pim_get_cib_by_context_id(11), early);
}

}  // namespace
