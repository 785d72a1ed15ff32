// The control plane's end of the forwarder's socket.
//
// The client keeps everything that the control plane wants, so that a forwarder that is started late, or anew, is told
// all of it. The other way round, a forwarder outlives control planes: when a connection begins it says what it holds.
// What this control plane does not want of that is swept at once, or, in a recovery, when the recovery ends: until then
// a control plane that was started anew does not know yet what it will want, and does not take back what it is going to
// ask for. A flow that is held on a data MDT does not go to the default MDT, and a tunnel that is up does not go down.
//
// Not a thread of its own, and nothing here waits: the owner waits for descriptor() and calls on_ready(). Callbacks
// come from there.
#ifndef FORWARDER_CLIENT_H
#define FORWARDER_CLIENT_H

#include <forwarder/protocol.pb.h>

#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <tuple>
#include <vector>

#include "forwarder/descriptor.h"
#include "forwarder/framing.h"

namespace forwarder {

struct Counters {
  // Counted from the start of the forwarder on, routes from when the kernel has them. Only events have an order.
  std::vector<protocol::VrfCounters> vrfs;
  std::vector<protocol::FlowCounters> flows;  // those that have an index of their own
  std::vector<protocol::RouteBytes> routes;   // customer routes, as the kernel counts them
  std::vector<protocol::CoreCounters> core;   // core routes and their memberships
  std::vector<protocol::DropCounter> drops;   // of VRFs, and of the core (VRF ""); those that are 0 are left out
  std::vector<protocol::Event> events;        // the oldest first
};

class Client {
 public:
  struct Callbacks {
    // What the forwarder sees: everything at the beginning of a connection, then what changes.
    std::function<void(const protocol::Interface &)> interface;
    std::function<void(const protocol::TunnelState &)> tunnel_state;
    std::function<void(const protocol::CustomerRoute &)> customer_route;
    // From a tunnel, for the control plane.
    std::function<void(const protocol::Datagram &)> datagram;
    std::function<void(Counters)> counters;  // the answer to request_counters()
    // One line, for the log.
    std::function<void(const std::string &)> log;
    // connected: what the forwarder holds is known, nothing of it has been swept yet.
    std::function<void()> connected, disconnected;
  };

  // path: of the forwarder's socket. name: of this control plane, for the forwarder's log.
  Client(std::string path, std::string name, Callbacks callbacks);

  // Tries to connect; true when there is a connection. While there is none the owner tries again from time to time.
  bool connect();
  int descriptor() const { return socket_.get(); }  // -1: none
  bool wants_to_write() const { return framing_.unsent(); }
  void on_ready();

  // Between these two, what the forwarder holds stays. Ending it sweeps.
  void begin_recovery() { recovering_ = true; }
  void end_recovery();
  bool recovering() const { return recovering_; }

  void set(const protocol::Settings &settings);
  void put(const protocol::Item &item);
  void remove(const protocol::Item &item);  // its key counts
  bool send(const std::string &vrf, std::span<const uint8_t> datagram);

  // Asks for all counters. One answer comes for each request, unless the connection ends before. False: the forwarder
  // is not there, or has not said yet what it holds.
  bool request_counters();
  // Ends a connection that is of no use.
  void give_up(const std::string &reason) { disconnect(reason); }

  // Items that the forwarder held when this connection began.
  size_t held() const { return held_.size(); }

 private:
  using Key = std::tuple<int, std::string, uint32_t, uint32_t>;  // kind, VRF, numbers; VRFs come before what is in them
  using Items = std::map<Key, protocol::Item>;

  static Key key_of(const protocol::Item &item);
  bool steps_back(const Key &key, const protocol::Item &item) const;
  void transmit(const protocol::Request &request);
  void transmit_put(const protocol::Item &item);
  void sweep();
  void replay();
  void flush();
  void read();
  void handle(const protocol::Report &report);
  void greeted(const protocol::Welcome &welcome);
  void count(const protocol::Report &report);
  void disconnect(const std::string &reason);
  void say(const std::string &text);

  std::string path_, name_;
  Callbacks callbacks_;
  Descriptor socket_;
  Framing framing_;
  bool ready_ = false;  // the forwarder has said what it holds
  bool recovering_ = false;
  bool refused_ = false;  // the forwarder has said why it will end the connection
  std::string said_;      // last of why there is no connection, which is tried again and again
  protocol::Settings settings_;
  Items wanted_, held_;
  Counters counters_;
};

}  // namespace forwarder

#endif  // FORWARDER_CLIENT_H
