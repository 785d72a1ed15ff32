// Steps of a simulation: their kinds with the weights they are drawn by, how they are written, and how they are done.
//
// A step is a line of words: its kind and what it is about, for instance "flow v1 192.168.1.1 232.8.0.1 600". A leading
// "+" means that the next step follows before anything has settled. Steps are drawn without knowing what earlier ones
// did; one that finds nothing to act on does nothing, so that any part of a list can be played.
#ifndef TESTS_SIMULATION_STEPS_H
#define TESTS_SIMULATION_STEPS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tests/simulation/world.h"

namespace simulation {

struct Step {
  bool settles = true;  // false: the next step follows before anything has settled
  Words words;          // at least the kind
};

struct Script {
  uint64_t scheduler = 0;  // seed of the order in which the module's threads run
  std::vector<Step> steps;
};

// The steps of a seed, always the same ones.
Script draw(uint64_t seed);

// As text, and back; nullopt: not a script, *problem says why.
std::string print(const Script &script);
std::optional<Script> parse(const std::string &text, std::string *problem);

void play(World &world, const Step &step);

size_t kinds_of_steps();

}  // namespace simulation

#endif  // TESTS_SIMULATION_STEPS_H
