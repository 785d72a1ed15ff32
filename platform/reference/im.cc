// Interface manager: the table of interfaces, their ordinals and if-indexes, and the events that it reports.
//
// Ordinals are given out in rotation, so that an event for an interface that is gone does not hit a new one. An
// ordinary interface that is entered again under its old name gets its old ordinal: whoever remembers it by ordinal, as
// a VRF does its tunnel's source, means this one. Tunnels' names say nothing of that kind, and their ordinals rotate.
// If-indexes carry their sort in the top byte: ordinary interfaces are numbered by ordinal, overlay interfaces by table
// id, which makes the if-index of a VRF's tunnel computable before the tunnel exists and recognisable after it is gone.
//
// Events reach the module through the main loop and only while they are enabled: a host enables them when its
// configuration has been replayed, and is then told of every interface that is up.
#include "platform/im.h"

#include <arpa/inet.h>

#include <map>
#include <memory>
#include <set>
#include <unordered_map>

#include "platform/ip.h"
#include "platform/reference/im.h"
#include "platform/reference/module.h"
#include "platform/reference/runtime.h"
#include "platform/reference/services.h"
#include "platform/reference/text.h"

namespace ref {
namespace {

constexpr if_index_t sort_shift = 24;
constexpr if_index_t ordinary_sort = 1;
constexpr if_index_t number_mask = 0xFFFFFF;
constexpr im_iod_t iod_max = 0xFFFF;  // socket addresses carry ordinals in 16 bits

struct Table {
  std::vector<std::unique_ptr<Interface>> by_iod;  // null: free; grows up to the highest that was given out
  ByName<im_iod_t> by_name;
  std::unordered_map<if_index_t, im_iod_t> by_if_index;
  std::map<std::string, im_iod_t, std::less<>> former;  // ordinals of ordinary interfaces that are gone
  std::set<im_iod_t> kept;                              // the same ordinals
  im_iod_t last_iod = 0;
  bool events = false;
};
Table table;
uint64_t changes;

// 0 when none is free.
im_iod_t next_unused_iod() {
  for (im_iod_t tries = 0; tries < iod_max; tries++) {
    table.last_iod = table.last_iod % iod_max + 1;
    if (im_find(table.last_iod) == nullptr && !table.kept.contains(table.last_iod)) return table.last_iod;
  }
  return 0;
}

// Names that come and go may have used up every number: then the interfaces that are gone are forgotten.
im_iod_t next_free_iod() {
  if (const im_iod_t iod = next_unused_iod(); iod != 0) return iod;
  table.former.clear();
  table.kept.clear();
  return next_unused_iod();
}

// The ordinal that an interface of this name had; 0 for none.
im_iod_t take_former_iod(const std::string &name) {
  const auto found = table.former.find(name);
  if (found == table.former.end()) return 0;
  const im_iod_t iod = found->second;
  table.former.erase(found);
  table.kept.erase(iod);
  return iod;
}

void post_event(im_iod_t iod, void (*Module::*entry)(im_iod_t)) {
  if (!table.events) return;
  post([iod, entry] {
    if (im_find(iod) != nullptr && module().*entry != nullptr) (module().*entry)(iod);
  });
}

void post_state(im_iod_t iod, bool up) {
  if (!table.events) return;
  post([iod, up] {
    if (im_find(iod) != nullptr && module().interface_status != nullptr) module().interface_status(iod, up ? 1 : 0);
  });
}

}  // namespace

void im_reset() {
  table = Table{};
  im_note_change();
}

void im_note_change() { changes++; }
uint64_t interface_changes() { return changes; }

im_iod_t im_add(Interface interface) {
  if (interface.name.empty() || interface.name.size() >= IF_NAME_SIZE || table.by_name.contains(interface.name) ||
      interface.iod > iod_max || table.by_if_index.contains(interface.if_index))
    return 0;
  if (interface.iod == 0 && !interface.mvpn_tunnel) interface.iod = take_former_iod(interface.name);
  if (interface.iod == 0 || im_find(interface.iod) != nullptr) interface.iod = next_free_iod();
  if (interface.iod == 0) return 0;
  if (interface.if_index == 0) interface.if_index = ordinary_sort << sort_shift | interface.iod;
  const im_iod_t iod = interface.iod;
  table.by_name[interface.name] = iod;
  table.by_if_index[interface.if_index] = iod;
  const bool up = interface.up, addressed = interface.address != 0;
  if (iod >= table.by_iod.size()) table.by_iod.resize(iod + size_t{1});
  table.by_iod[iod] = std::make_unique<Interface>(std::move(interface));
  im_note_change();
  post_event(iod, &Module::interface_create);
  if (addressed) post_event(iod, &Module::process_address_change);
  if (up) post_state(iod, true);
  return iod;
}

void im_remove(im_iod_t iod) {
  const Interface *interface = im_find(iod);
  if (interface == nullptr) return;
  if (!interface->mvpn_tunnel) {
    table.former[interface->name] = iod;
    table.kept.insert(iod);
  }
  table.by_name.erase(interface->name);
  table.by_if_index.erase(interface->if_index);
  table.by_iod[iod] = nullptr;
  im_note_change();
  pim_interface_gone(iod);
}

Interface *im_find(im_iod_t iod) { return iod < table.by_iod.size() ? table.by_iod[iod].get() : nullptr; }

void im_set_state(im_iod_t iod, bool up) {
  Interface *interface = im_find(iod);
  if (interface == nullptr || interface->up == up) return;
  interface->up = up;
  im_note_change();
  post_state(iod, up);
}

im_iod_t create_interface(std::string_view name, vrf_context_id_t context_id, ip_addr_t address, bool up) {
  Interface interface;
  interface.name = name;
  interface.context_id = context_id;
  interface.address = address;
  interface.up = up;
  return im_add(std::move(interface));
}

bool delete_interface(std::string_view name) {
  const Interface *interface = find_interface(name);
  if (interface == nullptr) return false;
  const im_iod_t iod = interface->iod;
  const bool announced = interface->up && table.events;
  im_set_state(iod, false);
  if (!announced) {
    im_remove(iod);
    return true;
  }
  // The module is told of the last change while the interface can still be looked up. Its VRF may take it along before
  // that, and another one have its ordinal then.
  im_find(iod)->leaving = true;
  post([iod] {
    if (const Interface *last = im_find(iod); last != nullptr && last->leaving) im_remove(iod);
  });
  return true;
}

bool set_interface_state(std::string_view name, bool up) {
  const Interface *interface = find_interface(name);
  if (interface == nullptr) return false;
  im_set_state(interface->iod, up);
  return true;
}

bool set_interface_address(std::string_view name, ip_addr_t address) {
  const auto found = table.by_name.find(name);
  if (found == table.by_name.end()) return false;
  Interface &interface = *table.by_iod.at(found->second);
  if (interface.address == address) return true;
  interface.address = address;
  post_event(interface.iod, &Module::process_address_change);
  return true;
}

const Interface *find_interface(std::string_view name) {
  const auto found = table.by_name.find(name);
  return found == table.by_name.end() ? nullptr : im_find(found->second);
}

const Interface *find_interface(im_iod_t iod) { return im_find(iod); }

std::vector<const Interface *> interfaces() {
  std::vector<const Interface *> all;
  for (const auto &interface : table.by_iod)
    if (interface != nullptr) all.push_back(interface.get());
  return all;
}

void enable_interface_events(bool on) {
  if (on == table.events) return;
  table.events = on;
  if (!on) return;
  for (const Interface *interface : interfaces())
    if (interface->up) post_state(interface->iod, true);
}

}  // namespace ref

extern "C" {

im_iod_t im_get_if_by_name(const char *name) {
  const ref::Interface *interface = ref::find_interface(std::string_view(name));
  return interface == nullptr ? 0 : interface->iod;
}

int im_get_iod_frm_ifindex(if_index_t if_index, im_iod_t *iod) {
  const auto found = ref::table.by_if_index.find(if_index);
  if (found == ref::table.by_if_index.end()) return 1;
  *iod = found->second;
  return 0;
}

int ksink_im_get_ifindex_frm_iod(im_iod_t iod, if_index_t *if_index) {
  const ref::Interface *interface = ref::find_interface(iod);
  if (interface == nullptr) return 1;
  *if_index = interface->if_index;
  return 0;
}

int im_is_if_up(im_iod_t iod) {
  const ref::Interface *interface = ref::find_interface(iod);
  return interface != nullptr && interface->up ? 1 : 0;
}

int ksink_im_is_if_up(im_iod_t iod) { return im_is_if_up(iod); }

int im_is_ifindex_mvpn_tunnel(if_index_t if_index) {
  return if_index >> ref::sort_shift == IF_INDEX_OVERLAY_MVPN && (if_index & ref::number_mask) != 0 ? 1 : 0;
}

int ksink_im_is_mvpn_tunnel(im_iod_t iod) {
  const ref::Interface *interface = ref::find_interface(iod);
  return interface != nullptr && interface->mvpn_tunnel ? 1 : 0;
}

const char *ksink_im_get_if_name(im_iod_t iod) {
  const ref::Interface *interface = ref::find_interface(iod);
  return interface == nullptr ? "unknown" : ref::keep_text(interface->name);
}

int if_index_overlay_cli_init(if_index_t *if_index, uint32_t sort, uint32_t table_id) {
  if (sort != IF_INDEX_OVERLAY_MVPN || table_id == 0 || table_id > ref::number_mask) return 1;
  *if_index = sort << ref::sort_shift | table_id;
  return 0;
}

uint32_t hton_if_index(if_index_t if_index) { return htonl(if_index); }
if_index_t ntoh_if_index(uint32_t network_form) { return ntohl(network_form); }

}  // extern "C"
