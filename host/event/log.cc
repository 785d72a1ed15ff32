// A pipe or terminal is opened anew, since O_NONBLOCK belongs to what others write through too; where that is not
// possible it is asked whether it takes a line. A line is no longer than a pipe takes as a whole.
#include "host/event/log.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>

#include "host/output/wall_time.h"

namespace host {
namespace {

// Whether standard error is the stream that the service manager connected to the journal.
bool is_journal(const struct stat &status) {
  const char *stream = std::getenv("JOURNAL_STREAM");
  return stream != nullptr && std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) == stream;
}

}  // namespace

Log::Log(const char *program, bool to_syslog) : program_(program), descriptor_(STDERR_FILENO) {
  if (!to_syslog) {
    open_standard_error();
    return;
  }
  target_ = Target::syslog;
  openlog(program, LOG_PID, LOG_DAEMON);
}

Log::~Log() {
  if (descriptor_ != STDERR_FILENO) close(descriptor_);
}

void Log::open_standard_error() {
  struct stat status {};
  if (fstat(STDERR_FILENO, &status) != 0) return;
  if (S_ISSOCK(status.st_mode)) target_ = is_journal(status) ? Target::journal : Target::socket;
  if (!S_ISFIFO(status.st_mode) && !S_ISCHR(status.st_mode)) return;
  target_ = Target::pipe;
  const int own = open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (own >= 0) descriptor_ = own;
}

void Log::write(Level level, std::string_view text) {
  if (level <= level_) write_always(level, text);
}

void Log::write_always(Level level, std::string_view text) {
  const std::lock_guard lock(mutex_);
  const uint64_t missing = dropped_ - told_;
  if (missing > 0) {
    const std::string words = std::to_string(missing) + " lines of the log are missing here: nobody read them";
    if (send(Level::warning, line_of(Level::warning, words))) told_ += missing;
  }
  if (!send(level, line_of(level, text))) dropped_++;
}

std::string Log::line_of(Level level, std::string_view text) const {
  std::string line;
  if (target_ == Target::journal)
    line = "<" + std::to_string(static_cast<int>(level)) + ">";
  else if (target_ != Target::syslog)
    line =
        output::wall_time(std::chrono::system_clock::now()) + " " + std::string(name_of(level)) + " " + program_ + ": ";
  line += text.substr(0, PIPE_BUF - 100);  // what stands in front is shorter than 100
  return line + "\n";
}

bool Log::send(Level level, const std::string &line) const {
  if (target_ == Target::syslog) {
    syslog(static_cast<int>(level), "%s", line.c_str());
    return true;
  }
  const auto size = static_cast<ssize_t>(line.size());
  if (target_ == Target::journal || target_ == Target::socket)
    return ::send(descriptor_, line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL) == size;
  if (target_ == Target::pipe && descriptor_ == STDERR_FILENO) {
    pollfd writable{descriptor_, POLLOUT, 0};
    if (poll(&writable, 1, 0) != 1 || (writable.revents & POLLOUT) == 0) return false;
  }
  return ::write(descriptor_, line.data(), line.size()) == size;
}

}  // namespace host
