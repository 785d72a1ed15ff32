// Core packets: what crosses the core inside default MDTs, and who carries it.
#ifndef REFERENCE_PACKET_H
#define REFERENCE_PACKET_H

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "platform/types.h"

namespace ref {

// A datagram that crosses the core inside a default MDT.
struct CorePacket {
  ip_addr_t provider_source = 0;  // tunnel source of the sending PE
  ip_addr_t provider_group = 0;   // default group of the VRF
  std::vector<uint8_t> datagram;  // customer IPv4 datagram, as on the wire
};
// Carries core packets between PEs. send: out to every other PE; the receiver given by set_receiver is called on the
// main thread for what arrives.
class Carrier {
 public:
  virtual ~Carrier() = default;
  virtual void send(const CorePacket &packet) = 0;
  virtual void set_receiver(std::function<void(CorePacket)> receiver) = 0;
};
void use_carrier(std::unique_ptr<Carrier> carrier);  // null: in memory, packets are only recorded
// A packet arrives from the core: handed to the VRF whose tunnel has this group as destination. Also what carriers
// call.
void receive_core_packet(const CorePacket &packet);

}  // namespace ref

#endif  // REFERENCE_PACKET_H
