// Links to other PEs: the carrier of core packets and the connection to the route reflector, as the configuration wants
// them.
#ifndef HOST_LINKS_H
#define HOST_LINKS_H

#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/config/config.h"
#include "host/daemon/loop.h"
#include "platform/reference/carriers.h"
#include "reflector/reflector_link.h"

namespace host {

class Links {
 public:
  using Log = std::function<void(const std::string &)>;

  // capture: file that receives what the carrier sends and receives; empty: none.
  Links(Loop &loop, std::string capture, Log log);
  ~Links();

  // Opens, changes and closes links until they are what a configuration says.
  void follow(const Config &config);
  void close();

  const safi::ReflectorLink *reflector() const { return reflector_.get(); }
  const ref::GreUdpCarrier *carrier() const { return carrier_; }
  void clear_counters();

 private:
  void open_carrier();
  void retry_carrier(const std::string &reason);
  void close_carrier();
  void watch_carrier();
  void open_reflector(const std::string &endpoint, const std::string &name);
  void close_reflector();

  Loop &loop_;
  std::string capture_;
  Log log_;
  std::vector<std::string> carrier_wanted_;  // own endpoint, then the peers
  ref::GreUdpCarrier *carrier_ = nullptr;    // the platform's
  bool carrier_failed_ = false;              // the last attempt to open it
  boost::asio::posix::stream_descriptor carrier_socket_;
  boost::asio::steady_timer carrier_retry_;
  std::string reflector_wanted_;
  std::unique_ptr<safi::ReflectorLink> reflector_;
};

}  // namespace host

#endif  // HOST_LINKS_H
