// Tunnel interface manager: the database of MVPN tunnels and the requests.
//
// A request is checked and queued when it arrives and carried out from the main loop, in order: create, modify and
// delete are then answered by a response, bring-up and bring-down by the interface's state notification, and by nothing
// when the state does not change. Deleting removes the interface without a notification before the response.
//
// The database may be kept in a file, so that tunnels outlive the process as they outlive it on a router. They outlive
// it with their parameters and down: a tunnel is up on behalf of a client, and one that nobody serves would carry
// packets to a group that may not be the VRF's any more. A client that finds its tunnel down describes it anew before
// it brings it up.
#include "platform/oim.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <span>

#include "platform/im.h"
#include "platform/pim.h"
#include "platform/reference/forwarding_plane.h"
#include "platform/reference/im.h"
#include "platform/reference/mts.h"
#include "platform/reference/oim.h"
#include "platform/reference/oim_file.h"
#include "platform/reference/oim_list.h"
#include "platform/reference/runtime.h"
#include "platform/reference/services.h"
#include "platform/reference/testing/services.h"
#include "platform/reference/text.h"
#include "platform/reference/wire.h"

namespace ref {
namespace {

using oim_list::all_interfaces;
using oim_list::all_params;
using oim_list::Bytes;
using oim_list::Described;
using oim_list::interface_count;

enum class Operation { create, modify, remove, bringup, bringdown };
constexpr const char *operation_names[] = {"create", "modify", "delete", "bringup", "bringdown"};

// A request as it came, without what may stand behind its list.
struct Request {
  Operation operation;
  Bytes list;
};

struct State {
  std::map<if_index_t, Tunnel> tunnels;  // up: kept by the interface manager, not here
  ByName<if_index_t> by_vrf;
  std::multimap<ip_addr_t, if_index_t> by_destination;
  std::vector<OimRequest> log;
  std::vector<Request> unread;  // behind the log; decoded when somebody reads it
  std::deque<Request> waiting;
  bool registered = false;
  bool answers = true;
  bool work_posted = false;
  std::string file;
  bool save_posted = false;
  std::set<if_index_t> wanted_up;  // with a forwarding plane: what clients have brought up
};
State state;

void decode(const Request &request, std::vector<OimRequest> &log) {
  all_interfaces(request.list, [&](const Described &interface) {
    OimRequest decoded{operation_names[static_cast<size_t>(request.operation)], interface.if_index, interface.iod, {}};
    all_params(interface, [&decoded](uint16_t type, std::span<const uint8_t> value) {
      decoded.params.emplace_back(type, std::vector<uint8_t>(value.begin(), value.end()));
      return true;
    });
    remember(log, std::move(decoded));
    return true;
  });
}

// --------------------------------------------------------------------------------------------------------- database

std::optional<ip_addr_t> address_of(std::span<const uint8_t> value) {
  if (value.size() != OIM_ADDR_RECORD_SIZE || wire::load_be32(value.data()) != OIM_ADDR_FAMILY_IPV4)
    return std::nullopt;
  return wire::load_be32(value.data() + 4);
}

// Writes one parameter into a tunnel; false when its value is not one.
bool apply_param(Tunnel &tunnel, uint16_t type, std::span<const uint8_t> value) {
  switch (type) {
    case OIM_PARAM_ADMIN_STATE:
      if (value.size() != 1) return false;
      tunnel.admin_up = value[0];
      return true;
    case OIM_PARAM_MTU:
      if (value.size() != 4) return false;
      tunnel.mtu = wire::load_be32(value.data());
      return true;
    case OIM_PARAM_VRF_NAME:
      if (value.empty() || value.size() > VRF_NAME_MAX) return false;
      tunnel.vrf_name.assign(value.begin(), value.end());
      return true;
    case OIM_PARAM_SRC_ADDR:
    case OIM_PARAM_DST_ADDR: {
      const auto address = address_of(value);
      if (address) (type == OIM_PARAM_SRC_ADDR ? tunnel.source : tunnel.destination) = *address;
      return address.has_value();
    }
    default:
      return false;
  }
}

bool apply_params(Tunnel &tunnel, const Described &wanted) {
  return all_params(
      wanted, [&tunnel](uint16_t type, std::span<const uint8_t> value) { return apply_param(tunnel, type, value); });
}

void save();

// One write for all changes of a turn of the main loop.
void changed() {
  if (state.file.empty() || state.save_posted) return;
  state.save_posted = true;
  post(save);
}

void index(const Tunnel &tunnel) {
  if (!tunnel.vrf_name.empty()) state.by_vrf[tunnel.vrf_name] = tunnel.if_index;
  state.by_destination.emplace(tunnel.destination, tunnel.if_index);
}

void tell_plane(const Tunnel &tunnel) {
  if (ForwardingPlane *plane = forwarding_plane())
    plane->tunnel_changed(tunnel, state.wanted_up.contains(tunnel.if_index));
}

void unindex(const Tunnel &tunnel) {
  const auto vrf = state.by_vrf.find(tunnel.vrf_name);
  if (vrf != state.by_vrf.end() && vrf->second == tunnel.if_index) state.by_vrf.erase(vrf);
  const auto [first, last] = state.by_destination.equal_range(tunnel.destination);
  const auto found = std::find_if(first, last, [&](const auto &item) { return item.second == tunnel.if_index; });
  if (found != last) state.by_destination.erase(found);
}

// What a tunnel's interface and everybody else follow when the tunnel is new or has changed.
void tunnel_changed(const Tunnel &tunnel) {
  im_note_change();
  if (Interface *interface = im_find(tunnel.iod)) interface->mtu = tunnel.mtu;
  tell_plane(tunnel);
  changed();
}

// Puts another description in a tunnel's place.
void describe_anew(Tunnel &tunnel, const Tunnel &described) {
  const bool moved = tunnel.vrf_name != described.vrf_name;
  if (moved || tunnel.destination != described.destination) {
    unindex(tunnel);
    index(described);
  }
  tunnel = described;
  const vrf_context_id_t context_id = moved ? l3vm_find(tunnel.vrf_name) : vrf_context_id_t{VRF_CONTEXT_ID_NONE};
  Interface *interface = im_find(tunnel.iod);
  if (interface != nullptr && context_id != VRF_CONTEXT_ID_NONE) interface->context_id = context_id;
  tunnel_changed(tunnel);
}

constexpr uint32_t default_mtu = 1500;  // of a tunnel that was given none

// Adds the interface of a new tunnel and the tunnel itself; its ordinal, 0 when the interface manager refuses it.
im_iod_t add_tunnel(Tunnel tunnel) {
  Interface interface;
  interface.name = oim_print_ifname(tunnel.if_index);
  interface.iod = tunnel.iod;
  interface.if_index = tunnel.if_index;
  interface.context_id = l3vm_find(tunnel.vrf_name);
  interface.mvpn_tunnel = true;
  interface.up = tunnel.up;
  tunnel.iod = im_add(interface);
  if (tunnel.iod == 0) return 0;
  index(tunnel);
  state.tunnels[tunnel.if_index] = tunnel;
  tunnel_changed(tunnel);
  return tunnel.iod;
}

uint32_t modify(const Described &request, im_iod_t *iod) {
  const auto existing = state.tunnels.find(request.if_index);
  if (existing == state.tunnels.end()) return ENOENT;
  Tunnel described = existing->second;
  *iod = described.iod;
  if (!apply_params(described, request)) return EINVAL;
  describe_anew(existing->second, described);
  return 0;
}

uint32_t create(const Described &request, im_iod_t *iod) {
  if (state.tunnels.contains(request.if_index)) return modify(request, iod);
  Tunnel tunnel;
  tunnel.if_index = request.if_index;
  tunnel.iod = request.iod;
  tunnel.mtu = default_mtu;
  if (!apply_params(tunnel, request)) return EINVAL;
  if (l3vm_find(tunnel.vrf_name) == VRF_CONTEXT_ID_NONE) return ENOENT;
  const im_iod_t added = add_tunnel(std::move(tunnel));
  if (added != 0) *iod = added;
  return added != 0 ? 0 : ENOENT;
}

// A tunnel that is not there is as deleted as one can be.
uint32_t remove(const Described &request, im_iod_t *iod) {
  const auto existing = state.tunnels.find(request.if_index);
  if (existing == state.tunnels.end()) return 0;
  *iod = existing->second.iod;
  if (ForwardingPlane *plane = forwarding_plane()) plane->tunnel_deleted(existing->second);
  state.wanted_up.erase(request.if_index);
  im_remove(existing->second.iod);
  unindex(existing->second);
  state.tunnels.erase(existing);
  im_note_change();
  changed();
  return 0;
}

void set_up(if_index_t if_index, bool up) {
  const auto existing = state.tunnels.find(if_index);
  if (existing == state.tunnels.end()) return;
  const Tunnel &tunnel = existing->second;
  const bool usable = tunnel.admin_up != 0 && tunnel.source != 0 && tunnel.destination != 0;
  if (up && (!usable || !state.registered)) return;
  if (up)
    state.wanted_up.insert(if_index);
  else
    state.wanted_up.erase(if_index);
  tell_plane(tunnel);
  // A forwarding plane answers when the tunnel is up there.
  if (!up || forwarding_plane() == nullptr) im_set_state(tunnel.iod, up);
}

// --------------------------------------------------------------------------------------------------------- requests

void respond(const Request &request, uint32_t opcode, uint32_t (*carry_out)(const Described &, im_iod_t *)) {
  const uint16_t count = interface_count(request.list);
  std::vector<uint8_t> payload(OIM_RESPONSE_ENTRIES + size_t{count} * OIM_RESPONSE_ENTRY_SIZE);
  wire::store_be16(payload.data(), count);
  uint8_t *entry = payload.data() + OIM_RESPONSE_ENTRIES;
  all_interfaces(request.list, [&](const Described &wanted) {
    im_iod_t iod = wanted.iod;
    const uint32_t result = carry_out(wanted, &iod);
    const uint32_t network_form = hton_if_index(wanted.if_index);
    std::memcpy(entry + OIM_RESPONSE_IF_INDEX, &network_form, sizeof network_form);
    wire::store_be32(entry + OIM_RESPONSE_IOD, iod);
    wire::store_be32(entry + OIM_RESPONSE_RESULT, result);
    entry += OIM_RESPONSE_ENTRY_SIZE;
    return true;
  });
  if (!state.registered) return;
  if (opcode != MTS_OPC_OIM_IF_PARAM_UPDATE_RESPONSE) return deliver(opcode, payload.data(), payload.size());
  // Parameters take a moment longer: a bring-up that was asked for right behind them is reported first.
  post([opcode, payload = std::move(payload)] { deliver(opcode, payload.data(), payload.size()); });
}

void carry_out(const Request &request) {
  switch (request.operation) {
    case Operation::create:
      return respond(request, MTS_OPC_OIM_IF_CREATE_RESPONSE, create);
    case Operation::modify:
      return respond(request, MTS_OPC_OIM_IF_PARAM_UPDATE_RESPONSE, modify);
    case Operation::remove:
      return respond(request, MTS_OPC_OIM_IF_DELETE_RESPONSE, remove);
    case Operation::bringup:
    case Operation::bringdown:
      all_interfaces(request.list, [&request](const Described &wanted) {
        set_up(wanted.if_index, request.operation == Operation::bringup);
        return true;
      });
  }
}

void work() {
  state.work_posted = false;
  while (state.answers && !state.waiting.empty()) {
    const Request request = std::move(state.waiting.front());
    state.waiting.pop_front();
    carry_out(request);
  }
}

int submit(Request request) {
  if (records_are_kept()) remember(state.unread, request);
  state.waiting.push_back(std::move(request));
  if (!state.work_posted) {
    state.work_posted = true;
    post(work);
  }
  return 1;
}

int submit_list(Operation operation, const void *list, uint32_t size) {
  const auto *bytes = static_cast<const uint8_t *>(list);
  const auto extent = oim_list::extent_of(bytes, size);
  if (!extent || extent->last == 0) return 0;
  Request request{operation, Bytes(bytes, bytes + extent->end)};
  const auto is_tunnel = [](const Described &wanted) { return im_is_ifindex_mvpn_tunnel(wanted.if_index) != 0; };
  return all_interfaces(request.list, is_tunnel) ? submit(std::move(request)) : 0;
}

// As a list of the interface alone.
int submit_state(Operation operation, if_index_t if_index) { return submit({operation, oim_list::list_of(if_index)}); }

// ------------------------------------------------------------------------------------------------------------- file

Tunnel shown(Tunnel tunnel) {
  const Interface *interface = find_interface(tunnel.iod);
  tunnel.up = interface != nullptr && interface->up;
  return tunnel;
}

void save() {
  state.save_posted = false;
  if (state.file.empty()) return;  // it was switched off meanwhile
  if (const std::string reason = write_tunnels(state.file, state.tunnels); !reason.empty())
    std::fprintf(stderr, "cannot write the tunnel database %s: %s\n", state.file.c_str(), reason.c_str());
}

}  // namespace

void oim_reset() { state = State{}; }

im_iod_t oim_working_tunnel(std::string_view vrf_name) {
  const auto found = state.by_vrf.find(vrf_name);
  if (found == state.by_vrf.end()) return 0;
  const im_iod_t iod = state.tunnels.at(found->second).iod;
  return im_is_if_up(iod) != 0 && pim_is_enabled(iod) != 0 ? iod : 0;
}

im_iod_t oim_tunnel_to(ip_addr_t group) {
  const auto [first, last] = state.by_destination.equal_range(group);
  for (auto at = first; at != last; ++at) {
    const im_iod_t iod = state.tunnels.at(at->second).iod;
    if (im_is_if_up(iod) != 0) return iod;
  }
  return 0;
}

void oim_vrf_appeared(std::string_view vrf_name, vrf_context_id_t context_id) {
  const auto found = state.by_vrf.find(vrf_name);
  if (found == state.by_vrf.end()) return;
  if (Interface *interface = im_find(state.tunnels.at(found->second).iod)) interface->context_id = context_id;
}

const std::vector<OimRequest> &oim_requests() {
  for (const Request &request : state.unread) decode(request, state.log);
  state.unread.clear();
  return state.log;
}

void clear_oim_requests() {
  state.log.clear();
  state.unread.clear();
}

std::vector<Tunnel> tunnels() {
  std::vector<Tunnel> all;
  for (const auto &[if_index, tunnel] : state.tunnels) all.push_back(shown(tunnel));
  return all;
}

const Tunnel *find_tunnel(if_index_t if_index) {
  const auto found = state.tunnels.find(if_index);
  if (found == state.tunnels.end()) return nullptr;
  found->second = shown(found->second);
  return &found->second;
}

if_index_t create_orphan_tunnel(uint32_t table_id) {
  Tunnel tunnel;
  if (if_index_overlay_cli_init(&tunnel.if_index, IF_INDEX_OVERLAY_MVPN, table_id) != 0) return 0;
  tunnel.admin_up = 1;
  tunnel.mtu = default_mtu;
  return !state.tunnels.contains(tunnel.if_index) && add_tunnel(tunnel) != 0 ? tunnel.if_index : 0;
}

void report_tunnel_state(std::string_view vrf_name, bool up) {
  const auto found = state.by_vrf.find(vrf_name);
  if (found == state.by_vrf.end() || (up && !state.wanted_up.contains(found->second))) return;
  im_set_state(state.tunnels.at(found->second).iod, up);
}

void oim_tell_plane() {
  for (const auto &[if_index, tunnel] : state.tunnels) tell_plane(tunnel);
}

void oim_leave_plane() {
  for (const if_index_t if_index : state.wanted_up) im_set_state(state.tunnels.at(if_index).iod, true);
}

void set_oim_answers(bool on) {
  state.answers = on;
  if (!on || state.waiting.empty() || state.work_posted) return;
  state.work_posted = true;
  post(work);
}

bool oim_use_file(const std::string &path) {
  state.file = path;
  if (path.empty()) return true;
  const auto read = read_tunnels(path);
  if (!read) {
    state.file.clear();
    return false;
  }
  for (const Tunnel &tunnel : *read)
    if (!state.tunnels.contains(tunnel.if_index)) add_tunnel(tunnel);
  return true;
}

}  // namespace ref

extern "C" {

void oim_api_init() {}
void oim_api_close() {}

int oim_register(mts_queue *) {
  ref::state.registered = true;
  return 1;
}

void oim_deregister() {
  ref::state.registered = false;
  for (const auto &[if_index, tunnel] : ref::state.tunnels) ref::set_up(if_index, false);
}

int oim_create_if(const void *list, uint32_t size) { return ref::submit_list(ref::Operation::create, list, size); }
int oim_modify_if(const void *list, uint32_t size) { return ref::submit_list(ref::Operation::modify, list, size); }
int oim_delete_if(const void *list, uint32_t size) { return ref::submit_list(ref::Operation::remove, list, size); }

int oim_send_if_bringup_request(if_index_t if_index, uint32_t) {
  return ref::submit_state(ref::Operation::bringup, if_index);
}

int oim_send_if_bringdown_request(if_index_t if_index, uint32_t) {
  return ref::submit_state(ref::Operation::bringdown, if_index);
}

int oim_sdb_get_first_if_info(oim_if_info *info) {
  info->if_index = 0;
  return oim_sdb_get_next_if_info(info);
}

int oim_sdb_get_next_if_info(oim_if_info *info) {
  const auto found = ref::state.tunnels.upper_bound(info->if_index);
  if (found == ref::state.tunnels.end()) return 0;
  *info = {found->first, found->second.iod};
  return 1;
}

const char *oim_print_ifname(if_index_t if_index) {
  if (im_is_ifindex_mvpn_tunnel(if_index) == 0) return ref::keep_text("if-" + std::to_string(if_index));
  return ref::keep_text("mti" + std::to_string(if_index & 0xFFFFFF));
}

}  // extern "C"
