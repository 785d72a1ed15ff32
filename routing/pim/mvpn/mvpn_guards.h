// Guards for paired platform operations, so that every return path releases what was taken. A guard may be held
// across a yield: the locks they stand for belong to the calling thread, not to a VRF.
#ifndef MVPN_GUARDS_H
#define MVPN_GUARDS_H

#include <cerrno>
#include <memory>

#include "platform/thread.h"
#include "routing/pim/mvpn/mvpn.h"

// The host's PIM write lock.
class pim_write_guard {
 public:
  pim_write_guard() {
    pim_wrlock_count += 1;
    tsp_lock_acquire_wrlock(pim_shm_wrlock);
  }
  ~pim_write_guard() { pim_release_wrlock(); }
  pim_write_guard(const pim_write_guard &) = delete;
  pim_write_guard &operator=(const pim_write_guard &) = delete;
};

// The MRIB's read lock.
class mrib_read_guard {
 public:
  mrib_read_guard() { mrib_acquire_rdlock(); }
  ~mrib_read_guard() { release(); }
  void release() {
    if (!held_) return;
    held_ = false;
    mrib_release_rdlock();
  }
  mrib_read_guard(const mrib_read_guard &) = delete;
  mrib_read_guard &operator=(const mrib_read_guard &) = delete;

 private:
  bool held_ = true;
};

// Bracket of a blocking call; keeps the errno of the call.
class yield_bracket {
 public:
  yield_bracket() { tsp_before_yield(); }
  ~yield_bracket() {
    const int saved = errno;
    tsp_after_yield();
    errno = saved;
  }
  yield_bracket(const yield_bracket &) = delete;
  yield_bracket &operator=(const yield_bracket &) = delete;
};

// Allows the calling thread to be cancelled inside its scope; threads run with cancellation disabled otherwise, since
// a thread that ended inside ordinary code would leave its records half changed.
class cancellation_scope {
 public:
  cancellation_scope() { pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &previous_); }
  ~cancellation_scope() { pthread_setcancelstate(previous_, nullptr); }
  cancellation_scope(const cancellation_scope &) = delete;
  cancellation_scope &operator=(const cancellation_scope &) = delete;

 private:
  int previous_ = PTHREAD_CANCEL_DISABLE;
};

// Tracked buffer that is freed at the end of its scope.
struct tracked_deleter {
  void operator()(void *buffer) const { mtrack_free(buffer); }
};
template <typename T>
using tracked_ptr = std::unique_ptr<T, tracked_deleter>;

#endif  // MVPN_GUARDS_H
