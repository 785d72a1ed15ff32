// Sends numbered packets of several flows at steady rates. The rate of a flow may change while it runs; the numbers go
// on. A packet that the system refuses keeps its number for the next try, so that a number stands for a packet that
// left.
#ifndef LAB_TRAFFIC_SENDER_H
#define LAB_TRAFFIC_SENDER_H

#include <cstdint>
#include <map>
#include <vector>

#include "lab/traffic/socket.h"
#include "lab/traffic/tally.h"

namespace traffic {

constexpr uint16_t kDefaultPort = 5000;

struct FlowAddress {
  uint32_t source = 0;           // host byte order; 0 with a receiver: any source
  uint32_t group = 0;            // host byte order
  uint16_t port = kDefaultPort;  // UDP, host byte order
};

class Sender {
 public:
  // Rate in packets a second, size of the UDP payload in bytes. Throws std::runtime_error when the source is not an
  // address of this machine, or the numbers make no sense.
  void add(uint32_t flow, const FlowAddress &address, double rate, size_t size);

  // 0: the flow pauses. Throws std::runtime_error for an unknown flow.
  void set_rate(uint32_t flow, double rate);

  // Sends what is due. Returns the nanoseconds until the next packet is due, at most half a second.
  int64_t send_due();

  struct Sent {
    uint64_t last = 0;                   // number of the last packet that left
    uint64_t errors = 0;                 // times that the system refused one
    std::map<int64_t, uint32_t> series;  // as Tally::series
  };
  const Sent &sent(uint32_t flow) const { return flows_.at(flow).sent; }

 private:
  struct Flow {
    Descriptor socket;
    FlowAddress address;
    double rate = 0;
    int64_t due_ns = 0;
    std::vector<uint8_t> payload;
    Sent sent;
  };
  static void send_one(uint32_t id, Flow *flow);

  std::map<uint32_t, Flow> flows_;
};

}  // namespace traffic

#endif  // LAB_TRAFFIC_SENDER_H
