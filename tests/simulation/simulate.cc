// Plays routers from seeds: simulate [--seeds A..B] [--jobs N] [--found DIR] [--replay FILE] [--print SEED]
//
// Each seed is a process of its own, forked from this one before anything has been started in it, so that a crash or a
// hang (60 s) is a finding like any other. The steps of a seed that fails are tried with parts left out until nothing
// more can be left out; what remains is printed and written to a file, with the command that plays it again.
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "platform/reference/croute.h"
#include "platform/reference/diag.h"
#include "tests/simulation/steps.h"
#include "tests/simulation/world.h"

using namespace simulation;

namespace {

constexpr unsigned time_limit = 60;  // seconds

struct Child {
  pid_t pid = 0;
  int out = -1;
};

// The step and what the module said about it, for whoever looks into a finding.
void trace_step(const Step &step) {
  std::fprintf(stderr, "-- %s", print({0, {step}}).substr(std::strlen("scheduler 0\n")).c_str());
  for (const ref::Event &event : ref::history()) std::fprintf(stderr, "   %s\n", event.text.c_str());
  ref::clear_history();
}

// What a child has found goes to its parent as lines; the first is the finding that the seed is known by.
[[noreturn]] void run_child(const Script &script, int out) {
  alarm(time_limit);
  const int nowhere = open("/dev/null", O_WRONLY);
  dup2(nowhere, STDOUT_FILENO);  // warnings of memory that ran out
  const bool tracing = std::getenv("SIMULATION_TRACE") != nullptr;
  if (tracing) pim_glb_trace_buffers[MVPN_TRACE_SLOT] = 1;
  World world(script.scheduler);
  ref::start_statistics();
  size_t played = 0;
  for (const Step &step : script.steps) {
    if (!world.failures().empty()) break;
    played++;
    play(world, step);
    if (tracing) trace_step(step);
  }
  const bool early = !world.failures().empty();
  if (!early) check_end(world);
  if (tracing) trace_step({true, {"end"}});
  std::string text;
  for (const std::string &failure : world.failures()) text += failure + "\n";
  if (early) text += "  after step " + std::to_string(played) + "\n";
  for (size_t done = 0; done < text.size();) {
    const ssize_t n = write(out, text.data() + done, text.size() - done);
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  _exit(text.empty() ? 0 : 1);
}

Child begin(const Script &script) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) std::abort();
  std::fflush(nullptr);
  Child child;
  child.pid = fork();
  if (child.pid == 0) run_child(script, ends[1]);
  close(ends[1]);
  child.out = ends[0];
  return child;
}

// What was found; empty: nothing.
std::string end(Child &child) {
  std::string said;

  char buffer[4096];
  for (ssize_t n; (n = read(child.out, buffer, sizeof buffer)) > 0;) said.append(buffer, static_cast<size_t>(n));
  close(child.out);
  int status = 0;
  waitpid(child.pid, &status, 0);
  if (WIFSIGNALED(status))
    said = (WTERMSIG(status) == SIGALRM ? std::string("hangs\n")
                                        : "dies of signal " + std::to_string(WTERMSIG(status)) + "\n") +
           said;
  else if (WEXITSTATUS(status) != 0 && said.empty())
    said = "ends with status " + std::to_string(WEXITSTATUS(status)) + "\n";
  return said;
}

std::string run(const Script &script) {
  Child child = begin(script);
  return end(child);
}

// The first line without its numbers: what makes two failures the same one.
std::string kind_of(const std::string &said) {
  std::string kind = said.substr(0, said.find('\n'));
  std::erase_if(kind, [](unsigned char c) { return std::isdigit(c) != 0; });
  return kind;
}

// Leaves out ever smaller parts as long as the same thing is found.
Script shrink(Script script, const std::string &kind) {
  for (size_t part = std::max<size_t>(script.steps.size() / 2, 1);; part /= 2) {
    for (size_t at = 0; at < script.steps.size();) {
      Script shorter = script;
      const auto first = shorter.steps.begin() + static_cast<std::ptrdiff_t>(at);
      shorter.steps.erase(first, first + static_cast<std::ptrdiff_t>(std::min(part, shorter.steps.size() - at)));
      if (kind_of(run(shorter)) == kind)
        script = shorter;
      else
        at += part;
    }
    if (part == 1) break;
  }
  for (Step &step : script.steps) {  // settle everywhere that it does not matter
    if (step.settles) continue;
    step.settles = true;
    if (kind_of(run(script)) != kind) step.settles = false;
  }
  return script;
}

std::string indented(const std::string &text) {
  std::istringstream lines(text);
  std::string out;
  for (std::string line; std::getline(lines, line);) out += "    " + line + "\n";
  return out;
}

void report(uint64_t seed, const std::string &said, const std::string &folder) {
  const Script script = draw(seed);
  const Script least = shrink(script, kind_of(said));
  const std::string path = folder + "/seed-" + std::to_string(seed) + ".steps";
  std::ofstream(path) << print(least);
  std::printf("seed %llu FAILS:\n%s  with these of its %zu steps:\n%s  again: scripts/simulate --replay %s\n",
              static_cast<unsigned long long>(seed), indented(said).c_str(), script.steps.size(),
              indented(print(least)).c_str(), path.c_str());
  std::fflush(stdout);
}

struct Options {
  uint64_t first = 1, last = 300;
  unsigned jobs = 2;
  std::string found, replay, folder = ".";
  bool seeds = true;
};

// Findings of all seeds: one of each kind is shrunk, the others are counted.
size_t play_seeds(const Options &options) {
  std::map<std::string, std::vector<uint64_t>> kinds;
  size_t failed = 0;
  std::vector<std::pair<uint64_t, Child>> running;
  const auto finish = [&] {
    auto [seed, child] = std::move(running.front());
    running.erase(running.begin());
    const std::string said = end(child);
    if (said.empty()) return;
    failed++;
    auto &same = kinds[kind_of(said)];
    same.push_back(seed);
    if (same.size() == 1) report(seed, said, options.folder);
  };
  for (uint64_t seed = options.first; seed <= options.last; seed++) {
    running.emplace_back(seed, begin(draw(seed)));
    if (running.size() >= options.jobs) finish();
  }
  while (!running.empty()) finish();
  for (const auto &[kind, seeds] : kinds) {
    std::printf("%zu times: %s, seeds", seeds.size(), kind.c_str());
    for (size_t i = 0; i < std::min<size_t>(seeds.size(), 10); i++)
      std::printf(" %llu", static_cast<unsigned long long>(seeds[i]));
    std::printf("\n");
  }
  std::printf("%llu seeds of %zu kinds of steps, %zu failed\n",
              static_cast<unsigned long long>(options.last - options.first + 1), kinds_of_steps(), failed);
  return failed;
}

bool play_file(const std::string &path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  std::string problem = in ? "" : "cannot be read";
  const auto script = in ? parse(text.str(), &problem) : std::nullopt;
  const std::string said = script ? run(*script) : problem + "\n";
  std::printf("%s: %s\n%s", path.c_str(), said.empty() ? "passes" : "FAILS", indented(said).c_str());
  return said.empty();
}

size_t play_found(const std::string &folder) {
  std::vector<std::string> files;
  for (const auto &entry : std::filesystem::directory_iterator(folder))
    if (entry.path().extension() == ".steps") files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  return static_cast<size_t>(
      std::count_if(files.begin(), files.end(), [](const auto &file) { return !play_file(file); }));
}

bool read_seeds(const std::string &text, Options &options) {
  char *stop = nullptr;
  options.first = options.last = std::strtoull(text.c_str(), &stop, 10);
  if (std::strncmp(stop, "..", 2) == 0) options.last = std::strtoull(stop + 2, &stop, 10);
  return !text.empty() && *stop == '\0' && options.last >= options.first;
}

int usage() {
  std::fputs("simulate [--seeds A..B] [--jobs N] [--found DIR] [--out DIR] [--replay FILE] [--print SEED]\n", stderr);
  return 2;
}

}  // namespace

int main(int argc, char **argv) {
  Options options;
  for (int i = 1; i < argc; i++) {
    const std::string name = argv[i];
    if (i + 1 == argc) return usage();
    const std::string value = argv[++i];
    if (name == "--seeds") {
      if (!read_seeds(value, options)) return usage();
    } else if (name == "--jobs") {
      options.jobs = static_cast<unsigned>(std::max(1, std::atoi(value.c_str())));
    } else if (name == "--found") {
      options.found = value;
    } else if (name == "--out") {
      options.folder = value;
    } else if (name == "--replay") {
      return play_file(value) ? 0 : 1;
    } else if (name == "--print") {
      std::fputs(print(draw(std::strtoull(value.c_str(), nullptr, 10))).c_str(), stdout);
      return 0;
    } else {
      return usage();
    }
  }
  size_t failed = options.found.empty() ? 0 : play_found(options.found);
  failed += play_seeds(options);
  return failed == 0 ? 0 : 1;
}
