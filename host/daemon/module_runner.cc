// A handler's name stands in the grammar or in the SNMP tables and is registered by the module. They are compared when
// the module starts for the first time, so that a name that nobody registered is heard of before somebody needs it.
#include "host/daemon/module_runner.h"

#include <set>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "host/snmp/tables.h"
#include "platform/pim.h"
#include "platform/reference/cli.h"
#include "platform/reference/module.h"

namespace host {
namespace {

// Collects what a handler prints.
class TextSink : public ref::CliSink {
 public:
  void text(std::string_view text) override { collected += text; }
  std::string collected;
};

// A command or an SNMP object whose handler has another name would fail when somebody needs it.
void check_handlers() {
  const std::vector<std::string> names = ref::cli_registered();
  const std::set<std::string> registered(names.begin(), names.end());
  std::set<std::string> wanted = handlers_of_lines();
  wanted.merge(snmp::handlers_of_objects());
  for (const std::string &name : wanted)
    if (!registered.contains(name)) throw std::runtime_error("the module has registered no handler " + name);
}

}  // namespace

bool ModuleRunner::start() {
  ref::set_module(module_.entries);
  runs_ = true;
  if (module_.init() == 0) {
    stop();
    return false;
  }
  if (commands_registered_) return true;
  module_.init_cli();
  commands_registered_ = true;
  check_handlers();
  return true;
}

void ModuleRunner::stop() {
  if (!runs_) return;
  module_.deinit(1);
  runs_ = false;
}

Outcome ModuleRunner::run(const std::string &vrf, const Statement &statement, bool no_form, bool interactive) const {
  if (!runs_) return {};
  ref::CliInvocation invocation;
  invocation.handler = statement.handler;
  for (const Argument &argument : statement.arguments) invocation.arguments.push_back({argument.name, argument.value});
  invocation.vrf_name = vrf;
  invocation.no_form = no_form;
  invocation.interactive = interactive;
  TextSink sink;
  const int result = ref::cli_invoke(invocation, sink);
  if (result != CLI_RESULT_OK && sink.collected.empty())
    sink.collected = result == CLI_RESULT_NO_MEMORY ? "out of memory\n" : "refused without a reason\n";
  return {result == CLI_RESULT_OK, sink.collected};
}

void ModuleRunner::end_of_commands(const std::string &vrf) const {
  if (pim_cibtype *pcib = pim_get_cib_by_context_name(vrf.c_str())) module_.cli_vrf_done(pcib);
}

}  // namespace host
