// TCP and time for a speaker, by Boost.Asio: what bgp/transport.h asks for, and the listening socket.
//
// Reading follows the speaker's pull: a socket is watched while the last receive() found it empty, so that what a
// neighbour sends faster than the speaker takes it stays in the kernel and slows the neighbour down. Writing is the
// mirror image: send() takes what the kernel takes, and the speaker is told once there is room again.
//
// A connection that the speaker closes still delivers its last message. Closing a socket with unread input makes the
// kernel reset the connection and throw away what the other side has not read yet, often the NOTIFICATION that says
// why; so the sending side is shut down first, and input is dropped until the other side closes or a second has passed.
#ifndef BGP_ASIO_ASIO_TRANSPORT_H
#define BGP_ASIO_ASIO_TRANSPORT_H

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "bgp/speaker.h"
#include "bgp/transport.h"

namespace bgp {

// One thread runs the event loop and calls everything here.
class AsioTransport final : public Transport, public Clock {
 public:
  // Every call of the speaker from the event loop happens inside `enter`, which the embedding may use to take its
  // locks.
  using Enter = std::function<void(const std::function<void()> &)>;

  AsioTransport(boost::asio::io_context &io, Enter enter);
  ~AsioTransport() override;
  AsioTransport(const AsioTransport &) = delete;
  AsioTransport &operator=(const AsioTransport &) = delete;

  // The speaker that is told what happens; null before it is there and once it goes.
  void attach(Speaker *speaker);

  // Accepts connections there, instead of where it did before. Empty: done; else why not, in words.
  std::string listen(Ipv4 address, uint16_t port);
  void stop_listening();

  // No connection is open, and none has something left to deliver.
  bool idle() const { return connections_.empty(); }

  std::string set_peer_options(Ipv4 neighbor, const PeerOptions &options) override;
  void remove_peer_options(Ipv4 neighbor) override;
  void connect(ConnectionId connection, Ipv4 neighbor, const PeerOptions &options) override;
  Received receive(ConnectionId connection, std::span<uint8_t> into) override;
  size_t send(ConnectionId connection, std::span<const uint8_t> octets) override;
  void close(ConnectionId connection) override;

  static Time time();
  Time now() override { return time(); }
  void wake_at(Time when) override;

 private:
  using Socket = boost::asio::ip::tcp::socket;
  struct Connection {
    explicit Connection(Socket with) : socket(std::move(with)), linger(socket.get_executor()) {}
    Socket socket;
    boost::asio::steady_timer linger;
    bool closing = false;  // the speaker has closed it: it only delivers what it has
    bool watched_for_input = false;
    bool watched_for_room = false;
  };
  using Pointer = std::shared_ptr<Connection>;

  // Null when it is gone or closing.
  Connection *find(ConnectionId connection);
  void accept();
  void take(Socket socket);
  std::string prepare(Socket &socket, Ipv4 neighbor, const PeerOptions &options);
  void connected(ConnectionId connection);
  void watch_input(ConnectionId connection);
  void watch_room(ConnectionId connection);
  void fail(ConnectionId connection, std::string words);
  void drain(ConnectionId connection);
  void forget(ConnectionId connection);
  void ring();
  void tell(const std::function<void(Speaker &)> &event);

  boost::asio::io_context &io_;
  Enter enter_;
  Speaker *speaker_ = nullptr;
  boost::asio::ip::tcp::acceptor acceptor_;
  boost::asio::steady_timer alarm_;
  boost::asio::steady_timer accept_retry_;
  std::optional<Time> armed_for_;
  std::map<Ipv4, PeerOptions> peers_;
  std::map<ConnectionId, Pointer> connections_;
  // Handlers that are queued when the transport is destroyed find this gone.
  std::shared_ptr<int> alive_ = std::make_shared<int>(0);
};

}  // namespace bgp

#endif  // BGP_ASIO_ASIO_TRANSPORT_H
