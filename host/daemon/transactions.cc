// The wanted configuration becomes the running one first; then what is gone is withdrawn, what the platform holds is
// built, and the VRFs' commands run through the module's handlers. A line that a handler refuses goes back to what it
// was, so that the running configuration never claims what the module does not do.
//
// The order within a change: customer routes before the MDTs that carry them; the other MDT commands before "no mdt
// default", which may free the VRF's settings; VRFs before interfaces; "mdt default", which makes a VRF's settings
// exist, before the other MDT commands.
#include "host/daemon/transactions.h"

#include <algorithm>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>

#include "host/config/config_edit.h"
#include "platform/ip.h"
#include "platform/reference/bgp.h"
#include "platform/reference/cli.h"
#include "platform/reference/croute.h"
#include "platform/reference/im.h"
#include "platform/reference/pim.h"
#include "platform/reference/runtime.h"

namespace host {
namespace {

bool same_numbers(const Block &a, const Block &b) {
  for (const Command command : {Command::context_id, Command::table_id})
    if (*a.value(command, "id") != *b.value(command, "id")) return false;
  return true;
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

bool is_route(const LineChange &change, const Line *line) {
  return change.block.mode == Mode::vrf && line != nullptr && line->statement.command == Command::mroute;
}

}  // namespace

std::vector<ConfigError> Transactions::start(Config config) {
  std::vector<ConfigError> refused;
  config.choose_numbers(nullptr);
  running_ = config;
  const std::vector<LineChange> changes = difference(Config(), config);  // stays as it is when lines are refused
  build(Config(), changes);
  if (!follow_feature(&refused)) throw std::runtime_error("the module does not start; see the log");
  ref::enable_interface_events(true);
  // What the handlers asked to be replayed has been: those requests are in the queue, and nobody listens to them yet.
  ref::post([this] { ref::set_cli_replay([this](const std::string &vrf) { parts_.vrfs.replay(vrf); }); });
  set_routes(changes);
  if (!parts_.offline) {
    parts_.links.follow(running_);
    parts_.forwarding.follow(running_);
  }
  ref::start_statistics();
  return refused;
}

Outcome Transactions::configure(const std::vector<Statement> &statements) {
  Config wanted = running_;
  BlockId block;
  if (const auto reason = enter_blocks(statements, &wanted, &block)) return {false, *reason + "\n"};
  const Statement &command = statements.back();
  if (command.enters) return outcome_of(change_to(std::move(wanted)));
  const bool to_module = command.command == Command::mdt;
  // The module judges its default groups itself.
  const bool judged = to_module && parts_.module.runs() && is_default_mdt(command);
  if (const std::string reason = wanted.refusal(block, command); !judged && !reason.empty())
    return {false, reason + "\n"};
  if (to_module) return configure_module(std::move(wanted), block, command);
  wanted.edit(block, command);
  Outcome outcome = outcome_of(change_to(std::move(wanted)));
  if (outcome.accepted && command.command == Command::clock_scale && parts_.platform.overrides_clock())
    outcome.text += "the clock keeps the scale of --clock-scale until the next start\n";
  return outcome;
}

// The blocks first, then the command, which becomes part of the configuration when the module has taken it.
Outcome Transactions::configure_module(Config wanted, const BlockId &block, const Statement &command) {
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
Outcome Transactions::run_command(const BlockId &block, const Statement &command) {
  if (!parts_.vrfs.is_there(block.name))
    return {false, "VRF " + block.name + " waits for a VRF that is being deleted\n"};
  Outcome outcome = parts_.module.run(block.name, command, command.no, true);
  if (outcome.accepted) running_.edit(block, command);
  return outcome;
}

std::vector<ConfigError> Transactions::replace(Config config) {
  const Config before = running_;
  std::vector<ConfigError> errors = change_to(std::move(config));
  if (errors.empty()) return errors;
  for (const ConfigError &error : change_to(before)) errors.push_back({0, "on the way back: " + error.reason});
  return errors;
}

std::vector<ConfigError> Transactions::change_to(Config wanted) {
  std::vector<ConfigError> errors = wanted.check();
  if (!errors.empty()) return errors;
  wanted.choose_numbers(&running_);
  const Config before = running_;
  running_ = wanted;
  const std::vector<LineChange> changes = difference(before, wanted);
  std::vector<Rejection> rejections;
  for (const auto &[id, block] : before.blocks()) {
    const Block *now = wanted.find(id);
    if (id.mode == Mode::vrf && (now == nullptr || !same_numbers(*block, *now))) parts_.vrfs.leave(id.name);
  }
  withdraw(changes, &rejections);
  build(before, changes);
  if (!follow_feature(&errors)) errors.push_back({0, "the module does not start; see the log"});
  if (!parts_.offline) parts_.forwarding.follow(running_);
  command_vrfs(changes, &rejections);
  if (!parts_.offline) parts_.links.follow(running_);
  for (const Rejection &rejection : rejections) {
    put_back(before, rejection, &running_);
    errors.push_back(error_of(rejection));
  }
  return errors;
}

// What is not wanted any more, before anything new is made.
void Transactions::withdraw(const std::vector<LineChange> &changes, std::vector<Rejection> *rejections) {
  for (const LineChange &change : changes)
    if (change.after == nullptr && is_route(change, change.before))
      ref::delete_customer_route(change.block.name, customer_route(change.before->statement).addrs);
  const auto undo = [&](const LineChange &change) {
    const Statement &statement = change.before->statement;
    const Outcome outcome = parts_.module.run(change.block.name, statement, !statement.no, true);
    if (!outcome.accepted) rejections->push_back({change, outcome.text});
  };
  const auto concerns_module = [this](const LineChange &change) {
    return change.before != nullptr && change.before->statement.command == Command::mdt &&
           parts_.vrfs.is_there(change.block.name);
  };
  for (auto at = changes.rbegin(); at != changes.rend(); ++at)
    if (concerns_module(*at) && at->after == nullptr && !is_default_mdt(at->before->statement)) undo(*at);
  // A default group is changed by removing it first.
  for (const LineChange &change : changes)
    if (concerns_module(change) && is_default_mdt(change.before->statement)) undo(change);
}

void Transactions::build(const Config &before, const std::vector<LineChange> &changes) {
  std::set<std::string> policies, vrfs, interfaces, distinguishers;
  bool update_source = false;
  for (const LineChange &change : changes) {
    const Statement &statement = statement_of(change);
    if (change.block.mode == Mode::global || change.block.mode == Mode::pim) parts_.platform.apply_global(change);
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
  for (const std::string &name : policies) parts_.platform.follow_policy(name);
  for (const std::string &name : vrfs) parts_.vrfs.follow(name);
  for (const std::string &name : interfaces) parts_.platform.follow_interface(name);
  for (const std::string &name : distinguishers) parts_.platform.follow_route_distinguisher(name);
  if (update_source) parts_.platform.follow_update_source();
}

// False: the module is wanted and does not start.
bool Transactions::follow_feature(std::vector<ConfigError> *refused) {
  const bool wanted = running_.feature_mvpn();
  ref::set_feature_configured(wanted);
  if (!wanted) {
    parts_.module.stop();
    ref::bgp_forget_local();
  }
  if (!wanted || parts_.module.runs()) return true;
  const bool again = parts_.module.started_before();
  if (!parts_.module.start()) return false;
  parts_.vrfs.replay_all(refused);
  // A module that was stopped knows the update source of then, and asks for none when it starts anew.
  if (again) parts_.platform.follow_update_source();
  return true;
}

// The commands of VRFs that exist. Those of a VRF that is still leaving run when it comes back.
void Transactions::command_vrfs(const std::vector<LineChange> &changes, std::vector<Rejection> *rejections) {
  std::vector<const LineChange *> commands;
  for (const LineChange &change : changes)
    if (change.block.mode == Mode::vrf && change.after != nullptr && parts_.vrfs.is_there(change.block.name) &&
        change.after->statement.command == Command::mdt)
      commands.push_back(&change);
  std::stable_sort(commands.begin(), commands.end(), [](const LineChange *a, const LineChange *b) {
    if (a->block.name != b->block.name) return a->block.name < b->block.name;
    return is_default_mdt(a->after->statement) && !is_default_mdt(b->after->statement);
  });
  for (const LineChange *change : commands) {
    const Statement &statement = change->after->statement;
    const Outcome outcome = parts_.module.run(change->block.name, statement, statement.no, true);
    if (outcome.accepted) continue;
    rejections->push_back({*change, outcome.text});
    // The former group was removed to make room for this one.
    if (is_default_mdt(statement) && change->before != nullptr)
      parts_.module.run(change->block.name, change->before->statement, false, true);
  }
  set_routes(changes);
}

void Transactions::set_routes(const std::vector<LineChange> &changes) {
  for (const LineChange &change : changes)
    if (is_route(change, change.after)) parts_.platform.set_route(change.block.name, change.after->statement.key);
}

}  // namespace host
