// The scheduling locks and the threads that run under them.
#include <algorithm>
#include <atomic>
#include <deque>
#include <functional>
#include <string>
#include <thread>

#include "platform/diag.h"
#include "platform/pim.h"
#include "platform/reference/testing/runtime.h"
#include "platform/thread.h"
#include "tests/reference/runtime_test.h"

namespace {

class Scheduler : public RuntimeTest {
 protected:
  using Body = std::function<void()>;

  pthread_t start(Body body) {
    pthread_t handle{};
    bodies_.push_back(std::move(body));
    EXPECT_EQ(quillon_pthread_create(&handle, nullptr, run, &bodies_.back(), "a thread with a long name"), 0);
    return handle;
  }
  // Has nothing to clean up: a clean-up of a cancelled thread would run over the frame of the body, which the address
  // sanitizer still takes for live.
  static void *run(void *argument) {
    (*static_cast<Body *>(argument))();
    return nullptr;
  }
  static void join(pthread_t handle) {
    tsp_before_yield();
    EXPECT_EQ(pthread_join(handle, nullptr), 0);
    tsp_after_yield();
  }

  std::string trace_;        // under the scheduling locks
  std::deque<Body> bodies_;  // outlive their threads
};

// A consumer that sleeps the way the contract has it.
struct Consumer {
  static void unlock(void *mutex) { pthread_mutex_unlock(static_cast<pthread_mutex_t *>(mutex)); }

  void sleep() {
    pthread_mutex_t *mutex = tsp_release_locks_before_yield(0, 0);
    pthread_cleanup_push(unlock, mutex);
    ref::note_condition_wait(&condition);
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    pthread_cond_wait(&condition, mutex);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    ref::note_condition_woken(&condition);
    pthread_cleanup_pop(0);
    tsp_acquire_locks_after_yield(0, 0);
  }
  void signal() {
    ref::note_condition_signal(&condition);
    pthread_cond_signal(&condition);
  }

  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  int work = 0, done = 0;
  bool stop = false;
};

TEST_F(Scheduler, ThreadStartsWithTheLocksAndItsHandleStored) {
  struct Seen {
    pthread_t handle{};
    bool holds = false, same = false;
    int cancellation = -1;
  } seen;
  ASSERT_EQ(quillon_pthread_create(
                &seen.handle, nullptr,
                [](void *argument) -> void * {
                  auto *at = static_cast<Seen *>(argument);
                  at->holds = ref::locks_held();
                  at->same = pthread_equal(at->handle, pthread_self()) != 0;
                  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &at->cancellation);
                  return nullptr;
                },
                &seen, "starter"),
            0);
  EXPECT_FALSE(seen.holds);  // the creator has the locks until it gives them up
  join(seen.handle);
  EXPECT_TRUE(seen.holds);
  EXPECT_TRUE(seen.same);
  EXPECT_EQ(seen.cancellation, PTHREAD_CANCEL_DISABLE);
  EXPECT_EQ(ref::thread_count(), 0u);
}

// Whatever way a thread ends, the locks are free afterwards.
TEST_F(Scheduler, LocksComeBackHoweverAThreadEnds) {
  const std::pair<const char *, Body> ways[] = {
      {"return", [] {}},
      {"exit", [] { pthread_exit(nullptr); }},
      {"return without the locks", [] { tsp_before_yield(); }},
      {"cancelled with the locks",
       [] {
         pthread_cancel(pthread_self());
         pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
         pthread_testcancel();
       }},
      {"cancelled while it sleeps",
       [] {
         Consumer consumer;
         pthread_cancel(pthread_self());
         consumer.sleep();
       }},
  };
  for (const auto &[way, body] : ways) {
    SCOPED_TRACE(way);
    const pthread_t first = start(body);
    const pthread_t second = start([this, name = way] { trace_ += name; });
    join(first);
    join(second);
    EXPECT_EQ(trace_, way);
    trace_.clear();
  }
}

TEST_F(Scheduler, NoOperationIsACancellationPoint) {
  const pthread_t thread = start([&] {
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    trace_ += 'a';
    tsp_sched_yield();  // the main thread cancels meanwhile
    tsp_sched_may_yield();
    tsp_should_sched_yield();
    tsp_before_yield();
    tsp_after_yield();
    tsp_release_locks_before_yield(0, 0);
    tsp_acquire_locks_after_yield(0, 0);
    buginf("a line\n");
    trace_ += 'b';
    pthread_testcancel();
    trace_ += 'c';
  });
  tsp_sched_yield();
  pthread_cancel(thread);
  join(thread);
  EXPECT_EQ(trace_, "ab");
}

TEST_F(Scheduler, YieldTellsWhetherAnotherThreadRan) {
  EXPECT_EQ(tsp_sched_may_yield(), 0);
  const pthread_t thread = start([this] { trace_ += 'x'; });
  EXPECT_NE(tsp_sched_may_yield(), 0);
  EXPECT_EQ(trace_, "x");
  join(thread);
  EXPECT_EQ(tsp_sched_may_yield(), 0);
  int calls = 0;
  ref::set_yield_hook([&calls] { return ++calls == 2; });
  EXPECT_EQ(tsp_sched_may_yield(), 0);
  EXPECT_NE(tsp_sched_may_yield(), 0);
}

// A thread that wakes, finds nothing to do and sleeps again has had no turn. Its signal comes late, so that the main
// thread is already waiting for it.
TEST_F(Scheduler, AwakeningForNothingIsNoTurn) {
  Consumer consumer;
  const pthread_t thread = start([&] {
    pthread_mutex_t *mutex = tsp_release_locks_before_yield(0, 0);
    for (int i = 0; i < 2; i++) {
      ref::note_condition_wait(&consumer.condition);
      pthread_cond_wait(&consumer.condition, mutex);
      ref::note_condition_woken(&consumer.condition);
    }
    tsp_acquire_locks_after_yield(0, 0);
    consumer.done++;
  });
  ref::settle();
  for (const int expected : {0, 1}) {
    ref::note_condition_signal(&consumer.condition);
    std::thread signaller([&consumer] {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
      pthread_cond_signal(&consumer.condition);
    });
    EXPECT_EQ(tsp_sched_may_yield(), expected);
    EXPECT_EQ(consumer.done, expected);
    signaller.join();
  }
  join(thread);
}

// A thread that takes the locks again at once must not overtake those that waited.
TEST_F(Scheduler, FirstComeFirstServed) {
  std::vector<pthread_t> threads;
  for (const char name : {'a', 'b', 'c'})
    threads.push_back(start([this, name] {
      for (int i = 0; i < 50; i++) {
        trace_ += name;
        tsp_sched_yield();
      }
    }));
  for (int i = 0; i < 50; i++) {
    trace_ += 'm';
    tsp_sched_yield();
  }
  for (const pthread_t thread : threads) join(thread);
  std::string expected;
  for (int i = 0; i < 50; i++) expected += "mabc";
  EXPECT_EQ(trace_, expected);
}

// Real time: a thread that takes the locks again and again gets one turn for each of the others.
TEST_F(Scheduler, SpinningThreadStarvesNobody) {
  ref::clock_use_real(1);
  std::atomic<bool> stop = false;
  int rounds = 0;
  const pthread_t thread = start([&] {
    for (; !stop; rounds++) tsp_sched_may_yield();
  });
  while (rounds == 0) tsp_sched_yield();
  for (int i = 0; i < 1000; i++) {
    const int before = rounds;
    ASSERT_NE(tsp_sched_may_yield(), 0);
    ASSERT_EQ(rounds, before + 1);
  }
  stop = true;
  join(thread);
}

std::string seeded_run(uint64_t seed, const std::function<pthread_t(std::function<void()>)> &start_thread,
                       const std::function<void(pthread_t)> &join_thread) {
  std::string trace;
  ref::scheduler_use_seed(seed);
  Consumer consumer;
  std::vector<pthread_t> threads;
  for (const char name : {'a', 'b', 'c'})
    threads.push_back(start_thread([&trace, name] {
      for (int i = 0; i < 20; i++) {
        trace += name;
        tsp_sched_yield();
      }
    }));
  threads.push_back(start_thread([&trace, &consumer] {
    while (!consumer.stop) {
      trace += 's';
      consumer.sleep();
    }
  }));
  for (int i = 0; i < 20; i++) {
    trace += 'm';
    consumer.signal();
    tsp_sched_yield();
  }
  ref::settle();
  consumer.stop = true;
  consumer.signal();
  for (const pthread_t thread : threads) join_thread(thread);
  return trace;
}

TEST_F(Scheduler, SeedFixesTheOrderOfTurns) {
  const auto run = [this](uint64_t seed) {
    return seeded_run(
        seed, [this](Body body) { return start(std::move(body)); }, [](pthread_t thread) { join(thread); });
  };
  const std::string first = run(1), other = run(2);
  EXPECT_NE(first, other);
  for (int i = 0; i < 20; i++) {
    ASSERT_EQ(run(1), first);
    ASSERT_EQ(run(2), other);
  }
}

// Between the test for work and the wait nothing can be signalled: no wake-up is lost.
TEST_F(Scheduler, WaitOnAConditionLosesNoSignal) {
  ref::clock_use_real(1);
  Consumer consumer;
  const pthread_t thread = start([&] {
    while (!consumer.stop) {
      if (consumer.work == 0) {
        consumer.sleep();
        continue;
      }
      consumer.work--;
      consumer.done++;
    }
  });
  for (int i = 0; i < 20000; i++) {
    consumer.work++;
    consumer.signal();
    if (i % 7 == 0) tsp_sched_yield();
    while (consumer.work > 3) tsp_sched_yield();
  }
  ref::settle();
  EXPECT_EQ(consumer.done, 20000);
  consumer.stop = true;
  consumer.signal();
  join(thread);
}

TEST_F(Scheduler, SettleWaitsForWhatWasSignalled) {
  Consumer consumer;
  const pthread_t thread = start([&] {
    while (!consumer.stop) {
      consumer.sleep();
      consumer.done++;
      if (consumer.done % 2 == 1) ref::post([&] { consumer.signal(); });  // work for the main loop, then for itself
    }
  });
  ref::settle();
  EXPECT_EQ(consumer.done, 0);
  for (int i = 1; i <= 100; i++) {
    consumer.signal();
    ref::settle();
    ASSERT_EQ(consumer.done, 2 * i);
  }
  consumer.stop = true;
  consumer.signal();
  join(thread);
}

// A signal wakes one sleeper of several, whichever the system picks.
TEST_F(Scheduler, SettleKnowsWhichOfSeveralSleepersWoke) {
  Consumer consumer;
  std::vector<pthread_t> threads;
  for (int i = 0; i < 4; i++)
    threads.push_back(start([&] {
      while (!consumer.stop) {
        consumer.sleep();
        consumer.done++;
      }
    }));
  ref::settle();
  for (int i = 1; i <= 200; i++) {
    consumer.signal();
    ref::settle();
    ASSERT_EQ(consumer.done, i);
  }
  consumer.stop = true;
  for (size_t i = 0; i < threads.size(); i++) consumer.signal();
  for (const pthread_t thread : threads) join(thread);
}

TEST_F(Scheduler, WriteLockIsRecursiveAndKeepsOthersOut) {
  const auto take = [] {
    pim_wrlock_count++;
    tsp_lock_acquire_wrlock(pim_shm_wrlock);
  };
  take();
  take();
  EXPECT_EQ(pim_wrlock_count, 2u);
  const pthread_t thread = start([&] {
    trace_ += 'w';
    take();
    trace_ += 'x';
    pim_release_wrlock();
  });
  ref::settle();  // a thread that waits for the lock has nothing to do
  EXPECT_EQ(trace_, "w");
  pim_release_wrlock();
  ref::settle();
  EXPECT_EQ(trace_, "w");
  pim_release_wrlock();
  ref::settle();
  EXPECT_EQ(trace_, "wx");
  join(thread);
  EXPECT_EQ(pim_wrlock_count, 0u);
}

TEST_F(Scheduler, SliceEndsOnlyWhenSomebodyWaits) {
  const auto calls_until_yes = [] {
    int calls = 1;
    while (calls < 10000 && tsp_should_sched_yield() == 0) calls++;
    return calls;
  };
  EXPECT_EQ(calls_until_yes(), 10000);
  const pthread_t thread = start([] { tsp_sched_yield(); });
  const int slice = calls_until_yes();
  EXPECT_LT(slice, 10000);
  EXPECT_NE(tsp_should_sched_yield(), 0);  // until it is done
  tsp_sched_yield();
  EXPECT_EQ(calls_until_yes(), slice);
  join(thread);
}

}  // namespace
