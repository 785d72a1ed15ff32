// Each step settles before it returns, and may be run twice in a row. VRFs: red is ASM and has data MDTs, blue is SSM,
// green is bidirectional, white comes and goes.
#include "tests/faults/story.h"

#include <chrono>

#include "platform/l3vm.h"
#include "platform/reference/bgp.h"
#include "platform/reference/croute.h"
#include "platform/reference/im.h"
#include "platform/reference/testing/runtime.h"
#include "platform/reference/testing/services.h"
#include "tests/support/module_test.h"

namespace faults {
namespace {

using namespace std::chrono_literals;

using Words = World::Words;

Words range(const char *prefix, const char *threshold = "1") {
  return {"<prefix>", prefix, "threshold", "", "<value>", threshold};
}
Words immediate_range(const char *prefix) {
  return {"<prefix>", prefix, "threshold", "", "<value>", "0", "immediate-switch", ""};
}
Words range_for_policy(const char *prefix) { return {"<prefix>", prefix, "route-map", "", "<policy-name>", "flows"}; }

// Sets a platform object and lets the module hear of it.
template <typename Change>
std::function<void(World &)> changes(Change change) {
  return [change](World &) {
    change();
    ref::settle();
  };
}

void rd_of_red(const char *text) { ref::bgp_set_rd("red", rd(text).data(), true); }

std::vector<Step> beginning() {
  return {
      {"start",
       [](World &w) {
         if (mvpn_functionality_status == MVPN_FUNCTIONALITY_DOWN) w.start();
       }},
      {"red",
       [](World &w) {
         w.configure("red", "mdt_default_cmd", {"<mdt-default>", "239.1.1.1"});
       }},
      {"blue",
       [](World &w) {
         w.configure("blue", "mdt_default_cmd", {"<mdt-default>", "232.1.1.2"});
       }},
      {"green",
       [](World &w) {
         w.configure("green", "mdt_default_cmd", {"<mdt-default>", "239.128.1.3"});
       }},
      {"ranges",
       [](World &w) {
         w.configure("red", "mdt_data_cmd", range("239.2.1.0/24"));
         w.configure("blue", "mdt_data_cmd", immediate_range("239.2.2.0/24"));
         w.configure("red", "mdt_data_cmd", range_for_policy("239.2.3.0/24"));
       }},
      {"settings",
       [](World &w) {
         w.configure("red", "mdt_mtu_cmd", {"<mtu-value>", "1400"});
         w.configure("red", "mdt_pim_hello_interval_cmd", {"<interval>", "10000"});
         w.configure("red", "mdt_pim_jp_interval_cmd", {"<interval>", "120"});
         w.configure("green", "mdt_data_bidir_enable_cmd", {});
       }},
      {"remote PEs",
       [](World &w) {
         w.remote_pe("10.0.0.9", "65000:2", "239.1.1.1");
         w.remote_pe("10.0.0.8", "65000:2", "239.1.1.1");
         w.remote_pe("10.0.0.9", "65000:3", "232.1.1.2");
         w.remote_pe("10.0.0.9", "65000:4", "239.128.1.3");
       }},
  };
}

std::vector<Step> traffic() {
  return {
      {"flows",
       [](World &w) {
         w.flow("red", "172.16.9.1", "225.0.0.1", 1000);
         w.flow("red", "172.16.9.2", "225.0.0.2", 1000);
         w.flow("red", "172.16.9.3", "225.0.0.3", 0);
         w.flow("blue", "172.16.9.1", "225.0.0.1", 1000);
         w.flow("green", "*", "225.0.0.4", 1000, true);
       }},
      {"rate check", [](World &w) { w.minute(); }},
      {"receivers",
       [](World &w) {
         w.receiver("red", "172.16.7.1", "225.0.1.1");
         w.receiver("red", "*", "225.0.1.2");
         w.receiver("blue", "172.16.7.1", "225.0.1.1");
       }},
      {"announcements",
       [](World &w) {
         w.announcement("239.1.1.1", "172.16.7.1", "225.0.1.1", "239.7.0.1");
         w.announcement("239.1.1.1", "*", "225.0.1.2", "239.7.0.2");
         w.announcement("232.1.1.2", "172.16.7.1", "225.0.1.1", "232.7.0.1");
         w.announcement("239.1.1.1", "172.16.7.9", "225.0.1.9", "239.7.0.9");
       }},
      {"views", [](World &w) { w.look_at_everything(); }},
      {"another data group", [](World &w) { w.announcement("239.1.1.1", "172.16.7.1", "225.0.1.1", "239.7.0.3"); }},
      {"low rate",
       [](World &w) {
         ref::set_customer_rate("red", route_addrs("172.16.9.1", "225.0.0.1"), 0);
         w.minute();
         w.minute();
       }},
      {"high rate again",
       [](World &w) {
         ref::set_customer_rate("red", route_addrs("172.16.9.1", "225.0.0.1"), 1000);
         w.minute();
       }},
      {"a flow ends", [](World &w) { w.no_route("red", "172.16.9.2", "225.0.0.2"); }},
      {"receivers end",
       [](World &w) {
         w.no_route("red", "172.16.7.1", "225.0.1.1");
         w.no_route("blue", "172.16.7.1", "225.0.1.1");
       }},
      {"receivers again",
       [](World &w) {
         w.receiver("red", "172.16.7.1", "225.0.1.1");
         w.receiver("blue", "172.16.7.1", "225.0.1.1");
         w.minute();
       }},
      {"announcements age",
       [](World &w) {
         w.no_announcements();
         for (int i = 0; i < 5; i++) w.minute();
       }},
      {"announcements again", [](World &w) { w.announcement("239.1.1.1", "172.16.7.1", "225.0.1.1", "239.7.0.1"); }},
  };
}

std::vector<Step> core_changes() {
  return {
      {"a remote PE leaves", [](World &w) { w.no_remote_pe("10.0.0.8", "65000:2", "239.1.1.1"); }},
      {"new RD", changes([] { rd_of_red("65000:22"); })},
      {"no RD", changes([] { ref::bgp_set_rd("red", nullptr, true); })},
      {"RD back", changes([] { rd_of_red("65000:2"); })},
      {"BGP asks", changes([] { ref::bgp_request_local(); })},
      {"source address", changes([] { ref::set_interface_address("loopback0", addr("10.0.0.101")); })},
      {"source address back", changes([] { ref::set_interface_address("loopback0", addr("10.0.0.1")); })},
      {"update source", changes([] { ref::bgp_set_update_source("loopback1", true); })},
      {"update source back", changes([] { ref::bgp_set_update_source("loopback0", true); })},
      {"own source",
       [](World &w) {
         w.configure("blue", "mdt_source_cmd", {"<interface>", "loopback1"});
       }},
      {"no own source", [](World &w) { w.unconfigure("blue", "mdt_source_cmd", {}); }},
      {"rates after it", [](World &w) { w.minute(); }},
      {"source down", changes([] { ref::set_interface_state("loopback0", false); })},
      {"source up", changes([] { ref::set_interface_state("loopback0", true); })},
      {"rates once more", [](World &w) { w.minute(); }},
      {"MRIB clears", changes([] {
         ref::mrib_notify_clear(VRF_CONTEXT_ID_DEFAULT, route_addrs("10.0.0.9", "239.1.1.1"), true, false);
         ref::mrib_notify_delete(VRF_CONTEXT_ID_DEFAULT, route_addrs("10.0.0.9", "232.1.1.2"));
         ref::mrib_notify_join(VRF_CONTEXT_ID_DEFAULT, route_addrs("10.0.0.9", "232.1.1.2"));
       })},
      {"MRIB asks", changes([] { ref::mrib_request_repopulate(2, nullptr, 0); })},
  };
}

std::vector<Step> configuration_changes() {
  return {
      {"MTU",
       [](World &w) {
         w.configure("red", "mdt_mtu_cmd", {"<mtu-value>", "1300"});
       }},
      {"a range changes", [](World &w) { w.configure("red", "mdt_data_cmd", range("239.2.1.0/24", "5")); }},
      {"a range loses its policy", [](World &w) { w.configure("red", "mdt_data_cmd", range("239.2.3.0/24", "2")); }},
      {"rates with it", [](World &w) { w.minute(); }},
      {"a range goes",
       [](World &w) {
         w.unconfigure("red", "mdt_data_cmd", {"<prefix>", "239.2.1.0/24"});
         w.minute();
       }},
      {"shared trees",
       [](World &w) {
         w.configure("red", "mdt_asm_use_shared_tree_cmd", {});
         w.bounce();
       }},
      {"no shared trees",
       [](World &w) {
         w.unconfigure("red", "mdt_asm_use_shared_tree_cmd", {});
         w.bounce();
       }},
      {"white",
       [](World &w) {
         w.configure("white", "mdt_default_cmd", {"<mdt-default>", "239.1.1.4"});
       }},
      {"no white", [](World &w) { w.unconfigure("white", "mdt_default_cmd", {}); }},
      {"VRF down", changes([] { ref::set_vrf_state("blue", L3VM_STATE_UP + 1); })},
      {"VRF up", changes([] { ref::set_vrf_state("blue", L3VM_STATE_UP); })},
      {"no blue", [](World &w) { w.unconfigure("blue", "mdt_default_cmd", {}); }},
      {"blue again",
       [](World &w) {
         w.configure("blue", "mdt_default_cmd", {"<mdt-default>", "232.1.1.2"});
       }},
  };
}

std::vector<Step> ends() {
  return {
      {"restart in place", [](World &w) { w.restart_in_place(); }},
      {"rates after the restart", [](World &w) { w.minute(); }},
      {"crash", [](World &w) { w.crash(); }},
      {"recovery",
       [](World &w) {
         for (int i = 0; i < 5; i++) w.minute();
       }},
      {"restart", [](World &w) { w.restart(); }},
      {"rates at the end", [](World &w) { w.minute(); }},
  };
}

}  // namespace

const std::vector<Step> &story() {
  static const std::vector<Step> steps = [] {
    std::vector<Step> all;
    for (const auto &part : {beginning(), traffic(), core_changes(), configuration_changes(), ends()})
      all.insert(all.end(), part.begin(), part.end());
    return all;
  }();
  return steps;
}

}  // namespace faults
