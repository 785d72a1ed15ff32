// The story that is told while calls fail: a module's life with every feature in it once, in named steps.
#ifndef TESTS_FAULTS_STORY_H
#define TESTS_FAULTS_STORY_H

#include <functional>
#include <vector>

#include "tests/faults/world.h"

namespace faults {

struct Step {
  const char *name;                  // stands in the table of what helps
  std::function<void(World &)> run;  // may be repeated
};
const std::vector<Step> &story();

}  // namespace faults

#endif  // TESTS_FAULTS_STORY_H
