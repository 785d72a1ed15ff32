// What the module says about itself: event history, error reports, debug output.
#ifndef REFERENCE_DIAG_H
#define REFERENCE_DIAG_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace ref {

struct Event {
  std::chrono::nanoseconds time;  // platform time
  std::string text;               // as the module wrote it
};
std::vector<Event> history();  // the latest 10000 events of the module, oldest first
void clear_history();          // of all VRFs
struct Report {
  std::string name;                    // of the descriptor
  std::vector<std::string> arguments;  // in the order in which the text shows them
};
const std::vector<Report> &reports();  // the latest 1000 error reports that passed the rate limit
void clear_reports();
// Where error reports and debug output go: nowhere (tests), standard error, or a writer of the host's, which is called
// by any thread that holds the scheduling locks and must not wait. severity: 0..7, as syslog has it; lines come without
// their end.
enum class LogSink { none, standard_error };
void set_log_sink(LogSink sink);
using LogWriter = std::function<void(uint32_t severity, std::string_view line)>;
void set_log_writer(LogWriter writer);

}  // namespace ref

#endif  // REFERENCE_DIAG_H
