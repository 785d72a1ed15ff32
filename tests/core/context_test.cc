// Contexts: defaults, creation, lookups and their order, yields, diagnostics, message dispatch.
#include <cstring>

#include "platform/im.h"
#include "platform/reference/diag.h"
#include "platform/reference/module.h"
#include "platform/reference/mts.h"
#include "platform/reference/testing/runtime.h"
#include "platform/reference/testing/services.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_default_mdt_internal.h"
#include "routing/pim/mvpn/mvpn_diag.h"
#include "routing/pim/mvpn/mvpn_mdt_route.h"
#include "routing/pim/mvpn/mvpn_mdt_route_walk.h"
#include "routing/pim/mvpn/mvpn_mdt_safi.h"
#include "tests/support/module_test.h"

namespace {

class Context : public ModuleTest {};

TEST_F(Context, CreationFailsCleanly) {
  start();
  add_vrf("red", 2);
  EXPECT_EQ(mvpn_create_context(nullptr, nullptr), nullptr);
  trace::fail("slab_calloc");
  EXPECT_EQ(mvpn_create_context(nullptr, "red"), nullptr);
  EXPECT_EQ(pim_get_cib_by_context_name("red")->mvpn, nullptr);
  EXPECT_EQ(mvpn_mvrf_count, 0u);
  ASSERT_EQ(ref::reports().size(), 1u);
  EXPECT_EQ(ref::reports()[0].arguments,
            (std::vector<std::string>{std::to_string(sizeof(mvpn_cibtype)), "mvpn_create_context()"}));
  trace::fail("pim_create_context");
  EXPECT_EQ(mvpn_create_context(nullptr, "nowhere"), nullptr);
  EXPECT_EQ(ref::reports().back().arguments, (std::vector<std::string>{"pim_create_context()", "pim_init_l3vm()"}));
  mvpn_cibtype *red = mvpn_create_context(nullptr, "red");
  EXPECT_EQ(mvpn_create_context(nullptr, "red"), red) << "a second creation returns the first";
  EXPECT_EQ(mvpn_mvrf_count, 1u);
}

TEST_F(Context, ATimerThatCannotBeMadeDoesNotMatterUntilTheEnd) {
  start();
  add_vrf("red", 2);
  trace::fail("active_timer_create");
  mvpn_cibtype *red = configure("red", "239.1.1.1");
  EXPECT_EQ(red->switchover_timer, nullptr);
  EXPECT_EQ(red->mti_status, MVPN_MTI_UP);
  command("mdt_default_cmd", "red", {}, true);
  ref::settle();
  EXPECT_EQ(mvpn_mvrf_count, 0u);
}

// "b" has the lower context id, "a" the lower name.
TEST_F(Context, LookupsTakeTheFirstOfTheirOrder) {
  start();
  add_vrf("b", 2);
  add_vrf("a", 3);
  mvpn_cibtype *b = mvpn_create_context(nullptr, "b");
  mvpn_cibtype *a = mvpn_create_context(nullptr, "a");
  for (mvpn_cibtype *mvpn : {b, a}) {
    mvpn_set_mti_ifindex(mvpn, 77);
    mvpn_set_mti_iod(mvpn, 55);
    mvpn_set_mdt_default_group(mvpn, addr("239.1.1.1"));
  }
  EXPECT_EQ(mvpn_get_context_by_mti(77), a);
  EXPECT_EQ(mvpn_get_context_by_mdt_group(addr("239.1.1.1")), a);
  EXPECT_EQ(mvpn_get_context_by_mti_iod(55), b);
  EXPECT_EQ(mvpn_get_context_by_id(3), a);
  EXPECT_EQ(mvpn_get_context("b"), b);
  b->pcib->context_id = VRF_CONTEXT_ID_NONE;
  EXPECT_EQ(mvpn_get_context_by_mti_iod(55), a)
      << "a VRF that the VRF manager does not know yet is not found by its id";
  b->pcib->context_id = 2;
  mvpn_set_mdt_default_group(a, 0);
  mvpn_set_mti_ifindex(a, 0);
  mvpn_set_mti_iod(b, 0);
  EXPECT_EQ(mvpn_get_context_by_mdt_group(addr("239.1.1.1")), b);
  EXPECT_EQ(mvpn_get_context_by_mti(77), b);
  EXPECT_EQ(mvpn_get_context_by_mti_iod(55), a);
  mvpn_finish_destroy_default_mdt(b);
  EXPECT_EQ(mvpn_get_context_by_mti(77), nullptr);
  EXPECT_EQ(mvpn_get_context_by_mdt_group(addr("239.1.1.1")), nullptr);
}

TEST_F(Context, AYieldReturnsTheContextOfTheName) {
  start();
  const std::string longest(VRF_NAME_MAX, 'v');
  add_vrf(longest, 2);
  mvpn_cibtype *mvpn = mvpn_create_context(nullptr, longest.c_str());
  EXPECT_EQ(mvpn_may_sched_yield(mvpn), mvpn);
  trace::on_yield([](unsigned) { return true; });
  EXPECT_EQ(mvpn_may_sched_yield(mvpn), mvpn);
  trace::on_yield([mvpn](unsigned) {
    mvpn_finish_destroy_default_mdt(mvpn);
    return true;
  });
  EXPECT_EQ(mvpn_may_sched_yield(mvpn), nullptr);
}

TEST_F(Context, DebugMessagesCarryTheirVrf) {
  start();
  pim_cibtype *red = add_vrf("red", 2);
  pim_cibtype *odd = add_vrf("a%sb", 3);
  pim_glb_trace_buffers[MVPN_TRACE_SLOT] = 1;
  ref::clear_history();
  MVPN_DEBUG(red, "one %d", 1);
  MVPN_DEBUG(pim_default_cib, "two");
  MVPN_DEBUG(odd, "three");
  MVPN_DEBUG(red, "%s", std::string(300, 'x').c_str());
  MVPN_DEBUG(static_cast<pim_cibtype *>(nullptr), "five");
  ASSERT_EQ(ref::history().size(), 5u);
  EXPECT_EQ(ref::history()[0].text, "(red) : one 1");
  EXPECT_EQ(ref::history()[1].text, ": two");
  EXPECT_EQ(ref::history()[2].text, "(a%sb) : three");
  EXPECT_EQ(ref::history()[3].text.size(), 200u);
  EXPECT_EQ(ref::history()[4].text.front(), '[');
  EXPECT_EQ(ref::history()[4].text.substr(ref::history()[4].text.size() - 7), "]: five");
}

TEST_F(Context, SilentMessagesDoNotEvaluateTheirArguments) {
  start();
  mvpn_cibtype *red = bring_up("red", 2, "239.1.1.1");
  for (uint32_t i = 0; i < 500; i++)
    mvpn_mdt_add_route_resources(red, MVPN_MDT_ROUTE_REMOTE_DATA, addr("10.1.0.0") + i, 1, addr("239.7.7.7"), 0);
  trace::start();
  mvpn_mrib_clear_mdt_routes(red, {}, 0, 0);
  EXPECT_EQ(trace::count("ip_print_addr"), 0u);
}

TEST_F(Context, TheDebugFileGetsEveryMessageAndANewline) {
  start();
  char *text = nullptr;
  size_t size = 0;
  pim_debug_fp = open_memstream(&text, &size);
  MVPN_DEBUG(pim_default_cib, "Evaluating %s if orphan\n", "it");
  fclose(pim_debug_fp);
  pim_debug_fp = nullptr;
  const std::string line(text, size);
  free(text);
  const size_t blank = line.find(' ');
  ASSERT_NE(blank, std::string::npos);
  EXPECT_EQ(line.find_first_not_of("0123456789"), blank);
  EXPECT_EQ(line.substr(blank), " PIM: Evaluating it if orphan\n\n");
}

// The debug output: a message of a VRF passes by the VRF's name or "all", a message of none always, and is kept as
// well.
TEST_F(Context, DebugOutputIsFilteredByVrf) {
  start();
  pim_cibtype *red = add_vrf("red", 2);
  const struct {
    uint32_t flag;
    const char *filter;
    const char *expected;
  } cases[] = {
      {0, "all", ""},
      {PIM_DEBUG_MVPN, "all", "pim: (red-base) one 1\npim: two\n"},
      {PIM_DEBUG_MVPN, "red", "pim: (red-base) one 1\npim: two\n"},
      {PIM_DEBUG_MVPN, "blue", "pim: two\n"},
      {PIM_DEBUG_MVPN, "", "pim: two\n"},
      {~uint32_t{PIM_DEBUG_MVPN}, "all", ""},
  };
  ref::set_log_sink(ref::LogSink::standard_error);
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.filter) + " " + std::to_string(c.flag));
    pim_debug_flag = c.flag;
    std::snprintf(pim_dfilter_vrf_name, sizeof pim_dfilter_vrf_name, "%s", c.filter);
    ref::clear_history();
    ::testing::internal::CaptureStderr();
    MVPN_DEBUG(red, "one %d", 1);
    MVPN_DEBUG(nullptr, "two");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), c.expected);
    EXPECT_EQ(ref::history().size(), *c.expected != '\0' ? 1u : 0u);
  }
  pim_debug_flag = 0;
}

// Which opcodes are the module's in which status, and what they say.
TEST_F(Context, DispatchTakesTheModulesOpcodesWhileItRuns) {
  start();
  const struct {
    uint32_t opcode;
    bool ours;
    const char *message;
  } cases[] = {
      {MTS_OPC_MVPN_BGP_MDT_SAFI_LOCAL_REQUEST, true, nullptr},
      {MTS_OPC_MVPN_BGP_UPDATE_SOURCE_NOTIFY, true, nullptr},
      {MTS_OPC_MVPN_BGP_MDT_SAFI_REMOTE_UPDATE, true, "Received MDT SAFI Remote Update msg from BGP"},
      {MTS_OPC_MVPN_BGP_RD_NOTIFY, true, nullptr},
      {MTS_OPC_OIM_IF_CREATE_RESPONSE, true, "Received OIM If create response message"},
      {62467, true, nullptr},
      {MTS_OPC_OIM_IF_DELETE_RESPONSE, true, "Received OIM If delete response message"},
      {MTS_OPC_OIM_IF_PARAM_UPDATE_RESPONSE, true, "Received OIM param update response msg"},
      {MTS_OPC_MVPN_BGP_MDT_SAFI_LOCAL_UPDATE, false, nullptr},
      {43010, false, nullptr},
  };
  static int result;
  ref::Module module = ref::module();
  module.process_msg = [](mts_message *msg) { return result = mvpn_process_msg(msg); };
  ref::set_module(module);
  for (const auto status : {MVPN_FUNCTIONALITY_DOWN_PENDING, MVPN_FUNCTIONALITY_UP, MVPN_FUNCTIONALITY_UP_PENDING}) {
    const bool running = status != MVPN_FUNCTIONALITY_DOWN_PENDING;
    for (const auto &c : cases) {
      SCOPED_TRACE(std::to_string(c.opcode) + " while " + mvpn_functionality_status_str[status]);
      capture_debug();
      mvpn_functionality_status = status;
      ref::deliver(c.opcode, nullptr, 0);
      ref::settle();
      mvpn_functionality_status = MVPN_FUNCTIONALITY_UP;
      EXPECT_EQ(result, running && c.ours ? 1 : 0);
      EXPECT_EQ(debug_count("Ignoring processing of oim/bgp messages"), running ? 0u : 1u);
      if (running && c.message != nullptr) {
        EXPECT_EQ(debug_count(c.message), 1u);
      }
    }
  }
}

// Counts beyond the payload, payloads that end inside an entry.
TEST_F(Context, CountsBeyondThePayloadAreRefused) {
  start();
  add_vrf("red", 2);
  ref::set_oim_answers(false);
  mvpn_cibtype *red = configure("red", "239.1.1.1");
  const if_index_t tunnel = red->mti_ifindex;
  std::vector<uint8_t> update(BGP_MDT_SAFI_COUNT_SIZE + BGP_MDT_SAFI_ENTRY_SIZE);
  update[0] = 0xff;
  update[1] = 0xff;
  update[2 + BGP_MDT_SAFI_ENTRY_SOURCE] = 9;
  update[2 + BGP_MDT_SAFI_ENTRY_ADD] = 1;
  ref::deliver(MTS_OPC_MVPN_BGP_MDT_SAFI_REMOTE_UPDATE, update.data(), update.size());
  ref::deliver(MTS_OPC_MVPN_BGP_MDT_SAFI_REMOTE_UPDATE, update.data(), 40);
  ref::deliver(MTS_OPC_MVPN_BGP_MDT_SAFI_REMOTE_UPDATE, update.data(), 1);
  std::vector<uint8_t> response{0, 9, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  const uint32_t wire = hton_if_index(tunnel);
  std::memcpy(&response[2], &wire, sizeof wire);
  ref::deliver(MTS_OPC_OIM_IF_CREATE_RESPONSE, response.data(), 13);
  ref::settle();
  EXPECT_EQ(red->mti_status, MVPN_MTI_CREATE_PENDING) << "half an entry is none";
  ref::deliver(MTS_OPC_OIM_IF_CREATE_RESPONSE, update.data(), 1);  // half a count, of 65,280 or more
  ref::deliver(MTS_OPC_OIM_IF_CREATE_RESPONSE, response.data(), response.size());
  ref::settle();
  EXPECT_NE(red->mti_status, MVPN_MTI_CREATE_PENDING);
  const mvpn_bgp_mdt_safi_key key{9, {}, 0};
  EXPECT_NE(mvpn_bgp_get_mdt_safi_entry(&key), nullptr);
  EXPECT_EQ(mvpn_bgp_mdt_safi_db.count, 1u);
}

}  // namespace
