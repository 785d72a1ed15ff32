// What became of the packets of one flow at one place: each number's time of arrival, so that any stretch of the flow
// can be judged afterwards, whatever happened around it.
//
// Trap: a flow's numbers say how many packets there were only up to the highest one that arrived. Who wants to know
// whether the end of a stretch is missing gives the last number that the sender knows.
#ifndef LAB_TRAFFIC_TALLY_H
#define LAB_TRAFFIC_TALLY_H

#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "lab/traffic/test_packet.h"

namespace traffic {

// Numbers that a tally keeps; packets with higher ones are counted as beyond. Eight bytes are kept for each.
constexpr uint64_t kMostPackets = 8U << 20;

// The time line's unit.
constexpr int64_t kBucketNs = 100'000'000;

using Ranges = std::vector<std::pair<uint64_t, uint64_t>>;  // first and last number of each, both included

struct Stretch {
  uint64_t received = 0;       // different numbers
  uint64_t lost = 0;           // numbers that never came
  uint64_t duplicates = 0;     // arrivals of a number that had come before
  uint64_t reordered = 0;      // arrivals behind a higher number
  int64_t longest_gap_ns = 0;  // between arrivals that follow each other
  Ranges missing;              // the first 1000
};

class Tally {
 public:
  void arrived(const TestPacket &packet, int64_t at_ns);

  // The packets numbered from first to last, both included.
  Stretch stretch(uint64_t first, uint64_t last) const;

  uint64_t highest() const { return highest_; }
  uint64_t first() const { return first_; }    // the number that came first; 0: none came
  uint64_t beyond() const { return beyond_; }  // packets whose numbers are too high to be kept

  // Arrivals by the tenth of a second in which they were sent: bucket number (sent_ns / kBucketNs) to packets.
  const std::map<int64_t, uint32_t> &series() const { return series_; }

 private:
  std::vector<int64_t> arrivals_;   // by number - 1; 0: it has not come
  std::vector<uint64_t> repeated_;  // numbers, one entry an arrival
  std::vector<uint64_t> late_;
  std::map<int64_t, uint32_t> series_;
  uint64_t highest_ = 0;
  uint64_t first_ = 0;
  uint64_t beyond_ = 0;
};

}  // namespace traffic

#endif  // LAB_TRAFFIC_TALLY_H
