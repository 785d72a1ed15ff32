// Completion and help ask the session what may stand at the cursor. Completion fills in what the candidates that begin
// with the typed part have in common, and lists them when that adds nothing. The history is written after each line, so
// that a session that is killed loses none: the line is added to what the file holds then, and the file replaced as a
// whole, so that several sessions keep each other's lines.
#include "host/client/line_editor.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace host {
namespace {

constexpr int kHistoryLines = 1000;  // written whole after each line, so it stays short
constexpr char kLiteral = 1;         // around the parts of a prompt that take no room

struct Typed {
  std::vector<std::string> words;  // complete ones
  std::string part;                // of the word at the cursor
};

Typed typed_before_cursor(EditLine *editor) {
  const LineInfo *line = el_line(editor);
  const std::string_view text(line->buffer, static_cast<size_t>(line->cursor - line->buffer));
  Typed typed{split_words(text), ""};
  if (!text.empty() && text.back() != ' ' && text.back() != '\t') {
    typed.part = typed.words.back();
    typed.words.pop_back();
  }
  return typed;
}

// Keywords that begin with the typed part; what is no keyword may be anything.
std::vector<Candidate> fitting(const std::vector<Candidate> &all, const std::string &part) {
  std::vector<Candidate> fit;
  for (const Candidate &candidate : all)
    if (candidate.is_keyword ? candidate.text.starts_with(part) : part.empty() || candidate.text != kEndOfLine)
      fit.push_back(candidate);
  return fit;
}

std::string common_beginning(const std::vector<Candidate> &words) {
  std::string common = words.front().text;
  for (const Candidate &word : words) {
    const auto differs = std::mismatch(common.begin(), common.end(), word.text.begin(), word.text.end());
    common.erase(differs.first, common.end());
  }
  return common;
}

void list(const std::vector<Candidate> &words) {
  size_t width = 0;
  for (const Candidate &word : words) width = std::max(width, word.text.size());
  std::fputc('\n', stdout);
  if (words.empty()) std::fputs("  nothing is known here\n", stdout);
  for (const Candidate &word : words)
    std::fprintf(stdout, "  %-*s  %s\n", static_cast<int>(width), word.text.c_str(), word.help.c_str());
  std::fflush(stdout);
}

// Keeps other sessions out of a folder's files while it lives. Without it they may lose a line to each other.
class FolderLock {
 public:
  explicit FolderLock(const std::filesystem::path &folder)
      : descriptor_(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (descriptor_ >= 0) flock(descriptor_, LOCK_EX);
  }
  ~FolderLock() {
    if (descriptor_ >= 0) close(descriptor_);
  }
  FolderLock(const FolderLock &) = delete;
  FolderLock &operator=(const FolderLock &) = delete;

 private:
  int descriptor_;
};

LineEditor *editor_of(EditLine *editor) {
  void *data = nullptr;
  el_get(editor, EL_CLIENTDATA, &data);
  return static_cast<LineEditor *>(data);
}

}  // namespace

// The lines of a file, the latest ones when there are more than are kept; of no file when the name is empty.
LineEditor::HistoryPointer LineEditor::read_history(const std::string &file) {
  HistoryPointer lines(history_init());
  if (!lines) return lines;
  HistEvent event;
  history(lines.get(), &event, H_SETSIZE, kHistoryLines);
  history(lines.get(), &event, H_SETUNIQUE, 1);
  if (!file.empty()) history(lines.get(), &event, H_LOAD, file.c_str());
  return lines;
}

LineEditor::LineEditor(Session &session, std::string history_file)
    : session_(session),
      history_file_(std::move(history_file)),
      history_(read_history(history_file_)),
      editor_(el_init("pimctl", stdin, stdout, stderr)) {
  if (!history_ || !editor_) throw std::runtime_error("the terminal cannot be used");
  EditLine *editor = editor_.get();
  el_set(editor, EL_CLIENTDATA, this);
  el_set(editor, EL_PROMPT_ESC, prompt, kLiteral);
  el_set(editor, EL_EDITOR, "emacs");
  el_set(editor, EL_HIST, history, history_.get());
  el_set(editor, EL_ADDFN, "complete-word", "Completes the word", complete);
  el_set(editor, EL_ADDFN, "list-words", "Lists what may stand here", help);
  el_set(editor, EL_ADDFN, "drop-line", "Drops the line", drop_line);
  el_set(editor, EL_ADDFN, "suspend", "Suspends the session", suspend);
  el_source(editor, nullptr);  // the operator's own bindings; the keys below are ours
  el_set(editor, EL_BIND, "^I", "complete-word", nullptr);
  el_set(editor, EL_BIND, "?", "list-words", nullptr);
  el_set(editor, EL_BIND, "^R", "em-inc-search-prev", nullptr);
  // While a line is read Ctrl-C is a key and no signal, which would end the session; so is Ctrl-Z then.
  el_set(editor, EL_SETTY, "-d", "-isig", nullptr);
  el_set(editor, EL_BIND, "^C", "drop-line", nullptr);
  el_set(editor, EL_BIND, "^Z", "suspend", nullptr);
  el_set(editor, EL_SIGNAL, 1);
}

std::optional<std::string> LineEditor::read() {
  const std::string text = session_.prompt();
  const std::string mark(1, kLiteral);
  // The editor writes such parts together with the character behind them: the end of the colour stands before the
  // blank.
  const std::string last = text.substr(text.size() - 1);
  prompt_ = in_colour(STDOUT_FILENO)
                ? mark + "\033[1m" + mark + text.substr(0, text.size() - 1) + mark + "\033[0m" + mark + last
                : text;
  // Before the prompt is seen: what is typed at once is the editor's already, and not echoed by the terminal as well.
  el_set(editor_.get(), EL_PREP_TERM, 1);
  int size = 0;
  interrupted_ = false;
  const char *line = el_gets(editor_.get(), &size);
  if (interrupted_) return "";
  if (line == nullptr || size <= 0) return std::nullopt;
  remember(line);
  std::string read(line, static_cast<size_t>(size));
  while (!read.empty() && (read.back() == '\n' || read.back() == '\r')) read.pop_back();
  return read;
}

void LineEditor::remember(const char *line) {
  if (split_words(std::string_view(line).substr(0, std::string_view(line).find('\n'))).empty() ||
      session_.is_secret(line))
    return;
  HistEvent event;
  history(history_.get(), &event, H_ENTER, line);
  if (history_file_.empty()) return;
  const FolderLock lock(std::filesystem::path(history_file_).parent_path());
  const HistoryPointer kept = read_history(history_file_);
  const std::string written = history_file_ + ".new";
  if (!kept || history(kept.get(), &event, H_ENTER, line) < 0) return;
  if (history(kept.get(), &event, H_SAVE, written.c_str()) >= 0) std::rename(written.c_str(), history_file_.c_str());
}

char *LineEditor::prompt(EditLine *editor) { return editor_of(editor)->prompt_.data(); }

unsigned char LineEditor::complete(EditLine *editor, int) {
  const Typed typed = typed_before_cursor(editor);
  const std::vector<Candidate> fit = fitting(editor_of(editor)->session_.next(typed.words), typed.part);
  std::vector<Candidate> words;
  std::copy_if(fit.begin(), fit.end(), std::back_inserter(words),
               [](const Candidate &word) { return word.is_keyword; });
  if (fit.empty()) return CC_ERROR;
  const bool only = fit.size() == 1 && words.size() == 1;
  std::string added = words.empty() ? "" : common_beginning(words).substr(typed.part.size());
  if (words.size() < fit.size() && typed.part.empty()) added.clear();  // an argument or the end may be meant
  if (only || (words.size() == 1 && !typed.part.empty())) added += " ";
  if (added.empty()) {
    list(fit);
    return CC_REDISPLAY;
  }
  return el_insertstr(editor, added.c_str()) == 0 ? CC_REFRESH : CC_ERROR;
}

unsigned char LineEditor::help(EditLine *editor, int) {
  const Typed typed = typed_before_cursor(editor);
  list(fitting(editor_of(editor)->session_.next(typed.words), typed.part));
  return CC_REDISPLAY;
}

unsigned char LineEditor::drop_line(EditLine *editor, int) {
  const LineInfo *line = el_line(editor);
  el_cursor(editor, static_cast<int>(line->lastchar - line->cursor));
  el_deletestr(editor, static_cast<int>(line->lastchar - line->buffer));
  std::fputs("^C\n", stdout);
  std::fflush(stdout);
  editor_of(editor)->interrupted_ = true;
  return CC_NEWLINE;
}

unsigned char LineEditor::suspend(EditLine *, int) {
  kill(0, SIGTSTP);  // the editor gives the terminal back and takes it again
  return CC_REFRESH;
}

std::string history_path() {
  const char *state = std::getenv("XDG_STATE_HOME");
  const char *home = std::getenv("HOME");
  std::filesystem::path folder;
  if (state != nullptr && *state == '/')
    folder = state;
  else if (home != nullptr && *home == '/')
    folder = std::filesystem::path(home) / ".local/state";
  else
    return "";
  std::error_code error;
  std::filesystem::create_directories(folder / "pimctl", error);
  return error ? "" : (folder / "pimctl/history").string();
}

}  // namespace host
