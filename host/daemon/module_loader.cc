// Every symbol is bound when the library is loaded: a module that misses a service of the platform is refused at once
// rather than when the service is first needed.
#include "host/daemon/module_loader.h"

#include <dlfcn.h>

#include <stdexcept>

namespace host {
namespace {

template <typename Pointer>
void find(void *library, const char *name, Pointer *entry) {
  void *symbol = dlsym(library, name);
  if (symbol == nullptr) throw std::runtime_error(std::string("the module has no ") + name);
  *entry = reinterpret_cast<Pointer>(symbol);
}

void find_entries(void *library, ref::Module *entries) {
  find(library, "mvpn_process_msg", &entries->process_msg);
  find(library, "mvpn_interface_status", &entries->interface_status);
  find(library, "mvpn_interface_create", &entries->interface_create);
  find(library, "mvpn_process_address_change", &entries->process_address_change);
  find(library, "mvpn_process_mrib_mts_update_route_ack", &entries->update_route_ack);
  find(library, "mvpn_process_mrib_mdt_notify", &entries->mdt_notify);
  find(library, "mvpn_process_clear_route_notify", &entries->clear_route_notify);
  find(library, "mvpn_mrib_repopulate_mdt_routes", &entries->repopulate);
  find(library, "mvpn_free_dependent_route_resources", &entries->free_dependent);
  find(library, "mvpn_cli_vrf_done", &entries->cli_vrf_done);
  find(library, "mvpn_cli_done", &entries->cli_done);
  find(library, "mvpn_process_mrib_join_notify", &entries->mrib_join);
  find(library, "mvpn_process_mrib_prune_notify", &entries->mrib_prune);
  find(library, "mvpn_process_pim_route_delete", &entries->route_delete);
  find(library, "mvpn_process_mrib_rpf_notify", &entries->rpf_notify);
  find(library, "mvpn_data_mdt_map_local_source_to_receiver", &entries->map_local_source);
  find(library, "mvpn_data_mdt_unmap_local_source_from_receiver", &entries->unmap_local_source);
  find(library, "mvpn_stats_check", &entries->stats_check);
  find(library, "mvpn_process_data_mdt_switchover_expiry", &entries->switchover_expiry);
  find(library, "mvpn_send_data_mdt_join_packet", &entries->send_join_packet);
}

}  // namespace

LoadedModule load_module(const std::string &path) {
  void *library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) throw std::runtime_error(dlerror());
  LoadedModule module;
  find(library, "mvpn_init", &module.init);
  find(library, "mvpn_deinit", &module.deinit);
  find(library, "mvpn_init_cli", &module.init_cli);
  find(library, "mvpn_cli_vrf_done", &module.cli_vrf_done);
  find(library, "mvpn_cli_done", &module.cli_done);
  find(library, "mvpn_unconditional_announce_data_mdt_join", &module.announce);
  find(library, "pim_glb_trace_buffers", &module.trace_buffers);
  find(library, "pim_mvpn_detail_debug_flag", &module.detail_debug);
  find(library, "mvpn_data_mdt_recv_cache_limit", &module.recv_cache_limit);
  find_entries(library, &module.entries);
  return module;
}

}  // namespace host
