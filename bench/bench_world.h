// The world of the benchmarks: a started module on the reference platform, with VRFs as wanted.
#ifndef BENCH_BENCH_WORLD_H
#define BENCH_BENCH_WORLD_H

#include <cstdint>
#include <string>
#include <vector>

#include "mvpn.h"
#include "reference.h"

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
  // A configuration command of VRF "vrf<number>".
  void command(const char *handler, uint32_t number, std::vector<ref::CliArgument> arguments);

  static pim_cibtype *pcib(uint32_t number);
  static mvpn_cibtype *mvpn(uint32_t number) { return pcib(number)->mvpn; }
};

// Payload of a remote update with entries sources first, first + 1, … of one group.
std::vector<uint8_t> remote_update(uint32_t first_source, uint32_t count, ip_addr_t group, bool add);

// Drops what the platform keeps of the module's calls for tests, so that it does not count as the module's memory.
void forget_records();

// Bytes of the heap in use.
size_t allocated_bytes();

}  // namespace bench

#endif  // BENCH_BENCH_WORLD_H
