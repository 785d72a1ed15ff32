// Packets from the core, and datagrams from a VRF: any bytes are taken or dropped for one reason, and what is taken
// lies within the packet and crosses the core again unchanged.
#include <algorithm>
#include <cstdlib>
#include <numeric>

#include "forwarder/state.h"

namespace {

using forwarder::DropCounters;
using forwarder::State;

constexpr uint32_t kOwn = 0x0A000001, kPeer = 0x0A000002, kGroup = 0xEF010101, kDataGroup = 0xEF010800;

uint64_t sum(const DropCounters &counters) { return std::accumulate(counters.begin(), counters.end(), uint64_t{0}); }

struct Held {
  State state{
      {[](auto &) {}, [](auto &) {}, [](auto &) {}, [](const auto &, bool) {}, [](const auto &, auto &, auto &) {}}};
  Held() {
    state.put_vrf("red", "red");
    state.put_tunnel("red", {"mti2", kOwn, kGroup, 1376, true});
    state.put_encapsulation("red", 1, kGroup, kOwn);
    state.put_encapsulation("red", 2, kDataGroup, kOwn);
    state.put_flow("red", 0xC0A8010A, 0xE8010101, 2);
    state.put_core_route({kPeer, kGroup}, "red");
    state.put_core_route({0, kDataGroup}, "red");
  }
  uint64_t drops() { return sum(state.drops()) + sum(state.find_vrf("red")->drops); }
};

void check(bool holds) {
  if (!holds) std::abort();
}

// What a VRF sends arrives as it was.
void cross(Held &held, std::span<const uint8_t> datagram) {
  forwarder::Vrf &red = *held.state.find_vrf("red");
  const uint64_t before = held.drops();
  forwarder::Encapsulation *chosen = held.state.choose(red, datagram);
  check(held.drops() == before + (chosen == nullptr ? 1 : 0));
  if (chosen == nullptr || datagram.size() > forwarder::kCustomerMax) return;
  std::vector<uint8_t> packet(forwarder::kOuterSize);
  packet.insert(packet.end(), datagram.begin(), datagram.end());
  chosen->header.write(packet.data(), datagram.data(), datagram.size(), 1);
  forwarder::CorePacket core;
  check(!forwarder::decapsulate(packet, false, &core));
  check(core.source == kOwn && core.datagram.size() <= datagram.size());
  check(std::equal(core.datagram.begin(), core.datagram.end(), datagram.begin()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static Held held;
  std::vector<uint8_t> packet(data, data + size);
  const uint64_t before = held.drops();
  std::span<uint8_t> datagram;
  const bool taken = held.state.accept(packet, false, &datagram) != nullptr;
  check(held.drops() == before + (taken ? 0 : 1));
  if (taken) {
    check(datagram.data() >= packet.data() && datagram.data() + datagram.size() <= packet.data() + packet.size());
    cross(held, datagram);
  }
  cross(held, {data, size});
  return 0;
}
