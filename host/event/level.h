// How much a line of the log matters, and what takes such lines.
#ifndef HOST_EVENT_LEVEL_H
#define HOST_EVENT_LEVEL_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace host {

// The numbers are those of syslog: a smaller one matters more.
enum class Level : uint8_t { error = 3, warning = 4, notice = 5, info = 6, debug = 7 };

// "error" to "debug"; nothing for another name.
std::string_view name_of(Level level);
std::optional<Level> level_of(std::string_view name);

using LogLine = std::function<void(Level level, const std::string &text)>;

}  // namespace host

#endif  // HOST_EVENT_LEVEL_H
