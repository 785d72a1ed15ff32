// Core routes: from scheduling to acknowledgement through the worker, and the route table, beside bare floors.
#include <benchmark/benchmark.h>

#include <cstring>
#include <map>
#include <memory>
#include <unordered_map>

#include "bench/bench_world.h"
#include "routing/pim/mvpn/mvpn_mdt_route_internal.h"
#include "routing/pim/mvpn/mvpn_mrib_queue.h"

namespace {

constexpr ip_addr_t kGroup = 0xEF000001;
constexpr ip_addr_t kFirstSource = 0x14000000;

// n routes of one VRF, scheduled again and again, until the MRIB has acknowledged all of them.
void worker_schedule_to_ack(benchmark::State &state) {
  bench::World world;
  world.add_vrfs(0, 1);
  mvpn_cibtype *mvpn = bench::World::mvpn(0);
  const auto routes = static_cast<uint32_t>(state.range(0));
  const auto schedule = [&] {
    for (uint32_t i = 0; i < routes; i++)
      mvpn_mdt_add_route_resources(mvpn, MVPN_MDT_ROUTE_REMOTE_DEFAULT, kFirstSource + i, 1, kGroup, 0);
    mvpn_mrib_wakeup_worker_thread();
    world.idle();
  };
  schedule();
  for (auto _ : state) schedule();
  state.SetItemsProcessed(state.iterations() * routes);
}
BENCHMARK(worker_schedule_to_ack)
    ->Arg(1000)
    ->Arg(10000)
    ->Arg(100000)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// Floor: writes the same 92-byte entries into a buffer of 50.
void floor_write_entries(benchmark::State &state) {
  mvpn_cibtype mvpn{};
  pim_cibtype pcib{};
  pcib.context_id = 2;
  mvpn.pcib = &pcib;
  mvpn_mdt_route route{};
  route.mvpn = &mvpn;
  route.route_type = MVPN_MDT_ROUTE_REMOTE_DEFAULT;
  route.mode = MVPN_MDT_GROUP_MODE_ASM;
  route.group = kGroup;
  const auto routes = static_cast<uint32_t>(state.range(0));
  static uint8_t area[MVPN_MRIB_BUFFER_AREA];
  for (auto _ : state) {
    for (uint32_t i = 0; i < routes; i++) {
      route.source = kFirstSource + i;
      uint8_t *entry = area + MRIB_UPDATE_HEADER_SIZE + i % MVPN_MRIB_BUFFER_ENTRIES * MRIB_UPDATE_ENTRY_SIZE;
      std::memset(entry, 0, MRIB_UPDATE_ENTRY_SIZE);
      benchmark::DoNotOptimize(mvpn_add_remote_mdt_routes(&route, entry));
    }
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * routes);
}
BENCHMARK(floor_write_entries)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

// A VRF with n routes.
class Table {
 public:
  explicit Table(uint32_t routes) {
    world_.add_vrfs(0, 1);
    for (uint32_t i = 0; i < routes; i++) add(i);
  }
  void add(uint32_t i) {
    mvpn_mdt_mroute_add(mvpn(), MVPN_MDT_ROUTE_REMOTE_DATA, MVPN_MDT_GROUP_MODE_SSM, kFirstSource + i * 7919u, kGroup);
  }
  mvpn_cibtype *mvpn() { return bench::World::mvpn(0); }

 private:
  bench::World world_;
};

void route_table_insert(benchmark::State &state) {
  const auto routes = static_cast<uint32_t>(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    auto table = std::make_unique<Table>(0);
    state.ResumeTiming();
    for (uint32_t i = 0; i < routes; i++) table->add(i);
    state.PauseTiming();
    table.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * routes);
}
BENCHMARK(route_table_insert)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

void route_table_lookup(benchmark::State &state) {
  const auto routes = static_cast<uint32_t>(state.range(0));
  Table table(routes);
  uint32_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(mvpn_mdt_mroute_lookup(table.mvpn(), kFirstSource + i * 7919u, kGroup));
    i = (i + 1) % routes;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(route_table_lookup)->Arg(1000)->Arg(10000)->Arg(100000);

void route_table_walk(benchmark::State &state) {
  Table table(static_cast<uint32_t>(state.range(0)));
  for (auto _ : state) {
    for (mvpn_mdt_route *route = mvpn_mdt_mroute_first(table.mvpn()); route != nullptr;
         route = mvpn_mdt_mroute_after(table.mvpn(), route->source, route->group))
      benchmark::DoNotOptimize(route);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(route_table_walk)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

// Floors: the same keys in an ordered and in a hashed map of the standard library.
template <typename Map>
void floor_map_insert(benchmark::State &state) {
  for (auto _ : state) {
    Map map;
    for (uint32_t i = 0; i < state.range(0); i++) map.emplace(uint64_t{kFirstSource + i * 7919u} << 32 | kGroup, i);
    benchmark::DoNotOptimize(map);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
template <typename Map>
void floor_map_lookup(benchmark::State &state) {
  Map map;
  const auto keys = static_cast<uint32_t>(state.range(0));
  for (uint32_t i = 0; i < keys; i++) map.emplace(uint64_t{kFirstSource + i * 7919u} << 32 | kGroup, i);
  uint32_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(map.find(uint64_t{kFirstSource + i * 7919u} << 32 | kGroup));
    i = (i + 1) % keys;
  }
  state.SetItemsProcessed(state.iterations());
}
using Ordered = std::map<uint64_t, uint32_t>;
using Hashed = std::unordered_map<uint64_t, uint32_t>;
BENCHMARK_TEMPLATE(floor_map_insert, Ordered)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(floor_map_insert, Hashed)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK_TEMPLATE(floor_map_lookup, Ordered)->Arg(1000)->Arg(10000)->Arg(100000);
BENCHMARK_TEMPLATE(floor_map_lookup, Hashed)->Arg(1000)->Arg(10000)->Arg(100000);

}  // namespace
