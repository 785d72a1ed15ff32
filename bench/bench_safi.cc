// MDT SAFI: the database, remote updates at different numbers of VRFs, and the bring-up of many VRFs.
#include <benchmark/benchmark.h>

#include <memory>

#include "bench/bench_world.h"
#include "platform/reference/mrib.h"
#include "routing/pim/mvpn/mvpn_bgp.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_mdt_safi_internal.h"

namespace {

mvpn_bgp_mdt_safi_key key_of(uint32_t i) {
  mvpn_bgp_mdt_safi_key key{0x14000000 + i * 7919u, {}, 0xEF800000 + i % 1000};
  key.bgp_rd[7] = 1;
  return key;
}

void safi_insert(benchmark::State &state) {
  bench::World world;
  for (auto _ : state) {
    for (uint32_t i = 0; i < state.range(0); i++) {
      const auto key = key_of(i);
      benchmark::DoNotOptimize(mvpn_bgp_create_mdt_safi_entry(&key));
    }
    state.PauseTiming();
    mvpn_bgp_mdt_safi_delete_all();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(safi_insert)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

void safi_lookup(benchmark::State &state) {
  bench::World world;
  const auto entries = static_cast<uint32_t>(state.range(0));
  for (uint32_t i = 0; i < entries; i++) {
    const auto key = key_of(i);
    mvpn_bgp_create_mdt_safi_entry(&key);
  }
  uint32_t i = 0;
  for (auto _ : state) {
    const auto key = key_of(i);
    benchmark::DoNotOptimize(mvpn_bgp_get_mdt_safi_entry(&key));
    i = (i + 1) % entries;
  }
  state.SetItemsProcessed(state.iterations());
  mvpn_bgp_mdt_safi_delete_all();
}
BENCHMARK(safi_lookup)->Arg(1000)->Arg(10000)->Arg(100000);

void safi_walk(benchmark::State &state) {
  bench::World world;
  for (uint32_t i = 0; i < state.range(0); i++) {
    const auto key = key_of(i);
    mvpn_bgp_create_mdt_safi_entry(&key);
  }
  for (auto _ : state)
    for (void *entry = ravl_get_first_node(&mvpn_bgp_mdt_safi_db, 0); entry != nullptr;
         entry = ravl_get_next_node(&mvpn_bgp_mdt_safi_db, entry))
      benchmark::DoNotOptimize(entry);
  state.SetItemsProcessed(state.iterations() * state.range(0));
  mvpn_bgp_mdt_safi_delete_all();
}
BENCHMARK(safi_walk)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

// Remote updates: 100 remote PEs for each of n VRFs that are up, advertised and withdrawn again, the route work of the
// worker included. An item is one entry.
void remote_updates(benchmark::State &state) {
  constexpr uint32_t kPes = 100;
  const auto vrfs = static_cast<uint32_t>(state.range(0));
  bench::World world;
  world.add_vrfs(0, vrfs);
  world.end_replay();
  const auto settled = [vrfs] {
    uint32_t up = 0;
    mvpn_for_each_context([&up](mvpn_cibtype *mvpn) {
      up += mvpn->mti_status == MVPN_MTI_UP;
      return true;
    });
    return up == vrfs;
  };
  world.run_until(settled);
  for (uint32_t number = 0; number < vrfs; number++) {
    const auto payload = bench::remote_update(0x20000000 + number * 1000, kPes, 0xEF000001 + number, true);
    mvpn_bgp_mdt_safi_receive_remote_update(payload.data(), payload.size());
    world.idle();
  }
  bench::forget_events();
  const size_t before = bench::allocated_bytes();
  uint32_t number = 0;
  for (auto _ : state) {
    for (const bool add : {true, false}) {
      const auto payload = bench::remote_update(0x30000000 + number * 1000, kPes, 0xEF000001 + number, add);
      mvpn_bgp_mdt_safi_receive_remote_update(payload.data(), payload.size());
      world.idle();
    }
    number = (number + 1) % vrfs;
  }
  state.SetItemsProcessed(state.iterations() * 2 * kPes);
  bench::forget_events();
  state.counters["growth_bytes"] = static_cast<double>(bench::allocated_bytes()) - static_cast<double>(before);
}
BENCHMARK(remote_updates)
    ->Arg(10)
    ->Arg(100)
    ->Arg(1000)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// Memory of entries for groups that nobody uses.
void safi_memory(benchmark::State &state) {
  const auto entries = static_cast<uint32_t>(state.range(0));
  for (auto _ : state) {
    bench::World world;
    const size_t before = bench::allocated_bytes();
    for (uint32_t i = 0; i < entries; i += 1000) {
      const auto payload = bench::remote_update(0x40000000 + i, 1000, 0xEFFF0001, true);
      mvpn_bgp_mdt_safi_receive_remote_update(payload.data(), payload.size());
    }
    state.counters["bytes_per_entry"] =
        (static_cast<double>(bench::allocated_bytes()) - static_cast<double>(before)) / static_cast<double>(entries);
    mvpn_bgp_mdt_safi_delete_all();
  }
}
BENCHMARK(safi_memory)->Arg(100000)->Iterations(1)->Unit(benchmark::kMillisecond);

// Configuration of n VRFs as by replay, each command checked against the VRFs before it. An item is one VRF.
void configure(benchmark::State &state) {
  const auto vrfs = static_cast<uint32_t>(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    auto world = std::make_unique<bench::World>();
    state.ResumeTiming();
    world->add_vrfs(0, vrfs);
    state.PauseTiming();
    world.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * vrfs);
}
BENCHMARK(configure)->Arg(100)->Arg(1000)->Arg(4000)->UseRealTime()->Unit(benchmark::kMillisecond);

// From the end of the replay until every VRF is up and every route acknowledged. An item is one VRF.
void bring_up(benchmark::State &state) {
  const auto vrfs = static_cast<uint32_t>(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    auto world = std::make_unique<bench::World>();
    world->add_vrfs(0, vrfs);
    state.ResumeTiming();
    world->end_replay();
    // Counting the routes takes its time with many of them: only once all of them should be there.
    world->run_until([vrfs] {
      return bench::World::mvpn(vrfs - 1)->mti_status == MVPN_MTI_UP && bench::World::is_idle() &&
             ref::mrib_routes().size() == vrfs;
    });
    state.PauseTiming();
    world.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * vrfs);
}
BENCHMARK(bring_up)->Arg(100)->Arg(1000)->Arg(4000)->MeasureProcessCPUTime()->UseRealTime()->Unit(
    benchmark::kMillisecond);

}  // namespace
