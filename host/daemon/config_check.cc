// The process is this program again, with --check-config: what the operator can run by hand is what guards a reload and
// a commit. A text is its standard input, as a file that has no name. Its output ends when it ends, so the end of the
// output is the sign to collect its status.
#include "host/daemon/config_check.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <chrono>
#include <cstring>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "host/config/config_file.h"
#include "host/daemon/loop.h"
#include "host/daemon/module_loader.h"
#include "host/daemon/router.h"
#include "platform/reference/diag.h"
#include "platform/reference/runtime.h"

namespace host {
namespace {

constexpr std::chrono::seconds kTimeLimit{60};  // one that takes longer hangs, and a reload waits for it
constexpr size_t kOutputLimit = 65536;          // bytes; kMaxErrorsTold lines are shorter
constexpr std::string_view kOwnPrefix = "pimhostd: ";
constexpr const char *kStandardInput = "/proc/self/fd/0";
constexpr int kRunning = 3;  // what runs, in the process
constexpr const char *kRunningPath = "/proc/self/fd/3";

// Closed when it goes out of scope, however that is.
struct Descriptor {
  int number;
  ~Descriptor() {
    if (number >= 0) close(number);
  }
};

// A file of its own, without a name. Throws std::runtime_error.
int file_of(const std::string &text) {
  const int file = memfd_create("configuration", MFD_CLOEXEC);
  if (file < 0) throw std::runtime_error(std::strerror(errno));
  if (const int error = write_whole(file, text); error != 0) {
    close(file);
    throw std::runtime_error(std::strerror(error));
  }
  return file;
}

// A line of the process's output: without its name, and without the place where that is in no file.
std::string told(std::string line) {
  if (line.starts_with(kOwnPrefix)) line.erase(0, kOwnPrefix.size());
  if (line.starts_with(kStandardInput)) line.erase(0, line.find(": ") + 2);
  return line;
}

// What a router refuses of a configuration that it starts with, and of one that takes its place then.
std::vector<ConfigError> refused_of(const std::string &module, Config first, std::optional<Config> second) {
  const LoadedModule loaded = load_module(module);
  Loop loop;
  std::vector<ConfigError> refused, logged;
  EventBus events;
  std::optional<Router> router;
  {
    Loop::Turn turn(loop);
    ref::set_log_sink(ref::LogSink::none);
    ref::clock_use_real(1);
    Router::Options options;
    options.offline = true;
    options.events = &events;
    options.log = [&logged](Level, const std::string &text) { logged.push_back({0, text}); };
    router.emplace(loop, loaded, std::move(options));
    refused = router->start(std::move(first));
  }
  if (second) {
    Loop::Turn turn(loop);
    logged.clear();
    refused = router->replace(std::move(*second));
  }
  {
    Loop::Turn turn(loop);
    router->stop();
    ref::wait_for_threads();
  }
  refused.insert(refused.end(), logged.begin(), logged.end());
  std::ranges::stable_sort(refused, {}, &ConfigError::line);
  return refused;
}

}  // namespace

std::vector<ConfigError> try_config(const std::string &module, Config config) {
  return refused_of(module, std::move(config), std::nullopt);
}

std::vector<ConfigError> try_change(const std::string &module, Config running, Config wanted) {
  return refused_of(module, std::move(running), std::move(wanted));
}

std::string ConfigCheck::Result::text() const {
  std::string lines;
  for (const std::string &problem : problems) lines += problem + "\n";
  return lines;
}

ConfigCheck::ConfigCheck(boost::asio::io_context &io, const Input &input, const std::string &module, bool strict,
                         Done done)
    : output_(io), timer_(io), done_(std::move(done)) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error(std::strerror(errno));
  output_.assign(ends[0]);
  const Descriptor output{ends[1]};
  const Descriptor text{input.text ? file_of(*input.text) : open("/dev/null", O_RDONLY | O_CLOEXEC)};
  const Descriptor running{input.running.empty() ? -1 : file_of(input.running)};
  const int error =
      start(input.text ? kStandardInput : input.file, module, strict, {text.number, running.number, output.number});
  if (error != 0) throw std::runtime_error(std::strerror(error));
  read();
  limit();
}

ConfigCheck::~ConfigCheck() {
  if (process_ < 0) return;
  kill(process_, SIGKILL);
  waitpid(process_, nullptr, 0);
}

// 0, or an error number.
int ConfigCheck::start(const std::string &file, const std::string &module, bool strict, const Descriptors &given) {
  std::vector<std::string> arguments = {"pimhostd", "--check-config", "--config", file, "--module", module};
  if (strict) arguments.emplace_back("--strict");
  if (given.running >= 0) arguments.insert(arguments.end(), {"--running", kRunningPath});
  std::vector<char *> pointers;
  for (std::string &argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, given.input, STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, given.output, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, given.output, STDERR_FILENO);
  if (given.running >= 0) posix_spawn_file_actions_adddup2(&actions, given.running, kRunning);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  const int error = posix_spawn(&process_, "/proc/self/exe", &actions, &attributes, pointers.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) process_ = -1;
  return error;
}

void ConfigCheck::read() {
  output_.async_read_some(boost::asio::buffer(buffer_),
                          [this, alive = std::weak_ptr(alive_)](const boost::system::error_code &error, size_t size) {
                            if (alive.expired()) return;
                            if (error) return finish();
                            if (text_.size() < kOutputLimit) text_.append(buffer_.data(), size);
                            read();
                          });
}

void ConfigCheck::limit() {
  timer_.expires_after(kTimeLimit);
  timer_.async_wait([this, alive = std::weak_ptr(alive_)](const boost::system::error_code &error) {
    if (error || alive.expired()) return;
    timed_out_ = true;
    kill(process_, SIGKILL);  // its output ends
  });
}

void ConfigCheck::finish() {
  timer_.cancel();
  int status = 0;
  waitpid(std::exchange(process_, -1), &status, 0);
  const Done done = std::move(done_);
  done(result(status));
}

ConfigCheck::Result ConfigCheck::result(int status) const {
  Result result{WIFEXITED(status) && WEXITSTATUS(status) == 0, {}};
  std::istringstream lines(text_);
  for (std::string line; std::getline(lines, line);) result.problems.push_back(told(line));
  if (timed_out_)
    result.problems.push_back("the check did not end within " + std::to_string(kTimeLimit.count()) + " s");
  else if (result.problems.empty() && !result.passed)
    result.problems.push_back("the check ended without a word");
  return result;
}

}  // namespace host
