// The control socket: accepts clients, reads their requests, sends the answers.
#ifndef HOST_CONTROL_SERVER_H
#define HOST_CONTROL_SERVER_H

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "host/control/control_protocol.h"
#include "host/control/output_channel.h"

namespace host {

class ControlConnection;

class ControlServer {
 public:
  struct Request {
    OutputFormat format = OutputFormat::text;
    std::string line;
  };
  // Runs a command; ends the channel when it is done, now or later, from any thread.
  using Execute = std::function<void(const Request &request, const std::shared_ptr<OutputChannel> &channel)>;

  static constexpr size_t kMaxClients = 64;

  // Takes over a socket file that no process listens on. Throws std::runtime_error when the path cannot be used.
  ControlServer(boost::asio::io_context &io, const std::string &path, Execute execute);
  ~ControlServer();

  // Takes no more clients, and ends the commands of those that are there.
  void close();

 private:
  friend class ControlConnection;
  void accept();

  boost::asio::io_context &io_;
  std::string path_;
  Execute execute_;
  boost::asio::local::stream_protocol::acceptor acceptor_;
  std::set<std::shared_ptr<ControlConnection>> connections_;
};

}  // namespace host

#endif  // HOST_CONTROL_SERVER_H
