// Sockets of the host's IP stack, as far as the module needs them: datagram sockets that hear what arrives on the
// interfaces of every VRF, with the receiving interface's ordinal in the source address.
//
// A receiver blocks without the scheduling locks, so this state has a lock of its own. Receiving is a cancellation
// point. The wait is made known to the scheduler like any wait on a condition, so that it can tell a receiver that
// sleeps from one that has something to do. Queues are bounded; what finds a queue full is dropped, as on any socket.
#include "platform/sockets.h"

#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <span>

#include "platform/reference/services.h"
#include "platform/reference/testing/runtime.h"
#include "platform/reference/testing/services.h"
#include "platform/reference/wire.h"

namespace ref {
namespace {

constexpr size_t queue_max = 1024;         // datagrams
constexpr size_t sockets_max = 16;         // a bound; the module needs one
constexpr uint16_t all_contexts = 0xFFFF;  // QUILLON_IP_CONTEXT

enum Ipv4Offset { ip_version_ihl = 0, ip_source = 12, ip_size_min = 20 };
enum UdpOffset { udp_source = 0, udp_size = 8 };
enum ContextOption { context_number = 2, context_size = 4 };

struct Datagram {
  im_iod_t iod;
  std::vector<uint8_t> bytes;  // from the IP header on
};

struct Socket {
  std::deque<Datagram> queue;
  std::vector<SocketOption> options;
  uint16_t port = 0;  // 0: not bound
  uint16_t context = VRF_CONTEXT_ID_DEFAULT;
  bool with_header = false;
};

struct State {
  bool set_up = false;
  std::map<int, Socket> sockets;
  std::vector<SocketOption> latest_options;  // outlive their socket
  uint32_t failing_receives = 0;
};
State state;
int next_descriptor = 1000;  // descriptors are not used again, so that a late call cannot hit another socket

pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t arrival = PTHREAD_COND_INITIALIZER;
size_t waiting = 0;  // receivers

// Releases the lock on every way out, cancellation included.
class Locked {
 public:
  Locked() { pthread_mutex_lock(&mutex); }
  ~Locked() { pthread_mutex_unlock(&mutex); }
  Locked(const Locked &) = delete;
  Locked &operator=(const Locked &) = delete;
};

int fail(int error) {
  errno = error;
  return -1;
}

Socket *find_socket(int descriptor) {
  const auto found = state.sockets.find(descriptor);
  return found == state.sockets.end() ? nullptr : &found->second;
}

// With the lock held. Awakenings for nothing are harmless: receivers look again. The scheduler takes one note for one
// sleeper.
void wake_receivers() {
  for (size_t i = 0; i < waiting; i++) note_condition_signal(&arrival);
  pthread_cond_broadcast(&arrival);
}

// Counts a receiver while it waits, until it wakes or is cancelled.
class Waiting {
 public:
  Waiting() {
    waiting++;
    note_condition_wait(&arrival);
  }
  ~Waiting() {
    note_condition_woken(&arrival);
    waiting--;
  }
  Waiting(const Waiting &) = delete;
  Waiting &operator=(const Waiting &) = delete;
};

void wait_for_arrival() {
  const Waiting counted;
  pthread_cond_wait(&arrival, &mutex);
}

quillon_sockaddr_in source_of(const Datagram &datagram) {
  quillon_sockaddr_in source{};
  source.family = QUILLON_AF_INET;
  source.iod = static_cast<uint16_t>(datagram.iod);
  const std::vector<uint8_t> &bytes = datagram.bytes;
  if (bytes.size() < ip_size_min) return source;
  std::memcpy(&source.address, &bytes[ip_source], sizeof source.address);
  const size_t header = size_t{bytes[ip_version_ihl] & 0x0Fu} * 4;
  if (bytes.size() >= header + udp_size) std::memcpy(&source.port, &bytes[header + udp_source], sizeof source.port);
  return source;
}

// Bytes that a receiver sees: without IP_HDRINCL the UDP payload alone.
std::span<const uint8_t> visible(const Socket &socket, const Datagram &datagram) {
  const std::span<const uint8_t> bytes(datagram.bytes);
  if (socket.with_header || bytes.empty()) return bytes;
  return bytes.subspan(std::min(bytes.size(), size_t{bytes[ip_version_ihl] & 0x0Fu} * 4 + udp_size));
}

ssize_t take_datagram(Socket &socket, void *buffer, size_t length, quillon_sockaddr_in *source,
                      uint32_t *source_length) {
  const Datagram datagram = std::move(socket.queue.front());
  socket.queue.pop_front();
  const std::span<const uint8_t> bytes = visible(socket, datagram);
  const size_t copied = std::min(length, bytes.size());
  if (copied > 0) std::memcpy(buffer, bytes.data(), copied);
  if (source != nullptr && source_length != nullptr) {
    const quillon_sockaddr_in from = source_of(datagram);
    std::memcpy(source, &from, std::min<size_t>(*source_length, sizeof from));
    *source_length = sizeof from;
  }
  return static_cast<ssize_t>(copied);
}

bool apply_option(Socket &socket, const SocketOption &option) {
  if (option.level == QUILLON_IPPROTO_UDP && option.option == QUILLON_IP_HDRINCL && option.value.size() == 4) {
    socket.with_header = std::any_of(option.value.begin(), option.value.end(), [](uint8_t byte) { return byte != 0; });
    return true;
  }
  if (option.level == QUILLON_IPPROTO_IP && option.option == QUILLON_IP_CONTEXT &&
      option.value.size() == context_size) {
    socket.context = wire::load_host<uint16_t>(&option.value[context_number]);
    return true;
  }
  return option.level == QUILLON_SOL_SOCKET && option.option == QUILLON_SO_OPTION_32 && option.value.size() == 4;
}

bool hears(const Socket &socket, im_iod_t iod) {
  if (socket.port == 0) return false;
  return socket.context == all_contexts || socket.context == l3vm_if_get_context_id(iod);
}

}  // namespace

void socket_reset() {
  const Locked locked;
  state = State{};
  wake_receivers();
}

void socket_deliver(im_iod_t iod, const uint8_t *datagram, size_t size) {
  const Locked locked;
  for (auto &[descriptor, socket] : state.sockets)
    if (hears(socket, iod) && socket.queue.size() < queue_max)
      socket.queue.push_back({iod, std::vector<uint8_t>(datagram, datagram + size)});
  wake_receivers();
}

bool socket_listens(uint16_t port) {
  const Locked locked;
  return std::any_of(state.sockets.begin(), state.sockets.end(),
                     [port](const auto &item) { return item.second.port == port; });
}

void socket_fail_receives(uint32_t n) {
  const Locked locked;
  state.failing_receives = n;
  if (n > 0) wake_receivers();
}

std::vector<SocketOption> socket_options() {
  const Locked locked;
  return state.latest_options;
}

}  // namespace ref

extern "C" {

int tcp_setup(const char *process, const char *queue_path) {
  const ref::Locked locked;
  ref::state.set_up = process != nullptr && queue_path != nullptr;
  return ref::state.set_up ? 1 : 0;
}

int quillon_socket(int domain, int type, int) {
  const ref::Locked locked;
  if (!ref::state.set_up) return ref::fail(ENETDOWN);
  if (domain != QUILLON_AF_INET) return ref::fail(EAFNOSUPPORT);
  if (type != QUILLON_SOCK_DGRAM) return ref::fail(EPROTONOSUPPORT);
  if (ref::state.sockets.size() >= ref::sockets_max) return ref::fail(EMFILE);
  ref::state.latest_options.clear();
  ref::state.sockets[ref::next_descriptor];
  return ref::next_descriptor++;
}

int quillon_setsockopt(int socket, int level, int option, const void *value, uint32_t length) {
  const ref::Locked locked;
  ref::Socket *found = ref::find_socket(socket);
  if (found == nullptr) return ref::fail(EBADF);
  const auto *bytes = static_cast<const uint8_t *>(value);
  ref::SocketOption wanted{level, option, std::vector<uint8_t>(bytes, bytes + length)};
  if (!ref::apply_option(*found, wanted)) return ref::fail(ENOPROTOOPT);
  ref::state.latest_options.push_back(std::move(wanted));
  return 0;
}

int quillon_bind(int socket, const quillon_sockaddr_in *address, uint32_t length) {
  const ref::Locked locked;
  ref::Socket *found = ref::find_socket(socket);
  if (found == nullptr) return ref::fail(EBADF);
  uint8_t port_bytes[2];
  std::memcpy(port_bytes, &address->port, sizeof port_bytes);
  const uint16_t port = ref::wire::load_be16(port_bytes);
  if (length < sizeof *address || port == 0 || found->port != 0) return ref::fail(EINVAL);
  for (const auto &[descriptor, other] : ref::state.sockets)
    if (other.port == port) return ref::fail(EADDRINUSE);
  found->port = port;
  return 0;
}

ssize_t quillon_recvfrom(int socket, void *buffer, size_t length, int, quillon_sockaddr_in *source,
                         uint32_t *source_length) {
  pthread_testcancel();
  const ref::Locked locked;
  while (true) {
    ref::Socket *found = ref::find_socket(socket);
    if (found == nullptr) return ref::fail(EBADF);
    if (ref::state.failing_receives > 0) {
      ref::state.failing_receives--;
      return ref::fail(EINTR);
    }
    if (!found->queue.empty()) return ref::take_datagram(*found, buffer, length, source, source_length);
    ref::wait_for_arrival();
  }
}

int quillon_close(int socket) {
  const ref::Locked locked;
  if (ref::state.sockets.erase(socket) == 0) return ref::fail(EBADF);
  ref::wake_receivers();
  return 0;
}

}  // extern "C"
