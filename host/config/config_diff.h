// What two configurations do not have in common, as an operator reads it.
#ifndef HOST_CONFIG_CONFIG_DIFF_H
#define HOST_CONFIG_CONFIG_DIFF_H

#include <string>
#include <vector>

#include "host/config/config.h"

namespace host {

// Lines with "-", "+" or, for the header of a block that both have, a blank in front; passwords hidden. Empty: both are
// the same.
std::vector<std::string> difference_text(const Config &before, const Config &after);

// What an operator changed from `loaded` to `running` and `wanted` does not have so: what is lost when `wanted` takes
// the place of `running`. As the commands that would enter it again, passwords hidden.
std::vector<std::string> lost_changes(const Config &loaded, const Config &running, Config wanted);

}  // namespace host

#endif  // HOST_CONFIG_CONFIG_DIFF_H
