// The system calls behind socket.h, with errors as exceptions that name the call.
#include "lab/traffic/socket.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <stdexcept>

namespace traffic {

int64_t now_ns() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec * 1'000'000'000LL + now.tv_nsec;
}

void fail(const std::string &call) { throw std::runtime_error(call + ": " + std::strerror(errno)); }

uint32_t address_of(const std::string &text) {
  in_addr address{};
  if (inet_pton(AF_INET, text.c_str(), &address) != 1) throw std::runtime_error("'" + text + "' is no IPv4 address");
  return ntohl(address.s_addr);
}

uint32_t group_of(const std::string &text) {
  const uint32_t address = address_of(text);
  if (address >> 28 != 0xE) throw std::runtime_error(text + " is no multicast group");
  return address;
}

std::string text_of(uint32_t address) {
  char text[INET_ADDRSTRLEN];
  const in_addr form{htonl(address)};
  return inet_ntop(AF_INET, &form, text, sizeof text);
}

Descriptor udp_socket() {
  Descriptor fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (fd.get() < 0) fail("socket");
  return fd;
}

}  // namespace traffic
