// The device's life in its namespace, and the packets through it. A device is set up as often as its settings change,
// and again at the next tick when something of that failed; each failure is told once.
//
// Packets: encapsulate() takes a bounded number of batches a turn from the device to the core, arrive() puts one into
// it. A device that says that it is broken is no longer watched until tick() has looked whether its namespace still
// stands.
//
// Trap: the file that enter() opens keeps the namespace alive after its name has gone, so leave() has to let go of it.
#include "forwarder/vrf_site.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sys/ioctl.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace forwarder {
namespace {

constexpr uint32_t kQueue = 10000;               // packets that the device keeps while the forwarder is busy
constexpr int kBatchesATurn = 8;                 // so that one VRF does not keep the others waiting
constexpr uint32_t kAllPimRouters = 0xE000000D;  // 224.0.0.13
constexpr size_t kDatagramMax = 65535;           // bytes: the most that IPv4 has
constexpr int kDatagramsATurn = 64;              // a bound; PIM and Join datagrams are few
constexpr size_t kDestination = 16;              // byte offset in an IPv4 header

Descriptor make_device(const std::string &name) {
  Descriptor device(::open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC));
  ifreq request{};
  request.ifr_flags = IFF_TUN | IFF_NO_PI;
  name.copy(request.ifr_name, IFNAMSIZ - 1);
  return device && ::ioctl(device.get(), TUNSETIFF, &request) == 0 ? std::move(device) : Descriptor();
}

// Customers' packets come from sources that the tunnel leads to by no route of its own, and IPv6 has no business there.
void set_sysctl(const std::string &path, const char *value) {
  const Descriptor file(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
  if (file && ::write(file.get(), value, std::strlen(value)) < 0) return;  // the kernel's default stays
}

}  // namespace

VrfSite::VrfSite(Poller &poller, const Namespaces &namespaces, CoreSite &core, State &state, Vrf &vrf,
                 Callbacks callbacks)
    : poller_(poller),
      namespaces_(namespaces),
      core_(core),
      state_(state),
      vrf_(vrf),
      callbacks_(std::move(callbacks)) {
  enter();
  if (!namespace_)
    callbacks_.event("VRF " + vrf_.name + ": there is no namespace " + vrf_.netns + "; it is waited for");
}

VrfSite::~VrfSite() {
  callbacks_ = {};
  leave();
}

void VrfSite::fail(const std::string &what) {
  const std::string text = "VRF " + vrf_.name + ": " + what + ": " + std::strerror(errno);
  retry_ = true;
  if (text != last_failure_ && callbacks_.event) callbacks_.event(text + "; tried again");
  last_failure_ = text;
}

// ---------------------------------------------------------------------------------------------------------- namespace

void VrfSite::enter() {
  namespace_ = namespaces_.open(vrf_.netns, &id_);
  if (!namespace_) return;
  KernelView::Callbacks seen = callbacks_.view;
  seen.interface_changed = [this, tell = seen.interface_changed](const KernelInterface &interface) {
    tell(interface);
    if (interface.name == device_name_) tell_tunnel();
  };
  try {
    namespaces_.within(namespace_, [&] { view_ = std::make_unique<KernelView>(std::move(seen)); });
  } catch (const std::runtime_error &error) {
    callbacks_.event("VRF " + vrf_.name + ": " + error.what());
  }
  if (view_ == nullptr) {
    namespace_ = Descriptor();
    return;
  }
  callbacks_.event("VRF " + vrf_.name + ": namespace " + vrf_.netns + " is there");
  poller_.watch(view_->descriptor(), [this] { view_->read_changes(); });
  view_->start();
  follow_tunnel();
}

void VrfSite::leave() {
  close_device();
  if (view_ == nullptr) return;
  poller_.forget(view_->descriptor());
  const std::unique_ptr<KernelView> former = std::move(view_);
  namespace_ = Descriptor();
  if (!callbacks_.event) return;
  for (const auto &[key, route] : former->routes()) callbacks_.view.route_changed(key, nullptr);
  for (const auto &[index, interface] : former->interfaces()) callbacks_.view.interface_gone(interface.name);
  callbacks_.event("VRF " + vrf_.name + ": namespace " + vrf_.netns + " is gone");
}

void VrfSite::tick() {
  const NamespaceId now = namespaces_.identify(vrf_.netns);
  if (view_ != nullptr && !(now == id_)) leave();
  if (view_ == nullptr && now.inode != 0) enter();
  if (view_ != nullptr) view_->tick();
  if (std::exchange(retry_, false)) follow_tunnel();
}

void VrfSite::repeat() const {
  if (view_ != nullptr) view_->repeat();
}

// ------------------------------------------------------------------------------------------------------------- device

void VrfSite::follow_tunnel() {
  const bool wanted = vrf_.tunnel && view_ != nullptr;
  if (device_ && (!wanted || vrf_.tunnel->device != device_name_)) close_device();
  if (!wanted) return;
  if (!device_) open_device();
  if (device_) set_up_device();
}

void VrfSite::open_device() {
  const std::string name = vrf_.tunnel->device;
  namespaces_.within(namespace_, [&] {
    device_ = make_device(name);
    if (!device_) return fail("cannot make " + name);
    set_sysctl("/proc/sys/net/ipv4/conf/" + name + "/rp_filter", "0");
    set_sysctl("/proc/sys/net/ipv6/conf/" + name + "/disable_ipv6", "1");
  });
  if (!device_) return;
  device_name_ = name;
  poller_.watch(device_.get(), [this] { encapsulate(); });
  view_->read_changes();
}

// The address before the device comes up, so that a routing daemon finds both at once.
void VrfSite::set_up_device() {
  const TunnelSettings &wanted = *vrf_.tunnel;
  view_->read_changes();
  const KernelInterface *interface = view_->find(device_name_);
  if (interface == nullptr) return close_device();
  const int index = interface->index;
  if (device_source_ != 0 && device_source_ != wanted.source) view_->remove_address(index, device_source_);
  if (wanted.source != 0 && !view_->add_address(index, wanted.source))
    return fail("cannot set the address of " + device_name_);
  device_source_ = wanted.source;
  if (!view_->set_link(index, wanted.up, wanted.mtu, kQueue)) return fail("cannot set up " + device_name_);
  if (wanted.up && !socket_) open_socket();
  if (!wanted.up && socket_) {
    poller_.forget(socket_.get());
    socket_ = Descriptor();
  }
  last_failure_.clear();
  view_->read_changes();
  tell_tunnel();
}

void VrfSite::open_socket() {
  namespaces_.within(namespace_, [&] {
    socket_ = Descriptor(::socket(AF_INET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_UDP));
    const int on = 1, off = 0;
    ip_mreqn group{};
    group.imr_multiaddr.s_addr = htonl(kAllPimRouters);
    group.imr_ifindex = static_cast<int>(::if_nametoindex(device_name_.c_str()));
    const int fd = socket_.get();
    const bool opened = fd >= 0 &&
                        ::setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, device_name_.data(),
                                     static_cast<socklen_t>(device_name_.size())) == 0 &&
                        ::setsockopt(fd, IPPROTO_IP, IP_HDRINCL, &on, sizeof on) == 0 &&
                        ::setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &group, sizeof group) == 0 &&
                        ::setsockopt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, &off, sizeof off) == 0 &&
                        ::setsockopt(fd, IPPROTO_IP, IP_MULTICAST_ALL, &off, sizeof off) == 0 &&
                        ::setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group) == 0;
    if (opened) return;
    fail("cannot open a socket on " + device_name_);
    socket_ = Descriptor();
  });
  if (socket_) poller_.watch(socket_.get(), [this] { take_datagrams(); });
}

void VrfSite::close_device() {
  if (socket_) poller_.forget(socket_.get());
  if (device_) poller_.forget(device_.get());
  socket_ = Descriptor();
  device_ = Descriptor();
  device_name_.clear();
  device_source_ = 0;
  if (view_ != nullptr && callbacks_.event) view_->read_changes();
  tell_tunnel();
}

void VrfSite::tell_tunnel() {
  const KernelInterface *interface = device_ && view_ != nullptr ? view_->find(device_name_) : nullptr;
  const bool up = interface != nullptr && interface->up;
  if (std::exchange(told_up_, up) != up && callbacks_.tunnel_state) callbacks_.tunnel_state(up);
}

// ------------------------------------------------------------------------------------------------------------ packets

// Reads a batch, then looks its flows up. The memory that a flow stands in is asked for as soon as its packet is read,
// so that it arrives while the kernel hands out the next ones. False: there was no more than that.
bool VrfSite::encapsulate_batch() {
  constexpr size_t line = 64;  // of the cache
  std::array<std::span<uint8_t>, kBatch> datagrams;
  size_t count = 0;
  uint8_t *at = core_.room();
  const uint8_t *const end = at + CoreSite::kRoom - kOuterSize - kCustomerMax;
  for (; count < kBatch && at <= end; count++) {
    const ssize_t size = ::read(device_.get(), at + kOuterSize, kCustomerMax);
    if (size <= 0) {
      if (size < 0 && errno != EAGAIN && errno != EINTR) fail_device();
      break;
    }
    datagrams[count] = {at + kOuterSize, static_cast<size_t>(size)};
    State::prefetch(vrf_, datagrams[count]);
    at += (kOuterSize + static_cast<size_t>(size) + line - 1) / line * line;
  }
  for (size_t i = 0; i < count; i++)
    if (Encapsulation *encapsulation = state_.choose(vrf_, datagrams[i]))
      core_.queue(vrf_, *encapsulation, datagrams[i]);
  core_.flush();
  return count == kBatch;
}

void VrfSite::encapsulate() {
  int left = kBatchesATurn;
  while (left-- > 0 && encapsulate_batch()) {
  }
}

// The device's namespace is being taken down; tick() sees to it.
void VrfSite::fail_device() {
  poller_.forget(device_.get());
  retry_ = true;
}

void VrfSite::arrive(std::span<const uint8_t> datagram) {
  if (device_ && ::write(device_.get(), datagram.data(), datagram.size()) == static_cast<ssize_t>(datagram.size()))
    vrf_.received.count(datagram.size());
  else
    vrf_.drops[static_cast<size_t>(Drop::no_tunnel)]++;
}

bool VrfSite::send(std::span<const uint8_t> datagram) const {
  if (!socket_ || datagram.size() < kCustomerHeaderMin) return false;
  sockaddr_in to{};
  to.sin_family = AF_INET;
  std::memcpy(&to.sin_addr, &datagram[kDestination], sizeof to.sin_addr);
  return ::sendto(socket_.get(), datagram.data(), datagram.size(), MSG_DONTWAIT,
                  reinterpret_cast<const sockaddr *>(&to), sizeof to) == static_cast<ssize_t>(datagram.size());
}

void VrfSite::take_datagrams() {
  static std::array<uint8_t, kDatagramMax> buffer;
  for (int i = 0; i < kDatagramsATurn && socket_; i++) {
    const ssize_t size = ::recv(socket_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (size < 0) return;
    const std::span<const uint8_t> datagram(buffer.data(), static_cast<size_t>(size));
    // The control plane is told of nothing that a tunnel could not have carried: a datagram that was put together from
    // fragments may be longer than a message to it may be, and one that cannot be told ends the session.
    Customer header;
    if (datagram.size() > kCustomerMax || inspect_customer(datagram, &header)) continue;
    if (header.group == kAllPimRouters) callbacks_.datagram(datagram);
  }
}

}  // namespace forwarder
