// Packets that no sound router sends: what a forwarder must count, drop and survive. Each call makes the next one of a
// fixed round of kinds, with details from a seed, so that a flood meets every check and can be played again.
#ifndef LAB_TRAFFIC_HOSTILE_H
#define LAB_TRAFFIC_HOSTILE_H

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace traffic {

using Datagram = std::vector<uint8_t>;  // from the IPv4 header on, or what stands in place of one

// Addresses in host byte order.
struct HostileTarget {
  uint32_t source = 0;  // whose packets the PE takes: another PE in the core, a customer in a VRF
  uint32_t group = 0;   // that the PE takes from there
  uint32_t pe = 0;      // the PE's own source of core packets
};

class Hostile {
 public:
  // Where the packets arrive: on a core interface; in a VRF's tunnel or on a link to a customer.
  enum class Side { core, customer };

  Hostile(Side side, const HostileTarget &target, uint32_t seed) : side_(side), target_(target), random_(seed) {}

  // The datagrams of the next attack; several are fragments of one.
  std::vector<Datagram> next();

 private:
  using Maker = std::vector<Datagram> (Hostile::*)();
  static const std::vector<Maker> &makers(Side side);

  uint32_t below(uint32_t bound) { return static_cast<uint32_t>(random_() % bound); }
  Datagram noise(size_t size);
  Datagram customer();
  std::vector<Datagram> core(const Datagram &gre, uint8_t tos = 0);
  Datagram from_customer(uint8_t protocol, const Datagram &payload) const;

  std::vector<Datagram> another_group();
  std::vector<Datagram> another_source();
  std::vector<Datagram> own_source();
  std::vector<Datagram> to_the_pe_alone();
  std::vector<Datagram> gre_options();
  std::vector<Datagram> gre_for_something_else();
  std::vector<Datagram> gre_cut_short();
  std::vector<Datagram> customer_cut_short();
  std::vector<Datagram> customer_of_another_version();
  std::vector<Datagram> customer_with_wrong_lengths();
  std::vector<Datagram> nested();
  std::vector<Datagram> lonely_fragment();
  std::vector<Datagram> too_big();
  std::vector<Datagram> for_another_host();
  std::vector<Datagram> marked_congested();
  std::vector<Datagram> noise_behind_gre();
  std::vector<Datagram> bare_noise();
  std::vector<Datagram> bare_ipv6();
  std::vector<Datagram> bare_wrong_lengths();
  std::vector<Datagram> core_packet_of_the_pe();

  Side side_;
  HostileTarget target_;
  std::mt19937 random_;
  size_t round_ = 0;
};

// Sends so many attacks out of an interface of this network namespace, at a rate a second above 0, while go_on() says
// so. Returns how many datagrams the system took. Throws std::runtime_error.
uint64_t flood(const std::string &interface, Hostile *hostile, uint64_t attacks, double rate,
               const std::function<bool()> &go_on);

}  // namespace traffic

#endif  // LAB_TRAFFIC_HOSTILE_H
