// Differences in two forms: lines with a sign, to be read, and commands, to be entered again. Both come from
// difference(); headers of blocks are added here, since a block may come or go without a line in it.
#include "host/config/config_diff.h"

#include <map>

namespace host {
namespace {

using BlockLines = std::map<BlockId, std::vector<std::string>>;

std::string line_text(const Line &line) { return (line.statement.no ? "no " : "") + shown_text(line.statement); }

bool has(const Config &config, const BlockId &id) {
  const Block *block = config.find(id);
  return block != nullptr && !is_void(id, *block);
}

// Headers of the blocks that `config` has and `other` has not, each with a sign in front.
void add_headers(const Config &config, const Config &other, const std::string &sign, BlockLines *blocks) {
  for (const auto &[id, block] : config.blocks())
    if (const std::string header = header_of(id); !header.empty() && has(config, id) && !has(other, id))
      (*blocks)[id].push_back(sign + header);
}

const Line *line_in(const Config &config, const BlockId &id, const std::string &key) {
  const Block *block = config.find(id);
  return block == nullptr ? nullptr : block->find_key(key);
}

bool same(const Line *a, const Line *b) {
  if (a == nullptr || b == nullptr) return a == b;
  return a->statement.text == b->statement.text && a->statement.no == b->statement.no;
}

bool of_no_file(const Line *line) { return line == nullptr || line->number == 0; }

// Numbers that the daemon chose for a VRF come and go with it; nobody entered them.
bool is_chosen(const LineChange &change) {
  const Command command = statement_of(change).command;
  const bool number = command == Command::context_id || command == Command::table_id;
  return number && of_no_file(change.before) && of_no_file(change.after);
}

// What has to be entered for a change of a line.
std::string command_for(const LineChange &change) {
  const Statement &statement = statement_of(change);
  const bool removed = change.after == nullptr;
  const std::string header = header_of(change.block);
  return header + (header.empty() ? "" : " ") + (removed != statement.no ? "no " : "") + shown_text(statement);
}

}  // namespace

std::vector<std::string> difference_text(const Config &before, const Config &after) {
  BlockLines blocks;
  add_headers(before, after, "-", &blocks);
  add_headers(after, before, "+", &blocks);
  for (const LineChange &change : difference(before, after)) {
    std::vector<std::string> &lines = blocks[change.block];
    const std::string header = header_of(change.block);
    if (lines.empty() && !header.empty()) lines.push_back(" " + header);
    const std::string indent = header.empty() ? "" : "  ";
    if (change.before != nullptr) lines.push_back("-" + indent + line_text(*change.before));
    if (change.after != nullptr) lines.push_back("+" + indent + line_text(*change.after));
  }
  std::vector<std::string> text;
  for (const auto &[id, lines] : blocks) text.insert(text.end(), lines.begin(), lines.end());
  return text;
}

std::vector<std::string> lost_changes(const Config &loaded, const Config &running, Config wanted) {
  wanted.choose_numbers(&running);
  BlockLines lost;
  const auto header_alone = [&](const Config &config, const Config &other, const std::string &no) {
    for (const auto &[id, block] : config.blocks())
      if (has(config, id) && !has(other, id) && has(wanted, id) == has(loaded, id) && !header_of(id).empty())
        lost[id].push_back(no + header_of(id));
  };
  header_alone(running, loaded, "");
  header_alone(loaded, running, "no ");
  for (const LineChange &change : difference(loaded, running)) {
    const bool with_block = change.after == nullptr && !has(running, change.block);
    if (with_block || is_chosen(change)) continue;
    if (same(line_in(wanted, change.block, statement_of(change).key), change.after)) continue;
    lost[change.block].push_back(command_for(change));
  }
  std::vector<std::string> text;
  for (const auto &[id, lines] : lost) text.insert(text.end(), lines.begin(), lines.end());
  return text;
}

}  // namespace host
