// Fails every platform call of the story once, and random pairs, and finds what helps afterwards.
//
// A run tells the story up to a step, fails one call (or two) inside that step, and then compares the state with that
// of the same story without a failure. Where they differ, it tries in turn what a network would do by itself, and what
// an operator would do: the same event again and a minute of ordinary life; a bounce of the source interface, which
// takes every tunnel through its whole cycle; a restart of the module. The run without a failure does the same, so that
// the states stay comparable. After that the rest of the story is told. No run may crash, hang, leave records
// that disagree with each other, or leave memory behind.
//
// What helps after which call stands in a table; a call that needs more than its row fails the sweep. One row covers
// all calls of a function in a step, so that the table survives changes that make a call more or less. A call that is
// not in the table needs nothing.
//
// Each run is a process of its own, forked before the platform has started a thread; a run that takes longer than a
// minute counts as hung. The order of threads is first come, first served, so that the k-th call of a step is the same
// call in every run.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <random>
#include <sstream>

#include "options/command_line.h"
#include "platform/reference/mem.h"
#include "platform/reference/pim.h"
#include "platform/reference/testing/runtime.h"
#include "routing/pim/mvpn/mvpn.h"
#include "tests/faults/story.h"
#include "tests/support/platform_trace.h"

std::vector<std::string> invariant_violations();

namespace faults {
namespace {

constexpr unsigned run_limit = 60;  // seconds
constexpr int levels = 4;
const char *const level_names[levels + 1] = {"nothing", "event", "bounce", "restart", "NOTHING HELPS"};

// What is to fail: calls counted from 1 within a step. Step behind the story: none.
struct Fault {
  size_t step = 0;
  unsigned call = 0;
  size_t second_step = 0;
  unsigned second_call = 0;  // 0: no second one; in the same step counted from the first
};

struct Result {
  int helps = levels;                            // index of level_names
  std::string function;                          // that failed; empty: the step has no such call
  std::vector<unsigned> calls;                   // calls that can fail, of each step; runs without a failure only
  std::vector<std::string> wrong;                // what no failure excuses
  std::string difference;                        // that the last thing which did not help left
  std::vector<std::vector<std::string>> states;  // one for each level
};

using States = std::vector<std::vector<std::string>>;

// ------------------------------------------------------------------------------------------------------------ one run

// A record of the store that could not be deleted or written differs from the flows until something mends it: that is
// part of the state. Everything else must agree whatever failed.
void check(std::vector<std::string> *state, Result *result, const std::string &where) {
  for (const std::string &violation : invariant_violations()) {
    if (violation.find("a stored choice is that of no flow") != std::string::npos)
      state->push_back(violation);
    else
      result->wrong.push_back(where + ": " + violation);
  }
}

void help(World &world, const Step &step, int level) {
  if (level == 1) {
    step.run(world);
    world.minute();
    world.minute();
  } else if (level == 2) {
    world.bounce();
    world.minute();
  } else if (level == 3) {
    world.restart();
    world.minute();
    world.minute();
  }
}

std::string difference(const std::vector<std::string> &wanted, const std::vector<std::string> &found) {
  std::vector<std::string> lacks, has;
  std::set_difference(wanted.begin(), wanted.end(), found.begin(), found.end(), std::back_inserter(lacks));
  std::set_difference(found.begin(), found.end(), wanted.begin(), wanted.end(), std::back_inserter(has));
  std::string text;
  for (const std::string &line : lacks) text += "- " + line + "; ";
  for (const std::string &line : has) text += "+ " + line + "; ";
  return text;
}

void finish(Result *result) {
  ref::set_feature_configured(false);
  mvpn_deinit(1);
  if (!ref::wait_for_threads()) result->wrong.push_back("a thread does not end");
  ref::settle();
  if (mvpn_mvrf_count != 0) result->wrong.push_back("contexts are left");
  for (pim_iftype *interface = pim_snmp_get_next_ifindex(0); interface != nullptr;
       interface = pim_snmp_get_next_ifindex(interface->if_index))
    if (interface->pim_enabled != 0) pim_disable(0, interface->pcib, interface, interface->iod, 1, 0, 0);
  const ref::MemoryUse left = ref::memory_use();
  if (left.slab_objects != 0 || left.tracked_buffers != 0 || left.timers != 0)
    result->wrong.push_back("left behind: " + std::to_string(left.slab_objects) + " objects, " +
                            std::to_string(left.tracked_buffers) + " buffers, " + std::to_string(left.timers) +
                            " timers");
}

void tell(World &world, const Step &step, unsigned call, unsigned then, Result *result) {
  trace::fail_any(call, then);
  step.run(world);
  const std::string failed = trace::failed_function();
  result->function += (result->function.empty() || failed.empty() ? "" : " ") + failed;
  result->calls.push_back(trace::failable_calls());
  trace::fail_any(0);
}

// expected null: nothing to compare with; every level is run and its state kept.
Result play(const Fault &fault, const States *expected) {
  Result result;
  World world;
  const std::vector<Step> &steps = story();
  const size_t last = std::max(fault.step, fault.second_step);
  for (size_t s = 0; s <= last; s++) {
    const bool both = s == fault.step && s == fault.second_step && fault.second_call != 0;
    const unsigned call = s == fault.step ? fault.call : s == fault.second_step ? fault.second_call : 0;
    tell(world, steps[s], call, both ? fault.second_call : 0, &result);
  }
  for (int level = 0; level < levels; level++) {
    help(world, steps[last], level);
    std::vector<std::string> state = world.state();
    check(&state, &result, std::string("after ") + level_names[level]);
    if (expected == nullptr) {
      result.states.push_back(state);
    } else if (const std::string left = difference((*expected)[static_cast<size_t>(level)], state); left.empty()) {
      result.helps = level;
      break;
    } else {
      result.difference = left;
    }
  }
  if (expected != nullptr)
    for (size_t s = last + 1; s < steps.size(); s++) steps[s].run(world);
  std::vector<std::string> state;
  check(&state, &result, "at the end");
  finish(&result);
  return result;
}

// -------------------------------------------------------------------------------------------------- runs as processes

void write_result(int file, const Result &result) {
  std::string text = "helps " + std::to_string(result.helps) + "\nfunction " + result.function + "\n";
  for (const unsigned calls : result.calls) text += "calls " + std::to_string(calls) + "\n";
  for (const std::string &wrong : result.wrong) text += "wrong " + wrong + "\n";
  text += "difference " + result.difference + "\n";
  for (const auto &state : result.states) {
    text += "state \n";
    for (const std::string &line : state) text += "line " + line + "\n";
  }
  if (write(file, text.data(), text.size()) != static_cast<ssize_t>(text.size())) std::_Exit(2);
}

Result read_result(const std::string &text) {
  Result result;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    const size_t blank = line.find(' ');
    const std::string word = line.substr(0, blank), rest = line.substr(blank + 1);
    if (word == "helps") result.helps = std::stoi(rest);
    if (word == "function") result.function = rest;
    if (word == "calls") result.calls.push_back(static_cast<unsigned>(std::stoul(rest)));
    if (word == "wrong") result.wrong.push_back(rest);
    if (word == "difference") result.difference = rest;
    if (word == "state") result.states.emplace_back();
    if (word == "line") result.states.back().push_back(rest);
  }
  return result;
}

std::string contents(int file) {
  std::string text(static_cast<size_t>(lseek(file, 0, SEEK_END)), '\0');
  if (pread(file, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) text.clear();
  close(file);
  return text;
}

// Runs of the story, so many at a time; `done` is called as each ends.
class Pool {
 public:
  using Done = std::function<void(const Fault &, const Result &)>;
  Pool(unsigned jobs, Done done) : jobs_(jobs), done_(std::move(done)) {}

  void add(const Fault &fault, const States *expected) {
    while (running_.size() >= jobs_) collect();
    const int answer = memfd_create("answer", 0), output = memfd_create("output", 0);
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
      dup2(output, 1);
      dup2(output, 2);
      alarm(run_limit);
      write_result(answer, play(fault, expected));
      std::fflush(nullptr);
      std::_Exit(0);
    }
    if (child < 0) throw std::runtime_error("fork failed");
    running_[child] = {fault, answer, output};
  }

  void finish() {
    while (!running_.empty()) collect();
  }

 private:
  struct Run {
    Fault fault;
    int answer, output;
  };

  void collect() {
    int status = 0;
    const pid_t child = wait(&status);
    const auto found = running_.find(child);
    if (found == running_.end()) throw std::runtime_error("wait failed");
    const Run run = found->second;
    running_.erase(found);
    Result result = read_result(contents(run.answer));
    const std::string output = contents(run.output);
    if (WIFSIGNALED(status))
      result.wrong.push_back(std::string(WTERMSIG(status) == SIGALRM ? "hung" : "crashed") + "; its last output:\n" +
                             output.substr(output.size() > 3000 ? output.size() - 3000 : 0));
    else if (WEXITSTATUS(status) != 0)
      result.wrong.push_back("ended with status " + std::to_string(WEXITSTATUS(status)) + "; its output:\n" + output);
    done_(run.fault, result);
  }

  unsigned jobs_;
  Done done_;
  std::map<pid_t, Run> running_;
};

// ---------------------------------------------------------------------------------------------------------- the table

// (step, function) -> index of level_names.
using Table = std::map<std::pair<std::string, std::string>, int>;

Table read_table(const std::string &path) {
  Table table;
  std::ifstream in(path);
  if (!in) throw std::runtime_error(path + " cannot be read");
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    const size_t first = line.find(" | "), second = line.find(" | ", first + 1);
    const auto trimmed = [](std::string text) { return text.erase(text.find_last_not_of(' ') + 1); };
    const std::string helps = second == std::string::npos ? "" : line.substr(second + 3);
    const auto found = std::find(level_names, level_names + levels, helps);
    if (found == level_names + levels) throw std::runtime_error(path + ": what does this line mean? " + line);
    table[{trimmed(line.substr(0, first)), trimmed(line.substr(first + 3, second - first - 3))}] =
        static_cast<int>(found - level_names);
  }
  return table;
}

void write_table(const std::string &path, const Table &table) {
  std::ofstream out(path);
  out << "# What helps after a platform call has failed once: the same event or command again and ordinary life "
         "(event),\n"
         "# a bounce of the source interface (bounce), a restart of the module (restart). Calls that are not listed "
         "need\n"
         "# nothing. Written by scripts/faults --update; a step's rows stand in the order of the story.\n";
  for (const Step &step : story())
    for (const auto &[key, helps] : table) {
      if (key.first != step.name || helps == 0) continue;
      char row[256];
      std::snprintf(row, sizeof row, "%-24s | %-34s | %s\n", key.first.c_str(), key.second.c_str(), level_names[helps]);
      out << row;
    }
}

// ----------------------------------------------------------------------------------------------------------- the sweep

struct Options {
  std::string table = FAULTS_TABLE;
  unsigned every = 1, jobs = 2, pairs = 0;
  uint64_t seed = 1;
  std::string only;  // "step:call"
  bool update = false, verbose = false;
};

std::string name_of(const Fault &fault, const Result &result) {
  std::string text = std::string(story()[fault.step].name) + ":" + std::to_string(fault.call);
  if (fault.second_call != 0)
    text += std::string(" and ") + story()[fault.second_step].name + ":" + std::to_string(fault.second_call);
  return text + " (" + result.function + ")";
}

class Sweep {
 public:
  explicit Sweep(const Options &options) : options_(options), expected_(story().size()) {
    if (!options.update) table_ = read_table(options.table);
  }

  bool run() {
    if (!learn()) return false;
    if (!options_.only.empty())
      only();
    else if (options_.pairs > 0)
      pairs();
    else
      every_call();
    if (options_.update && failures_ == 0) write_table(options_.table, found_);
    std::cout << runs_ << " runs";
    for (int level = 0; level < levels; level++) std::cout << ", " << level_names[level] << " " << helped_[level];
    std::cout << "; " << failures_ << " failures\n";
    return failures_ == 0;
  }

 private:
  // The story without a failure: what each level leads to behind each step, and how many calls a step has.
  bool learn() {
    calls_.resize(story().size());
    Pool pool(options_.jobs, [this](const Fault &fault, const Result &result) {
      expected_[fault.step] = result.states;
      if (!result.calls.empty()) calls_[fault.step] = result.calls.back();
      for (const std::string &wrong : result.wrong) fail(fault, result, "without any failure: " + wrong);
    });
    for (size_t s = 0; s < story().size(); s++) pool.add({s, 0, 0, 0}, nullptr);
    pool.finish();
    return failures_ == 0;
  }

  void fail(const Fault &fault, const Result &result, const std::string &text) {
    failures_++;
    std::cout << "FAILED " << name_of(fault, result) << ": " << text << "\n" << std::flush;
  }

  void judge(const Fault &fault, const Result &result) {
    runs_++;
    for (const std::string &wrong : result.wrong) fail(fault, result, wrong);
    if (!result.wrong.empty()) return;
    helped_[result.helps]++;
    if (options_.verbose && result.helps > 0)
      std::cout << name_of(fault, result) << ": " << level_names[result.helps] << "  " << result.difference << "\n";
    if (result.helps == levels) {
      fail(fault, result, "nothing helps: " + result.difference);
    } else if (fault.second_call == 0) {
      const auto key = std::pair(std::string(story()[fault.step].name), result.function);
      found_[key] = std::max(found_[key], result.helps);
      const auto row = table_.find(key);
      const int allowed = row == table_.end() ? 0 : row->second;
      if (!options_.update && result.helps > allowed)
        fail(fault, result,
             std::string("needs ") + level_names[result.helps] + ", the table says " + level_names[allowed] + ": " +
                 result.difference);
    }
  }

  void every_call() {
    Pool pool(options_.jobs, [this](const Fault &fault, const Result &result) { judge(fault, result); });
    unsigned number = 0;
    for (size_t s = 0; s < story().size(); s++)
      for (unsigned call = 1; call <= calls_[s]; call++)
        if (++number % options_.every == 0) pool.add({s, call, 0, 0}, &expected_[s]);
    pool.finish();
    if (options_.every == 1 && !options_.update) say_what_is_better();
  }

  void say_what_is_better() const {
    for (const auto &[key, allowed] : table_) {
      const auto found = found_.find(key);
      const int helps = found == found_.end() ? 0 : found->second;
      if (helps < allowed)
        std::cout << key.first << ", " << key.second << ": the table says " << level_names[allowed] << ", "
                  << level_names[helps] << " is enough; --update writes the table anew\n";
    }
  }

  void pairs() {
    Pool pool(options_.jobs, [this](const Fault &fault, const Result &result) { judge(fault, result); });
    std::mt19937_64 random(options_.seed);
    std::vector<size_t> steps;  // one entry for each call
    for (size_t s = 0; s < calls_.size(); s++) steps.insert(steps.end(), calls_[s], s);
    const auto pick = [&random](uint64_t n) { return static_cast<unsigned>(random() % n); };
    for (unsigned i = 0; i < options_.pairs; i++) {
      size_t a = steps[pick(steps.size())], b = pick(3) == 0 ? a : steps[pick(steps.size())];
      if (b < a) std::swap(a, b);
      pool.add({a, 1 + pick(calls_[a]), b, 1 + pick(calls_[b])}, &expected_[b]);
    }
    pool.finish();
  }

  void only() {
    const size_t colon = options_.only.rfind(':');
    const std::string name = options_.only.substr(0, colon);
    for (size_t s = 0; s < story().size(); s++) {
      if (story()[s].name != name) continue;
      const auto call = static_cast<unsigned>(std::stoul(options_.only.substr(colon + 1)));
      const Result result = play({s, call, 0, 0}, &expected_[s]);
      judge({s, call, 0, 0}, result);
    }
  }

  Options options_;
  Table table_, found_;
  std::vector<States> expected_;
  std::vector<unsigned> calls_;
  int helped_[levels + 1] = {};
  unsigned runs_ = 0, failures_ = 0;
};

}  // namespace
}  // namespace faults

int main(int argc, char **argv) {
  faults::Options options;
  options::CommandLine app("Fails the platform calls of the module one by one and looks what helps.");
  app.add("--every", &options.every, "only every N-th call").within(1, 100000);
  app.add("--pairs", &options.pairs, "instead: so many random pairs of calls");
  app.add("--seed", &options.seed, "of the pairs");
  app.add("--only", &options.only, "one call: STEP:K, in this process");
  app.add("--jobs", &options.jobs, "runs at a time").within(1, 64);
  app.add("--table", &options.table, "what helps after which call");
  app.add_flag("--update", &options.update, "write the table anew");
  app.add_flag("--verbose", &options.verbose, "say of every call that needs help what it needs and why");
  if (const std::optional<int> status = app.parse(argc, argv, 2)) return *status;
  try {
    return faults::Sweep(options).run() ? 0 : 1;
  } catch (const std::exception &error) {
    std::cerr << "faults: " << error.what() << "\n";
    return 2;
  }
}
