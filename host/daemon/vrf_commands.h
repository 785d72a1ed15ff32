// The commands of a VRF that the module judges: in which order it wants them, and what becomes of one that it refuses.
#ifndef HOST_DAEMON_VRF_COMMANDS_H
#define HOST_DAEMON_VRF_COMMANDS_H

#include <string>
#include <vector>

#include "host/config/config.h"

namespace host {

// Whether it is "mdt default", in either form.
bool is_default_mdt(const Statement &statement);

// A VRF's lines for the module, "mdt default" first.
std::vector<const Line *> mdt_lines(const Block &vrf);

// A change that a handler refused, and what it printed.
struct Rejection {
  LineChange change;  // its lines are those of the configurations that were compared, which outlive it
  std::string text;   // complete lines; empty: the handler gave no reason
};
// As an error of the line in the file that it came from, in words.
ConfigError error_of(const Rejection &rejection);
// The refused line goes back to what it was `before`, so that the running configuration never claims what the module
// does not do.
void put_back(const Config &before, const Rejection &rejection, Config *running);

}  // namespace host

#endif  // HOST_DAEMON_VRF_COMMANDS_H
