// Loads libmvpn.so and finds its entry points and the words that the host reads and sets.
#ifndef HOST_DAEMON_MODULE_LOADER_H
#define HOST_DAEMON_MODULE_LOADER_H

#include <string>

#include "platform/reference/module.h"
#include "routing/pim/mvpn/mvpn.h"

namespace host {

struct LoadedModule {
  // As mvpn.h says of each; never null once load_module() has returned.
  decltype(&mvpn_init) init = nullptr;
  decltype(&mvpn_deinit) deinit = nullptr;
  decltype(&mvpn_init_cli) init_cli = nullptr;
  decltype(&mvpn_cli_vrf_done) cli_vrf_done = nullptr;
  decltype(&mvpn_leave_vrf) leave_vrf = nullptr;
  decltype(&mvpn_cli_done) cli_done = nullptr;
  decltype(&mvpn_unconditional_announce_data_mdt_join) announce = nullptr;
  decltype(&pim_glb_trace_buffers) trace_buffers = nullptr;
  decltype(&pim_mvpn_detail_debug_flag) detail_debug = nullptr;
  decltype(&mvpn_mti_status_str) mti_status_names = nullptr;
  decltype(&mvpn_data_mdt_recv_cache_limit) recv_cache_limit = nullptr;
  ref::Module entries;  // what the platform delivers to
};

// The module stays loaded for the life of the process. Throws std::runtime_error with the loader's reason.
LoadedModule load_module(const std::string &path);

}  // namespace host

#endif  // HOST_DAEMON_MODULE_LOADER_H
