// Threads and the scheduling locks: one baton for all threads that touch module records.
//
// One mutex guards the baton's state. A thread that wants the baton while it is taken waits in a queue; whoever gives it
// up hands it straight to the next in the queue, so a thread that takes it again at once cannot overtake those that
// waited. The next is the first to come, or a seeded choice, which makes an interleaving repeatable.
//
// settle() needs to know when nothing can run any more. A module thread is either asleep, that is inside a condition
// wait that was made known here and not signalled since, or it runs, wants the baton, or is about to.
#include "thread.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <deque>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "internal.h"

namespace ref {
namespace {

using namespace std::chrono_literals;

// A thread that wants the baton.
struct Waiter {
  pthread_cond_t granted = PTHREAD_COND_INITIALIZER;
  bool has_baton = false;
};

// A thread started through the contract.
struct ModuleThread {
  std::atomic<const void *> asleep_on{nullptr};  // condition; null: not asleep
};

struct State {
  bool busy = false;  // somebody has the baton
  std::deque<Waiter *> waiting;
  std::vector<ModuleThread *> threads;
  bool seeded = false;
  std::mt19937_64 generator;
  std::function<bool()> yield_hook;
  uint64_t turns = 0;  // how often the baton went to somebody
  unsigned slice_calls = 0;
  std::chrono::steady_clock::time_point slice_start;
};
State state;
pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t changed = PTHREAD_COND_INITIALIZER;  // a thread fell asleep, ended, or gave the baton up

thread_local bool holds = false;
thread_local bool has_mutex = false;  // between the two calls that bracket a wait on a condition
thread_local ModuleThread *self = nullptr;

constexpr unsigned kCallsPerSlice = 64;  // stepped clock: calls of tsp_should_sched_yield before it says yes
constexpr auto kSlice = 5ms;             // real clock

// Waits of the baton itself must not be places where a thread can end.
class NoCancellation {
 public:
  NoCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &previous_); }
  ~NoCancellation() { pthread_setcancelstate(previous_, nullptr); }

 private:
  int previous_ = 0;
};

void begin_slice() {
  state.turns++;
  state.slice_calls = 0;
  state.slice_start = std::chrono::steady_clock::now();
}

// With the mutex held.
void acquire_locked() {
  if (!state.busy && state.waiting.empty()) {
    state.busy = true;
  } else {
    Waiter waiter;
    state.waiting.push_back(&waiter);
    while (!waiter.has_baton) pthread_cond_wait(&waiter.granted, &mutex);
    pthread_cond_destroy(&waiter.granted);
  }
  holds = true;
  begin_slice();
}

// With the mutex held: the baton goes to the next thread, or lies free.
void release_locked() {
  holds = false;
  if (state.waiting.empty()) {
    state.busy = false;
    pthread_cond_broadcast(&changed);
    return;
  }
  const size_t next = state.seeded ? state.generator() % state.waiting.size() : 0;
  Waiter *waiter = state.waiting[next];
  state.waiting.erase(state.waiting.begin() + static_cast<std::ptrdiff_t>(next));
  waiter->has_baton = true;
  pthread_cond_signal(&waiter->granted);
}

void acquire() {
  const NoCancellation guard;
  pthread_mutex_lock(&mutex);
  acquire_locked();
  pthread_mutex_unlock(&mutex);
}

void release() {
  const NoCancellation guard;
  pthread_mutex_lock(&mutex);
  release_locked();
  pthread_mutex_unlock(&mutex);
}

// Gives the baton to those that wait and takes it again; false when nobody waits.
bool pass_on() {
  const NoCancellation guard;
  pthread_mutex_lock(&mutex);
  const bool others = !state.waiting.empty();
  if (others) {
    release_locked();
    acquire_locked();
  }
  pthread_mutex_unlock(&mutex);
  return others;
}

struct Start {
  void *(*body)(void *);
  void *argument;
  std::string name;
  ModuleThread record;
};

// Registered from before a thread's first instruction until after its last, however it ends.
class Registration {
 public:
  explicit Registration(ModuleThread *record) : record_(record) { self = record; }
  ~Registration() {
    const NoCancellation guard;
    pthread_mutex_lock(&mutex);
    if (holds) release_locked();
    state.threads.erase(std::find(state.threads.begin(), state.threads.end(), record_));
    pthread_cond_broadcast(&changed);
    pthread_mutex_unlock(&mutex);
  }

 private:
  ModuleThread *record_;
};

void *run_thread(void *argument) {
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  const std::unique_ptr<Start> start(static_cast<Start *>(argument));
  const Registration registration(&start->record);
  pthread_setname_np(pthread_self(), start->name.substr(0, 15).c_str());
  acquire();
  return start->body(start->argument);
}

bool all_asleep() {
  return std::all_of(state.threads.begin(), state.threads.end(),
                     [](const ModuleThread *thread) { return thread->asleep_on != nullptr; });
}

// Waits on `changed`, with the mutex held, until the condition holds; false after ten seconds.
template <typename Condition>
bool wait_for_change(Condition condition) {
  timespec limit;
  clock_gettime(CLOCK_REALTIME, &limit);
  limit.tv_sec += 10;
  while (!condition())
    if (pthread_cond_timedwait(&changed, &mutex, &limit) == ETIMEDOUT) return condition();
  return true;
}

}  // namespace

void main_acquire() { acquire(); }
void main_release() { release(); }
bool locks_held() { return holds; }

void scheduler_use_fifo() { state.seeded = false; }
void scheduler_use_seed(uint64_t seed) {
  state.seeded = true;
  state.generator.seed(seed);
}

size_t thread_count() {
  pthread_mutex_lock(&mutex);
  const size_t count = state.threads.size();
  pthread_mutex_unlock(&mutex);
  return count;
}

bool wait_for_threads() {
  pthread_mutex_lock(&mutex);
  const bool held = holds;
  if (held) release_locked();
  const bool ended = wait_for_change([] { return state.threads.empty(); });
  if (held) acquire_locked();
  pthread_mutex_unlock(&mutex);
  return ended;
}

bool let_threads_sleep() {
  pthread_mutex_lock(&mutex);
  release_locked();
  const bool asleep = wait_for_change([] { return all_asleep() && !state.busy; });
  acquire_locked();
  pthread_mutex_unlock(&mutex);
  return asleep;
}

void note_condition_wait(const void *condition) {
  if (self == nullptr) return;
  // With the mutex, so that settle() cannot miss it between its test and its wait; the contract's own wait has it.
  const NoCancellation guard;
  if (!has_mutex) pthread_mutex_lock(&mutex);
  self->asleep_on = condition;
  pthread_cond_broadcast(&changed);
  if (!has_mutex) pthread_mutex_unlock(&mutex);
}

void note_condition_woken(const void *) {
  if (self != nullptr) self->asleep_on = nullptr;
}

void note_condition_signal(const void *condition) {
  const NoCancellation guard;
  pthread_mutex_lock(&mutex);
  for (ModuleThread *thread : state.threads)
    if (thread->asleep_on == condition) {
      thread->asleep_on = nullptr;
      break;
    }
  pthread_mutex_unlock(&mutex);
}

void set_yield_hook(std::function<bool()> hook) { state.yield_hook = std::move(hook); }

bool run_yield_hook() { return state.yield_hook ? state.yield_hook() : false; }

void sched_reset() {
  scheduler_use_fifo();
  state.yield_hook = nullptr;
  if (!holds) acquire();
}

}  // namespace ref

using namespace ref;

struct tsp_lock {
  pthread_t owner;
  uint32_t depth;  // 0: free
};

static tsp_lock write_lock;
tsp_lock *pim_shm_wrlock = &write_lock;

void tsp_lock_acquire_wrlock(tsp_lock *lock) {
  while (lock->depth > 0 && !pthread_equal(lock->owner, pthread_self()))
    if (!pass_on()) {
      release();
      acquire();
    }
  lock->owner = pthread_self();
  lock->depth++;
}

void pim_release_wrlock() {
  if (pim_wrlock_count > 0) pim_wrlock_count--;
  if (write_lock.depth > 0) write_lock.depth--;
}

int quillon_pthread_attr_init(pthread_attr_t *attributes) { return pthread_attr_init(attributes); }

int quillon_pthread_create(pthread_t *handle, const pthread_attr_t *attributes, void *(*body)(void *), void *argument,
                           const char *name) {
  auto start = std::make_unique<Start>();
  start->body = body;
  start->argument = argument;
  start->name = name;
  pthread_mutex_lock(&mutex);
  state.threads.push_back(&start->record);
  pthread_mutex_unlock(&mutex);
  const int error = pthread_create(handle, attributes, run_thread, start.get());
  if (error != 0) {
    pthread_mutex_lock(&mutex);
    state.threads.erase(std::find(state.threads.begin(), state.threads.end(), &start->record));
    pthread_mutex_unlock(&mutex);
    return error;
  }
  start.release();
  return 0;
}

int tsp_sched_may_yield() {
  const bool hooked = run_yield_hook();
  return pass_on() || hooked ? 1 : 0;
}

void tsp_sched_yield() { tsp_sched_may_yield(); }

int tsp_should_sched_yield() {
  pthread_mutex_lock(&mutex);
  const bool others = !state.waiting.empty();
  pthread_mutex_unlock(&mutex);
  if (!others) return 0;
  if (clock_scale() == 0) return ++state.slice_calls % kCallsPerSlice == 0 ? 1 : 0;
  return std::chrono::steady_clock::now() - state.slice_start > kSlice ? 1 : 0;
}

void tsp_before_yield() { release(); }
void tsp_after_yield() { acquire(); }

pthread_mutex_t *tsp_release_locks_before_yield(uint32_t, uint32_t) {
  const NoCancellation guard;
  pthread_mutex_lock(&mutex);
  has_mutex = true;
  release_locked();
  return &mutex;
}

void tsp_acquire_locks_after_yield(uint32_t, uint32_t) {
  const NoCancellation guard;
  acquire_locked();
  has_mutex = false;
  pthread_mutex_unlock(&mutex);
}
