// The C library's conversions, which know leap years and nothing of leap seconds; UTC, so that no zone is asked for.
#include "host/output/wall_time.h"

#include <cstdio>
#include <ctime>

namespace output {

std::string wall_time(std::chrono::system_clock::time_point when) {
  const auto since = std::chrono::floor<std::chrono::milliseconds>(when.time_since_epoch()).count();
  const auto seconds = static_cast<std::time_t>(since / 1000);
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  char text[40];
  const size_t size = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(text + size, sizeof text - size, ".%03dZ", static_cast<int>(since % 1000));
  return text;
}

}  // namespace output
