// Tunnel interface management: what the module asks of the tunnel manager, and what it makes of the answers and of the
// interface manager's events.
//
// A VRF's multicast tunnel interface (MTI) belongs to the tunnel manager. The module registers at start, describes
// tunnels in interface lists (an interface header followed by parameters) and asks for their creation, change, bring-up,
// bring-down and deletion. A request is sent once and not tested; the VRF's mti_status says what it waits for. Creation,
// change and deletion are answered by a message, bring-up and bring-down by the interface's state notification.
//
// The if-index of a VRF's tunnel follows from its table id, so a tunnel that outlived a restart is found again; a
// tunnel that no VRF owns is deleted as an orphan.
//
// Invariants.
//   - mti_ifindex is set once the tunnel is known to exist or was asked for, and cleared when it is deleted.
//   - Answers need not fit what was asked for: a success for a VRF's tunnel moves its status, whatever that was. An
//     answer for a tunnel that is nobody's, and one that tells of a failure, changes nothing.
//   - Messages are bounded by their payload; if-index 0 is no tunnel, though it is what a VRF without one carries.
//
// Requests may also be made by the MRIB worker, when it has finished with the routes of a VRF. The walk for missing
// tunnels yields, and so may the teardown that an answer or an event starts or ends: handlers do not touch the VRF's
// context after it.
#include "routing/pim/mvpn/mvpn_oim.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "platform/im.h"
#include "platform/l3vm.h"
#include "platform/oim.h"
#include "routing/pim/mvpn/mvpn_core.h"
#include "routing/pim/mvpn/mvpn_diag.h"
#include "routing/pim/mvpn/mvpn_guards.h"
#include "routing/pim/mvpn/mvpn_mdt_safi.h"
#include "routing/pim/mvpn/mvpn_wire.h"

// -------------------------------------------------------------------------------------------------------- registration

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

// Whether the interface manager knows an if-index; *iod is then its ordinal.
static bool is_known_interface(if_index_t if_index, im_iod_t *iod) {
  return im_get_iod_frm_ifindex(if_index, iod) == 0;
}

// Steps 2 to 5 of the walk for one VRF.
static void request_missing_tunnel(mvpn_cibtype *mvpn) {
  // 2.
  if (mvpn->mdt_default_group == 0) return;
  // 3.
  if (mvpn->mti_iod != 0) {
    MVPN_DEBUG(mvpn->pcib, "This VRF has tunnel iod set already");
    return;
  }
  // 4. The tunnel exists: its announcement completes it.
  im_iod_t iod = 0;
  if (mvpn->mti_ifindex != 0 && is_known_interface(mvpn->mti_ifindex, &iod)) return;
  // 5.
  MVPN_DEBUG(mvpn->pcib, "Create Tunnel for mvpn (table-id 0x%lx)", static_cast<unsigned long>(mvpn->pcib->table_id));
  mvpn_oim_tunnel_create(mvpn);
}

void mvpn_get_oim_info() {
  // 1. During the replay each VRF's tunnel is requested when its own replay ends.
  if (mvpn_is_cli_done == 0) return;
  mvpn_for_each_context_by_id([](mvpn_cibtype *mvpn) {
    request_missing_tunnel(mvpn);
    return true;
  });
}

// ----------------------------------------------------------------------------------------------------- interface lists

// Appends an interface; 0 when the list is full.
static int add_interface(void *list, uint32_t size, if_index_t if_index, im_iod_t iod, uint8_t **header) {
  if (oim_if_info_list_add_new_if(list, size, header) == 0) return 0;
  store_host<uint32_t>(*header + OIM_IF_HEADER_IF_INDEX, hton_if_index(if_index));
  store_be32(*header + OIM_IF_HEADER_IOD, iod);
  return 1;
}

namespace {

struct parameter {
  const char *name;   // in error reports
  const void *value;  // as it goes out
  size_t length;
  oim_param_type type;
  bool wanted;
};

using address_record = std::array<uint8_t, OIM_ADDR_RECORD_SIZE>;

}  // namespace

static address_record make_address_record(ip_addr_t address) {
  address_record record{};
  store_be32(record.data(), OIM_ADDR_FAMILY_IPV4);
  store_be32(record.data() + 4, address);
  return record;
}

// Appends a parameter to an interface; 0 when the list is full.
static int add_parameter(void *list, uint32_t size, uint8_t *header, const parameter &param) {
  uint8_t *tlv = nullptr;
  if (oim_if_info_list_add_new_param_tlv(list, size, header, &tlv) == 0) return 0;
  store_be16(tlv + OIM_TLV_TYPE, static_cast<uint16_t>(param.type));
  store_be16(tlv + OIM_TLV_LENGTH, static_cast<uint16_t>(param.length));
  std::memcpy(tlv + OIM_TLV_VALUE, param.value, param.length);
  return 1;
}

int mvpn_oim_populate_if_list(mvpn_cibtype *mvpn, void *list, uint32_t size, if_index_t if_index,
                              const mvpn_oim_params &params, im_iod_t iod) {
  // 1.
  if (mvpn->pcib == nullptr) return 0;
  const char *vrf_name = mvpn->pcib->vrf_name;
  // 2, 3.
  uint8_t *header = nullptr;
  if (add_interface(list, size, if_index, iod, &header) == 0) {
    mvpn_report(msg_error_PIM_TUNNEL_ADD_FAIL, "mvpn_oim_populate_if_list()", vrf_name);
    return 0;
  }
  // 4.
  const uint8_t admin_up = 1;
  std::array<uint8_t, 4> mtu;
  store_be32(mtu.data(), mvpn->mdt_mtu);
  const address_record source = make_address_record(mvpn->mdt_source_addr);
  const address_record destination = make_address_record(mvpn->mdt_default_group);
  const parameter table[] = {
      {"Admin State TLV", &admin_up, sizeof admin_up, OIM_PARAM_ADMIN_STATE, params.admin},
      {"VRF Name TLV", vrf_name, strnlen(vrf_name, VRF_NAME_MAX), OIM_PARAM_VRF_NAME, params.vrf_name},
      {"MTU TLV", mtu.data(), mtu.size(), OIM_PARAM_MTU, params.mtu},
      {"src addr TLV", source.data(), source.size(), OIM_PARAM_SRC_ADDR, params.source},
      {"dst addr TLV", destination.data(), destination.size(), OIM_PARAM_DST_ADDR, params.destination},
  };
  for (const parameter &param : table) {
    if (!param.wanted || add_parameter(list, size, header, param) != 0) continue;
    mvpn_report(msg_error_PIM_TUNNEL_ADD_TLV_FAIL, param.name, vrf_name);
    return 0;
  }
  return 1;
}

namespace {

// Room in a list for one interface: how many parameters, the longest of them.
struct list_room {
  uint32_t parameters;
  uint32_t longest_value;
};
constexpr list_room room_for_all = {5, VRF_NAME_MAX + 1};
constexpr list_room room_for_one = {1, VRF_NAME_MAX + 1};
constexpr list_room room_for_none = {0, 0};

// A list that lives for the length of a request.
struct if_list {
  tracked_ptr<uint8_t> bytes;  // null: it could not be made
  uint32_t size;
};

}  // namespace

static if_list allocate_list(const list_room &room, const char *function) {
  const uint32_t size = oim_if_info_list_get_size(1, room.parameters, room.longest_value);
  void *bytes = mvpn_tracked_alloc(MTRACK_MVPN_LIST, size, size, "routing/pim/mvpn/mvpn_oim", __LINE__, function);
  return {tracked_ptr<uint8_t>(static_cast<uint8_t *>(bytes)), size};
}

// A list that describes a VRF's tunnel; null bytes after a report.
static if_list describe_tunnel(mvpn_cibtype *mvpn, const list_room &room, const mvpn_oim_params &params,
                               if_index_t if_index, im_iod_t iod, const char *function) {
  if_list list = allocate_list(room, function);
  if (list.bytes == nullptr) return list;
  if (mvpn_oim_populate_if_list(mvpn, list.bytes.get(), list.size, if_index, params, iod) == 0) list.bytes.reset();
  return list;
}

// ------------------------------------------------------------------------------------------------------------ requests

static const pim_cibtype *pcib_for_messages(const mvpn_cibtype *mvpn) {
  return mvpn != nullptr ? mvpn->pcib : pim_null_pcib;
}

// 6, 7. The create request. Its answer finds the VRF by the if-index.
static void send_create_request(mvpn_cibtype *mvpn, if_index_t if_index, im_iod_t iod) {
  const mvpn_oim_params params = {.admin = true, .vrf_name = true, .mtu = false, .source = true, .destination = true};
  const if_list list = describe_tunnel(mvpn, room_for_all, params, if_index, iod, "mvpn_oim_tunnel_create");
  if (list.bytes == nullptr) return;
  MVPN_DEBUG(mvpn->pcib, "Sending Tunnel create request for if-index 0x%x", if_index);
  oim_create_if(list.bytes.get(), list.size);
  mvpn_set_mti_status(mvpn, MVPN_MTI_CREATE_PENDING, "create request sent");
  mvpn_set_mti_ifindex(mvpn, if_index);
}

void mvpn_oim_tunnel_create(mvpn_cibtype *mvpn) {
  // 1.
  if (mvpn == nullptr || mvpn->pcib == nullptr || mvpn->pcib->table_id == 0) return;
  const uint32_t table_id = mvpn->pcib->table_id;
  // 2.
  MVPN_DEBUG(mvpn->pcib, "Initiating tunnel create for mvpn (table-id 0x%lx)", static_cast<unsigned long>(table_id));
  mvpn_set_mti_ifindex(mvpn, 0);
  // 3.
  if_index_t if_index = 0;
  if (if_index_overlay_cli_init(&if_index, IF_INDEX_OVERLAY_MVPN, table_id) != 0) {
    mvpn_report(msg_error_PIM_TUNNEL_CREATE_FAIL, mvpn->pcib->vrf_name);
    return;
  }
  // 4.
  if (pim_oim_initialized == 0) {
    MVPN_DEBUG(mvpn->pcib, "Havent initialized with OIM yet");
    return;
  }
  // 5.
  im_iod_t iod = 0;
  if (is_known_interface(if_index, &iod) && iod != 0) {
    MVPN_DEBUG(mvpn->pcib, "Tunnel interface already exists");
    mvpn_set_mti_ifindex(mvpn, if_index);
    mvpn_set_mti_status(mvpn, MVPN_MTI_CREATED, "the tunnel interface exists already");
    if (mvpn_is_default_mdt_ready(mvpn) != 0) mvpn_oim_bringup_tunnel(mvpn);
    return;
  }
  // 6, 7.
  send_create_request(mvpn, if_index, iod);
}

// Gives an existing tunnel the VRF's present parameters; 0 when the request could not be made.
static int refresh_parameters(mvpn_cibtype *mvpn, im_iod_t iod) {
  const mvpn_oim_params params = {.admin = true, .vrf_name = true, .mtu = true, .source = true, .destination = true};
  const if_list list = describe_tunnel(mvpn, room_for_all, params, mvpn->mti_ifindex, iod, "mvpn_oim_bringup_tunnel");
  if (list.bytes == nullptr) return 0;
  MVPN_DEBUG(mvpn->pcib, "Updating tunnel parameters");
  oim_modify_if(list.bytes.get(), list.size);
  return 1;
}

void mvpn_oim_bringup_tunnel(mvpn_cibtype *mvpn) {
  // 1.
  MVPN_DEBUG(mvpn->pcib, "Initiating tunnel bringup with OIM");
  // 2.
  im_iod_t iod = 0;
  if (is_known_interface(mvpn->mti_ifindex, &iod)) {
    if (ksink_im_is_if_up(iod) != 0 && mvpn_is_default_mdt_ready(mvpn) != 0) {
      MVPN_DEBUG(mvpn->pcib, "Tunnel interface is already up");
      mvpn_default_tunnel_up(mvpn, iod);
      return;
    }
    if (refresh_parameters(mvpn, iod) == 0) return;
  }
  // 3.
  MVPN_DEBUG(mvpn->pcib, "Send tunnel bringup request to OIM");
  oim_send_if_bringup_request(mvpn->mti_ifindex, 0);
  mvpn_set_mti_status(mvpn, MVPN_MTI_UP_PENDING, "bring-up request sent");
}

void mvpn_oim_bringdown_tunnel(mvpn_cibtype *mvpn) {
  MVPN_DEBUG(mvpn->pcib, "Initiating tunnel bringdown with OIM ");
  oim_send_if_bringdown_request(mvpn->mti_ifindex, 0);
  mvpn_set_mti_status(mvpn, MVPN_MTI_DOWN_PENDING, "bring-down request sent");
}

// Whether there is a tunnel to change or delete.
static bool has_tunnel(const mvpn_cibtype *mvpn) {
  return mvpn != nullptr && mvpn->pcib != nullptr && mvpn->mti_ifindex != 0;
}

static void update_one_parameter(mvpn_cibtype *mvpn, const mvpn_oim_params &params, const char *function) {
  const if_list list = describe_tunnel(mvpn, room_for_one, params, mvpn->mti_ifindex, mvpn->mti_iod, function);
  if (list.bytes != nullptr) oim_modify_if(list.bytes.get(), list.size);
}

void mvpn_oim_tunnel_update_source(mvpn_cibtype *mvpn) {
  if (!has_tunnel(mvpn)) return;
  MVPN_DEBUG(mvpn->pcib, "Updating tunnel source parameter");
  mvpn_oim_params params;
  params.source = true;
  update_one_parameter(mvpn, params, "mvpn_oim_tunnel_update_source");
}

void mvpn_oim_tunnel_update_mtu(mvpn_cibtype *mvpn) {
  if (!has_tunnel(mvpn)) return;
  MVPN_DEBUG(mvpn->pcib, "Updating tunnel mtu parameter");
  mvpn_oim_params params;
  params.mtu = true;
  update_one_parameter(mvpn, params, "mvpn_oim_tunnel_update_mtu");
}

void mvpn_oim_tunnel_delete(mvpn_cibtype *mvpn) {
  MVPN_DEBUG(pcib_for_messages(mvpn), "Initiating tunnel delete with OIM ");
  if (!has_tunnel(mvpn)) return;
  const if_list list =
      describe_tunnel(mvpn, room_for_none, {}, mvpn->mti_ifindex, mvpn->mti_iod, "mvpn_oim_tunnel_delete");
  if (list.bytes == nullptr) return;
  oim_delete_if(list.bytes.get(), list.size);
  mvpn_set_mti_status(mvpn, MVPN_MTI_DELETE_PENDING, "delete request sent");
}

void mvpn_oim_orphan_tunnel_delete(if_index_t if_index) {
  MVPN_DEBUG(pim_null_pcib, "Initiating tunnel delete(orphan) with OIM\n");
  const if_list list = allocate_list(room_for_none, "mvpn_oim_orphan_tunnel_delete");
  if (list.bytes == nullptr) return;
  uint8_t *header = nullptr;
  if (add_interface(list.bytes.get(), list.size, if_index, 0, &header) != 0) {
    oim_delete_if(list.bytes.get(), list.size);
  }
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

static void tunnel_created(mvpn_cibtype *mvpn) {
  // 1.
  mvpn_set_mti_status(mvpn, MVPN_MTI_CREATED, "create response");
  // 2.
  if (mvpn_is_default_mdt_ready(mvpn) != 0) {
    mvpn_oim_bringup_tunnel(mvpn);
    MVPN_DEBUG(mvpn->pcib, "Sent bringup request for if-index 0x%x", mvpn->mti_ifindex);
    return;
  }
  // 3. Removed from the configuration meanwhile.
  if (mvpn->mdt_default_group == 0) mvpn_oim_tunnel_delete(mvpn);
}

static void tunnel_deleted(mvpn_cibtype *mvpn) {
  // 1.
  mvpn_set_mti_status(mvpn, MVPN_MTI_DELETED, "delete response");
  mvpn_set_mti_ifindex(mvpn, 0);
  // 2, 3.
  if (mvpn_is_default_mdt_ready(mvpn) != 0) {
    mvpn_setup_default_mdt(mvpn);
  } else if (mvpn->mdt_default_group == 0) {
    mvpn_finish_destroy_default_mdt(mvpn);
  }
}

static void tunnel_updated(mvpn_cibtype *mvpn, im_iod_t iod) {
  // 1.
  if (mvpn->mti_status == MVPN_MTI_UP_PENDING && mvpn_is_default_mdt_ready(mvpn) != 0) {
    if (ksink_im_is_if_up(iod) != 0) {
      MVPN_DEBUG(mvpn->pcib, "Setting up the default tunnel");
      mvpn_default_tunnel_up(mvpn, iod);
    } else {
      MVPN_DEBUG(mvpn->pcib, "Sending tunnel bring up request to OIM");
      oim_send_if_bringup_request(mvpn->mti_ifindex, 0);
    }
    return;
  }
  // 2.
  if (mvpn->mti_status == MVPN_MTI_DELETE_PENDING && mvpn->mdt_default_group == 0) {
    MVPN_DEBUG(mvpn->pcib, "Destroying the default tunnel");
    mvpn_finish_destroy_default_mdt(mvpn);
  }
}

void mvpn_oim_process_create_response(mts_message *msg) {
  response_reader reader(msg);
  for (response_entry entry; reader.next(&entry);) {
    MVPN_DEBUG(pim_null_pcib, "Received Tunnel create response for if-index 0x%x", entry.if_index);
    if (mvpn_cibtype *mvpn = context_of(entry)) tunnel_created(mvpn);
  }
}

void mvpn_oim_process_delete_response(mts_message *msg) {
  response_reader reader(msg);
  for (response_entry entry; reader.next(&entry);) {
    MVPN_DEBUG(pim_null_pcib, "Received Tunnel delete response for if-index 0x%x", entry.if_index);
    if (mvpn_cibtype *mvpn = context_of(entry)) tunnel_deleted(mvpn);
  }
}

void mvpn_oim_process_update_response(mts_message *msg) {
  response_reader reader(msg);
  for (response_entry entry; reader.next(&entry);) {
    MVPN_DEBUG(pim_null_pcib, "Received Tunnel update response for if-index 0x%x", entry.if_index);
    if (mvpn_cibtype *mvpn = context_of(entry)) tunnel_updated(mvpn, entry.iod);
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
  // 1, 2.
  if (!mvpn_is_running()) {
    MVPN_DEBUG(pim_null_pcib, "Ignoring a %s notification in mvpn_interface_status for %s", state,
               ksink_im_get_if_name(iod));
    return;
  }
  MVPN_DEBUG(pim_null_pcib, "Received a %s notification in mvpn_interface_status for %s", state,
             ksink_im_get_if_name(iod));
  // 3.
  if_index_t if_index = 0;
  if (ksink_im_get_ifindex_frm_iod(iod, &if_index) != 0) {
    mvpn_report(msg_error_PIM_API_FAILED, "ksink_im_get_ifindex_frm_iod()", "mvpn_interface_status()");
    return;
  }
  // 4. In VRF-name order: an interface may be the source of several VRFs; a tunnel belongs to one, which ends the walk.
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
  // 1, 2.
  if (!mvpn_is_up()) return;
  MVPN_DEBUG(pim_null_pcib, "Received a create notification for %s\n", ksink_im_get_if_name(iod));
  // 3.
  if (mvpn_bgp_updatesrc_iod == 0) mvpn_bgp_resolve_update_src();
  // 4.
  mvpn_for_each_context_by_source(0, [iod](mvpn_cibtype *mvpn) {
    complete_source(mvpn, iod);
    return true;
  });
}
