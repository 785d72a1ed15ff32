// Threads, the scheduling locks, waits on conditions, the write lock.
//
// A check cannot wait for the moment at which a thread does something wrong, so it makes many turns and looks for one
// that cannot be. A platform that keeps the contract never fails here, however fast its threads are.
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "conformance/runner.h"

using namespace conformance;

namespace {

using namespace std::chrono_literals;
using Body = std::function<void()>;

constexpr int most_yields = 200'000;  // after which a thread that has not run is not going to

// Bodies outlive their threads.
pthread_t start(Body body) {
  static std::deque<Body> bodies;
  bodies.push_back(std::move(body));
  pthread_t handle{};
  const int error = platform.quillon_pthread_create(
      &handle, nullptr,
      [](void *argument) -> void * {
        (*static_cast<Body *>(argument))();
        return nullptr;
      },
      &bodies.back(), "a thread with a name that is longer than most");
  if (error != 0) throw Abandoned{};
  return handle;
}

void join(pthread_t handle) {
  platform.tsp_before_yield();
  pthread_join(handle, nullptr);
  platform.tsp_after_yield();
}

bool yield_until(const std::function<bool()> &condition) {
  for (int i = 0; i < most_yields && !condition(); i++) {
    platform.tsp_sched_may_yield();
    if (i % 1000 == 999) driver.run(1);
  }
  return condition();
}

void unlock(void *mutex) { pthread_mutex_unlock(static_cast<pthread_mutex_t *>(mutex)); }

// A consumer that sleeps the way the module's worker does.
struct Consumer {
  void sleep() {
    pthread_mutex_t *mutex = platform.tsp_release_locks_before_yield(0, 0);
    pthread_cleanup_push(unlock, mutex);
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    pthread_cond_wait(&condition, mutex);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    pthread_cleanup_pop(0);
    platform.tsp_acquire_locks_after_yield(0, 0);
  }
  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  int work = 0, done = 0;
  bool stop = false;
};

}  // namespace

CHECK(thread, "a thread starts with the locks, its handle stored, cancellation disabled") {
  std::atomic<bool> ran = false;
  struct Seen {
    pthread_t handle{};
    bool same = false;
    int cancellation = -1;
    std::atomic<bool> *ran;
  } seen;
  seen.ran = &ran;
  pthread_attr_t attributes;
  REQUIRE(platform.quillon_pthread_attr_init(&attributes) == 0);
  REQUIRE(platform.quillon_pthread_create(
              &seen.handle, &attributes,
              [](void *argument) -> void * {
                auto *at = static_cast<Seen *>(argument);
                at->same = pthread_equal(at->handle, pthread_self()) != 0;
                pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &at->cancellation);
                *at->ran = true;
                return nullptr;
              },
              &seen, "starter") == 0);
  for (int i = 0; i < 20; i++) std::this_thread::sleep_for(1ms);
  EXPECT(!ran);  // the creator has the locks until it gives them up
  join(seen.handle);
  EXPECT(ran);
  EXPECT(seen.same);
  EXPECT_EQUAL(seen.cancellation, int{PTHREAD_CANCEL_DISABLE});
}

CHECK(thread, "one thread runs at a time") {
  int inside = 0, most = 0, turns = 0;
  const auto take_turns = [&] {
    for (int i = 0; i < 300; i++) {
      most = std::max(most, ++inside);
      std::this_thread::sleep_for(10us);
      turns++;
      inside--;
      platform.tsp_sched_yield();
    }
  };
  const pthread_t threads[] = {start(take_turns), start(take_turns), start(take_turns)};
  for (const pthread_t thread : threads) join(thread);
  EXPECT_EQUAL(most, 1);
  EXPECT_EQUAL(turns, 900);
}

CHECK(thread, "a yield tells whether another thread ran") {
  EXPECT(platform.tsp_sched_may_yield() == 0);
  int counter = 0;
  std::atomic<bool> stop = false;
  const pthread_t thread = start([&] {
    for (; !stop; counter++) platform.tsp_sched_may_yield();
  });
  int mistaken = 0;
  EXPECT(yield_until([&] { return counter > 0; }));
  for (int i = 0; i < 2000; i++) {
    const int before = counter;
    const bool said = platform.tsp_sched_may_yield() != 0;
    if (said != (counter != before)) mistaken++;
  }
  EXPECT_EQUAL(mistaken, 0);
  stop = true;
  join(thread);
}

CHECK(thread, "a thread that takes the locks again at once does not overtake those that waited") {
  std::string trace;
  std::vector<pthread_t> threads;
  bool stop = false;
  for (const char name : {'a', 'b', 'c'})
    threads.push_back(start([&trace, &stop, name] {
      while (!stop) {
        trace += name;
        platform.tsp_sched_yield();
      }
    }));
  const auto all_run = [&] {
    return std::all_of(threads.begin(), threads.end(), [&, n = 0](pthread_t) mutable {
      return trace.find(static_cast<char>('a' + n++)) != trace.npos;
    });
  };
  EXPECT(yield_until(all_run));
  trace.clear();
  for (int i = 0; i < 500; i++) {
    trace += 'm';
    platform.tsp_sched_yield();
  }
  stop = true;
  for (const pthread_t thread : threads) join(thread);
  // Everybody waits all the time, so between two turns of one thread each other one has its turn.
  size_t starved = 0;
  for (size_t last = 0, next; (next = trace.find('m', last + 1)) != trace.npos; last = next)
    if (next - last != 4) starved++;
  EXPECT_EQUAL(starved, size_t{0});
}

CHECK(thread, "the locks come back however a thread ends") {
  const std::pair<const char *, Body> ways[] = {
      {"return", [] {}},
      {"exit", [] { pthread_exit(nullptr); }},
      {"return without the locks", [] { platform.tsp_before_yield(); }},
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
    bool ran = false;
    const pthread_t ends = start(body), waits = start([&ran] { ran = true; });
    join(ends);
    join(waits);
    if (!ran) differs(__FILE__, __LINE__, std::string("no thread runs after one that ended so: ") + way);
  }
}

CHECK(thread, "no operation is a cancellation point") {
  std::string trace;
  const pthread_t thread = start([&] {
    pthread_cancel(pthread_self());
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    platform.tsp_sched_yield();
    platform.tsp_sched_may_yield();
    platform.tsp_should_sched_yield();
    platform.tsp_before_yield();
    platform.tsp_after_yield();
    platform.tsp_release_locks_before_yield(0, 0);
    platform.tsp_acquire_locks_after_yield(0, 0);
    platform.buginf("a line\n");
    platform.syslog_log(6, "a line");
    platform.mtrack_free(platform.mtrack_alloc(MTRACK_IDENTITY_PIM, MTRACK_MVPN_GENERAL, 64));
    trace += 'b';
    pthread_testcancel();
    trace += 'c';
  });
  join(thread);
  EXPECT_EQUAL(trace, "b");
}

CHECK(thread, "a wait on a condition loses no signal") {
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
  for (int i = 0; i < 5000; i++) {
    consumer.work++;
    pthread_cond_signal(&consumer.condition);
    if (i % 7 == 0) platform.tsp_sched_yield();
    if (consumer.work > 3 && !yield_until([&] { return consumer.work <= 3; })) break;
  }
  EXPECT(yield_until([&] { return consumer.done == 5000; }));
  consumer.stop = true;
  pthread_cond_signal(&consumer.condition);
  join(thread);
}

CHECK(thread, "a share of time ends only when somebody waits") {
  EXPECT(platform.tsp_should_sched_yield() == 0);
  for (int i = 0; i < 5000; i++)
    if (platform.tsp_should_sched_yield() != 0) {
      differs(__FILE__, __LINE__, "a thread that is alone is asked to yield");
      break;
    }
  bool stop = false, ran = false;
  const pthread_t thread = start([&] {
    ran = true;
    while (!stop) platform.tsp_sched_yield();
  });
  EXPECT(yield_until([&] { return ran; }));
  const auto end = std::chrono::steady_clock::now() + 10s;
  bool asked = false;
  while (!asked && std::chrono::steady_clock::now() < end) asked = platform.tsp_should_sched_yield() != 0;
  EXPECT(asked);
  stop = true;
  join(thread);
}

CHECK(thread, "the write lock is recursive, counted, and keeps other threads out") {
  const auto take = [] {
    (*platform.pim_wrlock_count)++;
    platform.tsp_lock_acquire_wrlock(*platform.pim_shm_wrlock);
  };
  take();
  take();
  EXPECT_EQUAL(*platform.pim_wrlock_count, 2u);
  std::string trace;
  const pthread_t thread = start([&] {
    trace += 'w';
    take();
    trace += 'x';
    platform.pim_release_wrlock();
  });
  EXPECT(yield_until([&] { return !trace.empty(); }));
  driver.run(100);
  EXPECT_EQUAL(trace, "w");
  platform.pim_release_wrlock();
  driver.run(100);
  EXPECT_EQUAL(trace, "w");
  platform.pim_release_wrlock();
  EXPECT(yield_until([&] { return trace == "wx"; }));
  join(thread);
  EXPECT_EQUAL(*platform.pim_wrlock_count, 0u);
}

CHECK(thread, "eight printed texts share a message, and threads do not share them") {
  std::vector<const char *> texts;
  for (uint32_t i = 1; i <= 8; i++) texts.push_back(platform.ip_print_addr(i));
  join(start([] {
    for (int i = 0; i < 20; i++) platform.ip_print_addr(0xFFFFFFFF);
  }));
  for (uint32_t i = 1; i <= 8; i++) EXPECT_EQUAL(std::string(texts[i - 1]), "0.0.0." + std::to_string(i));
}
