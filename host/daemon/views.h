// The host's own views: what the platform's services hold.
#ifndef HOST_VIEWS_H
#define HOST_VIEWS_H

#include <cstdint>

#include "host/daemon/process.h"
#include "host/daemon/router.h"
#include "host/language/grammar.h"
#include "host/output/listing.h"
#include "platform/reference/pim.h"

namespace host {

// Counters as they stood when they were cleared.
struct CounterBase {
  ref::PimCounters pim;                // the services' counters only grow, so views show differences
  uint64_t mrib_updates = 0;           // ref::mrib_updates_total() then
  uint64_t announcements_refused = 0;  // of the VRFs that there are
};

struct ViewInput {
  // All outlive the view.
  const Router &router;
  const Statement &statement;
  const CounterBase &counters;
  const Process &process;
};

// Prints the view of a command; false when the command is not one. Yields between rows of long views.
bool show_view(const ViewInput &input, output::Listing &listing);

CounterBase counters_now();  // on the main thread

}  // namespace host

#endif  // HOST_VIEWS_H
