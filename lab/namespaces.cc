// Makes and removes namespaces by means of the program ip, as an operator would, so that what a run builds can be
// looked at with the same program.
//
// Removing is done by description, never from memory: all namespaces whose names begin with the prefix, and all
// processes that are in one of them. So an earlier run that was killed leaves nothing behind. A namespace that a
// process is in outlives its name; processes are therefore killed before names are deleted. /proc tells by the inode of
// its ns/net who is in which.
#include "lab/namespaces.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>
#include <utility>

namespace lab {
namespace {

using namespace std::chrono_literals;

const std::filesystem::path kFolder = "/run/netns";  // where ip keeps the names of namespaces

void run_or_throw(const std::vector<std::string> &command) {
  const Result result = run(command, kPatience);
  if (result.status == 0) return;
  std::string line;
  for (const std::string &word : command) line += word + ' ';
  throw std::runtime_error(line + "failed: " + result.output);
}

ino_t inode_of(const std::filesystem::path &path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

// Processes in one of the network namespaces, this one left out.
std::vector<pid_t> processes_in(const std::set<ino_t> &namespaces) {
  std::vector<pid_t> result;
  for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    pid_t pid = 0;
    if (std::from_chars(name.data(), name.data() + name.size(), pid).ptr != name.data() + name.size()) continue;
    if (pid != getpid() && namespaces.contains(inode_of(entry.path() / "ns/net"))) result.push_back(pid);
  }
  return result;
}

// Kills what is in the namespaces and waits until it is gone, up to five seconds.
void kill_in(std::set<ino_t> namespaces) {
  namespaces.erase(0);
  namespaces.erase(inode_of("/proc/self/ns/net"));
  for (int attempt = 0; attempt < 250 && !namespaces.empty(); ++attempt) {
    const std::vector<pid_t> found = processes_in(namespaces);
    if (found.empty()) return;
    for (const pid_t pid : found) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, WNOHANG);
    }
    usleep(20'000);  // 250 times: five seconds
  }
}

}  // namespace

Namespaces::Namespaces(std::string prefix) : prefix_(std::move(prefix)) {
  const std::string reason = why_no_namespaces();
  if (!reason.empty()) throw std::runtime_error(reason);
  lock();
  sweep();
}

Namespaces::~Namespaces() {
  try {
    sweep();
  } catch (const std::exception &) {
    // The next run sweeps.
  }
  close(lock_);
}

void Namespaces::lock() {
  const std::string file = "/run/" + prefix_ + ".lock";
  lock_ = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
  if (lock_ < 0) throw std::runtime_error(file + ": " + std::strerror(errno));
  for (int second = 0; flock(lock_, LOCK_EX | LOCK_NB) != 0; ++second) {
    if (second == 600) throw std::runtime_error("another run has used the prefix " + prefix_ + " for ten minutes");
    pause_for(1s);
  }
}

void Namespaces::sweep() {
  std::set<ino_t> inodes;
  std::vector<std::string> names;
  if (!std::filesystem::exists(kFolder)) return;
  for (const auto &entry : std::filesystem::directory_iterator(kFolder)) {
    const std::string name = entry.path().filename();
    if (!name.starts_with(prefix_ + "-")) continue;
    names.push_back(name);
    inodes.insert(inode_of(entry.path()));
  }
  kill_in(std::move(inodes));
  for (const std::string &name : names) run_or_throw({"ip", "netns", "del", name});
}

void Namespaces::add(const std::string &name) {
  run_or_throw({"ip", "netns", "add", full(name)});
  const Result settings = in(name, {"sysctl", "-qw", "net.ipv6.conf.all.disable_ipv6=1", "net.ipv4.ip_forward=0",
                                    "net.ipv4.conf.all.rp_filter=0", "net.ipv4.conf.default.rp_filter=0"});
  if (settings.status != 0) throw std::runtime_error(full(name) + ": " + settings.output);
  ip(name, {"link set lo up"});
}

void Namespaces::remove(const std::string &name) {
  kill_in({inode_of(path(name))});
  run_or_throw({"ip", "netns", "del", full(name)});
}

void Namespaces::ip(const std::string &name, const std::vector<std::string> &lines) const {
  std::string text;
  for (const std::string &line : lines) text += line + '\n';
  const std::string file = std::filesystem::temp_directory_path() / (full(name) + ".ip-batch");
  std::ofstream(file) << text;
  const Result result = run({"ip", "-n", full(name), "-batch", file}, kPatience);
  std::filesystem::remove(file);
  if (result.status != 0) throw std::runtime_error(full(name) + ": ip: " + result.output + "in\n" + text);
}

Result Namespaces::in(const std::string &name, const std::vector<std::string> &command) const {
  return run(command, kPatience, path(name));
}

std::string why_no_namespaces() {
  if (geteuid() != 0) return "only root may make network namespaces";
  if (access("/usr/sbin/ip", X_OK) != 0 && access("/sbin/ip", X_OK) != 0) return "the program ip is not installed";
  // A container's root often may not: a child tries.
  const pid_t pid = fork();
  if (pid == 0) _exit(unshare(CLONE_NEWNET) == 0 ? 0 : 1);
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid || status != 0) return "network namespaces may not be made here";
  return {};
}

}  // namespace lab
