// From a line to its action. Actions of the main thread run at once, within the turn that read the line; a view gets a
// detached thread and counts as running until it has ended its channel, which the daemon waits for before it stops.
//
// Trap: a view's thread waits for a slow client where it yields, by the hook that is set here. It must hold no pointer
// into what others change across a row, as after any yield.
#include "host/daemon/engine.h"

#include <pthread.h>

#include <cstring>
#include <stdexcept>
#include <variant>

#include "host/daemon/module_view.h"
#include "platform/pim.h"
#include "platform/reference/cli.h"
#include "platform/reference/runtime.h"
#include "platform/thread.h"

namespace host {
namespace {

thread_local OutputChannel *this_command = nullptr;  // channel of the view that this thread runs

// A view that has run ahead of its client waits for it where it yields.
bool wait_at_yield() {
  if (this_command == nullptr || !this_command->full()) return false;
  this_command->wait_for_client();
  return true;
}

// What was asked, in full and without passwords.
std::string line_of(const std::vector<Statement> &statements) {
  std::string line;
  for (const Statement &statement : statements)
    line += (line.empty() ? "" : " ") + std::string(statement.no ? "no " : "") + shown_text(statement);
  return line;
}

// Why there is nothing to show; a complete line, or empty.
std::string refusal(const Action *action, const ViewInput &input) {
  const std::string *vrf = find_argument(input.statement, "vrf");
  if (vrf != nullptr && pim_get_cib_by_context_name(vrf->c_str()) == nullptr) return "there is no VRF " + *vrf + "\n";
  return action == nullptr || action->refusal == nullptr ? "" : action->refusal(input);
}

}  // namespace

Engine::Engine(Router &router, const Process &process)
    : router_(router), process_(process), monitor_(process.events, [this] { return router_.running().hostname(""); }) {
  for (const std::string &fault : faults_of_actions()) throw std::runtime_error("the command language: " + fault);
  ref::set_yield_hook(wait_at_yield);
}

Engine::~Engine() { ref::set_yield_hook(nullptr); }

void Engine::execute(const ControlServer::Request &request, const std::shared_ptr<OutputChannel> &channel) {
  const CommandLine parsed = read_command_line(request, router_.running().hostname(""));
  if (!parsed.error.empty()) return refuse(parsed, kStatusSyntax, parsed.error, *channel);
  const Action *action = find_action(parsed.match.statements.front().action);
  if (action == nullptr || !action->tells_of_forwarder) return run(parsed, action, channel);
  router_.forwarding().refresh([this, parsed, action, channel] {
    if (channel->wanted()) return run(parsed, action, channel);
    channel->end(kStatusFailed);
  });
}

void Engine::run(const CommandLine &line, const Action *action, const std::shared_ptr<OutputChannel> &channel) {
  if (action == nullptr || std::holds_alternative<Action::Show>(action->does))
    return start_view(std::make_unique<ViewRun>(ViewRun{this, line, action, channel}));
  process_.events.set_cause(line.by);  // until the turn ends
  const OperationInput input{router_, process_, counters_, monitor_, line, line.match.statements.front()};
  if (const auto *serve = std::get_if<Action::Serve>(&action->does)) return (*serve)(input, channel);
  const Outcome outcome = std::get<Action::Run>(action->does)(input);
  if (!outcome.accepted) return refuse(line, kStatusFailed, outcome.text, *channel);
  process_.events.publish({.what = CommandChange{line_of(line.match.statements)}});
  finish(line, outcome.text, *channel);
}

// ----------------------------------------------------------------------------------------------------------- views

void Engine::start_view(std::unique_ptr<ViewRun> run) {
  pthread_attr_t attributes;
  pthread_t thread;
  quillon_pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  running_views_++;
  const int error = quillon_pthread_create(&thread, &attributes, view_thread, run.get(), "pim-show");
  pthread_attr_destroy(&attributes);
  if (error == 0) {
    (void)run.release();  // the thread's
    return;
  }
  running_views_--;
  refuse(run->line, kStatusFailed, std::string("no thread for the command: ") + std::strerror(error) + "\n",
         *run->channel);
}

void *Engine::view_thread(void *argument) {
  const std::unique_ptr<ViewRun> run(static_cast<ViewRun *>(argument));
  this_command = run->channel.get();
  run->engine->show(*run);
  this_command = nullptr;
  run->engine->running_views_--;
  return nullptr;
}

void Engine::show(const ViewRun &run) {
  const ViewInput input{router_, run.statement(), counters_, process_};
  if (const std::string reason = refusal(run.action, input); !reason.empty())
    return refuse(run.line, kStatusFailed, reason, *run.channel);
  if (run.action == nullptr) return show_module(run);
  const std::unique_ptr<output::Writer> writer = writer_for(run.line, *run.channel);
  output::Listing listing(*writer);
  std::get<Action::Show>(run.action->does)(input, listing);
  writer->finish();
  run.channel->end(kStatusDone);
}

void Engine::show_module(const ViewRun &run) {
  const Statement &statement = run.statement();
  const std::unique_ptr<output::Writer> writer = writer_for(run.line, *run.channel);
  ref::CliInvocation invocation;
  invocation.handler = statement.handler;
  for (const Argument &argument : statement.arguments) {
    if (argument.name == "vrf")
      invocation.vrf_name = argument.value;
    else
      invocation.arguments.push_back({argument.name, argument.value});
  }
  invocation.all_vrfs = invocation.vrf_name.empty();
  ModuleView view(router_, statement, *writer);
  const uint32_t status = ref::cli_invoke(invocation, view) == CLI_RESULT_OK ? kStatusDone : kStatusFailed;
  view.finish();
  if (status != kStatusDone) output::record_failure(*writer, status, "the module could not carry the command out");
  writer->finish();
  run.channel->end(status);
}

}  // namespace host
