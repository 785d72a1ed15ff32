// Child processes of the SNMP tests: the tools, and a master agent of their own.
#ifndef TESTS_SNMP_TOOLS_H
#define TESTS_SNMP_TOOLS_H

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/support/own_address.h"

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

// Runs a program to its end, at most a minute and a half. serve is called while it runs, again and again.
Result run(const Folder &folder, std::vector<std::string> arguments, const std::function<void()> &serve);

// A daemon of Debian's on loopback, with a configuration of its own. Its files in the folder begin with its name.
class Daemon {
 public:
  Daemon(const Folder &folder, std::string name) : folder_(folder), name_(std::move(name)) {}
  ~Daemon() { stop(); }
  Daemon(const Daemon &) = delete;
  Daemon &operator=(const Daemon &) = delete;

  void start(std::vector<std::string> arguments);
  void stop();  // at once, as in a crash
  std::string output() const;
  std::string messages() const;

 protected:
  const Folder &folder_;

 private:
  std::string name_;
  pid_t pid_ = -1;
};

// snmpd.
class Master : private Daemon {
 public:
  // receiver: where notifications are sent to, "ADDRESS:PORT".
  Master(const Folder &folder, const std::string &receiver);

  void start();
  using Daemon::messages;
  using Daemon::stop;
  std::string manager_address() const { return "udp:" + own_address_text(0) + ":1161"; }
  std::string agentx_address() const { return "unix:" + folder_.path() + "/agentx"; }
};

}  // namespace snmp_tools

#endif  // TESTS_SNMP_TOOLS_H
