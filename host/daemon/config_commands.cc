#include "host/daemon/config_commands.h"

#include "host/daemon/config_work.h"

namespace host {
namespace {

std::optional<uint64_t> number_in(const Statement &statement, const char *name) {
  const std::string *value = find_argument(statement, name);
  return value == nullptr ? std::nullopt : std::optional(number_value(*value));
}

}  // namespace

Outcome work_on_config(const CommandLine &line, ConfigWork &work) {
  const Statement &statement = line.match.statements.front();
  const std::vector<Statement> rest(line.match.statements.begin() + 1, line.match.statements.end());
  const ConfigWork::Asker asker{line.by, line.client};
  const bool force = find_argument(statement, "force") != nullptr;
  switch (statement.command) {
    case Command::configure:
      if (rest.empty()) return {false, "what is to be configured? configure COMMAND\n"};
      return work.configure(asker, rest);
    case Command::configure_exclusive:
      return rest.empty() ? work.take(asker) : work.edit(asker, rest);
    case Command::commit: {
      const auto minutes = number_in(statement, "minutes");
      return work.commit(asker, minutes ? std::optional(std::chrono::minutes(*minutes)) : std::nullopt);
    }
    case Command::rollback:
      return work.rollback(asker, number_in(statement, "steps"));
    case Command::abort:
      return work.abort(asker, force);
    default:
      return work.write(asker, force);
  }
}

void try_config_file(const CommandLine &line, const Process &process, const std::shared_ptr<OutputChannel> &channel) {
  const Statement &statement = line.match.statements.front();
  const Process::Done done = [line, channel](bool passed, const std::string &text) {
    passed ? finish(line, text, *channel) : refuse(line, kStatusFailed, text, *channel);
  };
  if (statement.command == Command::reload) return process.reload(line.by, done);
  process.check(find_argument(statement, "strict") != nullptr, done);
}

}  // namespace host
