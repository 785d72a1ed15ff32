// The entry points of a module that is linked into the program, for the stand-ins to call.
#ifndef TESTS_SUPPORT_LINKED_MODULE_H
#define TESTS_SUPPORT_LINKED_MODULE_H

#include "platform/reference/module.h"
#include "routing/pim/mvpn/mvpn.h"

inline ref::Module linked_module() {
  ref::Module module;
  module.process_msg = mvpn_process_msg;
  module.interface_status = mvpn_interface_status;
  module.interface_create = mvpn_interface_create;
  module.process_address_change = mvpn_process_address_change;
  module.update_route_ack = mvpn_process_mrib_mts_update_route_ack;
  module.mdt_notify = mvpn_process_mrib_mdt_notify;
  module.clear_route_notify = mvpn_process_clear_route_notify;
  module.repopulate = mvpn_mrib_repopulate_mdt_routes;
  module.mrib_join = mvpn_process_mrib_join_notify;
  module.mrib_prune = mvpn_process_mrib_prune_notify;
  module.route_delete = mvpn_process_pim_route_delete;
  module.rpf_notify = mvpn_process_mrib_rpf_notify;
  module.map_local_source = mvpn_data_mdt_map_local_source_to_receiver;
  module.unmap_local_source = mvpn_data_mdt_unmap_local_source_from_receiver;
  module.stats_check = mvpn_stats_check;
  module.switchover_expiry = mvpn_process_data_mdt_switchover_expiry;
  module.send_join_packet = mvpn_send_data_mdt_join_packet;
  return module;
}

#endif  // TESTS_SUPPORT_LINKED_MODULE_H
