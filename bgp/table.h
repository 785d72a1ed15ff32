// Routes and paths: the Adj-RIB-In of every neighbour and the Loc-RIB in one.
//
// A route is a key; a path is what one source, a neighbour or this speaker itself, says about it. Most routes have one
// path, which stands in the route's record, in the same line of memory; further ones hang on it, the best in front when
// it is one of them. A source's paths hang on the source, so that what a lost neighbour said is found without walking
// the table. With a hundred thousand routes each octet counts: a route with a path takes 48, a further path 28, both in
// pools.
//
// Changes are kept as a log of route numbers. Whoever wants to know of them, each neighbour's output and the observer,
// reads the log at its own pace with a ChangeReader; a route that changes again moves to the end, so that a slow reader
// finds each route once, in its latest state, and costs the others nothing but the log. What every reader has passed is
// forgotten; a route without paths lives until then, because its withdrawal must still be told.
//
// What a source said is dated by a generation, a number that the source raises when its session is lost. That makes all
// its paths stale in one step; a sweep in bounded turns removes those that were not said again.
//
// What the observer was told last of a route stands here as well, so that it needs no table of its own to know what a
// change means: whether it was told at all, and of whose route. The group that it was told is the route's; where that
// has changed since, the former one waits aside until the observer is told again.
#ifndef BGP_TABLE_H
#define BGP_TABLE_H

#include <deque>
#include <functional>
#include <memory_resource>
#include <unordered_map>

#include "bgp/attribute_table.h"
#include "bgp/pool.h"
#include "bgp/types.h"

namespace bgp {

using RouteId = uint32_t;   // 0: none
using PathId = uint32_t;    // 0: none; the number of its route when it stands there, else one from kFurther on
using SourceId = uint16_t;  // kLocal: this speaker
inline constexpr SourceId kLocal = 0;
inline constexpr PathId kFurther = 0x80000000;

// What the observer was told of a route last: nothing, or that it is gone; that this speaker's own path is the best, or
// a neighbour's.
enum class ToldOf : uint8_t { nothing, own, learnt };

// Which of its paths is a route's best.
enum class Best : uint8_t { none, in_route, first_further };

struct Path {
  AttributeId attributes = 0;    // one reference; 0: there is no path here
  PathId before = 0, after = 0;  // of the same source
  Ipv4 group = 0;                // as the source said
  SourceId source = 0;           // who said it; one path of a route for each
  uint8_t generation = 0;        // the source's when it was said last; another: stale
};

struct Route {
  RouteKey key;                     // never changes
  RouteId next = 0;                 // in the bucket
  PathId further = 0;               // paths beside the one that stands here
  Ipv4 group = 0;                   // of the best path; of the last one when there is none any more
  uint32_t change = 0;              // low 32 bits of its place in the log
  [[no_unique_address]] Path path;  // one of its paths, any; the octet that it leaves is the next fields'
  bool changed : 1 = false;         // it has a place in the log
  Best best : 2 = Best::none;
  ToldOf told : 2 = ToldOf::nothing;

  bool has_paths() const { return path.attributes != 0 || further != 0; }
};
static_assert(sizeof(Route) == 48);

struct FurtherPath {
  Path path;
  PathId next = 0;    // of the same route
  RouteId route = 0;  // that it is a path of
};
static_assert(sizeof(FurtherPath) == 28);

// Where paths come from, as selection sees it.
struct Source {
  Ipv4 address = 0;            // 0: this speaker
  Ipv4 router_id = 0;          // the neighbour's, from its OPEN
  bool internal = true;        // in this AS
  bool client = false;         // of this reflector
  bool in_use = false;         // false: the number may be given out again once it has no paths
  uint8_t generation = 0;      // raised when a session is lost; wraps
  PathId first = 0, last = 0;  // its paths; 0: none
  uint32_t paths = 0;          // all
  uint32_t fresh = 0;          // of the present generation
  PathId sweep = 0;            // where a sweep goes on
  uint8_t sweep_age = 0;       // paths this many generations old, or older, are removed; 0: no sweep
};

// What a next hop costs; nothing: it cannot be reached.
using NextHopCost = std::function<std::optional<uint32_t>(Ipv4 next_hop)>;

class ChangeReader;

class Table {
 public:
  // memory: of routes, paths and buckets; it outlives the table, and may keep what the table gives back until then.
  Table(AttributeTable &attributes, NextHopCost cost, uint64_t seed,
        std::pmr::memory_resource *memory = std::pmr::get_default_resource());
  Table(const Table &) = delete;
  Table &operator=(const Table &) = delete;

  // ---- sources
  std::optional<SourceId> add_source(Ipv4 address);  // nothing: 65,535 are in use
  void remove_source(SourceId id);                   // its paths go by and by
  Source &source(SourceId id) { return sources_[id]; }
  const Source &source(SourceId id) const { return sources_[id]; }
  void start_generation(SourceId id);
  // Begins to remove paths that are `age` generations old or older.
  void start_sweep(SourceId id, uint8_t age);
  bool sweeping() const { return !sweeping_.empty(); }
  void sweep(size_t most);  // paths looked at

  // ---- paths
  void update(SourceId source, const Nlri &nlri, AttributeId attributes);  // takes a reference of its own
  bool withdraw(SourceId source, const RouteKey &key);                     // false: there was none

  // ---- selection
  void defer_selection() { deferred_ = true; }
  bool deferred() const { return deferred_; }
  void start_selection();  // of every route, in turns: after a deferral, or when next hops have changed
  bool selecting() const { return select_at_ != 0; }
  void select(size_t most);  // routes looked at
  PathId best(RouteId id) const {
    const Route &route = routes_[id];
    return route.best == Best::none ? 0 : route.best == Best::in_route ? id : route.further;
  }

  // ---- what the observer was told
  void note_told(RouteId id);            // all that is to be said of the route now
  Ipv4 told_group(RouteId id) const;     // of a neighbour's route; 0: it was told of none
  size_t told() const { return told_; }  // routes of neighbours

  // ---- look-ups
  RouteId find(const RouteKey &key) const;  // 0: none
  // Have the memory fetched that a look-up of this key goes through: its bucket, and a while later its route.
  void fetch_bucket(const RouteKey &key) const { __builtin_prefetch(&buckets_[bucket(hash(key))]); }
  void fetch_route(const RouteKey &key) const {
    if (const RouteId id = buckets_[bucket(hash(key))]; id != 0) fetch(id);
  }
  const Route &route(RouteId id) const { return routes_[id]; }
  // A route's paths, one after the other; 0: no more.
  PathId first_path(RouteId id) const { return routes_[id].path.attributes != 0 ? id : routes_[id].further; }
  PathId next_path(PathId id) const { return id < kFurther ? routes_[id].further : further_[id - kFurther].next; }
  const Path &path(PathId id) const { return id < kFurther ? routes_[id].path : further_[id - kFurther].path; }
  RouteId route_of(PathId id) const { return id < kFurther ? id : further_[id - kFurther].route; }
  PathId path_of(RouteId id, SourceId source) const;  // 0: none
  bool stale(const Path &path) const { return path.generation != sources_[path.source].generation; }
  RouteId end() const { return routes_.end(); }
  const AttributeTable &attributes() const { return attributes_; }
  AttributeTable &attributes() { return attributes_; }
  const NextHopCost &cost() const { return cost_; }

  size_t routes() const { return routes_.used(); }
  size_t paths() const { return paths_; }
  size_t octets() const;

  // Forgets what every reader has passed.
  void trim();

 private:
  friend class ChangeReader;
  uint32_t hash(const RouteKey &key) const;
  size_t bucket(uint32_t hash) const;
  void split_bucket();
  // A route may begin in one line of memory and end in the next. Not inlined, this would be a function without effect
  // to the compiler, which leaves out calls of such.
  [[gnu::always_inline]] void fetch(RouteId id) const {
    const Route *route = &routes_[id];
    __builtin_prefetch(route);
    __builtin_prefetch(&route->path.source);
  }
  RouteId find_or_add(const RouteKey &key);
  void remove_route(RouteId id);
  Path &path_at(PathId id) { return id < kFurther ? routes_[id].path : further_[id - kFurther].path; }
  PathId add_path(RouteId id, SourceId source);
  void unlink_further(Route &route, PathId id);
  void link_to_source(PathId id);
  void unlink_from_source(PathId id);
  void remove_path(PathId id);
  void reselect(RouteId id, PathId touched);
  void select_path(RouteId id, PathId path);
  void set_group(RouteId id, Ipv4 group);
  void note_change(RouteId id);
  bool is_latest(uint64_t position) const;
  void forget(uint64_t position);
  void compact();

  AttributeTable &attributes_;
  NextHopCost cost_;
  uint64_t seed_;
  Pool<Route> routes_;
  Pool<FurtherPath, 256> further_;
  size_t paths_ = 0;
  // Linear hashing: one bucket is split for each route that comes beyond one a bucket, so that no insertion pays for
  // all.
  Chunks<RouteId, 4096> buckets_;
  size_t level_, split_ = 0;
  std::vector<Source> sources_;
  std::vector<SourceId> sweeping_;
  bool deferred_ = false;
  RouteId select_at_ = 0;  // 0: nothing to do
  size_t told_ = 0;
  std::unordered_map<RouteId, Ipv4> former_groups_;  // that the observer was told, of routes that have another now

  std::deque<RouteId> log_;
  uint64_t log_start_ = 0;  // position of log_[0]
  std::vector<ChangeReader *> readers_;
};

// One reader of the changes, with the set of routes that it has passed on to whomever it reads for.
class ChangeReader {
 public:
  explicit ChangeReader(Table &table);  // at the end of the log
  ~ChangeReader();
  ChangeReader(const ChangeReader &) = delete;
  ChangeReader &operator=(const ChangeReader &) = delete;

  void start_walk();  // over all routes; changes of routes that the walk still comes to are left to it
  bool walking() const { return walk_ < walk_end_; }
  bool behind() const { return walking() || changes_left() > 0; }  // there is something to read
  // Places in the log that it has not passed; a route may stand at several.
  size_t changes_left() const { return static_cast<size_t>(log_end() - position_); }
  uint64_t position() const { return position_; }
  uint64_t log_end() const { return table_.log_start_ + table_.log_.size(); }

  // The next route to look at; 0: none.
  RouteId next();

  bool told(RouteId id) const { return id / 64 < told_.size() && (told_[id / 64] >> (id % 64) & 1) != 0; }
  void set_told(RouteId id, bool told);
  uint32_t told_count() const { return count_; }
  size_t octets() const { return told_.capacity() * sizeof(uint64_t); }

 private:
  friend class Table;
  RouteId next_change();
  RouteId next_of_walk();

  Table &table_;
  uint64_t position_;
  RouteId walk_ = 0, walk_end_ = 0;
  bool walk_turn_ = false;
  std::vector<uint64_t> told_;
  uint32_t count_ = 0;
};

}  // namespace bgp

#endif  // BGP_TABLE_H
