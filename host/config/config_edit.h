// An operator's line, applied to a configuration that nothing runs yet.
#ifndef HOST_CONFIG_CONFIG_EDIT_H
#define HOST_CONFIG_CONFIG_EDIT_H

#include <optional>
#include <string>
#include <vector>

#include "host/config/config.h"

namespace host {

// Opens and removes the blocks that a command names; the last of them is where the command stands. Result: why it
// cannot be done.
std::optional<std::string> enter_blocks(const std::vector<Statement> &statements, Config *wanted, BlockId *block);

// The blocks that a command enters, then the command. Empty: done; else why not.
std::string edit_config(const std::vector<Statement> &statements, Config *wanted);

}  // namespace host

#endif  // HOST_CONFIG_CONFIG_EDIT_H
