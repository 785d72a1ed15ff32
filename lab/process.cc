// Starts programs, talks to them and waits for them. The lab has one thread; every wait is a loop of short sleeps or
// polls, so that a signal to the lab ends it soon (check_interrupted).
//
// Nothing that the lab starts outlives it: a child asks the system to be killed when the thread that made it ends. A
// child's network namespace is opened before the fork, where an error can be told, and entered behind it.
#include "lab/process.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <thread>
#include <utility>

namespace lab {
namespace {

using Clock = std::chrono::steady_clock;

volatile std::sig_atomic_t interrupted = 0;  // written by the handler of SIGINT and SIGTERM alone

// Throws once: what the lab takes down on its way out is waited for, whatever comes then.
void check_interrupted() {
  static bool on_the_way_out = false;
  if (interrupted == 0 || on_the_way_out) return;
  on_the_way_out = true;
  throw std::runtime_error("interrupted");
}

int decode_status(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

struct Files {
  int input;  // -1: the lab's own
  int output;
  int error;
};

[[noreturn]] void become(char *const *arguments, const Files &files, int name_space, pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(127);  // it died before it was watched
  if (files.input >= 0) dup2(files.input, STDIN_FILENO);
  dup2(files.output, STDOUT_FILENO);
  dup2(files.error, STDERR_FILENO);
  if (name_space >= 0 && setns(name_space, CLONE_NEWNET) != 0) {
    dprintf(STDERR_FILENO, "setns: %s\n", std::strerror(errno));
    _exit(127);
  }
  execvp(arguments[0], arguments);
  dprintf(STDERR_FILENO, "%s: %s\n", arguments[0], std::strerror(errno));
  _exit(127);
}

// Starts a program. A child dies with the lab.
pid_t spawn(const std::vector<std::string> &command, const Files &files, const std::string &network_namespace) {
  std::vector<char *> arguments;
  for (const std::string &word : command) arguments.push_back(const_cast<char *>(word.c_str()));
  arguments.push_back(nullptr);
  int name_space = -1;
  if (!network_namespace.empty()) {
    name_space = open(network_namespace.c_str(), O_RDONLY | O_CLOEXEC);
    if (name_space < 0) throw std::runtime_error(network_namespace + ": " + std::strerror(errno));
  }
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == 0) become(arguments.data(), files, name_space, parent);
  if (name_space >= 0) close(name_space);
  if (pid < 0) throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
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

enum class Read { some, end, late };

// Appends what comes next.
Read read_some(int fd, Clock::time_point limit, std::string *out) {
  for (;;) {
    check_interrupted();
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(limit - Clock::now()).count();
    if (left <= 0) return Read::late;
    pollfd waiting{fd, POLLIN, 0};
    if (poll(&waiting, 1, static_cast<int>(std::min<long>(left, 200))) <= 0) continue;
    char buffer[65536];
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n == 0) return Read::end;
    if (n < 0) continue;
    out->append(buffer, static_cast<size_t>(n));
    return Read::some;
  }
}

// Reads until the writer has closed its end or the limit has come; false at the limit.
bool read_all(int fd, Clock::time_point limit, std::string *out) {
  for (;;) {
    const Read result = read_some(fd, limit, out);
    if (result != Read::some) return result == Read::end;
  }
}

struct Pipe {
  int read = -1;
  int write = -1;
  Pipe() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
    read = ends[0];
    write = ends[1];
  }
};

// Kills a child unless it was reaped, also when a wait for it is interrupted.
class Child {
 public:
  explicit Child(pid_t pid) : pid_(pid) {}
  ~Child() {
    if (pid_ < 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  Child(const Child &) = delete;
  Child &operator=(const Child &) = delete;

  std::optional<int> reap_by(Clock::time_point limit) {
    const std::optional<int> status = reap(pid_, limit);
    if (status) pid_ = -1;
    return status;
  }

 private:
  pid_t pid_;
};

}  // namespace

std::string program_in(const std::string &folder, const std::string &name) {
  const std::string beside = folder + "/../sbin/" + name;
  return !std::filesystem::exists(folder + "/" + name) && std::filesystem::exists(beside) ? beside
                                                                                          : folder + "/" + name;
}

Process::Process(const Launch &launch) {
  const int log = open(launch.log_file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (log < 0) throw std::runtime_error(launch.log_file + ": " + std::strerror(errno));
  if (launch.piped) {
    const Pipe to;
    const Pipe from;
    input_ = to.write;
    output_ = from.read;
    pid_ = spawn(launch.command, {to.read, from.write, log}, launch.network_namespace);
    close(to.read);
    close(from.write);
  } else {
    pid_ = spawn(launch.command, {-1, log, log}, launch.network_namespace);
  }
  close(log);
}

Process::Process(Process &&other) noexcept
    : pid_(std::exchange(other.pid_, -1)),
      status_(other.status_),
      input_(std::exchange(other.input_, -1)),
      output_(std::exchange(other.output_, -1)),
      unread_(std::move(other.unread_)) {}

Process::~Process() {
  if (input_ >= 0) close(input_);
  if (output_ >= 0) close(output_);
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

uint64_t Process::resident_kib() const {
  std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
  const std::string name = "VmRSS:";
  for (std::string line; std::getline(status, line);)
    if (line.starts_with(name)) return std::stoull(line.substr(name.size()));
  return 0;
}

bool Process::running() { return !wait(std::chrono::milliseconds(0)); }

void Process::write_line(const std::string &line) {
  const std::string text = line + '\n';
  for (size_t at = 0; at < text.size();) {
    const ssize_t n = write(input_, text.data() + at, text.size() - at);
    if (n < 0 && errno != EINTR)
      throw std::runtime_error(std::string("a piped program has ended: ") + std::strerror(errno));
    if (n > 0) at += static_cast<size_t>(n);
  }
}

std::string Process::read_line(std::chrono::milliseconds limit) {
  const Clock::time_point end = Clock::now() + limit;
  size_t mark = unread_.find('\n');
  while (mark == std::string::npos) {
    if (read_some(output_, end, &unread_) != Read::some) throw std::runtime_error("a piped program does not answer");
    mark = unread_.find('\n');
  }
  std::string line = unread_.substr(0, mark);
  unread_.erase(0, mark + 1);
  return line;
}

Result run(const std::vector<std::string> &command, std::chrono::milliseconds limit,
           const std::string &network_namespace) {
  const Clock::time_point end = Clock::now() + limit;
  const Pipe pipe;
  Child child(spawn(command, {-1, pipe.write, pipe.write}, network_namespace));
  close(pipe.write);
  Result result;
  const bool finished = read_all(pipe.read, end, &result.output);
  close(pipe.read);
  const std::optional<int> status = finished ? child.reap_by(end) : std::nullopt;
  // 124, as timeout(1) has it.
  result.status = status.value_or(124);
  return result;
}

void pause_for(std::chrono::duration<double> time) {
  const Clock::time_point end = Clock::now() + std::chrono::duration_cast<Clock::duration>(time);
  for (Clock::time_point now = Clock::now(); now < end; now = Clock::now()) {
    check_interrupted();
    std::this_thread::sleep_for(std::min<Clock::duration>(end - now, std::chrono::milliseconds(100)));
  }
}

void note_signals() {
  struct sigaction action {};
  action.sa_handler = [](int) { interrupted = 1; };
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
}

}  // namespace lab
