// Configuration commands: their checks and messages, interactive and replayed, and the end of the replay.
#include <set>

#include "platform/reference/cli.h"
#include "platform/reference/diag.h"
#include "platform/reference/im.h"
#include "platform/reference/mrib.h"
#include "platform/reference/oim.h"
#include "platform/reference/pim.h"
#include "platform/reference/rpm.h"
#include "platform/reference/testing/runtime.h"
#include "platform/reference/testing/services.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_default_mdt.h"
#include "routing/pim/mvpn/mvpn_mdt_route.h"
#include "tests/support/module_test.h"

namespace {

using Arguments = std::vector<ref::CliArgument>;

class Config : public ModuleTest {
 protected:
  // Runs a command; "result: what it printed".
  std::string run(std::string_view handler, std::string_view vrf, Arguments arguments = {}, bool no_form = false,
                  bool interactive = true) {
    const int result = command(handler, vrf, arguments, no_form, interactive);
    ref::settle();
    return std::to_string(result) + ": " + printed;
  }
  std::string data(std::string_view vrf, const std::string &prefix, Arguments more = {}, bool no_form = false) {
    more.insert(more.begin(), {"<prefix>", prefix});
    return run("mdt_data_cmd", vrf, more, no_form);
  }
  // Ranges of a VRF in list order, as "prefix/length threshold immediate policy".
  static std::vector<std::string> ranges(const mvpn_cibtype *mvpn) {
    std::vector<std::string> out;
    for (const mvpn_data_mdt_range *range = mvpn->data_mdt_config; range != nullptr; range = range->next) {
      std::string text =
          dotted(range->prefix) + "/" + std::to_string(range->masklen) + " " + std::to_string(range->threshold);
      if (range->immediate_switch) text += " immediate";
      if (range->policy.policy_name != nullptr) text += std::string(" ") + range->policy.policy_name;
      out.push_back(text);
    }
    return out;
  }
};

using Texts = std::vector<std::string>;

TEST_F(Config, EachHandlerIsRegisteredOnceAndARefusalNamesIt) {
  trace::start();
  ASSERT_EQ(mvpn_init(), 1);
  for (const std::string &call : trace::calls_of({"cli_register_cmd"}))
    EXPECT_TRUE(call.ends_with(",0)")) << call << ": the last argument is reserved";
  trace::fail("cli_register_cmd", 3);
  mvpn_init_cli();
  const std::vector<std::string> names = ref::cli_registered();
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()).size(), names.size());
  ASSERT_EQ(ref::reports().size(), 1u);
  EXPECT_EQ(ref::reports()[0].arguments, (Texts{"cli_register_cmd()", "mdt_data_cmd"}));
}

TEST_F(Config, CommandsDoNothingWhileTheModuleIsNotUpOrTheVrfHasNoContext) {
  start();
  add_vrf("red", 2);
  const char *const handlers[] = {"mdt_source_cmd",
                                  "mdt_data_cmd",
                                  "mdt_mtu_cmd",
                                  "mdt_data_bidir_enable_cmd",
                                  "mdt_pim_hello_interval_cmd",
                                  "mdt_pim_jp_interval_cmd",
                                  "mdt_data_inhibit_reuse_cmd",
                                  "mdt_asm_use_shared_tree_cmd",
                                  "mdt_enforce_bgp_mdt_safi_cmd"};
  const Arguments all = {{"<interface>", "loopback0"},
                         {"<prefix>", "10.0.0.0/8"},
                         {"<interval>", "90"},
                         {"<mtu-value>", "900"},
                         {"<mdt-default>", "239.1.1.1"}};
  for (const char *handler : handlers) EXPECT_EQ(run(handler, "red", all), "0: ") << handler;
  configure("red", "239.1.1.1");
  for (const auto status : {MVPN_FUNCTIONALITY_DOWN_PENDING, MVPN_FUNCTIONALITY_UP_PENDING}) {
    mvpn_functionality_status = status;
    for (const char *handler : handlers) {
      EXPECT_EQ(command(handler, "red", all), 0) << handler;
      EXPECT_EQ(printed, "") << handler;
    }
    EXPECT_EQ(command("mdt_default_cmd", "red", {{"<mdt-default>", "239.9.9.9"}}), 0);
    mvpn_functionality_status = MVPN_FUNCTIONALITY_UP;
  }
  ref::set_pcib_usable("red", false);
  for (const char *handler : handlers) EXPECT_EQ(run(handler, "red", all), "0: ") << handler;
  EXPECT_EQ(context("red")->mdt_mtu, MVPN_MDT_MTU_DEFAULT);
  ref::set_pcib_usable("red", true);
}

// What cannot be read is no default: the setting stays, and the group that is not named is not removed.
TEST_F(Config, ArgumentsThatCannotBeReadAreRefused) {
  start();
  mvpn_cibtype *red = bring_up("red", 2, "239.1.1.1");
  ref::create_interface("loopback1", VRF_CONTEXT_ID_DEFAULT, addr("10.0.0.2"), true);
  run("mdt_source_cmd", "red", {{"<interface>", "loopback1"}});
  run("mdt_mtu_cmd", "red", {{"<mtu-value>", "1400"}});
  run("mdt_pim_hello_interval_cmd", "red", {{"<interval>", "10000"}});
  run("mdt_pim_jp_interval_cmd", "red", {{"<interval>", "120"}});
  const struct {
    const char *handler;
    Arguments arguments;
    bool no_form;
    const char *refused;
  } cases[] = {
      {"mdt_default_cmd", {{"<mdt-default>", "239.1.1"}}, true, "<mdt-default>"},
      {"mdt_default_cmd", {{"<mdt-default>", "239.1.1.256"}}, false, "<mdt-default>"},
      {"mdt_source_cmd", {{"<interface>", std::string(IF_NAME_SIZE, 'x')}}, false, "<interface>"},
      {"mdt_data_cmd", {{"<prefix>", "239.2.0.0/33"}}, false, "<prefix>"},
      {"mdt_data_cmd", {{"<prefix>", "239.2.0.0/24"}, {"threshold", ""}, {"<value>", "many"}}, false, "<value>"},
      {"mdt_mtu_cmd", {{"<mtu-value>", "4294967296"}}, false, "<mtu-value>"},
      {"mdt_pim_hello_interval_cmd", {{"<interval>", "10s"}}, false, "<interval>"},
      {"mdt_pim_jp_interval_cmd", {{"<interval>", "-60"}}, false, "<interval>"},
  };
  for (const auto &c : cases)
    EXPECT_EQ(run(c.handler, "red", c.arguments, c.no_form), std::string("-500: Invalid value for ") + c.refused + "\n")
        << c.handler;
  EXPECT_EQ(red->mdt_default_group, addr("239.1.1.1"));
  EXPECT_STREQ(red->mdt_source_ifname, "loopback1");
  EXPECT_EQ(ranges(red).size(), 0u);
  EXPECT_EQ(red->mdt_mtu, 1400u);
  EXPECT_EQ(red->pim_hello_interval, 10000u);
  EXPECT_EQ(red->pim_jp_interval, 120u);
}

TEST_F(Config, DefaultGroupsAreChecked) {
  start();
  add_vrf("red", 2);
  add_vrf("blue", 3);
  EXPECT_EQ(run("mdt_default_cmd", "nowhere", {{"<mdt-default>", "239.1.1.1"}}), "-500: ");
  EXPECT_EQ(run("mdt_default_cmd", "red", {}, true), "-500: No default mdt group configured\n");
  EXPECT_EQ(run("mdt_default_cmd", "red", {{"<mdt-default>", "239.1.1.1"}}), "0: ");
  EXPECT_EQ(run("mdt_default_cmd", "red", {{"<mdt-default>", "239.1.1.1"}}), "0: ");
  EXPECT_EQ(run("mdt_default_cmd", "red", {{"<mdt-default>", "239.1.1.2"}}),
            "-500: Cannot change the default mdt group address. Must deconfigure first\n");
  EXPECT_EQ(run("mdt_default_cmd", "red", {{"<mdt-default>", "239.1.1.2"}}, true),
            "-500: The group address does not match the configured default mdt group address\n");
  EXPECT_EQ(data("red", "239.2.0.0/16"), "0: ");
  EXPECT_EQ(run("mdt_default_cmd", "blue", {{"<mdt-default>", "239.1.1.1"}}),
            "-500: The MDT-default group overlaps with VRF red\n");
  EXPECT_EQ(mvpn_mvrf_count, 2u) << "the context was made before the check";
  EXPECT_EQ(run("mdt_default_cmd", "blue", {{"<mdt-default>", "239.2.255.255"}}),
            "-500: The MDT-default group overlaps with VRF red\n");
  EXPECT_EQ(run("mdt_default_cmd", "blue", {{"<mdt-default>", "239.3.0.0"}}), "0: ");
  EXPECT_EQ(context("blue")->mti_status, MVPN_MTI_UP);
  EXPECT_EQ(run("mdt_default_cmd", "red", {{"<mdt-default>", "239.1.1.1"}}, true), "0: ");
  EXPECT_EQ(context("red"), nullptr);
}

TEST_F(Config, DataRangesAreChecked) {
  start();
  add_vrf("red", 2);
  add_vrf("blue", 3);
  configure("red", "239.1.1.1");
  configure("blue", "239.9.9.9");
  ASSERT_EQ(data("red", "239.2.0.0/16"), "0: ");
  ASSERT_EQ(data("blue", "239.10.0.0/16"), "0: ");
  const std::string longest(rpm_get_max_name_length(), 'p');
  const struct {
    const char *prefix;
    const char *policy;
    std::string expected;
  } cases[] = {
      {"10.0.0.0/8", nullptr, "-500: Invalid group range\n"},
      {"0.0.0.0/0", nullptr, "-500: Invalid group range\n"},
      {"239.1.1.1/24", nullptr, "-500: Overspecified group range, non mask-length bits should be 0\n"},
      {"239.1.0.0/16", nullptr, "-500: Data MDT Prefix 239.1.0.0/16 comprises default MDT group 239.1.1.1\n"},
      {"239.2.1.0/24", nullptr, "-500: Prefix overlaps with other data-mdt - 239.2.0.0/16\n"},
      {"239.2.0.0/15", nullptr, "-500: Prefix overlaps with other data-mdt - 239.2.0.0/16\n"},
      {"239.9.9.0/24", nullptr,
       "-500: Error: prefix overlaps with default mdt group or mdt data group prefixes for VRF blue\n"},
      {"239.10.7.0/24", nullptr,
       "-500: Error: prefix overlaps with default mdt group or mdt data group prefixes for VRF blue\n"},
      {"239.5.0.0/24", "too long",
       "-500: Policy name too long. Maximum length is " + std::to_string(longest.size()) + "\n"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.prefix);
    if (c.policy != nullptr)
      EXPECT_EQ(data("red", c.prefix, {{"route-map", ""}, {"<policy-name>", longest + "x"}}), c.expected);
    else
      EXPECT_EQ(data("red", c.prefix), c.expected);
    EXPECT_EQ(ranges(context("red")), Texts{"239.2.0.0/16 0"});
  }
  EXPECT_EQ(run("mdt_data_cmd", "red"), "-500: ") << "a missing prefix";
  EXPECT_EQ(data("red", "239.4.0.0/24", {}, true), "0: ") << "removal of what is not there";
}

TEST_F(Config, RangesStandInTheirOrderAndAreModifiedInPlace) {
  start();
  ref::set_policy("flows", {{}});
  mvpn_cibtype *red = bring_up("red", 2, "239.1.1.1");
  EXPECT_EQ(data("red", "239.2.0.0/24"), "0: ");
  EXPECT_EQ(data("red", "239.3.0.0/24", {{"threshold", ""}, {"<value>", "4294967295"}}), "0: ");
  EXPECT_EQ(data("red", "239.4.0.0/24", {{"route-map", ""}, {"<policy-name>", "flows"}}), "0: ");
  EXPECT_EQ(data("red", "239.5.0.0/24", {{"immediate-switch", ""}}), "0: ");
  EXPECT_EQ(ranges(red),
            (Texts{"239.4.0.0/24 0 flows", "239.2.0.0/24 0", "239.3.0.0/24 4294967295", "239.5.0.0/24 0 immediate"}));
  EXPECT_EQ(data("red", "239.2.0.0/24", {{"threshold", ""}, {"<value>", "7"}, {"immediate-switch", ""}}), "0: ");
  EXPECT_EQ(data("red", "239.3.0.0/24", {{"route-map", ""}, {"<policy-name>", "other"}}), "0: ");
  EXPECT_EQ(data("red", "239.4.0.0/24"), "0: ");
  EXPECT_EQ(ranges(red),
            (Texts{"239.4.0.0/24 0", "239.2.0.0/24 7 immediate", "239.3.0.0/24 0 other", "239.5.0.0/24 0 immediate"}));
  EXPECT_EQ(ref::policy_bindings(), 1u);
  EXPECT_EQ(data("red", "239.3.0.0/24", {}, true), "0: ");
  EXPECT_EQ(data("red", "239.4.0.0/24", {}, true), "0: ");
  EXPECT_EQ(ranges(red), (Texts{"239.2.0.0/24 7 immediate", "239.5.0.0/24 0 immediate"}));
  EXPECT_EQ(ref::policy_bindings(), 0u);
}

// The overlap with the VRF's own later default group stands before the removal: such a range cannot be removed.
TEST_F(Config, ARangeThatHoldsTheDefaultGroupStays) {
  start();
  add_vrf("red", 2);
  mvpn_cibtype *red = mvpn_create_context(nullptr, "red");
  EXPECT_EQ(data("red", "239.1.0.0/16"), "0: ");
  configure("red", "239.1.1.1");
  EXPECT_EQ(data("red", "239.1.0.0/16", {}, true),
            "-500: Data MDT Prefix 239.1.0.0/16 comprises default MDT group 239.1.1.1\n");
  EXPECT_EQ(ranges(red).size(), 1u);
}

TEST_F(Config, PoliciesThatCannotBeBoundAreRefused) {
  start();
  mvpn_cibtype *red = bring_up("red", 2, "239.1.1.1");
  trace::fail("rpm_policy_bind");
  EXPECT_EQ(data("red", "239.2.0.0/24", {{"route-map", ""}, {"<policy-name>", "flows"}}),
            "-500: Unable to bind policy flows \n");
  EXPECT_EQ(ranges(red), Texts{});
  EXPECT_EQ(data("red", "239.2.0.0/24"), "0: ");
  trace::fail("rpm_policy_bind");
  EXPECT_EQ(data("red", "239.2.0.0/24", {{"route-map", ""}, {"<policy-name>", "flows"}}),
            "-500: Unable to bind policy flows\n");
  EXPECT_EQ(ranges(red), Texts{"239.2.0.0/24 0"});
  EXPECT_EQ(data("red", "239.2.0.0/24", {{"route-map", ""}, {"<policy-name>", "flows"}}), "0: ");
  trace::fail("rpm_policy_unbind");
  EXPECT_EQ(data("red", "239.2.0.0/24", {}, true), "-500: Unable to unbind policy flows \n");
  EXPECT_EQ(ranges(red), Texts{}) << "the range is out of the list all the same";
  testing::internal::CaptureStdout();
  trace::fail("mtrack_alloc");
  EXPECT_EQ(data("red", "239.7.0.0/24"), "-1: ");
  EXPECT_NE(testing::internal::GetCapturedStdout().find("Warning! Malloc Failure in "), std::string::npos);
  EXPECT_EQ(ranges(red), Texts{});
}

TEST_F(Config, AChangedMtuReachesTheTunnelOnlyWhileItIsUp) {
  start();
  mvpn_cibtype *red = bring_up("red", 2, "239.1.1.1");
  ref::clear_oim_requests();
  EXPECT_EQ(run("mdt_mtu_cmd", "red", {{"<mtu-value>", "1376"}}), "0: ");
  EXPECT_TRUE(ref::oim_requests().empty());
  EXPECT_EQ(run("mdt_mtu_cmd", "red", {{"<mtu-value>", "1400"}}), "0: ");
  ASSERT_EQ(ref::oim_requests().size(), 1u);
  EXPECT_EQ(ref::oim_requests()[0].operation, "modify");
  ASSERT_EQ(ref::oim_requests()[0].params.size(), 1u);
  EXPECT_EQ(ref::oim_requests()[0].params[0].second, (std::vector<uint8_t>{0, 0, 0x05, 0x78}));
  EXPECT_EQ(red->mti_pim_if->mtu, 1400u);
  red->mti_status = MVPN_MTI_DOWN;
  EXPECT_EQ(run("mdt_mtu_cmd", "red", {}, true), "0: ");
  EXPECT_EQ(red->mdt_mtu, 1376u);
  EXPECT_EQ(ref::oim_requests().size(), 1u);
  red->mti_status = MVPN_MTI_UP;
}

// Hello and join/prune intervals reach the PIM interface in six of the ten statuses.
TEST_F(Config, IntervalsReachTheInterfaceWhileItExists) {
  start();
  mvpn_cibtype *red = bring_up("red", 2, "239.1.1.1");
  pim_iftype *mti = red->mti_pim_if;
  // No tunnel yet, one that never ran PIM, none any more.
  const std::set<uint32_t> without = {MVPN_MTI_NONE, MVPN_MTI_CREATE_PENDING, MVPN_MTI_CREATED, MVPN_MTI_DELETED};
  uint32_t seconds = 1;
  for (uint32_t status = MVPN_MTI_NONE; status <= MVPN_MTI_UP; status++) {
    SCOPED_TRACE(mvpn_mti_status_str[status]);
    const bool exists = without.count(status) == 0;
    red->mti_status = static_cast<mvpn_mti_status_t>(status);
    seconds++;
    mti->hello_interval = 0;
    mti->jp_interval = mti->configured_jp_interval = 0;
    command("mdt_pim_hello_interval_cmd", "red", {{"<interval>", std::to_string(seconds * 1000)}});
    EXPECT_EQ(mti->hello_interval, exists ? seconds * 1000 : 0);
    command("mdt_pim_jp_interval_cmd", "red", {{"<interval>", std::to_string(seconds * 60)}});
    EXPECT_EQ(mti->jp_interval, exists ? seconds * 60 : 0);
    EXPECT_EQ(mti->configured_jp_interval, exists ? seconds * 60 : 0);
  }
  // Neighbours hear of a new interval at once, while there are any.
  ref::settle();
  for (const auto status : {MVPN_MTI_UP_PENDING, MVPN_MTI_UP}) {
    red->mti_status = status;
    const uint64_t sent = ref::pim_counters().hellos_sent;
    run("mdt_pim_hello_interval_cmd", "red", {{"<interval>", std::to_string(20000 + 1000 * status)}});
    EXPECT_EQ(ref::pim_counters().hellos_sent, sent + (status == MVPN_MTI_UP ? 1 : 0));
  }
  EXPECT_EQ(run("mdt_pim_jp_interval_cmd", "red", {{"<interval>", "90"}}),
            "-500: Join Prune interval should be in multiple of 60 sec\n");
  EXPECT_EQ(run("mdt_pim_jp_interval_cmd", "red", {{"<interval>", "0"}}), "0: ");
  EXPECT_EQ(run("mdt_pim_jp_interval_cmd", "red", {}, true), "0: ");
  EXPECT_EQ(red->pim_jp_interval, 60u);
  EXPECT_EQ(run("mdt_pim_hello_interval_cmd", "red", {{"<interval>", "1500"}}),
            "0: Hello interval rounded up to 2 seconds\n");
  const uint64_t hellos = ref::pim_counters().hellos_sent;
  EXPECT_EQ(run("mdt_pim_hello_interval_cmd", "red", {{"<interval>", "20000"}}), "0: ");
  ref::advance(std::chrono::milliseconds(1));
  EXPECT_GT(ref::pim_counters().hellos_sent, hellos) << "neighbours learn the new interval at once";
  EXPECT_EQ(run("mdt_pim_hello_interval_cmd", "red", {}, true), "0: ");
  EXPECT_EQ(red->pim_hello_interval, 30000u);
}

TEST_F(Config, EnforcementAndSharedTreesDependOnEachOther) {
  start();
  mvpn_cibtype *red = bring_up("red", 2, "239.1.1.1");
  EXPECT_EQ(run("mdt_asm_use_shared_tree_cmd", "red"), "0: ");
  EXPECT_EQ(red->mti_status, MVPN_MTI_UP) << "the tunnel came back under the new mode";
  ASSERT_EQ(ref::mrib_routes().size(), 1u);
  EXPECT_EQ(ref::mrib_routes()[0].addrs.source, 0u);
  EXPECT_EQ(run("mdt_enforce_bgp_mdt_safi_cmd", "red", {}, true),
            "-500: Must remove config of 'mdt asm-use-shared-tree'\n");
  EXPECT_EQ(run("mdt_asm_use_shared_tree_cmd", "red", {}, true), "0: ");
  EXPECT_EQ(ref::mrib_routes()[0].addrs.source, addr("10.0.0.1"));
  EXPECT_EQ(run("mdt_enforce_bgp_mdt_safi_cmd", "red", {}, true), "0: ");
  EXPECT_EQ(run("mdt_asm_use_shared_tree_cmd", "red"), "-500: Must configure 'mdt enforce-bgp-mdt-safi'\n");
  EXPECT_NE(mvpn_mdt_mroute_lookup(red, 0, addr("239.1.1.1")), nullptr) << "this PE's own route is shared now";

  // Enforcing again deletes the shared route before the flag is set, and writes its entry after.
  ref::clear_mrib_updates();
  ASSERT_EQ(command("mdt_enforce_bgp_mdt_safi_cmd", "red"), 0);
  EXPECT_EQ(red->enforce_bgp_mdt_safi, 1);
  ref::settle();
  EXPECT_EQ(mvpn_mdt_mroute_lookup(red, 0, addr("239.1.1.1")), nullptr);
  ASSERT_FALSE(ref::mrib_updates().empty());
  EXPECT_EQ(ref::mrib_updates()[0].entries[MRIB_ENTRY_LAST_HOP], 0);

  ref::clear_oim_requests();
  EXPECT_EQ(command("mdt_asm_use_shared_tree_cmd", "red", {}, false, false), 0);
  EXPECT_TRUE(ref::oim_requests().empty()) << "a replayed command leaves the tunnel alone";
  command("mdt_asm_use_shared_tree_cmd", "red", {}, true, false);
}

// In each mode: a VRF that came up without enforcement has, once it enforces, the routes of one that came up with it.
TEST_F(Config, EnforcementOnAVrfThatIsUpInstallsWhatABringUpInstalls) {
  const auto routes = [] {
    std::set<std::pair<ip_addr_t, ip_addr_t>> out;
    for (const ref::MribRoute &route : ref::mrib_routes()) out.insert({route.addrs.source, route.addrs.group});
    return out;
  };
  start();
  add_vrf("red", 2);
  ref::add_ssm_range(addr("239.2.0.0"), 16);
  ref::add_bidir_range(addr("239.3.0.0"), 16);
  for (const char *group : {"239.1.1.1", "239.2.1.1", "239.3.1.1"}) {
    SCOPED_TRACE(group);
    remote_update({{addr("10.0.0.9"), {0, 0, 0, 1, 0, 0, 0, 9}, addr(group), {}}}, true);
    command("mdt_default_cmd", "red", {{"<mdt-default>", group}}, false, false);
    command("mdt_enforce_bgp_mdt_safi_cmd", "red", {}, true);
    mvpn_cli_vrf_done(pim_get_cib_by_context_name("red"));
    ref::settle();
    ASSERT_EQ(context("red")->mti_status, MVPN_MTI_UP);
    command("mdt_enforce_bgp_mdt_safi_cmd", "red");
    ref::settle();
    const auto enforced = routes();
    mvpn_default_tunnel_down(context("red"), 0);
    ref::settle();
    ASSERT_EQ(context("red")->mti_status, MVPN_MTI_UP);
    EXPECT_EQ(enforced, routes());
    EXPECT_FALSE(enforced.empty());
    command("mdt_default_cmd", "red", {}, true);
    ref::settle();
    remote_update({{addr("10.0.0.9"), {0, 0, 0, 1, 0, 0, 0, 9}, addr(group), {}}}, false);
  }
}

TEST_F(Config, ReplayedCommandsOnlyRecord) {
  start();
  ref::create_interface("loopback1", VRF_CONTEXT_ID_DEFAULT, addr("10.0.0.2"), true);
  add_vrf("red", 2);
  EXPECT_EQ(run("mdt_default_cmd", "red", {{"<mdt-default>", "239.1.1.1"}}, false, false), "0: ");
  EXPECT_EQ(run("mdt_source_cmd", "red", {{"<interface>", "loopback1"}}, false, false), "0: ");
  mvpn_cibtype *red = context("red");
  EXPECT_EQ(red->mti_status, MVPN_MTI_NONE);
  EXPECT_EQ(red->mdt_source_addr, addr("10.0.0.2"));
  EXPECT_TRUE(ref::oim_requests().empty());
  mvpn_cli_vrf_done(red->pcib);
  ref::settle();
  EXPECT_EQ(red->mti_status, MVPN_MTI_UP);
  EXPECT_EQ(ref::find_tunnel(red->mti_ifindex)->source, addr("10.0.0.2"));
}

// The context that 'mdt default' makes has the VRF's other stored commands handled after the handler has returned.
TEST_F(Config, StoredCommandsAreReplayedBehindTheRunningHandler) {
  start();
  ref::create_interface("loopback1", VRF_CONTEXT_ID_DEFAULT, addr("10.0.0.2"), true);
  add_vrf("red", 2);
  bool inside = false;
  int replays = 0;
  ref::set_cli_replay([&](const std::string &vrf) {
    EXPECT_FALSE(inside);
    EXPECT_EQ(vrf, "red");
    replays++;
    command("mdt_source_cmd", vrf, {{"<interface>", "loopback1"}}, false, false);
    command("mdt_default_cmd", vrf, {{"<mdt-default>", "239.1.1.1"}}, false, false);
  });
  inside = true;
  EXPECT_EQ(command("mdt_default_cmd", "red", {{"<mdt-default>", "239.1.1.1"}}), 0);
  inside = false;
  EXPECT_EQ(context("red")->mti_status, MVPN_MTI_CREATE_PENDING);
  ref::settle();
  EXPECT_EQ(replays, 1);
  EXPECT_EQ(context("red")->mdt_source_addr, addr("10.0.0.2"));
  ref::set_cli_replay(nullptr);
}

TEST_F(Config, TheEndOfTheReplayDoesWhatWasPutOff) {
  start();
  for (const char *vrf : {"b", "a"}) {
    add_vrf(vrf, static_cast<vrf_context_id_t>(vrf[0]));
    command("mdt_default_cmd", vrf, {{"<mdt-default>", std::string("239.1.1.") + std::to_string(vrf[0])}}, false,
            false);
  }
  trace::start();
  pim_cli_requests_sent_count = 2;
  pim_cli_done_recv_count = 1;
  mvpn_cli_done();
  EXPECT_EQ(mvpn_is_cli_done, 0u) << "a notice is outstanding";
  EXPECT_TRUE(ref::oim_requests().empty());
  pim_cli_done_recv_count = 2;
  mvpn_cli_done();
  EXPECT_EQ(mvpn_is_cli_done, 1u);
  EXPECT_EQ(trace::calls_of({"bgp_get_rd", "mts_send", "mrib_trigger_join_notify", "active_timer_start"}),
            (Texts{"bgp_get_rd(a)", "bgp_get_rd(b)", "mts_send(43011,58)", "mrib_trigger_join_notify()"}));
  ref::settle();
  EXPECT_EQ(context("a")->mti_status, MVPN_MTI_UP);
  EXPECT_EQ(context("b")->mti_status, MVPN_MTI_UP);
}

}  // namespace
