// Metrics as text, in the two formats that monitoring systems read: OpenMetrics 1.0 and its predecessor, the text
// format 0.0.4. They differ in the names that stand for counters and in the end mark.
#ifndef HOST_METRICS_EXPOSITION_H
#define HOST_METRICS_EXPOSITION_H

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace host::metrics {

enum class Format { text, open_metrics };

// The media type of a format, as an HTTP header has it.
std::string_view media_type(Format format);

// The best format for an Accept header: OpenMetrics when it is asked for.
Format accepted_format(std::string_view accept);

using Labels = std::vector<std::pair<std::string_view, std::string>>;

// Samples of a histogram: how many observations were at most each bound, ascending, in the metric's unit.
struct Histogram {
  std::vector<std::pair<double, uint64_t>> buckets;  // bound, observations up to it
  uint64_t count = 0;                                // observations, beyond the last bound too
  double sum = 0;                                    // of them, in the metric's unit
};

// Builds a text family by family: a metric's samples follow its name and help.
class Exposition {
 public:
  explicit Exposition(Format format) : format_(format) {}

  // name: in the base unit (seconds, bytes), without the suffix of a counter. help: a sentence.
  void counter(std::string_view name, std::string_view help);
  void gauge(std::string_view name, std::string_view help);
  void histogram(std::string_view name, std::string_view help, const Histogram &value);

  // A sample of the family that was begun last.
  void sample(const Labels &labels, double value);
  void sample(const Labels &labels, uint64_t value);
  void sample(double value) { sample({}, value); }
  void sample(uint64_t value) { sample({}, value); }

  // The whole text, once.
  std::string take();

 private:
  void begin(std::string_view name, std::string_view type, std::string_view help);
  void line(std::string_view suffix, const Labels &labels, const std::string &value);

  Format format_;
  std::string name_, suffix_, text_;
};

}  // namespace host::metrics

#endif  // HOST_METRICS_EXPOSITION_H
