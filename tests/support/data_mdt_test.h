// Fixture of the data-MDT and high-availability tests: a VRF with its default MDT up, flows into it, receivers behind
// it.
#ifndef TESTS_SUPPORT_DATA_MDT_TEST_H
#define TESTS_SUPPORT_DATA_MDT_TEST_H

#include <algorithm>
#include <functional>
#include <memory>
#include <thread>

#include "platform/reference/cli.h"
#include "platform/reference/croute.h"
#include "platform/reference/diag.h"
#include "platform/reference/im.h"
#include "platform/reference/mrib.h"
#include "platform/reference/testing/runtime.h"
#include "routing/pim/mvpn/mvpn_datamdt_receiver_internal.h"
#include "routing/pim/mvpn/mvpn_mdt_route.h"
#include "tests/support/module_test.h"

using Texts = std::vector<std::string>;

class DataMdtTest : public ModuleTest {
 protected:
  static constexpr const char *remote_pe = "10.0.0.9";

  // VRF red (context id 2, default group 239.1.1.1) with ethernet1 towards its sites.
  mvpn_cibtype *start_red() {
    start();
    mvpn_cibtype *mvpn = bring_up("red", 2, "239.1.1.1");
    ref::create_interface("ethernet1", 2, addr("172.16.0.1"), true);
    ref::settle();
    return mvpn;
  }

  void range(const std::string &prefix, const std::string &threshold = "1", bool immediate = false) {
    const std::initializer_list<ref::CliArgument> now = {
        {"<prefix>", prefix}, {"threshold", ""}, {"<value>", threshold}, {"immediate-switch", ""}};
    const std::initializer_list<ref::CliArgument> later = {
        {"<prefix>", prefix}, {"threshold", ""}, {"<value>", threshold}};
    EXPECT_EQ(command("mdt_data_cmd", "red", immediate ? now : later), 0) << printed;
    ref::settle();
  }
  void range_with_policy(const std::string &prefix, const std::string &policy) {
    EXPECT_EQ(command("mdt_data_cmd", "red", {{"<prefix>", prefix}, {"route-map", ""}, {"<policy-name>", policy}}), 0)
        << printed;
    ref::settle();
  }
  void no_range(const std::string &prefix) {
    EXPECT_EQ(command("mdt_data_cmd", "red", {{"<prefix>", prefix}}, true), 0) << printed;
    ref::settle();
  }

  // A flow from a site of this PE into the MVPN.
  static ref::CustomerRoute flow_of(std::string_view source, std::string_view group, uint64_t kbps = 1000) {
    ref::CustomerRoute route;
    route.addrs = route_addrs(source, group);
    route.iif = "ethernet1";
    route.rpf_neighbor = addr("172.16.0.2");
    route.rate_kbps = kbps;
    route.to_mvpn = true;
    return route;
  }
  pim_route *flow(std::string_view source, std::string_view group, uint64_t kbps = 1000) {
    return set(flow_of(source, group, kbps));
  }
  // A flow that reaches a site of this PE through the MVPN, from the given PE.
  pim_route *receiver(std::string_view source, std::string_view group, std::string_view neighbor = remote_pe) {
    ref::CustomerRoute route;
    route.addrs = route_addrs(source, group);
    route.iif = "mvpn";
    route.rpf_neighbor = addr(neighbor);
    route.oifs = {"ethernet1"};
    return set(route);
  }
  pim_route *set(const ref::CustomerRoute &route) {
    pim_route *croute = ref::set_customer_route("red", route);
    EXPECT_NE(croute, nullptr);
    ref::settle();
    return croute;
  }
  void remove(std::string_view source, std::string_view group) {
    EXPECT_TRUE(ref::delete_customer_route("red", route_addrs(source, group)));
    ref::settle();
  }

  // One rate check of a flow; its result.
  int check(pim_route *croute) { return mvpn_stats_check(context("red"), &croute->addrs, croute); }
  // A flow that has been switched over.
  pim_route *active_flow(std::string_view source, std::string_view group) {
    pim_route *croute = flow(source, group);
    check(croute);
    mvpn_process_data_mdt_switchover_expiry(context("red"));
    ref::settle();
    EXPECT_NE(croute->send_join_info, nullptr);
    if (croute->send_join_info != nullptr) {
      EXPECT_EQ(croute->send_join_info->state, MVPN_DATA_MDT_STATE_ACTIVE);
    }
    return croute;
  }

  // An announcement arrives.
  mvpn_data_mdt_recv_join_info *hear(std::string_view source, std::string_view group, std::string_view data_group,
                                     std::string_view pe = remote_pe) {
    const ip_addr_t c_src = source == "*" ? 0 : addr(source);
    mvpn_add_data_mdt_recv_join_info(context("red"), {c_src, addr(group), addr(data_group)}, addr(pe));
    ref::settle();
    return mvpn_get_data_mdt_recv_join_info(context("red"), c_src, addr(group), addr(pe));
  }

  // The VRF goes away completely, inside whatever is going on: its default group is removed and all work is done.
  void vanish() {
    command("mdt_default_cmd", "red", {}, true);
    ref::settle();
    EXPECT_EQ(context("red"), nullptr);
  }
  // Runs `action` at the n-th yield of the calling thread from now, once.
  static void at_yield(unsigned n, std::function<void()> action) {
    trace::on_yield([n, action, me = std::this_thread::get_id(), passed = std::make_shared<unsigned>(0)](unsigned) {
      if (std::this_thread::get_id() != me || ++*passed != n) return false;
      action();
      return true;
    });
  }

  // Core routes of the VRF as "source group type".
  static Texts core_routes(mvpn_cibtype *mvpn) {
    Texts out;
    for (const mvpn_mdt_route *route = mvpn_mdt_mroute_first(mvpn); route != nullptr;
         route = mvpn_mdt_mroute_after(mvpn, route->source, route->group))
      out.push_back(dotted(route->source) + " " + dotted(route->group) + " " + std::to_string(route->route_type));
    return out;
  }
  static bool mrib_holds(std::string_view source, std::string_view group) {
    const auto routes = ref::mrib_routes();
    return std::any_of(routes.begin(), routes.end(), [&](const ref::MribRoute &route) {
      return route.addrs.source == (source == "*" ? 0 : addr(source)) && route.addrs.group == addr(group);
    });
  }
  // Encapsulations of data MDTs in the module's table and in the MRIB, which must agree.
  size_t data_encaps() {
    const mvpn_cibtype *mvpn = context("red");
    size_t count = 0;
    for (uint32_t i = MVPN_ENCAP_INDEX_FIRST_DATA; i < MVPN_ENCAP_INDEXES; i++) count += mvpn->mdt_encap_group[i] != 0;
    const auto held = ref::mrib_encaps();
    EXPECT_EQ(count, static_cast<size_t>(std::count_if(held.begin(), held.end(), [](const ref::MribEncap &encap) {
                return encap.index >= MVPN_ENCAP_INDEX_FIRST_DATA;
              })));
    return count;
  }
  static std::string last_report() {
    if (ref::reports().empty()) return "";
    const ref::Report &report = ref::reports().back();
    std::string text = report.name;
    for (const std::string &argument : report.arguments) text += " [" + argument + "]";
    return text;
  }
};

#endif  // TESTS_SUPPORT_DATA_MDT_TEST_H
