// The steps are a table, each a number that a smaller value wins by; only the multi-exit discriminator compares paths
// of one neighbouring AS with one another and not with the rest. Candidates fall out step by step, as the RFC describes
// it: comparing pairs instead would make the result depend on the order in which paths arrived.
#include "bgp/selection.h"

#include <algorithm>

namespace bgp {
namespace {

struct Candidate {
  PathId id;
  const Path *path;
  const AttributeSet *attributes;
  const Source *source;
  uint32_t cost;
};

using Candidates = std::vector<Candidate>;

struct Step {
  const char *words;  // what the winner has
  uint32_t (*key)(const Candidate &);
  bool within_as;  // compared among paths from the same neighbouring AS only
};

constexpr Step kSteps[] = {
    {"originated here", [](const Candidate &c) -> uint32_t { return c.path->source == kLocal ? 0 : 1; }, false},
    {"higher local preference", [](const Candidate &c) -> uint32_t { return ~c.attributes->local_pref; }, false},
    {"shorter AS path", [](const Candidate &c) -> uint32_t { return c.attributes->path_length; }, false},
    {"lower origin", [](const Candidate &c) -> uint32_t { return static_cast<uint32_t>(c.attributes->origin); }, false},
    {"lower MED", [](const Candidate &c) -> uint32_t { return c.attributes->med; }, true},
    {"external over internal", [](const Candidate &c) -> uint32_t { return c.source->internal ? 1 : 0; }, false},
    {"lower cost to the next hop", [](const Candidate &c) -> uint32_t { return c.cost; }, false},
    {"lower router id",
     [](const Candidate &c) -> uint32_t {
       return c.attributes->originator_id != 0 ? c.attributes->originator_id : c.source->router_id;
     },
     false},
    {"shorter cluster list", [](const Candidate &c) -> uint32_t { return c.attributes->clusters; }, false},
    {"lower neighbor address", [](const Candidate &c) -> uint32_t { return c.source->address; }, false},
};

// Reused between selections, so that none allocates.
Candidates &scratch() {
  static thread_local Candidates candidates;
  candidates.clear();
  return candidates;
}

std::optional<uint32_t> cost_of(const Table &table, const Path &path) {
  if (path.source == kLocal) return 0;
  return table.cost()(table.attributes()[path.attributes].next_hop);
}

void gather(const Table &table, RouteId route, Candidates &candidates) {
  for (PathId id = table.first_path(route); id != 0; id = table.next_path(id)) {
    const Path &path = table.path(id);
    const auto cost = cost_of(table, path);
    if (cost)
      candidates.push_back({id, &path, &table.attributes()[path.attributes], &table.source(path.source), *cost});
  }
}

bool beaten(const Step &step, const Candidate &candidate, const Candidates &all) {
  const uint32_t key = step.key(candidate);
  return std::any_of(all.begin(), all.end(), [&](const Candidate &other) {
    if (step.within_as && other.attributes->neighbor_as != candidate.attributes->neighbor_as) return false;
    return step.key(other) < key;
  });
}

void apply_within_as(const Step &step, Candidates &candidates) {
  const Candidates before = candidates;
  std::erase_if(candidates, [&](const Candidate &c) { return beaten(step, c, before); });
}

void apply(const Step &step, Candidates &candidates) {
  if (step.within_as) return apply_within_as(step, candidates);
  uint32_t least = UINT32_MAX;
  for (const Candidate &c : candidates) least = std::min(least, step.key(c));
  std::erase_if(candidates, [&](const Candidate &c) { return step.key(c) > least; });
}

bool holds(const Candidates &candidates, PathId id) {
  return std::any_of(candidates.begin(), candidates.end(), [id](const Candidate &c) { return c.id == id; });
}

// The step at which `id` falls out, or, for the one that stays, the last step at which another fell out.
const char *deciding_step(Candidates candidates, PathId id) {
  const char *words = "the only path";
  for (const Step &step : kSteps) {
    const size_t before = candidates.size();
    if (before == 1) break;
    apply(step, candidates);
    if (candidates.size() < before) words = step.words;
    if (!holds(candidates, id)) break;
  }
  return words;
}

}  // namespace

PathId best_path(const Table &table, RouteId route) {
  const PathId first = table.first_path(route);
  if (first == 0) return 0;
  if (table.next_path(first) == 0) return cost_of(table, table.path(first)) ? first : 0;
  Candidates &candidates = scratch();
  gather(table, route, candidates);
  for (const Step &step : kSteps) {
    if (candidates.size() <= 1) break;
    apply(step, candidates);
  }
  return candidates.empty() ? 0 : candidates[0].id;
}

std::string reason(const Table &table, RouteId route, PathId best, PathId id) {
  Candidates candidates;
  gather(table, route, candidates);
  if (!holds(candidates, id)) return "next hop cannot be reached";
  if (best == 0) return "not selected yet";
  return deciding_step(candidates, id);
}

}  // namespace bgp
