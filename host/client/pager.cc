// Rows are counted as the terminal shows them: a line that is wider than the terminal takes several. The question is
// asked before the first row that does not fit, so a listing that fills a page exactly ends without one.
#include "host/client/pager.h"

#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace host {
namespace {

// The terminal hands over single keys, unechoed, and Ctrl-C as a key.
class SingleKeys {
 public:
  SingleKeys() : known_(tcgetattr(STDIN_FILENO, &former_) == 0) {
    if (!known_) return;
    termios raw = former_;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ISIG);
    raw.c_cc[VMIN] = 1;
    raw.c_cc[VTIME] = 0;
    tcsetattr(STDIN_FILENO, TCSANOW, &raw);
  }
  ~SingleKeys() {
    if (known_) tcsetattr(STDIN_FILENO, TCSANOW, &former_);
  }
  SingleKeys(const SingleKeys &) = delete;
  SingleKeys &operator=(const SingleKeys &) = delete;

  // 'q' when there is none to come.
  char read_key() const {
    char key = 'q';
    return known_ && read(STDIN_FILENO, &key, 1) == 1 ? key : 'q';
  }

 private:
  termios former_{};
  bool known_;
};

constexpr char kInterrupt = 3;  // Ctrl-C
constexpr char kEnd = 4;        // Ctrl-D

bool goes_on(char key) { return key == ' ' || key == '\r' || key == '\n'; }
bool quits(char key) { return key == 'q' || key == 'Q' || key == kInterrupt || key == kEnd; }

int first_write_error = 0;

}  // namespace

bool write_output(std::string_view text) {
  errno = 0;
  const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
  if (!written && first_write_error == 0) first_write_error = errno != 0 ? errno : EIO;
  return written;
}

int write_error() { return first_write_error; }

Pager::Pager(const Paging &paging, const volatile sig_atomic_t &interrupted)
    : paging_(paging), interrupted_(interrupted) {
  if (paging.wanted()) measure();
  left_ = page_;
}

Pager::~Pager() {
  if (program_ != nullptr) pclose(program_);
}

// The terminal may have changed its size since the last page.
void Pager::measure() {
  winsize size{};
  if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) return;
  if (size.ws_col > 0) columns_ = size.ws_col;
  if (size.ws_row > 1) page_ = size.ws_row - 1u;
  if (paging_.rows.value_or(0) > 1) page_ = *paging_.rows - 1;
}

// The program begins with the first output: a command that says nothing needs none. What fits on a page it should not
// stop at.
bool Pager::show_in_program(std::string_view text) {
  if (program_ == nullptr) {
    setenv("LESS", "FRX", 0);
    program_ = popen(paging_.program.c_str(), "we");
  }
  if (program_ == nullptr) return write_output(text);
  const bool taken = std::fwrite(text.data(), 1, text.size(), program_) == text.size() && std::fflush(program_) == 0;
  quit_ = !taken;
  return taken;
}

bool Pager::show(std::string_view text) {
  if (!paging_.wanted()) return write_output(text);
  if (!paging_.program.empty()) return show_in_program(text);
  while (!text.empty() && !quit_) {
    const size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end == std::string_view::npos ? end : end + 1);
    if (!print_line(line)) quit_ = true;
    text.remove_prefix(line.size());
  }
  std::fflush(stdout);
  return !quit_;
}

bool Pager::print_line(std::string_view line) {
  if (column_ == 0 && left_ == 0 && !ask()) return false;
  const bool ends = line.back() == '\n';
  column_ += line.size() - (ends ? 1 : 0);
  if (ends) {
    const size_t rows = std::max<size_t>(1, (column_ + columns_ - 1) / columns_);
    left_ -= std::min(left_, rows);
    column_ = 0;
  }
  return std::fwrite(line.data(), 1, line.size(), stdout) == line.size();
}

bool Pager::ask() {
  // Before the question is seen: a Ctrl-C that answers it is a key then, and one that came earlier has been noted.
  const SingleKeys keys;
  if (interrupted_ != 0) return false;
  std::fputs("--More--", stdout);
  std::fflush(stdout);
  for (;;) {
    const char key = keys.read_key();
    if (!goes_on(key) && !quits(key)) continue;
    std::fputs("\r        \r", stdout);
    measure();
    left_ = key == ' ' ? page_ : 1;
    return goes_on(key);
  }
}

}  // namespace host
