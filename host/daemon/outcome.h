// What came of a command.
#ifndef HOST_DAEMON_OUTCOME_H
#define HOST_DAEMON_OUTCOME_H

#include <string>
#include <vector>

#include "host/config/config.h"

namespace host {

// text: the reasons, or what a handler printed; complete lines.
struct Outcome {
  bool accepted = true;  // false: refused; the text says why
  std::string text;
};

// Accepted without errors, else their reasons.
inline Outcome outcome_of(const std::vector<ConfigError> &errors) {
  Outcome outcome{errors.empty(), ""};
  for (const ConfigError &error : errors) outcome.text += error.reason + "\n";
  return outcome;
}

}  // namespace host

#endif  // HOST_DAEMON_OUTCOME_H
