// Configuration commands, and the end of the configuration replay.
//
// All settings of a VRF arrive through ten handlers, which the host's command-line service calls by name: when an
// operator types a command (interactive), and when the stored configuration is replayed at start. A handler reads the
// command's arguments, checks them, changes the VRF's context and starts what the change requires.
//
// Flow. 'mdt default' creates the context and has the host replay the VRF's other stored commands, which found no
// context before; they run after the handler has returned. While the replay runs, settings are only recorded: the end
// of a VRF's replay starts its default MDT, and the end of the whole replay does once what was deferred: set-ups that
// have not started, the request for the entries of remote PEs, the deletion of tunnels that no VRF owns, the joins of
// the multicast RIB, the recovery period.
//
// Data-MDT ranges. A VRF's ranges form a list that flows are matched against from its head: those with a route-map are
// put at the head, the others at the tail, and a modified range keeps its place. Ranges of one VRF do not overlap, nor
// do they overlap another VRF's ranges or default group. A range is freed only after every use of it has been cleared.
//
// Results. 0: done, or nothing to do, which a missing or unusable VRF and a module that is not up count as; -500: the
// reason was printed and the command changed nothing; -1: memory ran out.
//
// Everything runs on the main thread. A handler that calls something which yields finds its context again afterwards.
#include "routing/pim/mvpn/mvpn_ui_config.h"

#include <cstring>
#include <utility>

#include "platform/im.h"
#include "platform/ip.h"
#include "platform/oim.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_data_mdt_range.h"
#include "routing/pim/mvpn/mvpn_datamdt.h"
#include "routing/pim/mvpn/mvpn_default_mdt.h"
#include "routing/pim/mvpn/mvpn_diag.h"
#include "routing/pim/mvpn/mvpn_guards.h"
#include "routing/pim/mvpn/mvpn_mdt_route.h"
#include "routing/pim/mvpn/mvpn_mdt_source.h"
#include "routing/pim/mvpn/mvpn_mrib_queue.h"
#include "routing/pim/mvpn/mvpn_oim.h"

// ------------------------------------------------------------------------------------------------- what all share

static mvpn_cibtype *mvpn_get_cib_from_cli(cli_command *command, uint32_t argument) {
  const pim_cibtype *pcib = pim_get_cib_from_cli(command, argument);
  return pcib != nullptr ? pcib->mvpn : nullptr;
}

// The context that a command changes; null when the command has nothing to do. even_unusable: also of a VRF that may
// not be configured now.
static mvpn_cibtype *context_to_change(cli_command *command, bool even_unusable = false) {
  if (!mvpn_is_up()) return nullptr;
  mvpn_cibtype *mvpn = mvpn_get_cib_from_cli(command, 0);
  if (mvpn == nullptr) return nullptr;
  return even_unusable || pim_is_pcib_usable(mvpn->pcib) ? mvpn : nullptr;
}

// Whether an argument that its reader did not give was typed all the same: malformed, or too long. The operator is
// told; what was meant is not known, so that the default may not be taken for it.
static bool is_unreadable(cli_command *command, const char *name) {
  if (!cli_is_set(command, name)) return false;
  cli_cmd_printf(command, "Invalid value for %s\n", name);
  return true;
}

// Value of a number argument; the default in the "no" form or when it is absent. False when it cannot be read.
static bool number_or_default(cli_command *command, const char *name, uint32_t default_value, uint32_t *out) {
  *out = default_value;
  return cli_noed(command) || cli_get_uinteger(command, name, out) || !is_unreadable(command, name);
}

// ------------------------------------------------------------------------------------------------------- mdt default

static int remove_default_group(cli_command *command, const pim_cibtype *pcib) {
  mvpn_cibtype *mvpn = pcib->mvpn;
  if (mvpn == nullptr || mvpn->mdt_default_group == 0) {
    cli_cmd_printf(command, "No default mdt group configured\n");
    return CLI_RESULT_REJECTED;
  }
  ip_addr_t group = mvpn->mdt_default_group;
  if (!cli_get_ipaddr(command, "<mdt-default>", &group) && is_unreadable(command, "<mdt-default>")) {
    return CLI_RESULT_REJECTED;
  }
  if (group != mvpn->mdt_default_group) {
    cli_cmd_printf(command, "The group address does not match the configured default mdt group address\n");
    return CLI_RESULT_REJECTED;
  }
  mvpn_start_destroy_default_mdt(mvpn);
  return CLI_RESULT_OK;
}

static int set_default_group(cli_command *command, mvpn_cibtype *mvpn) {
  // The group cannot be exchanged.
  ip_addr_t group = 0;
  if (!cli_get_ipaddr(command, "<mdt-default>", &group) && is_unreadable(command, "<mdt-default>")) {
    return CLI_RESULT_REJECTED;
  }
  if (group == mvpn->mdt_default_group) return CLI_RESULT_OK;
  if (mvpn->mdt_default_group != 0) {
    cli_cmd_printf(command, "Cannot change the default mdt group address. Must deconfigure first\n");
    return CLI_RESULT_REJECTED;
  }
  // Nor shared with another VRF.
  if (const mvpn_cibtype *other = mvpn_find_group_overlap(mvpn, group, MROUTE_HOST_LEN)) {
    cli_cmd_printf(command, "The MDT-default group overlaps with VRF %s\n", other->pcib->vrf_name);
    return CLI_RESULT_REJECTED;
  }
  // During the replay the set-up waits for its end.
  mvpn_set_mdt_default_group(mvpn, group);
  if (cli_is_interactive(command)) mvpn_setup_default_mdt(mvpn);
  return CLI_RESULT_OK;
}

int mdt_default_cmd(cli_command *command) {
  if (!mvpn_is_up()) return CLI_RESULT_OK;
  // Taking the group away is possible also in a VRF that may not be configured now.
  pim_cibtype *pcib = pim_get_cib_from_cli(command, 0);
  if (pcib == nullptr) return CLI_RESULT_REJECTED;
  if (cli_noed(command)) return remove_default_group(command, pcib);
  // The context comes first, and stays whatever becomes of the group.
  if (!pim_is_pcib_usable(pcib)) return CLI_RESULT_OK;
  if (pcib->mvpn == nullptr) {
    if (mvpn_create_context(pcib, nullptr) == nullptr) return CLI_RESULT_REJECTED;
    cli_send_my_global_vrf_commands(0, pcib->vrf_name);
  }
  return set_default_group(command, pcib->mvpn);
}

// -------------------------------------------------------------------------------------------------------- mdt source

int mdt_source_cmd(cli_command *command) {
  mvpn_cibtype *mvpn = context_to_change(command);
  if (mvpn == nullptr) return CLI_RESULT_OK;
  // The "no" form goes back to BGP's update source.
  const char *name = "";
  if (!cli_noed(command) && !cli_get_interface(command, "<interface>", &name) &&
      is_unreadable(command, "<interface>")) {
    return CLI_RESULT_REJECTED;
  }
  // Nothing changes.
  if (std::strncmp(name, mvpn->mdt_source_ifname, IF_NAME_SIZE) == 0) return CLI_RESULT_OK;
  std::memset(mvpn->mdt_source_ifname, 0, IF_NAME_SIZE);
  std::memcpy(mvpn->mdt_source_ifname, name, strnlen(name, IF_NAME_SIZE - 1));
  // The interface may not exist yet.
  im_iod_t iod = 0;
  if (mvpn->mdt_source_ifname[0] != '\0') {
    iod = im_get_if_by_name(mvpn->mdt_source_ifname);
  } else if (mvpn_bgp_updatesrc_ifname[0] != '\0') {
    iod = mvpn_bgp_updatesrc_iod;
  }
  // During the replay the source is only recorded.
  if (cli_is_interactive(command)) {
    mvpn_process_mdt_source_change(mvpn, iod);
  } else {
    mvpn_update_mdt_source_info(mvpn, iod);
  }
  return CLI_RESULT_OK;
}

// ---------------------------------------------------------------------------------------------------------- mdt data

namespace {

// Arguments of 'mdt data'.
struct range_arguments {
  ip_addr_t prefix = 0;
  uint32_t length = 0;           // as given: not yet known to be a mask length
  uint32_t threshold = 0;        // kbps; 0 = not given
  uint8_t immediate_switch = 0;  // 1: given
  const char *policy = nullptr;  // route-map; null = none
};

// Where a prefix stands in a VRF's list.
struct range_position {
  mvpn_data_mdt_range *match = nullptr;     // range of exactly this prefix; null = none
  mvpn_data_mdt_range *previous = nullptr;  // range before it, or the last one; null = none
};

}  // namespace

// False: the prefix is absent, or an argument cannot be read.
static bool read_range_arguments(cli_command *command, range_arguments *out) {
  if (!cli_get_ipprefix(command, "<prefix>", &out->prefix, &out->length)) {
    is_unreadable(command, "<prefix>");
    return false;
  }
  if (cli_is_set(command, "threshold") && !cli_get_uinteger(command, "<value>", &out->threshold) &&
      is_unreadable(command, "<value>")) {
    return false;
  }
  out->immediate_switch = cli_is_set(command, "immediate-switch") ? 1 : 0;
  if (cli_is_set(command, "route-map")) cli_get_string(command, "<policy-name>", &out->policy);
  return true;
}

// What holds for every form of the command. False after the reason was printed.
static bool check_range_arguments(cli_command *command, const mvpn_cibtype *mvpn, const range_arguments &wanted) {
  const uint32_t longest_name = rpm_get_max_name_length();
  if (wanted.policy != nullptr && std::strlen(wanted.policy) > longest_name) {
    cli_cmd_printf(command, "Policy name too long. Maximum length is %d\n", static_cast<int>(longest_name));
    return false;
  }
  if (!mvpn_is_multicast(wanted.prefix) || wanted.length > MROUTE_HOST_LEN) {
    cli_cmd_printf(command, "Invalid group range\n");
    return false;
  }
  if ((wanted.prefix & ~ip_bits2mask(wanted.length)) != 0) {
    cli_cmd_printf(command, "Overspecified group range, non mask-length bits should be 0\n");
    return false;
  }
  if (ip_is_addr_in_prefix(mvpn->mdt_default_group, wanted.prefix, wanted.length)) {
    cli_cmd_printf(command, "Data MDT Prefix %s comprises default MDT group %s\n",
                   ip_print_prefix(wanted.prefix, wanted.length), ip_print_addr(mvpn->mdt_default_group));
    return false;
  }
  return true;
}

// Finds the range of this prefix; ranges before it must not overlap it. False after the reason was printed.
static bool find_range(cli_command *command, const mvpn_cibtype *mvpn, const range_arguments &wanted,
                       range_position *out) {
  for (mvpn_data_mdt_range *range = mvpn->data_mdt_config; range != nullptr; range = range->next) {
    if (range->prefix == wanted.prefix && range->masklen == wanted.length) {
      out->match = range;
      return true;
    }
    if (ip_is_addr_in_prefix(wanted.prefix, range->prefix, range->masklen) ||
        ip_is_addr_in_prefix(range->prefix, wanted.prefix, wanted.length)) {
      cli_cmd_printf(command, "Prefix overlaps with other data-mdt - %s\n",
                     ip_print_prefix(range->prefix, range->masklen));
      return false;
    }
    out->previous = range;
  }
  return true;
}

// Takes a range out of the list, moves its flows off it, frees it.
static int remove_range(cli_command *command, mvpn_cibtype *mvpn, const range_position &position) {
  if (position.match == nullptr) return CLI_RESULT_OK;
  const mvpn_data_mdt_range_ptr range(position.match);
  range->deleted = 1;
  mvpn_unindex_data_mdt_range(range.get());
  (position.previous != nullptr ? position.previous->next : mvpn->data_mdt_config) = range->next;
  // The pass yields, and leaves out flows that cannot be mapped at present.
  const mvpn_vrf_handle vrf(mvpn);
  mvpn_process_data_mdt_config_change(mvpn);
  if (vrf.same()) mvpn_forget_data_mdt_range(mvpn, range.get());
  if (range->policy.policy_name != nullptr && rpm_policy_unbind(range->policy.policy_handle) == 0) {
    cli_cmd_printf(command, "Unable to unbind policy %s \n", range->policy.policy_name);
    return CLI_RESULT_REJECTED;
  }
  return CLI_RESULT_OK;
}

// Changes a range in its place.
static int modify_range(cli_command *command, mvpn_cibtype *mvpn, mvpn_data_mdt_range *range,
                        const range_arguments &wanted) {
  const char *current = range->policy.policy_name;
  const bool same_policy = wanted.policy != nullptr && current != nullptr && std::strcmp(wanted.policy, current) == 0;
  tracked_ptr<char> name;
  if (wanted.policy != nullptr && !same_policy) {
    name = mvpn_copy_policy_name(wanted.policy);
    if (name == nullptr) return CLI_RESULT_NO_MEMORY;
  }
  range->threshold = wanted.threshold;
  range->immediate_switch = wanted.immediate_switch;
  if (same_policy) return CLI_RESULT_OK;
  mvpn_drop_data_mdt_policy(range);
  if (name == nullptr) {
    mvpn_process_data_mdt_config_change(mvpn);
    return CLI_RESULT_OK;
  }
  if (!mvpn_bind_data_mdt_policy(mvpn, range, std::move(name))) {
    cli_cmd_printf(command, "Unable to bind policy %s\n", wanted.policy);
    return CLI_RESULT_REJECTED;
  }
  return CLI_RESULT_OK;
}

// Puts a new range into the list: with a policy at the head, else behind the last one.
static void insert_range(mvpn_cibtype *mvpn, mvpn_data_mdt_range *range, mvpn_data_mdt_range *last) {
  if (range->policy.policy_name != nullptr || last == nullptr) {
    range->next = mvpn->data_mdt_config;
    mvpn->data_mdt_config = range;
  } else {
    last->next = range;
  }
}

// A new range. Flows are passed over it only when it takes every flow; a route-map is asked when they are
// matched.
static int add_range(cli_command *command, mvpn_cibtype *mvpn, const range_arguments &wanted,
                     mvpn_data_mdt_range *last) {
  if (const mvpn_cibtype *other = mvpn_find_group_overlap(mvpn, wanted.prefix, wanted.length)) {
    cli_cmd_printf(command, "Error: prefix overlaps with default mdt group or mdt data group prefixes for VRF %s\n",
                   other->pcib->vrf_name);
    return CLI_RESULT_REJECTED;
  }
  constexpr size_t size = sizeof(mvpn_data_mdt_range);
  mvpn_data_mdt_range_ptr range(static_cast<mvpn_data_mdt_range *>(mvpn_tracked_alloc(
      MTRACK_MVPN_DATA_RANGE, size, size, "routing/pim/mvpn/mvpn_ui_config", __LINE__, "mdt_data_cmd")));
  if (range == nullptr) return CLI_RESULT_NO_MEMORY;
  range->prefix = wanted.prefix;
  range->masklen = static_cast<uint8_t>(wanted.length);
  range->threshold = wanted.threshold;
  range->immediate_switch = wanted.immediate_switch;
  if (wanted.policy != nullptr) {
    tracked_ptr<char> name = mvpn_copy_policy_name(wanted.policy);
    if (name == nullptr) return CLI_RESULT_NO_MEMORY;
    if (!mvpn_bind_data_mdt_policy(mvpn, range.get(), std::move(name))) {
      cli_cmd_printf(command, "Unable to bind policy %s \n", wanted.policy);
      return CLI_RESULT_REJECTED;
    }
  }
  if (mvpn_index_data_mdt_range(mvpn, range.get()) == 0) {
    mvpn_drop_data_mdt_policy(range.get());
    return CLI_RESULT_NO_MEMORY;
  }
  insert_range(mvpn, range.release(), last);
  if (wanted.policy == nullptr) mvpn_process_data_mdt_config_change(mvpn);
  return CLI_RESULT_OK;
}

int mdt_data_cmd(cli_command *command) {
  const bool remove = cli_noed(command) != 0;
  mvpn_cibtype *mvpn = context_to_change(command, remove);
  if (mvpn == nullptr) return CLI_RESULT_OK;
  range_arguments wanted;
  range_position position;
  if (!read_range_arguments(command, &wanted)) return CLI_RESULT_REJECTED;
  if (!check_range_arguments(command, mvpn, wanted)) return CLI_RESULT_REJECTED;
  if (!find_range(command, mvpn, wanted, &position)) return CLI_RESULT_REJECTED;
  if (remove) return remove_range(command, mvpn, position);
  if (position.match != nullptr) return modify_range(command, mvpn, position.match, wanted);
  return add_range(command, mvpn, wanted, position.previous);
}

// ----------------------------------------------------------------------------------------------- MTU and intervals

int mdt_mtu_cmd(cli_command *command) {
  mvpn_cibtype *mvpn = context_to_change(command);
  if (mvpn == nullptr) return CLI_RESULT_OK;
  // What was gathered goes out, and the next packet gets the new size. The send yields.
  const mvpn_vrf_handle vrf(mvpn);
  mvpn_send_data_mdt_join_packet(mvpn, 1);
  mvpn = vrf.get();
  if (mvpn == nullptr) return CLI_RESULT_OK;
  // Nothing changes.
  uint32_t mtu = 0;
  if (!number_or_default(command, "<mtu-value>", MVPN_MDT_MTU_DEFAULT, &mtu)) return CLI_RESULT_REJECTED;
  if (mtu == mvpn->mdt_mtu) return CLI_RESULT_OK;
  mvpn->mdt_mtu = mtu;
  // The tunnel follows.
  if (mvpn->mti_status == MVPN_MTI_UP_PENDING || mvpn->mti_status == MVPN_MTI_UP) {
    if (mvpn->mti_pim_if != nullptr) mvpn->mti_pim_if->mtu = mtu;
    mvpn_oim_tunnel_update_mtu(mvpn);
  }
  return CLI_RESULT_OK;
}

// Gives the MTI's PIM interface another hello interval.
static void apply_hello_interval(cli_command *command, pim_iftype *interface, uint32_t interval) {
  int adjusted = 0;
  interface->hello_interval = interval;
  interface->hello_holdtime = pim_calculate_holdtime(interval, &adjusted);
  if (adjusted != 0) {
    cli_cmd_printf(command, "Hello interval rounded up to %d seconds\n", static_cast<int>(interval / 1000 + 1));
  }
}

int mdt_pim_hello_interval_cmd(cli_command *command) {
  mvpn_cibtype *mvpn = context_to_change(command);
  if (mvpn == nullptr) return CLI_RESULT_OK;
  uint32_t interval = 0;
  if (!number_or_default(command, "<interval>", MVPN_PIM_HELLO_INTERVAL_DEFAULT, &interval)) return CLI_RESULT_REJECTED;
  if (interval == mvpn->pim_hello_interval) return CLI_RESULT_OK;
  mvpn->pim_hello_interval = interval;
  if (mvpn_mti_has_pim_interface(mvpn)) apply_hello_interval(command, mvpn->mti_pim_if, interval);
  // A hello with the new interval goes out at once.
  if (mvpn->mti_status == MVPN_MTI_UP && mvpn->mti_pim_if != nullptr && mvpn->mti_pim_if->hello_timer != nullptr) {
    active_timer_start(mvpn->mti_pim_if->hello_timer, 0, 0, 0, 0);
  }
  return CLI_RESULT_OK;
}

int mdt_pim_jp_interval_cmd(cli_command *command) {
  mvpn_cibtype *mvpn = context_to_change(command);
  if (mvpn == nullptr) return CLI_RESULT_OK;
  uint32_t interval = mvpn->pim_jp_interval;
  if (cli_noed(command)) {
    interval = MVPN_PIM_JP_INTERVAL_DEFAULT;
  } else if (!cli_get_uinteger(command, "<interval>", &interval)) {
    if (is_unreadable(command, "<interval>")) return CLI_RESULT_REJECTED;
  } else if (interval % MVPN_PIM_JP_INTERVAL_DEFAULT != 0) {
    cli_cmd_printf(command, "Join Prune interval should be in multiple of %d sec\n",
                   static_cast<int>(MVPN_PIM_JP_INTERVAL_DEFAULT));
    return CLI_RESULT_REJECTED;
  }
  mvpn->pim_jp_interval = interval;
  if (mvpn_mti_has_pim_interface(mvpn)) {
    mvpn->mti_pim_if->jp_interval = static_cast<uint16_t>(interval);
    mvpn->mti_pim_if->configured_jp_interval = static_cast<uint16_t>(interval);
  }
  return CLI_RESULT_OK;
}

// ------------------------------------------------------------------------------------------------------------- flags

int mdt_data_bidir_enable_cmd(cli_command *command) {
  if (mvpn_cibtype *mvpn = context_to_change(command)) mvpn->data_mdt_bidir_enable = cli_noed(command) ? 0 : 1;
  return CLI_RESULT_OK;
}

int mdt_data_inhibit_reuse_cmd(cli_command *command) {
  if (mvpn_cibtype *mvpn = context_to_change(command)) mvpn->data_mdt_inhibit_reuse = cli_noed(command) ? 0 : 1;
  return CLI_RESULT_OK;
}

// Ends enforcement: remote PEs are also learnt from the sources that the core has.
static int stop_enforcing(cli_command *command, mvpn_cibtype *mvpn) {
  if (mvpn->asm_use_shared_tree != 0) {
    cli_cmd_printf(command, "Must remove config of 'mdt asm-use-shared-tree'\n");
    return CLI_RESULT_REJECTED;
  }
  if (mvpn->enforce_bgp_mdt_safi == 0) return CLI_RESULT_OK;
  mvpn->enforce_bgp_mdt_safi = 0;
  if (mvpn->mti_status == MVPN_MTI_UP) {
    mvpn_repopulate_default_mdt_route_from_local_cache(mvpn);
    mvpn_mdt_add_all_sg_route_resources(mvpn, mvpn->mdt_default_group);
    mvpn_mrib_wakeup_worker_thread();
  }
  return CLI_RESULT_OK;
}

// Begins enforcement. The (*,G) route, by which PEs that BGP does not know are heard, goes first; then comes what a
// bring-up under enforcement installs, which may be the same route in a bidirectional group.
static void start_enforcing(mvpn_cibtype *mvpn) {
  const bool up = mvpn->mti_status == MVPN_MTI_UP;
  if (up) mvpn_mdt_delete_route_resources(mvpn, 0, mvpn->mdt_default_group, 1);
  mvpn->enforce_bgp_mdt_safi = 1;
  if (!up) return;
  mvpn_repopulate_default_mdt_route_from_local_cache(mvpn);
  mvpn_repopulate_default_mdt_routes_from_bgp_cache(mvpn);
}

int mdt_enforce_bgp_mdt_safi_cmd(cli_command *command) {
  mvpn_cibtype *mvpn = context_to_change(command);
  if (mvpn == nullptr) return CLI_RESULT_OK;
  if (cli_noed(command)) return stop_enforcing(command, mvpn);
  if (mvpn->enforce_bgp_mdt_safi == 0) start_enforcing(mvpn);
  return CLI_RESULT_OK;
}

int mdt_asm_use_shared_tree_cmd(cli_command *command) {
  mvpn_cibtype *mvpn = context_to_change(command);
  if (mvpn == nullptr) return CLI_RESULT_OK;
  const bool wanted = !cli_noed(command);
  if (wanted && mvpn->enforce_bgp_mdt_safi == 0) {
    cli_cmd_printf(command, "Must configure 'mdt enforce-bgp-mdt-safi'\n");
    return CLI_RESULT_REJECTED;
  }
  if (wanted == (mvpn->asm_use_shared_tree != 0)) return CLI_RESULT_OK;
  mvpn->asm_use_shared_tree = wanted ? 1 : 0;
  const bool up = mvpn->mti_status == MVPN_MTI_UP;
  if (wanted && up) mvpn_mdt_add_all_sg_route_resources(mvpn, mvpn->mdt_default_group);
  // The tunnel comes up again under the new mode.
  if (up && cli_is_interactive(command)) mvpn_oim_bringdown_tunnel(mvpn);
  return CLI_RESULT_OK;
}
