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
  int status = -1;  // exit status; -1 when the process had to be ended
  std::string out, err;
  std::vector<std::string> lines() const;
};

// Runs a program to its end, at most half a minute. serve is called while it runs, again and again.
Result run(const Folder &folder, std::vector<std::string> arguments, const std::function<void()> &serve);

// Debian's snmpd on loopback, with a configuration of its own.
class Master {
 public:
  explicit Master(const Folder &folder);
  ~Master() { stop(); }
  Master(const Master &) = delete;
  Master &operator=(const Master &) = delete;

  void start();
  void stop();  // at once, as in a crash
  std::string manager_address() const { return "udp:127.0.0.1:" + std::to_string(port_); }
  std::string agentx_address() const { return "unix:" + folder_.path() + "/agentx"; }
  std::string messages() const;

 private:
  const Folder &folder_;
  uint16_t port_;
  pid_t pid_ = -1;
};

}  // namespace snmp_tools

#endif  // TESTS_SNMP_TOOLS_H
