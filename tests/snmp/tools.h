// Child processes of the SNMP tests: the tools, and a master agent of their own.
#ifndef TESTS_SNMP_TOOLS_H
#define TESTS_SNMP_TOOLS_H

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace snmp_tools {

// A folder that goes away with its contents.
class Folder {
 public:
  Folder();
  ~Folder();
  Folder(const Folder &) = delete;
  Folder &operator=(const Folder &) = delete;
  const std::string &path() const { return path_; }

 private:
  std::string path_;
};

struct Result {
  int status = -1;       // exit status; -1 when the process had to be ended
  std::string out, err;  // what it wrote to standard output and error
  std::vector<std::string> lines() const;
};

// Runs a program to its end, at most half a minute. serve is called while it runs, again and again.
Result run(const Folder &folder, std::vector<std::string> arguments, const std::function<void()> &serve);

// A daemon of Debian's on loopback, with a configuration of its own. Its files in the folder begin with its name.
class Daemon {
 public:
  Daemon(const Folder &folder, std::string name);
  ~Daemon() { stop(); }
  Daemon(const Daemon &) = delete;
  Daemon &operator=(const Daemon &) = delete;

  void start(std::vector<std::string> arguments);
  void stop();  // at once, as in a crash
  std::string output() const;
  std::string messages() const;
  uint16_t port() const { return port_; }  // UDP, for it to listen on

 protected:
  const Folder &folder_;

 private:
  std::string name_;
  uint16_t port_;
  pid_t pid_ = -1;
};

// snmpd.
class Master : private Daemon {
 public:
  // receiver: UDP port that notifications are sent to; 0: none.
  explicit Master(const Folder &folder, uint16_t receiver = 0);

  void start();
  using Daemon::messages;
  using Daemon::stop;
  std::string manager_address() const { return "udp:127.0.0.1:" + std::to_string(port()); }
  std::string agentx_address() const { return "unix:" + folder_.path() + "/agentx"; }
};

}  // namespace snmp_tools

#endif  // TESTS_SNMP_TOOLS_H
