// What a lab run tells: a log with time stamps, progress while it waits, the closing table; and a record of all that,
// which pages and files are made of.
#ifndef LAB_REPORT_H
#define LAB_REPORT_H

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace lab {

// One thing of the log.
struct Entry {
  enum class Kind {
    heading,
    action,  // something was done to the PEs, the network or the traffic
    line,
    block,  // output of a command
    expectation
  };
  // What the log shows of it, and what expectation alone has besides.
  Kind kind = Kind::line;
  double at = 0;         // seconds since the start
  std::string text;      // heading, action, line; block: several lines; expectation: what was expected
  std::string happened;  // expectation: one line; else empty
  bool holds = true;     // expectation; else true
};

class Report {
 public:
  explicit Report(std::string name);

  void heading(const std::string &text);
  void action(const std::string &text);
  void line(const std::string &text);
  void block(const std::string &text);
  void progress(const std::string &text);
  void progress_done();

  // Records an expectation; happened: one line.
  void expectation(const std::string &expected, const std::string &happened, bool holds);
  // Records that the run itself could not go on.
  void broken(const std::string &reason) { expectation("the scenario is played to its end", reason, false); }

  // Prints the table and the closing line; true when everything expected happened, and something was expected.
  bool finish();

  const std::string &name() const { return name_; }
  const std::vector<Entry> &entries() const { return entries_; }
  int64_t start_ns() const { return start_ns_; }  // CLOCK_REALTIME
  double seconds() const;                         // since the start
  size_t expected() const;
  size_t wrong() const;

 private:
  void record(Entry::Kind kind, const std::string &text);
  std::string stamp() const;

  std::string name_;
  std::chrono::steady_clock::time_point start_;
  int64_t start_ns_;
  bool terminal_;
  bool in_progress_ = false;
  std::vector<Entry> entries_;
};

}  // namespace lab

#endif  // LAB_REPORT_H
