// Listings of many core routes: when the first line comes, how much memory a listing takes, how long others wait for
// their turn, and what is left of the work when the operator quits.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string_view>

#include "bench/bench_world.h"
#include "host/output/output.h"
#include "platform/reference/cli.h"
#include "platform/reference/runtime.h"
#include "routing/pim/mvpn/mvpn_mdt_route.h"
#include "routing/pim/mvpn/mvpn_mrib_queue.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr ip_addr_t kGroup = 0xEF000001;
constexpr ip_addr_t kFirstSource = 0x14000000;
constexpr size_t kBytesOfAPage = 4096;

enum Format { as_text, as_json, as_xml };
constexpr const char *kFormatNames[] = {"text", "json", "xml"};

// Takes bytes as a client's connection does, and refuses more after a number of them.
struct Terminal {
  size_t bytes_wanted = SIZE_MAX;
  size_t bytes = 0;
  Clock::time_point first{};

  output::ByteSink sink() {
    return [this](std::string_view text) {
      if (bytes == 0) first = Clock::now();
      bytes += text.size();
      return bytes < bytes_wanted;
    };
  }
};

std::unique_ptr<output::Writer> writer_of(Format format, Terminal &terminal) {
  switch (format) {
    case as_json:
      return output::json_writer(terminal.sink(), {"pe1", ""});
    case as_xml:
      return output::xml_writer(terminal.sink(), {"pe1", ""});
    default:
      return output::text_writer(terminal.sink());
  }
}

void add_routes(bench::World &world, uint32_t count) {
  world.add_vrfs(0, 1);
  for (uint32_t i = 0; i < count; i++)
    mvpn_mdt_add_route_resources(bench::World::mvpn(0), MVPN_MDT_ROUTE_REMOTE_DEFAULT, kFirstSource + i, 1, kGroup, 0);
  mvpn_mrib_wakeup_worker_thread();
  world.idle();
  bench::forget_events();
}

// 'show mvpn mdt route', written to the terminal.
void list_routes(Format format, Terminal &terminal) {
  ref::CliInvocation invocation;
  invocation.handler = "mvpn_show_mdt_route_cmd";
  invocation.all_vrfs = true;
  const auto writer = writer_of(format, terminal);
  ref::cli_invoke(invocation, *writer);
  writer->finish();
}

// The most that the heap grows while a listing is written, in bytes; looked at in each yield.
double memory_of_listing(Format format) {
  const auto before = static_cast<double>(bench::allocated_bytes());
  double most = 0;
  ref::set_yield_hook([&] {
    most = std::max(most, static_cast<double>(bench::allocated_bytes()) - before);
    return false;
  });
  Terminal terminal;
  list_routes(format, terminal);
  ref::set_yield_hook(nullptr);
  return most;
}

// The whole listing. An item is a route.
void listing(benchmark::State &state) {
  const auto routes = static_cast<uint32_t>(state.range(0));
  const auto format = static_cast<Format>(state.range(1));
  bench::World world;
  add_routes(world, routes);
  const double growth = memory_of_listing(format);
  double longest = 0, yields = 0, first_us = 0;
  size_t written = 0;
  for (auto _ : state) {
    bench::YieldMeter meter;
    Terminal terminal;
    const auto start = Clock::now();
    list_routes(format, terminal);
    meter.mark();
    longest = std::max(longest, meter.longest_us());
    yields = meter.yields();
    first_us = std::max(first_us, std::chrono::duration<double, std::micro>(terminal.first - start).count());
    written = terminal.bytes;
  }
  if (written < routes) state.SkipWithError("the listing is shorter than its routes");
  state.SetLabel(kFormatNames[format]);
  state.counters["first_us"] = first_us;
  state.counters["growth_bytes"] = growth;
  state.counters["longest_us"] = longest;
  state.counters["yields"] = yields;
  state.SetItemsProcessed(state.iterations() * routes);
}
BENCHMARK(listing)
    ->ArgsProduct({{1000, 10000, 100000}, {as_text, as_json, as_xml}})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// The operator quits after the first page.
void listing_quit(benchmark::State &state) {
  bench::World world;
  add_routes(world, static_cast<uint32_t>(state.range(0)));
  for (auto _ : state) {
    Terminal terminal;
    terminal.bytes_wanted = kBytesOfAPage;
    list_routes(as_text, terminal);
  }
}
BENCHMARK(listing_quit)->Arg(1000)->Arg(100000)->UseRealTime()->Unit(benchmark::kMicrosecond);

// Floor: the same number of lines, formatted and handed on.
void floor_lines(benchmark::State &state) {
  for (auto _ : state) {
    Terminal terminal;
    const auto sink = terminal.sink();
    for (uint32_t i = 0; i < state.range(0); i++) {
      const uint32_t source = kFirstSource + i;
      char line[128];
      const int length =
          std::snprintf(line, sizeof line, "(%u.%u.%u.%u, 239.0.0.1) %-20s %s\n", source >> 24, source >> 16 & 255,
                        source >> 8 & 255, source & 255, "Remote default", "0:00:01");
      sink({line, static_cast<size_t>(length)});
    }
    benchmark::DoNotOptimize(terminal.bytes);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(floor_lines)->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace
