// Show commands: every view from real state against its golden text, what the document gets beside the text, keywords,
// module status, and listings during which VRFs vanish or the operator stops.
#include <algorithm>
#include <regex>

#include "host/output/output.h"
#include "platform/reference/bgp.h"
#include "platform/reference/cli.h"
#include "platform/reference/croute.h"
#include "platform/reference/im.h"
#include "platform/reference/l3vm.h"
#include "platform/reference/pim.h"
#include "platform/reference/pss.h"
#include "platform/reference/rpm.h"
#include "platform/reference/testing/runtime.h"
#include "platform/reference/testing/services.h"
#include "routing/pim/mvpn/mvpn_ha_internal.h"
#include "routing/pim/mvpn/mvpn_mdt_route.h"
#include "routing/pim/mvpn/mvpn_mrib_queue.h"
#include "routing/pim/mvpn/mvpn_ui_show_internal.h"
#include "tests/host_output/document_check.h"
#include "tests/ui/ui_test.h"

using namespace std::chrono_literals;

namespace {

const char *const VRF_VIEWS[] = {
    "mvpn_show_mdt_cmd",      "mvpn_show_mdt_route_cmd",        "mvpn_show_mdt_encap_cmd",  "mvpn_show_mdt_receive_cmd",
    "mvpn_show_mdt_send_cmd", "mvpn_show_mdt_send_history_cmd", "mvpn_show_internal_ha_cmd"};
const char *const GLOBAL_VIEWS[] = {"mvpn_show_bgp_auto_discovery_cmd", "mvpn_show_mdt_bgp_cmd",
                                    "mvpn_show_internal_mrib_txlist_cmd"};

class Show : public UiTest {
 protected:
  // Heading and output of a view, for golden files.
  static std::string view(const std::string &heading, const Output &output) {
    return "== " + heading + " -> " + std::to_string(output.result) + "\n" + output.printed;
  }

  // Objects of the transmit list, iterators included, counted along the links themselves.
  static size_t transmit_list_links() {
    const txlist_obj *marker = &mvpn_mrib_info->worker_marker.obj;
    size_t links = 0;
    for (const txlist_obj *at = marker->next; at != marker; at = at->next) links++;
    return links;
  }

  // n core routes of a VRF to remote PEs 10.1.x.y.
  void core_routes_to(std::string_view vrf, unsigned n) {
    for (unsigned i = 0; i < n; i++)
      mvpn_mdt_add_route_resources(context(vrf), MVPN_MDT_ROUTE_REMOTE_DEFAULT, addr("10.1.0.0") + i, 1,
                                   context(vrf)->mdt_default_group, 1);
    ref::settle();
  }
  static std::string nth_source(const std::string &block, unsigned i) {
    return block + std::to_string(i / 250) + "." + std::to_string(i % 250 + 1);
  }
  static void sent_flows(const std::string &vrf, unsigned n) {
    for (unsigned i = 0; i < n; i++) announced_flow(vrf, nth_source("172.17.", i), "225.0.0.1");
    finish_switchovers(vrf);
  }
  static void heard_flows(const std::string &vrf, unsigned n) {
    for (unsigned i = 0; i < n; i++) hear_in(vrf, nth_source("172.19.", i), "225.0.0.1", "10.0.0.9", "239.9.0.1");
  }
};

TEST_F(Show, StatusOfVrfs) {
  start();
  ref::create_interface("loopback1", VRF_CONTEXT_ID_DEFAULT, addr("10.0.0.2"), true);
  ref::add_bidir_range(addr("238.0.0.0"), 8);
  ref::set_policy("flows", {{}});
  bring_up("red", 2, "239.1.1.1");
  range_of("red", "239.2.0.0/16", "4294967295");
  range_of("red", "239.4.0.0/24", "0");
  command("mdt_data_cmd", "red", {{"<prefix>", "239.3.0.0/32"}, {"route-map", ""}, {"<policy-name>", "flows"}});
  context("red")->data_mdt_send_join_count = 7;
  context("red")->data_mdt_recv_join_count = 11;

  bring_up("blue", 3, "232.1.1.1");
  command("mdt_mtu_cmd", "blue", {{"<mtu-value>", "1400"}});
  command("mdt_source_cmd", "blue", {{"<interface>", "loopback1"}});
  command("mdt_pim_hello_interval_cmd", "blue", {{"<interval>", "10000"}});
  command("mdt_pim_jp_interval_cmd", "blue", {{"<interval>", "120"}});
  bring_up("green", 4, "238.1.1.1");
  command("mdt_enforce_bgp_mdt_safi_cmd", "green", {}, true);
  bring_up("gold", 5, "239.1.1.5");
  command("mdt_asm_use_shared_tree_cmd", "gold");
  ref::settle();

  const std::string longest(VRF_NAME_MAX, 'x');
  ASSERT_EQ(longest.size(), 32u);
  add_vrf(longest, 0xFFFF);
  ref::bgp_set_rd(longest, nullptr, false);
  command("mdt_default_cmd", longest, {{"<mdt-default>", "239.1.1.6"}}, false, false);
  add_vrf("plain", 6);

  expect_golden("status.txt", view("every VRF", run("mvpn_show_mdt_cmd")) +
                                  view("red", run("mvpn_show_mdt_cmd", "red")) +
                                  view("without MVPN", run("mvpn_show_mdt_cmd", "plain")) +
                                  view("unknown", run("mvpn_show_mdt_cmd", "nowhere")));
  const Output gold = run("mvpn_show_mdt_cmd", "gold");
  EXPECT_EQ(gold.value_of(CLI_ELEMENT_VRF_SHARED_TREE_ONLY), "true");
  EXPECT_EQ(gold.value_of(CLI_ELEMENT_VRF_RD_SET), "true");
  const Output named = run("mvpn_show_mdt_cmd", longest);
  EXPECT_EQ(named.value_of(CLI_ELEMENT_VRF_SHARED_TREE_ONLY), "false");
  EXPECT_EQ(named.value_of(CLI_ELEMENT_VRF_RD_SET), "false");
}

TEST_F(Show, StatusInEveryStateOfTheTunnel) {
  mvpn_cibtype *red = start_red();
  const char *const names[] = {"None", "Create Pending", "Created", "Down Pending", "Down in Progress",
                               "Down", "Delete Pending", "Deleted", "Up Pending",   "Up"};
  const std::string interface = ref::find_interface(red->mti_iod)->name;
  for (uint32_t status = 0; status < std::size(names); status++) {
    red->mti_status = static_cast<mvpn_mti_status_t>(status);
    const std::string first_line = "MVPN Status Information for VRF \"red\" : MTI(" + interface + ") " + names[status];
    EXPECT_EQ(show("mvpn_show_mdt_cmd", "red").substr(0, first_line.size() + 1), first_line + "\n");
  }
}

// While a tunnel is created, brought up and taken down the view shows what there is of it.
TEST_F(Show, StatusOfATunnelOnItsWay) {
  start();
  add_vrf("red", 2);
  ref::set_oim_answers(false);
  configure("red", "239.1.1.1");
  const auto lines = [this] {
    const std::string text = show("mvpn_show_mdt_cmd", "red");
    const size_t mtu = text.find("    Configured MTU");
    return text.substr(0, text.find('\n') + 1) + text.substr(mtu, text.find('\n', mtu) + 1 - mtu);
  };
  EXPECT_EQ(lines(),
            "MVPN Status Information for VRF \"red\" : MTI( ) Create Pending\n"
            "    Configured MTU: 1376 bytes, Actual MTU: 0 bytes\n");
  ref::set_oim_answers(true);
  ref::settle();
  ASSERT_EQ(context("red")->mti_status, MVPN_MTI_UP);
  EXPECT_NE(lines().find("Actual MTU: 1376 bytes\n"), std::string::npos) << lines();
  EXPECT_EQ(lines().find("MTI( )"), std::string::npos) << lines();
}

TEST_F(Show, CoreRoutesAndEncapsulations) {
  start();
  vrf_with_site("red", 2, "239.1.1.1");
  vrf_with_site("blue", 3, "239.1.1.2");
  add_vrf("plain", 4);
  range_of("red", "239.2.0.0/24");
  ref::advance(90s);
  remote_pe_of("10.0.0.9", "65000:9", "239.1.1.1");
  ref::advance(3600s);
  sent_flow("red", "172.16.9.1", "225.0.0.1");
  sent_flow("red", "172.16.9.2", "225.0.0.2");
  receiver_of("red", "172.16.5.1", "225.0.0.5", "10.0.0.9");
  hear_in("red", "172.16.5.1", "225.0.0.5", "10.0.0.9", "239.2.9.1");
  ref::advance(100000s - 5s);
  remote_pe_of("10.0.0.9", "65000:9", "239.1.1.1");

  // Entries at both ends of the table; that of index 0 means nothing.
  mvpn_cibtype *red = context("red");
  red->mdt_encap_group[0] = addr("239.2.0.200");
  red->mdt_encap_group[1023] = addr("239.2.0.201");
  expect_golden("routes.txt",
                view("routes", run("mvpn_show_mdt_route_cmd")) +
                    view("routes, one VRF named", run("mvpn_show_mdt_route_cmd", "blue", {{"detail", ""}})) +
                    view("encapsulations of red", run("mvpn_show_mdt_encap_cmd", "red")) +
                    view("encapsulations", run("mvpn_show_mdt_encap_cmd")));
  red->mdt_encap_group[0] = red->mdt_encap_group[1023] = 0;
}

TEST_F(Show, SentDataMdts) {
  start();
  vrf_with_site("red", 2, "239.1.1.1");
  vrf_with_site("blue", 3, "239.1.1.2");
  range_of("red", "239.2.0.0/24", "100");
  pim_route *old = sent_flow("red", "172.16.9.1", "225.0.0.1");
  ref::advance(1s);
  sent_flow("red", "172.16.9.2", "225.0.0.2");
  ref::advance(299s);
  pim_route *slow = sent_flow("red", "172.16.255.250", "225.255.255.255");
  ref::set_customer_rate("red", slow->addrs, 1);
  check(slow);
  ASSERT_EQ(slow->send_join_info->state, MVPN_DATA_MDT_STATE_SWITCHBACK_PENDING);
  announced_flow("red", "172.16.9.4", "225.0.0.4");  // not moved yet
  ref::CustomerRoute on_default = flow_of("172.16.9.5", "225.0.0.5", 1);
  on_default.iif = "site-red";
  ref::set_customer_route("red", on_default);
  ref::settle();
  const mvpn_mdt_route *kept = old->send_join_info->mdt_route;
  old->send_join_info->mdt_route = nullptr;
  const auto history = [](const char *minutes) {
    return run("mvpn_show_mdt_send_history_cmd", "red", {{"history", ""}, {"<min>", minutes}});
  };
  const std::string texts = view("every VRF", run("mvpn_show_mdt_send_cmd")) +
                            view("red, detail", run("mvpn_show_mdt_send_cmd", "red", {{"detail", ""}})) +
                            view("of 5 minutes", history("5")) + view("of 0 minutes", history("0")) +
                            view("no ranges, detail", run("mvpn_show_mdt_send_cmd", "blue", {{"detail", ""}}));
  ref::advance(1s);
  expect_golden("sent.txt", texts + view("of 5 minutes, 1 s later", history("5")) +
                                view("without a limit", run("mvpn_show_mdt_send_history_cmd", "red")));
  old->send_join_info->mdt_route = const_cast<mvpn_mdt_route *>(kept);

  const Output brief = run("mvpn_show_mdt_send_cmd", "red");
  EXPECT_EQ(brief.value_of(CLI_ELEMENT_SENT_COUNT), "1");
  const auto uptime = std::find_if(brief.values.begin(), brief.values.end(),
                                   [](const ref::CliValue &value) { return value.element == CLI_ELEMENT_SENT_UPTIME; });
  ASSERT_NE(uptime, brief.values.end());
  EXPECT_EQ(uptime->type, ref::CliValueType::duration);
  EXPECT_EQ(uptime->seconds, 301.0);
}

TEST_F(Show, ReceivedDataMdts) {
  start();
  vrf_with_site("red", 2, "239.1.1.1");
  vrf_with_site("blue", 3, "239.1.1.2");
  receiver_of("red", "172.16.5.1", "225.0.0.5", "10.0.0.9");
  hear_in("red", "172.16.5.1", "225.0.0.5", "10.0.0.9", "239.2.9.1");
  ref::advance(61s);
  hear_in("red", "172.16.5.1", "225.0.0.5", "10.0.0.9", "239.2.9.1");
  hear_in("red", "172.16.255.254", "225.255.255.255", "10.255.255.254", "239.255.255.254");
  hear_in("red", "*", "225.0.0.6", "10.0.0.9", "239.2.9.2");
  ref::advance(59s);
  expect_golden("received.txt", view("every VRF", run("mvpn_show_mdt_receive_cmd")) +
                                    view("red, detail", run("mvpn_show_mdt_receive_cmd", "red", {{"detail", ""}})) +
                                    view("blue, detail", run("mvpn_show_mdt_receive_cmd", "blue", {{"detail", ""}})));
}

TEST_F(Show, MdtSafiDatabase) {
  start();
  expect_golden("safi_empty.txt", view("empty", run("mvpn_show_mdt_bgp_cmd")));
  bring_up("red", 2, "239.1.1.1");
  bring_up("blue", 3, "239.255.255.255");
  remote_pe_of("10.0.0.9", "65000:9", "239.1.1.1");
  remote_pe_of("10.0.0.9", "10.0.0.9:5", "239.255.255.255");
  remote_pe_of("203.0.113.254", "4200000000:65535", "239.1.1.1");
  const auto source = [](const char *pe) { return Arguments{{"<src-addr>", pe}}; };
  expect_golden("safi.txt", view("all", run("mvpn_show_bgp_auto_discovery_cmd")) +
                                view("10.0.0.9", run("mvpn_show_mdt_bgp_cmd", "", source("10.0.0.9"))) +
                                view("10.0.0.1", run("mvpn_show_mdt_bgp_cmd", "", source("10.0.0.1"))) +
                                view("10.0.0.8", run("mvpn_show_mdt_bgp_cmd", "", source("10.0.0.8"))));
  EXPECT_EQ(run("mvpn_show_mdt_bgp_cmd").printed, run("mvpn_show_bgp_auto_discovery_cmd").printed);

  // The same values under the elements of either view.
  const Output local = run("mvpn_show_mdt_bgp_cmd", "", source("10.0.0.1"));
  EXPECT_EQ(local.value_of(CLI_ELEMENT_SAFI_SOURCE), "10.0.0.1");
  EXPECT_EQ(local.value_of(CLI_ELEMENT_SAFI_LOCAL), "True");
  EXPECT_EQ(local.value_of(CLI_ELEMENT_PIM_SAFI_SOURCE), "(none)");
  const Output remote = run("mvpn_show_mdt_bgp_cmd", "", {{"<src-addr>", "203.0.113.254"}, {"pim", ""}});
  EXPECT_EQ(remote.value_of(CLI_ELEMENT_PIM_SAFI_RD), "4200000000:65535");
  EXPECT_EQ(remote.value_of(CLI_ELEMENT_PIM_SAFI_GROUP), "239.1.1.1");
  EXPECT_EQ(remote.value_of(CLI_ELEMENT_PIM_SAFI_LOCAL), "False");
  EXPECT_EQ(remote.value_of(CLI_ELEMENT_SAFI_RD), "(none)");
}

TEST_F(Show, TransmitListAndBuffers) {
  start();
  ref::set_mrib_acks(false);
  bring_up("red", 2, "239.1.1.1");
  bring_up("blue", 3, "239.1.1.2");
  command("mdt_asm_use_shared_tree_cmd", "blue");
  ref::settle();
  remote_pe_of("10.0.0.9", "65000:9", "239.1.1.1");
  // Work that the worker has not come to: a route added, one deleted, a VRF to be checked.
  mvpn_mdt_add_route_resources(context("red"), MVPN_MDT_ROUTE_REMOTE_DEFAULT, addr("10.0.0.7"), 1, addr("239.1.1.1"),
                               0);
  mvpn_mdt_delete_route_resources(context("red"), addr("10.0.0.9"), addr("239.1.1.1"), 0);
  mvpn_mrib_queue_context(context("blue"));
  const auto list = [](const char *keyword) {
    return run("mvpn_show_internal_mrib_txlist_cmd", "", keyword == nullptr ? Arguments{} : Arguments{{keyword, ""}});
  };
  const auto hide_addresses = [](const std::string &text) {
    return std::regex_replace(text, std::regex("Buffer: 0x0x[0-9a-f]+,"), "Buffer: 0xADDRESS,");
  };
  const size_t links = transmit_list_links();
  const std::string texts =
      view("neither", list(nullptr)) + view("list", list("mrib-txlist")) + view("buffers", list("mrib-buffers")) +
      view("both", run("mvpn_show_internal_mrib_txlist_cmd", "", {{"mrib-buffers", ""}, {"mrib-txlist", ""}}));
  EXPECT_EQ(transmit_list_links(), links) << "no iterator stays";
  trace::fail("txlist_iterator_create");
  const std::string failed = view("no iterator", list("mrib-txlist"));
  ref::set_mrib_acks(true);
  ref::settle();
  expect_golden("transmit.txt", hide_addresses(texts + failed + view("acknowledged", list("mrib-buffers"))));
}

TEST_F(Show, PersistedRecords) {
  start();
  vrf_with_site("red", 2, "239.1.1.1");
  vrf_with_site("blue", 3, "239.1.1.2");
  range_of("red", "239.2.0.0/24");
  sent_flow("red", "172.16.9.1", "225.0.0.1");
  sent_flow("red", "172.16.255.250", "225.255.255.255");
  // Choices of flows that are gone, in VRFs on both sides in the store, and a value that says nothing.
  const auto store = [](vrf_context_id_t context_id, std::string_view source, bool good) {
    pim_cibtype pcib{};
    pcib.context_id = context_id;
    const mvpn_mdt_route_addrs addrs = route_addrs(source, "225.9.9.9");
    uint8_t key[PSS_KEY_SIZE];
    mvpn_ha_make_encap_info_pss_key(&pcib, &addrs, key);
    const mvpn_ha_encap_info_t choice{1023, addr("239.255.255.255")};
    std::vector<uint8_t> value(mvpn_ha_encap_info_get_tlv_sz(&choice));
    mvpn_ha_make_encap_info_pss_value(choice, value.data(), static_cast<uint32_t>(value.size()));
    ksink_pss_update(pim_ha_handle, key, PSS_KEY_SIZE, value.data(), good ? static_cast<uint32_t>(value.size()) : 3);
  };
  store(1, "172.16.1.1", true);
  store(2, "*", true);
  store(2, "172.16.200.1", false);
  store(4, "172.16.1.4", true);
  expect_golden("persisted.txt", view("every VRF", run("mvpn_show_internal_ha_cmd")) +
                                     view("red", run("mvpn_show_internal_ha_cmd", "red")));
  EXPECT_EQ(run("mvpn_show_internal_ha_cmd", "", {}, false, 1).printed.find("172.16.9.1"), std::string::npos)
      << "the operator stops it after a record";
  // The record that was just printed goes while the listing gives way: the one after it is printed all the same.
  const std::string whole = run("mvpn_show_internal_ha_cmd", "red").printed;
  trace::on_yield([passed = 0](unsigned) mutable {
    if (++passed == 1) ksink_pss_delete(pim_ha_handle, ref::pss_records()[1].first.data(), PSS_KEY_SIZE);
    return true;
  });
  EXPECT_EQ(run("mvpn_show_internal_ha_cmd", "red").printed, whole);
  trace::on_yield(nullptr);
  for (const auto &[key, value] : ref::pss_records())
    if (key[12] == 225 && key[13] == 9) ksink_pss_delete(pim_ha_handle, key.data(), PSS_KEY_SIZE);
}

TEST_F(Show, ModuleStateInEveryStatus) {
  start();
  std::string texts;
  const auto state = [&texts](const char *heading) { texts += view(heading, run("mvpn_show_internal_state_cmd")); };
  ref::set_feature_configured(true);
  state("started");
  bring_up("red", 2, "239.1.1.1");
  add_vrf("plain", 3);
  end_replay();
  for (const auto status : {MVPN_FUNCTIONALITY_DOWN, MVPN_FUNCTIONALITY_DOWN_PENDING, MVPN_FUNCTIONALITY_UP_PENDING,
                            MVPN_FUNCTIONALITY_UP}) {
    mvpn_functionality_status = status;
    state("with a VRF");
  }
  ref::set_feature_configured(false);
  mvpn_deinit(1);
  state("stopped");
  expect_golden("state.txt", texts);
}

TEST_F(Show, NothingIsShownWhileTheModuleIsNotUp) {
  const auto expect_silence = [] {
    for (const char *handler : VRF_VIEWS)
      for (const char *vrf : {"red", ""}) {
        const Output output = run(handler, vrf, {{"detail", ""}});
        EXPECT_EQ(output.printed, "") << handler;
        EXPECT_TRUE(output.values.empty()) << handler;
        EXPECT_EQ(output.result, 0) << handler;
      }
    for (const char *handler : GLOBAL_VIEWS)
      for (const char *keyword : {"", "mrib-txlist", "mrib-buffers"}) {
        const Output output = run(handler, "", {{keyword, ""}});
        EXPECT_EQ(output.printed, "") << handler;
        EXPECT_EQ(output.result, 0) << handler;
      }
  };
  mvpn_init_cli();
  expect_silence();
  EXPECT_NE(show("mvpn_show_internal_state_cmd", "").find("  MVPN Functionality Status: Down\n"), std::string::npos);
  start_red();
  for (const auto status : {MVPN_FUNCTIONALITY_DOWN, MVPN_FUNCTIONALITY_DOWN_PENDING, MVPN_FUNCTIONALITY_UP_PENDING}) {
    SCOPED_TRACE(mvpn_functionality_status_str[status]);
    mvpn_functionality_status = status;
    expect_silence();
  }
  mvpn_functionality_status = MVPN_FUNCTIONALITY_UP;
  for (const char *handler : VRF_VIEWS) EXPECT_NE(show(handler, "red"), "") << handler;
  for (const char *handler : GLOBAL_VIEWS) EXPECT_NE(show(handler, ""), "") << handler;
  ref::set_feature_configured(false);
  mvpn_deinit(1);
  expect_silence();
}

// How far a listing goes when the operator stops it, and how often the operator is asked.
TEST_F(Show, LongListingsAskAndStop) {
  start();
  vrf_with_site("red", 2, "239.1.1.1");
  range_of("red", "239.2.0.0/16");
  core_routes_to("red", 504);  // and this PE's own
  sent_flows("red", 120);      // all to 225.0.0.1: one route each, of which the data MDT has one more core route
  heard_flows("red", 120);
  const size_t core_routes = lines_with(show("mvpn_show_mdt_route_cmd", ""), "Refcount");
  ASSERT_EQ(core_routes, context("red")->mdt_route_count);
  ASSERT_GT(core_routes, 500u);
  const struct {
    const char *handler;
    Arguments arguments;
    const char *part;  // in the line of a record
    unsigned enough_at;
    size_t shown;
  } cases[] = {
      {"mvpn_show_mdt_route_cmd", {}, "Refcount", 1, 100},
      {"mvpn_show_mdt_route_cmd", {}, "Refcount", 3, 300},
      {"mvpn_show_mdt_send_cmd", {}, "172.17.", 1, 50},
      {"mvpn_show_mdt_send_cmd", {}, "172.17.", 2, 100},
      {"mvpn_show_mdt_send_cmd", {}, "172.17.", 3, 120},
      {"mvpn_show_mdt_send_cmd", {{"detail", ""}}, "C-Source: 172.17.", 2, 100},
      {"mvpn_show_mdt_receive_cmd", {}, "172.19.", 1, 50},
      {"mvpn_show_mdt_receive_cmd", {{"detail", ""}}, "C-Source: 172.19.", 2, 100},
      {"mvpn_show_mdt_receive_cmd", {}, "172.19.", 3, 120},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.handler) + " " + std::to_string(c.enough_at));
    const Output output = run(c.handler, "red", c.arguments, false, c.enough_at);
    EXPECT_EQ(lines_with(output.printed, c.part), c.shown);
    EXPECT_EQ(output.result, 0);
  }
}

// A flow that a limit of minutes leaves out is not counted towards the question to the operator.
TEST_F(Show, SentFlowsAreCountedWhenTheyAreShown) {
  start();
  vrf_with_site("red", 2, "239.1.1.1");
  range_of("red", "239.2.0.0/16");
  sent_flows("red", 49);
  ref::advance(600s);
  announced_flow("red", "172.18.0.1", "225.0.0.1");
  finish_switchovers("red");
  const Output output = run("mvpn_show_mdt_send_history_cmd", "red", {{"history", ""}, {"<min>", "1"}});
  EXPECT_EQ(lines_with(output.printed, "239.2."), 1u);
  EXPECT_EQ(output.asked, 0u);
  EXPECT_EQ(run("mvpn_show_mdt_send_cmd", "red").asked, 1u);
}

TEST_F(Show, TransmitListStopsAfter201Objects) {
  start();
  bring_up("red", 2, "239.1.1.1");
  core_routes_to("red", 600);
  const auto list = [](unsigned enough_at) {
    return run("mvpn_show_internal_mrib_txlist_cmd", "", {{"mrib-txlist", ""}}, false, enough_at);
  };
  const auto objects = [](const Output &output) {
    return lines_with(output.printed, ": Contex-ID ") + lines_with(output.printed, ": MRIB Member\n");
  };
  const size_t links = transmit_list_links();
  const Output whole = list(~0u);
  EXPECT_EQ(objects(whole), 602u);
  EXPECT_EQ(whole.asked, 2u);
  EXPECT_EQ(whole.result, 0);
  EXPECT_EQ(whole.printed.substr(whole.printed.size() - 2), "\n\n");
  for (unsigned questions = 1; questions <= 2; questions++) {
    const Output cut = list(questions);
    EXPECT_EQ(cut.result, -500);
    EXPECT_EQ(objects(cut), questions * 201);
    EXPECT_NE(cut.printed.substr(cut.printed.size() - 2), "\n\n");
    EXPECT_EQ(transmit_list_links(), links) << "the iterator is off the list";
  }
  // Routes come and go while the listing gives way.
  at_yield(1, [this] {
    for (unsigned i = 0; i < 300; i++)
      mvpn_mdt_delete_route_resources(context("red"), addr("10.1.0.0") + i, addr("239.1.1.1"), 1);
    ref::settle();
  });
  const Output changed = list(~0u);
  EXPECT_EQ(changed.result, 0);
  EXPECT_LT(objects(changed), 602u);
  EXPECT_GT(objects(changed), 301u);
  // The module stops while the listing gives way.
  trace::on_yield(nullptr);
  at_yield(1, [] {
    ref::set_feature_configured(false);
    mvpn_deinit(1);
  });
  const Output ended = list(~0u);
  EXPECT_EQ(objects(ended), 201u);
  EXPECT_NE(ended.printed.substr(ended.printed.size() - 2), "\n\n");
  EXPECT_EQ(mvpn_mrib_info, nullptr);
}

// What a view records makes a document of the output schema in both forms, whole or stopped.
TEST_F(Show, DocumentsOfEveryView) {
  start();
  ref::set_policy("flows", {{}});
  vrf_with_site("red", 2, "239.1.1.1");
  vrf_with_site("blue", 3, "239.1.1.2");
  add_vrf("plain", 4);
  range_of("red", "239.2.0.0/24");
  command("mdt_data_cmd", "blue", {{"<prefix>", "239.3.0.0/24"}, {"route-map", ""}, {"<policy-name>", "flows"}});
  add_vrf("waiting", 5);
  command("mdt_default_cmd", "waiting", {{"<mdt-default>", "239.1.1.5"}}, false, false);
  sent_flows("red", 60);
  heard_flows("red", 60);
  remote_pe_of("10.0.0.9", "65000:9", "239.1.1.1");
  core_routes_to("red", 250);
  mvpn_mrib_queue_context(context("blue"));
  const struct {
    const char *handler;
    Arguments arguments;
  } views[] = {{"mvpn_show_mdt_cmd", {}},
               {"mvpn_show_mdt_route_cmd", {}},
               {"mvpn_show_mdt_encap_cmd", {}},
               {"mvpn_show_mdt_receive_cmd", {}},
               {"mvpn_show_mdt_receive_cmd", {{"detail", ""}}},
               {"mvpn_show_mdt_send_cmd", {}},
               {"mvpn_show_mdt_send_cmd", {{"detail", ""}}},
               {"mvpn_show_internal_ha_cmd", {}},
               {"mvpn_show_bgp_auto_discovery_cmd", {}},
               {"mvpn_show_mdt_bgp_cmd", {{"pim", ""}}},
               {"mvpn_show_internal_mrib_txlist_cmd", {{"mrib-txlist", ""}}},
               {"mvpn_show_internal_mrib_txlist_cmd", {{"mrib-buffers", ""}}},
               {"mvpn_show_internal_state_cmd", {}}};
  for (const auto &v : views)
    for (const bool stopped : {false, true}) {
      SCOPED_TRACE(std::string(v.handler) + (stopped ? ", stopped" : ""));
      size_t deliveries = 0;
      const auto document = [&](auto make) {
        std::string bytes;
        deliveries = 0;
        const auto writer = make([&](std::string_view piece) {
          bytes.append(piece);
          return ++deliveries < (stopped ? 5u : ~0u);
        });
        ref::cli_invoke({.handler = v.handler, .arguments = v.arguments, .vrf_name = {}, .all_vrfs = true}, *writer);
        writer->finish();
        return bytes;
      };
      const std::string json = document(json_document);
      EXPECT_GT(json.size(), 20u) << "something was recorded";
      check_json(json);
      EXPECT_EQ(xml_faults(document(xml_document)), "");
    }
  ref::settle();
}

// A VRF that loses its context in a yield ends its own listing and no other's.
TEST_F(Show, VrfsVanishDuringAListingOfAll) {
  start();
  const struct {
    const char *handler;
    const char *part;  // in the line of a record of red
    size_t shown;      // of red before it vanishes
  } cases[] = {
      {"mvpn_show_mdt_route_cmd", " (10.", 100},
      {"mvpn_show_mdt_send_cmd", "172.17.", 50},
      {"mvpn_show_mdt_receive_cmd", "172.19.", 50},
      {"mvpn_show_internal_ha_cmd", "172.17.", 1},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.handler);
    vrf_with_site("blue", 4, "239.1.1.4");
    vrf_with_site("red", 2, "239.1.1.2");
    vrf_with_site("zinc", 3, "239.1.1.3");
    range_of("red", "239.2.0.0/16");
    core_routes_to("red", 130);
    sent_flows("red", 60);
    heard_flows("red", 60);
    ref::settle();
    at_yield(1, [this] { vanish_vrf("red"); });
    const Output output = run(c.handler);
    trace::on_yield(nullptr);
    EXPECT_EQ(context("red"), nullptr) << "the listing yielded";
    const size_t begin = output.printed.find("red"), end = output.printed.find("zinc");
    ASSERT_NE(begin, std::string::npos);
    ASSERT_NE(end, std::string::npos) << output.printed;
    const std::string of_red = output.printed.substr(begin, end - begin);
    EXPECT_EQ(lines_with(of_red, c.part), c.shown);
    EXPECT_EQ(output.printed.substr(output.printed.size() - 2), "\n\n");
    check_invariants();
    for (const char *vrf : {"red", "zinc", "blue"}) {
      if (context(vrf) != nullptr) vanish_vrf(vrf);
      EXPECT_TRUE(ref::delete_vrf(vrf));
    }
    ref::settle();
  }
}

// The VRF comes back under the same name while its listing gives way: the listing goes on in the new context.
TEST_F(Show, ANewContextContinuesTheListing) {
  start();
  bring_up("red", 2, "239.1.1.1");
  core_routes_to("red", 130);
  at_yield(1, [this] {
    vanish_vrf("red");
    bring_up("zinc", 7, "239.1.1.7");  // may get the memory of what red was
    configure("red", "239.1.1.1");
    core_routes_to("red", 200);
  });
  EXPECT_EQ(lines_with(show("mvpn_show_mdt_route_cmd", ""), " (10.1."), 200u)
      << "100 with the local one, and the new context's routes behind them";
}

// The operator is asked between VRFs too.
TEST_F(Show, AListingOfAllVrfsCanBeStopped) {
  start();
  for (int i = 2; i < 6; i++)
    bring_up("vrf" + std::to_string(i), static_cast<vrf_context_id_t>(i), "239.1.1." + std::to_string(i));
  EXPECT_EQ(lines_with(run("mvpn_show_mdt_encap_cmd", "", {}, false, 2).printed, "for VRF"), 2u);
  EXPECT_EQ(lines_with(run("mvpn_show_mdt_encap_cmd").printed, "for VRF"), 4u);
  unsigned visited = 0;
  static unsigned *counter = &visited;
  cli_register_cmd(
      "walk_test",
      [](cli_command *command) {
        mvpn_show_clear_walk_all_vrfs(command, nullptr);
        return mvpn_show_clear_walk_all_vrfs(command, [](cli_command *, mvpn_cibtype *) {
          ++*counter;
          return 0;
        });
      },
      0);
  EXPECT_EQ(run("walk_test").printed, "\n\n\n\n\n\n\n\n") << "a walk needs no printer";
  EXPECT_EQ(visited, 4u);
}

}  // namespace
