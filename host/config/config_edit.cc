// Edits a copy and nothing else: what cannot be done leaves it half edited, so callers edit a copy that they drop then.
#include "host/config/config_edit.h"

namespace host {

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

std::string edit_config(const std::vector<Statement> &statements, Config *wanted) {
  BlockId block;
  if (const auto reason = enter_blocks(statements, wanted, &block)) return *reason;
  const Statement &command = statements.back();
  if (command.enters) return "";
  if (std::string reason = wanted->refusal(block, command); !reason.empty()) return reason;
  wanted->edit(block, command);
  return "";
}

}  // namespace host
