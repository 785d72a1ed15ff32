// Threads and the scheduling locks: one baton for all threads that touch module records.
//
// One mutex guards the baton's state. A thread that wants the baton queues up; whoever gives it up hands it to the next
// in the queue, so a thread that takes it again at once cannot overtake those that waited. The queue is ordered by
// tickets. A thread draws its ticket when it becomes able to run: when it is started, when the condition it sleeps on
// is signalled, otherwise when it asks for the baton. The next thread is the one with the lowest ticket, or a seeded
// choice.
//
// With a stepped clock the order of turns is repeatable: whoever gives the baton up first waits for the threads that
// are on their way to it (started or signalled, but not in the queue yet). How long the system takes to wake a thread
// then makes no difference.
//
// Only one of these threads runs at a time, so the system finds another processor idle whenever it wakes one, and all
// that the last one wrote would have to follow from cache to cache. Who gets the baton therefore wakes where the last
// one had it, and from there on runs where the system likes.
//
// settle() needs to know when nothing can run any more. A module thread is asleep, that is inside a condition wait that
// was made known here and not signalled since, or waiting for the write lock; or it is coming; or it is active: it has
// the baton, waits for it, or blocks somewhere else. A thread that blocks elsewhere is unknown and counts as active.
//
// Nothing here is a cancellation point, and a thread that ends, in whatever way, gives the baton back on its way out.
#include "platform/thread.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "platform/pim.h"
#include "platform/reference/address_sanitizer.h"
#include "platform/reference/internal.h"
#include "platform/reference/testing/runtime.h"

#if WATCHED_BY_ADDRESS_SANITIZER
#include <sanitizer/asan_interface.h>
#endif

struct tsp_lock {
  pthread_t owner;
  uint32_t depth;  // 0: free
};

namespace ref {
namespace {

using namespace std::chrono_literals;

// A thread that wants the baton.
struct Waiter {
  uint64_t ticket;
  pthread_cond_t *granted;
  pid_t thread;
  bool has_baton = false;
  bool moved = false;      // it may run on one processor only until it has found out that it has the baton
  cpu_set_t processors{};  // those that it may run on otherwise; when moved
};

// A thread started through the contract.
struct Member {
  enum class Phase { coming, active, asleep };
  Phase phase = Phase::coming;
  const void *condition = nullptr;  // what it sleeps on, or was woken from
  uint64_t ticket = 0;              // while it is coming
};
using Phase = Member::Phase;

// The first group belongs to the mutex, the second to whoever has the baton.
struct State {
  bool busy = false;              // somebody has the baton
  std::vector<Waiter *> waiting;  // by ticket
  // Lives on when the process ends: threads that still wait are not to find it gone.
  std::vector<pthread_cond_t *> &spare_conditions = *new std::vector<pthread_cond_t *>;
  std::vector<Member *> members;
  uint64_t next_ticket = 0;
  uint64_t turns = 0;          // how often the baton went to somebody
  uint64_t lock_releases = 0;  // how often the write lock became free
  bool repeatable = true;      // changed by whoever has the baton too, who may read it without the mutex
  bool seeded = false;
  std::mt19937_64 generator;

  std::function<bool()> yield_hook;
  unsigned slice_calls = 0;
  std::chrono::steady_clock::time_point slice_start;
};
State state;
pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t changed = PTHREAD_COND_INITIALIZER;  // a member's phase, the members, or the baton lies free
pthread_cond_t lock_freed = PTHREAD_COND_INITIALIZER;
tsp_lock write_lock;

thread_local bool holds = false;
thread_local bool has_mutex = false;             // between the two calls that bracket a wait on a condition
thread_local pthread_cond_t *granted = nullptr;  // of the thread that was given the baton and is not told yet
thread_local Member *self = nullptr;             // null: not started through the contract

constexpr unsigned calls_per_slice = 64;  // repeatable: calls of tsp_should_sched_yield before it says yes
constexpr auto slice = 5ms;               // otherwise
constexpr unsigned calls_a_look = 16;     // at the clock: callers ask after each of many small things
constexpr auto main_slice = 500us;        // of the main loop, while others wait

// A thread is told that it has the baton when the mutex is free again, since it takes the mutex first: told before, it
// runs at once, waits for the mutex, and hands change twice more. Its condition may be somebody else's by then, who
// finds out that he has no baton.
void tell_granted() {
  if (granted != nullptr) pthread_cond_signal(std::exchange(granted, nullptr));
}

// The mutex, unless the thread has it already from tsp_release_locks_before_yield.
class Locked {
 public:
  Locked() : mine_(!has_mutex) {
    if (mine_) pthread_mutex_lock(&mutex);
  }
  ~Locked() {
    if (!mine_) return;
    pthread_mutex_unlock(&mutex);
    tell_granted();
  }
  Locked(const Locked &) = delete;
  Locked &operator=(const Locked &) = delete;

 private:
  const NoCancellation no_cancellation_;
  const bool mine_;
};

// All functions up to the next rule run with the mutex held.

// Waits until the condition holds; false after ten seconds.
template <typename Condition>
bool wait_for_change(Condition condition) {
  timespec limit;
  clock_gettime(CLOCK_REALTIME, &limit);
  limit.tv_sec += 10;
  tell_granted();
  while (!condition())
    if (pthread_cond_timedwait(&changed, &mutex, &limit) == ETIMEDOUT) return condition();
  return true;
}

bool any_in(Phase phase) {
  return std::any_of(state.members.begin(), state.members.end(),
                     [phase](const Member *member) { return member->phase == phase; });
}

bool others_can_run() { return !state.waiting.empty() || (state.repeatable && any_in(Phase::coming)); }

void set_phase(Member *member, Phase phase) {
  member->phase = phase;
  pthread_cond_broadcast(&changed);
}

void wake(Member *member) {
  member->ticket = state.next_ticket++;
  set_phase(member, Phase::coming);
}

// The waiter will wake on the caller's processor. Where the system refuses that, it wakes anywhere.
void move_here(Waiter *waiter) {
  cpu_set_t here;
  CPU_ZERO(&here);
  CPU_SET(sched_getcpu(), &here);
  waiter->moved = sched_getaffinity(waiter->thread, sizeof waiter->processors, &waiter->processors) == 0 &&
                  sched_setaffinity(waiter->thread, sizeof here, &here) == 0;
}

// The baton goes to the next thread when it is free.
void hand_on() {
  if (state.busy || state.waiting.empty()) return;
  const size_t next = state.seeded ? state.generator() % state.waiting.size() : 0;
  Waiter *waiter = state.waiting[next];
  state.waiting.erase(state.waiting.begin() + static_cast<std::ptrdiff_t>(next));
  state.busy = true;
  state.turns++;
  waiter->has_baton = true;
  if (waiter->thread != gettid()) move_here(waiter);
  granted = waiter->granted;
}

pthread_cond_t *take_condition() {
  if (state.spare_conditions.empty()) return new pthread_cond_t PTHREAD_COND_INITIALIZER;
  pthread_cond_t *condition = state.spare_conditions.back();
  state.spare_conditions.pop_back();
  return condition;
}

uint64_t ticket_of_caller() {
  return self != nullptr && self->phase == Phase::coming ? self->ticket : state.next_ticket++;
}

void acquire_locked() {
  Waiter waiter{ticket_of_caller(), take_condition(), gettid()};
  const auto place = std::find_if(state.waiting.begin(), state.waiting.end(),
                                  [&waiter](const Waiter *other) { return other->ticket > waiter.ticket; });
  state.waiting.insert(place, &waiter);
  if (self != nullptr && self->phase != Phase::active) set_phase(self, Phase::active);
  hand_on();
  if (granted != nullptr && !waiter.has_baton) {
    pthread_mutex_unlock(&mutex);
    tell_granted();
    pthread_mutex_lock(&mutex);
  }
  granted = nullptr;
  while (!waiter.has_baton) pthread_cond_wait(waiter.granted, &mutex);
  if (waiter.moved) sched_setaffinity(waiter.thread, sizeof waiter.processors, &waiter.processors);
  state.spare_conditions.push_back(waiter.granted);
  holds = true;
  state.slice_calls = 0;
  state.slice_start = std::chrono::steady_clock::now();
}

void release_locked() {
  if (state.repeatable) wait_for_change([] { return !any_in(Phase::coming); });
  holds = false;
  state.busy = false;
  hand_on();
  if (!state.busy) pthread_cond_broadcast(&changed);
}

void drop_member(Member *member) {
  state.members.erase(std::find(state.members.begin(), state.members.end(), member));
  pthread_cond_broadcast(&changed);
}

bool all_quiet() { return !state.busy && state.waiting.empty() && !any_in(Phase::coming) && !any_in(Phase::active); }

// ---------------------------------------------------------------------------------------------------------------------

void acquire() {
  const Locked locked;
  acquire_locked();
}

void release() {
  const Locked locked;
  release_locked();
}

// Sleeps until the write lock has become free once more.
void wait_for_write_lock() {
  const Locked locked;
  const uint64_t seen = state.lock_releases;
  if (self != nullptr) {
    self->condition = &write_lock;
    set_phase(self, Phase::asleep);
  }
  release_locked();
  tell_granted();
  while (state.lock_releases == seen) pthread_cond_wait(&lock_freed, &mutex);
  acquire_locked();
}

struct Start {
  void *(*body)(void *);
  void *argument;
  std::string name;
  Member member;
};

// A cancelled thread unwinds its frames without a word to the address sanitizer, which then takes what runs in their
// place for an overflow. Called where code runs on the way out of a thread.
#if WATCHED_BY_ADDRESS_SANITIZER
__attribute__((noinline, no_sanitize("address"))) void forget_unwound_frames() {
  constexpr size_t kDeepest = 65536;  // bytes of stack that unwound frames may have taken
  __asan_unpoison_memory_region(static_cast<char *>(__builtin_frame_address(0)) - kDeepest, kDeepest);
}
#else
void forget_unwound_frames() {}
#endif

// A member from before a thread's first instruction until after its last, however it ends.
class Membership {
 public:
  explicit Membership(Member *member) { self = member; }
  ~Membership() {
    forget_unwound_frames();
    has_mutex = false;  // who was cancelled in the contract's wait has given the mutex back
    const Locked locked;
    if (holds) release_locked();
    drop_member(self);
    self = nullptr;
  }
  Membership(const Membership &) = delete;
  Membership &operator=(const Membership &) = delete;
};

void *run_thread(void *argument) {
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  const std::unique_ptr<Start> start(static_cast<Start *>(argument));
  const Membership membership(&start->member);
  pthread_setname_np(pthread_self(), start->name.substr(0, 15).c_str());
  acquire();
  return start->body(start->argument);
}

}  // namespace

void main_acquire() { acquire(); }
void main_release() { release(); }

void scheduler_use_fifo() {
  const Locked locked;
  state.seeded = false;
}

void scheduler_use_seed(uint64_t seed) {
  const Locked locked;
  state.seeded = true;
  state.generator.seed(seed);
}

void scheduler_set_repeatable(bool on) {
  const Locked locked;
  state.repeatable = on;
}

size_t thread_count() {
  const Locked locked;
  return state.members.size();
}

bool wait_for_threads() {
  const Locked locked;
  const bool held = holds;
  if (held) release_locked();
  const bool ended = wait_for_change([] { return state.members.empty(); });
  if (held) acquire_locked();
  return ended;
}

bool let_threads_sleep() {
  const Locked locked;
  release_locked();
  const bool quiet = wait_for_change(all_quiet);
  acquire_locked();
  return quiet;
}

bool pass_baton() {
  const Locked locked;
  if (!others_can_run()) return false;
  const uint64_t before = state.turns;
  release_locked();
  acquire_locked();
  return state.turns > before + 1;  // one turn is the caller's own
}

void offer_baton(bool more_to_do) {
  if (more_to_do && !state.repeatable && std::chrono::steady_clock::now() - state.slice_start < main_slice) return;
  pass_baton();
}

void note_condition_wait(const void *condition) {
  if (self == nullptr) return;
  const Locked locked;
  self->condition = condition;
  set_phase(self, Phase::asleep);
}

// The system may have woken another thread than the one that a signal was put down to; the two change places.
void note_condition_woken(const void *condition) {
  if (self == nullptr) return;
  const Locked locked;
  if (self->phase == Phase::coming) return;
  const auto other = std::find_if(state.members.begin(), state.members.end(), [condition](const Member *member) {
    return member->phase == Phase::coming && member->condition == condition;
  });
  wake(self);
  if (other == state.members.end()) return;
  self->ticket = (*other)->ticket;
  set_phase(*other, Phase::asleep);
}

void note_condition_signal(const void *condition) {
  const Locked locked;
  const auto sleeper = std::find_if(state.members.begin(), state.members.end(), [condition](const Member *member) {
    return member->phase == Phase::asleep && member->condition == condition;
  });
  if (sleeper != state.members.end()) wake(*sleeper);
}

void set_yield_hook(std::function<bool()> hook) { state.yield_hook = std::move(hook); }

void sched_reset() {
  scheduler_use_fifo();
  if (!holds) acquire();
  state.yield_hook = nullptr;
  write_lock = tsp_lock{};
}

}  // namespace ref

using namespace ref;

tsp_lock *pim_shm_wrlock = &write_lock;

void tsp_lock_acquire_wrlock(tsp_lock *lock) {
  while (lock->depth > 0 && pthread_equal(lock->owner, pthread_self()) == 0) wait_for_write_lock();
  lock->owner = pthread_self();
  lock->depth++;
}

void pim_release_wrlock() {
  if (pim_wrlock_count > 0) pim_wrlock_count--;
  if (write_lock.depth == 0 || --write_lock.depth > 0) return;
  const Locked locked;
  state.lock_releases++;
  for (Member *member : state.members)
    if (member->phase == Phase::asleep && member->condition == &write_lock) wake(member);
  pthread_cond_broadcast(&lock_freed);
}

int quillon_pthread_attr_init(pthread_attr_t *attributes) { return pthread_attr_init(attributes); }

int quillon_pthread_create(pthread_t *handle, const pthread_attr_t *attributes, void *(*body)(void *), void *argument,
                           const char *name) {
  auto start = std::make_unique<Start>(Start{body, argument, name, {}});
  const Locked locked;  // the thread gets no further than to its first request while the handle is being stored
  start->member.ticket = state.next_ticket++;
  state.members.push_back(&start->member);
  const int error = pthread_create(handle, attributes, run_thread, start.get());
  if (error != 0)
    drop_member(&start->member);
  else
    (void)start.release();  // the thread's now
  return error;
}

int tsp_sched_may_yield() {
  const bool hooked = state.yield_hook && state.yield_hook();
  return pass_baton() || hooked ? 1 : 0;
}

void tsp_sched_yield() { tsp_sched_may_yield(); }

int tsp_should_sched_yield() {
  if (!state.repeatable && ++state.slice_calls % calls_a_look != 0) return 0;
  const Locked locked;
  if (!others_can_run()) return 0;
  if (state.repeatable) return ++state.slice_calls >= calls_per_slice ? 1 : 0;
  return std::chrono::steady_clock::now() - state.slice_start >= slice ? 1 : 0;
}

void tsp_before_yield() { release(); }
void tsp_after_yield() {
  forget_unwound_frames();
  acquire();
}

pthread_mutex_t *tsp_release_locks_before_yield(uint32_t, uint32_t) {
  const NoCancellation no_cancellation;
  pthread_mutex_lock(&mutex);
  has_mutex = true;
  release_locked();
  tell_granted();  // the caller keeps the mutex
  return &mutex;
}

void tsp_acquire_locks_after_yield(uint32_t, uint32_t) {
  const NoCancellation no_cancellation;
  if (pthread_mutex_trylock(&mutex) == 0) {
    std::fputs("tsp_acquire_locks_after_yield: the caller has let go of the mutex\n", stderr);
    std::abort();
  }
  acquire_locked();
  has_mutex = false;
  pthread_mutex_unlock(&mutex);
}
