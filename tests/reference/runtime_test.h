// Fixture of the runtime's tests: a fresh platform, its main thread with the scheduling locks, no module.
#ifndef TESTS_REFERENCE_RUNTIME_TEST_H
#define TESTS_REFERENCE_RUNTIME_TEST_H

#include <gtest/gtest.h>

#include "platform/reference/diag.h"
#include "platform/reference/runtime.h"

class RuntimeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ref::reset();
    ref::set_log_sink(ref::LogSink::none);
  }
  void TearDown() override {
    EXPECT_TRUE(ref::wait_for_threads());
    ref::reset();
  }
};

#endif  // TESTS_REFERENCE_RUNTIME_TEST_H
