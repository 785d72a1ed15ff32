// The control socket: accepts clients, reads their requests, sends the answers.
#ifndef HOST_CONTROL_CONTROL_SERVER_H
#define HOST_CONTROL_CONTROL_SERVER_H

#include <sys/types.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "host/control/control_protocol.h"
#include "host/control/output_channel.h"

namespace host {

class ControlConnection;

// A file as such, whatever its path.
struct SocketFile {
  // The pair is the file's own while it exists.
  dev_t device;
  ino_t inode;
  bool operator==(const SocketFile &) const = default;
};

class ControlServer {
 public:
  // A connected client, from one request to the next; it ends with the connection.
  struct Client {
    bool stays = false;  // has something that it must not lose by saying nothing for long
  };
  struct Request {
    OutputFormat format = OutputFormat::text;  // of the output, unless a filter names another
    std::string line;                          // as the client sent it, at most kMaxRequest bytes; not checked
    std::string by;                            // who asks: "root, process 4711"
    bool read_only = false;                    // over a socket that is for looking only
    std::weak_ptr<Client> client = {};         // for who keeps something for it
  };
  // Runs a command; ends the channel when it is done, now or later, from any thread.
  using Execute = std::function<void(const Request &request, const std::shared_ptr<OutputChannel> &channel)>;

  // With so many the client that has been idle the longest makes room for another one.
  static constexpr size_t kMaxClients = 64;

  // Where clients connect, and which. Without a group only the user of this process does.
  struct Access {
    std::string path;        // of the socket, at most 107 characters
    std::string group = {};  // whose members may connect; empty: nobody else
    bool read_only = false;  // its clients may only look
  };

  // Takes over a socket file that no process listens on. Throws std::runtime_error when the path cannot be used.
  ControlServer(boost::asio::io_context &io, const Access &access, Execute execute);
  ~ControlServer();

  // Takes no more clients, and ends the commands of those that are there.
  void close();

 private:
  friend class ControlConnection;
  void accept();
  void accept_later();
  void add(boost::asio::local::stream_protocol::socket socket);
  void make_room(const std::shared_ptr<ControlConnection> &newest);

  boost::asio::io_context &io_;
  const std::string path_;
  const bool read_only_;
  std::optional<SocketFile> file_;  // that this server made at the path
  Execute execute_;
  boost::asio::local::stream_protocol::acceptor acceptor_;
  boost::asio::steady_timer accept_timer_;
  std::set<std::shared_ptr<ControlConnection>> connections_;
};

}  // namespace host

#endif  // HOST_CONTROL_CONTROL_SERVER_H
