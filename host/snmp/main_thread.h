// The main thread, as the agent's thread sees it.
//
// What needs the scheduling locks is done there. The main thread may end while the agent's waits for a master that
// hangs: so this is shared by both, and closed by the one that goes.
#ifndef HOST_SNMP_MAIN_THREAD_H
#define HOST_SNMP_MAIN_THREAD_H

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace host::snmp {

class MainThread {
 public:
  using InTurn = std::function<void(std::function<void()>)>;
  using Log = std::function<void(const std::string &)>;

  // io: the main thread's event loop; from it the others are called. in_turn runs a function with the scheduling locks,
  // before it returns.
  MainThread(boost::asio::io_context &io, InTurn in_turn, Log log)
      : io_(io), in_turn_(std::move(in_turn)), log_(std::move(log)) {}

  // On the main thread: nothing is run from now on.
  void close() {
    const std::lock_guard lock(mutex_);
    closed_ = true;
    changed_.notify_all();
  }

  // On the agent's thread. Runs work on the main thread, with the scheduling locks, and waits for it; false when the
  // main thread wants nothing to do with it any more.
  static bool run(const std::shared_ptr<MainThread> &main, const std::function<void()> &work) {
    bool done = false;  // under the lock
    std::unique_lock lock(main->mutex_);
    if (main->closed_) return false;
    boost::asio::post(main->io_, [main, &work, &done] {
      // Closing happens on this thread too, so that work and done outlive this.
      if (main->closed()) return;
      main->in_turn_(work);
      const std::lock_guard again(main->mutex_);
      done = true;
      main->changed_.notify_all();
    });
    main->changed_.wait(lock, [&] { return done || main->closed_; });
    return done;
  }

  static void log(const std::shared_ptr<MainThread> &main, const std::string &text) {
    const std::lock_guard lock(main->mutex_);
    if (main->closed_) return;
    boost::asio::post(main->io_, [main, text] {
      if (!main->closed()) main->log_(text);
    });
  }

 private:
  bool closed() {
    const std::lock_guard lock(mutex_);
    return closed_;
  }

  boost::asio::io_context &io_;
  InTurn in_turn_;
  Log log_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool closed_ = false;
};

}  // namespace host::snmp

#endif  // HOST_SNMP_MAIN_THREAD_H
