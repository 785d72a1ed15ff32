// What the sources of this folder share of the system: descriptors that close themselves, addresses and the clock.
#ifndef LAB_TRAFFIC_SOCKET_H
#define LAB_TRAFFIC_SOCKET_H

#include <unistd.h>

#include <cstdint>
#include <string>
#include <utility>

namespace traffic {

class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  ~Descriptor() {
    if (fd_ >= 0) close(fd_);
  }
  Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor &operator=(Descriptor &&other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

int64_t now_ns();  // CLOCK_REALTIME

// Throws std::runtime_error with the call's name and the reason of errno.
[[noreturn]] void fail(const std::string &call);

// An IPv4 address in host byte order. Throws std::runtime_error when the text is none.
uint32_t address_of(const std::string &text);
// The same of an address that groups have.
uint32_t group_of(const std::string &text);
std::string text_of(uint32_t address);

// A UDP socket over IPv4. Throws std::runtime_error.
Descriptor udp_socket();

}  // namespace traffic

#endif  // LAB_TRAFFIC_SOCKET_H
