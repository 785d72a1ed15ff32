// The table's four parts: routes in a hash table that grows by one bucket at a time; sources with their lists of paths;
// paths and selection; the log of changes with its readers. Whatever is long is done in shares that the caller gives.
//
// Invariants: the best path is the first of its route while the route is selected; a route without paths stays while
// its latest change has not been passed by every reader; a position in the log counts only if it is the latest of its
// route. Path generations are eight bits and compared by difference: a sweep has to be through before 255 more sessions
// are lost.
#include "bgp/table.h"

#include <algorithm>
#include <cstring>

#include "bgp/selection.h"

namespace bgp {
namespace {

constexpr size_t kFirstBuckets = 1024;  // 4 KiB; one more for each route beyond
constexpr size_t kSplitsAhead = 8;      // whose routes are fetched before they are due
constexpr size_t kLogSlack = 4096;      // changes kept twice before the log is made dense
constexpr size_t kSourcesMax = UINT16_MAX;

// As numbers: a call to compare eight octets costs more than the rest of a look-up.
bool same(const RouteKey &a, const RouteKey &b) {
  uint64_t rd_a, rd_b;
  std::memcpy(&rd_a, a.rd.data(), sizeof rd_a);
  std::memcpy(&rd_b, b.rd.data(), sizeof rd_b);
  return rd_a == rd_b && a.source == b.source;
}

uint64_t mix(uint64_t value) {
  value ^= value >> 32;
  // 2^64 divided by the golden ratio: multiplying by it spreads neighbouring values.
  value *= 0x9E3779B97F4A7C15;
  return value ^ value >> 29;
}

}  // namespace

Table::Table(AttributeTable &attributes, NextHopCost cost, uint64_t seed, std::pmr::memory_resource *memory)
    : attributes_(attributes),
      cost_(std::move(cost)),
      seed_(mix(seed + 1)),
      routes_(memory),
      further_(memory),
      buckets_(memory),
      level_(kFirstBuckets) {
  while (buckets_.size() < kFirstBuckets) buckets_.append();
  sources_.resize(1);
  sources_[kLocal].in_use = true;
}

// ------------------------------------------------------------------------------------------------------------- routes

uint32_t Table::hash(const RouteKey &key) const {
  uint64_t rd;
  std::memcpy(&rd, key.rd.data(), sizeof rd);
  return static_cast<uint32_t>(mix(mix(rd ^ seed_) + key.source));
}

size_t Table::bucket(uint32_t hash) const {
  const size_t place = hash & (level_ - 1);
  return place < split_ ? hash & (2 * level_ - 1) : place;
}

void Table::split_bucket() {
  if (const RouteId soon = buckets_[split_ + kSplitsAhead]; soon != 0) fetch(soon);
  RouteId id = buckets_[split_];
  buckets_[split_] = 0;
  buckets_.append();
  if (++split_ == level_) {
    level_ *= 2;
    split_ = 0;
  }
  while (id != 0) {
    Route &route = routes_[id];
    const RouteId next = route.next;
    RouteId &into = buckets_[bucket(hash(route.key))];
    route.next = into;
    into = id;
    id = next;
  }
}

RouteId Table::find(const RouteKey &key) const {
  RouteId id = buckets_[bucket(hash(key))];
  while (id != 0 && !same(routes_[id].key, key)) id = routes_[id].next;
  return id;
}

RouteId Table::find_or_add(const RouteKey &key) {
  if (const RouteId found = find(key); found != 0) return found;
  if (routes_.used() >= buckets_.size()) split_bucket();
  const RouteId id = routes_.take();
  routes_[id].key = key;
  RouteId &into = buckets_[bucket(hash(key))];
  routes_[id].next = into;
  into = id;
  return id;
}

void Table::remove_route(RouteId id) {
  RouteId *link = &buckets_[bucket(hash(routes_[id].key))];
  while (*link != id) link = &routes_[*link].next;
  *link = routes_[id].next;
  routes_.give(id);
}

PathId Table::path_of(RouteId route, SourceId source) const {
  PathId id = first_path(route);
  while (id != 0 && path(id).source != source) id = next_path(id);
  return id;
}

// ------------------------------------------------------------------------------------------------------------ sources

std::optional<SourceId> Table::add_source(Ipv4 address) {
  size_t id = 1;
  while (id < sources_.size() && (sources_[id].in_use || sources_[id].paths > 0)) id++;
  if (id > kSourcesMax) return std::nullopt;
  if (id == sources_.size()) sources_.emplace_back();
  sources_[id] = {};
  sources_[id].address = address;
  sources_[id].in_use = true;
  return static_cast<SourceId>(id);
}

void Table::remove_source(SourceId id) {
  start_generation(id);
  start_sweep(id, 1);
  sources_[id].in_use = false;
}

void Table::start_generation(SourceId id) {
  Source &source = sources_[id];
  source.generation++;
  source.fresh = 0;
  if (source.sweep_age != 0) source.sweep_age++;  // what a running sweep is after has aged too
}

void Table::start_sweep(SourceId id, uint8_t age) {
  Source &source = sources_[id];
  if (source.first == 0) return;
  if (source.sweep_age == 0) sweeping_.push_back(id);
  source.sweep_age = source.sweep_age == 0 ? age : std::min(age, source.sweep_age);
  source.sweep = source.first;
}

void Table::sweep(size_t most) {
  while (!sweeping_.empty()) {
    const SourceId id = sweeping_.back();
    while (sources_[id].sweep != 0) {
      if (most-- == 0) return;
      const PathId next = sources_[id].sweep;
      sources_[id].sweep = path(next).after;
      const auto age = static_cast<uint8_t>(sources_[id].generation - path(next).generation);
      if (age >= sources_[id].sweep_age) remove_path(next);
    }
    sources_[id].sweep_age = 0;
    sweeping_.pop_back();
  }
}

void Table::link_to_source(PathId id) {
  Source &source = sources_[path(id).source];
  path_at(id).before = source.last;
  (source.last != 0 ? path_at(source.last).after : source.first) = id;
  source.last = id;
  source.paths++;
}

void Table::unlink_from_source(PathId id) {
  const Path &gone = path(id);
  Source &source = sources_[gone.source];
  if (source.sweep == id) source.sweep = gone.after;
  (gone.before != 0 ? path_at(gone.before).after : source.first) = gone.after;
  (gone.after != 0 ? path_at(gone.after).before : source.last) = gone.before;
  source.paths--;
  if (gone.generation == source.generation) source.fresh--;
}

// -------------------------------------------------------------------------------------------------------------- paths

void Table::update(SourceId source, const Nlri &nlri, AttributeId attributes) {
  const RouteId id = find_or_add(nlri.key);
  PathId path_id = path_of(id, source);
  if (path_id == 0) path_id = add_path(id, source);
  Path &said = path_at(path_id);
  if (said.generation != sources_[source].generation) {
    said.generation = sources_[source].generation;
    sources_[source].fresh++;
  }
  if (said.attributes == attributes && said.group == nlri.group) return;
  attributes_.hold(attributes);
  if (said.attributes != 0) attributes_.release(said.attributes);
  said.attributes = attributes;
  said.group = nlri.group;
  reselect(id, path_id);
}

// A path without attributes yet, in the route's record or behind the best of the further ones.
PathId Table::add_path(RouteId id, SourceId source) {
  Route &route = routes_[id];
  PathId added = id;
  if (route.path.attributes != 0) {
    added = kFurther + further_.take();
    PathId &link = route.best == Best::first_further ? further_[route.further - kFurther].next : route.further;
    further_[added - kFurther].route = id;
    further_[added - kFurther].next = link;
    link = added;
  }
  path_at(added) = {.source = source, .generation = static_cast<uint8_t>(sources_[source].generation - 1)};
  link_to_source(added);
  paths_++;
  return added;
}

bool Table::withdraw(SourceId source, const RouteKey &key) {
  const RouteId id = find(key);
  const PathId path = id == 0 ? 0 : path_of(id, source);
  if (path == 0) return false;
  remove_path(path);
  return true;
}

void Table::remove_path(PathId id) {
  const RouteId route_id = route_of(id);
  Route &route = routes_[route_id];
  const bool was_best = best(route_id) == id;
  unlink_from_source(id);
  attributes_.release(path(id).attributes);
  if (id == route_id) {
    route.path = {};
  } else {
    unlink_further(route, id);
    further_.give(id - kFurther);
  }
  paths_--;
  if (was_best) {
    route.best = Best::none;
    note_change(route_id);
    reselect(route_id, 0);
  } else if (!route.has_paths() && !route.changed) {
    remove_route(route_id);
  }
}

void Table::unlink_further(Route &route, PathId id) {
  PathId *link = &route.further;
  while (*link != id) link = &further_[*link - kFurther].next;
  *link = further_[id - kFurther].next;
}

// ---------------------------------------------------------------------------------------------------------- selection

void Table::select_path(RouteId id, PathId path) {
  Route &route = routes_[id];
  route.best = path == 0 ? Best::none : path == id ? Best::in_route : Best::first_further;
  if (route.best != Best::first_further || route.further == path) return;
  unlink_further(route, path);
  further_[path - kFurther].next = route.further;
  route.further = path;
}

// `touched`: the path whose content changed; 0: none did.
void Table::reselect(RouteId id, PathId touched) {
  if (deferred_) return;
  const PathId before = best(id);
  const PathId now = best_path(*this, id);
  select_path(id, now);
  if (now != 0) set_group(id, path(now).group);
  if (now != before || (now != 0 && now == touched)) note_change(id);
}

void Table::start_selection() {
  deferred_ = false;
  select_at_ = 1;
}

void Table::select(size_t most) {
  while (select_at_ != 0) {
    if (select_at_ >= routes_.end()) {
      select_at_ = 0;
      return;
    }
    if (most-- == 0) return;
    if (routes_[select_at_].has_paths()) reselect(select_at_, 0);
    select_at_++;
  }
}

// ----------------------------------------------------------------------------------------- what the observer was told

void Table::set_group(RouteId id, Ipv4 group) {
  Route &route = routes_[id];
  if (route.told == ToldOf::learnt && route.group != group) former_groups_.try_emplace(id, route.group);
  route.group = group;
}

Ipv4 Table::told_group(RouteId id) const {
  if (routes_[id].told != ToldOf::learnt) return 0;
  if (former_groups_.empty()) return routes_[id].group;
  const auto former = former_groups_.find(id);
  return former == former_groups_.end() ? routes_[id].group : former->second;
}

void Table::note_told(RouteId id) {
  Route &route = routes_[id];
  const PathId of = best(id);
  const ToldOf told = of == 0 ? ToldOf::nothing : path(of).source == kLocal ? ToldOf::own : ToldOf::learnt;
  told_ += told == ToldOf::learnt ? 1 : 0;
  told_ -= route.told == ToldOf::learnt ? 1 : 0;
  route.told = told;
  if (!former_groups_.empty()) former_groups_.erase(id);
}

// ------------------------------------------------------------------------------------------------------------ changes

void Table::note_change(RouteId id) {
  Route &route = routes_[id];
  route.changed = true;
  route.change = static_cast<uint32_t>(log_start_ + log_.size());
  log_.push_back(id);
  if (log_.size() > 2 * routes_.used() + kLogSlack) compact();
}

bool Table::is_latest(uint64_t position) const {
  const Route &route = routes_[log_[position - log_start_]];
  return route.changed && route.change == static_cast<uint32_t>(position);
}

void Table::forget(uint64_t position) {
  if (!is_latest(position)) return;
  const RouteId id = log_[position - log_start_];
  routes_[id].changed = false;
  if (!routes_[id].has_paths()) remove_route(id);
}

void Table::trim() {
  uint64_t least = log_start_ + log_.size();
  for (const ChangeReader *reader : readers_) least = std::min(least, reader->position_);
  while (log_start_ < least) {
    forget(log_start_);
    log_.pop_front();
    log_start_++;
  }
}

// A reader that does not read must not make the log longer than the table: entries of routes that changed again go.
void Table::compact() {
  std::vector<ChangeReader *> in_order = readers_;
  std::sort(in_order.begin(), in_order.end(),
            [](const ChangeReader *a, const ChangeReader *b) { return a->position_ < b->position_; });
  auto reader = in_order.begin();
  std::deque<RouteId> dense;
  const uint64_t end = log_start_ + log_.size();
  for (uint64_t position = log_start_; position <= end; position++) {
    const uint64_t place = log_start_ + dense.size();
    for (; reader != in_order.end() && (*reader)->position_ == position; reader++) (*reader)->position_ = place;
    if (position == end || !is_latest(position)) continue;
    const RouteId id = log_[position - log_start_];
    routes_[id].change = static_cast<uint32_t>(place);
    dense.push_back(id);
  }
  log_ = std::move(dense);
}

size_t Table::octets() const {
  size_t octets = routes_.octets() + further_.octets() + buckets_.octets() + log_.size() * sizeof(RouteId) +
                  sources_.capacity() * sizeof(Source);
  for (const ChangeReader *reader : readers_) octets += reader->octets();
  return octets + attributes_.octets();
}

// ------------------------------------------------------------------------------------------------------------- reader

ChangeReader::ChangeReader(Table &table) : table_(table), position_(table.log_start_ + table.log_.size()) {
  table_.readers_.push_back(this);
}

ChangeReader::~ChangeReader() { std::erase(table_.readers_, this); }

void ChangeReader::start_walk() {
  if (count_ == 0) position_ = log_end();  // nothing to take back: the walk tells it all
  walk_ = 1;
  walk_end_ = table_.end();
}

RouteId ChangeReader::next_change() {
  while (position_ < log_end()) {
    const uint64_t position = position_++;
    if (!table_.is_latest(position)) continue;
    const RouteId id = table_.log_[position - table_.log_start_];
    // A route without paths may be gone before the walk gets there, and its withdrawal with it.
    const bool left_to_walk = walking() && id >= walk_ && id < walk_end_ && table_.routes_[id].has_paths();
    if (!left_to_walk) return id;
  }
  return 0;
}

RouteId ChangeReader::next_of_walk() {
  while (walking()) {
    const RouteId id = walk_++;
    if (table_.routes_[id].has_paths() || told(id)) return id;
  }
  return 0;
}

// Changes and walk take turns: neither waits for the other to end.
RouteId ChangeReader::next() {
  walk_turn_ = !walk_turn_;
  const RouteId id = walk_turn_ ? next_of_walk() : next_change();
  if (id != 0) return id;
  return walk_turn_ ? next_change() : next_of_walk();
}

void ChangeReader::set_told(RouteId id, bool told) {
  if (this->told(id) == told) return;
  if (id / 64 >= told_.size()) told_.resize(id / 64 + 1);
  told_[id / 64] ^= uint64_t{1} << (id % 64);
  count_ += told ? 1 : -1;
}

}  // namespace bgp
