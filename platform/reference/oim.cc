// Tunnel interface manager: the database of MVPN tunnels, the interface lists in which clients describe them, and the
// requests.
//
// Interface list: interface count (2 bytes), 2 zero bytes, then per interface its parameter count (2 bytes), 2 zero
// bytes, the 8-byte header, and the parameters back to back, each type, length, value; network byte order. A list grows
// at its end only, which the counts and lengths in it determine, so that no bookkeeping is needed outside the buffer.
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

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <span>

#include "platform/im.h"
#include "platform/ip.h"
#include "platform/pim.h"
#include "platform/reference/forwarding_plane.h"
#include "platform/reference/im.h"
#include "platform/reference/mts.h"
#include "platform/reference/oim.h"
#include "platform/reference/parse.h"
#include "platform/reference/runtime.h"
#include "platform/reference/services.h"
#include "platform/reference/testing/services.h"
#include "platform/reference/text.h"
#include "platform/reference/wire.h"

namespace ref {
namespace {

using nlohmann::json;

enum ListOffset { list_count = 0, list_interfaces = 4 };
enum InterfaceOffset {
  interface_params = 0,
  interface_header = 4,
  interface_first_tlv = interface_header + OIM_IF_HEADER_SIZE
};
constexpr uint32_t longest_param = VRF_NAME_MAX + 1;  // room that every parameter gets

enum class Operation { create, modify, remove, bringup, bringdown };
constexpr const char *operation_names[] = {"create", "modify", "delete", "bringup", "bringdown"};

using Bytes = std::vector<uint8_t>;

// A request as it came, without what may stand behind its list.
struct Request {
  Operation operation;
  Bytes list;
};

// An interface of a request; the parameters are the list's.
struct Described {
  if_index_t if_index;
  im_iod_t iod;  // 0: it names none
  const uint8_t *params;
  uint16_t param_count;
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

// ------------------------------------------------------------------------------------------------------------ lists

// Position behind the last parameter of the interface at `position`; nullopt when the list ends inside it.
std::optional<size_t> end_of_interface(const uint8_t *list, size_t size, size_t position) {
  if (size - position < interface_first_tlv) return std::nullopt;
  const uint16_t count = wire::load_be16(list + position + interface_params);
  position += interface_first_tlv;
  for (uint16_t i = 0; i < count; i++) {
    if (size - position < OIM_TLV_VALUE) return std::nullopt;
    const size_t length = size_t{OIM_TLV_VALUE} + wire::load_be16(list + position + OIM_TLV_LENGTH);
    if (size - position < length) return std::nullopt;
    position += length;
  }
  return position;
}

// A list that is sound: where its last interface begins, 0 when it has none, and where it ends.
struct Extent {
  size_t last;
  size_t end;
};

std::optional<Extent> extent_of(const uint8_t *list, size_t size) {
  if (list == nullptr || size < list_interfaces) return std::nullopt;
  Extent extent{0, list_interfaces};
  for (uint16_t left = wire::load_be16(list + list_count); left > 0; left--) {
    const auto end = end_of_interface(list, size, extent.end);
    if (!end) return std::nullopt;
    extent = {extent.end, *end};
  }
  return extent;
}

Described describe(const uint8_t *interface) {
  const uint8_t *header = interface + interface_header;
  uint32_t network_form;
  std::memcpy(&network_form, header + OIM_IF_HEADER_IF_INDEX, sizeof network_form);
  return {ntoh_if_index(network_form), wire::load_be32(header + OIM_IF_HEADER_IOD), interface + interface_first_tlv,
          wire::load_be16(interface + interface_params)};
}

// Visits the interfaces of a sound list until a visit returns false; whether none did.
template <typename Visit>
bool all_interfaces(const Bytes &list, Visit visit) {
  size_t position = list_interfaces;
  for (uint16_t left = wire::load_be16(list.data() + list_count); left > 0; left--) {
    if (!visit(describe(list.data() + position))) return false;
    position = *end_of_interface(list.data(), list.size(), position);
  }
  return true;
}

// The same for the parameters of an interface: visit(type, value).
template <typename Visit>
bool all_params(const Described &interface, Visit visit) {
  const uint8_t *tlv = interface.params;
  for (uint16_t left = interface.param_count; left > 0; left--) {
    const std::span value(tlv + OIM_TLV_VALUE, wire::load_be16(tlv + OIM_TLV_LENGTH));
    if (!visit(wire::load_be16(tlv + OIM_TLV_TYPE), value)) return false;
    tlv = value.data() + value.size();
  }
  return true;
}

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
  const uint16_t count = wire::load_be16(request.list.data() + list_count);
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
  const auto extent = extent_of(bytes, size);
  if (!extent || extent->last == 0) return 0;
  Request request{operation, Bytes(bytes, bytes + extent->end)};
  const auto is_tunnel = [](const Described &wanted) { return im_is_ifindex_mvpn_tunnel(wanted.if_index) != 0; };
  return all_interfaces(request.list, is_tunnel) ? submit(std::move(request)) : 0;
}

// As a list of the interface alone.
int submit_state(Operation operation, if_index_t if_index) {
  Request request{operation, Bytes(size_t{list_interfaces} + interface_first_tlv)};
  wire::store_be16(request.list.data() + list_count, 1);
  const uint32_t network_form = hton_if_index(if_index);
  std::memcpy(request.list.data() + list_interfaces + interface_header + OIM_IF_HEADER_IF_INDEX, &network_form,
              sizeof network_form);
  return submit(std::move(request));
}

// ------------------------------------------------------------------------------------------------------------- file

Tunnel shown(Tunnel tunnel) {
  const Interface *interface = find_interface(tunnel.iod);
  tunnel.up = interface != nullptr && interface->up;
  return tunnel;
}

json to_json(const Tunnel &tunnel) {
  return {{"if_index", tunnel.if_index},
          {"iod", tunnel.iod},
          {"admin_up", tunnel.admin_up},
          {"vrf", tunnel.vrf_name},
          {"mtu", tunnel.mtu},
          {"source", ip_print_addr(tunnel.source)},
          {"destination", ip_print_addr(tunnel.destination)}};
}

// A member of an object when it is a number up to `limit`.
std::optional<uint32_t> number_in(const json &object, const char *name, uint32_t limit) {
  const auto found = object.find(name);
  if (found == object.end() || !found->is_number_unsigned() || found->get<uint64_t>() > limit) return std::nullopt;
  return found->get<uint32_t>();
}

std::optional<std::string> text_in(const json &object, const char *name, size_t limit) {
  const auto found = object.find(name);
  if (found == object.end() || !found->is_string() || found->get_ref<const std::string &>().size() > limit)
    return std::nullopt;
  return found->get<std::string>();
}

std::optional<ip_addr_t> address_in(const json &object, const char *name) {
  const auto text = text_in(object, name, 15);
  return text ? parse_address(*text) : std::nullopt;
}

std::optional<Tunnel> from_json(const json &object) {
  if (!object.is_object()) return std::nullopt;
  const auto if_index = number_in(object, "if_index", UINT32_MAX);
  const auto iod = number_in(object, "iod", 0xFFFF);
  const auto admin_up = number_in(object, "admin_up", 0xFF);
  const auto mtu = number_in(object, "mtu", UINT32_MAX);
  const auto vrf = text_in(object, "vrf", VRF_NAME_MAX);
  const auto source = address_in(object, "source"), destination = address_in(object, "destination");
  if (!if_index || !iod || !admin_up || !mtu || !vrf || !source || !destination ||
      im_is_ifindex_mvpn_tunnel(*if_index) == 0)
    return std::nullopt;
  return Tunnel{*if_index, *iod, static_cast<uint8_t>(*admin_up), *vrf, *mtu, *source, *destination, false};
}

std::optional<std::vector<Tunnel>> read_file(const std::string &path) {
  std::ifstream in(path);
  if (!in) return errno == ENOENT ? std::optional(std::vector<Tunnel>{}) : std::nullopt;
  const json document = json::parse(in, nullptr, false);
  if (!document.is_object() || !document.contains("tunnels") || !document["tunnels"].is_array()) return std::nullopt;
  std::vector<Tunnel> read;
  for (const json &object : document["tunnels"]) {
    const auto tunnel = from_json(object);
    if (!tunnel) return std::nullopt;
    read.push_back(*tunnel);
  }
  return read;
}

// False when the text is not on the disk.
bool write_through(const std::string &path, const std::string &text) {
  const int file = ::open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600);
  if (file < 0) return false;
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t written = ::write(file, text.data() + done, text.size() - done);
    if (written <= 0) break;
    done += static_cast<size_t>(written);
  }
  const bool whole = done == text.size() && ::fsync(file) == 0;
  return ::close(file) == 0 && whole;
}

// Written beside the file and renamed, so that a crash, also of the machine, leaves the old or the new one.
void save() {
  state.save_posted = false;
  if (state.file.empty()) return;  // it was switched off meanwhile
  json all = json::array();
  for (const auto &[if_index, tunnel] : state.tunnels) all.push_back(to_json(tunnel));
  const std::string fresh = state.file + ".new";
  const std::string text = json{{"tunnels", all}}.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
  if (!write_through(fresh, text) || std::rename(fresh.c_str(), state.file.c_str()) != 0)
    std::fprintf(stderr, "cannot write the tunnel database %s\n", state.file.c_str());
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
  const auto read = read_file(path);
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

uint32_t oim_if_info_list_get_size(uint32_t interfaces, uint32_t parameters, uint32_t longest_value) {
  const uint32_t value = std::max(longest_value, ref::longest_param);
  return ref::list_interfaces + interfaces * (ref::interface_first_tlv + parameters * (OIM_TLV_VALUE + value));
}

int oim_if_info_list_add_new_if(void *list, uint32_t size, uint8_t **header) {
  auto *bytes = static_cast<uint8_t *>(list);
  const auto extent = ref::extent_of(bytes, size);
  const uint16_t count = extent ? ref::wire::load_be16(bytes + ref::list_count) : uint16_t{0xFFFF};
  if (count == 0xFFFF || size - extent->end < ref::interface_first_tlv) return 0;
  ref::wire::store_be16(bytes + ref::list_count, static_cast<uint16_t>(count + 1));
  *header = bytes + extent->end + ref::interface_header;
  return 1;
}

int oim_if_info_list_add_new_param_tlv(void *list, uint32_t size, uint8_t *header, uint8_t **tlv) {
  auto *bytes = static_cast<uint8_t *>(list);
  const auto extent = ref::extent_of(bytes, size);
  if (!extent || extent->last == 0) return 0;
  uint8_t *last = bytes + extent->last;
  const uint16_t count = ref::wire::load_be16(last + ref::interface_params);
  if (header != last + ref::interface_header || count == 0xFFFF ||
      size - extent->end < OIM_TLV_VALUE + ref::longest_param)
    return 0;
  ref::wire::store_be16(last + ref::interface_params, static_cast<uint16_t>(count + 1));
  *tlv = bytes + extent->end;
  return 1;
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
