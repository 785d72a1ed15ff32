// How fast the forwarder encapsulates, beside a loop that does nothing else: TUN to raw GRE with sendmmsg.
//
// The packets are put into the device's queue first; only taking them out and sending them is timed, in CPU time of
// this thread. Rounds of the loop and of the forwarder with 1,000 and 100,000 flows take turns, so that what else the
// machine does meets all alike; the medians are compared.
//
//   bench_forwarding CORE RED     names of two namespaces; the core has a device "core0" with the address 10.0.0.1
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <random>
#include <stdexcept>
#include <vector>

#include "forwarder/core_site.h"
#include "forwarder/vrf_site.h"

namespace {

using namespace forwarder;

constexpr uint32_t kOwn = 0x0A000001, kDefaultGroup = 0xEF010101, kFirstDataGroup = 0xEF010800;
constexpr uint32_t kFirstSource = 0xC0A80000, kFirstGroup = 0xE8010000;
constexpr size_t kPacket = 200;  // bytes
constexpr size_t kRound = 8192;  // packets: fewer than the device's queue takes
constexpr int kRounds = 61;
constexpr uint16_t kDataGroups = 200;
constexpr size_t kPackets = 100'000;  // that a lane is fed from: the same memory for each, whatever its flows

using Packet = std::array<uint8_t, kPacket>;

Packet customer_packet(uint32_t source, uint32_t group) {
  Packet packet{};
  packet[0] = 0x45;
  packet[3] = kPacket;
  packet[8] = 16;
  packet[9] = 17;
  for (size_t i = 0; i < 4; i++) {
    packet[12 + i] = static_cast<uint8_t>(source >> (24 - 8 * i));
    packet[16 + i] = static_cast<uint8_t>(group >> (24 - 8 * i));
  }
  return packet;
}

std::vector<Packet> repeated(const std::vector<Packet> &packets) {
  std::vector<Packet> all(kPackets);
  for (size_t i = 0; i < kPackets; i++) all[i] = packets[i % packets.size()];
  return all;
}

// One thing that is measured: where its packets are put, and how they are taken.
struct Lane {
  const char *name;
  std::vector<Packet> packets;
  Descriptor feeder;               // a raw socket on its device
  std::function<bool()> take;      // some; false: none was left
  std::vector<double> rates = {};  // packets per CPU second
};

Descriptor feeder_of(const Namespaces &namespaces, const Descriptor &red, const char *device) {
  Descriptor socket;
  namespaces.within(red, [&] {
    socket = Descriptor(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_RAW));
    ip_mreqn by{};
    by.imr_ifindex = static_cast<int>(::if_nametoindex(device));
    ::setsockopt(socket.get(), IPPROTO_IP, IP_MULTICAST_IF, &by, sizeof by);
    const int buffer = 64 << 20;
    ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDBUFFORCE, &buffer, sizeof buffer);
  });
  return socket;
}

void feed(const Lane &lane, std::mt19937 &random) {
  for (size_t i = 0; i < kRound; i++) {
    const Packet &packet = lane.packets[random() % lane.packets.size()];
    sockaddr_in to{};
    to.sin_family = AF_INET;
    std::memcpy(&to.sin_addr, &packet[16], 4);
    ::sendto(lane.feeder.get(), packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
  }
}

double cpu_seconds() {
  timespec now{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// The bare loop: one device, one header.
class BareLoop {
 public:
  BareLoop(const Namespaces &namespaces, const Descriptor &red, const KernelView &view) {
    namespaces.within(red, [this] {
      device_ = Descriptor(::open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC));
      ifreq request{};
      request.ifr_flags = IFF_TUN | IFF_NO_PI;
      std::strcpy(request.ifr_name, "bare0");
      if (::ioctl(device_.get(), TUNSETIFF, &request) != 0) throw std::runtime_error("cannot make bare0");
    });
    int index = 0;
    namespaces.within(red, [&index] { index = static_cast<int>(::if_nametoindex("bare0")); });
    view.set_link(index, true, 1376, 10000);
    socket_ = Descriptor(::socket(AF_INET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_RAW));
    ip_mreqn by{};
    by.imr_ifindex = static_cast<int>(::if_nametoindex("core0"));
    ::setsockopt(socket_.get(), IPPROTO_IP, IP_MULTICAST_IF, &by, sizeof by);
    to_.sin_family = AF_INET;
    to_.sin_addr.s_addr = htonl(kDefaultGroup);
    for (size_t i = 0; i < kBatch; i++) {
      messages_[i].msg_hdr.msg_name = &to_;
      messages_[i].msg_hdr.msg_namelen = sizeof to_;
      messages_[i].msg_hdr.msg_iov = &parts_[i];
      messages_[i].msg_hdr.msg_iovlen = 1;
      OuterHeader(kOwn, kDefaultGroup, {}).write(buffers_[i].data(), customer_packet(1, 1).data(), kPacket, 0);
    }
  }
  bool take() {
    unsigned count = 0;
    for (; count < kBatch; count++) {
      const ssize_t size = ::read(device_.get(), buffers_[count].data() + kOuterSize, 2048 - kOuterSize);
      if (size <= 0) break;
      parts_[count] = {buffers_[count].data(), kOuterSize + static_cast<size_t>(size)};
    }
    if (count != 0) ::sendmmsg(socket_.get(), messages_.data(), count, 0);
    return count != 0;
  }

 private:
  Descriptor device_, socket_;
  sockaddr_in to_{};
  std::array<std::array<uint8_t, 2048>, kBatch> buffers_;
  std::array<mmsghdr, kBatch> messages_{};
  std::array<iovec, kBatch> parts_{};
};

// A VRF of the forwarder with so many flows, all on data MDTs.
std::vector<Packet> fill(State &state, const char *vrf, const char *device, size_t flows) {
  state.put_vrf(vrf, vrf);
  state.put_tunnel(vrf, {device, kOwn, kDefaultGroup, 1376, true});
  for (uint16_t index = 1; index <= kDataGroups; index++)
    state.put_encapsulation(vrf, index, index == 1 ? kDefaultGroup : kFirstDataGroup + index, kOwn);
  std::vector<Packet> packets;
  for (uint32_t i = 0; i < flows; i++) {
    const uint32_t source = kFirstSource + i / 256, group = kFirstGroup + i % 256;
    state.put_flow(vrf, source, group, 2 + i % (kDataGroups - 1));
    packets.push_back(customer_packet(source, group));
  }
  return packets;
}

double median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2), values.end());
  return values[values.size() / 2];
}

void run(const char *core_name, const char *red_name) {
  const Namespaces namespaces("/run/netns", core_name);
  NamespaceId id;
  const Descriptor red = namespaces.open(red_name, &id);
  Poller poller;
  State state{{[](Vrf &) {}, [](Vrf &) {}, [](Vrf &) {}, [](const CoreKey &, bool) {},
               [](const CoreKey &, const Vrf &, const Vrf &) {}}};
  const KernelView::Callbacks seen{[](const auto &) {}, [](const auto &) {}, [](const auto &, auto *) {}, nullptr};
  CoreSite core(poller, state, {seen, [](Vrf &, std::span<const uint8_t>) {}, [](const std::string &) {}});
  const auto site = [&](const char *vrf) {
    state.find_vrf(vrf)->netns = red_name;
    return std::make_unique<VrfSite>(poller, namespaces, core, state, *state.find_vrf(vrf),
                                     VrfSite::Callbacks{seen, [](bool) {}, [](auto) {}, [](const std::string &) {}});
  };
  std::vector<Packet> few = fill(state, "few", "few0", 1'000), many = fill(state, "many", "many0", 100'000);
  const auto few_site = site("few"), many_site = site("many");
  BareLoop bare(namespaces, red, *few_site->view());
  // The forwarder's turn: whoever is ready, as in its main loop.
  const auto turn = [&](const char *vrf) {
    const uint64_t before = state.find_vrf(vrf)->sent.packets;
    poller.wait(0);
    return state.find_vrf(vrf)->sent.packets != before;
  };
  std::array<Lane, 3> lanes = {
      Lane{"bare loop, one header", repeated({customer_packet(kFirstSource, kFirstGroup)}),
           feeder_of(namespaces, red, "bare0"), [&] { return bare.take(); }},
      Lane{"forwarder, 1,000 flows", repeated(few), feeder_of(namespaces, red, "few0"), [&] { return turn("few"); }},
      Lane{"forwarder, 100,000 flows", repeated(many), feeder_of(namespaces, red, "many0"),
           [&] { return turn("many"); }}};
  std::mt19937 random(1);
  for (int round = 0; round < kRounds; round++)
    for (Lane &lane : lanes) {
      while (lane.take()) {
      }
      feed(lane, random);
      const double begin = cpu_seconds();
      while (lane.take()) {
      }
      lane.rates.push_back(kRound / (cpu_seconds() - begin));
    }
  for (const auto *vrf : {"few", "many"})
    if (state.find_vrf(vrf)->sent.packets < kRound * (kRounds - 1))
      throw std::runtime_error("packets were lost on the way: the figures mean nothing");
  const double floor = median(lanes[0].rates);
  for (const Lane &lane : lanes)
    std::printf("%-26s %9.0f packets of %zu bytes per CPU second   %.3f of the bare loop\n", lane.name,
                median(lane.rates), kPacket, median(lane.rates) / floor);
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: bench_forwarding CORE RED (see scripts/bench-forwarding)\n");
    return 2;
  }
  try {
    run(argv[1], argv[2]);
  } catch (const std::exception &error) {
    std::fprintf(stderr, "bench_forwarding: %s\n", error.what());
    return 1;
  }
  return 0;
}
