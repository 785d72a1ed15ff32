// The inside of Speaker: the peers and the turn that drives them.
#ifndef BGP_IMPL_H
#define BGP_IMPL_H

#include <map>

#include "bgp/peer.h"

namespace bgp {

class Speaker::Impl {
 public:
  Impl(const SpeakerConfig &config, Transport &transport, Clock &clock, Observer &observer,
       std::pmr::memory_resource *memory);

  void reconfigure(const SpeakerConfig &config);
  std::string set_neighbor(const NeighborConfig &config);
  bool remove_neighbor(Ipv4 address);
  void stop(StopKind kind, const std::string &message);
  void originate(const Nlri &nlri, Ipv4 next_hop, const Attributes *more);
  bool withdraw(const RouteKey &key);
  bool clear(Ipv4 neighbor, ClearKind kind, const std::string &message);
  void local_complete();
  void next_hops_changed();

  std::optional<ConnectionId> accepted(Ipv4 remote, Ipv4 local);
  void note(ConnectionId connection, bool up, Ipv4 local, std::string_view words);
  void readable(ConnectionId connection);
  void writable(ConnectionId connection);
  void run();
  void wake();  // asks for a turn now

  // views.cc
  std::vector<Ipv4> neighbors() const;
  std::optional<NeighborView> neighbor(Ipv4 address) const;
  TableSizes sizes() const;
  Ipv4 told_group(const RouteKey &key) const;
  std::vector<Nlri> told_routes() const;
  std::vector<RouteKey> keys() const;
  std::optional<RouteView> route(const RouteKey &key) const;
  std::vector<RouteKey> keys_received(Ipv4 neighbor) const;
  std::vector<RouteKey> keys_advertised(Ipv4 neighbor) const;
  std::optional<PathView> advertised(Ipv4 neighbor, const RouteKey &key) const;

  Core core;  // public for the sources that share the speaker's inside

 private:
  // What the transport told, until the next turn.
  struct Told {
    ConnectionId connection;
    bool up, writable;
    Ipv4 local;
    std::string words;
  };

  Peer *find(Ipv4 address) const;
  Session *session(ConnectionId connection) const;
  PathView view_of(PathId id) const;

  void take_told();
  void read_input(size_t most_told);
  void end_deferral();
  void deferral_expired();
  void select();
  void tell_changes(size_t most);
  void write_output();
  void tell_events();
  void tell(const Event &event);
  bool work_left() const;

  std::map<Ipv4, std::unique_ptr<Peer>> peers_;
  std::vector<Told> told_;
  std::vector<BestChange> changes_;
  Ipv4 last_writer_ = 0;  // whose output was made last: the next one begins
  Timer deferral_;
  bool awake_ = false;  // a turn has been asked for
};

}  // namespace bgp

#endif  // BGP_IMPL_H
