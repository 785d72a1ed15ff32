// The forwarder in the core's namespace: where core packets leave and arrive, and what it has joined.
//
// Packets leave a batch at a time, on the interface that has their source: one socket for each such interface. On
// Ethernet that is a packet socket: a group says what its frames are addressed to, and the kernel is spared looking up
// a route for each packet, a third of the whole work. A raw socket serves other interfaces; those that a routing daemon
// of the namespace forwards multicast on, since it must see what this PE sends; and, when no interface has the source,
// the route to the group. Headers are ours on both. They arrive on one raw socket that joins nothing: a socket without
// memberships is given everything that the namespace takes in, so a packet arrives once, and the kernel does not search
// lists of memberships for each. The memberships stand on sockets of their own, which receive nothing. What other
// programs of the namespace have joined arrives as well and is dropped as unknown.
//
// A single source is joined on the interface that the route to it leads to; where several links are connected to the
// source's network the routes do not tell them apart, and it is the link of the VRF's own source. Any source is joined
// on every interface of the core but the loopback. Both follow the routes, the interfaces and the tunnels.
#ifndef FORWARDER_CORE_SITE_H
#define FORWARDER_CORE_SITE_H

#include <linux/if_packet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "forwarder/descriptor.h"
#include "forwarder/kernel_view.h"
#include "forwarder/memberships.h"
#include "forwarder/poller.h"
#include "forwarder/state.h"

namespace forwarder {

constexpr size_t kBatch = 64;  // packets of a system call

class CoreSite {
 public:
  struct Callbacks {
    KernelView::Callbacks view;                                    // ways_changed is the site's own
    std::function<void(Vrf &, std::span<const uint8_t>)> arrived;  // a customer datagram, valid during the call
    std::function<void(const std::string &)> event;                // one line, for the list of events
  };

  // The process is in the core's namespace. Throws std::runtime_error when a socket cannot be opened.
  CoreSite(Poller &poller, State &state, Callbacks callbacks);
  ~CoreSite();

  KernelView &view() { return *view_; }
  void tick();

  // The interface that core packets leave by; empty: the one that has their source.
  void set_interface(const std::string &name);

  // A tunnel's source has changed: memberships are looked at again at the next tick.
  void look_again() { ways_changed_ = true; }
  // A core route came, changed or went.
  void follow(const CoreKey &key, bool present);
  void follow_pass(const CoreKey &key, const Vrf &from, const Vrf &to);
  // Where a core route is joined; nothing: not at all. Empty name: on every interface of the core.
  struct Joined {
    std::string interface;  // its name; empty: any source, or the interface has gone
    bool joined = false;    // the kernel took every membership of it
  };
  Joined joined(const CoreKey &key) const;

  // Room for the packets of a batch. Each has kOuterSize bytes in front of it for the outer header, then at most
  // kCustomerMax. They stand close together: packets that are pages apart would push each other out of the cache.
  uint8_t *room() { return buffer_.get(); }
  // A batch of packets of ordinary size, and a largest one behind them: 2048 bytes are an Ethernet frame's rounded up.
  // When packets are larger a batch has fewer.
  static constexpr size_t kRoom = kBatch * 2048 + kOuterSize + kCustomerMax;

  // Adds a customer datagram in the room to what flush() sends.
  void queue(Vrf &vrf, Encapsulation &encapsulation, std::span<uint8_t> datagram);
  void flush();

 private:
  struct Sender {
    Descriptor socket;
    int interface = 0;  // 0: by the route to the group
    bool frames = false;
  };
  union Destination {
    sockaddr_in address;
    sockaddr_ll frame;
  };

  void open_receiver();
  void receive();
  const Sender *sender_for(uint32_t source);
  Sender open_sender(int interface) const;
  void address(size_t at, uint32_t group);
  void send_failed(size_t at, int error);
  void send_in_parts(size_t at);
  void forget_senders();

  int interface_of(uint32_t source) const;
  std::set<int> interfaces_for(const CoreKey &key) const;
  int preferred(const CoreKey &key, int interface) const;
  void refresh_memberships();
  void apply(const std::vector<MembershipPlan::Step> &steps);
  bool set_membership(const MembershipPlan::Step &step);

  Poller &poller_;
  State &state_;
  Callbacks callbacks_;
  std::unique_ptr<KernelView> view_;
  bool ways_changed_ = false;
  std::string interface_;

  Descriptor receiver_;
  std::unique_ptr<uint8_t[]> arrivals_;

  std::map<int, Sender> senders_;                 // by interface
  std::map<uint32_t, const Sender *> sender_of_;  // by source
  uint32_t last_source_ = 0;
  const Sender *last_sender_ = nullptr;
  std::unique_ptr<uint8_t[]> buffer_;
  std::array<mmsghdr, kBatch> messages_{};
  std::array<iovec, kBatch> parts_{};
  std::array<Destination, kBatch> destinations_{};
  std::array<Vrf *, kBatch> vrfs_{};
  size_t queued_ = 0;
  const Sender *sender_ = nullptr;  // of what is queued

  MembershipPlan plan_;
  std::vector<Descriptor> members_;
  std::map<std::pair<uint32_t, uint32_t>, std::set<int>> joined_;  // interfaces wished, by group and source
  std::set<MembershipPlan::Step> failed_;                          // joins that the kernel refused; tried again
};

}  // namespace forwarder

#endif  // FORWARDER_CORE_SITE_H
