// A thread belongs to one network namespace at a time, and a socket stays in the one that it was made in. The
// forwarder's one thread is in the core's namespace and enters others only to make sockets and devices there.
#include "forwarder/netns.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/vfs.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace forwarder {
namespace {

// A file that `ip netns` has made and not yet bound to a namespace is an empty ordinary one.
bool is_namespace(int descriptor) {
  struct statfs system {};
  return ::fstatfs(descriptor, &system) == 0 && system.f_type == NSFS_MAGIC;
}

}  // namespace

Namespaces::Namespaces(std::string folder, const std::string &core) : folder_(std::move(folder)) {
  const std::string path = core.empty() ? "/proc/self/ns/net" : path_of(core);
  core_ = Descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!core_ || !is_namespace(core_.get()))
    throw std::runtime_error("namespace of the core: " + path + ": " + (core_ ? "is none" : std::strerror(errno)));
  if (!core.empty() && ::setns(core_.get(), CLONE_NEWNET) != 0)
    throw std::runtime_error("namespace of the core: " + path + ": " + std::strerror(errno));
}

std::string Namespaces::path_of(const std::string &name) const {
  return name.find('/') == std::string::npos ? folder_ + "/" + name : name;
}

Descriptor Namespaces::open(const std::string &name, NamespaceId *id) const {
  Descriptor opened(::open(path_of(name).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status {};
  if (!opened || !is_namespace(opened.get()) || ::fstat(opened.get(), &status) != 0) return Descriptor();
  *id = {status.st_dev, status.st_ino};
  return opened;
}

NamespaceId Namespaces::identify(const std::string &name) const {
  struct stat status {};
  struct statfs system {};
  const std::string path = path_of(name);
  if (::statfs(path.c_str(), &system) != 0 || system.f_type != NSFS_MAGIC || ::stat(path.c_str(), &status) != 0)
    return {};
  return {status.st_dev, status.st_ino};
}

bool Namespaces::within(const Descriptor &entered, const std::function<void()> &work) const {
  if (::setns(entered.get(), CLONE_NEWNET) != 0) return false;
  work();
  // The way back is a namespace that this process holds open.
  if (::setns(core_.get(), CLONE_NEWNET) != 0) throw std::runtime_error("the namespace of the core cannot be entered");
  return true;
}

}  // namespace forwarder
