// Patterns come from clients, so they are matched in time and memory that are bounded, however they are written.
#include "host/output/filters.h"

#include <re2/re2.h>

#include <algorithm>
#include <cstdint>

namespace output {
namespace {

constexpr size_t kLongestPattern = 255;  // bytes; bounds what compiling one takes

RE2::Options pattern_options() {
  RE2::Options options;
  options.set_log_errors(false);
  options.set_encoding(RE2::Options::EncodingLatin1);  // lines may hold any bytes
  options.set_max_mem(1 << 20);                        // bytes; a pattern that needs more is refused
  return options;
}

// A writer in front of another one: passes on what it does not change. It sees whole lines, without their newline;
// handlers print a line in several pieces.
class Filter : public Writer {
 public:
  explicit Filter(std::unique_ptr<Writer> next) : next_(std::move(next)) {}
  void text(std::string_view text) override {
    for (size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n')) {
      line_.append(text.substr(0, end));
      line(line_);
      line_.clear();
      text.remove_prefix(end + 1);
    }
    line_.append(text);
  }
  void promise(const SchemaRecord &kind) override { next_->promise(kind); }
  void value(const ref::CliValue &value) override { next_->value(value); }
  bool more() override { return next_->more(); }
  void finish() override {
    if (!line_.empty()) line(line_);
    line_.clear();
    end_of_lines();
    next_->finish();
  }

 protected:
  virtual void line(const std::string &line) = 0;
  virtual void end_of_lines() {}

  std::unique_ptr<Writer> next_;

 private:
  std::string line_;  // without its end so far
};

class PatternFilter : public Filter {
 public:
  PatternFilter(LineFilter filter, const std::string &pattern, std::unique_ptr<Writer> next)
      : Filter(std::move(next)), filter_(filter), pattern_(pattern, pattern_options()) {}

 protected:
  void line(const std::string &line) override {
    if (is_wanted(line)) next_->text(line + '\n');
  }

 private:
  bool is_wanted(const std::string &line) {
    const bool matches = RE2::PartialMatch(line, pattern_);
    switch (filter_) {
      case LineFilter::include:
        return matches;
      case LineFilter::exclude:
        return !matches;
      case LineFilter::begin:
        return begun_ = begun_ || matches;
      default:
        break;
    }
    const size_t indent = std::min(line.find_first_not_of(' '), line.size());
    if (begun_ && indent > indent_) return true;
    begun_ = matches;
    indent_ = indent;
    return matches;
  }

  LineFilter filter_;
  RE2 pattern_;
  bool begun_ = false;
  size_t indent_ = 0;  // of the section's first line
};

class CountFilter : public Filter {
 public:
  using Filter::Filter;

 protected:
  void line(const std::string &) override { lines_++; }
  void end_of_lines() override { next_->text(std::to_string(lines_) + '\n'); }

 private:
  uint64_t lines_ = 0;
};

}  // namespace

std::string pattern_fault(const std::string &pattern) {
  if (pattern.size() > kLongestPattern) return "is longer than " + std::to_string(kLongestPattern) + " characters";
  const RE2 compiled(pattern, pattern_options());
  return compiled.ok() ? "" : "is no regular expression: " + compiled.error();
}

std::unique_ptr<Writer> filter_lines(LineFilter filter, const std::string &pattern, std::unique_ptr<Writer> next) {
  return std::make_unique<PatternFilter>(filter, pattern, std::move(next));
}

std::unique_ptr<Writer> count_lines(std::unique_ptr<Writer> next) {
  return std::make_unique<CountFilter>(std::move(next));
}

}  // namespace output
