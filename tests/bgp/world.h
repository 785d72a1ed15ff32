// A network without sockets on a clock that tests step: speakers, and neighbours played message by message.
//
// Nothing happens by itself: settle() lets everybody work until nobody has anything left to do at this moment, and
// advance() moves the time to each alarm in turn.
#ifndef TESTS_BGP_WORLD_H
#define TESTS_BGP_WORLD_H

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "bgp/speaker.h"

namespace world {

using bgp::Ipv4;
using std::chrono::seconds;

inline constexpr Ipv4 address(uint8_t last) { return 0x0A000000U + last; }  // 10.0.0.last

bgp::Nlri route(uint32_t vrf, Ipv4 source, Ipv4 group = 0xEF010101);  // 65000:vrf

// One TCP connection. Each side reads what the other wrote.
struct Link {
  struct Direction {
    bgp::Octets octets;      // written and not read yet
    size_t room = SIZE_MAX;  // that a test leaves in the socket's buffer
    bool closed = false;     // by the writing side
  };
  Direction to_called, to_caller;
};

class Network;

struct End {
  std::shared_ptr<Link> link;
  bool caller = false;  // this end opened the connection
  Link::Direction &in() const { return caller ? link->to_caller : link->to_called; }
  Link::Direction &out() const { return caller ? link->to_called : link->to_caller; }
};

// A speaker with everything around it.
class Node : public bgp::Transport, public bgp::Clock, public bgp::Observer {
 public:
  Node(Network &network, Ipv4 address, const bgp::SpeakerConfig &config);
  ~Node() override;

  bgp::Speaker &speaker() { return *speaker_; }
  bgp::Speaker *operator->() { return speaker_.get(); }
  void kill();  // as if the process ended: connections close without a word
  void start(const bgp::SpeakerConfig &config);

  bgp::State state(Ipv4 neighbor) const { return speaker_->neighbor(neighbor)->state; }
  bgp::NeighborView view(Ipv4 neighbor) const { return *speaker_->neighbor(neighbor); }
  bool logged(const std::string &part) const;

  // What the observer was told: "Idle>Connect", ... and the best routes, as they stand.
  std::vector<std::string> states;
  std::map<bgp::RouteKey, bgp::BestChange> best;
  std::vector<std::string> events;  // "best N", "end of rib A", "selection"
  std::vector<std::string> lines;
  size_t changes = 0;
  std::string socket_trouble;  // what set_peer_options answers
  std::map<Ipv4, bgp::PeerOptions> options;
  std::map<Ipv4, std::optional<uint32_t>> costs;  // of next hops; others cost 0

  std::string set_peer_options(Ipv4 neighbor, const bgp::PeerOptions &o) override;
  void remove_peer_options(Ipv4 neighbor) override { options.erase(neighbor); }
  void connect(bgp::ConnectionId connection, Ipv4 neighbor, const bgp::PeerOptions &o) override;
  bgp::Received receive(bgp::ConnectionId connection, std::span<uint8_t> into) override;
  size_t send(bgp::ConnectionId connection, std::span<const uint8_t> octets) override;
  void close(bgp::ConnectionId connection) override;
  bgp::Time now() override;
  void wake_at(bgp::Time when) override { alarm = when; }
  void best_changed(std::span<const bgp::BestChange> changed) override;
  void session_changed(Ipv4 neighbor, bgp::State from, bgp::State to, std::string_view reason) override;
  void end_of_rib(Ipv4 neighbor) override;
  void selection_begins() override { events.push_back("selection"); }
  void log(bgp::LogLevel level, std::string_view line) override;
  std::optional<uint32_t> next_hop_cost(Ipv4 next_hop) override;

 private:
  friend class Network;
  bool work();  // tells the speaker what its connections have; false: nothing

  Network &network_;
  Ipv4 address_;
  std::unique_ptr<bgp::Speaker> speaker_;
  std::map<bgp::ConnectionId, End> ends_;
  std::set<bgp::ConnectionId> waiting_to_write_;
  std::vector<std::pair<bgp::ConnectionId, Ipv4>> calls_;
  bgp::Time alarm = bgp::Time::max();
};

// A neighbour that a test plays.
class Script {
 public:
  Script(Network &network, Ipv4 address) : network_(network), address_(address) {}

  bool call(Ipv4 node);  // false: refused
  bool called() const { return !calls_.empty(); }
  void take_call();  // goes on with the connection that the speaker opened last
  void send(const bgp::Octets &octets);
  void close();
  bool closed() const;  // by the speaker
  End &end() { return end_; }

  // What has arrived since the last call, in words: "OPEN", "KEEPALIVE", "UPDATE +2 -1 eor", "NOTIFICATION 6/2", ...
  std::string heard();
  std::vector<bgp::Octets> messages();  // the same, whole

  // OPEN and KEEPALIVE with these, and the speaker's answers taken.
  void establish(const bgp::Open &open);
  void announce(const std::vector<bgp::Nlri> &routes, const bgp::Attributes &attributes);
  void withdraw(const std::vector<bgp::Nlri> &routes);
  void end_of_rib();
  void notify(const bgp::Notification &notification);
  void keepalive();

 private:
  friend class Network;
  Network &network_;
  Ipv4 address_;
  End end_;
  std::vector<End> calls_;
};

class Network {
 public:
  bgp::Time now{std::chrono::hours(1)};  // moved by advance() only

  Node &node(Ipv4 address, const bgp::SpeakerConfig &config);
  Script &script(Ipv4 address);
  void settle();
  void advance(bgp::Duration by);

  std::set<Ipv4> deaf;  // addresses where connections are never answered

 private:
  friend class Node;
  friend class Script;
  bool place_call(Node &caller, bgp::ConnectionId connection, Ipv4 called);
  bool ring(Ipv4 caller, Ipv4 called, const std::shared_ptr<Link> &link);

  std::map<Ipv4, std::unique_ptr<Node>> nodes_;
  std::map<Ipv4, std::unique_ptr<Script>> scripts_;
};

// An OPEN with every capability, of AS 65000 unless told otherwise.
bgp::Open open_of(Ipv4 router_id, bgp::AsNumber as = 65000);
bgp::Attributes attributes_of(Ipv4 next_hop);

}  // namespace world

#endif  // TESTS_BGP_WORLD_H
