// How a change is applied. The wanted configuration becomes the running one first; then what is gone is withdrawn, what
// the platform holds is built, and the VRFs' commands run through the module's handlers. A line that a handler refuses
// goes back to what it was, so that the running configuration never claims what the module does not do.
//
// The order within a change: customer routes before the MDTs that carry them; the other MDT commands before "no mdt
// default", which may free the VRF's settings; VRFs before interfaces; "mdt default", which makes a VRF's settings
// exist, before the other MDT commands.
//
// A VRF can be deleted only when the module has left it, which takes a tunnel's teardown. Until then it is "leaving",
// and a VRF that needs its name or its numbers is "waiting"; when it has gone, what the configuration says is built.
#include "host/daemon/router.h"

#include <algorithm>
#include <stdexcept>

#include "host/snmp/tables.h"
#include "platform/ip.h"
#include "platform/reference/bgp.h"
#include "platform/reference/cli.h"
#include "platform/reference/im.h"
#include "platform/reference/l3vm.h"
#include "platform/reference/module.h"
#include "platform/reference/pim.h"
#include "platform/reference/rpm.h"
#include "platform/reference/runtime.h"

namespace host {
namespace {

// Collects what a handler prints.
class TextSink : public ref::CliSink {
 public:
  void text(std::string_view text) override { collected += text; }
  std::string collected;
};

constexpr std::string_view kMetricsEndpoint = "127.0.0.1:9469";  // unless another one is configured
constexpr std::string_view kDefaultHandler = "mdt_default_cmd";

bool is_default_mdt(const Statement &statement) { return statement.handler == kDefaultHandler; }

const Statement &statement_of(const LineChange &change) {
  return change.after != nullptr ? change.after->statement : change.before->statement;
}

// Lines of a VRF for the module, "mdt default" first.
std::vector<const Line *> mdt_lines(const Block &vrf) {
  std::vector<const Line *> lines;
  for (const auto &[place, line] : vrf.lines())
    if (line.statement.command == Command::mdt) lines.push_back(&line);
  std::stable_partition(lines.begin(), lines.end(), [](const Line *line) { return is_default_mdt(line->statement); });
  return lines;
}

bool same_numbers(const Block &a, const Block &b) {
  for (const Command command : {Command::context_id, Command::table_id})
    if (*a.value(command, "id") != *b.value(command, "id")) return false;
  return true;
}

// Opens and removes the blocks that a command names; the last of them is where the command stands.
std::optional<std::string> enter_blocks(const std::vector<Statement> &statements, Config *wanted, BlockId *block) {
  for (const Statement &statement : statements) {
    if (!statement.enters) break;
    *block = block_of(statement);
    if (!statement.no) {
      wanted->open(*block);
      continue;
    }
    if (wanted->find(*block) == nullptr) return "there is no " + statement.text;
    wanted->remove(*block);
  }
  return std::nullopt;
}

// The range of a VRF that a new default group lies in; empty: none. The module takes such a group, but refuses the
// range when both come from a file, where the group is first: the configuration could not be loaded again.
std::string range_with_default(const Block *vrf, const Statement &command) {
  const std::string *group = find_argument(command, "<mdt-default>");
  if (vrf == nullptr || command.no || group == nullptr) return "";
  for (const auto &[place, line] : vrf->lines()) {
    const std::string *prefix = find_argument(line.statement, "<prefix>");
    if (prefix == nullptr) continue;
    const PrefixValue range = prefix_value(*prefix);
    if (ip_is_addr_in_prefix(address_value(*group), range.address, range.length) != 0) return *prefix;
  }
  return "";
}

Outcome outcome_of(const std::vector<ConfigError> &errors) {
  Outcome outcome;
  for (const ConfigError &error : errors) {
    outcome.accepted = false;
    outcome.text += error.reason + "\n";
  }
  return outcome;
}

}  // namespace

ConfigError Router::error_of(const Rejection &rejection) {
  const LineChange &change = rejection.change;
  const Statement &statement = statement_of(change);
  const bool removed = change.after == nullptr;
  std::string reason =
      "VRF " + change.block.name + ": " + (removed != statement.no ? "no " : "") + statement.text + ": ";
  reason += rejection.text.substr(0, rejection.text.find_last_not_of('\n') + 1);
  return {removed ? 0 : change.after->number, std::move(reason)};
}

mvpn_mdt_route_addrs route_address(const std::string &source, const std::string &group) {
  mvpn_mdt_route_addrs addrs{};
  addrs.source = address_value(source);
  addrs.source_len = static_cast<uint8_t>(source == "*" ? MROUTE_ANY_SOURCE_LEN : MROUTE_HOST_LEN);
  addrs.group = address_value(group);
  addrs.group_len = MROUTE_HOST_LEN;
  return addrs;
}

ref::CustomerRoute customer_route(const Statement &statement) {
  ref::CustomerRoute route;
  route.addrs = route_address(*find_argument(statement, "source"), *find_argument(statement, "group"));
  for (const Argument &argument : statement.arguments) {
    if (argument.name == "iif") route.iif = argument.value;
    if (argument.name == "rpf") route.rpf_neighbor = address_value(argument.value);
    if (argument.name == "bidir") route.bidirectional = true;
    if (argument.name == "rate") route.rate_kbps = number_value(argument.value);
    if (argument.name != "oif") continue;
    if (argument.value == "mvpn")
      route.to_mvpn = true;
    else
      route.oifs.push_back(argument.value);
  }
  return route;
}

Router::Router(Loop &loop, const LoadedModule &module, Options options)
    : module_(module),
      options_(std::move(options)),
      links_(loop, options_.capture, options_.recovering, *options_.events, options_.log),
      forwarding_(std::make_unique<Forwarding>(
          loop, *options_.events, options_.log, [this](const std::string &name) { follow_interface(name); },
          options_.recovering)),
      default_mtu_(pim_mtu),
      default_announcement_limit_(*module.recv_cache_limit) {}

// -------------------------------------------------------------------------------------------------- start and stop

std::vector<ConfigError> Router::start(Config config) {
  std::vector<ConfigError> refused;
  config.choose_numbers(nullptr);
  running_ = config;
  const std::vector<LineChange> changes = difference(Config(), config);  // stays as it is when lines are refused
  build(Config(), changes);
  if (!follow_feature(&refused)) throw std::runtime_error("the module does not start; see the log");
  ref::enable_interface_events(true);
  // What the handlers asked to be replayed has been: those requests are in the queue, and nobody listens to them yet.
  ref::post([this] { ref::set_cli_replay([this](const std::string &vrf) { replay_vrf(vrf); }); });
  for (const LineChange &change : changes)
    if (change.block.mode == Mode::vrf && change.after != nullptr && change.after->statement.command == Command::mroute)
      set_route(change.block.name, change.after->statement.key);
  if (!options_.offline) {
    links_.follow(running_);
    forwarding_->follow(running_);
  }
  ref::start_statistics();
  return refused;
}

void Router::stop() {
  links_.close();
  stop_module();
  forwarding_->close();
}

bool Router::follow_feature(std::vector<ConfigError> *refused) {
  const bool wanted = running_.feature_mvpn();
  ref::set_feature_configured(wanted);
  if (!wanted) {
    stop_module();
    ref::bgp_forget_local();
  }
  return !wanted || module_runs_ || start_module(refused);
}

bool Router::start_module(std::vector<ConfigError> *refused) {
  ref::set_module(module_.entries);
  module_runs_ = true;
  if (module_.init() == 0) {
    stop_module();
    return false;
  }
  const bool again = commands_registered_;
  if (!again) module_.init_cli();
  commands_registered_ = true;
  if (!again) check_handlers();
  replay_all(refused);
  // A module that was stopped knows the update source of then, and asks for none when it starts anew.
  if (again) follow_update_source();
  return true;
}

// A command or an SNMP object whose handler has another name would fail when somebody needs it.
void Router::check_handlers() const {
  const std::vector<std::string> names = ref::cli_registered();
  const std::set<std::string> registered(names.begin(), names.end());
  std::set<std::string> wanted = handlers_of_lines();
  wanted.merge(snmp::handlers_of_objects());
  for (const std::string &name : wanted)
    if (!registered.contains(name)) throw std::runtime_error("the module has registered no handler " + name);
}

void Router::stop_module() {
  if (!module_runs_) return;
  module_.deinit(1);
  module_runs_ = false;
}

// One request for the configuration of each VRF; its end is noted when the VRF's commands have been handled.
void Router::replay_all(std::vector<ConfigError> *refused) {
  const Config replayed = running_;
  std::vector<std::string> vrfs;
  for (const auto &[id, block] : replayed.blocks())
    if (id.mode == Mode::vrf) vrfs.push_back(id.name);
  pim_cli_requests_sent_count = static_cast<uint16_t>(pim_cli_requests_sent_count + vrfs.size() + 1);
  pim_cli_done_recv_count++;  // the lines outside of VRFs hold no command of the module
  for (const std::string &name : vrfs) {
    const BlockId id{Mode::vrf, name};
    for (const Line *line : mdt_lines(*replayed.find(id))) {
      const Outcome outcome = run_handler(name, line->statement, line->statement.no, false);
      if (outcome.accepted) continue;
      const Rejection rejection{{id, nullptr, line}, outcome.text};
      refused->push_back(error_of(rejection));
      put_back(Config(), rejection);
    }
    if (pim_cibtype *pcib = pim_get_cib_by_context_name(name.c_str())) module_.cli_vrf_done(pcib);
    pim_cli_done_recv_count++;
    module_.cli_done();
  }
  if (vrfs.empty()) module_.cli_done();
}

// The module has made a VRF's context anew and wants the VRF's other commands again.
void Router::replay_vrf(const std::string &vrf) {
  const Block *block = running_.vrf(vrf);
  if (block == nullptr || !module_runs_) return;
  for (const Line *line : mdt_lines(*block)) {
    const Outcome outcome = run_handler(vrf, line->statement, line->statement.no, false);
    if (!outcome.accepted) options_.log(Level::error, "VRF " + vrf + ": " + line->statement.text + ": " + outcome.text);
  }
  if (pim_cibtype *pcib = pim_get_cib_by_context_name(vrf.c_str())) module_.cli_vrf_done(pcib);
}

// --------------------------------------------------------------------------------------------------------- changes

Outcome Router::configure(const std::vector<Statement> &statements) {
  Config wanted = running_;
  BlockId block;
  if (const auto reason = enter_blocks(statements, &wanted, &block)) return {false, *reason + "\n"};
  const Statement &command = statements.back();
  if (command.enters) return outcome_of(change_to(std::move(wanted)));
  const bool to_module = command.command == Command::mdt;
  // The module judges its default groups itself.
  const bool judged = to_module && module_runs_ && is_default_mdt(command);
  if (const std::string reason = wanted.refusal(block, command); !judged && !reason.empty())
    return {false, reason + "\n"};
  if (to_module) return configure_module(std::move(wanted), block, command);
  wanted.edit(block, command);
  Outcome outcome = outcome_of(change_to(std::move(wanted)));
  if (outcome.accepted && command.command == Command::clock_scale && options_.clock_scale)
    outcome.text += "the clock keeps the scale of --clock-scale until the next start\n";
  return outcome;
}

// The blocks first, then the command, which becomes part of the configuration when the module has taken it.
Outcome Router::configure_module(Config wanted, const BlockId &block, const Statement &command) {
  Config complete = wanted;
  complete.edit(block, command);
  if (Outcome outcome = outcome_of(complete.check()); !outcome.accepted) return outcome;
  if (const std::string range = range_with_default(running_.find(block), command); !range.empty())
    return {false, "the group is in the VRF's own range " + range + "\n"};
  const bool made = running_.find(block) == nullptr;
  if (Outcome outcome = outcome_of(change_to(std::move(wanted))); !outcome.accepted) return outcome;
  Outcome outcome = run_command(block, command);
  if (outcome.accepted || !made) return outcome;
  // The VRF that was made for the command goes with it.
  Config without = running_;
  without.remove(block);
  change_to(std::move(without));
  return outcome;
}

// Whether the store changes is the handler's to say, also when the line is there already.
Outcome Router::run_command(const BlockId &block, const Statement &command) {
  if (!is_there(block.name)) return {false, "VRF " + block.name + " waits for a VRF that is being deleted\n"};
  Outcome outcome = run_handler(block.name, command, command.no, true);
  if (outcome.accepted) running_.edit(block, command);
  return outcome;
}

std::vector<ConfigError> Router::replace(Config config) {
  const Config before = running_;
  std::vector<ConfigError> errors = change_to(std::move(config));
  if (errors.empty()) return errors;
  for (const ConfigError &error : change_to(before)) errors.push_back({0, "on the way back: " + error.reason});
  return errors;
}

std::vector<ConfigError> Router::change_to(Config wanted) {
  std::vector<ConfigError> errors = wanted.check();
  if (!errors.empty()) return errors;
  wanted.choose_numbers(&running_);
  const Config before = running_;
  running_ = wanted;
  const std::vector<LineChange> changes = difference(before, wanted);
  std::vector<Rejection> rejections;
  for (const auto &[id, block] : before.blocks()) {
    const Block *now = wanted.find(id);
    if (id.mode == Mode::vrf && (now == nullptr || !same_numbers(*block, *now))) leave_vrf(id.name);
  }
  withdraw(changes, &rejections);
  build(before, changes);
  if (!follow_feature(&errors)) errors.push_back({0, "the module does not start; see the log"});
  if (!options_.offline) forwarding_->follow(running_);
  command_vrfs(changes, &rejections);
  if (!options_.offline) links_.follow(running_);
  for (const Rejection &rejection : rejections) {
    put_back(before, rejection);
    errors.push_back(error_of(rejection));
  }
  return errors;
}

// What is not wanted any more, before anything new is made.
void Router::withdraw(const std::vector<LineChange> &changes, std::vector<Rejection> *rejections) {
  for (const LineChange &change : changes)
    if (change.block.mode == Mode::vrf && change.after == nullptr &&
        change.before->statement.command == Command::mroute)
      ref::delete_customer_route(change.block.name, customer_route(change.before->statement).addrs);
  const auto undo = [&](const LineChange &change) {
    const Statement &statement = change.before->statement;
    const Outcome outcome = run_handler(change.block.name, statement, !statement.no, true);
    if (!outcome.accepted) rejections->push_back({change, outcome.text});
  };
  const auto concerns_module = [this](const LineChange &change) {
    return change.before != nullptr && change.before->statement.command == Command::mdt && is_there(change.block.name);
  };
  for (auto at = changes.rbegin(); at != changes.rend(); ++at)
    if (concerns_module(*at) && at->after == nullptr && !is_default_mdt(at->before->statement)) undo(*at);
  // A default group is changed by removing it first.
  for (const LineChange &change : changes)
    if (concerns_module(change) && is_default_mdt(change.before->statement)) undo(change);
}

void Router::build(const Config &before, const std::vector<LineChange> &changes) {
  std::set<std::string> policies, vrfs, interfaces, distinguishers;
  bool update_source = false;
  for (const LineChange &change : changes) {
    const Statement &statement = statement_of(change);
    if (change.block.mode == Mode::global || change.block.mode == Mode::pim) apply_global(change);
    if (statement.command == Command::route_map) policies.insert(*find_argument(statement, "name"));
    if (change.block.mode == Mode::vrf) vrfs.insert(change.block.name);
    if (change.block.mode == Mode::interface) interfaces.insert(change.block.name);
    if (statement.command == Command::rd) distinguishers.insert(change.block.name);
    if (statement.command == Command::update_source) update_source = true;
  }
  // Blocks count also without lines.
  for (const auto &[id, block] : before.blocks())
    if (id.mode == Mode::interface && running_.find(id) == nullptr) interfaces.insert(id.name);
  for (const auto &[id, block] : running_.blocks())
    if (id.mode == Mode::interface && before.find(id) == nullptr) interfaces.insert(id.name);
  for (const std::string &name : policies) follow_policy(name);
  for (const std::string &name : vrfs) follow_vrf(name);
  for (const std::string &name : interfaces) follow_interface(name);
  for (const std::string &name : distinguishers) follow_route_distinguisher(name);
  if (update_source) follow_update_source();
}

// The commands of VRFs that exist. Those of a VRF that is still leaving run when it comes back.
void Router::command_vrfs(const std::vector<LineChange> &changes, std::vector<Rejection> *rejections) {
  std::vector<const LineChange *> commands;
  for (const LineChange &change : changes)
    if (change.block.mode == Mode::vrf && change.after != nullptr && is_there(change.block.name) &&
        change.after->statement.command == Command::mdt)
      commands.push_back(&change);
  std::stable_sort(commands.begin(), commands.end(), [](const LineChange *a, const LineChange *b) {
    if (a->block.name != b->block.name) return a->block.name < b->block.name;
    return is_default_mdt(a->after->statement) && !is_default_mdt(b->after->statement);
  });
  for (const LineChange *change : commands) {
    const Statement &statement = change->after->statement;
    const Outcome outcome = run_handler(change->block.name, statement, statement.no, true);
    if (outcome.accepted) continue;
    rejections->push_back({*change, outcome.text});
    // The former group was removed to make room for this one.
    if (is_default_mdt(statement) && change->before != nullptr)
      run_handler(change->block.name, change->before->statement, false, true);
  }
  for (const LineChange &change : changes)
    if (change.block.mode == Mode::vrf && change.after != nullptr && change.after->statement.command == Command::mroute)
      set_route(change.block.name, change.after->statement.key);
}

void Router::put_back(const Config &before, const Rejection &rejection) {
  const BlockId &id = rejection.change.block;
  const Statement &statement = statement_of(rejection.change);
  Statement reverse = statement;
  const Block *block = before.find(id);
  const Line *former = block == nullptr ? nullptr : block->find_key(statement.key);
  if (former != nullptr)
    reverse = former->statement;
  else
    reverse.no = !statement.no;
  if (running_.find(id) != nullptr) running_.edit(id, reverse, former != nullptr ? former->number : 0);
}

Outcome Router::run_handler(const std::string &vrf, const Statement &statement, bool no_form, bool interactive) {
  ref::CliInvocation invocation;
  invocation.handler = statement.handler;
  for (const Argument &argument : statement.arguments) invocation.arguments.push_back({argument.name, argument.value});
  invocation.vrf_name = vrf;
  invocation.no_form = no_form;
  invocation.interactive = interactive;
  TextSink sink;
  // Without the module there is nobody to ask: the line is kept for the replay.
  if (!module_runs_) return {};
  const int result = ref::cli_invoke(invocation, sink);
  if (result != CLI_RESULT_OK && sink.collected.empty())
    sink.collected = result == CLI_RESULT_NO_MEMORY ? "out of memory\n" : "refused without a reason\n";
  return {result == CLI_RESULT_OK, sink.collected};
}

// ------------------------------------------------------------------------------------------------------ the platform

void Router::apply_global(const LineChange &change) {
  const Statement &statement = statement_of(change);
  const auto range = [&](auto add, auto remove) {
    const PrefixValue prefix = prefix_value(*find_argument(statement, "prefix"));
    (change.after != nullptr ? add : remove)(prefix.address, prefix.length);
  };
  const auto number = [&](const char *name, uint32_t without) {
    return change.after != nullptr ? static_cast<uint32_t>(number_value(*find_argument(statement, name))) : without;
  };
  switch (statement.command) {
    case Command::ssm_range:
      return range(ref::add_ssm_range, ref::remove_ssm_range);
    case Command::bidir_range:
      return range(ref::add_bidir_range, ref::remove_bidir_range);
    case Command::pim_mtu:
      pim_mtu = number("mtu", default_mtu_);
      return;
    case Command::announcement_limit:
      *module_.recv_cache_limit = number("limit", default_announcement_limit_);
      return;
    case Command::clock_scale:
      return follow_clock();
    case Command::metrics:
      return follow_metrics();
    default:
      return;
  }
}

void Router::follow_clock() {
  const Block *global = running_.find({});
  const std::string *scale = global == nullptr ? nullptr : global->value(Command::clock_scale, "scale");
  const double configured = scale == nullptr ? 1 : static_cast<double>(number_value(*scale));
  ref::clock_use_real(options_.clock_scale.value_or(configured));
}

void Router::follow_metrics() {
  if (!options_.follow_metrics) return;
  const Block *global = running_.find({});
  if (global == nullptr || global->find(Command::metrics) == nullptr) return options_.follow_metrics(std::nullopt);
  const std::string *given = global->value(Command::metrics, "endpoint");
  options_.follow_metrics(endpoint_value(given != nullptr ? std::string_view(*given) : kMetricsEndpoint));
}

void Router::follow_policy(const std::string &name) {
  std::vector<ref::PolicyEntry> entries;
  static const Block none;
  const Block *global = running_.find({});
  for (const auto &[place, line] : (global == nullptr ? none : *global).lines()) {
    const Statement &statement = line.statement;
    if (statement.command != Command::route_map || *find_argument(statement, "name") != name) continue;
    const PrefixValue sources = prefix_value(*find_argument(statement, "sources"));
    const PrefixValue groups = prefix_value(*find_argument(statement, "groups"));
    ref::PolicyEntry entry;
    entry.permit = find_argument(statement, "permit") != nullptr;
    entry.source = sources.address;
    entry.source_len = sources.length;
    entry.group = groups.address;
    entry.group_len = groups.length;
    entries.push_back(entry);
  }
  if (entries.empty())
    ref::delete_policy(name);
  else
    ref::set_policy(name, entries);
}

void Router::follow_vrf(const std::string &name) {
  const Block *block = running_.vrf(name);
  waiting_.erase(name);
  if (block == nullptr || leaving_.contains(name) || pim_get_cib_by_context_name(name.c_str()) != nullptr) return;
  const auto context = static_cast<vrf_context_id_t>(number_value(*block->value(Command::context_id, "id")));
  const auto table = static_cast<uint32_t>(number_value(*block->value(Command::table_id, "id")));
  if (ref::create_vrf(name, context, table) != nullptr)
    follow_route_distinguisher(name);
  else if (!leaving_.empty())
    waiting_.insert(name);  // its numbers may be those of a VRF that is leaving
  else
    options_.log(Level::error, "VRF " + name + " cannot be created");
}

void Router::follow_route_distinguisher(const std::string &vrf) {
  const Block *block = running_.vrf(vrf);
  if (block == nullptr || !is_there(vrf)) return;
  const std::string *text = block->value(Command::rd, "rd");
  const auto rd = text == nullptr ? std::nullopt : ref::bgp_parse_rd(*text);
  ref::bgp_set_rd(vrf, rd ? rd->data() : nullptr, module_runs_);
}

void Router::follow_update_source() {
  const Block *bgp = running_.find({Mode::bgp, ""});
  const std::string *name = bgp == nullptr ? nullptr : bgp->value(Command::update_source, "interface");
  ref::bgp_set_update_source(name == nullptr ? "" : *name, module_runs_);
}

void Router::follow_interface(const std::string &name) {
  interfaces_.erase(name);
  const Block *block = running_.find({Mode::interface, name});
  if (block == nullptr) {
    links_down_.erase(name);
    ref::delete_interface(name);
    return;
  }
  const std::string *vrf = block->value(Command::interface_vrf, "name");
  const pim_cibtype *pcib = vrf == nullptr ? pim_default_cib : pim_get_cib_by_context_name(vrf->c_str());
  const bool vrf_ready = pcib != nullptr && (vrf == nullptr || is_there(*vrf));
  const std::string *text = block->value(Command::ip_address, "address");
  ip_addr_t address = text == nullptr ? 0 : address_value(*text);
  bool up = block->find(Command::shutdown) == nullptr && !links_down_.contains(name);
  if (forwarding_->active()) {
    // The kernel's address; the line chooses among several.
    const Forwarding::Seen seen = forwarding_->seen(name);
    if (std::ranges::count(seen.addresses, address) == 0) address = seen.addresses.empty() ? 0 : seen.addresses.front();
    up = up && seen.up;
  }
  const ref::Interface *interface = ref::find_interface(std::string_view(name));
  if (interface != nullptr && vrf_ready && interface->context_id == pcib->context_id) {
    ref::set_interface_address(name, address);
    ref::set_interface_state(name, up);
    return;
  }
  // Another VRF's now: it goes there when it has left, and when the VRF is there.
  if (interface != nullptr) ref::delete_interface(name);
  if (!vrf_ready || ref::find_interface(std::string_view(name)) != nullptr)
    interfaces_.insert(name);
  else if (ref::create_interface(name, pcib->context_id, address, up) == 0)
    options_.log(Level::error, "interface " + name + " cannot be created");
}

bool Router::set_link(const std::string &interface, bool up) {
  if (running_.find({Mode::interface, interface}) == nullptr) return false;
  if (up)
    links_down_.erase(interface);
  else
    links_down_.insert(interface);
  follow_interface(interface);
  return true;
}

void Router::set_route(const std::string &vrf, const std::string &key) {
  routes_.erase({vrf, key});
  const Block *block = running_.vrf(vrf);
  const Line *line = block == nullptr ? nullptr : block->find_key(key);
  if (line == nullptr) return;
  if (!is_there(vrf) || ref::set_customer_route(vrf, customer_route(line->statement)) == nullptr)
    routes_.insert({vrf, key});
}

// ----------------------------------------------------------------------------------------------------- leaving VRFs

void Router::leave_vrf(const std::string &name) {
  pim_cibtype *pcib = pim_get_cib_by_context_name(name.c_str());
  if (pcib == nullptr) return;
  for (const ref::CustomerRoute &route : ref::customer_routes(name)) ref::delete_customer_route(name, route.addrs);
  if (module_runs_) module_.leave_vrf(pcib);
  leaving_.insert(name);
}

void Router::finish_leaving() {
  for (auto at = leaving_.begin(); at != leaving_.end();) {
    const pim_cibtype *pcib = pim_get_cib_by_context_name(at->c_str());
    const bool gone = pcib == nullptr || (pcib->mvpn == nullptr && ref::customer_routes(*at).empty());
    if (!gone || (pcib != nullptr && !ref::delete_vrf(*at))) {
      ++at;
      continue;
    }
    waiting_.insert(*at);
    at = leaving_.erase(at);
  }
  for (const std::string &name : std::set<std::string>(waiting_)) bring_in(name);
}

void Router::bring_in(const std::string &vrf) {
  follow_vrf(vrf);
  if (running_.vrf(vrf) == nullptr || !is_there(vrf)) return;
  for (const auto &[id, interface] : running_.blocks())
    if (const std::string *of = interface->value(Command::interface_vrf, "name"); of != nullptr && *of == vrf)
      follow_interface(id.name);
  const std::shared_ptr<const Block> kept = running_.blocks().at({Mode::vrf, vrf});
  for (const Line *line : mdt_lines(*kept)) {
    const Outcome outcome = run_handler(vrf, line->statement, line->statement.no, true);
    if (outcome.accepted) continue;
    const Rejection rejection{{{Mode::vrf, vrf}, nullptr, line}, outcome.text};
    options_.log(Level::error, error_of(rejection).reason);
    put_back(Config(), rejection);
  }
  for (const auto &[place, line] : kept->lines())
    if (line.statement.command == Command::mroute) set_route(vrf, line.statement.key);
}

bool Router::is_there(const std::string &vrf) const { return !leaving_.contains(vrf) && !waiting_.contains(vrf); }

void Router::settle() {
  forwarding_->settle();
  if (!leaving_.empty()) finish_leaving();
  for (const std::string &name : std::set<std::string>(interfaces_)) follow_interface(name);
  for (const auto &[vrf, key] : std::set<std::pair<std::string, std::string>>(routes_)) set_route(vrf, key);
}

}  // namespace host
