// Pictures of a report, as SVG: the network, what became of each flow, and the events of the PEs, all on one time axis.
#ifndef LAB_DRAWING_H
#define LAB_DRAWING_H

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "lab/network.h"
#include "lab/report.h"

namespace lab {

struct PeEvent {
  double at = 0;     // seconds since the start of the run
  std::string pe;    // or "PE forwarder"
  std::string text;  // for people; one line
};

// The core, its PEs and the VRFs of each.
std::string draw_network(const Network &network);

// One flow, of TrafficControl::history: rate, core groups, and for each receiver what arrived of what was sent.
std::string draw_flow(const nlohmann::json &flow, const Report &report);

// A row for each PE, with a mark for each event; texts are shown under the pointer.
std::string draw_events(const std::vector<PeEvent> &events, const Report &report);

// A text without the characters that mean something in XML.
std::string escaped(const std::string &text);

}  // namespace lab

#endif  // LAB_DRAWING_H
