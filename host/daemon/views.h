// The host's own views: what the platform's services hold.
#ifndef HOST_DAEMON_VIEWS_H
#define HOST_DAEMON_VIEWS_H

#include <vector>

#include "host/daemon/action.h"

namespace host {

// Made at the first call, never changed.
const std::vector<Action> &view_actions();

CounterBase counters_now();  // on the main thread

}  // namespace host

#endif  // HOST_DAEMON_VIEWS_H
