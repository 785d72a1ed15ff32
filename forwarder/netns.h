// Network namespaces by name, as `ip netns` keeps them: a file for each in a folder.
//
// A name may lead to another namespace tomorrow, and an open device or socket keeps a deleted namespace alive without a
// sign of it. What tells namespaces apart is the device and inode of the file that the name leads to.
#ifndef FORWARDER_NETNS_H
#define FORWARDER_NETNS_H

#include <sys/types.h>

#include <functional>
#include <string>

#include "forwarder/descriptor.h"

namespace forwarder {

struct NamespaceId {
  // The file that stands for the namespace. The pair is the namespace's own as long as somebody holds it open;
  // afterwards another one may get it.
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(const NamespaceId &) const = default;
};

class Namespaces {
 public:
  // core: name or path of the core's namespace; empty: the one that the process is in. Throws std::runtime_error when
  // it cannot be opened. The process is in the core's namespace from then on.
  Namespaces(std::string folder, const std::string &core);

  // Opens a namespace and tells which it is; nothing when there is none under this name. name: a file's name in the
  // folder, or a path.
  Descriptor open(const std::string &name, NamespaceId *id) const;
  // Which namespace a name leads to; all 0: none.
  NamespaceId identify(const std::string &name) const;
  // Calls `work` in a namespace, and comes back. False when it cannot be entered.
  bool within(const Descriptor &entered, const std::function<void()> &work) const;

 private:
  std::string path_of(const std::string &name) const;

  std::string folder_;
  Descriptor core_;
};

}  // namespace forwarder

#endif  // FORWARDER_NETNS_H
