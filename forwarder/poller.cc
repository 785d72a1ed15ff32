// epoll, level-triggered: whoever leaves something unread is called again. A watch is kept alive while it is being
// called, so that it may forget itself.
#include "forwarder/poller.h"

#include <sys/epoll.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace forwarder {

Poller::Poller() : epoll_(::epoll_create1(EPOLL_CLOEXEC)) {
  if (!epoll_) throw std::runtime_error(std::string("epoll: ") + std::strerror(errno));
}

void Poller::watch(int descriptor, std::function<void()> ready, bool writable) {
  const bool known = watches_.contains(descriptor);
  epoll_event event{};
  event.events = EPOLLIN | (writable ? uint32_t{EPOLLOUT} : 0);
  event.data.fd = descriptor;
  watches_[descriptor] = std::make_shared<Watch>(Watch{std::move(ready)});
  if (::epoll_ctl(epoll_.get(), known ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, descriptor, &event) != 0)
    throw std::runtime_error(std::string("epoll: ") + std::strerror(errno));
}

void Poller::forget(int descriptor) {
  if (watches_.erase(descriptor) != 0) ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, descriptor, nullptr);
}

// A descriptor that was closed and opened anew meanwhile is called once for nothing; all of them are non-blocking.
void Poller::wait(int milliseconds) {
  std::array<epoll_event, 64> events;
  const int count = ::epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), milliseconds);
  for (int i = 0; i < count; i++) {
    const auto found = watches_.find(events[static_cast<size_t>(i)].data.fd);
    if (found == watches_.end()) continue;
    const std::shared_ptr<Watch> kept = found->second;
    kept->ready();
  }
}

}  // namespace forwarder
