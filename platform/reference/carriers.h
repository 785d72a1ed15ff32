// Carriers of core packets between PEs that run on one machine.
#ifndef REFERENCE_CARRIERS_H
#define REFERENCE_CARRIERS_H

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/reference/capture.h"
#include "platform/reference/packet.h"

namespace ref {

constexpr uint16_t gre_in_udp_port = 4754;  // RFC 8086

// A core packet as it crosses the core, and back:
//   GRE (RFC 2784), protocol IPv4
//     IPv4, protocol 47: provider source to provider group
//       GRE, protocol IPv4
//         the customer datagram
// This is the payload of a GRE-in-UDP datagram. encode: empty when the packet does not fit into one. decode: nullopt
// for anything malformed; lengths and checksums are verified, trailing bytes ignored.
std::vector<uint8_t> encode_core_packet(const CorePacket &packet);
std::optional<CorePacket> decode_core_packet(std::span<const uint8_t> bytes);

// GRE in UDP between loopback addresses, one address per PE. Not a thread of its own: the host waits for fd() and calls
// on_readable(), both on the main thread.
class GreUdpCarrier : public Carrier {
 public:
  struct Config {
    ip_addr_t local = 0;              // this PE's address; anywhere in 127.0.0.0/8
    uint16_t port = gre_in_udp_port;  // of all PEs
    std::vector<ip_addr_t> peers;     // the other PEs' addresses
  };
  struct Counters {
    uint64_t sent = 0, send_errors = 0, oversize = 0;     // datagrams; packets that do not fit
    uint64_t received = 0, malformed = 0, strangers = 0;  // strangers: from an address that is no peer
  };

  // Null when the socket cannot be opened or bound; *error then says why.
  static std::unique_ptr<GreUdpCarrier> open(const Config &config, std::string *error);
  ~GreUdpCarrier() override;

  void send(const CorePacket &packet) override;
  void set_receiver(std::function<void(CorePacket)> receiver) override;

  int fd() const { return fd_; }
  // Reads what has arrived, at most 64 datagrams a call.
  void on_readable();

  // Where every datagram that is sent or received is stored while it runs; outlives the carrier. Null: nowhere.
  void set_capture(Capture *capture) { capture_ = capture; }

  const Counters &counters() const { return counters_; }
  void clear_counters() { counters_ = {}; }

 private:
  GreUdpCarrier(int fd, Config config);
  void store(ip_addr_t from, uint16_t from_port, ip_addr_t to, std::span<const uint8_t> payload);
  void receive(ip_addr_t from, uint16_t from_port, std::span<const uint8_t> payload);

  int fd_;
  Config config_;
  Counters counters_;
  std::function<void(CorePacket)> receiver_;
  Capture *capture_ = nullptr;
};

}  // namespace ref

#endif  // REFERENCE_CARRIERS_H
