// A line is read here before it goes to the daemon: a mistake is pointed out in the line as it was typed, without the
// headers that the daemon gets in front of it. The connection is opened with the first command and again after it was
// closed, be it by the daemon's end or by an operator who quit a listing.
#include "host/client/session.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

#include "host/client/answer.h"
#include "host/client/interrupt.h"
#include "host/client/pager.h"

namespace host {
namespace {

constexpr const char *kHelp =
    "Tab completes a word, ? lists what may stand at the cursor. Words may be cut while they stay unambiguous.\n"
    "\n"
    "  show ...              what there is; behind it | include PATTERN, exclude, begin, section, count, json, xml\n"
    "  monitor               changes as they happen, until Ctrl-C\n"
    "  configure             opens the configuration; a block's header opens the block, no LINE takes a line away\n"
    "  configure exclusive   others wait; lines take effect with commit, or commit confirmed MINUTES; abort drops "
    "them\n"
    "  rollback, write       what ran before; what runs becomes the file\n"
    "  exit, end, quit       leave a block, the configuration, the session\n"
    "  do COMMAND            a command that is not of the configuration\n"
    "  terminal length ROWS  rows of a page; 0: no pages. $PAGER, when it is set, shows the pages\n";

bool is_word_of(Mode mode, const std::string &word) { return !candidates(mode, {word}).empty(); }

bool abbreviates(const std::string &word, std::string_view full) { return word.size() > 1 && full.starts_with(word); }

}  // namespace

bool in_colour(int descriptor) {
  const char *terminal = std::getenv("TERM");
  return isatty(descriptor) != 0 && std::getenv("NO_COLOR") == nullptr && terminal != nullptr &&
         std::string_view(terminal) != "dumb";
}

void print_error(std::string_view text) {
  const bool colour = in_colour(STDERR_FILENO);
  if (colour) std::fputs("\033[31m", stderr);
  std::fwrite(text.data(), 1, text.size(), stderr);
  if (colour) std::fputs("\033[0m", stderr);
}

uint32_t tell_lost(const std::exception &error, const Statement *first) {
  print_error(std::string("pimctl: ") + error.what() + "\n");
  if (dynamic_cast<const LineTooLong *>(&error) != nullptr) return kStatusSyntax;
  if (dynamic_cast<const NoAnswer *>(&error) == nullptr) return kStatusUnreachable;
  print_error(note_of_abandoned(first));
  return kStatusNoAnswer;
}

Session::Session(std::string path, OutputFormat format, Paging paging, ControlClient::Timeout timeout)
    : path_(std::move(path)), format_(format), paging_(std::move(paging)), timeout_(timeout), names_(path_) {}

// The daemon closes a connection that is idle for long.
ControlClient &Session::connected(std::unique_ptr<ControlClient> &client) {
  if (client && !client->open()) client.reset();
  if (!client) client = std::make_unique<ControlClient>(path_, timeout_);
  return *client;
}

// A line whose first word the block does not know belongs to the modes around it, as in a configuration file, and one
// that is no line of the configuration is a command.
Session::Target Session::target_of(const std::vector<std::string> &words) const {
  if (mode_ == Mode::exec || words.empty()) return {mode_, before_, words};
  if (words.front() == "do") return {Mode::exec, "", {words.begin() + 1, words.end()}};
  const std::string &first = words.front() == "no" && words.size() > 1 ? words[1] : words.front();
  if (mode_ != Mode::global && first != "no" && !is_word_of(mode_, first) && is_word_of(Mode::global, first))
    return {Mode::global, root_, words};
  if (first == words.front() && !is_word_of(mode_, first) && is_word_of(Mode::exec, first))
    return {Mode::exec, "", words};
  return {mode_, before_, words};
}

// A comment at the start of a line stands between blocks, in files and in what the daemon prints as its configuration.
void Session::leave_block() {
  if (mode_ == Mode::exec || mode_ == Mode::global) return;
  mode_ = Mode::global;
  before_ = root_;
}

// Others wait while this session holds the configuration.
void Session::leave_configuration() {
  if (exclusive() && client_ && client_->open()) run("abort");
  root_ = kConfigure;
  mode_ = Mode::exec;
  before_.clear();
}

// `exit`, `quit` and `end`.
bool Session::moves(const std::vector<std::string> &words) {
  if (words.size() != 1) return false;
  const bool exits = abbreviates(words.front(), "exit") || abbreviates(words.front(), "quit");
  if (!exits && (mode_ == Mode::exec || !abbreviates(words.front(), "end"))) return false;
  ended_ = exits && mode_ == Mode::exec;
  if (exits && mode_ != Mode::exec && mode_ != Mode::global) {
    leave_block();
    return true;
  }
  leave_configuration();
  return true;
}

// `help` and `terminal length ROWS`, which are the client's own.
std::optional<uint32_t> Session::run_here(const std::vector<std::string> &words) {
  if (words.size() == 1 && abbreviates(words.front(), "help")) {
    write_output(kHelp);
    return kStatusDone;
  }
  if (!abbreviates(words.front(), "terminal")) return std::nullopt;
  std::string reason;
  const bool shaped = words.size() == 3 && abbreviates(words[1], "length");
  const auto rows = shaped ? check_value(ValueType::number, {0, 10000}, words[2], &reason) : std::nullopt;
  if (!rows) {
    print_error("expected terminal length <0-10000>, 0 for no pages\n");
    return kStatusSyntax;
  }
  paging_.rows = static_cast<size_t>(number_value(*rows));
  return kStatusDone;
}

bool Session::is_secret(std::string_view text) const {
  const std::vector<std::string> words = split_words(text);
  const auto is_password = [](const std::string &word) {
    return word.size() > 3 && std::string_view("password").starts_with(word);
  };
  const auto password = std::ranges::find_if(words, is_password);
  return password != words.end() && password + 1 != words.end();
}

uint32_t Session::run(std::string_view text) {
  const std::vector<std::string> words = split_pipeline(text);
  if (text.starts_with('!')) leave_block();
  if (words.empty() || words.front().starts_with("!") || moves(words)) return kStatusDone;
  if (const auto status = run_here(words)) return *status;
  const Pipeline line = read_pipeline(words);
  const Target target = target_of(line.command);
  const Match match = match_line(target.mode, target.words, true);
  const OutputFormat format = format_of(line, match, format_);
  if (match.error || line.error) {
    SyntaxError error = match.error ? *match.error : *line.error;
    if (match.error) error.word += line.command.size() - target.words.size();  // behind "do"
    print_error(point_out(words, error) + error.reason + "\n");
    return Answer(format).end(kStatusSyntax, error.reason);
  }
  const Statement &statement = match.statements.front();
  uint32_t status = kStatusDone;
  if (statement.action != kConfigureAction || match.statements.size() > 1) {
    std::vector<std::string> command = target.words;
    command.insert(command.end(), words.begin() + static_cast<std::ptrdiff_t>(line.command.size()), words.end());
    status = send(target.before + (target.before.empty() ? "" : " ") + join_words(command), statement, format,
                  !line.filters.no_more && statement.effect != Effect::stream);
    if (!only_looks(statement)) names_.forget();
  }
  if (status != kStatusDone) return status;
  enter(target, match);
  if (statement.action == kAbortAction && exclusive()) {
    root_ = kConfigure;
    moves({"end"});
  }
  return status;
}

// The mode that a line leaves the session in.
void Session::enter(const Target &target, const Match &match) {
  for (const Statement &statement : match.statements)
    if (statement.command == Command::hostname) hostname_.clear();
  if (target.mode != Mode::exec) {
    mode_ = target.mode;
    before_ = target.before;
  }
  const Statement &last = match.statements.back();
  if (!last.enters || last.no) return;
  std::string before = target.before;
  for (const Statement &statement : match.statements) {
    before += (before.empty() ? "" : " ") + (statement.action == kConfigureAction ? kConfigure : statement.text);
    if (statement.enters == Mode::global) root_ = before;
  }
  mode_ = *last.enters;
  before_ = std::move(before);
}

uint32_t Session::send(std::string_view line, const Statement &first, OutputFormat format, bool paging) {
  std::unique_ptr<ControlClient> &client = only_looks(first) ? connection_for_looking() : client_;
  const InterruptGuard guard;
  Pager pager(paging ? paging_ : Paging(), InterruptGuard::flag());
  Answer answer(format);
  bool quit = false;
  try {
    ControlClient &daemon = connected(client);
    daemon.complete_when(answer.is_document() ? InterruptGuard::interrupted : nullptr);
    const uint32_t status = daemon.execute(format_, line, first.slow, [&](FrameType type, std::string_view part) {
      answer.note(type, part);
      if (type == FrameType::error)
        print_error(part);
      else
        quit = !pager.show(part);
      return !quit && (answer.is_document() || !InterruptGuard::interrupted());
    });
    if (quit || InterruptGuard::interrupted()) client.reset();
    return write_error() == 0 ? answer.end(status) : kStatusFailed;
  } catch (const std::runtime_error &error) {
    client.reset();
    if (!InterruptGuard::interrupted()) return answer.end(tell_lost(error, &first), error.what());
    print_error(note_of_abandoned(&first));
    return kStatusFailed;
  }
}

void Session::read_hostname() {
  std::string answer;
  try {
    answer = connected(connection_for_looking()).text_of("show running-config | include hostname");
  } catch (const std::runtime_error &) {
    connection_for_looking().reset();  // the next command says why
  }
  const std::vector<std::string> words = split_words(answer.substr(0, answer.find('\n')));
  hostname_ = words.size() == 2 && words.front() == "hostname" ? words.back() : "pimhostd";
}

std::string Session::prompt() {
  if (hostname_.empty()) read_hostname();
  if (mode_ == Mode::exec) return hostname_ + "> ";
  std::string where = "config";
  const std::vector<std::string> words = split_words(before_);
  for (size_t i = 1; i < words.size(); i++) where += "-" + words[i];
  return hostname_ + "(" + where + ")# ";
}

// Behind each argument that names something, what there is of it.
void Session::add_names(std::vector<Candidate> *all) {
  for (size_t i = 0; i < all->size(); i++) {
    const Candidate argument = (*all)[i];
    if (argument.names == NameKind::none) continue;
    for (const std::string &name : names_.of(argument.names))
      all->insert(all->begin() + static_cast<std::ptrdiff_t>(++i), {name, argument.help, true});
  }
}

std::vector<Candidate> Session::next(const std::vector<std::string> &words) {
  const Pipeline line = read_pipeline(split_pipeline(join_words(words)));
  if (line.filtered) return filter_candidates(words);
  if (words.empty()) {
    std::vector<Candidate> all = candidates(mode_, words);
    if (mode_ != Mode::exec) {
      all.push_back({"no", "Undoes a line", true});
      all.push_back({"do", "Runs a command that is not of the configuration", true});
      all.push_back({"end", "Leaves the configuration", true});
      for (const char *word : {"commit", "rollback", "abort", "write", "show"})
        for (const Candidate &command : candidates(Mode::exec, {}))
          if (command.text == word) all.push_back(command);
    }
    all.push_back({"help", "How a session is used", true});
    all.push_back({"terminal", "length ROWS: rows of a page, 0 for none", true});
    all.push_back({"exit", mode_ == Mode::exec ? "Ends the session" : "Leaves this mode", true});
    return all;
  }
  const Target target = target_of(words);
  std::vector<Candidate> all = candidates(target.mode, target.words);
  add_names(&all);
  const Match match = match_line(target.mode, target.words, true);
  if (!match.error && is_view(match.statements.back())) all.push_back({"|", "Filters the output", true});
  return all;
}

}  // namespace host
