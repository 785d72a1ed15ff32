// What came of a command.
#ifndef HOST_DAEMON_OUTCOME_H
#define HOST_DAEMON_OUTCOME_H

#include <string>

namespace host {

// text: the reasons, or what a handler printed; complete lines.
struct Outcome {
  bool accepted = true;
  std::string text;
};

}  // namespace host

#endif  // HOST_DAEMON_OUTCOME_H
