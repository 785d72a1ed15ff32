// One connection of the MDT SAFI protocol, of either side: frames in and out, keepalives and the hold time.
#ifndef HOST_REFLECTOR_SAFI_CONNECTION_H
#define HOST_REFLECTOR_SAFI_CONNECTION_H

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "reflector/safi_protocol.h"

namespace safi {

// Lives as long as its operations or somebody's pointer; single-threaded.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  struct Handlers {
    std::function<void(const Message &)> message;           // never a keepalive
    std::function<void(const std::string &reason)> closed;  // once; the last call
  };

  Connection(boost::asio::ip::tcp::socket socket, Handlers handlers);

  // Begins to read and to watch the hold time.
  void start();
  void send(const Message &message);
  // Sends changes in updates of at most kMaxEntries.
  void send_changes(const std::vector<Change> &changes);
  void close(const std::string &reason);

 private:
  void read_length();
  void read_frame(size_t length);
  void handle_frame(size_t length);
  void write_next();
  void keep_alive();

  static constexpr size_t kMaxQueued = 64u << 20;  // bytes that may wait for a slow reader

  boost::asio::ip::tcp::socket socket_;
  boost::asio::steady_timer timer_;
  Handlers handlers_;
  std::vector<uint8_t> in_;
  std::deque<std::vector<uint8_t>> out_;
  size_t queued_ = 0;
  std::chrono::steady_clock::time_point heard_;
  bool closed_ = false;
};

}  // namespace safi

#endif  // HOST_REFLECTOR_SAFI_CONNECTION_H
