// What the process may do: three capabilities, and nothing else.
#ifndef FORWARDER_PRIVILEGES_H
#define FORWARDER_PRIVILEGES_H

#include <string>

namespace forwarder {

// Keeps CAP_NET_ADMIN (devices, addresses, links, sysctls of namespaces), CAP_NET_RAW (raw sockets) and CAP_SYS_ADMIN
// (entering namespaces), gives everything else up for good, and becomes `user` unless that is empty. Throws
// std::runtime_error: one of the three is missing, or the user is not known.
void keep_needed_privileges(const std::string &user);

}  // namespace forwarder

#endif  // FORWARDER_PRIVILEGES_H
