// Requests to the tunnel manager and the handling of its responses and of interface events.
#include "platform/reference/oim.h"
#include "platform/im.h"
#include "platform/l3vm.h"
#include "platform/oim.h"
#include "platform/reference/diag.h"
#include "platform/reference/im.h"
#include "platform/reference/l3vm.h"
#include "platform/reference/pim.h"
#include "platform/reference/testing/runtime.h"
#include "platform/reference/testing/services.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_default_mdt_internal.h"
#include "routing/pim/mvpn/mvpn_oim_internal.h"
#include "tests/support/module_test.h"

namespace {

class Oim : public ModuleTest {
 protected:
  static std::vector<std::string> operations() {
    std::vector<std::string> out;
    for (const ref::OimRequest &request : ref::oim_requests()) out.push_back(request.operation);
    return out;
  }
  static std::string joined(const std::vector<std::string> &texts) {
    std::string all;
    for (const std::string &text : texts) all += (all.empty() ? "" : " ") + text;
    return all;
  }
};

using Operations = std::vector<std::string>;

// The bytes of a list with all parameters, for names of even and odd length.
TEST_F(Oim, InterfaceListsAreLaidOutByteByByte) {
  start();
  for (const std::string &name : {std::string("red"), std::string(VRF_NAME_MAX, 'n')}) {
    SCOPED_TRACE(name);
    add_vrf(name, static_cast<vrf_context_id_t>(name.size() + 10));
    mvpn_cibtype *mvpn = mvpn_create_context(nullptr, name.c_str());
    mvpn->mdt_source_addr = addr("10.0.0.1");
    mvpn_set_mdt_default_group(mvpn, addr("239.1.1.1"));
    ref::clear_oim_requests();
    if_index_t tunnel = 0;
    ASSERT_EQ(if_index_overlay_cli_init(&tunnel, IF_INDEX_OVERLAY_MVPN, 0x1234), 0);
    const uint32_t size = oim_if_info_list_get_size(1, 5, 33);
    std::vector<uint8_t> list(size);
    mvpn_oim_params params;
    params.admin = params.vrf_name = params.mtu = params.source = params.destination = true;
    ASSERT_EQ(mvpn_oim_populate_if_list(mvpn, list.data(), size, tunnel, params, 77), 1);
    oim_modify_if(list.data(), size);
    ASSERT_EQ(ref::oim_requests().size(), 1u);
    const ref::OimRequest &request = ref::oim_requests()[0];
    EXPECT_EQ(request.if_index, tunnel);
    EXPECT_EQ(request.iod, 77u);
    const std::vector<std::pair<uint16_t, std::vector<uint8_t>>> expected = {
        {1, {1}},
        {7, {name.begin(), name.end()}},
        {2, {0, 0, 5, 0x60}},
        {6, {0, 0, 0, 1, 10, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
        {5, {0, 0, 0, 1, 239, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}}};
    EXPECT_EQ(request.params, expected);
    mvpn_finish_destroy_default_mdt(mvpn);
  }
}

TEST_F(Oim, ListsThatCannotBeBuiltAreReportedAndNotSent) {
  start();
  mvpn_cibtype *red = bring_up("red", 2, "239.1.1.1");
  const struct {
    const char *function;
    unsigned nth;
    const char *report;
    std::vector<std::string> arguments;
  } cases[] = {
      {"oim_if_info_list_add_new_if", 1, "PIM_TUNNEL_ADD_FAIL", {"mvpn_oim_populate_if_list()", "red"}},
      {"oim_if_info_list_add_new_param_tlv", 1, "PIM_TUNNEL_ADD_TLV_FAIL", {"Admin State TLV", "red"}},
      {"oim_if_info_list_add_new_param_tlv", 2, "PIM_TUNNEL_ADD_TLV_FAIL", {"VRF Name TLV", "red"}},
      {"oim_if_info_list_add_new_param_tlv", 3, "PIM_TUNNEL_ADD_TLV_FAIL", {"MTU TLV", "red"}},
      {"oim_if_info_list_add_new_param_tlv", 4, "PIM_TUNNEL_ADD_TLV_FAIL", {"src addr TLV", "red"}},
      {"oim_if_info_list_add_new_param_tlv", 5, "PIM_TUNNEL_ADD_TLV_FAIL", {"dst addr TLV", "red"}},
  };
  ref::enable_interface_events(false);
  ref::set_interface_state(ref::find_interface(red->mti_iod)->name, false);
  for (const auto &c : cases) {
    SCOPED_TRACE(c.arguments[0]);
    red->mti_status = MVPN_MTI_DOWN;
    ref::clear_reports();
    ref::clear_oim_requests();
    trace::fail(c.function, c.nth);
    mvpn_oim_bringup_tunnel(red);
    EXPECT_TRUE(ref::oim_requests().empty());
    EXPECT_EQ(red->mti_status, MVPN_MTI_DOWN);
    ASSERT_EQ(ref::reports().size(), 1u);
    EXPECT_EQ(ref::reports()[0].name, c.report);
    EXPECT_EQ(ref::reports()[0].arguments, c.arguments);
    ref::advance(std::chrono::hours(1));
  }
}

TEST_F(Oim, CreateDependsOnRegistrationAndOnWhatExists) {
  start();
  add_vrf("red", 2);
  ref::set_oim_answers(false);
  mvpn_cibtype *red = mvpn_create_context(nullptr, "red");
  capture_debug();

  pim_oim_initialized = 0;
  mvpn_set_mti_ifindex(red, 5);
  mvpn_oim_tunnel_create(red);
  EXPECT_EQ(debug_count("Havent initialized with OIM yet"), 1u);
  EXPECT_EQ(red->mti_ifindex, 0u);
  EXPECT_EQ(red->mti_status, MVPN_MTI_NONE);
  pim_oim_initialized = 1;

  trace::fail("if_index_overlay_cli_init");
  mvpn_oim_tunnel_create(red);
  EXPECT_EQ(ref::reports().back().name, "PIM_TUNNEL_CREATE_FAIL");

  const uint32_t table = red->pcib->table_id;
  red->pcib->table_id = 0;
  mvpn_oim_tunnel_create(red);
  red->pcib->table_id = table;
  EXPECT_TRUE(ref::oim_requests().empty());

  ref::create_orphan_tunnel(table);
  mvpn_oim_tunnel_create(red);
  EXPECT_EQ(debug_count("Tunnel interface already exists"), 1u);
  EXPECT_EQ(red->mti_status, MVPN_MTI_CREATED) << "not ready, so no bring-up";
  EXPECT_NE(red->mti_ifindex, 0u);
  EXPECT_TRUE(ref::oim_requests().empty());
}

TEST_F(Oim, BringUpDependsOnTheInterface) {
  start();
  mvpn_cibtype *red = bring_up("red", 2, "239.1.1.1");
  const std::string tunnel = ref::find_interface(red->mti_iod)->name;
  ref::set_oim_answers(false);
  ref::enable_interface_events(false);
  ref::clear_oim_requests();

  red->mti_status = MVPN_MTI_DOWN;
  mvpn_oim_bringup_tunnel(red);
  EXPECT_EQ(operations(), Operations{}) << "up and ready: nothing is asked for";
  EXPECT_EQ(red->mti_status, MVPN_MTI_UP);

  red->bgp_rd_set = 0;
  mvpn_oim_bringup_tunnel(red);
  EXPECT_EQ(operations(), (Operations{"modify", "bringup"})) << "up, not ready";
  EXPECT_EQ(red->mti_status, MVPN_MTI_UP_PENDING);
  red->bgp_rd_set = 1;

  ref::set_interface_state(tunnel, false);
  ref::clear_oim_requests();
  mvpn_oim_bringup_tunnel(red);
  EXPECT_EQ(operations(), (Operations{"modify", "bringup"})) << "down";

  const if_index_t known = red->mti_ifindex;
  mvpn_set_mti_ifindex(red, 0x7777);
  ref::clear_oim_requests();
  mvpn_oim_bringup_tunnel(red);
  EXPECT_EQ(operations(), (Operations{"bringup"})) << "unknown interface";
  mvpn_set_mti_ifindex(red, known);

  testing::internal::CaptureStdout();
  trace::fail("mtrack_alloc");
  red->mti_status = MVPN_MTI_DOWN;
  ref::clear_oim_requests();
  mvpn_oim_bringup_tunnel(red);
  EXPECT_EQ(operations(), Operations{});
  EXPECT_EQ(red->mti_status, MVPN_MTI_DOWN);
  const std::string warning = testing::internal::GetCapturedStdout();
  EXPECT_EQ(warning.rfind("Warning! Malloc Failure in routing/pim/mvpn/mvpn_oim[", 0), 0u) << warning;
  red->mti_status = MVPN_MTI_UP;
  ref::set_oim_answers(true);
}

TEST_F(Oim, DeleteWithoutATunnelOnlySaysThatItBegins) {
  start();
  add_vrf("red", 2);
  mvpn_cibtype *red = mvpn_create_context(nullptr, "red");
  capture_debug();
  mvpn_oim_tunnel_delete(red);
  mvpn_oim_tunnel_update_mtu(red);
  mvpn_oim_tunnel_update_source(red);
  EXPECT_EQ(debug_texts(), std::vector<std::string>{"Initiating tunnel delete with OIM "});
  EXPECT_TRUE(ref::oim_requests().empty());
  EXPECT_EQ(red->mti_status, MVPN_MTI_NONE);
}

// What a response does, by status; `group` and `ready` say what the VRF is like, `up` whether its interface is up.
constexpr uint32_t kCreate = MTS_OPC_OIM_IF_CREATE_RESPONSE;
constexpr uint32_t kDelete = MTS_OPC_OIM_IF_DELETE_RESPONSE;
constexpr uint32_t kUpdate = MTS_OPC_OIM_IF_PARAM_UPDATE_RESPONSE;
struct ResponseCase {
  const char *what;
  uint32_t opcode;
  mvpn_mti_status_t before;
  bool group, ready, up;
  uint32_t result;
  mvpn_mti_status_t after;
  const char *requests;
  bool gone;
};
const ResponseCase kResponses[] = {
    {"create, ready", kCreate, MVPN_MTI_CREATE_PENDING, true, true, false, 0, MVPN_MTI_UP_PENDING, "modify bringup",
     false},
    {"create, interface up", kCreate, MVPN_MTI_CREATE_PENDING, true, true, true, 0, MVPN_MTI_UP, "", false},
    {"create again while up", kCreate, MVPN_MTI_UP, true, true, true, 0, MVPN_MTI_UP, "", false},
    {"create, not ready", kCreate, MVPN_MTI_CREATE_PENDING, true, false, false, 0, MVPN_MTI_CREATED, "", false},
    {"create, group gone", kCreate, MVPN_MTI_CREATE_PENDING, false, true, false, 0, MVPN_MTI_DELETE_PENDING, "delete",
     false},
    {"create refused", kCreate, MVPN_MTI_CREATE_PENDING, true, true, false, 5, MVPN_MTI_CREATE_PENDING, "", false},
    {"delete, ready again", kDelete, MVPN_MTI_DELETE_PENDING, true, true, false, 0, MVPN_MTI_UP_PENDING,
     "modify bringup", false},
    {"delete, not ready", kDelete, MVPN_MTI_DELETE_PENDING, true, false, false, 0, MVPN_MTI_DELETED, "", false},
    {"delete, group gone", kDelete, MVPN_MTI_DELETE_PENDING, false, true, false, 0, MVPN_MTI_NONE, "", true},
    {"delete refused", kDelete, MVPN_MTI_DELETE_PENDING, false, true, false, 9, MVPN_MTI_DELETE_PENDING, "", false},
    {"update, interface up", kUpdate, MVPN_MTI_UP_PENDING, true, true, true, 0, MVPN_MTI_UP, "", false},
    {"update, interface down", kUpdate, MVPN_MTI_UP_PENDING, true, true, false, 0, MVPN_MTI_UP_PENDING, "bringup",
     false},
    {"update, not ready", kUpdate, MVPN_MTI_UP_PENDING, true, false, true, 0, MVPN_MTI_UP_PENDING, "", false},
    {"update while deleting, group gone", kUpdate, MVPN_MTI_DELETE_PENDING, false, true, false, 0, MVPN_MTI_NONE, "",
     true},
    {"update while deleting, group back", kUpdate, MVPN_MTI_DELETE_PENDING, true, true, false, 0,
     MVPN_MTI_DELETE_PENDING, "", false},
    {"update while up", kUpdate, MVPN_MTI_UP, true, true, true, 0, MVPN_MTI_UP, "", false},
    {"update while created", kUpdate, MVPN_MTI_CREATED, true, true, false, 0, MVPN_MTI_CREATED, "", false},
};

TEST_F(Oim, ResponsesMoveTheStatus) {
  vrf_context_id_t id = 10;
  start();
  for (const ResponseCase &c : kResponses) {
    SCOPED_TRACE(c.what);
    const std::string name = "vrf" + std::to_string(++id);
    ref::set_oim_answers(true);
    ref::enable_interface_events(true);
    mvpn_cibtype *mvpn = bring_up(name, id, "239.1.1." + std::to_string(id));
    const if_index_t tunnel = mvpn->mti_ifindex;
    const im_iod_t iod = mvpn->mti_iod;
    ref::set_oim_answers(false);
    ref::enable_interface_events(false);
    if (!c.up) ref::set_interface_state(ref::find_interface(iod)->name, false);
    mvpn->mti_status = c.before;
    if (!c.group) mvpn_set_mdt_default_group(mvpn, 0);
    if (!c.ready) mvpn->bgp_rd_set = 0;
    ref::clear_oim_requests();
    oim_response(c.opcode, {{0x99999, 1, 0}, {tunnel, iod, c.result}});
    EXPECT_EQ(joined(operations()), c.requests);
    mvpn_cibtype *now = context(name);
    EXPECT_EQ(now == nullptr, c.gone);
    if (now != nullptr) {
      EXPECT_EQ(now->mti_status, c.after) << mvpn_mti_status_str[now->mti_status];
    }
    ref::set_feature_configured(true);
    if (now != nullptr) mvpn_finish_destroy_default_mdt(now);
    ref::delete_vrf(name);
  }
  ref::set_oim_answers(true);
}

TEST_F(Oim, ResponsesForNobodyChangeNothing) {
  start();
  add_vrf("red", 2);
  mvpn_cibtype *red = mvpn_create_context(nullptr, "red");
  for (const uint32_t opcode :
       {MTS_OPC_OIM_IF_CREATE_RESPONSE, MTS_OPC_OIM_IF_DELETE_RESPONSE, MTS_OPC_OIM_IF_PARAM_UPDATE_RESPONSE})
    oim_response(opcode, {{0, 0, 0}});
  EXPECT_EQ(red->mti_status, MVPN_MTI_NONE);
  EXPECT_EQ(context("red"), red);
  EXPECT_TRUE(ref::oim_requests().empty());
}

TEST_F(Oim, TwoDeleteAnswersForOneTunnelFreeItOnce) {
  start();
  mvpn_cibtype *red = bring_up("red", 2, "239.1.1.1");
  const if_index_t tunnel = red->mti_ifindex;
  ref::set_oim_answers(false);
  command("mdt_default_cmd", "red", {}, true);
  oim_response(MTS_OPC_OIM_IF_DELETE_RESPONSE, {{tunnel, 0, 0}, {tunnel, 0, 0}});
  EXPECT_EQ(mvpn_mvrf_count, 0u);
  ref::set_oim_answers(true);
}

TEST_F(Oim, AnInterfaceDownDuringTheDeletionTearsDownAgainSafely) {
  start();
  mvpn_cibtype *red = bring_up("red", 2, "239.1.1.1");
  const im_iod_t iod = red->mti_iod;
  command("mdt_default_cmd", "red", {}, true);
  ref::set_oim_answers(false);
  ref::settle();
  ASSERT_EQ(context("red"), red);
  red->mti_status = MVPN_MTI_DELETE_PENDING;
  mvpn_interface_status(iod, 0);
  ref::set_oim_answers(true);
  ref::settle();
  EXPECT_EQ(mvpn_mvrf_count, 0u);
}

TEST_F(Oim, InterfaceEventsAreReportedWhenTheyMakeNoSense) {
  start();
  capture_debug();
  mvpn_interface_status(4711, 1);
  ASSERT_EQ(ref::reports().size(), 1u);
  EXPECT_EQ(ref::reports()[0].arguments,
            (std::vector<std::string>{"ksink_im_get_ifindex_frm_iod()", "mvpn_interface_status()"}));
  mvpn_functionality_status = MVPN_FUNCTIONALITY_DOWN_PENDING;
  mvpn_interface_status(1, 0);
  mvpn_functionality_status = MVPN_FUNCTIONALITY_UP;
  EXPECT_EQ(debug_count("Ignoring a down notification in mvpn_interface_status for loopback0"), 1u);
}

TEST_F(Oim, OrphansAreDeletedAtTheEndOfTheReplay) {
  start();
  bring_up("red", 2, "239.1.1.1");
  const if_index_t orphan = ref::create_orphan_tunnel(99);
  ASSERT_NE(ref::find_tunnel(orphan), nullptr);
  capture_debug();
  end_replay();
  EXPECT_EQ(ref::find_tunnel(orphan), nullptr);
  EXPECT_EQ(ref::tunnels().size(), 1u);
  EXPECT_EQ(debug_count("Evaluating "), 2u);
  EXPECT_EQ(debug_count("MTI Status Information for VRF red : MTI("), 1u);
  EXPECT_EQ(context("red")->mti_status, MVPN_MTI_UP);
}

}  // namespace
