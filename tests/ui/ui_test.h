// Fixture of the show and SNMP tests: VRFs with flows, announcements and remote PEs, output with its recorded values,
// an operator who has seen enough, and texts compared with files.
#ifndef TESTS_UI_UI_TEST_H
#define TESTS_UI_UI_TEST_H

#include <cstdlib>
#include <fstream>
#include <iterator>

#include "platform/cli_schema.h"
#include "platform/reference/bgp.h"
#include "platform/reference/cli.h"
#include "platform/reference/croute.h"
#include "platform/reference/im.h"
#include "platform/reference/testing/runtime.h"
#include "routing/pim/mvpn/mvpn_datamdt_receiver.h"
#include "tests/support/data_mdt_test.h"

// What a handler did. Values in order of recording.
struct Output : ref::CliSink {
  void text(std::string_view piece) override { printed.append(piece); }
  void value(const ref::CliValue &value) override { values.push_back(value); }
  bool more() override { return ++asked < enough_at; }

  // The text of an element's first value.
  std::string value_of(int element) const {
    for (const ref::CliValue &value : values)
      if (value.element == element) return value.text;
    return "(none)";
  }

  int result = 0;  // of the handler
  std::string printed;
  std::vector<ref::CliValue> values;
  unsigned asked = 0;        // how often more() was called
  unsigned enough_at = ~0u;  // the question after which the operator wants no more
};

class UiTest : public DataMdtTest {
 protected:
  using Arguments = std::vector<ref::CliArgument>;

  // Runs a handler; an empty VRF name: every VRF.
  static Output run(std::string_view handler, std::string_view vrf = "", Arguments arguments = {}, bool getnext = false,
                    unsigned enough_at = ~0u) {
    Output output;
    output.enough_at = enough_at;
    output.result = ref::cli_invoke({.handler = std::string(handler),
                                     .arguments = std::move(arguments),
                                     .vrf_name = std::string(vrf),
                                     .all_vrfs = vrf.empty(),
                                     .getnext = getnext},
                                    output);
    return output;
  }

  // A VRF with its default MDT up and an interface towards its sites.
  mvpn_cibtype *vrf_with_site(const std::string &name, vrf_context_id_t context_id, std::string_view group) {
    mvpn_cibtype *mvpn = bring_up(name, context_id, group);
    ref::create_interface("site-" + name, context_id, addr("172.16.0.1"), true);
    ref::settle();
    return mvpn;
  }
  void range_of(std::string_view vrf, const std::string &prefix, const std::string &threshold = "1") {
    EXPECT_EQ(command("mdt_data_cmd", vrf, {{"<prefix>", prefix}, {"threshold", ""}, {"<value>", threshold}}), 0)
        << printed;
    ref::settle();
  }
  // A flow that its VRF has announced, not yet moved; finish_switchovers moves it.
  static pim_route *announced_flow(const std::string &vrf, std::string_view source, std::string_view group) {
    ref::CustomerRoute route = flow_of(source, group);
    route.iif = "site-" + vrf;
    pim_route *croute = ref::set_customer_route(vrf, route);
    EXPECT_NE(croute, nullptr);
    ref::settle();
    mvpn_stats_check(mvpn_get_context(vrf.c_str()), &croute->addrs, croute);
    EXPECT_NE(croute->send_join_info, nullptr);
    return croute;
  }
  static void finish_switchovers(const std::string &vrf) {
    mvpn_process_data_mdt_switchover_expiry(mvpn_get_context(vrf.c_str()));
    ref::settle();
  }
  static pim_route *sent_flow(const std::string &vrf, std::string_view source, std::string_view group) {
    pim_route *croute = announced_flow(vrf, source, group);
    finish_switchovers(vrf);
    EXPECT_EQ(croute->send_join_info->state, MVPN_DATA_MDT_STATE_ACTIVE);
    return croute;
  }
  // A route of sites of this PE to a flow from a remote PE.
  static void receiver_of(const std::string &vrf, std::string_view source, std::string_view group,
                          std::string_view pe) {
    ref::CustomerRoute route;
    route.addrs = route_addrs(source, group);
    route.iif = "mvpn";
    route.rpf_neighbor = addr(pe);
    route.oifs = {"site-" + vrf};
    EXPECT_NE(ref::set_customer_route(vrf, route), nullptr);
    ref::settle();
  }
  static void hear_in(const std::string &vrf, std::string_view source, std::string_view group, std::string_view pe,
                      std::string_view data_group) {
    const mvpn_data_mdt_join join = {source == "*" ? 0 : addr(source), addr(group), addr(data_group)};
    mvpn_add_data_mdt_recv_join_info(mvpn_get_context(vrf.c_str()), join, addr(pe));
    ref::settle();
  }
  void remote_pe_of(std::string_view pe, std::string_view distinguisher, std::string_view group, bool add = true) {
    ref::MdtSafi entry;
    entry.source = addr(pe);
    std::copy_n(rd(distinguisher).begin(), ROUTE_DISTINGUISHER_SIZE, entry.rd);
    entry.group = addr(group);
    remote_update({entry}, add);
  }

  // Takes a VRF's default group away until its context is gone.
  void vanish_vrf(std::string_view vrf) {
    command("mdt_default_cmd", vrf, {}, true);
    ref::settle();
    EXPECT_EQ(context(vrf), nullptr);
  }

  static size_t lines_with(const std::string &text, const std::string &part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) count++;
    return count;
  }

  // Compares a text with golden/NAME, byte for byte. With MVPN_REGENERATE=1 in the environment the file is written
  // instead, and the test fails so that nobody takes that for a result.
  static void expect_golden(const std::string &name, const std::string &text) {
    const std::string path = std::string(TEST_DATA_DIR) + "/golden/" + name;
    const char *regenerate = std::getenv("MVPN_REGENERATE");
    if (regenerate != nullptr && std::string(regenerate) == "1") {
      std::ofstream(path, std::ios::binary) << text;
      ADD_FAILURE() << name << " was written anew; read it before it is kept";
      return;
    }
    std::ifstream file(path, std::ios::binary);
    ASSERT_TRUE(file) << "no golden file " << name;
    const std::string expected((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    EXPECT_EQ(text, expected) << name;
  }
};

#endif  // TESTS_UI_UI_TEST_H
