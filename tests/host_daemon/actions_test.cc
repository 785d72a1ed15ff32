// The command language and the daemon's actions know each other by name only.
#include "host/language/actions.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "host/daemon/action.h"
#include "host/daemon/operations.h"
#include "host/daemon/views.h"

namespace host {
namespace {

using Faults = std::vector<std::string>;

std::vector<OfferedAction> offered() {
  std::vector<OfferedAction> all;
  for (const Action &action : view_actions()) all.push_back({std::string(action.name), true});
  for (const Action &action : operations()) all.push_back({std::string(action.name), false});
  return all;
}

TEST(Actions, EveryLineHasOneAndEachIsALines) { EXPECT_EQ(faults_of_actions(), Faults()); }

TEST(Actions, ATypingErrorIsFoundByNameOnBothSides) {
  std::vector<OfferedAction> actions = offered();
  std::ranges::find(actions, "show_clock", &OfferedAction::name)->name = "show_clok";
  EXPECT_EQ(lines_without_action(actions), Faults{"'show clock': there is no action show_clock"});
  EXPECT_EQ(actions_without_line(actions), Faults{"no line names the action show_clok"});
}

TEST(Actions, AViewAndAnOperationAreNotTakenForEachOther) {
  std::vector<OfferedAction> actions = offered();
  std::ranges::find(actions, "show_tunnels", &OfferedAction::name)->is_view = false;
  std::ranges::find(actions, "capture_stop", &OfferedAction::name)->is_view = true;
  EXPECT_EQ(lines_without_action(actions), (Faults{"'show tunnels': the action show_tunnels is no view",
                                                   "'capture stop': the action capture_stop is a view"}));
}

}  // namespace
}  // namespace host
