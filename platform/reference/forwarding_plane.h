// A forwarding plane outside of this process, behind the services: what it is told, and what it tells.
//
// Without one the services simulate: a tunnel is up when it is asked to be, customer routes and their rates are what
// the host sets, and datagrams cross the core by a carrier (carriers.h). With one, tunnels are up when it says so,
// datagrams leave through it, and the host sets customer routes, rates and interfaces from what it reports.
//
// Everything here is called on the main thread with the scheduling locks, or by a thread of the module that holds them.
#ifndef PLATFORM_REFERENCE_FORWARDING_PLANE_H
#define PLATFORM_REFERENCE_FORWARDING_PLANE_H

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/pim.h"
#include "platform/reference/mrib.h"
#include "platform/reference/oim.h"

namespace ref {

// None of these may call back into the services that call them, report_tunnel_state() included.
class ForwardingPlane {
 public:
  virtual ~ForwardingPlane() = default;

  // A tunnel was made or changed. wanted_up: a client has brought it up. Answered by report_tunnel_state().
  virtual void tunnel_changed(const Tunnel &tunnel, bool wanted_up) = 0;
  virtual void tunnel_deleted(const Tunnel &tunnel) = 0;
  // present: false when it is gone.
  virtual void core_route_changed(const MribRoute &route, bool present) = 0;
  virtual void encap_changed(const MribEncap &encap, bool present) = 0;
  // The module may have chosen another encapsulation for the route. into_tunnel: the VRF's tunnel is an outgoing
  // interface. installed: the module asked for the choice to take effect; otherwise only a choice that the route had
  // and has lost does.
  virtual void customer_route_changed(const std::string &vrf_name, const pim_route &route, bool into_tunnel,
                                      bool installed) = 0;
  virtual void customer_route_deleted(const std::string &vrf_name, const mvpn_mdt_route_addrs &addrs) = 0;

  // Sends a customer datagram, complete on the wire, into a tunnel. False: it cannot.
  virtual bool send(const Tunnel &tunnel, const std::vector<uint8_t> &datagram) = 0;
  // A statistics pass begins: the bytes of customer routes are to be set (set_customer_bytes), then `then` is called
  // once, at once or later.
  virtual void count_customer_bytes(std::function<void()> then) = 0;
};

// Has everything told from now on, beginning with what there is. Null: the services simulate. The caller keeps it
// alive.
void use_forwarding_plane(ForwardingPlane *plane);

// What the forwarding plane says: a VRF's tunnel is up or down; a datagram came out of it.
void report_tunnel_state(std::string_view vrf_name, bool up);
void receive_tunnel_datagram(std::string_view vrf_name, std::span<const uint8_t> datagram);

// For the services: the plane in use; null: none.
ForwardingPlane *forwarding_plane();

}  // namespace ref

#endif  // PLATFORM_REFERENCE_FORWARDING_PLANE_H
