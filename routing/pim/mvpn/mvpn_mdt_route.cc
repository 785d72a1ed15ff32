// Core routes of the VRFs: the table, the choice of their source, their creation and deletion, and their MRIB entries.
//
// Everything that a VRF sends into or takes out of the core rides on a route of the core's MRIB: its default MDT as
// this PE and as every remote PE sources it, and its data MDTs. For each of these routes there is one mvpn_mdt_route
// record, in the tree of its VRF's context under {source, group}; it remembers what the MRIB was asked to hold. Nothing
// here talks to the MRIB: a change marks the record pending and puts it at the tail of the transmit list, and the
// worker (mvpn_mrib_worker.cc) has the entry builders below write it out. A record stands on the list at most once, so
// that the worker sends only its latest state.
//
// Source of a route. Callers ask for (source, group); the group's mode and two settings of the VRF decide whether the
// route is (S,G) or the one (*,G) route that all PEs of the group share (mvpn_get_mdt_mroute_source_address).
//
// Referers. The records of data MDTs that use a route stand in its queue: customer routes that are sent on it, and
// announcements of remote PEs that are received on it. Each carries its kind as tag, because a single (*,G) route may
// serve both. A record points at a route exactly while that route lists it. Only when memory ran out may a record point
// at a route that does not list it (unlisted_referers); then, and only then, freeing the route searches for it.
//
// Invariants.
//   - mdt_route_count is the number of records in the tree; at most one has a given (source, group).
//   - A record leaves the tree before anything else happens to it when it is freed. What it releases looks the route up
//     again, and must not find it.
//   - A freed record is on no list: the worker never meets it.
//
// Everything runs under the scheduling locks, on the main thread or on the worker. Freeing a route may yield while it
// releases referers or searches for unlisted ones; the rest does not.
#include "routing/pim/mvpn/mvpn_mdt_route_internal.h"

#include <cstddef>
#include <cstring>

#include "platform/im.h"
#include "platform/ip.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_diag.h"
#include "routing/pim/mvpn/mvpn_guards.h"
#include "routing/pim/mvpn/mvpn_mrib_queue.h"
#include "routing/pim/mvpn/mvpn_wire.h"

// The host's binary interface: it sets these two bytes of a record whose layout is its own.
static_assert(offsetof(pim_core_route, marker_a) == 150 && offsetof(pim_core_route, marker_b) == 151);
static_assert(offsetof(pim_route, addrs) == 0);
static_assert(MRIB_ENTRY_END == 92);

// -------------------------------------------------------------------------------------------------------------- table

namespace {

constexpr uint32_t route_key_bytes = 8;
constexpr uint32_t route_key_bits = 64;

// Tree key: source and group in network byte order, so that (*,G) routes come first and the rest in address order.
struct route_key {
  route_key(ip_addr_t source, ip_addr_t group) {
    store_be32(bytes, source);
    store_be32(bytes + 4, group);
  }
  uint8_t bytes[route_key_bytes];
};

}  // namespace

// Attributes of the route trees, made once: trees outlive the interface to the MRIB when the process stops without
// losing its configuration.
static pt_attr *tree_attributes() {
  static pt_attr *attributes;
  if (mvpn_mrib_info != nullptr && mvpn_mrib_info->route_tree_attr != nullptr) {
    attributes = mvpn_mrib_info->route_tree_attr;
  } else if (attributes == nullptr) {
    attributes = pt_attr_create(0, 1, route_key_bytes);
  }
  return attributes;
}

static mvpn_mdt_route *route_of(const pt_node *node) {
  return node != nullptr ? static_cast<mvpn_mdt_route *>(pt_node_data(node)) : nullptr;
}

static int insert_route(mvpn_mdt_route *route) {
  pt_attr *attributes = tree_attributes();
  const route_key key(route->source, route->group);
  if (attributes != nullptr &&
      pt_add(attributes, &route->mvpn->mdt_route_tree, route_key_bytes, key.bytes, route_key_bits, route) == 0) {
    route->mvpn->mdt_route_count += 1;
    return 1;
  }
  mvpn_report(msg_error_PIM_PT_ADD, "MDT mroute cache");
  return 0;
}

mvpn_mdt_route *mvpn_mdt_mroute_add(mvpn_cibtype *mvpn, mvpn_mdt_route_type_t route_type, mvpn_mdt_group_mode_t mode,
                                    ip_addr_t source, ip_addr_t group) {
  auto *route = static_cast<mvpn_mdt_route *>(slab_calloc(mvpn_slabs[MVPN_SLAB_MDT_ROUTE]));
  if (route == nullptr) {
    mvpn_report(msg_error_PIM_MALLOC, "mvpn_mdt_route_t", "mvpn_slab_allocate()");
    return nullptr;
  }
  route->mvpn = mvpn;
  route->route_type = route_type;
  route->mode = mode;
  route->source = source;
  route->group = group;
  route->mdt_source_iod = mvpn->mdt_source_iod;
  route->mdt_source_context = mvpn->mdt_source_context;
  if (zeph_sys_mclock_get(&route->create_time) == -1) route->create_time = {};
  rqueue_init(&route->referers, RQUEUE_DATA, 0);
  if (insert_route(route) == 0) {
    slab_free(mvpn_slabs[MVPN_SLAB_MDT_ROUTE], route);
    return nullptr;
  }
  txlist_init_element(&route->txlist_elem, MVPN_TXLIST_ELEM_ROUTE);
  return route;
}

mvpn_mdt_route *mvpn_mdt_mroute_lookup(mvpn_cibtype *mvpn, ip_addr_t source, ip_addr_t group) {
  const route_key key(source, group);
  return static_cast<mvpn_mdt_route *>(pt_lookup(mvpn->mdt_route_tree, key.bytes, route_key_bits, 1));
}

mvpn_mdt_route *mvpn_mdt_mroute_first(mvpn_cibtype *mvpn) {
  return route_of(pt_get_first_node(mvpn->mdt_route_tree, nullptr, 0));
}

mvpn_mdt_route *mvpn_mdt_mroute_after(mvpn_cibtype *mvpn, ip_addr_t source, ip_addr_t group) {
  const route_key key(source, group);
  return route_of(pt_get_next_node(mvpn->mdt_route_tree, key.bytes, 0));
}

// ----------------------------------------------------------------------------------------------------------- referers

static int link_referer(mvpn_mdt_route *route, void *referer, mvpn_referer_kind_t kind) {
  if (rqueue_find_item(&route->referers, referer) != 0) return 1;
  if (renqueue_data(&route->referers, referer, kind) != 0) return 1;
  route->unlisted_referers = 1;
  mvpn_report(msg_error_PIM_MALLOC, sizeof referer, "mvpn_mdt_mroute_link_referer");
  return 0;
}

int mvpn_mdt_mroute_link_referer(mvpn_mdt_route *route, pim_route *croute) {
  return link_referer(route, croute, MVPN_REFERER_CUSTOMER_ROUTE);
}

int mvpn_mdt_mroute_link_referer(mvpn_mdt_route *route, mvpn_data_mdt_recv_join_info *record) {
  return link_referer(route, record, MVPN_REFERER_RECV_JOIN);
}

void mvpn_mdt_mroute_delink_referer(mvpn_mdt_route *route, void *referer) { runqueue_data(&route->referers, referer); }

void mvpn_mdt_mroute_delink_all_referers(mvpn_mdt_route *route) {
  uint32_t kind = 0;
  while (rdequeue_data(&route->referers, &kind) != nullptr) route->unlisted_referers = 1;
}

uint32_t mvpn_mdt_mroute_has_referer(const mvpn_mdt_route *route) { return rqueue_count(&route->referers); }

mvpn_referer_hooks mvpn_mdt_referer_hooks;

// The kind that a referer was linked with decides, not the route's type: a local and a remote side may share a route.
static void release_referer(mvpn_cibtype *mvpn, void *referer, uint32_t kind) {
  if (kind == MVPN_REFERER_CUSTOMER_ROUTE) {
    mvpn_mdt_referer_hooks.release_flow(mvpn, static_cast<pim_route *>(referer));
  } else {
    mvpn_mdt_referer_hooks.release_announcement(mvpn, static_cast<mvpn_data_mdt_recv_join_info *>(referer));
  }
}

static void mvpn_mdt_dequeue_dependent_routes(mvpn_mdt_route *route) {
  uint32_t kind = 0;
  while (void *referer = rdequeue_data(&route->referers, &kind)) release_referer(route->mvpn, referer, kind);
}

bool mvpn_mdt_free_may_yield(const mvpn_mdt_route *route) {
  return route->unlisted_referers != 0 || rqueue_count(&route->referers) != 0;
}

int mvpn_mdt_free_route_resources(mvpn_mdt_route *route) {
  mvpn_cibtype *mvpn = route->mvpn;
  pt_attr *attributes = tree_attributes();
  const route_key key(route->source, route->group);
  if (attributes == nullptr || pt_delete(attributes, &mvpn->mdt_route_tree, key.bytes, route_key_bits) != 0) return 0;
  mvpn->mdt_route_count -= 1;
  mvpn_mrib_unqueue_route(route);
  mvpn_mdt_dequeue_dependent_routes(route);
  if (route->unlisted_referers != 0) mvpn_mdt_referer_hooks.forget_route(route);
  slab_free(mvpn_slabs[MVPN_SLAB_MDT_ROUTE], route);
  return 1;
}

void mvpn_free_dependent_route_resources(pim_cibtype *pcib, const pim_core_route *core_route) {
  if (core_route->marker_a == 0 && core_route->marker_b == 0) return;
  // The walk yields between VRFs, after which neither of the host's records is certain to exist.
  const mvpn_mdt_route_addrs addrs = core_route->addrs;
  const vrf_context_id_t traced = pcib != nullptr ? pcib->context_id : vrf_context_id_t{VRF_CONTEXT_ID_NONE};
  mvpn_for_each_context_by_id([&addrs, traced](mvpn_cibtype *mvpn) {
    mvpn_mdt_route *route = mvpn_mdt_mroute_lookup(mvpn, addrs.source, addrs.group);
    if (route == nullptr) return true;
    MVPN_DEBUG(pim_get_cib_by_context_id(traced), "Deleting route resources for %s", mrib_print_addrs(&addrs));
    mvpn_mdt_dequeue_dependent_routes(route);
    return false;
  });
}

// --------------------------------------------------------------------------------------------------- mode and source

ip_addr_t mvpn_get_mdt_mroute_source_address(mvpn_cibtype *mvpn, ip_addr_t group, ip_addr_t source,
                                             mvpn_mdt_group_mode_t *mode) {
  *mode = mvpn_get_group_mode(mvpn->mdt_source_context, group);
  if (*mode == MVPN_MDT_GROUP_MODE_SSM) return source;
  if (*mode != MVPN_MDT_GROUP_MODE_ASM) return 0;
  if (mvpn->asm_use_shared_tree != 0) return 0;
  if (mvpn->enforce_bgp_mdt_safi != 0) return source;
  // Remote PEs are found by listening on the shared tree, which is this PE's own default route.
  const bool own_default = group == mvpn->mdt_default_group && source == mvpn->mdt_source_addr;
  return own_default ? 0 : source;
}

// --------------------------------------------------------------------------------------------------- route resources

// The route queued with its new state. Without a transmit list it stays pending until the next start queues it.
void mvpn_mdt_route_schedule(mvpn_mdt_route *route, uint8_t teardown, int add) {
  MVPN_DEBUG(route->mvpn->pcib, "Scheduling %s for MDT route:(%s, %s)", add != 0 ? "add" : "delete",
             ip_print_addr(route->source), ip_print_addr(route->group));
  route->teardown = teardown;
  route->pending = add != 0 ? MVPN_MDT_ROUTE_ADD_PENDING : MVPN_MDT_ROUTE_DELETE_PENDING;
  mvpn_mrib_queue_route(route);
}

// A new route for the (source, group) that was chosen; pe_source is the one that was asked for.
static mvpn_mdt_route *create_route(mvpn_cibtype *mvpn, mvpn_mdt_route_type_t route_type, mvpn_mdt_group_mode_t mode,
                                    ip_addr_t source, ip_addr_t group, ip_addr_t pe_source) {
  MVPN_DEBUG(mvpn->pcib, "Creating route resources for (%s, %s) pe_source %s",
             source != 0 ? ip_print_addr(source) : "*", ip_print_addr(group), ip_print_addr(pe_source));
  mvpn_mdt_route *route = mvpn_mdt_mroute_add(mvpn, route_type, mode, source, group);
  if (route == nullptr) return nullptr;
  MVPN_DEBUG(mvpn->pcib, "Created route resources for (%s, %s)", ip_print_addr(source), ip_print_addr(group));
  return route;
}

mvpn_mdt_route *mvpn_mdt_add_route_resources(mvpn_cibtype *mvpn, mvpn_mdt_route_type_t route_type, ip_addr_t source,
                                             int source_is_final, ip_addr_t group, int wakeup) {
  mvpn_mdt_group_mode_t mode = MVPN_MDT_GROUP_MODE_NONE;
  ip_addr_t chosen = source;
  if (source_is_final != 0) {
    mode = mvpn_get_group_mode(mvpn->mdt_source_context, group);
  } else {
    chosen = mvpn_get_mdt_mroute_source_address(mvpn, group, source, &mode);
  }
  mvpn_mdt_route *route = mvpn_mdt_mroute_lookup(mvpn, chosen, group);
  // Remote PEs share the (*,G) route; creating it is for the local side.
  if (chosen == 0 && route_type == MVPN_MDT_ROUTE_REMOTE_DEFAULT) {
    MVPN_DEBUG(mvpn->pcib, "Route (%s, %s) exists. Returning it.", ip_print_addr(chosen), ip_print_addr(group));
    return route;
  }
  if (route == nullptr) {
    route = create_route(mvpn, route_type, mode, chosen, group, source);
    if (route == nullptr) return nullptr;
  } else if (route->pending == MVPN_MDT_ROUTE_DELETE_PENDING) {
    route->pending = MVPN_MDT_ROUTE_NOT_PENDING;
    MVPN_DEBUG(mvpn->pcib, "Delete pending for (%s, %s). NOT creating route resources.", ip_print_addr(chosen),
               ip_print_addr(group));
  }
  mvpn_mdt_route_schedule(route, 0, 1);
  if (wakeup != 0) mvpn_mrib_wakeup_worker_thread();
  return route;
}

int mvpn_mdt_delete_route_resources(mvpn_cibtype *mvpn, ip_addr_t source, ip_addr_t group, int wakeup) {
  MVPN_DEBUG(mvpn->pcib, "Delete route resources for (%s, %s)", ip_print_addr(source), ip_print_addr(group));
  mvpn_mdt_route *route = mvpn_mdt_mroute_lookup(mvpn, source, group);
  if (route == nullptr) {
    MVPN_DEBUG(mvpn->pcib, "Didn't find route (%s, %s) to delete.", ip_print_addr(source), ip_print_addr(group));
    return 0;
  }
  mvpn_mdt_route_schedule(route, 0, 0);
  if (wakeup != 0) mvpn_mrib_wakeup_worker_thread();
  return 1;
}

// A source that the core's MRIB holds for a group of the VRF. The router's other addresses are no PEs.
static void add_mrib_source(mvpn_cibtype *mvpn, ip_addr_t source, ip_addr_t group) {
  const bool local = source == mvpn->mdt_source_addr;
  const bool wanted = local || ip_is_addr_local(pim_default_cib->vrf_name, source) == 0;
  MVPN_DEBUG(mvpn->pcib, "%s Adding %s MDT route (%s,%s)", wanted ? "" : "Not", local ? "local" : "remote",
             ip_print_addr(source), ip_print_addr(group));
  if (!wanted) return;
  const auto route_type = local ? MVPN_MDT_ROUTE_LOCAL_DEFAULT : MVPN_MDT_ROUTE_REMOTE_DEFAULT;
  mvpn_mdt_add_route_resources(mvpn, route_type, source, 1, group, 0);
}

// Whether the MRIB group has any source besides its (*,G) route.
static bool add_mrib_sources(mvpn_cibtype *mvpn, const mrib_group *mrib_routes, ip_addr_t group) {
  bool examined = false;
  for (const pt_node *node = pt_get_first_node(mrib_routes->sources, nullptr, 0); node != nullptr;
       node = pt_get_next_node(mrib_routes->sources, pt_node_key(node), 0)) {
    const void *route = pt_node_data(node);
    if (route == nullptr || route == mrib_routes->star_g) continue;
    examined = true;
    add_mrib_source(mvpn, load_be32(pt_node_key(node)), group);
  }
  return examined;
}

void mvpn_mdt_add_all_sg_route_resources(mvpn_cibtype *mvpn, ip_addr_t group) {
  MVPN_DEBUG(mvpn->pcib, "Adding (S,G) MDT routes");
  if (pim_default_cib == nullptr) return;
  bool examined = false;
  {
    const mrib_read_guard lock;
    mrib_context *context = mrib_get_context_by_context_id(pim_default_cib->context_id);
    if (context == nullptr) return;
    const mrib_group *mrib_routes = mrib_get_group(context, group, MROUTE_HOST_LEN);
    if (mrib_routes == nullptr) return;
    examined = add_mrib_sources(mvpn, mrib_routes, group);
  }
  if (examined) mvpn_mrib_wakeup_worker_thread();
}

// ------------------------------------------------------------------------------------------------------ MRIB entries

void mvpn_setup_mdt_mroute_ipc(uint8_t *entry, int add, vrf_context_id_t context_id, ip_addr_t group, ip_addr_t source,
                               ip_addr_t rpf_addr, uint32_t add_owner, im_iod_t mti_iod, int asm_shared_tree,
                               im_iod_t mdt_source_iod, uint32_t owner, int local, int mti_iod_set, int last_hop,
                               uint8_t teardown) {
  if (entry == nullptr) return;
  MVPN_DEBUG(pim_null_pcib, "[VRF %lu] %s (%s, %s) %s%s route in MRIB buffer", static_cast<unsigned long>(context_id),
             add != 0 ? "Add" : "Delete", ip_print_addr(source), ip_print_addr(group),
             mdt_source_iod != 0 ? ksink_im_get_if_name(mdt_source_iod) : "", last_hop != 0 ? ", last hop" : "");
  std::memset(entry, 0, MRIB_UPDATE_ENTRY_SIZE);
  store_host<uint32_t>(entry + MRIB_ENTRY_CONTEXT_ID, context_id);
  store_host<uint32_t>(entry + MRIB_ENTRY_SOURCE, source);
  store_host<uint32_t>(entry + MRIB_ENTRY_GROUP, group);
  entry[MRIB_ENTRY_SOURCE_LEN] = source != 0 ? MROUTE_HOST_LEN : MROUTE_ANY_SOURCE_LEN;
  entry[MRIB_ENTRY_GROUP_LEN] = MROUTE_HOST_LEN;
  if (add == 1 && rpf_addr != 0) {
    store_host<uint32_t>(entry + MRIB_ENTRY_RPF_ADDR, rpf_addr);
    store_host<uint32_t>(entry + MRIB_ENTRY_RPF_ADDR_SET, 1);
  }
  store_host<uint32_t>(entry + MRIB_ENTRY_ADD_OWNER, add_owner);
  store_host<uint32_t>(entry + MRIB_ENTRY_OWNER, owner);
  store_host<uint32_t>(entry + MRIB_ENTRY_MDT_SOURCE_IOD, mdt_source_iod);
  store_host<uint32_t>(entry + MRIB_ENTRY_MTI_IOD, mti_iod);
  entry[MRIB_ENTRY_ASM_SHARED_TREE] = static_cast<uint8_t>(asm_shared_tree);
  entry[MRIB_ENTRY_ADD] = add != 0 ? 1 : 0;
  entry[MRIB_ENTRY_LOCAL] = static_cast<uint8_t>(local);
  entry[MRIB_ENTRY_LAST_HOP] = static_cast<uint8_t>(last_hop);
  entry[MRIB_ENTRY_MTI_IOD_SET] = static_cast<uint8_t>(mti_iod_set);
  entry[MRIB_ENTRY_TEARDOWN] = teardown;
}

namespace {

// Fields of an entry by name: fifteen arguments in a row are too easily swapped.
struct mroute_ipc {
  int add = 0;
  vrf_context_id_t context_id = 0;
  ip_addr_t group = 0;
  ip_addr_t source = 0;
  ip_addr_t rpf_addr = 0;
  uint32_t add_owner = 0;
  im_iod_t mti_iod = 0;
  int asm_shared_tree = 0;
  im_iod_t mdt_source_iod = 0;
  uint32_t owner = 0;
  int local = 0;
  int mti_iod_set = 0;
  int last_hop = 0;
  uint8_t teardown = 0;
};

// What the mode and the side of a route decide about its entries.
struct entry_traits {
  ip_addr_t source = 0;   // 0: the (*,G) route; also the RPF address of an add
  bool with_mti = false;  // the entry carries the VRF's tunnel
  bool local = false;
  bool last_hop = false;
  uint8_t asm_shared_tree = 0;  // on adds
};

}  // namespace

static void write_entry(const mroute_ipc &f, uint8_t *entry) {
  mvpn_setup_mdt_mroute_ipc(entry, f.add, f.context_id, f.group, f.source, f.rpf_addr, f.add_owner, f.mti_iod,
                            f.asm_shared_tree, f.mdt_source_iod, f.owner, f.local, f.mti_iod_set, f.last_hop,
                            f.teardown);
}

// False: a mode that no route has.
static bool local_traits(const mvpn_mdt_route *route, entry_traits *out) {
  const mvpn_cibtype *mvpn = route->mvpn;
  out->local = true;
  switch (route->mode) {
    case MVPN_MDT_GROUP_MODE_SSM:
      out->source = route->source;
      return true;
    case MVPN_MDT_GROUP_MODE_ASM:
      out->source = route->source;
      out->asm_shared_tree = mvpn->asm_use_shared_tree;
      // A shared tree ends at this PE's tunnel; where remote PEs are found by listening, it has to be joined as well.
      out->with_mti = route->source == 0;
      out->last_hop = route->source == 0 && mvpn->enforce_bgp_mdt_safi == 0;
      return true;
    case MVPN_MDT_GROUP_MODE_BIDIR:
      out->with_mti = route->route_type == MVPN_MDT_ROUTE_LOCAL_DEFAULT;
      return true;
    default:
      return false;
  }
}

static bool remote_traits(const mvpn_mdt_route *route, entry_traits *out) {
  out->with_mti = true;
  if (route->mode == MVPN_MDT_GROUP_MODE_BIDIR) {
    out->local = route->route_type == MVPN_MDT_ROUTE_REMOTE_DEFAULT;
  } else {
    out->source = route->source;
  }
  return route->mode != MVPN_MDT_GROUP_MODE_NONE;
}

// The only entry of an addition, the first one of a deletion. What the VRF decides is read now, when the entry is
// written, not when the route was scheduled. The VRF's handle in it has four bytes, too few for a pointer: its context
// id serves, which is unique and not 0.
static void write_first_entry(const mvpn_mdt_route *route, const entry_traits &traits, int add, uint8_t *entry) {
  const mvpn_cibtype *mvpn = route->mvpn;
  const uint32_t owner = mvpn->pcib->context_id;
  write_entry({.add = add,
               .context_id = route->mdt_source_context,
               .group = route->group,
               .source = traits.source,
               .rpf_addr = add != 0 ? traits.source : 0,
               .add_owner = add != 0 ? owner : 0,
               .mti_iod = traits.with_mti ? mvpn->mti_iod : 0,
               .asm_shared_tree = add != 0 ? traits.asm_shared_tree : 0,
               .mdt_source_iod = route->mdt_source_iod,
               .owner = owner,
               .local = traits.local,
               .mti_iod_set = traits.with_mti,
               .last_hop = traits.last_hop,
               .teardown = route->teardown},
              entry);
}

// The second entry of a deletion names the route only.
static void write_second_entry(const mvpn_mdt_route *route, const entry_traits &traits, uint8_t *entry) {
  write_entry({.context_id = route->mdt_source_context,
               .group = route->group,
               .source = traits.source,
               .teardown = route->teardown},
              entry);
}

static uint32_t write_delete_entries(const mvpn_mdt_route *route, const entry_traits &traits, uint8_t *entry) {
  write_first_entry(route, traits, 0, entry);
  write_second_entry(route, traits, entry + MRIB_UPDATE_ENTRY_SIZE);
  return 2;
}

uint32_t mvpn_add_local_mdt_routes(const mvpn_mdt_route *route, uint8_t *entry) {
  MVPN_DEBUG(route->mvpn->pcib, "%s for group %s", __func__, ip_print_addr(route->group));
  entry_traits traits;
  if (!local_traits(route, &traits)) return 0;
  write_first_entry(route, traits, 1, entry);
  return 1;
}

uint32_t mvpn_add_remote_mdt_routes(const mvpn_mdt_route *route, uint8_t *entry) {
  MVPN_DEBUG(route->mvpn->pcib, "%s for group %s ", __func__, ip_print_addr(route->group));
  entry_traits traits;
  remote_traits(route, &traits);
  write_first_entry(route, traits, 1, entry);
  return 1;
}

uint32_t mvpn_delete_local_mdt_routes(const mvpn_mdt_route *route, uint8_t *entry) {
  MVPN_DEBUG(route->mvpn->pcib, "%s for %s group %s", __func__, ip_print_addr(route->source),
             ip_print_addr(route->group));
  entry_traits traits;
  return local_traits(route, &traits) ? write_delete_entries(route, traits, entry) : 0;
}

uint32_t mvpn_delete_remote_mdt_routes(const mvpn_mdt_route *route, uint8_t *entry) {
  MVPN_DEBUG(route->mvpn->pcib, "%s for %s group %s", __func__, ip_print_addr(route->source),
             ip_print_addr(route->group));
  entry_traits traits;
  return remote_traits(route, &traits) ? write_delete_entries(route, traits, entry) : 0;
}

// ---------------------------------------------------------------------------------------------------------- withdrawal

void mvpn_mdt_withdraw_route(mvpn_mdt_route *route) {
  route->teardown = 1;
  uint8_t entries[2 * MRIB_UPDATE_ENTRY_SIZE];
  const uint32_t written = mvpn_is_local_route(route) ? mvpn_delete_local_mdt_routes(route, entries)
                                                      : mvpn_delete_remote_mdt_routes(route, entries);
  if (written == 2) mvpn_mrib_queue_withdrawal(entries);
}
