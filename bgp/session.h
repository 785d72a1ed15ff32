// One TCP connection to a neighbour, from the OPEN on (fsm.cc), with its framing, output and timers (session.cc).
//
// A neighbour can have two for a moment, one that each side opened (RFC 4271, 6.8); which of them lives is the peer's
// decision. A session that ends tells the peer once, and is freed at the end of the turn.
#ifndef BGP_SESSION_H
#define BGP_SESSION_H

#include "bgp/core.h"
#include "bgp/message.h"

namespace bgp {

class Peer;

// How a session ended.
struct SessionEnd {
  enum class By : uint8_t {
    transport,  // the connection broke
    received,   // a NOTIFICATION came
    sent,       // one was sent
    quietly     // neither: closed without a word, for the neighbour to keep the routes
  } by = By::transport;
  std::string words;  // for the log and the views
};

class Session {
 public:
  enum class Stage : uint8_t { connecting, open_sent, open_confirm, established, closed };

  Session(Core &core, Peer &peer, bool outgoing);
  ~Session();
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

  ConnectionId id() const { return id_; }
  bool outgoing() const { return outgoing_; }
  Stage stage() const { return stage_; }
  const Open &open() const { return open_; }  // of the neighbour, from OpenConfirm on
  const Open &sent_open() const { return sent_open_; }
  Ipv4 local_address() const { return local_; }
  uint16_t hold_time() const { return hold_time_; }  // negotiated, seconds
  bool four_octet_as() const { return open_.capabilities.four_octet_as.has_value(); }
  size_t largest() const { return largest_; }
  size_t pending() const { return out_.size() - out_start_; }
  bool blocked() const { return blocked_; }

  // ---- from the transport
  void connected(Ipv4 local);         // sends the OPEN
  void lost(std::string_view words);  // broken, or never connected
  void writable();
  void note_readable();
  // Reads and works through at most `budget` octets and returns how many; 0: there are no more for now.
  size_t read(size_t budget);

  // ---- from the peer
  Octets &output() { return out_; }  // complete messages may be appended; flush() sends them
  void flush();
  void count_sent(MessageType type, size_t messages);
  void end(const Notification &notification);
  void end_quietly(std::string words);
  void abandon();  // without telling anybody, the peer included

 private:
  using Stop = std::optional<Notification>;

  // session.cc
  size_t work_through(View octets);
  bool take_message(View message, MessageType type);
  void finish(SessionEnd end);
  void close_transport();
  void restart_keepalive();
  void hold_expired();
  void send_hold_expired();

  // fsm.cc
  Open make_open() const;
  Stop receive(View message, MessageType type);
  Stop receive_open(View body);
  Stop receive_keepalive();
  Stop receive_in_established(View message, MessageType type);
  void negotiate();
  Notification unexpected() const;

  Core &core_;
  Peer &peer_;
  const ConnectionId id_;
  const bool outgoing_;
  Stage stage_ = Stage::connecting;
  Ipv4 local_ = 0;
  Open open_, sent_open_;
  uint16_t hold_time_ = 0;
  size_t largest_ = kMessageMax;
  Octets leftover_;  // the beginning of a message whose rest has not come
  Octets out_;
  size_t out_start_ = 0;  // what the socket has taken
  bool blocked_ = false, queued_ = false;
  Timer hold_, keepalive_, send_hold_;
};

}  // namespace bgp

#endif  // BGP_SESSION_H
