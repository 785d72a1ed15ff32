// A pipe or terminal is opened anew, since O_NONBLOCK belongs to what others write through too; where that is not
// possible it is asked whether it takes a line. A line is no longer than a pipe takes as a whole. syslog is spoken to
// over a socket of our own, since the C library's waits while that one's queue is full.
#include "host/event/log.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <utility>

#include "host/output/wall_time.h"

namespace host {
namespace {

// Whether standard error is the stream that the service manager connected to the journal.
bool is_journal(const struct stat &status) {
  const char *stream = std::getenv("JOURNAL_STREAM");
  return stream != nullptr && std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino) == stream;
}

// A socket that is connected to a path; -1: nobody listens there.
int connected_to(const std::string &path) {
  sockaddr_un address{};
  if (path.size() >= sizeof address.sun_path) return -1;
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, path.size());
  const int made = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (made < 0 || connect(made, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) return made;
  close(made);
  return -1;
}

}  // namespace

Log::Log(const char *program, bool to_syslog, std::string syslog_socket)
    : program_(program), syslog_socket_(std::move(syslog_socket)), descriptor_(STDERR_FILENO) {
  if (!to_syslog) {
    open_standard_error();
    return;
  }
  target_ = Target::syslog;
  descriptor_ = connected_to(syslog_socket_);
}

Log::~Log() {
  if (descriptor_ != STDERR_FILENO && descriptor_ >= 0) close(descriptor_);
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
    if (send(line_of(Level::warning, words))) told_ += missing;
  }
  if (!send(line_of(level, text))) dropped_++;
}

std::string Log::line_of(Level level, std::string_view text) const {
  std::string line;
  if (target_ == Target::journal)
    line = "<" + std::to_string(static_cast<int>(level)) + ">";
  else if (target_ == Target::syslog)
    line = syslog_head(level);
  else
    line =
        output::wall_time(std::chrono::system_clock::now()) + " " + std::string(name_of(level)) + " " + program_ + ": ";
  line += text.substr(0, PIPE_BUF - 100);  // what stands in front is shorter than 100
  return line + "\n";
}

// "<PRIORITY>Mmm dd hh:mm:ss PROGRAM[PROCESS]: ", local time, as syslog reads it from programs of its machine.
std::string Log::syslog_head(Level level) const {
  const time_t now = time(nullptr);
  tm local{};
  char when[20] = "";
  if (localtime_r(&now, &local) != nullptr) std::strftime(when, sizeof when, "%b %e %H:%M:%S ", &local);
  return "<" + std::to_string(LOG_DAEMON | static_cast<int>(level)) + ">" + when + program_ + "[" +
         std::to_string(getpid()) + "]: ";
}

// A service that was started anew has another socket at its path.
bool Log::send_to_syslog(const std::string &line) {
  const std::string_view text = std::string_view(line).substr(0, line.size() - 1);  // a datagram is a line
  for (const bool again : {true, false}) {
    if (descriptor_ < 0) descriptor_ = connected_to(syslog_socket_);
    if (descriptor_ < 0) return false;
    if (::send(descriptor_, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) return true;
    if (errno == EAGAIN || errno == EWOULDBLOCK || !again) return false;
    close(std::exchange(descriptor_, -1));
  }
  return false;
}

bool Log::send(const std::string &line) {
  if (target_ == Target::syslog) return send_to_syslog(line);
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
