// The stepped clock and the main loop. mvpn-contract-test has what a module may rely on of timers.
#include <functional>
#include <string>

#include "platform/reference/internal.h"
#include "platform/reference/mem.h"
#include "platform/reference/testing/runtime.h"
#include "platform/thread.h"
#include "platform/timer.h"
#include "tests/reference/runtime_test.h"

using namespace std::chrono_literals;

namespace {

class Clock : public RuntimeTest {
 protected:
  struct Timer {
    std::function<void()> work;
    active_timer *handle = nullptr;
  };

  Timer &timer(std::function<void()> work) {
    timers_.push_back(std::make_unique<Timer>(Timer{std::move(work)}));
    Timer &made = *timers_.back();
    made.handle = active_timer_create(set_, ACTIVE_TIMER_TYPE_MVPN, run, &made);
    return made;
  }
  static void run(void *argument) { static_cast<Timer *>(argument)->work(); }
  Timer &named(char name) {
    return timer([this, name] { trace_ += name; });
  }
  void start(const Timer &made, uint32_t seconds) { EXPECT_NE(active_timer_start(made.handle, seconds, 0, 0, 0), 0); }
  void TearDown() override {
    for (const auto &made : timers_) active_timer_cancel(made->handle);
    EXPECT_EQ(ref::memory_use().timers, 0u);
    RuntimeTest::TearDown();
  }

  uint8_t set_ = active_timer_new_set_init(ACTIVE_TIMER_SET_SIZE);
  std::vector<std::unique_ptr<Timer>> timers_;
  std::string trace_;
};

TEST_F(Clock, TimersFireInOrderOfTimeThenOfStart) {
  for (const auto &[name, seconds] : {std::pair{'a', 30}, {'b', 10}, {'c', 30}, {'d', 0}, {'e', 20}})
    start(named(name), static_cast<uint32_t>(seconds));
  EXPECT_EQ(trace_, "");  // never from inside the call
  ref::settle();
  EXPECT_EQ(trace_, "d");
  EXPECT_EQ(ref::next_deadline(), ref::now() + 10s);
  ref::advance(29s);
  EXPECT_EQ(trace_, "dbe");
  ref::advance(1s);
  EXPECT_EQ(trace_, "dbeac");
  EXPECT_EQ(ref::next_deadline(), std::nullopt);
}

// What a service put off and the module's timers share one order.
TEST_F(Clock, WorkThatWasPutOffFiresInTurnWithTimers) {
  const auto put_off = [this](char name, std::chrono::seconds delay) {
    ref::schedule(delay, [this, name] { trace_ += name; });
  };
  put_off('a', 10s);
  start(named('b'), 10);
  put_off('c', 10s);
  put_off('d', 5s);
  EXPECT_EQ(ref::next_deadline(), ref::now() + 5s);
  ref::advance(10s);
  EXPECT_EQ(trace_, "dabc");
}

// An expiry that is due but not delivered is dropped with its timer.
TEST_F(Clock, CancelDropsAnExpiryThatIsDue) {
  Timer &second = named('2'), &third = named('3');
  Timer &first = timer([&] {
    trace_ += '1';
    active_timer_cancel(second.handle);
    second.handle = nullptr;
    active_timer_stop(third.handle);
  });
  start(first, 5);
  start(second, 5);
  start(third, 5);
  ref::advance(5s);
  EXPECT_EQ(trace_, "1");
}

// What a timer queues is delivered before the clock moves on, and before the next timer of the same time.
TEST_F(Clock, AdvanceSettlesAfterEachTimer) {
  for (const char name : {'a', 'b', 'c'})
    start(timer([this, name] {
            trace_ += name;
            ref::post([this, at = ref::now()] { trace_ += at == ref::now() ? '+' : '-'; });
          }),
          name == 'c' ? 2 : 1);
  ref::advance(10s);
  EXPECT_EQ(trace_, "a+b+c+");
}

TEST_F(Clock, WorkAndTimersDoNotHoldEachOtherUp) {
  Timer &again = timer({});
  again.work = [&] {
    trace_ += 't';
    if (trace_.size() < 30000) start(again, 0);
  };
  std::function<void()> work = [&] {
    trace_ += 'w';
    if (trace_.size() < 30000) ref::post(work);
  };
  bool woken = false;
  ref::set_waker([&woken] { woken = true; });
  start(again, 0);
  ref::post(work);
  woken = false;
  EXPECT_GE(ref::run_pending(), 10000u);  // bounded, and the loop is asked to come again
  EXPECT_LT(trace_.size(), 11000u);
  EXPECT_TRUE(woken);
  EXPECT_EQ(trace_.substr(0, 6), "twtwtw");
  ref::settle();
}

TEST_F(Clock, RealClockRunsAtItsScaleAndDoesNotStep) {
  const auto before = ref::now();
  ref::clock_use_real(1000);
  EXPECT_EQ(ref::clock_scale(), 1000);
  bool fired = false;
  start(timer([&fired] { fired = true; }), 1);
  ref::advance(1h);
  while (!fired) ref::run_pending();
  EXPECT_GE(ref::now(), before + 1s);
  ref::clock_use_stepped();
  const auto stopped = ref::now();
  EXPECT_GE(stopped, before + 1s);
  EXPECT_EQ(ref::now(), stopped);
  EXPECT_EQ(ref::clock_scale(), 0);
}

}  // namespace
