// The rows of views.cc and operations.cc under their names. faults_of_actions() is asked at the start, so that a row or
// a name that was forgotten is heard of before an operator needs it.
#include "host/daemon/action.h"

#include <algorithm>
#include <iterator>
#include <map>

#include "host/daemon/operations.h"
#include "host/daemon/views.h"
#include "host/language/actions.h"

namespace host {
namespace {

const std::map<std::string_view, Action> &actions() {
  static const std::map<std::string_view, Action> all = [] {
    std::map<std::string_view, Action> rows;
    for (const Action &row : view_actions()) rows.emplace(row.name, row);
    for (const Action &row : operations()) rows.emplace(row.name, row);
    return rows;
  }();
  return all;
}

}  // namespace

const Action *find_action(std::string_view name) {
  const auto found = actions().find(name);
  return found == actions().end() ? nullptr : &found->second;
}

std::vector<std::string> faults_of_actions() {
  std::vector<OfferedAction> offered;
  for (const auto &[name, action] : actions())
    offered.push_back({std::string(name), std::holds_alternative<Action::Show>(action.does)});
  std::vector<std::string> faults = lines_without_action(offered);
  std::ranges::copy(actions_without_line(offered), std::back_inserter(faults));
  return faults;
}

}  // namespace host
