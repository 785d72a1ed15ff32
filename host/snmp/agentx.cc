// Threads. The library waits for the master's answers: a master that is alive and does not answer holds it up for a
// second at every request of an attempt, a minute in all, and one that takes no connection for longer. So the library,
// its objects and the event loop that drives it (Agent) belong to a thread of their own (Worker). The main thread does
// for it what needs the scheduling locks (MainThread): it collects a table in slices, between which the main loop goes
// on. The end does not wait for a master that hangs. The thread then keeps what it uses and finds the main thread
// closed.
#include "host/snmp/agentx.h"

#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

#include "host/snmp/agent.h"
#include "host/snmp/main_thread.h"

namespace host::snmp {
namespace {

constexpr std::chrono::milliseconds kPatienceAtEnd{500};  // with a library that waits for its master

}  // namespace

// The thread owns what it uses, so that it may outlive this object; what both use is shared.
class AgentX::Worker {
 public:
  Worker(boost::asio::io_context &main, std::string address, InTurn in_turn, Log log, Options options);
  ~Worker();
  void notify(Notification notification);

 private:
  struct Shared {
    std::shared_ptr<MainThread> main;
    Agent *agent = nullptr;           // of the thread, which alone uses it
    std::atomic<size_t> waiting = 0;  // notifications
    std::atomic<uint64_t> lost = 0;   // since fewer waited
    boost::asio::io_context io{1};
    std::mutex mutex;
    std::condition_variable changed;
    bool ended = false;
  };
  static void run(const std::shared_ptr<Shared> &shared, const std::string &address, Options options);
  static void serve(Shared &shared, const std::string &address, Options options);

  std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
  std::thread thread_;
};

// Signals are the main thread's.
AgentX::Worker::Worker(boost::asio::io_context &main, std::string address, InTurn in_turn, Log log, Options options) {
  static bool started = false;
  if (std::exchange(started, true)) throw std::runtime_error("the SNMP agent library starts once in a process");
  shared_->main = std::make_shared<MainThread>(main, std::move(in_turn), std::move(log));
  sigset_t all, former;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &former);
  thread_ = std::thread(run, shared_, std::move(address), options);
  pthread_sigmask(SIG_SETMASK, &former, nullptr);
}

AgentX::Worker::~Worker() {
  shared_->main->close();
  shared_->io.stop();
  std::unique_lock lock(shared_->mutex);
  const bool ended = shared_->changed.wait_for(lock, kPatienceAtEnd, [this] { return shared_->ended; });
  lock.unlock();
  ended ? thread_.join() : thread_.detach();
}

void AgentX::Worker::run(const std::shared_ptr<Shared> &shared, const std::string &address, Options options) {
  try {
    serve(*shared, address, options);
  } catch (const std::exception &error) {
    MainThread::log(shared->main, std::string("SNMP: ") + error.what());
  }
  const std::lock_guard lock(shared->mutex);
  shared->ended = true;
  shared->changed.notify_all();
}

void AgentX::Worker::serve(Shared &shared, const std::string &address, Options options) {
  const auto work = boost::asio::make_work_guard(shared.io);
  Agent agent(shared.io, address, shared.main, options.retry_seconds);
  shared.agent = &agent;
  shared.io.run();
  shared.agent = nullptr;
}

const std::string kMany = std::to_string(AgentX::kMostWaiting);

void AgentX::Worker::notify(Notification notification) {
  if (shared_->waiting >= kMostWaiting) {
    if (shared_->lost++ == 0)
      MainThread::log(shared_->main, "SNMP: notifications are lost: " + kMany + " wait for the master");
    return;
  }
  shared_->waiting++;
  boost::asio::post(shared_->io, [shared = shared_.get(), notification = std::move(notification)] {
    const size_t left = --shared->waiting;
    const uint64_t lost = left == 0 ? shared->lost.exchange(0) : 0;
    if (shared->agent == nullptr) return;
    shared->agent->tell_lost(lost);
    shared->agent->notify(notification);
  });
}

void AgentX::notify(Notification notification) { worker_->notify(std::move(notification)); }

AgentX::AgentX(boost::asio::io_context &main, std::string address, InTurn in_turn, Log log)
    : AgentX(main, std::move(address), std::move(in_turn), std::move(log), Options{}) {}

AgentX::AgentX(boost::asio::io_context &main, std::string address, InTurn in_turn, Log log, Options options)
    : worker_(std::make_unique<Worker>(main, std::move(address), std::move(in_turn), std::move(log), options)) {}

AgentX::~AgentX() = default;

}  // namespace host::snmp
