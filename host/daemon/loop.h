// The daemon's main loop: an event loop whose handlers run with the scheduling locks.
#ifndef HOST_DAEMON_LOOP_H
#define HOST_DAEMON_LOOP_H

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <optional>

#include "host/metrics/exposition.h"

namespace host {

// The reference platform is in its first state before and after; the module must have stopped by then. Between turns
// the module's threads run.
class Loop {
 public:
  // One in a process, made by the main thread: resets the platform and gives the scheduling locks up.
  Loop();
  ~Loop();
  Loop(const Loop &) = delete;
  Loop &operator=(const Loop &) = delete;

  // Holds the scheduling locks. Every handler of the event loop that touches the platform or the module opens one; an
  // inner one does nothing. When the outermost ends, what is queued and due is delivered, stored records are committed
  // and the timer is set for the next deadline.
  class Turn {
   public:
    explicit Turn(Loop &loop);
    ~Turn();
    Turn(const Turn &) = delete;
    Turn &operator=(const Turn &) = delete;

   private:
    Loop &loop_;
  };

  boost::asio::io_context &io() { return io_; }

  // Called at the end of every turn.
  void set_turn_end(std::function<void()> work) { turn_end_ = std::move(work); }

  // How long turns took, in seconds of real time.
  const metrics::Histogram &turn_times() const { return turn_times_; }
  uint64_t turns() const { return turn_times_.count; }  // that have ended
  // Processor time that this process took in the last turn: what the turn cost, whatever else the machine had to do.
  std::chrono::duration<double> last_turn() const { return last_turn_; }
  // When this was made, in seconds since 1970.
  int64_t started() const { return started_; }

  // Serves until stop().
  void run();
  void stop() { io_.stop(); }

 private:
  void wake();
  void end_turn();
  void measure_turn();
  void set_timer();

  boost::asio::io_context io_;
  boost::asio::steady_timer timer_;
  std::atomic<bool> awake_ = false;    // a turn is queued
  std::atomic<bool> working_ = false;  // a turn is under way that will look at what is queued
  std::function<void()> turn_end_;
  int depth_ = 0;
  std::chrono::steady_clock::time_point turn_began_;
  std::chrono::duration<double> computed_when_turn_began_{0};
  std::chrono::duration<double> last_turn_{0};
  // Close to each other where turns ought to end, far apart beyond.
  metrics::Histogram turn_times_{{{0.0001, 0},
                                  {0.0002, 0},
                                  {0.0005, 0},
                                  {0.001, 0},
                                  {0.0015, 0},
                                  {0.002, 0},
                                  {0.003, 0},
                                  {0.005, 0},
                                  {0.01, 0},
                                  {0.1, 0},
                                  {1, 0},
                                  {10, 0}},
                                 0,
                                 0};
  const int64_t started_;
  std::optional<std::chrono::nanoseconds> armed_for_;  // platform time
  double armed_scale_ = 0;
};

}  // namespace host

#endif  // HOST_DAEMON_LOOP_H
