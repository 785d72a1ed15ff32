// What the module makes of the tunnel manager: registration, the tunnels that are missing, answers to requests, and the
// interface manager's events.
//
// Creation, change and deletion of a tunnel are answered by a message, bring-up and bring-down by the interface's state
// notification. The if-index of a VRF's tunnel follows from its table id, so a tunnel that outlived a restart is found
// again.
//
// Invariants.
//   - mti_ifindex is set once the tunnel is known to exist or was asked for, and cleared when it is deleted.
//   - Answers need not fit what was asked for: a success for a VRF's tunnel moves its status, whatever that was. An
//     answer for a tunnel that is nobody's, and one that tells of a failure, changes nothing.
//   - Messages are bounded by their payload; if-index 0 is no tunnel, though it is what a VRF without one carries.
//
// The walk for missing tunnels yields, and so may the teardown that an answer or an event starts or ends: handlers do
// not touch the VRF's context after it.
#include "routing/pim/mvpn/mvpn_tunnel_events.h"

#include <algorithm>

#include "platform/im.h"
#include "platform/l3vm.h"
#include "platform/oim.h"
#include "routing/pim/mvpn/mvpn_bgp.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_default_mdt.h"
#include "routing/pim/mvpn/mvpn_diag.h"
#include "routing/pim/mvpn/mvpn_mdt_source.h"
#include "routing/pim/mvpn/mvpn_wire.h"

// -------------------------------------------------------------------------------------------------------- registration

// The walk for one VRF.
static void request_missing_tunnel(mvpn_cibtype *mvpn) {
  if (mvpn->mdt_default_group == 0) return;
  if (mvpn->mti_iod != 0) {
    MVPN_DEBUG(mvpn->pcib, "This VRF has tunnel iod set already");
    return;
  }
  // The tunnel exists: its announcement completes it.
  im_iod_t iod = 0;
  if (mvpn->mti_ifindex != 0 && im_get_iod_frm_ifindex(mvpn->mti_ifindex, &iod) == 0) return;
  MVPN_DEBUG(mvpn->pcib, "Create Tunnel for mvpn (table-id 0x%lx)", static_cast<unsigned long>(mvpn->pcib->table_id));
  mvpn_oim_tunnel_create(mvpn);
}

static void mvpn_get_oim_info() {
  // During the replay each VRF's tunnel is requested when its own replay ends.
  if (mvpn_is_cli_done == 0) return;
  mvpn_for_each_context_by_id([](mvpn_cibtype *mvpn) {
    request_missing_tunnel(mvpn);
    return true;
  });
}

int mvpn_init_oim() {
  if (pim_oim_initialized != 0) return 1;
  if (oim_register(mvpn_mts_q) == 0) {
    mvpn_report(msg_error_PIM_OIM_REGISTER_FAIL, "mvpn_oim_init");
    return 0;
  }
  oim_api_init();
  MVPN_DEBUG(pim_null_pcib, "Successfully registered with OIM\n");
  pim_oim_initialized = 1;
  mvpn_get_oim_info();
  return 1;
}

void mvpn_deinit_oim() {
  if (pim_oim_initialized == 0) return;
  oim_deregister();
  oim_api_close();
  pim_oim_initialized = 0;
}

// ----------------------------------------------------------------------------------------------------------- responses

namespace {

struct response_entry {
  if_index_t if_index;
  im_iod_t iod;
  uint32_t result;  // 0 = success
};

// The entries of a response. A count beyond the payload is cut to the entries that are there.
class response_reader {
 public:
  explicit response_reader(const mts_message *msg) {
    const auto *payload = static_cast<const uint8_t *>(mts_payload_get(msg));
    const size_t length = mts_payload_length_get(msg);
    if (payload == nullptr || length < OIM_RESPONSE_ENTRIES) return;
    const size_t present = (length - OIM_RESPONSE_ENTRIES) / OIM_RESPONSE_ENTRY_SIZE;
    left_ = std::min<size_t>(load_be16(payload), present);
    next_ = payload + OIM_RESPONSE_ENTRIES;
  }

  // The next entry; false at the end.
  bool next(response_entry *entry) {
    if (left_ == 0) return false;
    entry->if_index = ntoh_if_index(load_host<uint32_t>(next_ + OIM_RESPONSE_IF_INDEX));
    entry->iod = load_be32(next_ + OIM_RESPONSE_IOD);
    entry->result = load_be32(next_ + OIM_RESPONSE_RESULT);
    next_ += OIM_RESPONSE_ENTRY_SIZE;
    left_--;
    return true;
  }

 private:
  const uint8_t *next_ = nullptr;
  size_t left_ = 0;
};

}  // namespace

// The VRF that a successful request was made for; null when it failed, or when nobody owns the tunnel.
static mvpn_cibtype *context_of(const response_entry &entry) {
  if (entry.result != 0 || entry.if_index == 0) return nullptr;
  return mvpn_get_context_by_mti(entry.if_index);
}

void mvpn_oim_process_create_response(mts_message *msg) {
  response_reader reader(msg);
  for (response_entry entry; reader.next(&entry);) {
    MVPN_DEBUG(pim_null_pcib, "Received Tunnel create response for if-index 0x%x", entry.if_index);
    if (mvpn_cibtype *mvpn = context_of(entry)) mvpn_default_tunnel_created(mvpn);
  }
}

void mvpn_oim_process_delete_response(mts_message *msg) {
  response_reader reader(msg);
  for (response_entry entry; reader.next(&entry);) {
    MVPN_DEBUG(pim_null_pcib, "Received Tunnel delete response for if-index 0x%x", entry.if_index);
    if (mvpn_cibtype *mvpn = context_of(entry)) mvpn_default_tunnel_deleted(mvpn);
  }
}

void mvpn_oim_process_update_response(mts_message *msg) {
  response_reader reader(msg);
  for (response_entry entry; reader.next(&entry);) {
    MVPN_DEBUG(pim_null_pcib, "Received Tunnel update response for if-index 0x%x", entry.if_index);
    if (mvpn_cibtype *mvpn = context_of(entry)) mvpn_default_tunnel_updated(mvpn, entry.iod);
  }
}

// ---------------------------------------------------------------------------------------------------- interface events

// Whether the VRF itself is known to be down.
static int is_vrf_down(const mvpn_cibtype *mvpn) {
  l3vm_context_info info;
  return l3vm_get_context_info(mvpn->pcib->context_id, &info) != 0 && info.state != L3VM_STATE_UP ? 1 : 0;
}

static void tunnel_changed_state(mvpn_cibtype *mvpn, im_iod_t iod, int up) {
  if (up != 0 && mvpn_is_default_mdt_ready(mvpn) != 0) {
    mvpn_default_tunnel_up(mvpn, iod);
  } else {
    mvpn_default_tunnel_down(mvpn, is_vrf_down(mvpn));
  }
}

static void source_changed_state(mvpn_cibtype *mvpn, im_iod_t iod, int up) {
  mvpn->mdt_source_context = l3vm_if_get_context_id(iod);
  mvpn->mdt_group_mode = mvpn_get_group_mode(mvpn->mdt_source_context, mvpn->mdt_default_group);
  if (up != 0) {
    if (mvpn_is_default_mdt_ready(mvpn) == 0) return;
    // Without a tunnel there is nothing to bring up: it is set up, as for a VRF that was configured just now.
    if (mvpn->mti_ifindex != 0) {
      mvpn_oim_bringup_tunnel(mvpn);
    } else {
      mvpn_setup_default_mdt(mvpn);
    }
  } else if (mvpn->mti_status == MVPN_MTI_UP) {
    mvpn_oim_bringdown_tunnel(mvpn);
  }
}

void mvpn_interface_status(im_iod_t iod, int up) {
  const char *state = up != 0 ? "up" : "down";
  if (!mvpn_is_running()) {
    MVPN_DEBUG(pim_null_pcib, "Ignoring a %s notification in mvpn_interface_status for %s", state,
               ksink_im_get_if_name(iod));
    return;
  }
  MVPN_DEBUG(pim_null_pcib, "Received a %s notification in mvpn_interface_status for %s", state,
             ksink_im_get_if_name(iod));
  if_index_t if_index = 0;
  if (ksink_im_get_ifindex_frm_iod(iod, &if_index) != 0) {
    mvpn_report(msg_error_PIM_API_FAILED, "ksink_im_get_ifindex_frm_iod()", "mvpn_interface_status()");
    return;
  }
  // In VRF-name order: an interface may be the source of several VRFs; a tunnel belongs to one, which ends the walk.
  mvpn_vrf_name last;
  while (true) {
    mvpn_cibtype *tunnel = if_index != 0 ? mvpn_next_context_by_mti(if_index, last.text()) : nullptr;
    mvpn_cibtype *source = mvpn_next_context_by_source(iod, last.text());
    mvpn_cibtype *mvpn = mvpn_first_by_name(tunnel, source);
    if (mvpn == nullptr) return;
    if (mvpn == tunnel) {
      MVPN_DEBUG(mvpn->pcib, "Found the mvpn corresponding to the if_index = 0x%x", if_index);
      tunnel_changed_state(mvpn, iod, up);
      return;
    }
    last = mvpn_vrf_name(mvpn);
    source_changed_state(mvpn, iod, up);
  }
}

// A VRF that waits for its source: the interface that was announced, or the update source that it made known.
static void complete_source(mvpn_cibtype *mvpn, im_iod_t announced) {
  if (mvpn->mdt_source_ifname[0] != '\0') {
    if (im_get_if_by_name(mvpn->mdt_source_ifname) == announced) mvpn_set_mdt_source_iod(mvpn, announced);
  } else if (mvpn_bgp_updatesrc_iod != 0) {
    mvpn_set_mdt_source_iod(mvpn, mvpn_bgp_updatesrc_iod);
    mvpn_process_bgp_update_source_change(mvpn_bgp_updatesrc_iod);
  }
}

void mvpn_interface_create(im_iod_t iod) {
  if (!mvpn_is_up()) return;
  MVPN_DEBUG(pim_null_pcib, "Received a create notification for %s\n", ksink_im_get_if_name(iod));
  if (mvpn_bgp_updatesrc_iod == 0) mvpn_bgp_resolve_update_src();
  mvpn_for_each_context_by_source(0, [iod](mvpn_cibtype *mvpn) {
    complete_source(mvpn, iod);
    return true;
  });
}
