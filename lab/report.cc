// Prints while the run goes on and records the same things. Times are of the steady clock, so that a clock that is set
// in the middle of a run does not matter; the start is noted on CLOCK_REALTIME too, because traffic and forwarders tell
// times on that. Progress is printed for terminals only and never recorded.
#include "lab/report.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <utility>

namespace lab {

Report::Report(std::string name)
    : name_(std::move(name)),
      start_(std::chrono::steady_clock::now()),
      start_ns_(
          std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
              .count()),
      terminal_(isatty(STDOUT_FILENO) != 0) {}

double Report::seconds() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

std::string Report::stamp() const {
  char text[32];
  std::snprintf(text, sizeof text, "%8.3f  ", seconds());
  return text;
}

void Report::record(Entry::Kind kind, const std::string &text) {
  progress_done();
  entries_.push_back({kind, seconds(), text, {}, true});
}

void Report::heading(const std::string &text) {
  record(Entry::Kind::heading, text);
  std::cout << '\n' << stamp() << "== " << text << std::endl;
}

void Report::action(const std::string &text) {
  record(Entry::Kind::action, text);
  std::cout << stamp() << text << std::endl;
}

void Report::line(const std::string &text) {
  record(Entry::Kind::line, text);
  std::cout << stamp() << text << std::endl;
}

void Report::block(const std::string &text) {
  record(Entry::Kind::block, text);
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
  record(Entry::Kind::expectation, expected);
  entries_.back().happened = happened;
  entries_.back().holds = holds;
  std::cout << stamp() << (holds ? "ok    " : "WRONG ") << expected << ": " << happened << std::endl;
}

size_t Report::expected() const {
  return static_cast<size_t>(std::count_if(entries_.begin(), entries_.end(),
                                           [](const Entry &entry) { return entry.kind == Entry::Kind::expectation; }));
}

size_t Report::wrong() const {
  return static_cast<size_t>(std::count_if(entries_.begin(), entries_.end(), [](const Entry &e) { return !e.holds; }));
}

bool Report::finish() {
  progress_done();
  size_t width = 8;
  for (const Entry &entry : entries_)
    if (entry.kind == Entry::Kind::expectation) width = std::max(width, std::min<size_t>(entry.text.size(), 60));
  std::cout << "\n      "
            << "expected" << std::string(width - 8 + 2, ' ') << "happened\n";
  for (const Entry &entry : entries_) {
    if (entry.kind != Entry::Kind::expectation) continue;
    const std::string gap(entry.text.size() < width ? width - entry.text.size() : 0, ' ');
    std::cout << (entry.holds ? "ok    " : "WRONG ") << entry.text << gap << "  " << entry.happened << '\n';
  }
  std::cout << '\n' << expected() - wrong() << " of " << expected() << " expectations held" << std::endl;
  return wrong() == 0 && expected() > 0;
}

}  // namespace lab
