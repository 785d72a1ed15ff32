// Draws by writing SVG elements as text. Each picture has its own coordinates; those with a time axis share kLeft and
// kWidth, so that pictures that stand below each other in the report have the same moment at the same place.
//
// Units: a bucket is a tenth of a second of CLOCK_REALTIME, as the traffic agents count; an axis is in seconds since
// the start of the run. Axis alone converts. Every text from outside passes escaped() on its way into an element.
#include "lab/drawing.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <set>
#include <sstream>

namespace lab {
namespace {

using nlohmann::json;

constexpr double kWidth = 1100;  // units of the view box; the page scales a picture to its own width
constexpr double kLeft = 150;    // where a time axis begins: names stand to the left of it
constexpr double kRight = 20;    // what stays free behind its end
constexpr double kBucket = 0.1;  // seconds of a bucket of the series
constexpr int kSmooth = 5;       // buckets that a rate is the mean of
constexpr std::array kColors{"#4878a8", "#d1793b", "#5a9e6f", "#a65d9c", "#b5a33a", "#5fa8b3", "#c25b6e", "#7d6fb0"};
constexpr double kAction = 0.25;  // opacity of a line for an action, and of one for a heading
constexpr double kHeading = 0.8;

using Series = std::map<int64_t, uint32_t>;

std::string number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", value);
  return text;
}

Series series_of(const json &list) {
  Series result;
  for (const json &item : list) result[item.at(0)] = item.at(1);
  return result;
}

uint32_t at(const Series &series, int64_t bucket) {
  const auto found = series.find(bucket);
  return found == series.end() ? 0 : found->second;
}

class Drawing {
 public:
  explicit Drawing(double width) : width_(width) {}

  void rectangle(double x, double y, double width, double height, const std::string &fill,
                 const std::string &tip = {}) {
    out_ << "<rect x='" << number(x) << "' y='" << number(y) << "' width='" << number(std::max(width, 0.6))
         << "' height='" << number(height) << "' fill='" << fill << "'>" << title(tip) << "</rect>\n";
  }
  void box(double x, double y, double width, double height, const std::string &fill, const std::string &text) {
    out_ << "<rect x='" << number(x) << "' y='" << number(y) << "' width='" << number(width) << "' height='"
         << number(height) << "' rx='5' fill='" << fill << "' stroke='#5b6770'/>\n";
    label(x + width / 2, y + height / 2 + 4, text, "middle");
  }
  void line(double x1, double y1, double x2, double y2, const std::string &style, const std::string &tip = {}) {
    out_ << "<line x1='" << number(x1) << "' y1='" << number(y1) << "' x2='" << number(x2) << "' y2='" << number(y2)
         << "' style='" << style << "'>" << title(tip) << "</line>\n";
  }
  void label(double x, double y, const std::string &text, const std::string &anchor = "start") {
    out_ << "<text x='" << number(x) << "' y='" << number(y) << "' text-anchor='" << anchor << "'>" << escaped(text)
         << "</text>\n";
  }
  void path(const std::string &points, const std::string &color) {
    out_ << "<polyline points='" << points << "' fill='none' stroke='" << color << "' stroke-width='1.4'/>\n";
  }
  std::string finish(double height) const {
    return "<svg viewBox='0 0 " + number(width_) + " " + number(height) + "' role='img'>\n" + out_.str() + "</svg>\n";
  }

 private:
  static std::string title(const std::string &tip) {
    return tip.empty() ? std::string() : "<title>" + escaped(tip) + "</title>";
  }
  double width_;
  std::ostringstream out_;
};

// Where a moment of the run stands.
class Axis {
 public:
  explicit Axis(const Report &report)
      : start_(report.start_ns()), seconds_(std::max(report.entries().empty() ? 1 : report.entries().back().at, 1.0)) {}

  double x(double seconds) const { return kLeft + seconds / seconds_ * (kWidth - kLeft - kRight); }
  double seconds_of(int64_t bucket) const {
    return static_cast<double>(bucket) * kBucket - static_cast<double>(start_) / 1e9;
  }
  double x_of(int64_t bucket) const { return x(std::clamp(seconds_of(bucket), 0.0, seconds_)); }

  // Seconds below, and a line for each heading and action from top to bottom.
  void draw(const Report &report, double bottom, Drawing *drawing) const {
    const double step = seconds_ > 300 ? 60 : seconds_ > 60 ? 20 : seconds_ > 20 ? 5 : 1;
    for (double second = 0; second <= seconds_; second += step) {
      drawing->line(x(second), bottom, x(second), bottom + 4, "stroke:#5b6770");
      drawing->label(x(second), bottom + 16, std::to_string(static_cast<int>(second)) + " s", "middle");
    }
    for (const Entry &entry : report.entries()) {
      if (entry.kind != Entry::Kind::heading && entry.kind != Entry::Kind::action) continue;
      const double opacity = entry.kind == Entry::Kind::heading ? kHeading : kAction;
      drawing->line(x(entry.at), 0, x(entry.at), bottom, "stroke:#333;stroke-dasharray:3 3;opacity:" + number(opacity),
                    entry.text);
    }
  }

 private:
  int64_t start_;
  double seconds_;
};

double highest_rate(const Series &sent) {
  uint32_t most = 1;
  for (const auto &[bucket, packets] : sent) most = std::max(most, packets);
  return most / kBucket;
}

// The mean over the buckets around it.
double rate_at(const Series &series, int64_t bucket) {
  uint32_t packets = 0;
  for (int64_t near = bucket - kSmooth / 2; near <= bucket + kSmooth / 2; ++near) packets += at(series, near);
  return packets / (kSmooth * kBucket);
}

void draw_rate(const Series &sent, const Axis &axis, double top, double height, Drawing *drawing) {
  const double most = highest_rate(sent);
  drawing->label(4, top + 10, std::to_string(static_cast<int>(most)) + " packets/s");
  drawing->line(kLeft, top + height, kWidth - kRight, top + height, "stroke:#c3c9cf");
  if (sent.empty()) return;
  std::string points;
  for (int64_t bucket = sent.begin()->first; bucket <= sent.rbegin()->first; ++bucket)
    points += number(axis.x_of(bucket)) + "," +
              number(top + height - std::min(rate_at(sent, bucket) / most, 1.0) * height) + " ";
  drawing->path(points, "#20435f");
}

// Stretches in which packets were seen; pauses of less than a second are part of them.
void draw_group(const std::string &group, const Series &series, const std::string &color, const Axis &axis, double top,
                Drawing *drawing) {
  constexpr int64_t pause = 10;
  drawing->label(4, top + 11, group);
  for (auto item = series.begin(); item != series.end();) {
    const int64_t first = item->first;
    int64_t last = first;
    uint64_t packets = 0;
    for (; item != series.end() && item->first - last <= pause; ++item) {
      last = item->first;
      packets += item->second;
    }
    drawing->rectangle(axis.x_of(first), top + 2, axis.x_of(last + 1) - axis.x_of(first), 11, color,
                       group + ": " + std::to_string(packets) + " packets");
  }
}

// While the receiver was joined: green where everything came, red as high as the share that did not.
void draw_receiver(const std::string &pe, const json &flow, const Series &sent, const Axis &axis, double top,
                   double height, Drawing *drawing) {
  const Series received = series_of(flow.at("received").at(pe));
  drawing->label(4, top + 13, "at " + pe);
  for (const json &span : flow.at("joined").at(pe)) {
    const int64_t last = std::min(span.at(1).get<int64_t>(), sent.empty() ? 0 : sent.rbegin()->first);
    for (int64_t bucket = span.at(0); bucket <= last; ++bucket) {
      const uint32_t wanted = at(sent, bucket);
      if (wanted == 0) continue;
      const uint32_t lost = wanted - std::min(at(received, bucket), wanted);
      const double x = axis.x_of(bucket);
      const double width = axis.x_of(bucket + 1) - x + 0.3;
      drawing->rectangle(x, top + height - 3, width, 3, lost == 0 ? "#79b48b" : "#c0392b");
      if (lost > 0)
        drawing->rectangle(x, top + 2, width, (height - 5) * lost / wanted, "#c0392b",
                           std::to_string(lost) + " of " + std::to_string(wanted) + " lost at " +
                               number(axis.seconds_of(bucket)) + " s");
    }
  }
}

constexpr double kPeWidth = 130;
constexpr double kVrfHeight = 20;

void draw_pe(const Network &network, const NetworkPe &pe, double x, double y, Drawing *drawing) {
  drawing->box(x, y, kPeWidth - 14, 34, "#e7eef5", pe.name + "  " + network.core_address(pe));
  double below = y + 40;
  for (const NetworkVrf &vrf : network.vrfs) {
    if (!network.has(pe.name, vrf.name)) continue;
    const auto color = kColors[static_cast<size_t>(vrf.number - 1) % kColors.size()];
    drawing->rectangle(x + 6, below + 3, 10, 10, color, vrf.name);
    drawing->label(x + 22, below + 12, vrf.name);
    below += kVrfHeight;
  }
}

}  // namespace

std::string escaped(const std::string &text) {
  std::string result;
  for (const char c : text) {
    switch (c) {
      case '&':
        result += "&amp;";
        break;
      case '<':
        result += "&lt;";
        break;
      case '>':
        result += "&gt;";
        break;
      case '\'':
        result += "&#39;";
        break;
      default:
        result += static_cast<unsigned char>(c) < ' ' ? ' ' : c;
    }
  }
  return result;
}

std::string draw_network(const Network &network) {
  constexpr size_t columns = 8;
  Drawing drawing(kWidth);
  const size_t in_row = std::min(columns, network.pes.size());
  const double row_height = 60 + kVrfHeight * static_cast<double>(network.vrfs.size());
  const double width = kPeWidth * static_cast<double>(in_row);
  const std::string core =
      network.routed ? "p1, p2: routers with PIM, 10.0.0.0/8" : "core: a link that snoops IGMP, 10.0.0.0/24";
  drawing.box(10, 6, std::max(width - 14, 330.0), 30, "#f3e9d8", core);
  for (size_t i = 0; i < network.pes.size(); ++i) {
    const double x = 10 + kPeWidth * static_cast<double>(i % columns);
    const size_t row = i / columns;
    const double y = 64 + row_height * static_cast<double>(row);
    const double middle = x + (kPeWidth - 14) / 2;
    if (i < columns) drawing.line(middle, 36, middle, y, "stroke:#5b6770;stroke-width:1.5");
    draw_pe(network, network.pes[i], x, y, &drawing);
  }
  const size_t rows = (network.pes.size() + columns - 1) / columns;
  return drawing.finish(70 + row_height * static_cast<double>(rows));
}

std::string draw_flow(const json &flow, const Report &report) {
  constexpr double rate_height = 70;
  constexpr double row = 17;
  constexpr double receiver_row = 24;
  Drawing drawing(kWidth);
  const Axis axis(report);
  const Series sent = series_of(flow.at("sent"));
  draw_rate(sent, axis, 4, rate_height, &drawing);
  double top = rate_height + 10;
  size_t color = 0;
  for (const auto &[group, series] : flow.at("groups").items()) {
    draw_group(group, series_of(series), kColors[color++ % kColors.size()], axis, top, &drawing);
    top += row;
  }
  for (const auto &[pe, series] : flow.at("received").items()) {
    draw_receiver(pe, flow, sent, axis, top, receiver_row, &drawing);
    top += receiver_row;
  }
  axis.draw(report, top + 2, &drawing);
  return drawing.finish(top + 24);
}

std::string draw_events(const std::vector<PeEvent> &events, const Report &report) {
  constexpr double row = 20;
  Drawing drawing(kWidth);
  const Axis axis(report);
  std::set<std::string> pes;
  for (const PeEvent &event : events) pes.insert(event.pe);
  double top = 4;
  for (const std::string &pe : pes) {
    drawing.label(4, top + 13, pe);
    drawing.line(kLeft, top + row - 3, kWidth - kRight, top + row - 3, "stroke:#e3e7ea");
    for (const PeEvent &event : events)
      if (event.pe == pe)
        drawing.line(axis.x(event.at), top + 2, axis.x(event.at), top + row - 4, "stroke:#4878a8;stroke-width:1.5",
                     number(event.at) + " s  " + event.text);
    top += row;
  }
  axis.draw(report, top + 2, &drawing);
  return drawing.finish(top + 24);
}

}  // namespace lab
