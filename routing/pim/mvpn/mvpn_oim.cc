// What is asked of the tunnel manager: interface lists, and the requests that are made of them.
//
// A VRF's multicast tunnel interface (MTI) belongs to the tunnel manager. The module describes tunnels in interface
// lists (an interface header followed by parameters) and asks for their creation, change, bring-up, bring-down and
// deletion. A request is sent once and not tested. What a request means for the VRF's mti_status, and what an answer
// does, is the default MDT's business; here nothing is decided.
#include "routing/pim/mvpn/mvpn_oim_internal.h"

#include <array>
#include <cstring>

#include "platform/im.h"
#include "platform/oim.h"
#include "routing/pim/mvpn/mvpn_diag.h"
#include "routing/pim/mvpn/mvpn_guards.h"
#include "routing/pim/mvpn/mvpn_wire.h"

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
  if (mvpn->pcib == nullptr) return 0;
  const char *vrf_name = mvpn->pcib->vrf_name;
  uint8_t *header = nullptr;
  if (add_interface(list, size, if_index, iod, &header) == 0) {
    mvpn_report(msg_error_PIM_TUNNEL_ADD_FAIL, "mvpn_oim_populate_if_list()", vrf_name);
    return 0;
  }
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

int mvpn_oim_send_create(mvpn_cibtype *mvpn, if_index_t if_index, im_iod_t iod) {
  const mvpn_oim_params params = {.admin = true, .vrf_name = true, .mtu = false, .source = true, .destination = true};
  const if_list list = describe_tunnel(mvpn, room_for_all, params, if_index, iod, "mvpn_oim_tunnel_create");
  if (list.bytes == nullptr) return 0;
  MVPN_DEBUG(mvpn->pcib, "Sending Tunnel create request for if-index 0x%x", if_index);
  oim_create_if(list.bytes.get(), list.size);
  return 1;
}

int mvpn_oim_refresh_parameters(mvpn_cibtype *mvpn, im_iod_t iod) {
  const mvpn_oim_params params = {.admin = true, .vrf_name = true, .mtu = true, .source = true, .destination = true};
  const if_list list = describe_tunnel(mvpn, room_for_all, params, mvpn->mti_ifindex, iod, "mvpn_oim_bringup_tunnel");
  if (list.bytes == nullptr) return 0;
  MVPN_DEBUG(mvpn->pcib, "Updating tunnel parameters");
  oim_modify_if(list.bytes.get(), list.size);
  return 1;
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

int mvpn_oim_send_delete(mvpn_cibtype *mvpn) {
  if (!has_tunnel(mvpn)) return 0;
  const if_list list =
      describe_tunnel(mvpn, room_for_none, {}, mvpn->mti_ifindex, mvpn->mti_iod, "mvpn_oim_tunnel_delete");
  if (list.bytes == nullptr) return 0;
  oim_delete_if(list.bytes.get(), list.size);
  return 1;
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
