// VRF manager: the VRFs with their context ids, table ids and states. The default VRF (context id 1) always exists; it
// has no table id of its own, since no overlay interface is derived from it.
#include "platform/l3vm.h"

#include <cstring>
#include <unordered_map>
#include <unordered_set>

#include "platform/reference/im.h"
#include "platform/reference/l3vm.h"
#include "platform/reference/services.h"
#include "platform/reference/testing/services.h"
#include "platform/reference/text.h"

namespace ref {
namespace {

constexpr uint32_t table_id_max = 0xFFFFFF;  // overlay if-indexes have room for 24 bits

struct Vrf {
  std::string name;
  uint32_t table_id;
  uint32_t state;
};

std::unordered_map<vrf_context_id_t, Vrf> vrfs;
ByName<vrf_context_id_t> ids;
std::unordered_set<uint32_t> tables;

pim_cibtype *add(std::string_view name, vrf_context_id_t context_id, uint32_t table_id) {
  pim_cibtype *pcib = pim_adopt_context(name, context_id, table_id);
  if (pcib == nullptr) return nullptr;
  vrfs[context_id] = Vrf{std::string(name), table_id, L3VM_STATE_UP};
  ids[std::string(name)] = context_id;
  tables.insert(table_id);
  oim_vrf_appeared(name, context_id);
  return pcib;
}

void delete_interfaces_of(vrf_context_id_t context_id) {
  std::vector<std::string> names;
  for (const Interface *interface : interfaces())
    if (interface->context_id == context_id && !interface->mvpn_tunnel) names.push_back(interface->name);
  for (const std::string &name : names) delete_interface(name);
}

}  // namespace

void l3vm_reset() {
  vrfs.clear();
  ids.clear();
  tables.clear();
  pim_default_cib = add("default", VRF_CONTEXT_ID_DEFAULT, 0);
}

vrf_context_id_t l3vm_find(std::string_view name) {
  const auto found = ids.find(name);
  return found == ids.end() ? vrf_context_id_t{VRF_CONTEXT_ID_NONE} : found->second;
}

pim_cibtype *create_vrf(std::string_view name, vrf_context_id_t context_id, uint32_t table_id) {
  if (context_id == VRF_CONTEXT_ID_NONE || table_id == 0 || table_id > table_id_max || vrfs.contains(context_id) ||
      ids.contains(name) || tables.contains(table_id))
    return nullptr;
  return add(name, context_id, table_id);
}

bool delete_vrf(std::string_view name) {
  const auto found = ids.find(name);
  if (found == ids.end() || found->second == VRF_CONTEXT_ID_DEFAULT) return false;
  pim_cibtype *pcib = pim_find(name);
  // The module's context refers to the VRF's records; its teardown, which takes several turns, comes first.
  if (pcib->mvpn != nullptr) return false;
  const vrf_context_id_t context_id = found->second;
  croute_drop_all(pcib);
  delete_interfaces_of(context_id);
  mrib_drop_context(context_id);
  bgp_drop_vrf(name);
  pim_drop_context(pcib);
  tables.erase(vrfs.at(context_id).table_id);
  vrfs.erase(context_id);
  ids.erase(found);
  return true;
}

void set_vrf_state(std::string_view name, uint32_t l3vm_state) {
  const auto found = ids.find(name);
  if (found != ids.end()) vrfs.at(found->second).state = l3vm_state;
}

}  // namespace ref

extern "C" {

int l3vm_get_context_info(vrf_context_id_t context_id, l3vm_context_info *info) {
  const auto found = ref::vrfs.find(context_id);
  if (found == ref::vrfs.end()) return 0;
  const ref::Vrf &vrf = found->second;
  *info = l3vm_context_info{};
  info->state = vrf.state;
  info->table_id = vrf.table_id;
  std::memcpy(info->name, vrf.name.data(), vrf.name.size());
  return 1;
}

vrf_context_id_t l3vm_if_get_context_id(im_iod_t iod) {
  const ref::Interface *interface = ref::find_interface(iod);
  return interface == nullptr ? vrf_context_id_t{VRF_CONTEXT_ID_NONE} : interface->context_id;
}

const char *l3vm_get_context_name(vrf_context_id_t context_id) {
  const auto found = ref::vrfs.find(context_id);
  return found == ref::vrfs.end() ? "unknown" : ref::keep_text(found->second.name);
}

}  // extern "C"
