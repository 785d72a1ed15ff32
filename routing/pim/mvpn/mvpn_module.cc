// The module as a whole: start and stop, the dispatch of messages, the registration of command handlers, and what the
// end of the configuration replay sets off. Above everything else: nothing calls it but the host.
//
// Start and stop. mvpn_init builds the module up step by step; a step that fails ends the start and undoes nothing,
// so that the module is left in Up Pending, where it answers messages already but takes no configuration. mvpn_deinit
// takes down whatever is there, after a complete start or a partial one: every release tests what it releases. When
// the multicast-VPN feature is being removed the VRFs are torn down first, silently; when only the process goes away,
// contexts, tunnels and routes stay for whoever takes over.
//
// Hooks. Lower sources tell higher ones of three things without knowing them: a referer of a core route is released, a
// VRF's routes are written, a VRF's switchover timer has expired. The hooks are set here, when the library is loaded.
#include <cerrno>
#include <cstring>

#include "platform/im.h"
#include "platform/mrib.h"
#include "platform/oim.h"
#include "routing/pim/mvpn/mvpn_bgp.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_data_mdt_range.h"
#include "routing/pim/mvpn/mvpn_datamdt_join.h"
#include "routing/pim/mvpn/mvpn_datamdt_receiver.h"
#include "routing/pim/mvpn/mvpn_datamdt_sender.h"
#include "routing/pim/mvpn/mvpn_default_mdt.h"
#include "routing/pim/mvpn/mvpn_diag.h"
#include "routing/pim/mvpn/mvpn_ha.h"
#include "routing/pim/mvpn/mvpn_mdt_route.h"
#include "routing/pim/mvpn/mvpn_mdt_safi.h"
#include "routing/pim/mvpn/mvpn_mdt_source.h"
#include "routing/pim/mvpn/mvpn_mrib.h"
#include "routing/pim/mvpn/mvpn_mrib_queue.h"
#include "routing/pim/mvpn/mvpn_oim.h"
#include "routing/pim/mvpn/mvpn_tunnel_events.h"
#include "routing/pim/mvpn/mvpn_ui_config.h"
#include "routing/pim/mvpn/mvpn_ui_show.h"
#include "routing/pim/mvpn/mvpn_ui_snmp.h"

// The version of the contract, for hosts to read before they bind anything (platform/types.h).
#define MVPN_TEXT_OF(value) #value
#define MVPN_TEXT(value) MVPN_TEXT_OF(value)
asm(".pushsection .note.mvpn, \"a\", %note\n"
    ".balign 4\n"
    ".4byte 5, 4, " MVPN_TEXT(PLATFORM_CONTRACT_NOTE) "\n"
    ".asciz \"mvpn\"\n"
    ".balign 4\n"
    ".4byte " MVPN_TEXT(PLATFORM_CONTRACT_VERSION) "\n"
    ".popsection\n");

namespace {

struct hook_setter {
  hook_setter() {
    mvpn_switchover_timer_hook = mvpn_process_data_mdt_switchover_expiry;
    mvpn_mrib_routes_written_hook = mvpn_default_mdt_routes_written;
    mvpn_mdt_referer_hooks.release_flow = [](mvpn_cibtype *mvpn, pim_route *croute) {
      mvpn_data_mdt_unmap_receiver_from_local_source(mvpn, croute, &croute->addrs);
    };
    mvpn_mdt_referer_hooks.release_announcement = mvpn_destroy_data_mdt_recv_join_info;
    mvpn_mdt_referer_hooks.forget_route = mvpn_mdt_route_cleanup_recv_join_info;
  }
};
const hook_setter hooks;

}  // namespace

// -------------------------------------------------------------------------------------------------------------- start

// Opcodes whose notifications the module wants.
static constexpr uint32_t notification_opcodes[] = {MTS_OPC_MVPN_BGP_RESERVED, MTS_OPC_MVPN_BGP_RD_NOTIFY,
                                                    MTS_OPC_MVPN_BGP_UPDATE_SOURCE_NOTIFY};

static int mvpn_init_mts() {
  for (const uint32_t opcode : notification_opcodes) {
    if (mts_options_set(mvpn_mts_q, opcode, MTS_OPTION_NOTIFY) < 0) {
      mvpn_report(msg_error_PIM_OPCODE_REG, opcode, std::strerror(errno));
      return 0;
    }
  }
  return 1;
}

// A VRF that a stop left in place: its source may have another address, and its tunnel, which the tunnel manager keeps
// down while nobody serves it, needs to come up again.
static void follow_missed_events(mvpn_cibtype *mvpn) {
  const bool tunnel_went =
      mvpn->mti_status == MVPN_MTI_UP && mvpn->mti_iod != 0 && ksink_im_is_if_up(mvpn->mti_iod) == 0;
  if (tunnel_went) {
    mvpn_update_mdt_source_info(mvpn, mvpn->mdt_source_iod);
    mvpn_interface_status(mvpn->mti_iod, 0);
  } else if (mvpn->mdt_source_iod != 0) {
    mvpn_process_mdt_source_change(mvpn, mvpn->mdt_source_iod);
  }
}

// Makes the queue known to the debug service; failing that the module runs all the same.
static int register_queue_for_debugging() {
  const int rc = sdwrap_dbg_init_register_mts_q(mvpn_mts_q);
  if (rc != 0) {
    MVPN_DEBUG(pim_null_pcib, "ERROR: register mvpn_mts_q with sdwrap, rc=0x%x [%s]\n", static_cast<unsigned>(rc),
               syserr2str(rc));
    return 0;
  }
  MVPN_DEBUG(pim_null_pcib, "MVPN Module initialisation complete");
  return 1;
}

int mvpn_init(void) {
  mvpn_mts_q = pim_mts_q;
  mvpn_mrib_mts_q = pim_mrib_mts_q;
  mvpn_functionality_status = MVPN_FUNCTIONALITY_UP_PENDING;
  mvpn_stopped = false;
  if (mvpn_mvrf_count != 0) {
    mvpn_take_over_contexts();
    mvpn_take_over_data_mdt_ranges();
  }
  if (mvpn_init_slabs() == 0 || mvpn_init_timers() == 0) return 0;
  mvpn_bgp_mdt_safi_init_db();
  if (mvpn_init_oim() == 0 || mvpn_init_bgp() == 0 || mvpn_init_mts() == 0) return 0;
  if (mvpn_init_mrib() == 0 || mvpn_init_data_mdt() == 0) return 0;
  mvpn_functionality_status = MVPN_FUNCTIONALITY_UP;
  if (mvpn_mvrf_count != 0) {
    mvpn_for_each_context([](mvpn_cibtype *mvpn) {
      follow_missed_events(mvpn);
      return true;
    });
  }
  return register_queue_for_debugging();
}

// --------------------------------------------------------------------------------------------------------------- stop

static int mvpn_deinit_mts() {
  int done = 1;
  for (const uint32_t opcode : notification_opcodes) {
    const uint32_t options = mts_options_get(mvpn_mts_q, opcode);
    // Options are sixteen bits; the others may be somebody else's.
    if (mts_options_set(mvpn_mts_q, opcode, options & 0xFFFF & ~uint32_t{MTS_OPTION_NOTIFY}) < 0) done = 0;
  }
  return done;
}

// Ends an open recovery period without its sweep: the records go anyway.
static void drop_recovery_timer() {
  if (mvpn_ha_recovery_timer == nullptr) return;
  active_timer_cancel(mvpn_ha_recovery_timer);
  mvpn_ha_recovery_timer = nullptr;
}

static bool is_feature_configured() { return pim_check_feature_configured("mvpn") != 0; }

// The feature test is repeated, since the host's configuration may change while the stop yields.
void mvpn_deinit(int deregister) {
  if (mvpn_functionality_status == MVPN_FUNCTIONALITY_DOWN) return;
  mvpn_functionality_status = MVPN_FUNCTIONALITY_DOWN_PENDING;
  mvpn_stopped = true;
  // The feature is being removed.
  if (!is_feature_configured()) {
    mvpn_for_each_context([](mvpn_cibtype *mvpn) {
      mvpn_default_tunnel_down(mvpn, 0);
      return true;
    });
  }
  mvpn_deinit_mts();
  mvpn_deinit_mrib(deregister);
  mvpn_deinit_oim();
  if (!is_feature_configured()) mvpn_bgp_mdt_safi_delete_all();
  mvpn_deinit_bgp();
  mvpn_deinit_data_mdt();
  drop_recovery_timer();
  mvpn_deinit_timers();
  mvpn_deinit_slabs();
  mvpn_ha_delete_encap_info(nullptr, nullptr);
  mvpn_functionality_status = MVPN_FUNCTIONALITY_DOWN;
}

// ----------------------------------------------------------------------------------------------------------- messages

int mvpn_process_msg(mts_message *msg) {
  if (!mvpn_is_running()) {
    MVPN_DEBUG(pim_null_pcib, "Ignoring processing of oim/bgp messages");
    return 0;
  }
  switch (mts_opc_get(msg)) {
    case MTS_OPC_MVPN_BGP_MDT_SAFI_LOCAL_REQUEST:
      mvpn_bgp_process_local_request(msg);
      return 1;
    case MTS_OPC_MVPN_BGP_UPDATE_SOURCE_NOTIFY:
      mvpn_bgp_process_update_src_notify(msg);
      return 1;
    case MTS_OPC_MVPN_BGP_MDT_SAFI_REMOTE_UPDATE:
      MVPN_DEBUG(pim_null_pcib, "Received MDT SAFI Remote Update msg from BGP");
      mvpn_bgp_mdt_safi_receive_remote_update(mts_payload_get(msg), mts_payload_length_get(msg));
      return 1;
    case MTS_OPC_MVPN_BGP_RD_NOTIFY:
      mvpn_bgp_process_rd_notify(msg);
      return 1;
    case MTS_OPC_OIM_IF_CREATE_RESPONSE:
      MVPN_DEBUG(pim_null_pcib, "Received OIM If create response message");
      mvpn_oim_process_create_response(msg);
      return 1;
    case MTS_OPC_MVPN_BGP_RESERVED:
      return 1;
    case MTS_OPC_OIM_IF_DELETE_RESPONSE:
      MVPN_DEBUG(pim_null_pcib, "Received OIM If delete response message");
      mvpn_oim_process_delete_response(msg);
      return 1;
    case MTS_OPC_OIM_IF_PARAM_UPDATE_RESPONSE:
      MVPN_DEBUG(pim_null_pcib, "Received OIM param update response msg");
      mvpn_oim_process_update_response(msg);
      return 1;
    default:
      return 0;
  }
}

// ------------------------------------------------------------------------------------------------------ registration

void mvpn_init_cli() {
  struct registration {
    const char *name;
    cli_handler handler;
  };
#define HANDLER(function) {#function, function},
  static constexpr registration handlers[] = {MVPN_CONFIG_HANDLERS(HANDLER) MVPN_SHOW_HANDLERS(HANDLER)
                                                  MVPN_SNMP_HANDLERS(HANDLER)};
#undef HANDLER
  for (const registration &r : handlers) {
    if (cli_register_cmd(r.name, r.handler, 0) != 0) {
      mvpn_report(msg_error_PIM_API_FAILED, "cli_register_cmd()", r.name);
    }
  }
}

// -------------------------------------------------------------------------------------------------- end of replay

int mvpn_cli_vrf_done(pim_cibtype *pcib) {
  mvpn_cibtype *mvpn = pcib != nullptr ? pcib->mvpn : nullptr;
  if (mvpn != nullptr && mvpn->mti_status == MVPN_MTI_NONE) mvpn_setup_default_mdt(mvpn);
  return 1;
}

// Deletes a tunnel of the manager's database when no VRF owns it.
static void delete_if_orphan(if_index_t if_index) {
  MVPN_DEBUG(pim_null_pcib, "Evaluating %s if orphan\n", oim_print_ifname(if_index));
  const mvpn_cibtype *owner = mvpn_get_context_by_mti(if_index);
  if (owner == nullptr) {
    mvpn_oim_orphan_tunnel_delete(if_index);
    return;
  }
  MVPN_DEBUG(pim_null_pcib, "MTI Status Information for VRF %s : MTI(%s) %s\n", owner->pcib->vrf_name,
             owner->mti_iod != 0 ? ksink_im_get_if_name(owner->mti_iod) : " ", mvpn_mti_status_str[owner->mti_status]);
}

static void delete_orphan_tunnels() {
  oim_if_info info{};
  for (int found = oim_sdb_get_first_if_info(&info); found != 0; found = oim_sdb_get_next_if_info(&info)) {
    if (im_is_ifindex_mvpn_tunnel(info.if_index)) delete_if_orphan(info.if_index);
  }
}

int mvpn_cli_done() {
  // Equality, since the counters wrap.
  if (!mvpn_is_up()) return 1;
  if (pim_cli_requests_sent_count != pim_cli_done_recv_count) return 1;
  // Set-ups from here on are not deferred any more.
  MVPN_DEBUG(pim_null_pcib, "CLI done with playing all commands\n");
  mvpn_is_cli_done = 1;
  // Default MDTs that the replay left alone.
  mvpn_for_each_context([](mvpn_cibtype *mvpn) {
    if (mvpn->mti_status == MVPN_MTI_NONE) mvpn_setup_default_mdt(mvpn);
    return true;
  });
  // Remote PEs, tunnels of former lives, receivers, and last the choices of former lives.
  mvpn_request_remote_mdt_safis();
  delete_orphan_tunnels();
  MVPN_DEBUG(pim_null_pcib, "Trigger routes from MRIB\n");
  mrib_trigger_join_notify(pim_mpib);
  mvpn_ha_recovery_start();
  return 1;
}
