// What a speaker needs from the process around it: connections, and a clock with one alarm.
//
// The speaker calls these; the embedding tells the speaker what happened through Speaker::accepted, connected,
// connection_failed, readable, writable and run (speaker.h). Nothing here may call back into the speaker from within:
// an embedding that learns something while it is being called tells it from its loop afterwards. One thread.
#ifndef BGP_TRANSPORT_H
#define BGP_TRANSPORT_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "bgp/types.h"

namespace bgp {

using ConnectionId = uint64_t;  // given out by the speaker, never used twice

// What the sockets of one neighbour need, both the connection made to it and the one accepted from it.
struct PeerOptions {
  uint16_t port = 179;       // of the neighbour, to connect to
  Ipv4 local_address = 0;    // to bind to; 0: the system's choice
  std::string password{};    // TCP MD5 signatures (RFC 2385), at most 80 octets; empty: none
  uint8_t ttl_security = 0;  // RFC 5082: 0 off; n: send with 255, accept from 256 - n upwards only (1: on the link)
  bool operator==(const PeerOptions &) const = default;
};

struct Received {
  enum class Status : uint8_t {
    data,         // `bytes` > 0 were written
    would_block,  // nothing now: Speaker::readable is called when there is something
    closed        // the other side closed or reset the connection; close() is still called
  };
  Status status = Status::would_block;
  size_t bytes = 0;  // of data; else 0
};

class Transport {
 public:
  virtual ~Transport() = default;

  // Announces what the sockets of a neighbour need, before the neighbour is connected to or accepted from and again
  // when it changed, so that a listening socket knows its password. Empty: done; else why it cannot be had, in words
  // for an operator (a kernel without TCP MD5); the neighbour then stays Idle with these words as its last error.
  virtual std::string set_peer_options(Ipv4 neighbor, const PeerOptions &options) = 0;
  virtual void remove_peer_options(Ipv4 neighbor) = 0;

  // Begins to connect. Ends in Speaker::connected or Speaker::connection_failed, unless close() comes first.
  virtual void connect(ConnectionId connection, Ipv4 neighbor, const PeerOptions &options) = 0;

  // Takes at most into.size() octets that have arrived. After would_block the speaker does not ask again before it is
  // told that the connection is readable; as long as data came, it may ask again without being told.
  virtual Received receive(ConnectionId connection, std::span<uint8_t> into) = 0;

  // Takes as much as the socket's buffer has room for and returns how much, 0 included. When that was not everything,
  // Speaker::writable is called once there is room. A connection that has failed takes nothing and is reported with
  // Speaker::connection_failed.
  virtual size_t send(ConnectionId connection, std::span<const uint8_t> octets) = 0;

  // Ends the connection; the id is not used again by either side. What send() took is still delivered where possible:
  // the last message is often the NOTIFICATION that tells the neighbour why.
  virtual void close(ConnectionId connection) = 0;
};

class Clock {
 public:
  virtual ~Clock() = default;
  virtual Time now() = 0;  // monotonic

  // Asks for one call of Speaker::run at `when` (at once, from the loop, when that has passed). Replaces what was asked
  // for before; Time::max(): no call wanted.
  virtual void wake_at(Time when) = 0;
};

}  // namespace bgp

#endif  // BGP_TRANSPORT_H
