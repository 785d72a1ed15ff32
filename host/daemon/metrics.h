// What the daemon measures, for monitoring systems. docs/metrics.md lists it.
#ifndef HOST_DAEMON_METRICS_H
#define HOST_DAEMON_METRICS_H

#include <string>

#include "host/daemon/loop.h"
#include "host/daemon/router.h"
#include "host/metrics/exposition.h"

namespace host {

// Every metric as it is now. On the main thread, with the scheduling locks. Those of the forwarding plane are what it
// said last: Forwarding::refresh() comes before.
std::string metrics_text(const Router &router, const Loop &loop, metrics::Format format);

}  // namespace host

#endif  // HOST_DAEMON_METRICS_H
