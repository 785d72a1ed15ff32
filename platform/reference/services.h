// What the routing services of the reference platform know of each other: interfaces, VRFs, tunnels, customer routes,
// MRIB. Nothing here is for hosts or tests; they use runtime.h and the driver headers.
//
// All of it runs under the scheduling locks. A service never calls the module: it posts work that looks its target up
// again by name or number when it runs, because VRFs, interfaces and routes may have gone meanwhile.
#ifndef REFERENCE_SERVICES_H
#define REFERENCE_SERVICES_H

#include <cstdint>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/im.h"
#include "platform/l3vm.h"
#include "platform/mrib.h"
#include "platform/pim.h"
#include "platform/reference/im.h"
#include "platform/reference/mts.h"
#include "platform/reference/pim.h"

namespace ref {

// Appends to a record of what happened that keeps at least its latest entries, `kept` of them. The older half goes at
// once, so that a long run does not move the whole record for every entry.
template <typename T>
void remember(std::vector<T> &log, T entry, std::ptrdiff_t kept = 1000) {
  if (std::ssize(log) >= 2 * kept) log.erase(log.begin(), log.begin() + kept);
  log.push_back(std::move(entry));
}

// Records by the names that operators give, for look-ups; in no order.
struct HashText {
  using is_transparent = void;
  size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
};
template <typename Record>
using ByName = std::unordered_map<std::string, Record, HashText, std::equal_to<>>;

// See keep_records().
bool records_are_kept();

// Mask of `length` leading ones for any length.
constexpr uint32_t prefix_mask(uint32_t length) {
  return length == 0 ? 0 : length >= 32 ? 0xFFFFFFFFu : ~(0xFFFFFFFFu >> length);
}

// First state of each service, in the order in which reset() needs them: users before what they use, the VRF manager
// last, because it makes the default VRF.
void croute_reset();
void mrib_reset();
void oim_reset();
void im_reset();
void pim_reset();
void bgp_reset();
void packet_reset();
void socket_reset();
void cli_reset();
void l3vm_reset();

// ------------------------------------------------------------------------------------------------------ interfaces

// Adds an interface (iod 0, or one that is taken: the next free one) and announces it; 0 when the name or the if-index
// is taken or no ordinal is left. if_index 0: that of an ordinary interface.
im_iod_t im_add(Interface interface);
// Removes an interface without a word.
void im_remove(im_iod_t iod);
// For changes that notify nobody; null when there is none.
Interface *im_find(im_iod_t iod);
// Sets the state and announces it when it changed.
void im_set_state(im_iod_t iod, bool up);
// A tunnel has changed: interface_changes() grows.
void im_note_change();

// ------------------------------------------------------------------------------------------------------------ VRFs

// Context id of a VRF that the VRF manager knows; VRF_CONTEXT_ID_NONE otherwise.
vrf_context_id_t l3vm_find(std::string_view name);

// PIM contexts: made, or taken over when PIM made it before the VRF manager knew the VRF; dropped, with the VRF's PIM
// interfaces. Null when the name cannot be one or is in use.
pim_cibtype *pim_adopt_context(std::string_view name, vrf_context_id_t context_id, uint32_t table_id);
void pim_drop_context(pim_cibtype *pcib);
// The observer's note of a context of this process; observers that come find none.
void *&pim_note_of(const pim_cibtype *pcib);
void pim_forget_notes();
pim_cibtype *pim_find(std::string_view name);
PimCounters &pim_count();
// An interface has gone: no hellos leave it any more. Its PIM record stays, since the module may still know it.
void pim_interface_gone(im_iod_t iod);

// --------------------------------------------------------------------------------------------------------- tunnels

// A VRF's multicast tunnel, 0 when it has none that is up and runs PIM.
im_iod_t oim_working_tunnel(std::string_view vrf_name);
// The tunnel with this provider group whose interface is up; 0: none.
im_iod_t oim_tunnel_to(ip_addr_t group);
// Fills in the VRF of tunnels that were there before it.
void oim_vrf_appeared(std::string_view vrf_name, vrf_context_id_t context_id);

// ------------------------------------------------------------------------------------------------- customer routes

// Name of an incoming interface that stands for the VRF's own tunnel.
inline constexpr std::string_view croute_tunnel_name = "mvpn";

// Recomputes the incoming interfaces of a VRF's routes; tells the module of those that changed.
void croute_recompute_rpf(vrf_context_id_t context_id);
// Has the joins of every route with receivers notified again.
void croute_notify_joins();
// The VRF's tunnel has come up: it becomes an outgoing interface of the routes that wait for it.
void croute_attach_tunnel(pim_cibtype *pcib);
// Takes an interface out of all outgoing lists.
void croute_detach_oif(pim_cibtype *pcib, im_iod_t iod);
// Drops a VRF's routes; the module must have left the VRF.
void croute_drop_all(pim_cibtype *pcib);

// ------------------------------------------------------------------------------------------------------------ MRIB

// The host's own registration.
mrib_client_handle *mrib_host_client();

// A customer route's counterpart in the MRIB; nobody is notified.
void mrib_hold_route(vrf_context_id_t context_id, const mvpn_mdt_route_addrs &addrs, im_iod_t mti_iod);
void mrib_release_route(vrf_context_id_t context_id, const mvpn_mdt_route_addrs &addrs);
// Drops a VRF's routes of both sorts and its encapsulations.
void mrib_drop_context(vrf_context_id_t context_id);

// ------------------------------------------------------------------------------------------------ forwarding plane

// Tell a new forwarding plane what there is.
void oim_tell_plane();
// There is none any more: what was brought up is up.
void oim_leave_plane();
void mrib_tell_plane();
void croute_tell_plane();

// -------------------------------------------------------------------------------------------------------------- BGP

// Takes what the module sent to BGP; other messages are ignored.
void bgp_receive(const SentMessage &message);
// Forgets a VRF: its advertisement and its route distinguisher.
void bgp_drop_vrf(std::string_view vrf_name);

// --------------------------------------------------------------------------------------------------------- sockets

// Gives a datagram to the bound socket, marked with the interface it arrived on; drops it when there is none or its
// queue is full. Any thread.
void socket_deliver(im_iod_t iod, const uint8_t *datagram, size_t size);
// UDP port that a socket is bound to.
bool socket_listens(uint16_t port);
// The next n receive calls fail.
void socket_fail_receives(uint32_t n);

}  // namespace ref

#endif  // REFERENCE_SERVICES_H
