// Options of TCP sockets that BGP needs and that have no portable interface.
//
// Each function returns an empty text, or why the option cannot be had, in words for an operator.
#ifndef BGP_ASIO_SOCKET_OPTIONS_H
#define BGP_ASIO_SOCKET_OPTIONS_H

#include <string>

#include "bgp/types.h"

namespace bgp {

// The key of segments to and from an address (RFC 2385), at most 80 octets; empty: none any more. On a listening socket
// each neighbour has its own, and accepted sockets inherit theirs.
std::string set_md5_key(int socket, Ipv4 neighbor, const std::string &key);

// RFC 5082: send with 255 and accept what has passed at most hops - 1 routers. 0: the system's ordinary values.
std::string set_ttl_security(int socket, uint8_t hops);

// Outgoing packets with a TTL of 255: on a listening socket, whose answers the neighbour may check before it is known
// which neighbour it is.
void set_full_ttl(int socket);

}  // namespace bgp

#endif  // BGP_ASIO_SOCKET_OPTIONS_H
