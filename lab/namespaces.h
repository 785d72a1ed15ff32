// Network namespaces of a lab run.
//
// Their names begin with the run's prefix, so that whatever an earlier run left behind, killed in the middle, is found
// and removed at the next start: its processes by the namespace that they are in, then the namespaces. Links between
// two namespaces go with them. One run at a time uses a prefix: a lock that the system takes back from a dead process.
#ifndef LAB_NAMESPACES_H
#define LAB_NAMESPACES_H

#include <string>
#include <vector>

#include "lab/process.h"

namespace lab {

class Namespaces {
 public:
  // Waits for an earlier run with the prefix to end, up to ten minutes, and removes what is left of it. Throws
  // std::runtime_error when namespaces cannot be made here.
  explicit Namespaces(std::string prefix);
  ~Namespaces();
  Namespaces(const Namespaces &) = delete;
  Namespaces &operator=(const Namespaces &) = delete;

  // Full name of a namespace of this run: PREFIX-NAME.
  std::string full(const std::string &name) const { return prefix_ + "-" + name; }
  std::string path(const std::string &name) const { return "/run/netns/" + full(name); }

  // Throw std::runtime_error with what ip said.
  void add(const std::string &name);
  // Kills what runs in it, and removes it.
  void remove(const std::string &name);

  // Runs lines of `ip -batch` in a namespace. Throws std::runtime_error with what ip said when one fails.
  void ip(const std::string &name, const std::vector<std::string> &lines) const;
  // Runs a command in a namespace.
  Result in(const std::string &name, const std::vector<std::string> &command) const;

 private:
  void lock();
  void sweep();

  std::string prefix_;
  int lock_ = -1;
};

// Why namespaces cannot be made here; empty when they can.
std::string why_no_namespaces();

}  // namespace lab

#endif  // LAB_NAMESPACES_H
