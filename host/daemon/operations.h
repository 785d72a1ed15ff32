// Commands that are no views: what each does, from its line.
#ifndef HOST_DAEMON_OPERATIONS_H
#define HOST_DAEMON_OPERATIONS_H

#include <string>
#include <vector>

#include "host/daemon/action.h"

namespace host {

// Made at the first call, never changed.
const std::vector<Action> &operations();

// Debug messages of the module: all VRFs when the name is empty.
void debug_module(const Router &router, const std::string &vrf, bool detail);

}  // namespace host

#endif  // HOST_DAEMON_OPERATIONS_H
