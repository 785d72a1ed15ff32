// The forwarding plane behind the platform, when the configuration says "forwarding kernel".
//
// What the services hold is told to mvpn-forwarder, and what the kernel says becomes interfaces, addresses, tunnel
// states, customer routes and rates of the services. The forwarder may be started later, or anew, and outlives this
// process: the client library (forwarder/client.h) tells it again what is wanted, and keeps what it held through a
// recovery.
#ifndef HOST_DAEMON_FORWARDING_H
#define HOST_DAEMON_FORWARDING_H

#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "forwarder/client.h"
#include "host/config/config.h"
#include "host/daemon/loop.h"
#include "host/event/change.h"
#include "platform/pim.h"
#include "platform/reference/forwarding_plane.h"
#include "platform/reference/mrib.h"
#include "platform/reference/oim.h"

namespace host {

class Forwarding : private ref::ForwardingPlane {
 public:
  // follow_interface: called when the kernel says something new of an interface that the configuration names.
  // recovering: this process was started anew for a router that goes on.
  Forwarding(Loop &loop, EventBus &events, LogLine log, std::function<void(const std::string &)> follow_interface,
             bool recovering);
  ~Forwarding() override;

  // Connects, changes and disconnects until it is what a configuration says.
  void follow(const Config &config);
  // Goes on with what had to wait. At every turn's end.
  void settle();
  // An orderly stop: takes everything back from the forwarder.
  void close();

  // Whether the kernel forwards; then: what it says of an interface of the configuration, down without an address when
  // it has none.
  bool active() const { return client_ != nullptr; }
  struct Seen {
    bool up = false;                   // administratively, and carrying
    std::vector<ip_addr_t> addresses;  // host byte order; the first is the primary one
  };
  // By value: nothing of it changes afterwards.
  Seen seen(const std::string &interface) const;

  const std::string &socket() const { return path_; }
  bool connected() const { return active() && client_->descriptor() >= 0; }
  bool recovering() const { return active() && client_->recovering(); }
  // Asks the forwarder for its counters and events, and calls `then` once, in a turn of the main loop: when they have
  // come, and at once or later when they will not. Until the next refresh they stand in counters(); nothing there: no
  // answer.
  void refresh(std::function<void()> then);
  const std::optional<forwarder::Counters> &counters() const { return counters_; }

 private:
  using SeenKey = std::pair<std::string, std::string>;  // VRF (empty: the core), name in its namespace
  struct Interface {
    Seen seen;
    uint64_t round = 0;  // of telling
  };
  using RouteKey = std::tuple<std::string, ip_addr_t, ip_addr_t>;  // VRF, source, group
  struct CustomerRoute {
    forwarder::protocol::CustomerRoute told;
    uint64_t round = 0;
    uint64_t bytes = 0;  // at the last statistics pass
    uint64_t rate_kbps = 0;
  };

  // ref::ForwardingPlane
  void tunnel_changed(const ref::Tunnel &tunnel, bool wanted_up) override;
  void tunnel_deleted(const ref::Tunnel &tunnel) override;
  void core_route_changed(const ref::MribRoute &route, bool present) override;
  void encap_changed(const ref::MribEncap &encap, bool present) override;
  void customer_route_changed(const std::string &vrf_name, const pim_route &route, bool into_tunnel,
                              bool installed) override;
  void customer_route_deleted(const std::string &vrf_name, const mvpn_mdt_route_addrs &addrs) override;
  bool send(const ref::Tunnel &tunnel, const std::vector<uint8_t> &datagram) override;
  void count_customer_bytes(std::function<void()> then) override;

  void open(const std::string &path, const std::string &hostname);
  void follow_settings(const Block &block);
  void follow_vrfs(const Config &config);
  void follow_interfaces();
  void connect_later();
  void watch();
  void unwatch();
  void on_ready();
  forwarder::Client::Callbacks callbacks();
  void on_connected();
  void on_disconnected();
  void drop_what_is_not_told();

  void interface_told(const forwarder::protocol::Interface &told);
  void apply_interface(const SeenKey &key);
  void forget_interface(const SeenKey &key);
  std::string name_of(const SeenKey &key) const;
  bool is_configured(const SeenKey &key) const;
  void route_told(const forwarder::protocol::CustomerRoute &told);
  void apply_route(const RouteKey &key, const CustomerRoute &route);
  void refreshed(std::optional<forwarder::Counters> counters);
  void set_customer_bytes();
  void put_flow(const RouteKey &key, uint16_t index);
  void end_index(const std::string &vrf, uint16_t index);

  Loop &loop_;
  EventBus &events_;
  LogLine log_;
  std::function<void(const std::string &)> follow_interface_;
  const bool recovering_;
  const std::chrono::nanoseconds started_;
  std::unique_ptr<forwarder::Client> client_;
  std::string path_;
  boost::asio::posix::stream_descriptor socket_;
  boost::asio::steady_timer retry_, grace_, answer_;
  bool waits_to_read_ = false, waits_to_write_ = false;
  uint64_t connections_ = 0;  // that have ended

  Config config_;
  std::map<std::string, std::string> vrfs_;     // that the forwarder has been told of, with their namespaces
  std::map<std::string, std::string> devices_;  // of the VRFs' tunnels
  std::map<SeenKey, Interface> interfaces_;
  std::map<RouteKey, CustomerRoute> routes_;
  std::map<RouteKey, uint16_t> flows_;  // index in force
  std::set<SeenKey> waiting_interfaces_;
  std::set<RouteKey> waiting_routes_;
  uint64_t round_ = 0;
  std::optional<forwarder::Counters> counters_;
  std::chrono::steady_clock::time_point answered_;     // when they came
  std::vector<std::function<void()>> waiting_answer_;  // not empty: they have been asked for
  std::optional<std::chrono::steady_clock::time_point> counted_;
};

}  // namespace host

#endif  // HOST_DAEMON_FORWARDING_H
