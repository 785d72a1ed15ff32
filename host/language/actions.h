// The actions that lines of Mode::exec name, compared with those that a daemon has.
//
// A line names its action as text, because the language has nothing of a daemon in it. So the two are compared when a
// daemon starts, before somebody types a line that nobody answers.
#ifndef HOST_LANGUAGE_ACTIONS_H
#define HOST_LANGUAGE_ACTIONS_H

#include <string>
#include <vector>

namespace host {

struct OfferedAction {
  std::string name;      // as Word::action
  bool is_view = false;  // it shows and changes nothing
};

// What is wrong, a sentence for each: lines whose action is not offered, or is a view where the line is none or the
// other way round; actions that no line names.
std::vector<std::string> lines_without_action(const std::vector<OfferedAction> &offered);
std::vector<std::string> actions_without_line(const std::vector<OfferedAction> &offered);

}  // namespace host

#endif  // HOST_LANGUAGE_ACTIONS_H
