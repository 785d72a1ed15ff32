// What the module says about itself: event history, error reports, debug output.
#ifndef REFERENCE_DIAG_H
#define REFERENCE_DIAG_H

#include <chrono>
#include <string>
#include <vector>

namespace ref {

struct Event {
  std::chrono::nanoseconds time;  // platform time
  std::string text;               // as the module wrote it
};
std::vector<Event> history();  // the latest 10000 events of the module, oldest first
void clear_history();
struct Report {
  std::string name;                    // of the descriptor
  std::vector<std::string> arguments;  // in the order in which the text shows them
};
const std::vector<Report> &reports();  // the latest 1000 error reports that passed the rate limit
void clear_reports();
// Where error reports and debug output go: standard error, syslog, or nowhere (tests).
enum class LogSink { none, standard_error, syslog };
void set_log_sink(LogSink sink);

}  // namespace ref

#endif  // REFERENCE_DIAG_H
