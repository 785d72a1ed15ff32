// What the lines of operators do: a row for each action that the language names.
//
// A row stands beside its function: views.cc has those of views, operations.cc the others.
#ifndef HOST_DAEMON_ACTION_H
#define HOST_DAEMON_ACTION_H

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "host/command/command_line.h"
#include "host/control/control_server.h"
#include "host/daemon/outcome.h"
#include "host/daemon/process.h"
#include "host/daemon/router.h"
#include "host/event/monitor.h"
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

struct OperationInput {
  // All outlive the call.
  Router &router;
  const Process &process;
  CounterBase &counters;
  Monitor &monitor;
  const CommandLine &line;
  const Statement &statement;  // the line's first
};

struct Action {
  // A view; on a thread of its own, under the scheduling locks. Yields between rows of long views.
  using Show = void (*)(const ViewInput &, output::Listing &);
  // Done when it returns; on the main thread, as the next.
  using Run = Outcome (*)(const OperationInput &);
  // Ends the channel itself, now or later.
  using Serve = void (*)(const OperationInput &, const std::shared_ptr<OutputChannel> &);

  std::string_view name;                // as Word::action
  std::variant<Show, Run, Serve> does;  // which of the three decides the thread and who ends the channel
  // Of a view: why there is nothing to show; a complete line, or empty.
  std::string (*refusal)(const ViewInput &) = nullptr;
  bool tells_of_forwarder = false;  // it shows what the forwarder counts, which is asked for first
};

// Null: there is none of this name.
const Action *find_action(std::string_view name);

// Where the language and the rows do not match; a sentence for each place.
std::vector<std::string> faults_of_actions();

}  // namespace host

#endif  // HOST_DAEMON_ACTION_H
