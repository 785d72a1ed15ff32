// The forwarder in a VRF's namespace: the tunnel device, and what the kernel says there.
//
// The tunnel is a TUN device: what the kernel routes into it is encapsulated, what arrives from the core comes out of
// it. The control plane's own datagrams take the same way: they are sent and received by a raw socket that is bound to
// the device, so that a capture on it shows them.
//
// The namespace is followed by name. When its file is gone, or leads to another namespace, everything is given up and
// made anew where the name leads now: an open device would go on taking packets into a namespace that nobody can see.
#ifndef FORWARDER_VRF_SITE_H
#define FORWARDER_VRF_SITE_H

#include <functional>
#include <memory>
#include <span>
#include <string>

#include "forwarder/core_site.h"
#include "forwarder/descriptor.h"
#include "forwarder/kernel_view.h"
#include "forwarder/netns.h"
#include "forwarder/poller.h"
#include "forwarder/state.h"

namespace forwarder {

class VrfSite {
 public:
  struct Callbacks {
    KernelView::Callbacks view;                              // ways_changed may be empty
    std::function<void(bool up)> tunnel_state;               // when it has changed
    std::function<void(std::span<const uint8_t>)> datagram;  // for the control plane
    std::function<void(const std::string &)> event;          // one line, for the list of events
  };

  VrfSite(Poller &poller, const Namespaces &namespaces, CoreSite &core, State &state, Vrf &vrf, Callbacks callbacks);
  ~VrfSite();
  VrfSite(const VrfSite &) = delete;
  VrfSite &operator=(const VrfSite &) = delete;

  // A few times a second: looks whether the name still leads to the same namespace, and goes on with what failed.
  void tick();
  // The VRF's tunnel settings have changed.
  void follow_tunnel();
  // Tells once more what there is.
  void repeat() const;

  // Into the VRF, out of its tunnel device. Counts.
  void arrive(std::span<const uint8_t> datagram);
  // A datagram of the control plane's, into the tunnel. False: there is no tunnel, or it takes none.
  bool send(std::span<const uint8_t> datagram) const;

  bool present() const { return view_ != nullptr; }
  bool tunnel_up() const { return told_up_; }
  const KernelView *view() const { return view_.get(); }

 private:
  void enter();
  void leave();
  void open_device();
  void close_device();
  void set_up_device();
  void open_socket();
  void encapsulate();
  bool encapsulate_batch();
  void fail_device();
  void take_datagrams();
  void tell_tunnel();
  void fail(const std::string &what);

  Poller &poller_;
  const Namespaces &namespaces_;
  CoreSite &core_;
  State &state_;
  Vrf &vrf_;
  Callbacks callbacks_;

  Descriptor namespace_;
  NamespaceId id_;
  std::unique_ptr<KernelView> view_;
  Descriptor device_;
  Descriptor socket_;
  std::string device_name_;
  uint32_t device_source_ = 0;
  bool told_up_ = false;
  bool retry_ = false;        // the device could not be made or set up
  std::string last_failure_;  // told once
};

}  // namespace forwarder

#endif  // FORWARDER_VRF_SITE_H
