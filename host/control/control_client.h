// A client's side of the control socket.
#ifndef HOST_CONTROL_CLIENT_H
#define HOST_CONTROL_CLIENT_H

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "host/control/control_protocol.h"

namespace host {

class ControlClient {
 public:
  // Takes a part of an answer; false ends the command, in the daemon, too. The connection is then of no more use.
  using Take = std::function<bool(FrameType type, std::string_view part)>;

  // Throws std::runtime_error with the path and the reason.
  explicit ControlClient(const std::string &path);

  // Commands whose answer has not come in full by then are lost. Without it they may take any time.
  void set_deadline(std::chrono::steady_clock::time_point deadline) { deadline_ = deadline; }

  // Runs a command line; its exit status. Throws std::runtime_error when the connection is lost.
  uint32_t execute(OutputFormat format, std::string_view line, const Take &take);

  // What a command prints as text, cut behind the first megabyte. Throws as execute().
  std::string text_of(std::string_view line);

 private:
  void read(void *bytes, size_t size);

  std::optional<std::chrono::steady_clock::time_point> deadline_;
  boost::asio::io_context io_;
  boost::asio::local::stream_protocol::socket socket_;
};

}  // namespace host

#endif  // HOST_CONTROL_CLIENT_H
