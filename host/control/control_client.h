// A client's side of the control socket.
#ifndef HOST_CONTROL_CONTROL_CLIENT_H
#define HOST_CONTROL_CONTROL_CLIENT_H

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "host/control/control_protocol.h"

namespace host {

// The daemon is there and says nothing.
class NoAnswer : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// No daemon would take the line.
class LineTooLong : public std::runtime_error {
 public:
  LineTooLong() : std::runtime_error("a command line has at most " + std::to_string(kMaxRequest) + " bytes") {}
};

class ControlClient {
 public:
  using Timeout = std::chrono::milliseconds;

  // Takes a part of an answer; false ends the command, in the daemon, too. The connection is then of no more use.
  using Take = std::function<bool(FrameType type, std::string_view part)>;

  // timeout: how long the daemon may be silent, here and in execute(); 0: for ever. Throws std::runtime_error with the
  // path and the reason, NoAnswer when the daemon takes no connection in time.
  ControlClient(const std::string &path, Timeout timeout);

  // Whether the connection can still be used: nothing comes from the daemon between commands but its end.
  bool open() const;

  // Runs a command line; its exit status. Throws std::runtime_error when the connection is lost or a signal ends the
  // waiting, NoAnswer when nothing comes in time, LineTooLong. slow: nothing may come for long (Statement::slow), and
  // is waited for.
  uint32_t execute(OutputFormat format, std::string_view line, bool slow, const Take &take);

  // How execute() learns that the operator has interrupted it: the command is then told to stop, and what completes its
  // output is still taken, until the next signal or for so long as is left for a farewell.
  void complete_when(std::function<bool()> interrupted) { interrupted_ = std::move(interrupted); }

  // What a view prints as text, cut behind the first megabyte. Throws as execute().
  std::string text_of(std::string_view line);

 private:
  bool connect(const std::string &path);
  void read(void *bytes, size_t size, Timeout timeout);
  void wait_until_readable(Timeout timeout);
  bool stop_if_interrupted();

  Timeout timeout_;
  std::function<bool()> interrupted_;
  bool stopped_ = false;  // the command was told to stop
  boost::asio::io_context io_;
  boost::asio::local::stream_protocol::socket socket_;
};

}  // namespace host

#endif  // HOST_CONTROL_CONTROL_CLIENT_H
