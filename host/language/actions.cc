// Walks the grammar from its root to every word that a line may end with. Both directions are asked, since a row that
// no line names is as much a slip as a name without a row.
#include "host/language/actions.h"

#include <algorithm>

#include "host/language/grammar.h"

namespace host {
namespace {

// A line that is complete, by its words, and the word that it ends with.
struct Ending {
  std::string line;
  const Word *word = nullptr;
};

void add_endings(const std::vector<Word> &words, const std::string &before, std::vector<Ending> *endings) {
  for (const Word &word : words) {
    const std::string line = before + (before.empty() ? "" : " ") + word.text;
    if (word.ends != Ends::never) endings->push_back({line, &word});
    add_endings(word.next, line, endings);
  }
}

std::vector<Ending> endings_of_lines() {
  std::vector<Ending> endings;
  add_endings(root_of(Mode::exec), "", &endings);
  return endings;
}

// What a line lacks; empty: nothing.
std::string fault_of(const Word &end, const std::vector<OfferedAction> &offered) {
  if (!end.handler.empty()) return "";  // the module's
  if (end.action.empty()) return "it names no action";
  const auto action = std::ranges::find(offered, end.action, &OfferedAction::name);
  if (action == offered.end()) return "there is no action " + end.action;
  if (action->is_view == (end.effect == Effect::view)) return "";
  return "the action " + end.action + (action->is_view ? " is a view" : " is no view");
}

}  // namespace

std::vector<std::string> lines_without_action(const std::vector<OfferedAction> &offered) {
  std::vector<std::string> faults;
  for (const Ending &ending : endings_of_lines())
    if (const std::string fault = fault_of(*ending.word, offered); !fault.empty())
      faults.push_back("'" + ending.line + "': " + fault);
  return faults;
}

std::vector<std::string> actions_without_line(const std::vector<OfferedAction> &offered) {
  const std::vector<Ending> endings = endings_of_lines();
  std::vector<std::string> faults;
  for (const OfferedAction &action : offered)
    if (std::ranges::none_of(endings, [&](const Ending &ending) { return ending.word->action == action.name; }))
      faults.push_back("no line names the action " + action.name);
  return faults;
}

}  // namespace host
