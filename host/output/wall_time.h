// The time of day as logs and documents write it.
#ifndef HOST_OUTPUT_WALL_TIME_H
#define HOST_OUTPUT_WALL_TIME_H

#include <chrono>
#include <string>

namespace output {

// RFC 3339, UTC, to the millisecond: "2026-01-31T12:00:00.000Z".
std::string wall_time(std::chrono::system_clock::time_point when);

}  // namespace output

#endif  // HOST_OUTPUT_WALL_TIME_H
