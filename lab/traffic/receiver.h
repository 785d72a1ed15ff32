// Receives test packets: a socket for each flow, so that neither the memberships that a socket may have nor the sources
// that a group may have set a limit.
#ifndef LAB_TRAFFIC_RECEIVER_H
#define LAB_TRAFFIC_RECEIVER_H

#include <map>
#include <string>
#include <vector>

#include "lab/traffic/sender.h"
#include "lab/traffic/socket.h"
#include "lab/traffic/tally.h"

namespace traffic {

class Receiver {
 public:
  // Joins the flow on an interface (IGMPv3 with its source, or any source when that is 0); a flow that was left may be
  // joined again and keeps its tally. Throws std::runtime_error.
  void join(uint32_t flow, const FlowAddress &address, const std::string &interface);
  // Throws std::runtime_error for a flow that is not joined.
  void leave(uint32_t flow);

  std::vector<int> descriptors() const;
  // Takes what has arrived at one of the descriptors.
  void read(int descriptor);

  struct Flow {
    Descriptor socket;     // open while it is joined
    bool joined = false;   // now
    Tally tally;           // of all the times that it was joined
    uint64_t foreign = 0;  // packets of another flow, or no test packets at all
    uint32_t dropped = 0;  // packets that the system dropped because the socket's buffer was full
  };
  // Throws std::runtime_error for a flow that was never joined.
  const Flow &flow(uint32_t flow) const;

 private:
  static void take(uint32_t id, Flow *flow);
  std::map<uint32_t, Flow> flows_;
};

}  // namespace traffic

#endif  // LAB_TRAFFIC_RECEIVER_H
