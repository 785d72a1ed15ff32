// One neighbour: when to connect to it, which of two connections lives, what its routes become.
//
// peer.cc holds the states without a session (Idle, Connect, Active) and the choice between connections; adj_rib_in.cc
// what its UPDATEs do to the table; restart.cc what happens to its routes when it goes and comes back.
#ifndef BGP_PEER_H
#define BGP_PEER_H

#include "bgp/adj_rib_out.h"
#include "bgp/session.h"

namespace bgp {

class Peer {
 public:
  Peer(Core &core, const NeighborConfig &config, SourceId source);
  ~Peer();
  Peer(const Peer &) = delete;
  Peer &operator=(const Peer &) = delete;

  const NeighborConfig &config() const { return config_; }
  SourceId source() const { return source_; }
  uint64_t established_count() const { return established_count_; }
  State state() const;

  // ---- the operator
  void start();
  void reconfigure(const NeighborConfig &config);
  void stop(const Notification &notification);  // for good
  void stop_quietly();
  void reset(const Notification &notification);  // and begin anew
  void speaker_changed();                        // the speaker's own AS, identifiers or capabilities
  bool refresh_in();
  bool refresh_out();
  void clear_hold();  // forget what keeps it from being tried

  // ---- connections
  // One that the neighbour has opened; nullptr: refused.
  Session *accept();
  void connection_up();
  bool opened(Session &session);  // false: the session has been closed in favour of the other
  void established(Session &session);
  void session_ended(Session &session, Session::Stage reached, SessionEnd end);
  void state_changed(std::string reason);

  // ---- messages (adj_rib_in.cc)
  std::optional<Notification> receive_update(Session &session, View body);
  std::optional<Notification> receive_refresh(View message);

  // ---- routes out
  void start_output();  // selection has begun
  void release_end_of_rib();
  bool output_pending() const;   // and the socket takes it
  void run_output(size_t most);  // only when some is pending; looks at so many routes, at most

  // ---- restart
  // Whether a restarting speaker need not wait for this neighbour's routes.
  bool all_received() const;

  // ---- views
  MessageCounters &in() { return in_; }
  MessageCounters &out() { return out_; }
  void count(MessageCounters &counters, MessageType type, size_t messages);
  void note_sent(const Notification &notification);
  void note_received(const Notification &notification);
  void view(NeighborView &view) const;
  const AdjRibOut *adj_rib_out() const { return adj_rib_out_.get(); }

 private:
  enum class Hold : uint8_t { none, waiting, limit, options };  // why it is Idle though it is not shut down

  // peer.cc
  bool internal() const { return config_.remote_as == core_.config.local_as; }
  std::string name() const;
  void connect();
  void wait_for_connection();
  void go_idle();
  void retry();
  void drop(std::unique_ptr<Session> &session, const Notification &notification);
  void forget(std::unique_ptr<Session> &session);
  bool only_light_changes(const NeighborConfig &config) const;
  void describe_session(NeighborView &view, const Session &session) const;

  // adj_rib_in.cc
  std::optional<Notification> apply(Session &session);
  void fetch_ahead(const NlriList &routes, size_t at) const;
  void withdraw(const NlriList &routes);
  bool looped(const Session &session) const;
  void note_remarks();
  std::optional<Notification> check_limit();
  void refresh_begins();
  void end_of_rib();

  // restart.cc
  bool restart_agreed(const Session &session) const;
  void routes_left_behind(const Session &session, bool by_transport);
  void routes_coming_back(const Session &session);
  void drop_stale();
  void restart_expired();
  bool mdt_agreed(const Session &session) const;

  Core &core_;
  NeighborConfig config_;
  SourceId source_;
  std::unique_ptr<Session> outgoing_, incoming_;
  Session *established_ = nullptr;
  bool active_ = false;  // waiting for a connection, its own try or the neighbour's
  Hold hold_ = Hold::none;
  Duration idle_hold_{};
  Timer connect_retry_, idle_timer_;
  Timer restart_timer_;  // until the neighbour must be back
  Timer stale_timer_;    // until what it said before must have been said again

  State shown_ = State::idle;
  Time since_;
  std::string reason_;

  std::unique_ptr<AdjRibOut> adj_rib_out_;
  bool end_of_rib_received_ = false;
  bool refreshing_ = false;  // between the marks of RFC 7313
  Update update_;            // scratch
  bool warned_ = false;

  MessageCounters in_, out_;
  uint64_t established_count_ = 0, refused_loops_ = 0, as_withdraw_ = 0, discarded_ = 0, unicast_ = 0;
  std::optional<ErrorView> last_sent_, last_received_;
  // Of the last session, for the views.
  Capabilities sent_, received_;
  Ipv4 router_id_ = 0;
};

}  // namespace bgp

#endif  // BGP_PEER_H
