// What a lab run prints: a log with time stamps, progress while it waits, and the closing table.
#ifndef LAB_REPORT_H
#define LAB_REPORT_H

#include <chrono>
#include <string>
#include <vector>

namespace lab {

class Report {
 public:
  Report();

  void heading(const std::string &text);
  void line(const std::string &text);
  void block(const std::string &text);  // output of a command, indented
  void progress(const std::string &text);
  void progress_done();

  // Records an expectation; happened: one line.
  void expectation(const std::string &expected, const std::string &happened, bool holds);

  // Prints the table and the closing line; true when everything expected happened.
  bool finish();

 private:
  struct Row {
    std::string expected;
    std::string happened;
    bool holds;
  };
  std::string stamp() const;

  std::chrono::steady_clock::time_point start_;
  bool terminal_;
  bool in_progress_ = false;
  std::vector<Row> rows_;
};

}  // namespace lab

#endif  // LAB_REPORT_H
