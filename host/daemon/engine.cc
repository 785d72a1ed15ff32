#include "host/daemon/engine.h"

#include <pthread.h>

#include <algorithm>
#include <cstring>

#include "host/daemon/config_commands.h"
#include "host/daemon/metrics.h"
#include "host/daemon/module_view.h"
#include "platform/reference/bgp.h"
#include "platform/reference/cli.h"
#include "platform/reference/croute.h"
#include "platform/reference/diag.h"
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

Outcome missing(const char *what, const std::string &name) {
  return {false, std::string("there is no ") + what + " " + name + "\n"};
}

Outcome set_flow(const Statement &statement) {
  const std::string &vrf = *find_argument(statement, "vrf");
  const mvpn_mdt_route_addrs addrs =
      route_address(*find_argument(statement, "source"), *find_argument(statement, "group"));
  const bool done = ref::set_customer_rate(vrf, addrs, number_value(*find_argument(statement, "rate")));
  return done ? Outcome() : missing("such customer route in VRF", vrf);
}

Outcome set_receiver(const Config &config, const Statement &statement) {
  const std::string &vrf = *find_argument(statement, "vrf");
  const std::string &oif = *find_argument(statement, "oif");
  const mvpn_mdt_route_addrs addrs =
      route_address(*find_argument(statement, "source"), *find_argument(statement, "group"));
  std::vector<ref::CustomerRoute> routes = ref::customer_routes(vrf);
  const auto route = std::find_if(routes.begin(), routes.end(), [&addrs](const ref::CustomerRoute &other) {
    return std::memcmp(&other.addrs, &addrs, sizeof addrs) == 0;
  });
  if (route == routes.end()) return missing("such customer route in VRF", vrf);
  const bool join = find_argument(statement, "join") != nullptr;
  const bool tunnel = oif == "mvpn";
  const auto at = std::find(route->oifs.begin(), route->oifs.end(), oif);
  const bool listed = tunnel ? route->to_mvpn : at != route->oifs.end();
  if (!join && !listed) return {false, oif + " is no outgoing interface of the route\n"};
  if (const std::string reason = config.why_not_in_vrf(oif, vrf); join && !reason.empty())
    return {false, reason + "\n"};
  if (join == listed) return {};
  if (tunnel)
    route->to_mvpn = join;
  else if (join)
    route->oifs.push_back(oif);
  else
    route->oifs.erase(at);
  return ref::set_customer_route(vrf, *route) != nullptr ? Outcome() : missing("interface", oif);
}

// An interface of the core that has an address; null when there is none.
const std::string *core_interface_with(const Config &config, const std::string &address) {
  for (const auto &[id, block] : config.blocks()) {
    if (id.mode != Mode::interface || block->find(Command::interface_vrf) != nullptr) continue;
    const std::string *own = block->value(Command::ip_address, "address");
    if (own != nullptr && *own == address) return &id.name;
  }
  return nullptr;
}

bool is_same_entry(const ref::MdtSafi &a, const ref::MdtSafi &b) {
  return a.source == b.source && a.group == b.group && std::equal(std::begin(a.rd), std::end(a.rd), std::begin(b.rd));
}

Outcome set_remote_pe(const Config &config, const Statement &statement) {
  const std::string &source = *find_argument(statement, "source");
  ref::MdtSafi safi;
  safi.source = address_value(source);
  safi.group = address_value(*find_argument(statement, "group"));
  const auto rd = ref::bgp_parse_rd(*find_argument(statement, "rd"));
  if (!rd) return {false, "that is not a route distinguisher\n"};
  std::copy(rd->begin(), rd->end(), safi.rd);
  if (find_argument(statement, "advertise") != nullptr) {
    if (const std::string *own = core_interface_with(config, source))
      return {false, source + " is the address of this PE's interface " + *own + "\n"};
    ref::bgp_add_remote({safi});
    return {};
  }
  const std::vector<ref::MdtSafi> entries = ref::bgp_remote_entries();
  if (std::none_of(entries.begin(), entries.end(), [&](const auto &entry) { return is_same_entry(entry, safi); }))
    return missing("such entry of PE", source);
  ref::bgp_withdraw_remote({safi});
  return {};
}

Outcome capture(Links &links, const Statement &statement) {
  ref::Capture &file = links.capture();
  if (statement.command == Command::capture_start) {
    if (links.carrier() == nullptr) return {false, "there is no carrier of core packets; see 'core', 'carrier'\n"};
    const std::string reason =
        file.start(*find_argument(statement, "path"), find_argument(statement, "append") != nullptr);
    return reason.empty() ? Outcome() : Outcome{false, reason + "\n"};
  }
  if (!file.running()) return {false, "there is no capture\n"};
  const std::string packets = std::to_string(file.packets()) + " packets in ";
  if (statement.command == Command::capture_stop) {
    file.stop();
    return {true, packets + file.path() + "\n"};
  }
  std::string kept;
  const std::string reason = file.rotate(&kept);
  return reason.empty() ? Outcome{true, packets + kept + "\n"} : Outcome{false, reason + "\n"};
}

// What was asked, in full and without passwords.
std::string line_of(const std::vector<Statement> &statements) {
  std::string line;
  for (const Statement &statement : statements)
    line += (line.empty() ? "" : " ") + std::string(statement.no ? "no " : "") + shown_text(statement);
  return line;
}

Outcome clear_bgp(BgpService &bgp, const Statement &statement) {
  const std::string reason = bgp.clear(statement);
  return reason.empty() ? Outcome() : Outcome{false, reason + "\n"};
}

// Whether a command shows what the forwarder counts, which has to be asked for first.
bool tells_of_forwarder(Command command) {
  return command == Command::show_forwarding || command == Command::show_forwarding_events ||
         command == Command::show_metrics;
}

}  // namespace

Engine::Engine(Router &router, const Process &process)
    : router_(router), process_(process), monitor_(process.events, [this] { return router_.running().hostname(""); }) {
  ref::set_yield_hook(wait_at_yield);
}

Engine::~Engine() { ref::set_yield_hook(nullptr); }

void Engine::execute(const ControlServer::Request &request, const std::shared_ptr<OutputChannel> &channel) {
  const CommandLine parsed = read_command_line(request, router_.running().hostname(""));
  if (!parsed.error.empty()) return refuse(parsed, kStatusSyntax, parsed.error, *channel);
  if (!tells_of_forwarder(parsed.match.statements.front().command)) return run(parsed, channel);
  router_.forwarding().refresh([this, parsed, channel] {
    if (channel->wanted()) return run(parsed, channel);
    channel->end(kStatusFailed);
  });
}

void Engine::run(const CommandLine &line, const std::shared_ptr<OutputChannel> &channel) {
  const Statement &first = line.match.statements.front();
  if (is_view(first)) return start_view(std::make_unique<ViewRun>(ViewRun{this, line, channel}));
  if (first.command == Command::monitor) return monitor_.serve(line, channel);
  if (first.command == Command::show_metrics) {
    channel->output(metrics_text(router_, process_.loop, metrics::Format::text));
    return channel->end(kStatusDone);
  }
  process_.events.set_cause(line.by);  // until the turn ends
  if (first.command == Command::reload || first.command == Command::check)
    return try_config_file(line, process_, channel);
  const Outcome outcome = operate(line);
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
  const Statement &statement = run.statement();
  const std::string *vrf = find_argument(statement, "vrf");
  if (vrf != nullptr && pim_get_cib_by_context_name(vrf->c_str()) == nullptr)
    return refuse(run.line, kStatusFailed, "there is no VRF " + *vrf + "\n", *run.channel);
  if (statement.command == Command::show_module) return show_module(run);
  if (statement.command == Command::show_bgp_neighbor)
    if (const std::string reason = router_.links().exchange().bgp().missing_neighbor(statement); !reason.empty())
      return refuse(run.line, kStatusFailed, reason + "\n", *run.channel);
  const std::unique_ptr<output::Writer> writer = writer_for(run.line, *run.channel);
  output::Listing listing(*writer);
  show_view({router_, statement, counters_, process_}, listing);
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

// ------------------------------------------------------------------------------------------------- other commands

Outcome Engine::operate(const CommandLine &line) {
  const Statement &statement = line.match.statements.front();
  switch (statement.command) {
    case Command::configure:
    case Command::configure_exclusive:
    case Command::commit:
    case Command::rollback:
    case Command::abort:
    case Command::write:
      return work_on_config(line, *process_.work);
    case Command::log_level:
      process_.log.set_level(*level_of(statement.arguments.front().name));
      return {};
    case Command::clear_counters:
      counters_ = counters_now();
      router_.links().clear_counters();
      return {};
    case Command::clear_events:
      ref::clear_history();
      ref::clear_reports();
      return {};
    case Command::clear_bgp_neighbor:
      return clear_bgp(router_.links().exchange().bgp(), statement);
    case Command::debug_mvpn: {
      const std::string *vrf = find_argument(statement, "vrf");
      if (vrf != nullptr && pim_get_cib_by_context_name(vrf->c_str()) == nullptr) return missing("VRF", *vrf);
      debug(vrf == nullptr ? "" : *vrf, find_argument(statement, "detail") != nullptr);
      return {};
    }
    case Command::debug_off:
      debug_off();
      return {};
    case Command::test_interface: {
      const std::string &name = *find_argument(statement, "interface");
      const bool up = find_argument(statement, "up") != nullptr;
      return router_.set_link(name, up) ? Outcome() : missing("configured interface", name);
    }
    case Command::test_flow:
      return set_flow(statement);
    case Command::test_receiver:
      return set_receiver(router_.running(), statement);
    case Command::test_remote_pe:
      return set_remote_pe(router_.running(), statement);
    case Command::capture_start:
    case Command::capture_stop:
    case Command::capture_rotate:
      return capture(router_.links(), statement);
    case Command::test_statistics:
      ref::statistics_pass();
      return {};
    default:
      return {false, "that cannot be done here\n"};
  }
}

void Engine::debug(const std::string &vrf, bool detail) {
  const std::string filter = vrf.empty() ? "all" : vrf;
  std::strncpy(pim_dfilter_vrf_name, filter.c_str(), VRF_NAME_MAX);
  pim_debug_flag |= PIM_DEBUG_MVPN;
  *router_.module().detail_debug = detail ? 1 : 0;
}

void Engine::debug_off() {
  pim_debug_flag &= ~uint32_t{PIM_DEBUG_MVPN};
  pim_dfilter_vrf_name[0] = '\0';
  *router_.module().detail_debug = 0;
}

}  // namespace host
