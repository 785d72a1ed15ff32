// One network namespace as the kernel sees it, by routing netlink: its interfaces, its multicast routes, its unicast
// routes towards sources.
//
// Changes are followed by notifications. When those overflow, everything is read again and compared, so that what the
// callbacks tell is complete in the end. Unicast routes are not copied: when any of them changes the way to each
// customer source is looked up again, at most once a tick.
#ifndef FORWARDER_KERNEL_VIEW_H
#define FORWARDER_KERNEL_VIEW_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

struct mnl_socket;
struct nlmsghdr;

namespace forwarder {

struct KernelInterface {
  int index = 0;                    // the kernel's, above 0
  std::string name;                 // at most 15 characters
  bool up = false;                  // administratively, and carrying
  bool loopback = false;            // core packets are never received there
  bool ethernet = false;            // frames with a MAC address
  bool forwards_multicast = false;  // a routing daemon of the namespace has it
  uint32_t mtu = 0;                 // bytes of an IP packet
  std::vector<uint32_t> addresses;  // host byte order, in the kernel's order
  std::vector<uint8_t> lengths;     // of the networks that the addresses stand in, in bits
  // Whether an address is one of a network that the interface is connected to.
  bool is_connected_to(uint32_t address) const;
  bool operator==(const KernelInterface &) const = default;
};

struct RouteKey {       // host byte order
  uint32_t source = 0;  // 0: any
  uint32_t group = 0;   // never 0
  auto operator<=>(const RouteKey &) const = default;
};
struct KernelRoute {
  // Names of interfaces of the namespace; those that are gone are left out. outgoing is in alphabetical order and has
  // each once.
  std::string incoming;
  std::vector<std::string> outgoing;
  uint32_t rpf_neighbor = 0;  // the source itself when it is directly connected; 0: no route
  bool operator==(const KernelRoute &) const = default;
};
struct RouteTraffic {
  RouteKey key;                     // which route
  uint64_t packets = 0, bytes = 0;  // since the kernel has the route, IPv4 headers included
};

struct NextHop {
  int interface = 0;     // index; 0: none
  uint32_t gateway = 0;  // 0: directly connected
};

class KernelView {
 public:
  struct Callbacks {
    std::function<void(const KernelInterface &)> interface_changed;  // new, or changed
    std::function<void(const std::string &name)> interface_gone;     // behind the changes of the routes that named it
    std::function<void(const RouteKey &, const KernelRoute *)> route_changed;  // null: gone
    std::function<void()> ways_changed;                                        // interfaces or unicast routes
  };

  // Opens its sockets in the namespace that the process is in. Throws std::runtime_error.
  explicit KernelView(Callbacks callbacks);
  ~KernelView();
  KernelView(const KernelView &) = delete;
  KernelView &operator=(const KernelView &) = delete;

  // Reads everything and tells what is there.
  void start();
  // Readable when something changed; then read_changes().
  int descriptor() const;
  void read_changes();
  // A few times a second: looks the ways to sources up again when unicast routes have changed.
  void tick();
  // Tells everything once more.
  void repeat() const;

  const std::map<int, KernelInterface> &interfaces() const { return interfaces_; }
  const KernelInterface *find(const std::string &name) const;
  const std::map<RouteKey, KernelRoute> &routes() const { return routes_; }

  // Requests; empty results and false: the kernel refused.
  std::optional<NextHop> way_to(uint32_t address) const;
  std::vector<RouteTraffic> traffic() const;  // of multicast routes
  bool set_link(int index, bool up, uint32_t mtu, uint32_t queue) const;
  bool add_address(int index, uint32_t address) const;  // with a 32-bit mask
  bool remove_address(int index, uint32_t address) const;

 private:
  struct Closer {
    void operator()(mnl_socket *socket) const;
  };
  using Socket = std::unique_ptr<mnl_socket, Closer>;
  struct RawRoute {
    int incoming = 0;           // index
    std::vector<int> outgoing;  // indexes, as the kernel lists them
  };

  static Socket open_socket(uint32_t groups);
  bool transact(nlmsghdr *request, const std::function<void(const nlmsghdr *)> &answer) const;
  bool dump(uint16_t type, uint8_t family, const std::function<void(const nlmsghdr *)> &each) const;
  void resynchronise();
  void take(const nlmsghdr *message);
  void take_link(const nlmsghdr *message);
  void take_address(const nlmsghdr *message);
  void take_settings(const nlmsghdr *message);
  void take_route(const nlmsghdr *message);
  void tell();
  KernelRoute described(const RouteKey &key, const RawRoute &raw) const;
  std::string name_of(int index) const;

  Callbacks callbacks_;
  Socket monitor_, requests_;
  mutable uint32_t sequence_ = 0;
  std::map<int, KernelInterface> interfaces_;
  std::map<RouteKey, RawRoute> raw_;
  std::map<RouteKey, KernelRoute> routes_;  // as told
  std::map<std::string, KernelInterface> told_;
  std::set<RouteKey> touched_;
  bool ways_changed_ = false;
};

}  // namespace forwarder

#endif  // FORWARDER_KERNEL_VIEW_H
