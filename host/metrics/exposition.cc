// Writes metric families. Numbers go through std::to_chars: the shortest form that reads back as the same value, and no
// locale. Nothing is sorted or checked: families come once each, in the order of the calls.
#include "host/metrics/exposition.h"

#include <charconv>

namespace host::metrics {
namespace {

// What stands in quotes, or behind HELP.
std::string escaped(std::string_view text, bool quoted) {
  std::string result;
  for (const char c : text) {
    if (c == '\\' || (quoted && c == '"')) result += '\\';
    result += c == '\n' ? "\\n" : std::string(1, c);
  }
  return result;
}

template <typename Number>
std::string number_text(Number value) {
  char text[64];
  const auto end = std::to_chars(std::begin(text), std::end(text), value).ptr;
  return {text, end};
}

}  // namespace

std::string_view media_type(Format format) {
  return format == Format::open_metrics ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
                                        : "text/plain; version=0.0.4; charset=utf-8";
}

Format accepted_format(std::string_view accept) {
  return accept.find("application/openmetrics-text") != accept.npos ? Format::open_metrics : Format::text;
}

void Exposition::begin(std::string_view name, std::string_view type, std::string_view help) {
  name_ = name;
  suffix_ = type == "counter" ? "_total" : "";
  // The older format knows a counter by the name of its samples.
  const std::string family = format_ == Format::text ? name_ + suffix_ : name_;
  text_ += "# HELP " + family + " " + escaped(help, format_ == Format::open_metrics) + "\n";
  text_ += "# TYPE " + family + " " + std::string(type) + "\n";
}

void Exposition::counter(std::string_view name, std::string_view help) { begin(name, "counter", help); }
void Exposition::gauge(std::string_view name, std::string_view help) { begin(name, "gauge", help); }

void Exposition::histogram(std::string_view name, std::string_view help, const Histogram &value) {
  begin(name, "histogram", help);
  for (const auto &[bound, count] : value.buckets) line("_bucket", {{"le", number_text(bound)}}, number_text(count));
  line("_bucket", {{"le", "+Inf"}}, number_text(value.count));
  line("_sum", {}, number_text(value.sum));
  line("_count", {}, number_text(value.count));
}

void Exposition::line(std::string_view suffix, const Labels &labels, const std::string &value) {
  text_ += name_;
  text_ += suffix;
  char before = '{';
  for (const auto &[name, text] : labels) {
    text_ += before + std::string(name) + "=\"" + escaped(text, true) + "\"";
    before = ',';
  }
  text_ += (labels.empty() ? " " : "} ") + value + "\n";
}

void Exposition::sample(const Labels &labels, double value) { line(suffix_, labels, number_text(value)); }
void Exposition::sample(const Labels &labels, uint64_t value) { line(suffix_, labels, number_text(value)); }

std::string Exposition::take() {
  if (format_ == Format::open_metrics) text_ += "# EOF\n";
  return std::move(text_);
}

}  // namespace host::metrics
