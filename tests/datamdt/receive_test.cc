// The receiving side: the receive cache, core routes that are joined for it, and ageing.
#include <sched.h>

#include <algorithm>
#include <cstring>

#include "platform/im.h"
#include "platform/reference/croute.h"
#include "platform/reference/diag.h"
#include "platform/reference/im.h"
#include "platform/reference/module.h"
#include "platform/reference/testing/runtime.h"
#include "platform/reference/testing/services.h"
#include "routing/pim/mvpn/mvpn_datamdt_age_internal.h"
#include "routing/pim/mvpn/mvpn_datamdt_receiver_internal.h"
#include "routing/pim/mvpn/mvpn_default_mdt.h"
#include "routing/pim/mvpn/mvpn_mdt_route_internal.h"
#include "tests/support/data_mdt_test.h"

using namespace std::chrono_literals;

namespace {

class Receive : public DataMdtTest {
 protected:
  static mvpn_data_mdt_recv_join_info *record(std::string_view source, std::string_view group,
                                              std::string_view pe = remote_pe) {
    return mvpn_get_data_mdt_recv_join_info(mvpn_get_context("red"), source == "*" ? 0 : addr(source), addr(group),
                                            addr(pe));
  }
  // A customer route goes without the module being told.
  static void lose(std::string_view source, std::string_view group) {
    const ref::Module linked = ref::module();
    ref::Module deaf = linked;
    deaf.route_delete = nullptr;
    deaf.unmap_local_source = nullptr;
    ref::set_module(deaf);
    EXPECT_TRUE(ref::delete_customer_route("red", route_addrs(source, group)));
    ref::settle();
    ref::set_module(linked);
  }
  void expire_all() {
    ref::advance(211s);
    check_invariants();
  }
};

TEST_F(Receive, OnlyThePeTowardsTheSourceIsBelieved) {
  mvpn_cibtype *mvpn = start_red();
  receiver("172.16.7.1", "225.0.0.1");
  capture_debug();
  EXPECT_EQ(hear("172.16.7.1", "225.0.0.1", "239.7.0.1", "10.0.0.8"), nullptr);
  EXPECT_EQ(debug_count("RPF check for"), 1u);
  EXPECT_EQ(debug_count("differs from 10.0.0.8"), 1u);
  EXPECT_NE(hear("172.16.7.1", "225.0.0.1", "239.7.0.1"), nullptr);
  EXPECT_NE(hear("*", "225.0.0.1", "239.7.0.1", "10.0.0.8"), nullptr) << "any PE may announce a shared tree";
  EXPECT_NE(hear("172.16.7.2", "225.0.0.1", "239.7.0.1", "10.0.0.8"), nullptr) << "nothing is known of the source";
  EXPECT_EQ(mvpn->data_mdt_recv_count, 3u);
  EXPECT_EQ(record("172.16.7.1", "225.0.0.1", "0.0.0.0"), record("172.16.7.1", "225.0.0.1")) << "any PE's";
  EXPECT_EQ(record("172.16.7.9", "225.0.0.1", "0.0.0.0"), nullptr);
}

TEST_F(Receive, ARepeatedAnnouncementIsCountedAnotherGroupReplacesIt) {
  mvpn_cibtype *mvpn = start_red();
  receiver("172.16.7.1", "225.0.0.1");
  EXPECT_EQ(hear("172.16.7.1", "225.0.0.1", "239.7.0.1")->join_count, 1u);
  const uint64_t created = record("172.16.7.1", "225.0.0.1")->create_time.seconds;
  ref::advance(10s);
  const auto *heard = hear("172.16.7.1", "225.0.0.1", "239.7.0.1");
  EXPECT_EQ(heard->join_count, 2u);
  EXPECT_EQ(heard->create_time.seconds, created);
  EXPECT_EQ(heard->last_time.seconds, created + 10);
  EXPECT_EQ(heard->expiry_time.seconds, created + 190);
  EXPECT_TRUE(mrib_holds(remote_pe, "239.7.0.1"));
  heard = hear("172.16.7.1", "225.0.0.1", "239.7.0.2");
  EXPECT_EQ(heard->join_count, 1u);
  EXPECT_EQ(heard->create_time.seconds, created + 10);
  EXPECT_FALSE(mrib_holds(remote_pe, "239.7.0.1"));
  EXPECT_TRUE(mrib_holds(remote_pe, "239.7.0.2"));
  EXPECT_EQ(mvpn->data_mdt_recv_join_count, 3u);
  EXPECT_EQ(mvpn->data_mdt_recv_count, 1u);
  check_invariants();
}

TEST_F(Receive, ARouteStaysUntilBothKindsOfCustomerRouteHaveWithdrawn) {
  start_red();
  EXPECT_EQ(hear("172.16.7.1", "225.0.0.1", "239.7.0.1")->mdt_route, nullptr) << "no receivers yet";
  receiver("172.16.7.1", "225.0.0.1");  // its join notification maps the waiting announcement
  receiver("*", "225.0.0.1");
  receiver("*", "225.0.0.2");  // a neighbour in the cache that must not be visited
  EXPECT_EQ(record("172.16.7.1", "225.0.0.1")->flags, MVPN_RECV_JOIN_MAPPED_SG | MVPN_RECV_JOIN_MAPPED_STARG);
  remove("172.16.7.1", "225.0.0.1");
  EXPECT_EQ(record("172.16.7.1", "225.0.0.1")->flags, MVPN_RECV_JOIN_MAPPED_STARG);
  EXPECT_TRUE(mrib_holds(remote_pe, "239.7.0.1"));
  check_invariants();
  remove("*", "225.0.0.2");
  EXPECT_EQ(record("172.16.7.1", "225.0.0.1")->flags, MVPN_RECV_JOIN_MAPPED_STARG);
  remove("*", "225.0.0.1");
  EXPECT_EQ(record("172.16.7.1", "225.0.0.1")->mdt_route, nullptr);
  EXPECT_FALSE(mrib_holds(remote_pe, "239.7.0.1"));
  check_invariants();
}

TEST_F(Receive, ACustomerRouteVisitsTheAnnouncementsOfItsGroupAndSource) {
  mvpn_cibtype *mvpn = start_red();
  for (const char *group : {"225.0.0.1", "225.0.0.2"})
    for (const char *source : {"172.16.7.1", "172.16.7.2"})
      for (const char *pe : {"10.0.0.8", "10.0.0.9"}) hear(source, group, "239.7.0.1", pe);
  receiver("172.16.7.2", "225.0.0.1");
  EXPECT_EQ(mvpn->data_mdt_recv_mapped, 2u) << "of both PEs";
  receiver("*", "225.0.0.2");
  EXPECT_EQ(mvpn->data_mdt_recv_mapped, 6u);
  check_invariants();
  mvpn_destroy_data_mdt_recv_cache(mvpn, addr("10.0.0.8"));
  EXPECT_EQ(mvpn->data_mdt_recv_count, 4u);
  EXPECT_EQ(record("172.16.7.1", "225.0.0.2", "10.0.0.8"), nullptr);
  ref::settle();
  EXPECT_FALSE(mrib_holds("10.0.0.8", "239.7.0.1"));
  EXPECT_TRUE(mrib_holds("10.0.0.9", "239.7.0.1"));
  check_invariants();
}

TEST_F(Receive, RoutesAreInstalledForTheseCustomerRoutes) {
  mvpn_cibtype *mvpn = start_red();
  pim_route *croute = receiver("172.16.7.1", "225.0.0.1");
  const im_iod_t tunnel = mvpn->mti_iod;
  const im_iod_t ethernet = ref::find_interface("ethernet1")->iod;
  const im_iod_t none = 0;
  mvpn_data_mdt_send_join_info sent{};
  uint32_t words[64] = {};
  const struct {
    im_iod_t iif, oif;
    int bidirectional, barred, ignore_prunes;
    uint32_t encap_index;
    int install;
  } cases[] = {
      {ethernet, none, 0, 1, 0, 2, 1},                                       // sent on a data MDT itself
      {ethernet, ethernet, 0, 1, 0, 1, 0},                                   // the source is not behind the MVPN
      {tunnel, ethernet, 0, 1, 0, 0, 1},                                     // receivers
      {tunnel, none, 0, 1, 0, 0, 0},                                         // none
      {tunnel, none, 0, 0, 0, 0, 1},                                         // none, but not barred
      {tunnel, none, 0, 1, 1, 0, 1},                                         // none, prunes are ignored
      {ethernet, none, 1, 1, 0, 0, 1},                                       // bidirectional: from a site
      {tunnel, none, 1, 0, 0, 0, 1},       {tunnel, tunnel, 1, 1, 0, 0, 0},  // only back into the MVPN
      {tunnel, ethernet, 1, 1, 0, 0, 1},
  };
  const pim_route kept = *croute;
  for (const auto &c : cases) {
    SCOPED_TRACE(&c - cases);
    std::memset(words, 0, sizeof words);
    ASSERT_LT(std::max(tunnel, ethernet) / 32, std::size(words));
    if (c.oif != none) words[c.oif / 32] |= 1u << c.oif % 32;
    croute->oifs = {words, static_cast<uint32_t>(std::size(words))};
    croute->iif = c.iif;
    croute->bidirectional = static_cast<uint8_t>(c.bidirectional);
    croute->oifless_join_barred = static_cast<uint8_t>(c.barred);
    mvpn->pcib->ignore_mrib_prunes = static_cast<uint8_t>(c.ignore_prunes);
    sent.encap_index = static_cast<uint16_t>(c.encap_index);
    croute->send_join_info = &sent;
    EXPECT_EQ(mvpn_should_install_remote_data_mdt(croute, mvpn), c.install);
  }
  *croute = kept;
  mvpn->pcib->ignore_mrib_prunes = 0;
  EXPECT_EQ(mvpn_should_install_remote_data_mdt(nullptr, mvpn), 0);
  EXPECT_EQ(mvpn_should_install_remote_data_mdt(croute, nullptr), 0);
}

// That somebody knows the flow in the MRIB and somebody in the host suffices; it need not be the same kind of route.
TEST_F(Receive, HostAndMribRoutesAreNotPaired) {
  start_red();
  receiver("172.16.7.1", "225.0.0.1");
  ref::mrib_delete_route(2, route_addrs("172.16.7.1", "225.0.0.1"));
  ref::settle();
  capture_debug();
  const auto *heard = hear("172.16.7.1", "225.0.0.1", "239.7.0.1");
  EXPECT_EQ(heard->flags, 0u);
  EXPECT_EQ(debug_count("No mrib croute found for c_src 172.16.7.1"), 1u);
  ref::mrib_add_route(2, route_addrs("*", "225.0.0.1"), context("red")->mti_iod);
  ref::settle();
  trace::start();
  heard = hear("172.16.7.1", "225.0.0.1", "239.7.0.2");
  EXPECT_EQ(heard->flags, MVPN_RECV_JOIN_MAPPED_SG);
  EXPECT_EQ(trace::count("mrib_acquire_rdlock"), trace::count("mrib_release_rdlock"));
  ref::mrib_add_route(2, route_addrs("*", "225.0.0.3"), context("red")->mti_iod);
  hear("172.16.7.1", "225.0.0.3", "239.7.0.3");
  EXPECT_EQ(debug_count("No pim croute found for c_src 172.16.7.1"), 1u);
}

TEST_F(Receive, PrunesMayBeIgnoredDeletionsNot) {
  mvpn_cibtype *mvpn = start_red();
  pim_route *croute = receiver("172.16.7.1", "225.0.0.1");
  hear("172.16.7.1", "225.0.0.1", "239.7.0.1");
  const auto flags = [] { return record("172.16.7.1", "225.0.0.1")->flags; };
  pim_cibtype *pcib = mvpn->pcib;
  pcib->ignore_mrib_prunes = 1;
  mvpn_process_mrib_prune_notify(pcib, &croute->addrs, croute);
  EXPECT_EQ(flags(), MVPN_RECV_JOIN_MAPPED_SG);
  mvpn_process_pim_route_delete(pcib, &croute->addrs, croute);
  EXPECT_EQ(flags(), 0u);
  pcib->ignore_mrib_prunes = 0;
  mvpn_process_mrib_rpf_notify(pcib, &croute->addrs, croute, 1);
  EXPECT_EQ(flags(), MVPN_RECV_JOIN_MAPPED_SG);
  mvpn_process_mrib_prune_notify(pcib, &croute->addrs, croute);
  EXPECT_EQ(flags(), 0u);
  const struct {
    int before, after;
    uint32_t flags;
  } lookups[] = {{0, 1, MVPN_RECV_JOIN_MAPPED_SG}, {1, 1, MVPN_RECV_JOIN_MAPPED_SG}, {1, 0, 0}, {0, 0, 0}};
  for (const auto &c : lookups) {
    mvpn_process_rpf_lookup(pcib, &croute->addrs, croute, 0, c.before, c.after);
    EXPECT_EQ(flags(), c.flags) << c.before << c.after;
  }
  ref::settle();
  check_invariants();
  pim_cibtype *plain = add_vrf("plain", 9);
  for (const auto notify :
       {mvpn_process_mrib_join_notify, mvpn_process_mrib_prune_notify, mvpn_process_pim_route_delete})
    notify(plain, &croute->addrs, croute);
  mvpn_process_mrib_rpf_notify(plain, &croute->addrs, croute, 1);
  mvpn_process_rpf_lookup(plain, &croute->addrs, croute, 0, 0, 1);
  EXPECT_EQ(flags(), 0u) << "a VRF without MVPN has nothing to do with it";
}

// A flow on the shared tree has joined a data MDT for each of its sources.
TEST_F(Receive, ASharedTreeFlowLeavesTheDataMdtsOfAllItsSources) {
  mvpn_cibtype *mvpn = start_red();
  pim_route *croute = receiver("*", "225.0.0.1");
  hear("172.16.7.1", "225.0.0.1", "239.7.0.1");
  hear("172.16.7.2", "225.0.0.1", "239.7.0.2");
  ASSERT_EQ(mvpn->data_mdt_recv_mapped, 2u);
  mvpn_process_mrib_prune_notify(mvpn->pcib, &croute->addrs, croute);
  ref::settle();
  EXPECT_EQ(mvpn->data_mdt_recv_mapped, 0u);
  EXPECT_EQ(core_routes(mvpn), Texts{"10.0.0.1 239.1.1.1 1"});
  check_invariants();
}

// The neighbour that a Bidir route is forwarded to is the designated forwarder of its incoming interface.
TEST_F(Receive, BidirRouteFollowsTheDesignatedForwarder) {
  mvpn_cibtype *mvpn = start_red();
  pim_route *croute = receiver("172.16.7.1", "225.0.0.1");
  const ip_addr_t rp = addr("10.9.9.9"), before = croute->rpf_neighbor;
  croute->bidirectional = 1;
  ref::set_df_winner(rp, croute->iif, addr("10.9.9.1"));
  for (const auto &[point, neighbour] : {std::pair{addr("10.9.9.8"), before}, std::pair{rp, addr("10.9.9.1")}}) {
    mvpn_process_rpf_lookup(mvpn->pcib, &croute->addrs, croute, point, 0, 0);
    EXPECT_EQ(croute->rpf_neighbor, neighbour);
  }
}

// The host may tell of a change before the route stands in its tree.
TEST_F(Receive, BidirRouteIsFollowedBeforeItIsInItsTree) {
  mvpn_cibtype *mvpn = start_red();
  const auto *heard = hear("172.16.7.9", "225.0.0.9", "239.7.0.9");
  pim_route croute{};
  croute.addrs = route_addrs("172.16.7.9", "225.0.0.9");
  croute.iif = mvpn->mti_iod;
  croute.bidirectional = 1;
  ref::mrib_add_route(2, croute.addrs, mvpn->mti_iod);
  mvpn_process_rpf_lookup(mvpn->pcib, &croute.addrs, &croute, 0, 0, 1);
  EXPECT_EQ(heard->flags, MVPN_RECV_JOIN_MAPPED_SG);
  mvpn_process_rpf_lookup(mvpn->pcib, &croute.addrs, &croute, 0, 1, 0);
  EXPECT_EQ(heard->flags, 0u);
  mvpn_data_mdt_unmap_local_source_from_receiver(mvpn, &croute, &croute.addrs);
}

// The remote data MDTs that a flow has joined are left with it, wherever its source lies when it goes.
TEST_F(Receive, ADeletedFlowLeavesNoDataMdtJoined) {
  mvpn_cibtype *mvpn = start_red();
  range("239.2.0.0/24");
  const struct {
    const char *name;
    std::function<pim_route *()> make;
    std::function<void(pim_route *)> change;
  } cases[] = {
      {"sent on a data MDT", [this] { return active_flow("172.16.7.1", "225.0.0.1"); }, [](pim_route *) {}},
      {"sent, then mapped anew", [this] { return active_flow("172.16.7.1", "225.0.0.1"); },
       [this](pim_route *) {
         no_range("239.2.0.0/24");
         range("239.2.0.0/24");
       }},
      {"source moved to this side", [this] { return receiver("172.16.7.1", "225.0.0.1"); },
       [](pim_route *croute) { croute->iif = im_get_if_by_name("ethernet1"); }},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    pim_route *croute = c.make();
    const auto *join = hear("172.16.7.1", "225.0.0.1", "239.7.0.1", dotted(croute->rpf_neighbor));
    ASSERT_NE(join, nullptr);
    ASSERT_NE(join->mdt_route, nullptr);
    c.change(croute);
    remove("172.16.7.1", "225.0.0.1");
    for (const mvpn_mdt_route *route = mvpn_mdt_mroute_first(mvpn); route != nullptr;
         route = mvpn_mdt_mroute_after(mvpn, route->source, route->group))
      EXPECT_NE(route->route_type, MVPN_MDT_ROUTE_REMOTE_DATA);
    mvpn_destroy_data_mdt_recv_cache(mvpn, 0);
  }
}

// ---------------------------------------------------------------------------------------- records and their core route

// The mode of a data group changes between two notifications, so the second one leads to another core route.
TEST_F(Receive, ARecordMovesFromOneCoreRouteToAnother) {
  mvpn_cibtype *mvpn = start_red();
  receiver("172.16.7.1", "225.0.0.1");
  hear("172.16.7.1", "225.0.0.1", "239.7.0.1");
  ASSERT_TRUE(mrib_holds(remote_pe, "239.7.0.1"));
  mvpn->asm_use_shared_tree = 1;
  receiver("*", "225.0.0.1");
  EXPECT_TRUE(mrib_holds("*", "239.7.0.1"));
  EXPECT_FALSE(mrib_holds(remote_pe, "239.7.0.1")) << "nothing refers to it any more";
  check_invariants();
  remove("*", "225.0.0.1");
  remove("172.16.7.1", "225.0.0.1");
  EXPECT_FALSE(mrib_holds("*", "239.7.0.1"));
  check_invariants();
  mvpn->asm_use_shared_tree = 0;
}

TEST_F(Receive, AnAnnouncementOfTheDefaultGroupDoesNotEndTheDefaultMdt) {
  start_red();
  remote_update({{addr(remote_pe), {0, 0, 0, 1, 0, 0, 0, 9}, addr("239.1.1.1"), {}}}, true);
  const Texts routes = core_routes(context("red"));
  receiver("172.16.7.1", "225.0.0.1");
  hear("172.16.7.1", "225.0.0.1", "239.1.1.1");
  receiver("*", "225.0.0.2");
  hear("*", "225.0.0.2", "239.1.1.1", "10.0.0.1");
  check_invariants();
  expire_all();
  EXPECT_EQ(context("red")->data_mdt_recv_count, 0u);
  EXPECT_EQ(core_routes(context("red")), routes);
  EXPECT_TRUE(mrib_holds(remote_pe, "239.1.1.1"));
  EXPECT_TRUE(mrib_holds("10.0.0.1", "239.1.1.1"));
}

// Our own Join comes back, or a remote PE announces the group that we send on: one core route has flows and
// announcements at the same time, and each kind is released as what it is.
TEST_F(Receive, OneCoreRouteServesFlowsAndAnnouncements) {
  for (const bool shared_tree : {false, true}) {
    for (const char *ends_first : {"flow", "announcement", "route", "tunnel"}) {
      SCOPED_TRACE(std::string(shared_tree ? "shared tree, " : "") + ends_first + " first");
      mvpn_cibtype *mvpn = context("red") != nullptr ? context("red") : start_red();
      mvpn->asm_use_shared_tree = shared_tree ? 1 : 0;
      range("239.2.0.0/32");
      active_flow("172.16.9.1", "225.0.0.1");
      receiver("*", "225.0.0.2");
      const auto *heard = hear("*", "225.0.0.2", "239.2.0.0", shared_tree ? remote_pe : "10.0.0.1");
      ASSERT_NE(heard->mdt_route, nullptr);
      EXPECT_EQ(heard->mdt_route->route_type, MVPN_MDT_ROUTE_LOCAL_DATA);
      check_invariants();
      const std::string first = ends_first;
      if (first == "flow") {
        remove("172.16.9.1", "225.0.0.1");
        EXPECT_NE(heard->mdt_route, nullptr);
        EXPECT_TRUE(mrib_holds(shared_tree ? "*" : "10.0.0.1", "239.2.0.0"));
      } else if (first == "announcement") {
        expire_all();
        EXPECT_TRUE(mrib_holds(shared_tree ? "*" : "10.0.0.1", "239.2.0.0"));
      } else if (first == "route") {
        mvpn_mdt_delete_route_resources(mvpn, shared_tree ? 0 : addr("10.0.0.1"), addr("239.2.0.0"), 1);
      } else {
        mvpn_default_tunnel_down(mvpn, 0);
      }
      ref::settle();
      check_invariants();
      if (first != "flow") remove("172.16.9.1", "225.0.0.1");
      remove("*", "225.0.0.2");
      expire_all();
      EXPECT_FALSE(mrib_holds(shared_tree ? "*" : "10.0.0.1", "239.2.0.0"));
      EXPECT_EQ(context("red")->data_mdt_config->group_refcount[0], 0u);
      mvpn->asm_use_shared_tree = 0;
    }
  }
}

TEST_F(Receive, AnnouncementsEndWithTheirCoreRoute) {
  mvpn_cibtype *mvpn = start_red();
  for (const char *group : {"225.0.0.1", "225.0.0.2", "225.0.0.3"}) {
    receiver("172.16.7.1", group);
    hear("172.16.7.1", group, "239.7.0.1");
  }
  EXPECT_EQ(mvpn_mdt_delete_route_resources(mvpn, addr(remote_pe), addr("239.7.0.1"), 1), 1);
  ref::settle();
  EXPECT_EQ(mvpn->data_mdt_recv_count, 0u);
  EXPECT_EQ(mvpn->data_mdt_recv_mapped, 0u);
  EXPECT_EQ(core_routes(mvpn), Texts{"10.0.0.1 239.1.1.1 1"});
  check_invariants();
}

// The host takes a core route: what rides on it lets go, on either side. A route without the host's mark has nothing on
// it.
TEST_F(Receive, WhatDependsOnACoreRouteOfTheHostLetsItGo) {
  mvpn_cibtype *mvpn = start_red();
  range("239.2.0.0/24");
  pim_route *sent = active_flow("172.16.9.1", "225.0.0.9");
  ASSERT_NE(sent->send_join_info->mdt_route, nullptr);
  receiver("172.16.7.1", "225.0.0.1");
  hear("172.16.7.1", "225.0.0.1", "239.7.0.1");
  const auto take = [](ip_addr_t source, ip_addr_t group, uint8_t mark) {
    pim_core_route core{};
    core.addrs = {source, group, MROUTE_HOST_LEN, MROUTE_HOST_LEN, {}};
    core.marker_b = mark;
    mvpn_free_dependent_route_resources(pim_default_cib, &core);
    ref::settle();
  };
  const ip_addr_t group = sent->send_join_info->mdt_route->group;
  for (const uint8_t mark : {uint8_t{0}, uint8_t{1}}) {
    take(addr(remote_pe), addr("239.7.0.1"), mark);
    take(addr("10.0.0.1"), group, mark);
    EXPECT_EQ(mvpn->data_mdt_recv_count, mark == 0 ? 1u : 0u);
    EXPECT_EQ(sent->send_join_info != nullptr, mark == 0);
    EXPECT_EQ(core_routes(mvpn).size(), mark == 0 ? 3u : 1u);
    check_invariants();
  }
}

// The route goes with referers that it does not list; announcements come and go in the yields of the search for them.
TEST_F(Receive, UnlistedAnnouncementsAreFoundWhileTheCacheChanges) {
  mvpn_cibtype *mvpn = start_red();
  receiver("*", "225.0.0.1");
  const auto announce = [mvpn](uint32_t from, uint32_t to) {
    for (uint32_t i = from; i < to; i++)
      mvpn_add_data_mdt_recv_join_info(mvpn, {addr("172.16.0.0") + i, addr("225.0.0.1"), addr("239.7.0.1")},
                                       addr(remote_pe));
  };
  announce(1000, 3500);
  mvpn_mdt_route *route = mvpn_mdt_mroute_lookup(mvpn, addr(remote_pe), addr("239.7.0.1"));
  ASSERT_NE(route, nullptr);
  ASSERT_EQ(mvpn_mdt_mroute_has_referer(route), 2500u);
  mvpn_mdt_mroute_delink_all_referers(route);
  at_yield(1, [&] {
    // The record that the walk stands on, one behind it, one before it; and new ones at both ends.
    for (const uint32_t gone : {1000u, 1999u, 2000u, 2001u, 3499u})
      mvpn_destroy_data_mdt_recv_join_info(
          mvpn, mvpn_get_data_mdt_recv_join_info(mvpn, addr("172.16.0.0") + gone, addr("225.0.0.1"), addr(remote_pe)));
    announce(900, 910);
    announce(4000, 4010);
  });
  ASSERT_EQ(mvpn_mdt_free_route_resources(route), 1);
  trace::on_yield(nullptr);
  uint32_t left = 0;
  for (pt_node *node = pt_get_first_node(mvpn->data_mdt_recv_cache, nullptr, 0); node != nullptr;
       node = pt_get_next_node(mvpn->data_mdt_recv_cache, pt_node_key(node), 0)) {
    const auto *join = static_cast<const mvpn_data_mdt_recv_join_info *>(pt_node_data(node));
    EXPECT_NE(join->mdt_route, route);
    left += join->mdt_route == nullptr ? 1 : 0;
  }
  EXPECT_EQ(left, 2495u);
  check_invariants();
}

// The same search, when the VRF goes in it, or when it has given way and the VRF is still there.
TEST_F(Receive, TheSearchForUnlistedAnnouncementsEndsWithTheVrf) {
  mvpn_cibtype *mvpn = start_red();
  receiver("*", "225.0.0.1");
  for (uint32_t i = 0; i < 2500; i++)
    mvpn_add_data_mdt_recv_join_info(mvpn, {addr("172.16.0.0") + i, addr("225.0.0.1"), addr("239.7.0.1")},
                                     addr(remote_pe));
  mvpn_mdt_route *route = mvpn_mdt_mroute_lookup(mvpn, addr(remote_pe), addr("239.7.0.1"));
  ASSERT_NE(route, nullptr);
  mvpn_mdt_mroute_delink_all_referers(route);
  at_yield(1, [this] { vanish(); });
  mvpn_mdt_free_route_resources(route);
  trace::on_yield(nullptr);
  EXPECT_EQ(context("red"), nullptr);
}

TEST_F(Receive, ARecordWhoseCustomerRouteVanishedLeavesNothingBehind) {
  mvpn_cibtype *mvpn = start_red();
  for (const char *source : {"172.16.7.1", "*"}) {
    SCOPED_TRACE(source);
    receiver(source, "225.0.0.1");
    ASSERT_NE(hear(source, "225.0.0.1", "239.7.0.1")->mdt_route, nullptr);
    lose(source, "225.0.0.1");
    capture_debug();
    expire_all();
    EXPECT_EQ(debug_count(std::string("NULL (") + (*source == '*' ? "*" : "S") +
                          ",G) croute. Failed in unmapping remote source from receiver."),
              1u);
    EXPECT_EQ(mvpn->data_mdt_recv_count, 0u);
    EXPECT_FALSE(mrib_holds(remote_pe, "239.7.0.1"));
    EXPECT_EQ(core_routes(mvpn), Texts{"10.0.0.1 239.1.1.1 1"});
  }
}

// Mapping a bidirectional route onto the local source may announce it at once, which yields.
TEST_F(Receive, ACustomerRouteMayGoDuringAnRpfLookup) {
  mvpn_cibtype *mvpn = start_red();
  hear("*", "225.0.0.1", "239.7.0.1");
  range("239.2.0.0/24", "0", true);
  ref::CustomerRoute route = flow_of("*", "225.0.0.1");
  route.iif = "mvpn";
  route.bidirectional = true;
  for (const bool vrf_too : {false, true}) {
    pim_route *croute = ref::set_customer_route("red", route);
    const mvpn_mdt_route_addrs key = croute->addrs;
    bool happened = false;
    at_yield(1, [&] {
      happened = true;
      remove("*", "225.0.0.1");
      if (vrf_too) vanish();
    });
    mvpn_process_rpf_lookup(mvpn->pcib, &key, croute, 0, 0, 1);
    trace::on_yield(nullptr);
    EXPECT_TRUE(happened);
    ref::settle();
    check_invariants();
  }
}

TEST_F(Receive, FailuresDropTheAnnouncement) {
  mvpn_cibtype *mvpn = start_red();
  receiver("172.16.7.1", "225.0.0.1");
  capture_debug();
  trace::fail("slab_calloc");
  EXPECT_EQ(hear("172.16.7.1", "225.0.0.1", "239.7.0.1"), nullptr);
  EXPECT_EQ(ref::reports().back().arguments.back(), "mvpn_create_data_mdt_recv_join_info()");
  trace::fail("pt_add");
  EXPECT_EQ(hear("172.16.7.1", "225.0.0.1", "239.7.0.1"), nullptr);
  EXPECT_EQ(last_report(), "PIM_PT_ADD [Data MDT recv info cache]");
  EXPECT_EQ(debug_count("Unable to add entry to receive cache. c_src 172.16.7.1, c_grp 225.0.0.1, p_src 10.0.0.9, "
                        "p_grp 239.7.0.1"),
            1u);
  trace::fail("renqueue_data");
  EXPECT_EQ(hear("172.16.7.1", "225.0.0.1", "239.7.0.2")->mdt_route, nullptr) << "a core route without its referer";
  EXPECT_EQ(core_routes(mvpn), Texts{"10.0.0.1 239.1.1.1 1"});
  trace::fail("slab_calloc", 2);
  EXPECT_EQ(hear("172.16.7.1", "225.0.0.1", "239.7.0.1")->mdt_route, nullptr) << "no core route";
  EXPECT_EQ(debug_count("Couldnt allocate MDT resource (10.0.0.9 239.7.0.1)"), 1u);
  EXPECT_EQ(mvpn->data_mdt_recv_count, 1u);
  check_invariants();
}

TEST_F(Receive, TheCacheIsBounded) {
  mvpn_cibtype *mvpn = start_red();
  const uint32_t limit = mvpn_data_mdt_recv_cache_limit;
  mvpn_data_mdt_recv_cache_limit = 2;
  EXPECT_NE(hear("172.16.7.1", "225.0.0.1", "239.7.0.1"), nullptr);
  EXPECT_NE(hear("172.16.7.1", "225.0.0.2", "239.7.0.2"), nullptr);
  EXPECT_EQ(hear("172.16.7.1", "225.0.0.3", "239.7.0.3"), nullptr);
  EXPECT_EQ(mvpn->data_mdt_recv_refused.count, 1u);
  EXPECT_EQ(hear("172.16.7.1", "225.0.0.1", "239.7.0.1")->join_count, 2u) << "known ones go on";
  const auto *replaced = hear("172.16.7.1", "225.0.0.2", "239.7.0.9");
  ASSERT_NE(replaced, nullptr);
  EXPECT_EQ(dotted(replaced->p_grp), "239.7.0.9");
  expire_all();
  EXPECT_NE(hear("172.16.7.1", "225.0.0.3", "239.7.0.3"), nullptr);
  EXPECT_EQ(mvpn->data_mdt_recv_refused.count, 1u);
  mvpn_data_mdt_recv_cache_limit = limit;
}

TEST_F(Receive, OnlyMulticastGroupsAreJoined) {
  mvpn_cibtype *mvpn = start_red();
  receiver("172.16.7.1", "225.0.0.1");
  for (const char *group : {"10.1.2.3", "0.0.0.0", "223.255.255.255", "240.0.0.0"})
    EXPECT_EQ(hear("172.16.7.1", "225.0.0.1", group), nullptr) << group;
  EXPECT_EQ(mvpn->data_mdt_recv_invalid.count, 4u);
  EXPECT_EQ(core_routes(mvpn), Texts{"10.0.0.1 239.1.1.1 1"});
  for (const char *group : {"224.0.0.0", "239.255.255.255"})
    EXPECT_NE(hear("172.16.7.1", "225.0.0.1", group), nullptr) << group;
}

TEST_F(Receive, DestroyingALongCacheStopsWhenTheVrfGoes) {
  mvpn_cibtype *mvpn = start_red();
  for (uint32_t i = 0; i < 2500; i++)
    mvpn_add_data_mdt_recv_join_info(mvpn, {addr("172.16.7.1"), addr("225.0.0.0") + i, addr("239.7.0.1")},
                                     addr(remote_pe));
  at_yield(1, [this] { vanish(); });
  mvpn_destroy_data_mdt_recv_cache(mvpn, addr(remote_pe));
  trace::on_yield(nullptr);
  EXPECT_EQ(context("red"), nullptr);
}

// ------------------------------------------------------------------------------------------------------------- ageing

TEST_F(Receive, AnAnnouncementLapsesBetween180And210SecondsAfterItWasHeard) {
  mvpn_cibtype *mvpn = start_red();
  for (const auto offset : {0s, 1s, 17s, 29s}) {
    ref::advance(offset);
    receiver("172.16.7.1", "225.0.0.1");
    hear("172.16.7.1", "225.0.0.1", "239.7.0.1");
    ref::advance(179s);
    EXPECT_NE(record("172.16.7.1", "225.0.0.1"), nullptr);
    ref::advance(32s);
    EXPECT_EQ(record("172.16.7.1", "225.0.0.1"), nullptr);
    EXPECT_FALSE(mrib_holds(remote_pe, "239.7.0.1"));
    check_invariants();
  }
  for (int minutes = 0; minutes < 8; minutes++) {
    hear("172.16.7.1", "225.0.0.1", "239.7.0.1");
    ref::advance(60s);
  }
  ASSERT_NE(record("172.16.7.1", "225.0.0.1"), nullptr) << "repeated, it stays";
  EXPECT_EQ(record("172.16.7.1", "225.0.0.1")->join_count, 8u);
  mvpn->data_mdt_timeout = 30;
  hear("172.16.7.1", "225.0.0.1", "239.7.0.1");
  ref::advance(61s);
  EXPECT_EQ(record("172.16.7.1", "225.0.0.1"), nullptr);
}

class Ageing : public Receive {
 protected:
  // An ageing pass over expired records that has given way at its first yield.
  mvpn_cibtype *parked_pass() {
    mvpn_cibtype *mvpn = start_red();
    mvpn->data_mdt_timeout = 0;
    for (uint32_t i = 0; i < 2500; i++)
      mvpn_add_data_mdt_recv_join_info(mvpn, {addr("172.16.7.1"), addr("225.0.0.0") + i, addr("239.7.0.1")},
                                       addr(remote_pe));
    mvpn_process_age_timer();
    EXPECT_NE(mvpn_age_thread, pthread_t{});
    while (mvpn_age_ts.seconds == 0) {  // until the new thread has come to its turn
      sched_yield();
      tsp_sched_yield();
    }
    EXPECT_EQ(mvpn->data_mdt_recv_count, 1500u) << "it gives way after every thousandth";
    return mvpn;
  }
};

TEST_F(Ageing, ARunningPassIsNotDoubled) {
  mvpn_cibtype *mvpn = parked_pass();
  capture_debug();
  trace::start();
  mvpn_process_age_timer();
  EXPECT_EQ(trace::calls_of({"active_timer_start", "quillon_pthread_create"}), Texts{"active_timer_start(30)"});
  EXPECT_EQ(debug_count("Aging is already active"), 1u);
  ref::settle();
  EXPECT_EQ(mvpn->data_mdt_recv_count, 0u);
  EXPECT_EQ(mvpn_age_ts.seconds, 0u);
  EXPECT_EQ(mvpn_age_thread, pthread_t{});
}

TEST_F(Ageing, AFailedStartIsTriedAgain) {
  start_red();
  hear("172.16.7.1", "225.0.0.1", "239.7.0.1");
  trace::fail("quillon_pthread_create", 1, 8);
  ref::advance(240s);
  ASSERT_NE(record("172.16.7.1", "225.0.0.1"), nullptr);
  ref::advance(31s);
  EXPECT_EQ(record("172.16.7.1", "225.0.0.1"), nullptr);
}

TEST_F(Ageing, AVrfMayGoDuringAPass) {
  parked_pass();
  vanish();
  EXPECT_EQ(mvpn_age_ts.seconds, 0u);
}

TEST_F(Ageing, AStopEndsTheRunningPassAndTheNextStartAgesAgain) {
  parked_pass();
  receiver("172.16.7.2", "226.0.0.1");
  trace::start();
  mvpn_deinit(1);
  EXPECT_EQ(mvpn_age_ts.seconds, 0u);
  EXPECT_EQ(mvpn_age_thread, pthread_t{});
  ASSERT_TRUE(ref::wait_for_threads());
  ASSERT_EQ(mvpn_init(), 1);
  ref::advance(31s);
  EXPECT_EQ(context("red")->data_mdt_recv_count, 0u) << "what was left is aged out";
}

}  // namespace
