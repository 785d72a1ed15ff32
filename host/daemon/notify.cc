#include "host/daemon/notify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace host {

void notify_service_manager(std::string_view state) {
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

}  // namespace host
