// Notifications of the MRIB. They keep the route tables (mvpn_mdt_route.cc) in step with it: a source that joins a
// shared tree gets a route of its own, a route that the MRIB dropped is installed again, cleared routes are forgotten
// and rebuilt. None of them talks to the MRIB; they change records and wake the worker.
#include "platform/ip.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_default_mdt.h"
#include "routing/pim/mvpn/mvpn_diag.h"
#include "routing/pim/mvpn/mvpn_mdt_route.h"
#include "routing/pim/mvpn/mvpn_mdt_route_walk.h"
#include "routing/pim/mvpn/mvpn_mrib_queue.h"
#include "routing/pim/mvpn/mvpn_wire.h"

// ------------------------------------------------------------------------------------------------------ notifications

namespace {

struct notify_entry {
  vrf_context_id_t context_id;
  uint8_t event;
  mvpn_mdt_route_addrs addrs;
  uint8_t only_source;
  uint8_t only_shared;
};

}  // namespace

// The address record ends two bytes before a mvpn_mdt_route_addrs does; those are another field's.
static notify_entry decode_notify_entry(const uint8_t *entry) {
  notify_entry out{};
  out.context_id = load_host<uint32_t>(entry + MRIB_NOTIFY_ENTRY_CONTEXT_ID);
  out.event = entry[MRIB_NOTIFY_ENTRY_EVENT];
  out.addrs.source = load_host<uint32_t>(entry + MRIB_NOTIFY_ENTRY_SOURCE);
  out.addrs.group = load_host<uint32_t>(entry + MRIB_NOTIFY_ENTRY_GROUP);
  out.addrs.source_len = entry[MRIB_NOTIFY_ENTRY_SOURCE_LEN];
  out.addrs.group_len = entry[MRIB_NOTIFY_ENTRY_GROUP_LEN];
  out.only_source = entry[MRIB_NOTIFY_ENTRY_ONLY_SOURCE];
  out.only_shared = entry[MRIB_NOTIFY_ENTRY_ONLY_SHARED];
  return out;
}

// The VRF whose tunnel a route of the MRIB was installed with, or null.
static mvpn_cibtype *owner_of_mrib_route(vrf_context_id_t context_id, const mvpn_mdt_route_addrs &addrs) {
  const mrib_route *route = mrib_get_route_by_addr(context_id, &addrs);
  if (route == nullptr || route->mti_iod == 0) return nullptr;
  return mvpn_get_context_by_mti_iod(route->mti_iod);
}

static mvpn_mdt_route_type_t type_of_joined_route(const mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs &addrs) {
  const bool is_default = addrs.group == mvpn->mdt_default_group;
  if (addrs.source == mvpn->mdt_source_addr) {
    return is_default ? MVPN_MDT_ROUTE_LOCAL_DEFAULT : MVPN_MDT_ROUTE_LOCAL_DATA;
  }
  return is_default ? MVPN_MDT_ROUTE_REMOTE_DEFAULT : MVPN_MDT_ROUTE_REMOTE_DATA;
}

static void mvpn_process_mrib_mdt_join_notify(const uint8_t *entry) {
  const notify_entry join = decode_notify_entry(entry);
  const mvpn_mdt_route_addrs &addrs = join.addrs;
  if (addrs.source == 0) return;
  const mvpn_mdt_route_addrs shared{0, addrs.group, MROUTE_ANY_SOURCE_LEN, MROUTE_HOST_LEN, {}};
  mvpn_cibtype *mvpn = owner_of_mrib_route(join.context_id, shared);
  if (mvpn == nullptr || mvpn_mdt_mroute_lookup(mvpn, addrs.source, addrs.group) != nullptr ||
      mvpn_mdt_mroute_lookup(mvpn, 0, addrs.group) == nullptr) {
    return;
  }
  MVPN_DEBUG(mvpn->pcib, "MRIB MDT Join notify for %s", mrib_print_addrs(&addrs));
  mvpn_mdt_add_route_resources(mvpn, type_of_joined_route(mvpn, addrs), addrs.source, 1, addrs.group, 0);
}

static void mvpn_process_mrib_mdt_delete_notify(const uint8_t *entry) {
  const notify_entry deleted = decode_notify_entry(entry);
  mvpn_cibtype *mvpn = owner_of_mrib_route(deleted.context_id, deleted.addrs);
  if (mvpn == nullptr) return;
  MVPN_DEBUG(mvpn->pcib, "MRIB Delete notify for %s", mrib_print_addrs(&deleted.addrs));
  mvpn_mdt_route *route = mvpn_mdt_mroute_lookup(mvpn, deleted.addrs.source, deleted.addrs.group);
  if (route != nullptr) mvpn_mdt_route_schedule(route, 0, 1);
}

void mvpn_process_mrib_mdt_notify(const void *message) {
  if (!mvpn_is_up()) return;
  const auto *bytes = static_cast<const uint8_t *>(message);
  const auto count = load_host<uint32_t>(bytes + MRIB_NOTIFY_COUNT_OFFSET);
  if (count == 0) return;
  const uint8_t *entry = bytes + MRIB_NOTIFY_ENTRIES_OFFSET;
  for (uint32_t i = 0; i < count; i++, entry += MRIB_NOTIFY_ENTRY_SIZE) {
    const uint8_t event = entry[MRIB_NOTIFY_ENTRY_EVENT];
    if ((event & MRIB_NOTIFY_JOIN) != 0) mvpn_process_mrib_mdt_join_notify(entry);
    if ((event & MRIB_NOTIFY_DELETE) != 0) mvpn_process_mrib_mdt_delete_notify(entry);
  }
  mvpn_mrib_wakeup_worker_thread();
}

// The clearing may have come from a change of the core's group ranges.
static void refresh_group_mode(mvpn_cibtype *mvpn) {
  const mvpn_mdt_group_mode_t mode = mvpn_get_group_mode(mvpn->mdt_source_context, mvpn->mdt_default_group);
  if (mode == mvpn->mdt_group_mode) return;
  MVPN_DEBUG(mvpn->pcib, "Mode for default mdt group: %s changed from %s to %s", ip_print_addr(mvpn->mdt_default_group),
             mvpn_mdt_group_mode_str[mvpn->mdt_group_mode], mvpn_mdt_group_mode_str[mode]);
  mvpn->mdt_group_mode = mode;
}

static void clear_and_rebuild(mvpn_cibtype *mvpn, const notify_entry &cleared) {
  const mvpn_vrf_handle vrf(mvpn);
  const mvpn_route_selection selection = {
      .filter = &cleared.addrs, .only_shared = cleared.only_shared, .only_source = cleared.only_source};
  const int dropped = mvpn_mrib_clear_mdt_routes(mvpn, selection, 0, 0);
  if (!vrf.same()) return;
  // A VRF whose group is gone already has no default MDT to rebuild.
  refresh_group_mode(mvpn);
  if (dropped == 0 || mvpn->mdt_default_group == 0) return;
  mvpn_repopulate_default_mdt_route_from_local_cache(mvpn);
  if (vrf.same()) mvpn_repopulate_default_mdt_routes_from_bgp_cache(mvpn);
}

void mvpn_process_clear_route_notify(pim_cibtype *pcib, const void *entries, uint32_t count) {
  if (!mvpn_is_up() || pcib == nullptr) return;
  const vrf_context_id_t core = pcib->context_id;  // the host's record may go while the walk yields
  const auto *entry = static_cast<const uint8_t *>(entries);
  for (uint32_t i = 0; i < count; i++, entry += MRIB_NOTIFY_ENTRY_SIZE) {
    const notify_entry cleared = decode_notify_entry(entry);
    if ((cleared.event & MRIB_NOTIFY_CLEAR) == 0) continue;
    mvpn_for_each_context([core, &cleared](mvpn_cibtype *mvpn) {
      if (mvpn->mdt_source_context == core) clear_and_rebuild(mvpn, cleared);
      return true;
    });
  }
  mvpn_mrib_wakeup_worker_thread();
}
