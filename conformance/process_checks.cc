// The host process: its contexts, interfaces and routes, its command line and its diagnostics.
#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "conformance/runner.h"

using namespace conformance;

namespace {

constexpr vrf_context_id_t red = 7, blue = 300;

void add_vrfs() {
  REQUIRE(driver.add_vrf("red", red, 70, nullptr) != 0);
  REQUIRE(driver.add_vrf("blue", blue, 71, nullptr) != 0);
}

std::vector<std::string> walk_by_name() {
  std::vector<std::string> names;
  pim_cib_iterator iterator;
  for (pim_cibtype *pcib = platform.pim_get_first_cib_by_name(&iterator); pcib != nullptr && names.size() < 99;
       pcib = platform.pim_get_next_cib_by_name(&iterator))
    names.push_back(pcib->vrf_name);
  return names;
}

}  // namespace

CHECK(pim, "the process's queues, handles and contexts are set") {
  EXPECT(*platform.pim_mts_q != nullptr);
  EXPECT(*platform.pim_mrib_mts_q != nullptr);
  EXPECT(*platform.pim_mpib != nullptr);
  EXPECT(*platform.pim_ha_handle != nullptr);
  EXPECT(*platform.pim_shm_wrlock != nullptr);
  EXPECT(*platform.pim_mtu >= 576);
  REQUIRE(*platform.pim_default_cib != nullptr);
  EXPECT_EQUAL((*platform.pim_default_cib)->context_id, vrf_context_id_t{VRF_CONTEXT_ID_DEFAULT});
  EXPECT(platform.pim_check_feature_configured("mvpn") != 0);
  EXPECT(*platform.pim_mvpn_feature_configured != 0);
  EXPECT(platform.pim_check_feature_configured("no-such-feature") == 0);
}

CHECK(pim, "contexts are found by name and by id, and walked in both orders") {
  add_vrfs();
  pim_cibtype *found = platform.pim_get_cib_by_context_name("red");
  REQUIRE(found != nullptr);
  EXPECT(platform.pim_get_cib_by_context_id(red) == found);
  EXPECT_EQUAL(found->context_id, red);
  EXPECT_EQUAL(found->table_id, 70u);
  EXPECT(found->mvpn == nullptr);
  EXPECT(platform.pim_is_pcib_usable(found) != 0);
  EXPECT(platform.pim_get_cib_by_context_name("green") == nullptr);
  EXPECT(platform.pim_get_cib_by_context_id(999) == nullptr);
  const std::vector<std::string> names = walk_by_name();
  EXPECT(std::is_sorted(names.begin(), names.end()));
  EXPECT_EQUAL(names.size(), size_t{3});

  vrf_context_id_t last = 0;
  size_t count = 0;
  ravl_iterator walk;
  platform.ravl_init_iterator(&walk, &*platform.pim_contexts_by_context_id);
  for (void *at = platform.ravl_get_first_user_data(&walk); at != nullptr;
       at = platform.ravl_get_next_user_data(&walk)) {
    const auto *pcib = static_cast<const pim_cibtype *>(at);
    EXPECT(pcib->context_id > last);  // by number, not by bytes
    last = pcib->context_id;
    count++;
  }
  EXPECT_EQUAL(count, names.size());
  EXPECT_EQUAL(platform.pim_contexts_by_name.operator*().count, names.size());
}

CHECK(pim, "a context can be made for a VRF that the VRF manager does not know") {
  pim_cibtype *made = platform.pim_create_context("early");
  REQUIRE(made != nullptr);
  EXPECT_EQUAL(std::string(made->vrf_name), "early");
  EXPECT(platform.pim_get_cib_by_context_name("early") == made);
}

CHECK(pim, "PIM is switched on and off on an interface, whose record stays") {
  add_vrfs();
  REQUIRE(driver.add_interface("contract0", red, 0x0A000001, 1) != 0);
  const im_iod_t iod = platform.im_get_if_by_name("contract0");
  pim_cibtype *pcib = platform.pim_get_cib_by_context_name("red");
  EXPECT(platform.pim_is_enabled(iod) == 0);
  EXPECT(platform.pim_enable(0, pcib, iod, 0) != 0);
  EXPECT(platform.pim_is_enabled(iod) != 0);
  pim_iftype *interface = platform.pim_get_iftype(iod);
  REQUIRE(interface != nullptr);
  EXPECT(interface->pcib == pcib);
  EXPECT_EQUAL(interface->iod, iod);
  EXPECT_EQUAL(int{interface->pim_enabled}, 1);
  EXPECT_EQUAL(interface->local_addr, 0x0A000001u);
  EXPECT(platform.pim_snmp_get_ifindex(interface->if_index, 0) == interface);
  EXPECT(platform.pim_get_next_interface(pcib, nullptr) == interface);
  EXPECT(platform.pim_get_next_interface(pcib, interface) == nullptr);
  platform.pim_send_periodic_hello(interface);
  platform.pim_delete_oif_from_all_routes(pcib, iod, 0);
  platform.pim_setup_encap_for_pending_routes(pcib);
  EXPECT(platform.pim_disable(0, pcib, interface, iod, 1, 0, 0) != 0);
  EXPECT(platform.pim_is_enabled(iod) == 0);
  EXPECT(platform.pim_get_iftype(65000) == nullptr);
}

CHECK(pim, "a hold time outlasts its hello interval") {
  for (const uint32_t interval : {1000u, 30000u, 65535u, 1001u}) {
    int adjusted = -1;
    EXPECT(platform.pim_calculate_holdtime(interval, &adjusted) * 1000 > interval);
    EXPECT(adjusted == 0 || adjusted == 1);
  }
}

CHECK(pim, "a group has one mode at most") {
  add_vrfs();
  for (const ip_addr_t group : {0xE8010101u, 0xEF010101u, 0xE1010101u})
    EXPECT(platform.pim_is_ssm_group(red, group) == 0 || platform.pim_is_bidir_group(red, group) == 0);
}

CHECK(pim, "customer routes stand in their tree under keys that give their address back") {
  add_vrfs();
  mvpn_mdt_route_addrs sg{}, star_g{};
  sg.source = 0x0A010101;
  sg.group = star_g.group = 0xEF010101;
  sg.source_len = sg.group_len = star_g.group_len = MROUTE_HOST_LEN;
  star_g.source_len = MROUTE_ANY_SOURCE_LEN;
  REQUIRE(driver.add_customer_route("red", &sg, 123456) != 0);
  REQUIRE(driver.add_customer_route("red", &star_g, 0) != 0);
  pim_cibtype *pcib = platform.pim_get_cib_by_context_name("red");
  pim_route *route = platform.pim_get_route_from_pt(pcib, &sg);
  REQUIRE(route != nullptr);
  EXPECT(std::memcmp(&route->addrs, &sg, sizeof sg) == 0);
  EXPECT_EQUAL(platform.pim_data_bytes_in_last_minute(route), uint64_t{123456});
  size_t count = 0;
  for (pt_node *node = platform.pt_get_first_node(pcib->route_tree, nullptr, 0); node != nullptr;
       node = platform.pt_get_next_node(pcib->route_tree, platform.pt_node_key(node), 0)) {
    mvpn_mdt_route_addrs addrs{};
    platform.pim_get_addrs_from_pt_key(platform.pt_node_key(node), &addrs);
    const auto *at = static_cast<const pim_route *>(platform.pt_node_data(node));
    const bool any_source = at->addrs.source_len == MROUTE_ANY_SOURCE_LEN;
    EXPECT_EQUAL(int{addrs.source_len}, any_source ? 0 : int{at->addrs.source_len});
    EXPECT(addrs.source == at->addrs.source && addrs.group == at->addrs.group);
    count++;
  }
  EXPECT_EQUAL(count, size_t{2});
  platform.pim_add_route(pcib, route, 0, 0, 0, 0, 0, 0);
  EXPECT(platform.pim_get_route_from_pt(pcib, &sg) == route);
  sg.source++;
  EXPECT(platform.pim_get_route_from_pt(pcib, &sg) == nullptr);
  EXPECT_EQUAL(platform.pim_get_df_winner(0x0A0000FF, 65000), 0u);
}

// -------------------------------------------------------------------------------------------------------- command line

namespace {

std::function<int(cli_command *)> handler_body;
int handler(cli_command *command) { return handler_body(command); }

struct Outcome {
  bool found = false;
  int result = 0;
  std::string text;
};

// Runs the handler with one argument, <x>.
Outcome command(const char *value, bool no_form, std::function<int(cli_command *)> body,
                const char *name_of_handler = "contract_cmd") {
  handler_body = std::move(body);
  EXPECT(platform.cli_register_cmd("contract_cmd", handler, 0) == 0);
  Outcome outcome;
  const char *const name = "<x>";
  std::array<char, 1000> text{};
  outcome.found = driver.command(name_of_handler, "red", no_form ? 1 : 0, 1, &name, &value, text.data(), text.size(),
                                 &outcome.result) != 0;
  outcome.text = text.data();
  return outcome;
}

}  // namespace

CHECK(cli, "a handler is found by its name, the later one of two, and its result comes back") {
  add_vrfs();
  EXPECT(platform.cli_register_cmd(
             "contract_cmd", [](cli_command *) { return -1; }, 0) == 0);
  const Outcome outcome = command("1", true, [](cli_command *command) {
    EXPECT(platform.cli_noed(command) != 0);
    EXPECT(platform.cli_is_interactive(command) != 0);
    EXPECT(platform.cli_is_getnext(command) == 0);
    EXPECT(platform.cli_more_output(command) != 0);
    EXPECT(platform.pim_get_cib_from_cli(command, 0) == platform.pim_get_cib_by_context_name("red"));
    platform.cli_cmd_printf(command, "%s %u", "text", 7u);
    platform.cli_tty_printf(command, "%c", '!');
    platform.cli_new_printf(command, "%-4s|%5d\n", "ab", -3, CLI_ELEMENT_NONE, CLI_ELEMENT_NONE);
    return CLI_RESULT_REJECTED;
  });
  EXPECT(outcome.found);
  EXPECT_EQUAL(outcome.result, int{CLI_RESULT_REJECTED});
  EXPECT_EQUAL(outcome.text, "text 7!ab  |   -3\n");
  EXPECT(!command(
              "1", false, [](cli_command *) { return 0; }, "unknown_cmd")
              .found);
}

CHECK(cli, "an argument is read whole or not at all") {
  add_vrfs();
  struct Case {
    const char *text;
    bool uinteger, integer, address, prefix;
  };
  const Case cases[] = {
      {"0", true, true, false, false},
      {"4294967295", true, false, false, false},
      {"4294967296", false, false, false, false},
      {"-2147483648", false, true, false, false},
      {"-2147483649", false, false, false, false},
      {"12x", false, false, false, false},
      {" 12", false, false, false, false},
      {"", false, false, false, false},
      {"239.1.1.1", false, false, true, false},
      {"239.1.1.256", false, false, false, false},
      {"239.1.1", false, false, false, false},
      {"239.1.1.1.1", false, false, false, false},
      {"239.1..1", false, false, false, false},
      {"0239.1.1.1", false, false, false, false},
      {"239.1.0.0/16", false, false, false, true},
      {"0.0.0.0/0", false, false, false, true},
      {"239.1.0.0/33", false, false, false, false},
      {"239.1.0.0/", false, false, false, false},
      {"239.1.0.0/-1", false, false, false, false},
  };
  for (const Case &c : cases)
    command(c.text, false, [&c](cli_command *command) {
      uint32_t number = 99, length = 99;
      int32_t integer = 99;
      ip_addr_t addr = 99, prefix = 99;
      const char *text = nullptr;
      EXPECT((platform.cli_get_uinteger(command, "<x>", &number) != 0) == c.uinteger);
      EXPECT((platform.cli_get_integer(command, "<x>", &integer) != 0) == c.integer);
      EXPECT((platform.cli_get_ipaddr(command, "<x>", &addr) != 0) == c.address);
      EXPECT((platform.cli_get_ipprefix(command, "<x>", &prefix, &length) != 0) == c.prefix);
      EXPECT((number == 99) == !c.uinteger && (integer == 99) == !c.integer && (addr == 99) == !c.address);
      EXPECT((prefix == 99 && length == 99) == !c.prefix);
      EXPECT(platform.cli_get_string(command, "<x>", &text) != 0 && text != nullptr && std::strcmp(text, c.text) == 0);
      EXPECT(platform.cli_is_set(command, "<x>") != 0);
      EXPECT(platform.cli_is_set(command, "<y>") == 0);
      EXPECT(platform.cli_get_uinteger(command, "<y>", &number) == 0);
      EXPECT(platform.cli_get_string(command, "<y>", &text) == 0 && std::strcmp(text, c.text) == 0);
      return 0;
    });
}

// --------------------------------------------------------------------------------------------------------- diagnostics

namespace {

void look_at(const syslog_descriptor &report) {
  EXPECT(report.name != nullptr && std::strlen(report.name) > 0);
  EXPECT(report.text != nullptr);
  EXPECT(report.severity <= 7);
}

template <typename Other>
void look_at(const Other &) {}

}  // namespace

CHECK(diag, "error reports have a name, a text and a severity") {
#define FUNCTION(component, name)
#define DATUM(component, name) look_at(*platform.name);
#include "conformance/services.def"
#undef FUNCTION
#undef DATUM
}

CHECK(diag, "reports, events and debug output can be written, long ones too") {
  const char *const arguments[] = {"first", "second"};
  const syslog_descriptor *report = &*platform.msg_error_PIM_MALLOC;
  platform.syslog_msg_rate_limit(report, 2, arguments);
  EXPECT(platform.syslog_preamble() != nullptr);
  platform.zeph_lumo_syslog(report, platform.syslog_preamble(), 2, arguments);
  platform.syslog_traceback(report);
  const std::string text(1500, 'x');
  platform.syslog_log(6, "%s", text.c_str());
  platform.buginf("%s", text.c_str());
  platform.buginf_func("%s", text.c_str());
  platform.sdwrap_hist_event(SDWRAP_HISTORY_MVPN, SDWRAP_EVENT_MVPN, "%s", text.c_str());
  sdwrap_event event{SDWRAP_EVENT_MVPN, "an event"};
  platform.sdwrap_his_log_event_for_uuid_inst(SDWRAP_UUID_PIM, SDWRAP_HISTORY_MVPN, SDWRAP_HISTORY_BUFFER, 0, 8 + 5,
                                              &event);
  platform.sdwrap_hist_event_subtype_check(SDWRAP_HISTORY_MVPN, SDWRAP_EVENT_MVPN);
  platform.sdwrap_chk_int(SDWRAP_EVENT_MVPN, 0, 0, 1);
  EXPECT(platform.sdwrap_dbg_init_register_mts_q(*platform.pim_mts_q) == 0);
  EXPECT(platform.syserr2str(1) != nullptr);
  platform.tlvu_error_print("%s\n", text.c_str());
}
