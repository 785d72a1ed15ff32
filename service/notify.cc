// Reads the environment at each call and keeps nothing, so that it may be called at any time and from any thread. What
// cannot be told is dropped: a service manager that does not listen is no reason to serve nobody.
#include "service/notify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

namespace service {
namespace {

std::optional<uint64_t> number_in(const char *variable) {
  const char *text = std::getenv(variable);
  if (text == nullptr) return std::nullopt;
  uint64_t value = 0;
  const char *end = text + std::strlen(text);
  const auto [at, error] = std::from_chars(text, end, value);
  return error == std::errc() && at == end ? std::optional(value) : std::nullopt;
}

}  // namespace

void notify(std::string_view state) {
  const char *path = std::getenv("NOTIFY_SOCKET");
  sockaddr_un address{};
  if (path == nullptr || (path[0] != '/' && path[0] != '@') || std::strlen(path) >= sizeof address.sun_path) return;
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path, std::strlen(path));
  if (path[0] == '@') address.sun_path[0] = '\0';  // abstract name
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return;
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(path));
  (void)sendto(fd, state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&address), size);
  close(fd);
}

// With the time, which service managers that follow a reload compare with that of their signal.
void notify_reloading() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  notify("RELOADING=1\nMONOTONIC_USEC=" + std::to_string(now.tv_sec * 1'000'000LL + now.tv_nsec / 1000));
}

std::optional<std::chrono::milliseconds> watchdog_interval() {
  const auto microseconds = number_in("WATCHDOG_USEC");
  if (!microseconds || *microseconds < 2000) return std::nullopt;
  if (const auto process = number_in("WATCHDOG_PID"); process && *process != static_cast<uint64_t>(getpid()))
    return std::nullopt;
  return std::chrono::milliseconds(*microseconds / 2000);
}

}  // namespace service
