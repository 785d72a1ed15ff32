// Makes the hostile packets. A maker breaks one thing of a sound packet, so that the packet reaches the check that it
// is meant for and is not dropped by an earlier one; a few send noise. Outer IPv4 checksums are right, because a system
// drops a packet with a wrong one before any forwarder sees it.
#include "lab/traffic/hostile.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <time.h>

#include <algorithm>
#include <array>

#include "lab/traffic/socket.h"

namespace traffic {
namespace {

constexpr uint8_t kUdp = 17, kGre = 47;
constexpr uint16_t kMoreFragments = 0x2000, kFragmentUnit = 8;
constexpr size_t kHeader = 20;
constexpr size_t kMtu = 1376;  // of tunnels; core links take more

void put16(Datagram *bytes, size_t at, uint32_t value) {
  (*bytes)[at] = static_cast<uint8_t>(value >> 8);
  (*bytes)[at + 1] = static_cast<uint8_t>(value);
}
void put32(Datagram *bytes, size_t at, uint32_t value) {
  put16(bytes, at, value >> 16);
  put16(bytes, at + 2, value & 0xFFFF);
}

// RFC 1071, over the 20 bytes of a header whose checksum is 0: receivers see what is wrong behind it.
void seal(Datagram *header) {
  put16(header, 10, 0);
  uint32_t sum = 0;
  for (size_t at = 0; at < kHeader; at += 2) sum += uint32_t{(*header)[at]} << 8 | (*header)[at + 1];
  while (sum >> 16 != 0) sum = (sum & 0xFFFF) + (sum >> 16);
  put16(header, 10, ~sum & 0xFFFF);
}

struct Outer {
  uint32_t source, destination;
  uint8_t protocol;
  uint8_t tos = 0;
  uint16_t identification = 0;
  uint16_t fragment = 0;  // flags and offset as in the header
};
Datagram ipv4(const Outer &outer, const Datagram &payload) {
  Datagram bytes(kHeader);
  bytes[0] = 0x45;
  bytes[1] = outer.tos;
  put16(&bytes, 4, outer.identification);
  put16(&bytes, 6, outer.fragment);
  bytes[8] = 16;
  bytes[9] = outer.protocol;
  put32(&bytes, 12, outer.source);
  put32(&bytes, 16, outer.destination);
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  put16(&bytes, 2, static_cast<uint32_t>(bytes.size()));
  seal(&bytes);
  return bytes;
}

Datagram gre(uint16_t flags, uint16_t protocol, const Datagram &payload) {
  Datagram bytes(4);
  put16(&bytes, 0, flags);
  put16(&bytes, 2, protocol);
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  return bytes;
}
Datagram gre(const Datagram &payload) { return gre(0, ETHERTYPE_IP, payload); }

}  // namespace

Datagram Hostile::noise(size_t size) {
  Datagram bytes(size);
  std::generate(bytes.begin(), bytes.end(), [this] { return static_cast<uint8_t>(random_()); });
  return bytes;
}

// A sound datagram of a customer that nobody receives.
Datagram Hostile::customer() {
  // From 192.168.99.0/24, the site of a PE 99, to 232.99.0.0/16.
  return ipv4({0xC0A86300 + below(256), 0xE8630000 + below(65536), kUdp}, noise(8 + below(100)));
}

// What the PE takes for a core packet.
std::vector<Datagram> Hostile::core(const Datagram &gre, uint8_t tos) {
  return {ipv4({target_.source, target_.group, kGre, tos}, gre)};
}

Datagram Hostile::from_customer(uint8_t protocol, const Datagram &payload) const {
  return ipv4({target_.source, target_.group, protocol}, payload);
}

std::vector<Datagram> Hostile::another_group() {
  // 239.255.0.0/16: the lab's VRFs have their groups in 239.1.0.0/16, unless a scenario says otherwise.
  return {ipv4({target_.source, 0xEFFF0000 + below(65536), kGre}, gre(customer()))};
}
std::vector<Datagram> Hostile::another_source() {
  // The same /24, from .200 to .249, where a bridged core has nobody.
  return {ipv4({(target_.source & 0xFFFFFF00) + 200 + below(50), target_.group, kGre}, gre(customer()))};
}
std::vector<Datagram> Hostile::own_source() { return {ipv4({target_.pe, target_.group, kGre}, gre(customer()))}; }
std::vector<Datagram> Hostile::to_the_pe_alone() { return {ipv4({target_.source, target_.pe, kGre}, gre(customer()))}; }

std::vector<Datagram> Hostile::gre_options() {
  static constexpr std::array<uint16_t, 7> flags = {0x8000, 0x4000, 0x2000, 0x1000, 0x0800, 0xB000, 1};
  Datagram payload = noise(12);
  const Datagram inner = customer();
  payload.insert(payload.end(), inner.begin(), inner.end());
  return core(gre(flags[below(flags.size())], ETHERTYPE_IP, payload));
}
std::vector<Datagram> Hostile::gre_for_something_else() {
  static constexpr std::array<uint16_t, 5> protocols = {ETHERTYPE_IPV6, 0x6558, 0x880B, 0x8847, 0};
  return core(gre(0, protocols[below(protocols.size())], customer()));
}
std::vector<Datagram> Hostile::gre_cut_short() { return core(noise(below(4))); }

std::vector<Datagram> Hostile::customer_cut_short() {
  Datagram inner = customer();
  inner.resize(below(static_cast<uint32_t>(inner.size())));
  return core(gre(inner));
}
std::vector<Datagram> Hostile::customer_of_another_version() {
  Datagram inner = customer();
  inner[0] = static_cast<uint8_t>((5 + below(11)) << 4 | 5);
  return core(gre(inner));
}
std::vector<Datagram> Hostile::customer_with_wrong_lengths() {
  Datagram inner = customer();
  inner[0] = static_cast<uint8_t>(0x40 + below(16));
  put16(&inner, 2, below(65536));
  return core(gre(inner));
}

std::vector<Datagram> Hostile::nested() {
  Datagram packet = customer();
  for (uint32_t depth = 2 + below(4); depth > 0; depth--) packet = core(gre(packet)).front();
  return {packet};
}

std::vector<Datagram> Hostile::lonely_fragment() {
  const auto place = static_cast<uint16_t>(below(1000) | kMoreFragments);
  const auto identification = static_cast<uint16_t>(below(65536));
  return {ipv4({target_.source, target_.group, kGre, 0, identification, place}, noise(64))};
}

// More than any forwarder takes, in fragments that the kernel puts together.
std::vector<Datagram> Hostile::too_big() {
  const Datagram whole = gre(ipv4({0xC0A86301, 0xE8630001, kUdp}, noise(17000)));
  const auto identification = static_cast<uint16_t>(below(65536));
  constexpr size_t step = 1400 / kFragmentUnit * kFragmentUnit;
  std::vector<Datagram> parts;
  for (size_t at = 0; at < whole.size(); at += step) {
    const size_t end = std::min(at + step, whole.size());
    const auto place = static_cast<uint16_t>(at / kFragmentUnit | (end < whole.size() ? kMoreFragments : 0));
    const Datagram part(whole.begin() + static_cast<std::ptrdiff_t>(at),
                        whole.begin() + static_cast<std::ptrdiff_t>(end));
    parts.push_back(ipv4({target_.source, target_.group, kGre, 0, identification, place}, part));
  }
  return parts;
}

std::vector<Datagram> Hostile::for_another_host() {
  return core(gre(ipv4({0xC0A86301, 0x0A630000 + below(65536), kUdp}, noise(16))));
}
std::vector<Datagram> Hostile::marked_congested() { return core(gre(customer()), 3); }
std::vector<Datagram> Hostile::noise_behind_gre() { return core(gre(noise(below(200)))); }

std::vector<Datagram> Hostile::bare_noise() { return {noise(1 + below(kMtu))}; }
std::vector<Datagram> Hostile::bare_ipv6() {
  Datagram bytes = noise(40 + below(100));
  bytes[0] = 0x60;
  return {bytes};
}
std::vector<Datagram> Hostile::bare_wrong_lengths() {
  Datagram bytes = from_customer(kUdp, noise(below(64)));
  bytes[0] = static_cast<uint8_t>(0x40 + below(16));
  put16(&bytes, 2, below(2) == 0 ? below(28) : 60000 + below(5000));
  seal(&bytes);
  return {bytes};
}
// What the PE itself has sent into the core comes out of a VRF.
std::vector<Datagram> Hostile::core_packet_of_the_pe() {
  return {ipv4({target_.pe, target_.group, kGre}, gre(customer()))};
}

const std::vector<Hostile::Maker> &Hostile::makers(Side side) {
  using H = Hostile;
  static const std::vector<Maker> core = {&H::another_group,    &H::another_source,     &H::own_source,
                                          &H::to_the_pe_alone,  &H::gre_options,        &H::gre_for_something_else,
                                          &H::gre_cut_short,    &H::customer_cut_short, &H::customer_of_another_version,
                                          &H::nested,           &H::lonely_fragment,    &H::customer_with_wrong_lengths,
                                          &H::too_big,          &H::for_another_host,   &H::marked_congested,
                                          &H::noise_behind_gre, &H::bare_noise,         &H::bare_wrong_lengths};
  static const std::vector<Maker> customer = {&H::bare_noise, &H::bare_ipv6, &H::bare_wrong_lengths,
                                              &H::lonely_fragment, &H::core_packet_of_the_pe};
  return side == Side::core ? core : customer;
}

std::vector<Datagram> Hostile::next() {
  const std::vector<Maker> &kinds = makers(side_);
  return (this->*kinds[round_++ % kinds.size()])();
}

// A broadcast frame where the interface has frames; a tunnel takes the datagram as it is.
uint64_t flood(const std::string &interface, Hostile *hostile, uint64_t attacks, double rate,
               const std::function<bool()> &go_on) {
  constexpr int64_t step_ns = 1'000'000;
  const Descriptor socket(::socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (socket.get() < 0) fail("a packet socket");
  sockaddr_ll to{};
  to.sll_family = AF_PACKET;
  to.sll_protocol = htons(ETH_P_IP);
  to.sll_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
  if (to.sll_ifindex == 0) fail("the interface " + interface);
  to.sll_halen = ETH_ALEN;
  std::fill_n(to.sll_addr, ETH_ALEN, uint8_t{0xFF});
  uint64_t taken = 0;
  const int64_t start = now_ns();
  for (uint64_t done = 0; done < attacks && go_on();) {
    const auto due = static_cast<uint64_t>(static_cast<double>(now_ns() - start) * 1e-9 * rate) + 1;
    for (; done < std::min(due, attacks); done++)
      for (const Datagram &datagram : hostile->next())
        if (sendto(socket.get(), datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr *>(&to),
                   sizeof to) >= 0)
          taken++;
    const timespec pause{0, step_ns};
    nanosleep(&pause, nullptr);
  }
  return taken;
}

}  // namespace traffic
