// Loopback addresses for sockets of tests, which may run beside each other.
#ifndef TESTS_SUPPORT_OWN_ADDRESS_H
#define TESTS_SUPPORT_OWN_ADDRESS_H

#include <arpa/inet.h>
#include <unistd.h>

#include <cstdint>
#include <string>

// One of three addresses (number 0 to 2, host byte order) that no other process has, so that any port is free there. A
// port that the system chose and that was closed again may be another's before it is used.
inline uint32_t own_address(uint32_t number) {
  return 127u << 24 | (number + 1) << 22 | static_cast<uint32_t>(::getpid());  // a process has 22 bits
}

inline std::string own_address_text(uint32_t number) {
  return ::inet_ntoa(in_addr{.s_addr = htonl(own_address(number))});
}

#endif  // TESTS_SUPPORT_OWN_ADDRESS_H
