// Links to other PEs: the carrier of core packets and the BGP sessions, as the configuration wants them.
#ifndef HOST_DAEMON_LINKS_H
#define HOST_DAEMON_LINKS_H

#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <string>
#include <vector>

#include "host/config/config.h"
#include "host/daemon/loop.h"
#include "host/daemon/mdt_exchange.h"
#include "platform/reference/carriers.h"

namespace host {

class Links {
 public:
  // capture: file that receives what the carrier sends and receives; empty: none. restarting: see BgpService.
  Links(Loop &loop, const std::string &capture, bool restarting, EventBus &events, LogLine log);

  // Opens, changes and closes links until they are what a configuration says.
  void follow(const Config &config);
  // The neighbours are told that this PE goes; the loop runs on until they have it (BgpService::when_delivered).
  void close();

  MdtExchange &exchange() { return exchange_; }
  const MdtExchange &exchange() const { return exchange_; }
  const ref::GreUdpCarrier *carrier() const { return carrier_; }
  // Those of the carrier, when there is one.
  void clear_counters();
  // Of what the carrier sends and receives, whichever carrier there is.
  ref::Capture &capture() { return capture_; }

 private:
  void open_carrier();
  void retry_carrier(const std::string &reason);
  void close_carrier();
  void watch_carrier();

  Loop &loop_;
  ref::Capture capture_;
  LogLine log_;
  std::vector<std::string> carrier_wanted_;  // own endpoint, then the peers
  ref::GreUdpCarrier *carrier_ = nullptr;    // the platform's
  bool carrier_failed_ = false;              // the last attempt to open it
  boost::asio::posix::stream_descriptor carrier_socket_;
  boost::asio::steady_timer carrier_retry_;
  MdtExchange exchange_;
};

}  // namespace host

#endif  // HOST_DAEMON_LINKS_H
