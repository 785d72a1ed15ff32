// Orders and refusals as plain functions on lines of the configuration: nothing here calls the module. "mdt default" is
// told by the handler that it goes to, as every command of the module is.
#include "host/daemon/vrf_commands.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace host {
namespace {

constexpr std::string_view kDefaultHandler = "mdt_default_cmd";

}  // namespace

bool is_default_mdt(const Statement &statement) { return statement.handler == kDefaultHandler; }

std::vector<const Line *> mdt_lines(const Block &vrf) {
  std::vector<const Line *> lines;
  for (const auto &[place, line] : vrf.lines())
    if (line.statement.command == Command::mdt) lines.push_back(&line);
  std::stable_partition(lines.begin(), lines.end(), [](const Line *line) { return is_default_mdt(line->statement); });
  return lines;
}

ConfigError error_of(const Rejection &rejection) {
  const LineChange &change = rejection.change;
  const Statement &statement = statement_of(change);
  const bool removed = change.after == nullptr;
  std::string reason =
      "VRF " + change.block.name + ": " + (removed != statement.no ? "no " : "") + statement.text + ": ";
  reason += rejection.text.substr(0, rejection.text.find_last_not_of('\n') + 1);
  return {removed ? 0 : change.after->number, std::move(reason)};
}

void put_back(const Config &before, const Rejection &rejection, Config *running) {
  const BlockId &id = rejection.change.block;
  const Statement &statement = statement_of(rejection.change);
  Statement reverse = statement;
  const Block *block = before.find(id);
  const Line *former = block == nullptr ? nullptr : block->find_key(statement.key);
  if (former != nullptr)
    reverse = former->statement;
  else
    reverse.no = !statement.no;
  if (running->find(id) != nullptr) running->edit(id, reverse, former != nullptr ? former->number : 0);
}

}  // namespace host
