// Waits for descriptors and calls who watches them. One thread.
#ifndef FORWARDER_POLLER_H
#define FORWARDER_POLLER_H

#include <functional>
#include <map>
#include <memory>

#include "forwarder/descriptor.h"

namespace forwarder {

class Poller {
 public:
  Poller();

  // Calls `ready` while the descriptor is readable; with `writable` also while it takes more. Watching it again
  // replaces both. The descriptor is forgotten with forget(), which may be called from inside `ready`, its own
  // included.
  void watch(int descriptor, std::function<void()> ready, bool writable = false);
  void forget(int descriptor);

  // Waits for at most so long, and calls who is ready.
  void wait(int milliseconds);

 private:
  struct Watch {
    std::function<void()> ready;
  };
  Descriptor epoll_;
  std::map<int, std::shared_ptr<Watch>> watches_;
};

}  // namespace forwarder

#endif  // FORWARDER_POLLER_H
