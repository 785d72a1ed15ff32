// The order of turns, what settles, and what a yield says. mvpn-contract-test has what a module may rely on.
#include <sched.h>

#include <deque>
#include <functional>
#include <string>
#include <thread>
#include <vector>

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
  int done = 0;
  bool stop = false;
};

TEST_F(Scheduler, YieldHookSaysWhetherAnotherThreadRan) {
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

std::vector<int> own_processors() {
  cpu_set_t set;
  EXPECT_EQ(sched_getaffinity(0, sizeof set, &set), 0);
  std::vector<int> processors;
  for (int processor = 0; processor < CPU_SETSIZE; processor++)
    if (CPU_ISSET(processor, &set)) processors.push_back(processor);
  return processors;
}

// The baton takes a thread to a processor for its awakening only, whatever the operator confined the thread to.
TEST_F(Scheduler, ThreadsKeepTheProcessorsThatTheyMayRunOn) {
  const std::vector<int> all = own_processors();
  std::vector<pthread_t> threads;
  for (const int processor : {all.front(), all.back()})
    threads.push_back(start([processor] {
      cpu_set_t one;
      CPU_ZERO(&one);
      CPU_SET(processor, &one);
      ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
      for (int i = 0; i < 50; i++) {
        tsp_sched_yield();
        ASSERT_EQ(own_processors(), std::vector<int>{processor});
      }
    }));
  threads.push_back(start([&all] {
    for (int i = 0; i < 50; i++) {
      tsp_sched_yield();
      ASSERT_EQ(own_processors(), all);
    }
  }));
  for (int i = 0; i < 50; i++) {
    tsp_sched_yield();
    ASSERT_EQ(own_processors(), all);
  }
  for (const pthread_t thread : threads) join(thread);
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

}  // namespace
