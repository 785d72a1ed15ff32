// The table against a model of maps: sources that say, withdraw, are lost and come back, with sweeps and readers that
// are interrupted anywhere, from a seed.
#include "bgp/table.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>

#include "tests/bgp/world.h"

namespace {

using bgp::RouteKey;

constexpr size_t kSources = 4;

struct Said {
  bgp::Ipv4 group = 0;
  bool doomed = false;  // a sweep is after it
  uint32_t generation = 0;
};

// A reader and what whoever it reads for must believe.
struct Listener {
  explicit Listener(bgp::Table &table) : reader(table) {}
  bgp::ChangeReader reader;
  std::map<RouteKey, bgp::Ipv4> believed;
};

class TableModel : public testing::TestWithParam<uint32_t> {
 protected:
  TableModel() {
    random.seed(GetParam());
    sources.push_back(bgp::kLocal);
    for (size_t i = 1; i < kSources; i++) sources.push_back(*table.add_source(static_cast<bgp::Ipv4>(i)));
    for (size_t i = 0; i < 3; i++) listeners.push_back(std::make_unique<Listener>(table));
  }

  void say() {
    const size_t source = random() % kSources;
    const bgp::Nlri nlri = world::route(random() % 30, 1, 0xEF000001 + random() % 3);
    bgp::Attributes attributes;
    attributes.local_pref = random() % 3;
    const bgp::AttributeId id = attribute_table.intern(attributes);
    table.update(sources[source], nlri, id);
    attribute_table.release(id);
    model[source][nlri.key] = {nlri.group, false, generations[source]};
  }
  // A path that a sweep is after may or may not be there any more.
  void withdraw() {
    const size_t source = random() % kSources;
    const RouteKey key = world::route(random() % 30, 1).key;
    const auto found = model[source].find(key);
    const bool sure = found == model[source].end() || !found->second.doomed;
    const bool was_there = table.withdraw(sources[source], key);
    EXPECT_TRUE(!sure || was_there == (found != model[source].end()));
    model[source].erase(key);
  }
  void lose() {
    const size_t source = random() % kSources;
    const auto age = static_cast<uint8_t>(1 + random() % 2);
    generations[source]++;
    table.start_generation(sources[source]);
    table.start_sweep(sources[source], age);
    for (auto &[key, said] : model[source]) said.doomed = said.doomed || generations[source] - said.generation >= age;
  }
  void read(Listener &listener, size_t most) {
    while (most-- > 0) {
      const bgp::RouteId id = listener.reader.next();
      if (id == 0) return;
      const bgp::Route &route = table.route(id);
      ASSERT_EQ(table.find(route.key), id) << "a route that is not there any more";
      const bgp::PathId best = table.best(id);
      if (best != 0)
        listener.believed[route.key] = route.group;
      else
        EXPECT_EQ(listener.believed.erase(route.key), listener.reader.told(id) ? 1U : 0U);
      listener.reader.set_told(id, best != 0);
    }
  }
  // The observer reads as the others do; what it was told stands in the table.
  void tell(size_t most) {
    while (most-- > 0) {
      const bgp::RouteId id = observer.reader.next();
      if (id == 0) return;
      const bgp::Route &route = table.route(id);
      check_told(id);
      table.note_told(id);
      if (const bgp::PathId best = table.best(id); best != 0 && table.path(best).source != bgp::kLocal)
        observer.believed[route.key] = route.group;
      else
        observer.believed.erase(route.key);
    }
  }
  void check_told(bgp::RouteId id) {
    const auto known = observer.believed.find(table.route(id).key);
    EXPECT_EQ(table.told_group(id), known == observer.believed.end() ? 0U : known->second);
    EXPECT_EQ(table.told(), observer.believed.size());
  }
  void step() {
    for (const auto &[key, group] : observer.believed) check_told(table.find(key));
    switch (random() % 13) {
      case 0:
        return lose();
      case 1:
        return table.sweep(random() % 5);
      case 2:
        return table.trim();
      case 3:
        return listeners[random() % 3]->reader.start_walk();
      case 4:
        return replace(listeners[random() % 3]);
      case 5:
      case 6:
        return read(*listeners[random() % 3], random() % 10);
      case 7:
      case 8:
        return withdraw();
      case 9:
        return tell(random() % 10);
      default:
        return say();
    }
  }
  // A new listener knows nothing, and learns everything by its walk.
  void replace(std::unique_ptr<Listener> &listener) {
    listener = std::make_unique<Listener>(table);
    listener->reader.start_walk();
  }

  void finish() {
    table.sweep(SIZE_MAX);
    for (auto &listener : listeners) read(*listener, SIZE_MAX);
    tell(SIZE_MAX);
    table.trim();
  }

  std::mt19937 random;
  bgp::AttributeTable attribute_table;
  bgp::Table table{attribute_table, [](bgp::Ipv4) { return 0; }, 1};
  std::vector<bgp::SourceId> sources;
  std::map<RouteKey, Said> model[kSources];
  uint32_t generations[kSources] = {};
  std::vector<std::unique_ptr<Listener>> listeners;
  Listener observer{table};
};

TEST_P(TableModel, HoldsWhatWasSaidAndTellsIt) {
  for (int i = 0; i < 20; i++) {
    for (int j = 0; j < 200; j++) step();
    finish();
    std::map<RouteKey, size_t> paths;
    for (size_t source = 0; source < kSources; source++) {
      std::erase_if(model[source], [](const auto &entry) { return entry.second.doomed; });
      EXPECT_EQ(table.source(sources[source]).paths, model[source].size());
      for (const auto &[key, said] : model[source]) {
        paths[key]++;
        const bgp::PathId path = table.path_of(table.find(key), sources[source]);
        ASSERT_NE(path, 0U);
        EXPECT_EQ(table.path(path).group, said.group);
        EXPECT_EQ(table.stale(table.path(path)), said.generation != generations[source]);
      }
    }
    ASSERT_EQ(table.routes(), paths.size());
    for (const auto &listener : listeners) {
      ASSERT_EQ(listener->believed.size(), paths.size());
      for (const auto &[key, group] : listener->believed) {
        EXPECT_EQ(group, table.path(table.best(table.find(key))).group);
      }
    }
  }
  for (size_t source = 0; source < kSources; source++) table.remove_source(sources[source]);
  finish();
  EXPECT_EQ(table.routes() + table.paths() + attribute_table.used(), 0U);
}
INSTANTIATE_TEST_SUITE_P(Seeds, TableModel, testing::Range(1U, 21U));

// Buckets are split one by one as routes come; every route must be found at every size.
TEST(Table, FindsEveryRouteAtEverySize) {
  bgp::AttributeTable attributes;
  bgp::Table table(
      attributes, [](bgp::Ipv4) { return 0; }, 7);
  const bgp::SourceId source = *table.add_source(1);
  const bgp::AttributeId id = attributes.intern({});
  for (uint32_t vrf = 0; vrf < 20000; vrf++) {
    table.update(source, world::route(vrf, 9), id);
    if (vrf % 997 != 0) continue;
    for (uint32_t i = 0; i <= vrf; i++) ASSERT_NE(table.find(world::route(i, 9).key), 0U) << i << " of " << vrf;
    ASSERT_EQ(table.find(world::route(vrf + 1, 9).key), 0U);
  }
}

}  // namespace
