// The module, as the services see it.
#ifndef REFERENCE_MODULE_H
#define REFERENCE_MODULE_H

#include "platform/mrib.h"
#include "platform/mts.h"
#include "platform/pim.h"
#include "platform/types.h"

namespace ref {

// Entry points of the module that the platform delivers to; null members are not called.
struct Module {
  // Each is the function of mvpn.h that the host's module loader binds it to; mvpn.h says what it means. All are called
  // on the main thread with the scheduling locks.
  int (*process_msg)(mts_message *msg) = nullptr;
  void (*interface_status)(im_iod_t iod, int up) = nullptr;
  void (*interface_create)(im_iod_t iod) = nullptr;
  void (*process_address_change)(im_iod_t iod) = nullptr;
  void (*update_route_ack)(const void *message) = nullptr;
  void (*mdt_notify)(const void *message) = nullptr;
  void (*clear_route_notify)(pim_cibtype *pcib, const void *entries, uint32_t count) = nullptr;
  void (*repopulate)(vrf_context_id_t context_id, const mvpn_mdt_route_addrs *filter, uint32_t route_type) = nullptr;
  void (*mrib_join)(pim_cibtype *, const mvpn_mdt_route_addrs *, pim_route *) = nullptr;
  void (*mrib_prune)(pim_cibtype *, const mvpn_mdt_route_addrs *, pim_route *) = nullptr;
  void (*route_delete)(pim_cibtype *, const mvpn_mdt_route_addrs *, pim_route *) = nullptr;
  void (*rpf_notify)(pim_cibtype *, const mvpn_mdt_route_addrs *, pim_route *, int up) = nullptr;
  void (*map_local_source)(mvpn_cibtype *, const mvpn_mdt_route_addrs *, pim_route *) = nullptr;
  void (*unmap_local_source)(mvpn_cibtype *, pim_route *, const mvpn_mdt_route_addrs *) = nullptr;
  int (*stats_check)(mvpn_cibtype *, const mvpn_mdt_route_addrs *, pim_route *) = nullptr;
  void (*switchover_expiry)(mvpn_cibtype *) = nullptr;
  void (*send_join_packet)(mvpn_cibtype *, int release) = nullptr;
};
// Before the module starts, since work that is queued calls what is set when it runs. It stays until the next call,
// reset() or not.
void set_module(const Module &module);
const Module &module();

}  // namespace ref

#endif  // REFERENCE_MODULE_H
