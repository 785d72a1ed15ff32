// Takes the commands' arguments out of their lines; what they mean is ConfigWork's business. Those that read a file are
// the daemon's. Where another process tries a configuration first, the answer comes when it has.
#include "host/daemon/config_commands.h"

#include <chrono>
#include <optional>

#include "host/daemon/config_work.h"

namespace host {
namespace {

std::optional<uint64_t> number_in(const Statement &statement, const char *name) {
  const std::string *value = find_argument(statement, name);
  return value == nullptr ? std::nullopt : std::optional(number_value(*value));
}

ConfigWork::Asker asker_of(const OperationInput &input) { return {input.line.by, input.line.client}; }

// What stands behind the command.
std::vector<Statement> rest_of(const OperationInput &input) {
  return {input.line.match.statements.begin() + 1, input.line.match.statements.end()};
}

bool is_forced(const OperationInput &input) { return find_argument(input.statement, "force") != nullptr; }

// The end of a change that was tried first.
ConfigWork::Done end_of(const OperationInput &input, const std::shared_ptr<OutputChannel> &channel) {
  return [&events = input.process.events, line = input.line, channel](const Outcome &outcome) {
    if (!outcome.accepted) return refuse(line, kStatusFailed, outcome.text, *channel);
    events.publish({.what = CommandChange{shown_text(line.match.statements.front())}});
    finish(line, outcome.text, *channel);
  };
}

Process::Done answer_to(const CommandLine &line, const std::shared_ptr<OutputChannel> &channel) {
  return [line, channel](bool passed, const std::string &text) {
    passed ? finish(line, text, *channel) : refuse(line, kStatusFailed, text, *channel);
  };
}

}  // namespace

Outcome configure(const OperationInput &input) {
  const std::vector<Statement> rest = rest_of(input);
  if (rest.empty()) return {false, "what is to be configured? configure COMMAND\n"};
  return input.process.work->configure(asker_of(input), rest);
}

Outcome configure_exclusive(const OperationInput &input) {
  const std::vector<Statement> rest = rest_of(input);
  ConfigWork &work = *input.process.work;
  return rest.empty() ? work.take(asker_of(input)) : work.edit(asker_of(input), rest);
}

Outcome abort_candidate(const OperationInput &input) {
  return input.process.work->abort(asker_of(input), is_forced(input));
}

Outcome write_config(const OperationInput &input) {
  return input.process.work->write(asker_of(input), is_forced(input));
}

void commit(const OperationInput &input, const std::shared_ptr<OutputChannel> &channel) {
  const auto minutes = number_in(input.statement, "minutes");
  input.process.work->commit(asker_of(input), minutes ? std::optional(std::chrono::minutes(*minutes)) : std::nullopt,
                             end_of(input, channel));
}

void rollback(const OperationInput &input, const std::shared_ptr<OutputChannel> &channel) {
  input.process.work->rollback(asker_of(input), number_in(input.statement, "steps"), end_of(input, channel));
}

void reload_config(const OperationInput &input, const std::shared_ptr<OutputChannel> &channel) {
  input.process.reload(input.line.by, answer_to(input.line, channel));
}

void check_config(const OperationInput &input, const std::shared_ptr<OutputChannel> &channel) {
  input.process.check(find_argument(input.statement, "strict") != nullptr, answer_to(input.line, channel));
}

}  // namespace host
