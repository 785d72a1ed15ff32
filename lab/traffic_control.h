// Moves traffic in a real scenario and judges it: an agent of mvpn-traffic in every customer's namespace sends and
// receives, one in each namespace of the core watches the PEs' links.
//
// Judgements are about what was sent since a mark. The sender says which numbers these are, the receiver which of them
// came, the core which group each of them went over; so a loss has a group, and one that no link of the core saw has
// none.
#ifndef LAB_TRAFFIC_CONTROL_H
#define LAB_TRAFFIC_CONTROL_H

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>

#include "lab/process.h"
#include "lab/stage.h"

namespace lab {

struct FlowResult {
  uint64_t sent = 0;          // since the mark
  uint64_t received = 0;      // different numbers
  uint64_t lost = 0;          // numbers that were sent and did not come
  uint64_t duplicates = 0;    // arrivals of a number that had come before
  uint64_t reordered = 0;     // arrivals behind a higher number
  uint64_t dropped_here = 0;  // by a full socket of the receiver, at any time: losses that are the lab's own
  double gap_ms = 0;          // longest time between two packets
  std::map<std::string, uint64_t> lost_by_group;  // core group, or "before the core"
  std::map<std::string, uint64_t> sent_by_group;  // as the sending PE's core link carried them

  std::string text() const;
};

class TrafficControl {
 public:
  // program: mvpn-traffic. Captures and logs go to the work folder.
  TrafficControl(const Stage &stage, std::string program, std::string work);

  // Packets a second; the flow starts with its first rate, 0 pauses it.
  void set_rate(const NetworkFlow &flow, double rate);
  void join(const NetworkFlow &flow, const std::string &pe);
  void leave(const NetworkFlow &flow, const std::string &pe);

  // From now on, "since the mark" begins here.
  void mark();

  // Number of the flow's last packet. 0: none was sent.
  uint64_t sent(const NetworkFlow &flow);
  // Highest number that came there. 0: none.
  uint64_t arrived(const NetworkFlow &flow, const std::string &pe);
  FlowResult judge(const NetworkFlow &flow, const std::string &pe);

  // GRE packets since the mark over a PE's core link to it (or from it), whose group lies in the prefix A.B.C.D/LENGTH.
  uint64_t carried(const std::string &pe, const std::string &groups, bool from_pe);

  // What the report draws: [{flow, vrf, from, group, sent: series, received: {PE: series}, groups: {core group:
  // series}, joined: {PE: [[first, last], …]}}]; a series is [[tenth of a second of CLOCK_REALTIME, packets], …].
  nlohmann::json history();

 private:
  using json = nlohmann::json;
  json ask(const std::string &place, const json &request);
  Process &agent(const std::string &place);
  json carried_list(const std::string &pe, const json &options);
  json groups_of(const NetworkFlow &flow, const char *what);
  static std::string host(const std::string &pe, const NetworkFlow &flow) { return pe + "-" + flow.vrf + "-h"; }

  const Stage &stage_;
  std::string program_;
  std::string work_;
  std::map<std::string, Process> agents_;                      // by namespace
  std::set<std::string> started_;                              // flows
  std::map<std::string, std::map<std::string, json>> joined_;  // by flow and PE: spans of time, as in history
  std::map<std::string, uint64_t> marked_;                     // by flow: its last packet at the mark
  std::map<std::string, uint64_t> marked_carried_;             // by link, direction and group: packets at the mark
};

// Whether an address lies in a prefix. Throws std::runtime_error when one of them is wrong.
bool in_prefix(const std::string &address, const std::string &prefix);

}  // namespace lab

#endif  // LAB_TRAFFIC_CONTROL_H
