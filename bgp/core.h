// What all parts of one speaker share: configuration, the outside, timers, tables, and what is to be told to the
// observer.
//
// Events are kept until the end of a turn: an observer may then change neighbours and routes without pulling the ground
// from under the work that caused the event.
#ifndef BGP_CORE_H
#define BGP_CORE_H

#include <deque>
#include <memory>
#include <random>
#include <unordered_map>

#include "bgp/route_groups.h"
#include "bgp/speaker.h"
#include "bgp/table.h"
#include "bgp/timer.h"

namespace bgp {

class Session;

struct Event {
  enum class Kind : uint8_t {
    log,
    session,
    end_of_rib,
    selection
  } kind = Kind::log;                          // which of the fields below mean something
  LogLevel level = LogLevel::info;             // log
  Ipv4 neighbor = 0;                           // session, end_of_rib
  State from = State::idle, to = State::idle;  // session
  std::string text;                            // log: the line; session: the reason
  uint64_t position = 0;                       // end_of_rib: not before the observer has read the changes so far
};

struct Core {
  Core(const SpeakerConfig &c, Transport &t, Clock &k, Observer &o, std::pmr::memory_resource *memory)
      : config(c),
        transport(t),
        clock(k),
        observer(o),
        table(
            attributes, [&o](Ipv4 next_hop) { return o.next_hop_cost(next_hop); }, c.seed, memory),
        news(table),
        random(c.seed + 1) {
    timers.set_now(clock.now());
  }
  Core(const Core &) = delete;
  Core &operator=(const Core &) = delete;

  SpeakerConfig config;  // checked
  // The embedding's; they outlive the speaker.
  Transport &transport;
  Clock &clock;
  Observer &observer;
  TimerQueue timers;                                     // of sessions, peers and the deferral
  AttributeTable attributes;                             // of all paths
  Table table;                                           // Adj-RIBs-In and Loc-RIB
  ChangeReader news;                                     // the observer's; what it was told stands in the table
  RouteGroups groups;                                    // scratch of whichever neighbour's output is made
  std::deque<Event> events;                              // the oldest first, told at the end of the turn
  std::minstd_rand random;                               // of the jitter; seeded, so that tests repeat
  bool stopped = false;                                  // for good: nothing is started again
  bool local_awaited = false;                            // the end-of-RIB marks wait for this speaker's own routes
  ConnectionId last_connection = 0;                      // ids are given out upwards from 1
  std::unordered_map<ConnectionId, Session *> sessions;  // that have a connection; each takes itself out
  std::vector<Session *> readable;                       // in the order of their turns
  std::vector<std::unique_ptr<Session>> graveyard;       // closed, and perhaps still on the call stack
  Octets input;                                          // scratch of whichever session reads

  Ipv4 cluster_id() const { return config.cluster_id != 0 ? config.cluster_id : config.router_id; }
  void log(LogLevel level, std::string text);
  // RFC 4271, section 10: three quarters of it to all of it.
  Duration jitter(Duration whole);
};

}  // namespace bgp

#endif  // BGP_CORE_H
