// Runs each check in processes of its own and reads what they report over a pipe, a line each. A report that does not
// end with its closing line is a crash. Whether a check holds is decided outside of its process; inside, differences
// are only written down, by any thread, one write each.
//
// The recording module stands in for a real one: it notes what it is told, and notices calls from another thread or
// from inside a call of the kit.
#include "conformance/runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <thread>

namespace conformance {
namespace {

using namespace std::chrono_literals;

constexpr auto longest_life = 30s;      // real time that a check's process gets
constexpr uint32_t run_limit = 60'000;  // ms of platform time that run_until waits
constexpr uint32_t run_step = 100;      // ms between two looks at the condition

std::vector<Check> &checks() {
  static std::vector<Check> all;
  return all;
}

// ------------------------------------------------------------------------------------------- inside a check's process

int report_descriptor = -1;
std::thread::id main_thread;
int calls_entered = 0;
std::vector<std::string> told_texts;
std::function<void(mts_message *)> message_watcher;

// A line of the report; the first character is its kind: '-' differs, '~' skipped.
void report(char kind, const std::string &text) {
  const std::string line = kind + text + '\n';
  if (write(report_descriptor, line.data(), line.size()) < 0) _exit(3);
}

void tell(const std::string &text) {
  if (std::this_thread::get_id() != main_thread) report('-', "the module was told \"" + text + "\" on another thread");
  if (calls_entered > 0) report('-', "the module was told \"" + text + "\" from inside a call");
  told_texts.push_back(text);
}

const contract_module recording_module = {
    .process_msg =
        [](mts_message *msg) {
          tell("message " + std::to_string(platform.mts_opc_get(msg)));
          if (message_watcher) message_watcher(msg);
          return 1;
        },
    .interface_status = [](im_iod_t iod, int up) { tell((up != 0 ? "up " : "down ") + std::to_string(iod)); },
    .interface_create = [](im_iod_t iod) { tell("created " + std::to_string(iod)); },
    .process_address_change = [](im_iod_t iod) { tell("address " + std::to_string(iod)); },
    .update_route_ack =
        [](const void *message) {
          uint32_t xid;
          std::memcpy(&xid, static_cast<const uint8_t *>(message) + MRIB_ACK_XID_OFFSET, sizeof xid);
          tell("ack " + std::to_string(xid));
        },
    .mdt_notify = [](const void *) { tell("notify"); },
};

void live(const std::string &library, const std::function<void()> &life, const std::string &folder, bool again) {
  main_thread = std::this_thread::get_id();
  load(library);
  if (*driver.version != PLATFORM_CONTRACT_VERSION) {
    report('-', "the platform was written for version " + std::to_string(*driver.version) +
                    " of the contract, this kit for version " + std::to_string(PLATFORM_CONTRACT_VERSION));
    return;
  }
  if (driver.start(folder.c_str(), again ? 1 : 0, &recording_module) == 0) {
    report('-', "the platform does not start");
    return;
  }
  life();
  driver.stop();
}

[[noreturn]] void be_a_life(const std::string &library, const std::function<void()> &life, const std::string &folder,
                            bool again) {
  try {
    live(library, life, folder, again);
  } catch (const Missing &missing) {
    report(missing.optional ? '~' : '-', std::string(missing.name) + " is missing");
  } catch (const Abandoned &) {
  } catch (const std::exception &error) {
    report('-', error.what());
  }
  report('.', "");
  _exit(0);  // a thread of a check that was abandoned may still run
}

// ---------------------------------------------------------------------------------------------- outside of the checks

struct Outcome {
  std::vector<std::string> differences, skips;
};

// What the process writes until it ends or its time is up.
std::string read_report(int descriptor, pid_t process, Outcome *outcome) {
  const auto end = std::chrono::steady_clock::now() + longest_life;
  std::string text;
  std::array<char, 4096> buffer;
  while (true) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
    pollfd ready{descriptor, POLLIN, 0};
    if (left.count() <= 0 || poll(&ready, 1, static_cast<int>(left.count())) == 0) {
      outcome->differences.push_back("does not end within " + std::to_string(longest_life.count()) + " s");
      kill(process, SIGKILL);
      return text;
    }
    const ssize_t size = read(descriptor, buffer.data(), buffer.size());
    if (size <= 0) return text;
    text.append(buffer.data(), static_cast<size_t>(size));
  }
}

void take_report(const std::string &text, int status, Outcome *outcome) {
  bool finished = false;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line[0] == '-') outcome->differences.push_back(line.substr(1));
    if (line[0] == '~') outcome->skips.push_back(line.substr(1));
    finished |= line[0] == '.';
  }
  if (finished || !outcome->differences.empty()) return;
  outcome->differences.push_back(WIFSIGNALED(status) ? std::string("ends by signal: ") + strsignal(WTERMSIG(status))
                                                     : "ends the process with " + std::to_string(WEXITSTATUS(status)));
}

void run_life(const std::string &library, const std::function<void()> &life, const std::string &folder, bool again,
              Outcome *outcome) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  std::fflush(nullptr);
  const pid_t process = fork();
  if (process < 0) throw std::runtime_error("no process");
  if (process == 0) {
    close(ends[0]);
    report_descriptor = ends[1];
    be_a_life(library, life, folder, again);
  }
  close(ends[1]);
  const std::string text = read_report(ends[0], process, outcome);
  close(ends[0]);
  int status = 0;
  waitpid(process, &status, 0);
  take_report(text, status, outcome);
}

// A library that cannot be loaded is no difference. Tried in a process of its own, so that each check loads it anew.
bool can_be_loaded(const std::string &library) {
  const pid_t process = fork();
  if (process < 0) throw std::runtime_error("no process");
  if (process == 0) {
    try {
      load(library);
      _exit(0);
    } catch (const std::exception &error) {
      std::fprintf(stderr, "mvpn-contract-test: %s\n", error.what());
      _exit(1);
    }
  }
  int status = 0;
  waitpid(process, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

Outcome run(const Check &check, const std::string &library) {
  std::string folder = (std::filesystem::temp_directory_path() / "mvpn-contract-XXXXXX").string();
  if (mkdtemp(folder.data()) == nullptr) throw std::runtime_error("no folder for the platform's files");
  Outcome outcome;
  bool again = false;
  for (const auto &life : check.lives) {
    run_life(library, life, folder, again, &outcome);
    if (!outcome.differences.empty() || !outcome.skips.empty()) break;
    again = true;
  }
  std::filesystem::remove_all(folder);
  return outcome;
}

std::string title(const Check &check) { return std::string(check.component) + ": " + check.name; }

void print(const Check &check, const Outcome &outcome) {
  const char *verdict = !outcome.differences.empty() ? "DIFFERS" : !outcome.skips.empty() ? "skipped" : "ok";
  std::printf("%-8s%s\n", verdict, title(check).c_str());
  for (const auto &text : outcome.differences) std::printf("          %s\n", text.c_str());
  for (const auto &text : outcome.skips) std::printf("          the driver: %s\n", text.c_str());
}

}  // namespace

Registration::Registration(const char *component, const char *name, std::vector<std::function<void()>> lives) {
  checks().push_back({component, name, std::move(lives)});
}

void differs(const char *file, int line, const std::string &text) {
  report('-', text + " (" + std::filesystem::path(file).filename().string() + ":" + std::to_string(line) + ")");
}

std::vector<std::string> &told() { return told_texts; }

InsideACall::InsideACall() { calls_entered++; }
InsideACall::~InsideACall() { calls_entered--; }

bool run_until(const std::function<bool()> &condition) {
  for (uint32_t waited = 0; waited < run_limit && !condition(); waited += run_step) driver.run(run_step);
  return condition();
}

void set_message_watcher(std::function<void(mts_message *)> watcher) { message_watcher = std::move(watcher); }

int run_checks(const Options &options) {
  if (!options.list && !can_be_loaded(options.library)) return 2;
  std::stable_sort(checks().begin(), checks().end(),
                   [](const Check &a, const Check &b) { return std::strcmp(a.component, b.component) < 0; });
  size_t held = 0, differing = 0, skipped = 0;
  for (const Check &check : checks()) {
    if (title(check).find(options.only) == std::string::npos) continue;
    if (options.list) {
      std::puts(title(check).c_str());
      continue;
    }
    const Outcome outcome = run(check, options.library);
    print(check, outcome);
    (!outcome.differences.empty() ? differing : !outcome.skips.empty() ? skipped : held)++;
  }
  if (options.list) return 0;
  std::printf("%zu hold, %zu differ, %zu skipped\n", held, differing, skipped);
  return differing == 0 && held > 0 ? 0 : 1;
}

}  // namespace conformance
