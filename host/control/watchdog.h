// Tells the service manager from an event loop that the program is alive.
//
// What says so is a handler of the loop that does the program's work, and `alive` runs in it: when the loop hangs, or
// waits for something that does not come, the service manager hears nothing more and starts the program anew.
#ifndef HOST_CONTROL_WATCHDOG_H
#define HOST_CONTROL_WATCHDOG_H

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <utility>

#include "service/notify.h"

namespace host {

class Watchdog {
 public:
  explicit Watchdog(boost::asio::io_context &io, std::function<void()> alive = nullptr)
      : timer_(io), alive_(std::move(alive)) {
    if (service::watchdog_interval()) tell();
  }

 private:
  void tell() {
    if (alive_) alive_();
    service::notify("WATCHDOG=1");
    timer_.expires_after(*service::watchdog_interval());
    timer_.async_wait([this](const boost::system::error_code &error) {
      if (!error) tell();
    });
  }

  boost::asio::steady_timer timer_;
  std::function<void()> alive_;
};

}  // namespace host

#endif  // HOST_CONTROL_WATCHDOG_H
