// A BGP-4 speaker for MDT SAFI routes: the one class that a PE and a route reflector use.
//
// It owns sessions, tables and selection, and nothing else: sockets and time come through transport.h, what it decides
// leaves through Observer. It belongs to one thread. Every call returns soon: run() takes a bounded share of the input
// and of the table and asks the clock for another call when something is left.
//
//   bgp::Speaker speaker(config, transport, clock, observer);
//   speaker.set_neighbor({.address = 0x0A000002, .remote_as = 65000});
//   speaker.originate({{rd, source}, group}, own_address);
//   loop: speaker.run() when the clock's alarm rings; accepted/connected/readable/writable as the sockets say.
//
// Times that follow RFCs: hold and keepalive (RFC 4271, 4.2 and 10), connect retry with jitter (10), idle hold with
// doubling after failures (8.1.1), restart, stale and deferral (RFC 4724).
#ifndef BGP_SPEAKER_H
#define BGP_SPEAKER_H

#include <memory>
#include <memory_resource>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "bgp/message.h"
#include "bgp/transport.h"
#include "bgp/types.h"

namespace bgp {

struct SpeakerConfig {
  AsNumber local_as = 0;  // 1 to 4294967295, not 23456
  Ipv4 router_id = 0;     // BGP identifier, not 0
  Ipv4 cluster_id = 0;    // of a reflector; 0: the router id
  uint32_t seed = 0;      // of the timers' jitter

  // Graceful restart (RFC 4724), both roles. restart_time is what is told to the neighbours.
  bool graceful_restart = true;
  uint16_t restart_time = 120;   // seconds, 1 to 4095
  uint16_t stale_time = 360;     // seconds a neighbour that came back has until its end-of-RIB
  uint16_t deferral_time = 360;  // seconds selection waits for end-of-RIB marks when restarting
  bool restarting = false;       // this process starts anew with its forwarding state preserved: the OPEN says so,
                                 // nothing is selected or sent before the neighbours' end-of-RIB marks
  // With restarting: the end-of-RIB marks to the neighbors also wait for Speaker::local_complete, at most for the
  // deferral time, because a neighbor forgets with the mark what it has not heard again.
  bool await_local = false;
};

struct MaximumPrefix {
  uint32_t limit = 0;            // 0: none
  uint8_t warning_percent = 75;  // 1 to 100: a line in the log when so much is in use
  bool warning_only = false;     // else the session ends with Cease, Maximum Number of Prefixes Reached
  uint32_t restart = 0;          // seconds until the session is tried again; 0: when an operator clears it
  bool operator==(const MaximumPrefix &) const = default;
};

struct NeighborConfig {
  Ipv4 address = 0;           // identifies the neighbour; not 0
  AsNumber remote_as = 0;     // equal to the local AS: internal
  std::string description{};  // for views
  uint16_t port = 179;        // as the next three: PeerOptions
  Ipv4 local_address = 0;
  std::string password{};
  uint8_t ttl_security = 0;        // as in PeerOptions
  uint16_t hold_time = 90;         // seconds offered; 0 (no keepalives) or 3 to 65535
  uint16_t connect_retry = 30;     // seconds, 1 to 65535
  bool passive = false;            // wait for the neighbour's connection
  bool shutdown = false;           // no session; one that is there ends with Cease, Administrative Shutdown
  std::string shutdown_message{};  // RFC 9003, UTF-8, at most 255 octets; cut there
  bool reflector_client = false;   // this speaker reflects routes for it (internal neighbours)
  // Offers IPv4 unicast as well, for neighbours that end a session without a family in common. None is sent, what comes
  // is counted and dropped.
  bool ipv4_unicast = false;
  MaximumPrefix maximum_prefix{};
  bool operator==(const NeighborConfig &) const = default;
};

// A change of what is best for a key, since the last time the observer was told about it.
struct BestChange {
  Nlri nlri;             // of a route that is gone: the last one that it had
  Ipv4 former = 0;       // group of the neighbour's route that the observer was told of last; 0: none, or a local one
  bool present = false;  // false: there is no route any more
  bool local = false;    // originated here
  Ipv4 next_hop = 0;     // of the best path; 0: originated here without one, or gone
  Ipv4 neighbor = 0;     // it came from; 0: originated here
};

enum class LogLevel : uint8_t { debug, info, warning, error };

inline constexpr size_t kBestBatch = 100;  // an observer does far more for each than the speaker

// What the embedding wants to know. Called from within Speaker::run and the event functions, never from set_neighbor,
// originate and their like; may read the speaker and originate, withdraw or change neighbours.
class Observer {
 public:
  virtual ~Observer() = default;
  virtual void best_changed(std::span<const BestChange>) {}  // at most best_batch() at a time, in a turn
  // How many changes it takes in a turn, at least 1. Asked in every turn.
  virtual size_t best_batch() const { return kBestBatch; }
  virtual void session_changed(Ipv4 neighbor, State from, State to, std::string_view reason) {
    (void)neighbor, (void)from, (void)to, (void)reason;
  }
  virtual void end_of_rib(Ipv4 neighbor) { (void)neighbor; }  // the neighbour has sent all it had
  virtual void selection_begins() {}                          // the deferral of a restart is over
  virtual void log(LogLevel, std::string_view line) { (void)line; }

  // What a next hop costs, for selection; nothing: it cannot be reached, and paths with it are not used. Asked at any
  // time, so it must be quick and call nothing here. Speaker::next_hops_changed has everything asked again.
  virtual std::optional<uint32_t> next_hop_cost(Ipv4 next_hop) {
    (void)next_hop;
    return 0;
  }
};

// ------------------------------------------------------------------------------------------------------------- views

struct MessageCounters {
  // Since the neighbour was configured, over all its sessions. octets: of all messages.
  uint64_t open = 0, update = 0, notification = 0, keepalive = 0, route_refresh = 0;
  uint64_t octets = 0;
  uint64_t total() const { return open + update + notification + keepalive + route_refresh; }
};

struct ErrorView {
  Notification notification;  // as sent or received
  std::string words;          // "Cease, Administrative Shutdown: maintenance until noon"
  Time when{};                // by the speaker's clock
};

struct NeighborView {
  NeighborConfig config;        // as set; who shows it leaves the password out
  State state = State::idle;    // of the session that has come farthest
  Time since{};                 // of the state
  std::string reason;           // of the last change to Idle or Active, in words; may be empty
  Ipv4 router_id = 0;           // of the neighbour; 0 before its OPEN
  Ipv4 local_address = 0;       // of the session; 0 without one
  uint16_t hold_time = 0;       // seconds, negotiated; 0 without a session or without keepalives
  uint16_t keepalive_time = 0;  // seconds
  bool internal = false;        // in this speaker's AS
  Capabilities sent, received;  // of the current or last session
  bool four_octet_as = false, route_refresh = false, enhanced_refresh = false, extended_messages = false;  // agreed
  bool mdt = false;                // the family is agreed
  MessageCounters in, out;         // received, sent
  uint32_t accepted = 0;           // routes in the Adj-RIB-In, stale ones included
  uint32_t stale = 0;              // of the accepted ones: from before a restart, not said again yet
  uint32_t advertised = 0;         // routes in the Adj-RIB-Out
  uint64_t established_count = 0;  // times that a session was established
  uint64_t refused_loops = 0;      // routes refused for an AS, originator or cluster loop
  uint64_t treated_as_withdraw = 0, discarded_attributes = 0;  // RFC 7606: messages, attributes
  uint64_t ignored_unicast = 0;                                // IPv4 unicast NLRI dropped
  bool over_limit = false;                                     // held down or warned about maximum-prefix
  bool end_of_rib_received = false, end_of_rib_sent = false;   // in the present session
  std::optional<Time> restart_deadline;                        // the neighbour restarts: its routes are kept until then
  std::optional<ErrorView> last_sent, last_received;           // NOTIFICATIONs; nothing: never
  size_t output_pending = 0;                                   // octets that the socket has not taken yet
};

struct PathView {
  Ipv4 neighbor = 0;      // 0: originated here
  Ipv4 group = 0;         // default MDT group
  Attributes attributes;  // as received; of advertised(): as sent
  bool internal = false;  // from a neighbour in this AS
  bool best = false;      // selected; at most one of a route
  bool stale = false;     // from before the neighbour's restart, not said again yet
  std::string why;        // of the best: the step that made it so; of the others: the step they lost at
};

struct RouteView {
  RouteKey key;
  std::vector<PathView> paths;  // the best first, then in the order of neighbours
};

struct TableSizes {
  uint64_t routes = 0, paths = 0, attribute_sets = 0;  // numbers of records
  uint64_t octets = 0;                                 // held by tables, attributes and pending changes
};

enum class ClearKind : uint8_t {
  hard,      // the session ends with Cease, Administrative Reset, and begins anew
  soft_in,   // asks for the neighbour's routes again (needs route refresh)
  soft_out,  // sends ours again
};

enum class StopKind : uint8_t {
  shutdown,  // every neighbour is told Cease, Administrative Shutdown
  restart    // connections just close, so that neighbours keep the routes for a graceful restart
};

// ----------------------------------------------------------------------------------------------------------- speaker

class Speaker {
 public:
  // All but the configuration outlive the speaker. Neighbours start with set_neighbor. memory: of the tables, which is
  // asked for many kilobytes at once and given back when the speaker ends.
  Speaker(const SpeakerConfig &config, Transport &transport, Clock &clock, Observer &observer,
          std::pmr::memory_resource *memory = std::pmr::get_default_resource());
  ~Speaker();  // closes every connection, without a word to the neighbours
  Speaker(const Speaker &) = delete;
  Speaker &operator=(const Speaker &) = delete;

  // What is wrong with a configuration, in words; empty: nothing.
  static std::string check(const SpeakerConfig &config);
  static std::string check(const NeighborConfig &config);

  const SpeakerConfig &config() const;
  // Changes what the speaker is. Another AS or router id resets every session (Cease, Other Configuration Change);
  // another cluster id resets those of clients.
  void reconfigure(const SpeakerConfig &config);

  // Adds a neighbour or changes it, and touches no other. Description, maximum-prefix, shutdown message, connect retry
  // apply at once; anything else resets the session (Cease, Other Configuration Change). An equal configuration changes
  // nothing. Checks as check() does and returns its words; then nothing has changed.
  std::string set_neighbor(const NeighborConfig &config);
  bool remove_neighbor(Ipv4 address);  // Cease, Peer De-configured; its routes go. False: no such neighbour

  // Ends all sessions; nothing starts again. The caller keeps running its loop until the sockets have delivered.
  void stop(StopKind kind, const std::string &message = {});

  // Routes of this PE. The same key replaces. With a next hop of 0 each session's own address is sent.
  void originate(const Nlri &nlri, Ipv4 next_hop, const Attributes *more = nullptr);
  bool withdraw(const RouteKey &key);  // false: was not originated here
  void local_complete();               // what was originated before the restart is originated again (await_local)

  void next_hops_changed();  // selects anew, in turns

  // False: no such neighbour, or (soft_in) it cannot be asked.
  bool clear(Ipv4 neighbor, ClearKind kind, const std::string &message = {});

  // ---- what happened, told by the embedding

  // A connection has come in from `remote` to `local`. The id to use for it, or nothing: close it.
  std::optional<ConnectionId> accepted(Ipv4 remote, Ipv4 local);
  void connected(ConnectionId connection, Ipv4 local);
  void connection_failed(ConnectionId connection, std::string_view words);  // for a lost connection too
  void readable(ConnectionId connection);
  void writable(ConnectionId connection);
  // Does what is due: timers, input, selection, output. The clock asks for it.
  void run();

  // ---- what the observer was told: the neighbours' routes that it knows of, and may rely on instead of keeping them

  size_t told() const;                         // their number
  Ipv4 told_group(const RouteKey &key) const;  // 0: it was told of no such route
  std::vector<Nlri> told_routes() const;       // all, in no order

  // ---- views; what they return belongs to the caller and is a picture of this moment

  std::vector<Ipv4> neighbors() const;  // ascending
  std::optional<NeighborView> neighbor(Ipv4 address) const;
  bool deferring() const;  // restarting: nothing is selected yet
  TableSizes sizes() const;

  std::vector<RouteKey> keys() const;  // of every route, ascending
  std::optional<RouteView> route(const RouteKey &key) const;
  std::vector<RouteKey> keys_received(Ipv4 neighbor) const;    // its Adj-RIB-In, ascending
  std::vector<RouteKey> keys_advertised(Ipv4 neighbor) const;  // its Adj-RIB-Out, ascending
  // What was or will be sent to the neighbour for a key: the best route's attributes after export; nothing: not sent.
  std::optional<PathView> advertised(Ipv4 neighbor, const RouteKey &key) const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace bgp

#endif  // BGP_SPEAKER_H
