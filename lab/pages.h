// The files that a run leaves for people and for other programs: report.html, which needs nothing beside it, and
// junit.xml, a test case for each expectation.
#ifndef LAB_PAGES_H
#define LAB_PAGES_H

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "lab/drawing.h"
#include "lab/network.h"
#include "lab/report.h"

namespace lab {

struct Findings {
  std::optional<Network> network;                  // nothing: the scenario had none
  nlohmann::json flows = nlohmann::json::array();  // TrafficControl::history
  std::vector<PeEvent> events;                     // by time, the earliest first
};

// Writes report.html and junit.xml into a folder, which is made. project: where lab/templates is. Throws
// std::runtime_error.
void write_pages(const Report &report, const Findings &findings, const std::string &project, const std::string &folder);

}  // namespace lab

#endif  // LAB_PAGES_H
