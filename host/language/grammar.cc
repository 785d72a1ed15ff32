// Matching. A position in a tree is the word that was matched last, together with the word whose options are being
// read, if any, and the options that were used. What may follow are the next words of the last word; when it has none,
// the options that are left. A line that reaches a word which enters a mode goes on at that mode's root.
#include "host/language/grammar.h"

#include <algorithm>

namespace host {
namespace {

struct Position {
  const std::vector<Word> *next = nullptr;
  const Word *last = nullptr;   // null at a root
  const Word *owner = nullptr;  // of the options being read
  std::vector<const Word *> used;
};

bool is_among(const std::vector<Word> &words, const Word *word) {
  return std::any_of(words.begin(), words.end(), [word](const Word &other) { return &other == word; });
}

std::vector<const Word *> followers(const Position &position) {
  std::vector<const Word *> all;
  for (const Word &word : *position.next) all.push_back(&word);
  if (position.owner == nullptr || (!position.next->empty() && position.last != position.owner)) return all;
  for (const Word &option : position.owner->options)
    if (option.repeats || std::find(position.used.begin(), position.used.end(), &option) == position.used.end())
      all.push_back(&option);
  return all;
}

void step(Position &position, const Word &word) {
  const bool option = position.owner != nullptr && is_among(position.owner->options, &word);
  const bool value_of_option =
      position.owner != nullptr && position.last != position.owner && is_among(position.last->next, &word);
  if (option)
    position.used.push_back(&word);
  else if (!value_of_option)
    position.owner = nullptr;
  position.last = &word;
  position.next = &word.next;
  if (word.options.empty()) return;
  position.owner = &word;
  position.used.clear();
}

// The word that decides whether a line may end at a position: an option that is complete ends where its owner does.
const Word *deciding_word(const Position &position) {
  if (position.last == nullptr) return nullptr;
  const bool option_complete = position.owner != nullptr && position.last != position.owner && position.next->empty();
  return option_complete ? position.owner : position.last;
}

bool may_end(const Position &position, bool no_form) {
  const Word *word = deciding_word(position);
  return word != nullptr && (word->ends == Ends::always || (word->ends == Ends::no_form && no_form));
}

std::string listed(const std::vector<const Word *> &words) {
  std::string text;
  for (size_t i = 0; i < words.size(); i++) {
    if (i > 0) text += i + 1 == words.size() ? " or " : ", ";
    text += words[i]->text;
  }
  return text.empty() ? "nothing" : text;
}

struct Found {
  const Word *word = nullptr;
  std::string value;   // written form
  std::string reason;  // when nothing was found
};

Found find_keyword(const std::vector<const Word *> &words, const std::string &typed, bool abbreviations) {
  Found found;
  std::vector<const Word *> cut;
  for (const Word *word : words) {
    if (word->kind != Word::Kind::keyword) continue;
    if (word->text == typed) return {word, typed, ""};
    if (abbreviations && !typed.empty() && word->text.starts_with(typed)) cut.push_back(word);
  }
  if (cut.size() == 1) return {cut.front(), cut.front()->text, ""};
  if (cut.size() > 1) found.reason = "is ambiguous: " + listed(cut);
  return found;
}

Found find_word(const std::vector<const Word *> &words, const std::string &typed, bool abbreviations) {
  Found found = find_keyword(words, typed, abbreviations);
  if (found.word != nullptr) return found;
  for (const Word *word : words) {
    if (word->kind != Word::Kind::argument) continue;
    std::string reason;
    if (auto value = check_value(word->type, word->range, typed, &reason)) return {word, *value, ""};
    found.reason = reason;
  }
  if (found.reason.empty())
    found.reason = words.empty() ? "is one word too many" : "is not known here; expected " + listed(words);
  return found;
}

bool takes_rest(const Word &word) { return word.kind == Word::Kind::argument && word.type == ValueType::text; }

// The rest of the line as one value; *at then stands at the line's last word.
Found read_rest(const Word &word, const std::vector<std::string> &words, size_t *at) {
  Found found;
  const std::vector<std::string> rest(words.begin() + static_cast<std::ptrdiff_t>(*at), words.end());
  const auto value = check_value(word.type, word.range, join_words(rest), &found.reason);
  if (!value) return found;
  *at = words.size() - 1;
  return {&word, *value, ""};
}

void record(Statement &statement, const Word &word, const std::string &value) {
  statement.text += (statement.text.empty() ? "" : " ") + value;
  if (!word.name.empty()) statement.arguments.push_back({word.name, word.kind == Word::Kind::argument ? value : ""});
  if (word.key) statement.key += " " + value;
}

void complete(Statement &statement, const Word &end) {
  statement.command = end.command;
  statement.action = end.action;
  statement.effect = end.effect;
  statement.slow = end.slow;
  statement.handler = end.handler;
  statement.on_by_default = end.on_by_default;
  statement.enters = end.enters;
  statement.key = std::to_string(static_cast<int>(end.command)) + end.handler + statement.key;
}

// Walks the words of one mode's part of a line. Returns how many it took; the caller goes on where a mode is entered.
struct Walk {
  Position position;
  Statement statement;
  std::optional<SyntaxError> error;
  size_t at = 0;
};

// The line with "no" where it belongs when it stands in front of a block's header instead of behind it; else empty.
std::string with_no_moved(const Walk &header, const std::vector<std::string> &words, bool abbreviations) {
  const Word *last = deciding_word(header.position);
  if (!header.statement.no || last == nullptr || !last->enters) return "";
  std::vector<std::string> rest(words.begin() + static_cast<std::ptrdiff_t>(header.at), words.end());
  rest.insert(rest.begin(), "no");
  return match_line(*last->enters, rest, abbreviations).error ? "" : header.statement.text + " " + join_words(rest);
}

Walk walk(Mode mode, const std::vector<std::string> &words, size_t begin, bool abbreviations) {
  Walk result;
  result.position.next = &root_of(mode);
  result.statement.mode = mode;
  result.at = begin;
  if (mode != Mode::exec && begin < words.size() && words[begin] == "no") {
    result.statement.no = true;
    result.at++;
  }
  for (; result.at < words.size(); result.at++) {
    Found found = find_word(followers(result.position), words[result.at], abbreviations);
    if (found.word != nullptr && takes_rest(*found.word)) found = read_rest(*found.word, words, &result.at);
    if (found.word == nullptr) {
      const Word *last = deciding_word(result.position);
      // Behind the header of a block the line goes on in the block's mode.
      if (last != nullptr && last->enters && !result.statement.no) break;
      const std::string moved = with_no_moved(result, words, abbreviations);
      result.error = moved.empty() ? SyntaxError{result.at, "'" + printable(words[result.at]) + "' " + found.reason}
                                   : SyntaxError{begin, "'no' stands in front of the block's line: " + moved};
      return result;
    }
    record(result.statement, *found.word, found.value);
    step(result.position, *found.word);
  }
  return result;
}

}  // namespace

const std::string *find_argument(const Statement &statement, std::string_view name) {
  for (const Argument &argument : statement.arguments)
    if (argument.name == name) return &argument.value;
  return nullptr;
}

std::string shown_text(const Statement &statement) {
  const std::string *secret = find_argument(statement, "secret");
  if (secret == nullptr) return statement.text;
  return statement.text.substr(0, statement.text.size() - secret->size()) + std::string(kHiddenPassword);
}

std::vector<std::string> split_words(std::string_view line) {
  std::vector<std::string> words;
  size_t at = 0;
  while ((at = line.find_first_not_of(" \t\r", at)) != std::string_view::npos) {
    const size_t end = std::min(line.find_first_of(" \t\r", at), line.size());
    words.emplace_back(line.substr(at, end - at));
    at = end;
  }
  return words;
}

std::string join_words(const std::vector<std::string> &words) {
  std::string line;
  for (const std::string &word : words) line += (line.empty() ? "" : " ") + word;
  return line;
}

Match match_line(Mode mode, const std::vector<std::string> &words, bool abbreviations) {
  Match match;
  size_t at = 0;
  for (;;) {
    Walk part = walk(mode, words, at, abbreviations);
    if (!part.error && !may_end(part.position, part.statement.no))
      part.error = SyntaxError{words.size(), "the line is incomplete; expected " + listed(followers(part.position))};
    if (part.error) {
      match.error = part.error;
      return match;
    }
    complete(part.statement, *deciding_word(part.position));
    match.statements.push_back(std::move(part.statement));
    at = part.at;
    if (at == words.size()) return match;
    mode = *match.statements.back().enters;
  }
}

std::vector<Candidate> candidates(Mode mode, const std::vector<std::string> &words) {
  size_t at = 0;
  for (;;) {
    const Walk part = walk(mode, words, at, true);
    if (part.error) return {};
    const Word *last = deciding_word(part.position);
    const bool enters = last != nullptr && last->enters.has_value();
    if (part.at == words.size()) {
      std::vector<Candidate> all;
      const auto add = [&all](const Word &word) {
        all.push_back({word.text, word.help, word.kind == Word::Kind::keyword, word.names});
      };
      for (const Word *word : followers(part.position)) add(*word);
      if (enters)
        for (const Word &word : root_of(*last->enters)) add(word);
      if (may_end(part.position, part.statement.no)) all.push_back({std::string(kEndOfLine), "end of the line", false});
      return all;
    }
    at = part.at;
    mode = *last->enters;
  }
}

namespace {

std::string option_syntax(const Word &option) {
  std::string text = option.text;
  for (size_t i = 0; i < option.next.size(); i++) text += (i == 0 ? " " : "|") + option.next[i].text;
  return "[" + text + "]" + (option.repeats ? "..." : "");
}

// about: help of the last keyword.
void add_syntax(const Word &word, std::string before, std::string about, std::vector<SyntaxLine> *lines) {
  before += (before.empty() ? "" : " ") + word.text;
  const bool is_keyword = word.kind == Word::Kind::keyword;
  if (is_keyword) about = word.help;
  if (word.ends == Ends::always || word.next.empty()) {
    std::string line = before;
    for (const Word &option : word.options) line += " " + option_syntax(option);
    lines->push_back({line, is_keyword ? about : about + ". " + word.help});
  }
  for (const Word &next : word.next) add_syntax(next, before, about, lines);
}

}  // namespace

std::vector<SyntaxLine> syntax_of(Mode mode) {
  std::vector<SyntaxLine> lines;
  for (const Word &word : root_of(mode)) add_syntax(word, "", "", &lines);
  return lines;
}

namespace {

void add_handlers(const Word &word, std::set<std::string> *names) {
  if (!word.handler.empty()) names->insert(word.handler);
  for (const auto *behind : {&word.next, &word.options})
    for (const Word &next : *behind) add_handlers(next, names);
}

}  // namespace

std::set<std::string> handlers_of_lines() {
  std::set<std::string> names;
  for (int mode = 0; mode <= static_cast<int>(kLastMode); mode++)
    for (const Word &word : root_of(static_cast<Mode>(mode))) add_handlers(word, &names);
  return names;
}

}  // namespace host
