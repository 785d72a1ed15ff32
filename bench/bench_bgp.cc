// A route reflector's work without its sockets: UPDATE messages from one neighbour through decoding, table and
// selection into the UPDATE messages for another, 100,000 routes of 10 or 1,000 VRFs. The floor in the same run is what
// no speaker can do without: reading the NLRI of the same messages into one flat hash table, and copying the octets
// out.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <cstring>
#include <unordered_map>

#include "bgp/speaker.h"

namespace {

constexpr bgp::Ipv4 kUs = 0x0A000001, kFeeder = 0x0A000002, kReader = 0x0A000003;
constexpr uint32_t kRoutes = 100'000;

// Two neighbours on wires of memory. The reader's octets are counted and dropped.
class Reflector : public bgp::Transport, public bgp::Clock, public bgp::Observer {
 public:
  Reflector() {
    for (const bgp::Ipv4 neighbor : {kFeeder, kReader}) {
      speaker.set_neighbor({.address = neighbor, .remote_as = 65000, .passive = true, .reflector_client = true});
      const bgp::ConnectionId id = *speaker.accepted(neighbor, kUs);
      (neighbor == kFeeder ? feeder_ : reader_) = id;
      run();
      bgp::Octets octets;
      bgp::Open open{65000, 0, neighbor, {}};
      open.capabilities.families = {bgp::kMdt};
      open.capabilities.four_octet_as = 65000;
      open.capabilities.extended_messages = false;
      bgp::encode_open(open, octets);
      bgp::encode_keepalive(octets);
      give(id, octets);
    }
  }

  void feed(bgp::View octets) { give(feeder_, octets); }

  std::string set_peer_options(bgp::Ipv4, const bgp::PeerOptions &) override { return {}; }
  void remove_peer_options(bgp::Ipv4) override {}
  void connect(bgp::ConnectionId, bgp::Ipv4, const bgp::PeerOptions &) override {}
  bgp::Received receive(bgp::ConnectionId id, std::span<uint8_t> into) override {
    if (id != giving_ || input_.empty()) return {};
    const size_t count = std::min(into.size(), input_.size());
    std::memcpy(into.data(), input_.data(), count);
    input_ = input_.subspan(count);
    return {bgp::Received::Status::data, count};
  }
  size_t send(bgp::ConnectionId id, std::span<const uint8_t> octets) override {
    if (id == reader_) sent += octets.size();
    return octets.size();
  }
  void close(bgp::ConnectionId) override {}
  bgp::Time now() override { return bgp::Time(std::chrono::hours(1)); }
  void wake_at(bgp::Time when) override { alarm_ = when; }
  void best_changed(std::span<const bgp::BestChange> changed) override { told += changed.size(); }

  size_t sent = 0, told = 0;
  bgp::Speaker speaker{{.local_as = 65000, .router_id = kUs}, *this, *this, *this};

 private:
  void give(bgp::ConnectionId id, bgp::View octets) {
    giving_ = id;
    input_ = octets;
    speaker.readable(id);
    run();
  }
  void run() {
    while (alarm_ <= now()) {
      alarm_ = bgp::Time::max();
      speaker.run();
    }
  }

  bgp::ConnectionId feeder_ = 0, reader_ = 0, giving_ = 0;
  bgp::View input_;
  bgp::Time alarm_ = bgp::Time::max();
};

bgp::Nlri route_of(uint32_t vrf, uint32_t pe) {
  return {{{0, 0, 0xFD, 0xE8, 0, 0, static_cast<uint8_t>(vrf >> 8), static_cast<uint8_t>(vrf)}, 0x0B000000 + pe},
          0xEF000000 + vrf};
}

// As PEs say it: each announces its VRFs with attributes of its own.
bgp::Octets feed_of(uint32_t vrfs, bool announces) {
  bgp::Octets octets;
  for (uint32_t pe = 0; pe < kRoutes / vrfs; pe++) {
    bgp::Attributes attributes;
    attributes.next_hop = 0x0B000000 + pe;
    attributes.local_pref = 100;
    bgp::Octets encoded;
    bgp::encode_attributes(attributes, {}, encoded);
    for (uint32_t vrf = 0; vrf < vrfs;) {
      bgp::UpdateBuilder builder =
          announces ? bgp::UpdateBuilder(octets, 4096, encoded, attributes.next_hop) : bgp::UpdateBuilder(octets, 4096);
      while (vrf < vrfs && builder.add(route_of(vrf, pe))) vrf++;
      builder.finish();
    }
  }
  return octets;
}

size_t allocated() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

void bgp_reflect(benchmark::State &state) {
  const auto vrfs = static_cast<uint32_t>(state.range(0));
  const bgp::Octets announced = feed_of(vrfs, true);
  for (auto _ : state) {
    state.PauseTiming();
    const size_t before = allocated();
    auto reflector = std::make_unique<Reflector>();
    state.ResumeTiming();
    reflector->feed(announced);
    state.PauseTiming();
    if (reflector->told != kRoutes || reflector->sent < kRoutes * bgp::kNlriSize)
      state.SkipWithError("routes are missing");
    state.counters["bytes_per_route"] = static_cast<double>(allocated() - before) / kRoutes;
    reflector.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kRoutes);
}
BENCHMARK(bgp_reflect)->Arg(10)->Arg(1000)->Unit(benchmark::kMillisecond);

void bgp_withdraw(benchmark::State &state) {
  const auto vrfs = static_cast<uint32_t>(state.range(0));
  const bgp::Octets announced = feed_of(vrfs, true), withdrawn = feed_of(vrfs, false);
  Reflector reflector;
  for (auto _ : state) {
    state.PauseTiming();
    reflector.feed(announced);
    state.ResumeTiming();
    reflector.feed(withdrawn);
  }
  if (reflector.speaker.sizes().routes != 0) state.SkipWithError("routes are left");
  state.SetItemsProcessed(state.iterations() * kRoutes);
}
BENCHMARK(bgp_withdraw)->Arg(10)->Arg(1000)->Unit(benchmark::kMillisecond);

// The same routes again, with nothing new in them: what a route refresh costs.
void bgp_repeat(benchmark::State &state) {
  const bgp::Octets announced = feed_of(1000, true);
  Reflector reflector;
  reflector.feed(announced);
  for (auto _ : state) reflector.feed(announced);
  state.SetItemsProcessed(state.iterations() * kRoutes);
}
BENCHMARK(bgp_repeat)->Unit(benchmark::kMillisecond);

struct KeyHash {
  size_t operator()(const bgp::RouteKey &key) const {
    uint64_t rd;
    std::memcpy(&rd, key.rd.data(), sizeof rd);
    return (rd ^ key.source) * 0x9E3779B97F4A7C15 >> 20;
  }
};

void bgp_floor(benchmark::State &state) {
  const auto vrfs = static_cast<uint32_t>(state.range(0));
  const bgp::Octets announced = feed_of(vrfs, true);
  for (auto _ : state) {
    std::unordered_map<bgp::RouteKey, bgp::Ipv4, KeyHash> table;
    bgp::Update update;
    for (size_t at = 0; at < announced.size();) {
      const size_t length = static_cast<size_t>(announced[at + 16] << 8 | announced[at + 17]);
      (void)bgp::decode_update(bgp::View(announced).subspan(at + 19, length - 19), {}, update);
      for (size_t i = 0; i < update.reachable.size(); i++) table[update.reachable[i].key] = update.reachable[i].group;
      at += length;
    }
    bgp::Octets copy = announced;
    benchmark::DoNotOptimize(copy.data());
    benchmark::DoNotOptimize(table.size());
  }
  state.SetItemsProcessed(state.iterations() * kRoutes);
}
BENCHMARK(bgp_floor)->Arg(10)->Arg(1000)->Unit(benchmark::kMillisecond);

}  // namespace
