// Programs of the machine's SNMP package, run with an environment of their own, so that no configuration of the machine
// matters and nothing of it is written.
#include "tests/snmp/tools.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace snmp_tools {
namespace {

constexpr auto kLongestRun = std::chrono::seconds(90);

std::string contents(const std::string &file) {
  std::ifstream in(file);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void redirect(const std::string &file, int flags, int fd) {
  const int opened = open(file.c_str(), flags | O_CLOEXEC, 0600);
  if (opened < 0 || dup2(opened, fd) < 0) _exit(126);
}

// Nothing of the machine's SNMP configuration reaches the child, and it keeps its files in the folder. It ends with the
// test, however that ends.
pid_t spawn(const Folder &folder, std::vector<std::string> arguments, const std::string &out, const std::string &err) {
  std::vector<char *> argv;
  for (std::string &argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  std::string persistent = "SNMP_PERSISTENT_DIR=" + folder.path(), config = "SNMPCONFPATH=" + folder.path();
  std::string no_mibs = "MIBS=", home = "HOME=" + folder.path();
  char *environment[] = {persistent.data(), config.data(), no_mibs.data(), home.data(), nullptr};
  const pid_t pid = fork();
  if (pid != 0) {
    EXPECT_GT(pid, 0);
    return pid;
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  redirect("/dev/null", O_RDONLY, STDIN_FILENO);
  redirect(out, O_WRONLY | O_CREAT | O_TRUNC, STDOUT_FILENO);
  redirect(err, O_WRONLY | O_CREAT | O_TRUNC, STDERR_FILENO);
  execve(argv[0], argv.data(), environment);
  _exit(127);
}

}  // namespace

Folder::Folder() {
  std::string name = (std::filesystem::temp_directory_path() / "snmp_test.XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary folder");
  path_ = name;
  std::filesystem::create_directory(path_ + "/cert_indexes");  // or the tools say that they made it
}

Folder::~Folder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::vector<std::string> Result::lines() const {
  std::vector<std::string> all;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) all.push_back(line);
  return all;
}

Result run(const Folder &folder, std::vector<std::string> arguments, const std::function<void()> &serve) {
  const std::string out = folder.path() + "/out", err = folder.path() + "/err";
  Result result;
  const pid_t pid = spawn(folder, std::move(arguments), out, err);
  if (pid < 0) return result;
  const auto deadline = std::chrono::steady_clock::now() + kLongestRun;
  int status = 0;
  bool ended = false;
  while (!ended && std::chrono::steady_clock::now() < deadline) {
    serve();
    ended = waitpid(pid, &status, WNOHANG) == pid;
  }
  if (!ended) {
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
  }
  if (ended && WIFEXITED(status)) result.status = WEXITSTATUS(status);
  result.out = contents(out);
  result.err = contents(err);
  return result;
}

void Daemon::start(std::vector<std::string> arguments) {
  const std::string files = folder_.path() + "/" + name_;
  pid_ = spawn(folder_, std::move(arguments), files + ".out", files + ".err");
}

void Daemon::stop() {
  if (pid_ < 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

std::string Daemon::output() const { return contents(folder_.path() + "/" + name_ + ".out"); }
std::string Daemon::messages() const { return contents(folder_.path() + "/" + name_ + ".err"); }

Master::Master(const Folder &folder, const std::string &receiver) : Daemon(folder, "master") {
  std::ofstream config(folder.path() + "/master.conf");
  config << "agentaddress " << manager_address() << "\nrocommunity public 127.0.0.1\nmaster agentx\nagentXSocket "
         << agentx_address() << "\nagentXTimeout 60\ndontLogTCPWrappersConnects yes\n";
  config << "trap2sink " << receiver << " public\n";
}

void Master::start() {
  Daemon::start({SNMPD, "-f", "-r", "-C", "-c", folder_.path() + "/master.conf", "-I", "-smux", "-Le"});
}

}  // namespace snmp_tools
