#include "lab/process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <thread>

namespace lab {
namespace {

using Clock = std::chrono::steady_clock;

int decode_status(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

// Starts a program whose standard output and error are `output`. A child dies with the lab.
pid_t spawn(const std::vector<std::string> &command, int output) {
  std::vector<char *> arguments;
  for (const std::string &word : command) arguments.push_back(const_cast<char *>(word.c_str()));
  arguments.push_back(nullptr);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    execvp(arguments[0], arguments.data());
    dprintf(STDERR_FILENO, "%s: %s\n", arguments[0], std::strerror(errno));
    _exit(127);
  }
  return pid;
}

std::optional<int> reap(pid_t pid, Clock::time_point limit) {
  for (;;) {
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) return decode_status(status);
    if (Clock::now() >= limit) return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

// Reads until the writer has closed its end or the limit has come; false at the limit.
bool read_all(int fd, Clock::time_point limit, std::string *out) {
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(limit - Clock::now()).count();
    if (left <= 0) return false;
    pollfd waiting{fd, POLLIN, 0};
    if (poll(&waiting, 1, static_cast<int>(left)) <= 0) continue;
    char buffer[4096];
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n == 0) return true;
    if (n > 0) out->append(buffer, static_cast<size_t>(n));
  }
}

}  // namespace

Process::Process(const std::vector<std::string> &command, const std::string &log_file) {
  const int log = open(log_file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (log < 0) throw std::runtime_error(log_file + ": " + std::strerror(errno));
  pid_ = spawn(command, log);
  close(log);
}

Process::Process(Process &&other) : pid_(other.pid_), status_(other.status_) { other.pid_ = -1; }

Process::~Process() {
  if (pid_ < 0 || status_) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

void Process::signal(int number) {
  if (pid_ >= 0 && !status_) kill(pid_, number);
}

std::optional<int> Process::wait(std::chrono::milliseconds limit) {
  if (!status_) status_ = reap(pid_, Clock::now() + limit);
  return status_;
}

bool Process::running() { return !wait(std::chrono::milliseconds(0)); }

Result run(const std::vector<std::string> &command, std::chrono::milliseconds limit) {
  const Clock::time_point end = Clock::now() + limit;
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
  const pid_t pid = spawn(command, ends[1]);
  close(ends[1]);
  Result result;
  const bool finished = read_all(ends[0], end, &result.output);
  close(ends[0]);
  const std::optional<int> status = finished ? reap(pid, end) : std::nullopt;
  if (status) {
    result.status = *status;
  } else {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    result.status = 124;
  }
  return result;
}

}  // namespace lab
