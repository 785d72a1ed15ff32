// Trying a configuration: whether the module takes every line of it is known when the module has been given them.
#ifndef HOST_DAEMON_CONFIG_CHECK_H
#define HOST_DAEMON_CONFIG_CHECK_H

#include <sys/types.h>

#include <array>
#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/config/config.h"

namespace host {

// Both load the module and run it on a platform in memory, without sockets and without a store. One of them, once in a
// process, and not beside a running router. Result: the lines that are refused. Throw std::runtime_error when the
// module cannot be loaded or does not start.

// Replays a configuration, as after a start.
std::vector<ConfigError> try_config(const std::string &module, Config config);
// Lets one configuration take the place of another: only lines that differ can be refused, whatever the order in which
// a start would replay them.
std::vector<ConfigError> try_change(const std::string &module, Config running, Config wanted);

// Both in a process of its own that runs beside this one: for a file, or for what a file would say.
class ConfigCheck {
 public:
  struct Input {
    std::string file;                 // path; not used when there is a text
    std::optional<std::string> text;  // with passwords: nobody but the process sees it
    std::string running = {};         // as text: what runs; empty: the way from there is not tried
  };
  struct Result {
    bool passed = false;  // the file may be loaded
    // Lines for people; when it passed: warnings. Those of a file begin with its place, FILE:LINE.
    std::vector<std::string> problems;
    std::string text() const;  // the same in complete lines
  };
  using Done = std::function<void(Result)>;

  // Starts the process; done is called from the event loop and may destroy the check. Throws std::runtime_error.
  // strict: warnings are errors.
  ConfigCheck(boost::asio::io_context &io, const Input &input, const std::string &module, bool strict, Done done);
  // Ends the process when it still runs; done is not called then.
  ~ConfigCheck();
  bool ended() const { return process_ < 0; }
  ConfigCheck(const ConfigCheck &) = delete;
  ConfigCheck &operator=(const ConfigCheck &) = delete;

 private:
  struct Descriptors {
    int input, running, output;  // running: -1 when the way from there is not tried
  };
  int start(const std::string &file, const std::string &module, bool strict, const Descriptors &given);
  void read();
  void limit();
  void finish();
  Result result(int status) const;

  boost::asio::posix::stream_descriptor output_;
  boost::asio::steady_timer timer_;
  std::array<char, 4096> buffer_;
  std::string text_;
  pid_t process_ = -1;
  bool timed_out_ = false;
  Done done_;
  // Handlers that are queued when the check is destroyed find it gone.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace host

#endif  // HOST_DAEMON_CONFIG_CHECK_H
