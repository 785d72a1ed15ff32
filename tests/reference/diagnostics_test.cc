// Error reports, the event history, memory, transport, policies and the TLV utility.
#include <cerrno>
#include <cstring>
#include <string>

#include "platform/diag.h"
#include "platform/mem.h"
#include "platform/pim.h"
#include "platform/reference/diag.h"
#include "platform/reference/mem.h"
#include "platform/reference/mts.h"
#include "platform/reference/rpm.h"
#include "platform/reference/testing/runtime.h"
#include "platform/rpm.h"
#include "platform/tlvu.h"
#include "tests/reference/runtime_test.h"

using namespace std::chrono_literals;

namespace {

class Diagnostics : public RuntimeTest {
 protected:
  static int report(const syslog_descriptor &kind) {
    const char *arguments[] = {"one", "two"};
    return syslog_msg_rate_limit(&kind, 2, arguments);
  }
};

TEST_F(Diagnostics, ReportsAreLimitedByKindAndTime) {
  int passed = 0;
  for (int i = 0; i < 1000; i++) passed += report(msg_error_PIM_SOCKET) != 0 ? 1 : 0;
  EXPECT_GT(passed, 0);
  EXPECT_LT(passed, 1000);
  EXPECT_EQ(ref::reports().size(), static_cast<size_t>(passed));
  EXPECT_EQ(ref::reports().back().name, "PIM_SOCKET");
  EXPECT_EQ(ref::reports().back().arguments, (std::vector<std::string>{"one", "two"}));
  EXPECT_NE(report(msg_error_PIM_BIND), 0);  // a flood of one kind hides no other
  EXPECT_EQ(report(msg_error_PIM_SOCKET), 0);
  ref::advance(1h);
  EXPECT_NE(report(msg_error_PIM_SOCKET), 0);
}

TEST_F(Diagnostics, LimiterWritesTheReportWhileThereIsNoFacility) {
  ref::set_log_sink(ref::LogSink::standard_error);
  for (const bool facility : {true, false}) {
    if (!facility) sdwrap_sys_facility = nullptr;
    ::testing::internal::CaptureStderr();
    report(msg_error_PIM_SOCKET);
    EXPECT_EQ(::testing::internal::GetCapturedStderr().find("PIM_SOCKET") == std::string::npos, facility);
  }
}

TEST_F(Diagnostics, DebugOutputEndsInOneNewline) {
  ref::set_log_sink(ref::LogSink::standard_error);
  ::testing::internal::CaptureStderr();
  buginf("with %d%%\n", 5);
  buginf_func("without %d%%", 6);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "pim: with 5%\npim: without 6%\n");
}

TEST_F(Diagnostics, HistoryKeepsTheLatestEvents) {
  sdwrap_event event{};
  event.type = SDWRAP_EVENT_MVPN;
  for (int i = 0; i < 25000; i++) {
    const std::string text = "event " + std::to_string(i);
    std::memcpy(event.text, text.c_str(), text.size() + 1);
    sdwrap_his_log_event_for_uuid_inst(SDWRAP_UUID_PIM, SDWRAP_HISTORY_MVPN, SDWRAP_HISTORY_BUFFER, 0,
                                       static_cast<uint32_t>(text.size() + 5), &event);
  }
  ASSERT_GE(ref::history().size(), 10000u);
  EXPECT_EQ(ref::history().back().text, "event 24999");
  EXPECT_EQ(ref::history().back().time, ref::now());
  EXPECT_LE(ref::history().size(), 20000u);
  std::memset(event.text, 'x', sizeof event.text);  // no NUL: the length ends it
  sdwrap_his_log_event_for_uuid_inst(SDWRAP_UUID_PIM, SDWRAP_HISTORY_MVPN, SDWRAP_HISTORY_BUFFER, 0, 4 + 3, &event);
  EXPECT_EQ(ref::history().back().text, "xxx");
}

class Memory : public RuntimeTest {};

// Every test of the module ends with these counts.
TEST_F(Memory, WhatIsInUseIsCounted) {
  slab_attr attributes;
  slab_set_attr(&attributes, 1, 0);
  slab_handle slab = slab_create(100, 2, &attributes, "objects");
  void *object = slab_calloc(slab);
  slab_destroy(&slab);
  void *buffers[] = {mtrack_alloc(MTRACK_IDENTITY_PIM, MTRACK_MVPN_GENERAL, 33),
                     mtrack_alloc(MTRACK_IDENTITY_PIM, MTRACK_MVPN_ENCAP, 88)};
  EXPECT_EQ(ref::memory_use().slab_objects, 1u);
  EXPECT_EQ(ref::memory_use().tracked_buffers, 2u);
  EXPECT_EQ(ref::memory_use().tracked_bytes, 33u + 88u);
  slab_free(slab, object);
  for (void *buffer : buffers) mtrack_free(buffer);
  EXPECT_EQ(ref::memory_use().slab_objects, 0u);
  EXPECT_EQ(ref::memory_use().tracked_buffers, 0u);
  EXPECT_EQ(ref::memory_use().tracked_bytes, 0u);
}

class Transport : public RuntimeTest {};

TEST_F(Transport, SentMessagesAreRecordedAndReachTheSinkLater) {
  std::vector<uint8_t> payload{1, 2};
  size_t sunk = 0;
  ref::set_message_sink([&](const ref::SentMessage &message) { sunk = message.payload.size(); });
  EXPECT_GE(mts_send(pim_mts_q, MTS_DESTINATION_BGP, 0, 7, payload.data(), 2, 0, 0, 0), 0);
  ASSERT_EQ(ref::sent_messages().size(), 1u);
  EXPECT_EQ(ref::sent_messages()[0].payload, payload);
  EXPECT_EQ(sunk, 0u);
  ref::settle();
  EXPECT_EQ(sunk, 2u);
  errno = 0;
  EXPECT_LT(mts_send(nullptr, MTS_DESTINATION_BGP, 0, 7, payload.data(), 2, 0, 0, 0), 0);
  EXPECT_NE(errno, 0);
}

class Policies : public RuntimeTest {
 protected:
  static int match(const rpm_binding &binding, ip_addr_t source, ip_addr_t group, uint8_t source_len = 32) {
    const rpm_mroute_match record{source, group, source_len, 32};
    return rpm_eval_policy_match(binding.policy_handle, RPM_MATCH_MROUTE, &record, 0, 0);
  }
};

TEST_F(Policies, BindBeforeTheyAreDefined) {
  rpm_binding first{}, second{};
  ASSERT_NE(rpm_policy_bind(RPM_CLIENT_MVPN, "late", &first), 0);
  ASSERT_NE(rpm_policy_bind(RPM_CLIENT_MVPN, "late", &second), 0);
  EXPECT_NE(first.policy_handle, second.policy_handle);
  EXPECT_EQ(ref::policy_bindings(), 2u);
  EXPECT_EQ(rpm_policy_is_ready(first.policy_handle), 0);
  EXPECT_NE(match(first, 1, 0xE1000001), 1);
  ref::set_policy("late", {{true, 0, 0xE1000000, 0, 8}});
  EXPECT_NE(rpm_policy_is_ready(first.policy_handle), 0);
  EXPECT_EQ(match(first, 1, 0xE1000001), 1);
  EXPECT_NE(rpm_policy_unbind(first.policy_handle), 0);
  EXPECT_EQ(rpm_policy_unbind(first.policy_handle), 0);
  EXPECT_NE(match(first, 1, 0xE1000001), 1);
  EXPECT_EQ(match(second, 1, 0xE1000001), 1);
  EXPECT_TRUE(ref::delete_policy("late"));
  EXPECT_EQ(rpm_policy_is_ready(second.policy_handle), 0);
  EXPECT_EQ(rpm_policy_bind(RPM_CLIENT_MVPN, std::string(rpm_get_max_name_length() + 1, 'x').c_str(), &first), 0);
}

TEST_F(Policies, FirstEntryThatMatchesDecides) {
  ref::set_policy("mixed", {{false, 0x0A000001, 0xE1000000, 32, 8}, {true, 0x0A000000, 0xE1000000, 8, 8}});
  rpm_binding binding{};
  ASSERT_NE(rpm_policy_bind(RPM_CLIENT_MVPN, "mixed", &binding), 0);
  EXPECT_NE(match(binding, 0x0A000001, 0xE1000001), 1);
  EXPECT_EQ(match(binding, 0x0A000002, 0xE1000001), 1);
  EXPECT_NE(match(binding, 0x0B000001, 0xE1000001), 1);
  EXPECT_NE(match(binding, 0x0A000002, 0xE2000001), 1);
  EXPECT_NE(match(binding, 0, 0xE1000001, 0), 1);  // any source is not a source in a prefix
}

// What is stored is read by later releases.
TEST(Tlv, BytesOfARecord) {
  struct Sample {
    uint32_t word;
    uint16_t halves[2];
    uint8_t byte;
  };
  static constexpr tlvu_field fields[] = {
      {1, 4, offsetof(Sample, word), 1, {}, 4, TLVU_END, 0},
      {2, 2, offsetof(Sample, halves), 2, {}, 2, TLVU_END, 0},
      {300, 1, offsetof(Sample, byte), 1, {}, 1, TLVU_END, 0},
      {TLVU_END, TLVU_END, TLVU_END, 0, {}, 0, TLVU_END, 0},
  };
  constexpr tlvu_table table{sizeof(Sample), "sample", fields};
  const Sample sample{0x01020304, {0x0506, 0x0708}, 9};
  std::vector<uint8_t> bytes(tlvu_table_size(&table, &sample));
  uint32_t written = 0;
  EXPECT_EQ(
      tlvu_table_convert_struct_to_tlv(&table, &sample, bytes.data(), static_cast<uint32_t>(bytes.size()), &written),
      TLVU_OK);
  EXPECT_EQ(bytes, (std::vector<uint8_t>{0, 1, 0, 4, 1, 2, 3, 4, 0, 2, 0, 4, 5, 6, 7, 8, 1, 44, 0, 1, 9}));
}

}  // namespace
