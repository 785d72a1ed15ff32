// The world of the benchmarks: a started module on the reference platform, with VRFs as wanted.
#ifndef BENCH_BENCH_WORLD_H
#define BENCH_BENCH_WORLD_H

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <vector>

#include "platform/reference/cli.h"
#include "platform/reference/runtime.h"
#include "routing/pim/mvpn/mvpn.h"

namespace bench {

// A fresh platform with loopback0 10.0.0.1 as BGP's update source, and the started module; stopped at the end.
class World {
 public:
  World();
  ~World();
  World(const World &) = delete;
  World &operator=(const World &) = delete;

  // VRFs "vrf<first>" … with default groups 239.0.0.0 + number, configured as by replay.
  void add_vrfs(uint32_t first, uint32_t count);
  // Ends the replay and delivers everything until the module has nothing left to do.
  void end_replay();
  // Lets the main loop and the module's threads run until `done` holds.
  template <typename Done>
  void run_until(Done done) {
    while (!done()) turn();
  }
  void turn();
  // Runs until the route work is done and acknowledged.
  void idle();
  static bool is_idle();
  // A configuration command of VRF "vrf<number>".
  void command(const char *handler, uint32_t number, std::vector<ref::CliArgument> arguments);

  static pim_cibtype *pcib(uint32_t number);
  static mvpn_cibtype *mvpn(uint32_t number) { return pcib(number)->mvpn; }
};

// The longest stretch between two yields of this thread, the start and the end included, in its own processor time:
// what it waits for others is not its doing.
class YieldMeter {
 public:
  YieldMeter() {
    ref::set_yield_hook([this] {
      mark();
      yields_++;
      return false;
    });
    last_ = processor_time();
  }
  ~YieldMeter() { ref::set_yield_hook(nullptr); }
  YieldMeter(const YieldMeter &) = delete;
  YieldMeter &operator=(const YieldMeter &) = delete;
  void mark() {
    const double now = processor_time();
    longest_ = std::max(longest_, now - last_);
    last_ = now;
  }
  double longest_us() const { return longest_ * 1e6; }
  double yields() const { return yields_; }

 private:
  static double processor_time() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
  }
  double last_ = 0;
  double longest_ = 0;
  uint32_t yields_ = 0;
};

// Payload of a remote update with entries sources first, first + 1, … of one group.
std::vector<uint8_t> remote_update(uint32_t first_source, uint32_t count, ip_addr_t group, bool add);

// Drops the event history, so that it does not count as the module's memory.
void forget_events();

// Bytes of the heap in use.
size_t allocated_bytes();

}  // namespace bench

#endif  // BENCH_BENCH_WORLD_H
