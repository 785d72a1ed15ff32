#include "lab/report.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <sstream>

namespace lab {

Report::Report() : start_(std::chrono::steady_clock::now()), terminal_(isatty(STDOUT_FILENO) != 0) {}

std::string Report::stamp() const {
  const auto passed = std::chrono::steady_clock::now() - start_;
  char text[32];
  std::snprintf(text, sizeof text, "%8.3f  ", std::chrono::duration<double>(passed).count());
  return text;
}

void Report::heading(const std::string &text) {
  progress_done();
  std::cout << '\n' << stamp() << "== " << text << std::endl;
}

void Report::line(const std::string &text) {
  progress_done();
  std::cout << stamp() << text << std::endl;
}

void Report::block(const std::string &text) {
  progress_done();
  std::istringstream in(text);
  for (std::string row; std::getline(in, row);) std::cout << "          | " << row << '\n';
  std::cout.flush();
}

void Report::progress(const std::string &text) {
  if (!terminal_) {
    if (!in_progress_) std::cout << stamp() << "waiting: " << text << std::endl;
  } else {
    std::cout << '\r' << stamp() << "waiting: " << text << "\033[K" << std::flush;
  }
  in_progress_ = true;
}

void Report::progress_done() {
  if (in_progress_ && terminal_) std::cout << "\r\033[K" << std::flush;
  in_progress_ = false;
}

void Report::expectation(const std::string &expected, const std::string &happened, bool holds) {
  rows_.push_back({expected, happened, holds});
  line(std::string(holds ? "ok    " : "WRONG ") + expected + ": " + happened);
}

bool Report::finish() {
  progress_done();
  size_t width = 8;
  for (const Row &row : rows_) width = std::max(width, std::min<size_t>(row.expected.size(), 60));
  std::cout << "\n      "
            << "expected" << std::string(width - 8 + 2, ' ') << "happened\n";
  size_t wrong = 0;
  for (const Row &row : rows_) {
    wrong += row.holds ? 0 : 1;
    const std::string gap(row.expected.size() < width ? width - row.expected.size() : 0, ' ');
    std::cout << (row.holds ? "ok    " : "WRONG ") << row.expected << gap << "  " << row.happened << '\n';
  }
  std::cout << '\n' << rows_.size() - wrong << " of " << rows_.size() << " expectations held" << std::endl;
  return wrong == 0 && !rows_.empty();
}

}  // namespace lab
