// Start and stop of the module: the order of platform calls, failures at every step, and what survives.
#include "platform/reference/diag.h"
#include "platform/reference/im.h"
#include "platform/reference/mem.h"
#include "platform/reference/mrib.h"
#include "platform/reference/mts.h"
#include "platform/reference/pim.h"
#include "platform/reference/testing/runtime.h"
#include "routing/pim/mvpn/mvpn_mdt_safi.h"
#include "routing/pim/mvpn/mvpn_mrib_queue.h"
#include "tests/support/module_test.h"

namespace {

class Lifecycle : public ModuleTest {};

TEST_F(Lifecycle, StartCallsThePlatformInOrder) {
  trace::start();
  ASSERT_EQ(mvpn_init(), 1);
  trace::stop();
  const std::vector<std::string> expected = {
      "slab_set_attr(1,0)",
      "slab_create(mvpn_cibtype,100)",
      "slab_create(mvpn_bgp_mdt_safi,200)",
      "slab_create(mvpn_mdt_route,200)",
      "slab_create(mvpn_data_mdt_send_join_info,200)",
      "slab_create(mvpn_data_mdt_recv_join_info,200)",
      "active_timer_new_set_init(8)",
      "oim_register()",
      "oim_api_init()",
      "bgp_api_init()",
      "bgp_mvpn_get_update_source(40)",
      "im_get_if_by_name(loopback0)",
      "ravl_pre_sched_yield()",
      "mts_options_set(62467,0x10)",
      "mts_options_set(18440,0x10)",
      "mts_options_set(18441,0x10)",
      "mtrack_alloc(284,6)",
      "pt_attr_create(0,1,8)",
      "txlist_create(0,0)",
      "mrib_register(mvpn,1288)",
      "mtrack_alloc(284,23)",
      "mtrack_alloc(284,23)",
      "mtrack_alloc(284,23)",
      "mtrack_alloc(284,23)",
      "mtrack_alloc(284,23)",
      "quillon_pthread_create(mvpn-mrib-worker-thread)",
      "tcp_setup(pim,/quillon/mq/mvpn-udp)",
      "quillon_socket(2,2,0)",
      "quillon_setsockopt(17,3)",
      "quillon_setsockopt(0,61)",
      "quillon_setsockopt(1,32)",
      "quillon_bind()",
      "pt_attr_create(0,1,12)",
      "quillon_pthread_create(mvpn-udp-thread)",
      "active_timer_create(9)",
      "active_timer_start(0)",
      "sdwrap_dbg_init_register_mts_q()",
  };
  EXPECT_EQ(trace::calls(), expected);
  EXPECT_EQ(mvpn_functionality_status, MVPN_FUNCTIONALITY_UP);
}

TEST_F(Lifecycle, ReregistersAfterACrashThatTheMribRemembers) {
  ASSERT_EQ(mvpn_init(), 1);
  mvpn_deinit(0);
  ASSERT_TRUE(ref::wait_for_threads());
  pim_crashed = 1;
  trace::start();
  ASSERT_EQ(mvpn_init(), 1);
  EXPECT_EQ(trace::calls_of({"mrib_get_pib", "mrib_register", "mrib_reregister"}),
            (std::vector<std::string>{"mrib_get_pib(mvpn)", "mrib_reregister(mvpn,210)"}));
}

// What stops in which order, with the feature removed and with the feature kept.
TEST_F(Lifecycle, StopCallsThePlatformInOrder) {
  const std::vector<std::string_view> shown = {"active_timer_stop",
                                               "pim_disable",
                                               "active_timer_cancel",
                                               "ksink_pss_delete_range",
                                               "slab_free",
                                               "mts_options_set",
                                               "mrib_deregister",
                                               "oim_deregister",
                                               "oim_api_close",
                                               "bgp_api_close",
                                               "quillon_close",
                                               "slab_destroy",
                                               "mts_send",
                                               "ip_unset_unnumbered",
                                               "mrib_update_mdt_encap_info"};
  const std::vector<std::string> module_part = {"mts_options_set(62467,0x0)", "mts_options_set(18440,0x0)",
                                                "mts_options_set(18441,0x0)", "mrib_deregister(mvpn,1)",
                                                "oim_deregister()",           "oim_api_close()"};
  const std::vector<std::string> end = {"bgp_api_close()", "active_timer_cancel()", "quillon_close()",
                                        "slab_destroy()",  "slab_destroy()",        "slab_destroy()",
                                        "slab_destroy()",  "slab_destroy()",        "ksink_pss_delete_range(4)"};

  start();
  bring_up("red", 2, "239.1.1.1");
  trace::start();
  mvpn_deinit(1);
  std::vector<std::string> kept = module_part;
  kept.insert(kept.end(), end.begin(), end.end());
  EXPECT_EQ(trace::calls_of(shown), kept);
  ASSERT_NE(context("red"), nullptr);
  EXPECT_EQ(context("red")->mti_status, MVPN_MTI_UP) << "the tunnel is left alone while the feature stays";
  EXPECT_EQ(mvpn_functionality_status, MVPN_FUNCTIONALITY_DOWN);

  trace::start();
  mvpn_deinit(1);
  EXPECT_TRUE(trace::calls().empty()) << "a second stop does nothing";

  ASSERT_TRUE(ref::wait_for_threads());
  ASSERT_EQ(mvpn_init(), 1);
  ref::settle();
  ref::set_feature_configured(false);
  ref::clear_sent_messages();
  trace::start();
  mvpn_deinit(1);
  const std::vector<std::string> calls = trace::calls_of(shown);
  EXPECT_EQ(trace::count("mts_send"), 0u);
  EXPECT_EQ(trace::count("mrib_update_mdt_encap_info"), 0u);
  EXPECT_EQ(trace::count("ip_unset_unnumbered"), 0u);
  EXPECT_EQ(trace::count("pim_disable"), 1u);
  EXPECT_EQ(context("red"), nullptr);
  EXPECT_EQ(mvpn_mvrf_count, 0u);
  // The VRF goes first, its record before anything of the module.
  const auto at = [&calls](std::string_view wanted) {
    return std::find(calls.begin(), calls.end(), wanted) - calls.begin();
  };
  EXPECT_LT(at("pim_disable(1,0,0)"), at("ksink_pss_delete_range(8)"));
  EXPECT_LT(at("ksink_pss_delete_range(8)"), at("mts_options_set(62467,0x0)"));
  EXPECT_LT(at("oim_api_close()"), at("bgp_api_close()"));
}

TEST_F(Lifecycle, StopClearsOneOptionBitOnly) {
  ASSERT_EQ(mvpn_init(), 1);
  mts_options_set(pim_mts_q, MTS_OPC_MVPN_BGP_RD_NOTIFY, 0x13);
  mvpn_deinit(1);
  EXPECT_EQ(mts_options_get(pim_mts_q, MTS_OPC_MVPN_BGP_RD_NOTIFY), 0x03u);
}

// Steps of the start that report before they fail, and how.
TEST_F(Lifecycle, EachFailingStepReportsItself) {
  struct Case {
    const char *function;
    unsigned nth;
    const char *report;
    std::vector<std::string> arguments;
  };
  const std::vector<Case> cases = {
      {"slab_create", 3, "PIM_SLAB_CREATE", {"mvpn_mdt_route"}},
      {"active_timer_new_set_init", 1, "PIM_TIMER_SET_INIT", {"heap"}},
      {"oim_register", 1, "PIM_OIM_REGISTER_FAIL", {"mvpn_oim_init"}},
      {"bgp_api_init", 1, "PIM_API_INIT", {"BGP"}},
      {"mts_options_set", 2, "PIM_OPCODE_REG", {"18440", "Invalid argument"}},
      {"pt_attr_create", 1, "PIM_API_FAILED", {"pt_attr_create()", "mvpn_init_mrib()"}},
      {"txlist_create", 1, "PIM_TXLIST_CREATE", {"txlist"}},
      {"mrib_register", 1, "PIM_API_FAILED", {"MRIB (register)", "mvpn_init_mrib()"}},
      {"mtrack_alloc",
       2,
       "PIM_MALLOC",
       {std::to_string(sizeof(mrib_update_buffer)), "mvpn_preallocate_mrib_buffers"}},  // not one buffer
      {"tcp_setup", 1, "PIM_API_INIT", {"TCP"}},
      {"quillon_socket", 1, "PIM_SOCKET", {"mvpn_udp", "Too many open files"}},
      {"quillon_setsockopt", 1, "PIM_SETSOCKOPT", {"mvpn_udp - IP_HDRINCL", "Protocol not available"}},
      {"quillon_setsockopt", 2, "PIM_SETSOCKOPT", {"mvpn_udp - IP_CONTEXT", "Protocol not available"}},
      {"quillon_bind", 1, "PIM_BIND", {"mvpn_udp", "Address already in use"}},
      {"pt_attr_create", 2, "PIM_API_FAILED", {"pt_attr_create()", "mvpn_init_data_mdt"}},
      {"quillon_pthread_create", 2, "PIM_PTHREAD_CREATE", {"mvpn-udp-thread"}},
      {"active_timer_create", 1, "PIM_TIMER_CREATE", {"mvpn_age_timer", "Recv Data MDT"}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(std::string(c.function) + " call " + std::to_string(c.nth));
    ref::clear_reports();
    trace::reset();
    trace::fail(c.function, c.nth);
    EXPECT_EQ(mvpn_init(), 0);
    EXPECT_EQ(mvpn_functionality_status, MVPN_FUNCTIONALITY_UP_PENDING);
    ASSERT_FALSE(ref::reports().empty());
    EXPECT_EQ(ref::reports().front().name, c.report);
    EXPECT_EQ(ref::reports().front().arguments, c.arguments);
    mvpn_deinit(1);
    EXPECT_TRUE(ref::wait_for_threads());
    EXPECT_EQ(ref::memory_use().tracked_buffers, 0u);
    EXPECT_EQ(ref::memory_use().timers, 0u);
    EXPECT_EQ(mvpn_init(), 1) << "a later start succeeds";
    mvpn_deinit(1);
    EXPECT_TRUE(ref::wait_for_threads());
    ref::advance(std::chrono::seconds(3600));  // past the limiter of repeated reports
  }
}

// Whatever call fails during a start: what arrives meanwhile does no harm, the module stops, and starts again.
TEST_F(Lifecycle, AnyFailingCallLeavesAModuleThatStopsAndStarts) {
  unsigned k = 1;
  for (;; k++) {
    trace::reset();
    trace::fail_any(k);
    const int result = mvpn_init();
    const std::string failed = trace::failed_function();
    trace::fail_any(0);
    if (failed.empty()) {
      EXPECT_EQ(result, 1);
      break;
    }
    SCOPED_TRACE("call " + std::to_string(k) + ", " + failed);
    remote_update({{addr("10.0.0.9"), {0, 0, 0, 1, 0, 0, 0, 1}, addr("239.1.1.1"), {}}}, true);
    const uint8_t ack[MRIB_ACK_SIZE] = {};
    mvpn_process_mrib_mts_update_route_ack(ack);
    mvpn_interface_status(1, 0);
    ref::settle();
    ref::set_feature_configured(false);
    mvpn_deinit(1);
    ref::set_feature_configured(true);
    ASSERT_TRUE(ref::wait_for_threads());
    ASSERT_EQ(mvpn_functionality_status, MVPN_FUNCTIONALITY_DOWN);
    ASSERT_EQ(mvpn_init(), 1);
    ref::settle();
    mvpn_deinit(1);
    ASSERT_TRUE(ref::wait_for_threads());
    const size_t lists = trace::count("txlist_create") - (failed == "txlist_create" ? 1 : 0);
    EXPECT_EQ(trace::count("txlist_destroy"), lists);
  }
  EXPECT_GT(k, 25u) << "the loop must have met the calls of a start";
}

TEST_F(Lifecycle, StartFailsButStaysUpWhenTheDebugServiceRefusesTheQueue) {
  capture_debug();
  trace::fail("sdwrap_dbg_init_register_mts_q");
  EXPECT_EQ(mvpn_init(), 0);
  EXPECT_EQ(mvpn_functionality_status, MVPN_FUNCTIONALITY_UP);
  EXPECT_EQ(debug_count("ERROR: register mvpn_mts_q with sdwrap, rc=0x5 ["), 1u);
}

TEST_F(Lifecycle, MessagesAreHandledAfterAFailedStartAndRefusedWhileStopped) {
  trace::fail("mts_options_set");
  ASSERT_EQ(mvpn_init(), 0);
  remote_update({{addr("10.0.0.9"), {0, 0, 0, 1, 0, 0, 0, 1}, addr("239.1.1.1"), {}}}, true);
  const mvpn_bgp_mdt_safi_key key{addr("10.0.0.9"), {0, 0, 0, 1, 0, 0, 0, 1}, 0};
  EXPECT_NE(mvpn_bgp_get_mdt_safi_entry(&key), nullptr);
}

TEST_F(Lifecycle, AllocationWarningsGoToStandardOutputWithTheirReports) {
  trace::fail("mtrack_alloc", 1);
  testing::internal::CaptureStdout();
  EXPECT_EQ(mvpn_init(), 0);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out.rfind("Warning! Malloc Failure in routing/pim/mvpn/mvpn_mrib[", 0), 0u) << out;
  ASSERT_EQ(ref::reports().size(), 2u);
  const std::string size = std::to_string(sizeof(mvpn_mrib_info_t));
  EXPECT_EQ(ref::reports()[0].arguments, (std::vector<std::string>{size, "mvpn_init_mrib"}));
  EXPECT_EQ(ref::reports()[1].arguments, (std::vector<std::string>{"mvpn_init_mrib()"}));
  EXPECT_NE(out.find("] for size " + size + "\n"), std::string::npos) << out;
}

TEST_F(Lifecycle, FewerUpdateBuffersAreEnough) {
  trace::fail("mtrack_alloc", 4);  // the state, two buffers, then none
  testing::internal::CaptureStdout();
  ASSERT_EQ(mvpn_init(), 1);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(rqueue_count(&mvpn_mrib_info->free_buffers), 2u);
  mvpn_init_cli();
  ref::enable_interface_events(true);
  bring_up("red", 2, "239.1.1.1");
  EXPECT_EQ(ref::mrib_routes().size(), 1u);
}

}  // namespace
