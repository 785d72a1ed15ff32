// The receiving side of data MDTs: the cache of announcements, and the mapping between them and the customer routes
// that have receivers behind this PE.
//
// An announcement (customer source, customer group, PE) is kept until it lapses, whether anybody wants it or not; when
// a customer route of the flow should receive it, the provider group is joined by a core route, with the announcement
// among that route's referers. Mapping runs from both ends: a new announcement looks for routes, a route that gains or
// loses interest looks for announcements. The cache is ordered by group, source, PE, so that each looks at its own
// only.
//
// Invariants: an announcement has a core route if and only if it is among that route's referers and carries a flag for
// each kind of customer route that it is installed for. A core route of a default MDT is never deleted from here, even
// when an announcement names its group.
//
// What yields: the destruction of a whole cache, the clean-up after a core route, and the changes of a route's reverse
// path, which may map it onto the sending side as well.
#include "routing/pim/mvpn/mvpn_datamdt_receiver_internal.h"

#include <algorithm>

#include "platform/im.h"
#include "platform/ip.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_datamdt.h"
#include "routing/pim/mvpn/mvpn_diag.h"
#include "routing/pim/mvpn/mvpn_guards.h"
#include "routing/pim/mvpn/mvpn_mdt_route.h"
#include "routing/pim/mvpn/mvpn_wire.h"

uint32_t mvpn_data_mdt_recv_cache_limit = 100000;
pt_attr *mvpn_data_mdt_info_pt_attr = nullptr;

namespace {

constexpr uint32_t kNodesBetweenYields = 1000;  // as the ageing pass
constexpr uint32_t kGroupBits = 32;
constexpr uint32_t kGroupSourceBits = 64;
constexpr uint32_t kKeyBits = MVPN_RECV_KEY_BYTES * 8;
constexpr uint32_t kNanosecondsPerSecond = 1000000000;

using Record = mvpn_data_mdt_recv_join_info;

void mvpn_build_data_mdt_recv_join_info_pt_key(ip_addr_t c_src, ip_addr_t c_grp, ip_addr_t p_src,
                                               uint8_t key[MVPN_RECV_KEY_BYTES]) {
  store_be32(key, c_grp);
  store_be32(key + 4, c_src);
  store_be32(key + 8, p_src);
}

// Calls visit(record) for every announcement under a prefix of the key, in tree order, until it returns false. The
// record may be destroyed by the visit.
template <typename Visit>
void for_each_under(mvpn_cibtype *mvpn, ip_addr_t c_src, ip_addr_t c_grp, uint32_t prefix_bits, Visit visit) {
  uint8_t key[MVPN_RECV_KEY_BYTES];
  mvpn_build_data_mdt_recv_join_info_pt_key(c_src, c_grp, 0, key);
  pt_node *node = pt_get_first_node(mvpn->data_mdt_recv_cache, key, prefix_bits);
  while (node != nullptr) {
    std::copy_n(pt_node_key(node), sizeof key, key);
    if (!visit(static_cast<Record *>(pt_node_data(node)))) return;
    node = pt_get_next_node(mvpn->data_mdt_recv_cache, key, prefix_bits);
  }
}

mvpn_mdt_route_addrs star_g_addrs(ip_addr_t group) { return {0, group, MROUTE_ANY_SOURCE_LEN, MROUTE_HOST_LEN, {}}; }
mvpn_mdt_route_addrs s_g_addrs(ip_addr_t source, ip_addr_t group) {
  return {source, group, MROUTE_HOST_LEN, MROUTE_HOST_LEN, {}};
}

uint32_t flag_of(const pim_route *croute) {
  return croute->is_star_g != 0 ? MVPN_RECV_JOIN_MAPPED_STARG : MVPN_RECV_JOIN_MAPPED_SG;
}

void clear_route(mvpn_cibtype *mvpn, Record *record) {
  if (record->mdt_route != nullptr) mvpn->data_mdt_recv_mapped--;
  record->mdt_route = nullptr;
  record->flags = 0;
}

// Deletes the core route of a data MDT that nothing refers to any more.
void delete_unused_route(mvpn_cibtype *mvpn, const mvpn_mdt_route *route) {
  const bool is_data =
      route->route_type == MVPN_MDT_ROUTE_REMOTE_DATA || route->route_type == MVPN_MDT_ROUTE_LOCAL_DATA;
  if (is_data && mvpn_mdt_mroute_has_referer(route) == 0)
    mvpn_mdt_delete_route_resources(mvpn, route->source, route->group, 1);
}

mvpn_mdt_route_addrs announced_flow(const Record *record) {
  return record->c_src != 0 ? s_g_addrs(record->c_src, record->c_grp) : star_g_addrs(record->c_grp);
}

// Takes an announcement off its core route for the sake of a flow; the route of a data MDT goes with its last referer.
void leave_route(mvpn_cibtype *mvpn, Record *record, const mvpn_mdt_route_addrs &flow) {
  mvpn_mdt_route *route = record->mdt_route;
  if (route == nullptr) return;
  mvpn_mdt_mroute_delink_referer(route, record);
  clear_route(mvpn, record);
  if (mvpn_mdt_mroute_has_referer(route) != 0) return;
  MVPN_DEBUG(mvpn->pcib, "Route %s is unmapped from remote source for (%s, %s)", mrib_print_addrs(&flow),
             ip_print_addr(route->source), ip_print_addr(route->group));
  delete_unused_route(mvpn, route);
}

bool join_route(mvpn_cibtype *mvpn, Record *record, mvpn_mdt_route *route) {
  if (record->mdt_route == route) return true;
  const uint32_t flags = record->flags;
  leave_route(mvpn, record, announced_flow(record));
  if (mvpn_mdt_mroute_link_referer(route, record) == 0) {
    delete_unused_route(mvpn, route);
    return false;
  }
  record->mdt_route = route;
  record->flags = flags;
  mvpn->data_mdt_recv_mapped++;
  return true;
}

void note_full_cache(mvpn_cibtype *mvpn) {
  if (!mvpn_note_refusal(&mvpn->data_mdt_recv_refused)) return;
  syslog_log(4, "VRF %s: an announced data MDT is dropped, %u are kept already; %u dropped so far",
             mvpn->pcib->vrf_name, mvpn->data_mdt_recv_count, mvpn->data_mdt_recv_refused.count);
}

// What is no multicast group would be installed as a core route all the same.
void note_invalid_group(mvpn_cibtype *mvpn, ip_addr_t group, ip_addr_t peer) {
  if (!mvpn_note_refusal(&mvpn->data_mdt_recv_invalid)) return;
  syslog_log(4, "VRF %s: PE %s announces %s, which is no multicast group; %u dropped so far", mvpn->pcib->vrf_name,
             ip_print_addr(peer), ip_print_addr(group), mvpn->data_mdt_recv_invalid.count);
}

bool is_tunnel(im_iod_t iod) { return ksink_im_is_mvpn_tunnel(iod) != 0; }

bool has_oif_off_the_tunnels(const pim_route *croute) {
  for (int64_t oif = bitfield_find_first_set(&croute->oifs); oif >= 0;
       oif = bitfield_find_next_set(&croute->oifs, static_cast<uint32_t>(oif)))
    if (!is_tunnel(static_cast<im_iod_t>(oif))) return true;
  return false;
}

void mvpn_uninstall_remote_data_mdt(mvpn_cibtype *mvpn, Record *record, const pim_route *croute,
                                    const mvpn_mdt_route_addrs *key) {
  record->flags &= ~flag_of(croute);
  if (record->flags == 0) leave_route(mvpn, record, *key);
}

// Uninstalls an announcement for one kind of customer route when that route still exists.
void unmap_kind(mvpn_cibtype *mvpn, Record *record, const mvpn_mdt_route_addrs &addrs, const char *absent) {
  const pim_route *croute = pim_get_route_from_pt(mvpn->pcib, &addrs);
  if (croute == nullptr)
    MVPN_DEBUG(mvpn->pcib, "%s", absent);
  else
    mvpn_uninstall_remote_data_mdt(mvpn, record, croute, &addrs);
}

}  // namespace

// ------------------------------------------------------------------------------------------- installation for a route

int mvpn_should_install_remote_data_mdt(const pim_route *croute, const mvpn_cibtype *mvpn) {
  if (croute == nullptr || mvpn == nullptr) return 0;
  const mvpn_data_mdt_send_join_info *sent = croute->send_join_info;
  if (sent != nullptr && sent->encap_index >= MVPN_ENCAP_INDEX_FIRST_DATA) return 1;
  if (croute->bidirectional != 0)
    return !is_tunnel(croute->iif) || croute->oifless_join_barred == 0 || has_oif_off_the_tunnels(croute) ? 1 : 0;
  if (!is_tunnel(croute->iif)) return 0;
  if (bitfield_is_any_set(&croute->oifs) != 0 || croute->oifless_join_barred == 0) return 1;
  return mvpn->pcib->ignore_mrib_prunes != 0 ? 1 : 0;
}

static int mvpn_install_remote_data_mdt(mvpn_cibtype *mvpn, pim_route *croute, Record *record) {
  if (croute == nullptr) return 0;
  if (mvpn_should_install_remote_data_mdt(croute, mvpn) == 0) {
    MVPN_DEBUG(mvpn->pcib, "NOT installing route c_src %s, c_grp %s, p_src %s, p_grp %s %s",
               ip_print_addr(record->c_src), ip_print_addr(record->c_grp), ip_print_addr(record->p_src),
               ip_print_addr(record->p_grp), croute->is_star_g != 0 ? "starg" : "sg");
    return 0;
  }
  mvpn_mdt_route *route =
      mvpn_mdt_add_route_resources(mvpn, MVPN_MDT_ROUTE_REMOTE_DATA, record->p_src, 0, record->p_grp, 1);
  if (route == nullptr || !join_route(mvpn, record, route)) {
    MVPN_DEBUG(mvpn->pcib, "Couldnt allocate MDT resource (%s %s)", ip_print_addr(record->p_src),
               ip_print_addr(record->p_grp));
    return 0;
  }
  record->flags |= flag_of(croute);
  MVPN_DEBUG(mvpn->pcib, "Receive join entry (%s %s) is now mapped to a croute with mdt-route (%s,%s)",
             ip_print_addr(record->c_src), ip_print_addr(record->c_grp), ip_print_addr(route->source),
             ip_print_addr(route->group));
  return 1;
}

static int mvpn_match_remote_data_mdt(const mvpn_mdt_route_addrs *key, const Record *record) {
  if (record->c_grp != key->group) return 0;
  return key->source_len == MROUTE_ANY_SOURCE_LEN || record->c_src == key->source ? 1 : 0;
}

static int mvpn_mdt_join_refers_croute(const Record *record, const pim_route *croute) {
  return (record->flags & flag_of(croute)) != 0 ? 1 : 0;
}

static uint32_t mvpn_get_recv_join_info_mask_len(int is_star_g) {
  return is_star_g != 0 ? kGroupBits : kGroupSourceBits;
}

// -------------------------------------------------------------------------------------- mapping from the announcement

static int mvpn_data_mdt_map_remote_source_to_receiver(mvpn_cibtype *mvpn, Record *record) {
  MVPN_DEBUG(mvpn->pcib, "Mapping customer route for new receive join entry (%s %s)", ip_print_addr(record->c_src),
             ip_print_addr(record->c_grp));
  mrib_read_guard mrib_lock;
  const vrf_context_id_t context_id = mvpn->pcib->context_id;
  const mvpn_mdt_route_addrs star_g = star_g_addrs(record->c_grp);
  const mvpn_mdt_route_addrs s_g = s_g_addrs(record->c_src, record->c_grp);
  const bool has_source = record->c_src != 0;
  pim_route *star_g_croute = pim_get_route_from_pt(mvpn->pcib, &star_g);
  pim_route *s_g_croute = has_source ? pim_get_route_from_pt(mvpn->pcib, &s_g) : nullptr;
  const bool in_mrib = mrib_get_route_by_addr(context_id, &star_g) != nullptr ||
                       (has_source && mrib_get_route_by_addr(context_id, &s_g) != nullptr);
  if (!in_mrib) {
    mrib_lock.release();
    MVPN_DEBUG(mvpn->pcib, "No mrib croute found for c_src %s, c_grp %s, p_src %s, p_grp %s",
               ip_print_addr(record->c_src), ip_print_addr(record->c_grp), ip_print_addr(record->p_src),
               ip_print_addr(record->p_grp));
    return 0;
  }
  if (star_g_croute == nullptr && s_g_croute == nullptr) {
    mrib_lock.release();
    MVPN_DEBUG(mvpn->pcib, "No pim croute found for c_src %s, c_grp %s, p_src %s, p_grp %s",
               ip_print_addr(record->c_src), ip_print_addr(record->c_grp), ip_print_addr(record->p_src),
               ip_print_addr(record->p_grp));
    return 0;
  }
  const int for_s_g = mvpn_install_remote_data_mdt(mvpn, s_g_croute, record);
  const int for_star_g = mvpn_install_remote_data_mdt(mvpn, star_g_croute, record);
  return for_s_g != 0 || for_star_g != 0 ? 1 : 0;
}

static void mvpn_data_mdt_unmap_remote_source_from_receiver(mvpn_cibtype *mvpn, Record *record) {
  if ((record->flags & MVPN_RECV_JOIN_MAPPED_STARG) != 0)
    unmap_kind(mvpn, record, star_g_addrs(record->c_grp),
               "NULL (*,G) croute. Failed in unmapping remote source from receiver.");
  if (record->c_src != 0 && (record->flags & MVPN_RECV_JOIN_MAPPED_SG) != 0)
    unmap_kind(mvpn, record, s_g_addrs(record->c_src, record->c_grp),
               "NULL (S,G) croute. Failed in unmapping remote source from receiver.");
}

// ---------------------------------------------------------------------------------------------------------- the cache

static void mvpn_update_data_mdt_recv_join_stats_info(mvpn_cibtype *mvpn, int is_new, Record *record) {
  if (is_new != 0) {
    record->join_count = 0;
    zeph_sys_mclock_get(&record->create_time);
  }
  record->join_count++;
  mvpn->data_mdt_recv_join_count++;
  // One reading serves both: reading the clock is a good part of what an announcement that is known already costs.
  if (zeph_sys_mclock_get(&record->expiry_time) == -1) {
    zeph_sys_mclock_get(&record->last_time);
    return;
  }
  record->last_time = record->expiry_time;
  record->expiry_time.seconds += mvpn->data_mdt_timeout + record->expiry_time.nanoseconds / kNanosecondsPerSecond;
  record->expiry_time.nanoseconds %= kNanosecondsPerSecond;
}

static Record *mvpn_create_data_mdt_recv_join_info(mvpn_cibtype *mvpn, const mvpn_data_mdt_join &join,
                                                   ip_addr_t p_src) {
  if (mvpn->data_mdt_recv_count >= mvpn_data_mdt_recv_cache_limit) {
    note_full_cache(mvpn);
    return nullptr;
  }
  auto *record = static_cast<Record *>(slab_calloc(mvpn_slabs[MVPN_SLAB_RECV_JOIN_INFO]));
  if (record == nullptr) {
    mvpn_report(msg_error_PIM_MALLOC, sizeof(Record), "mvpn_create_data_mdt_recv_join_info()");
    MVPN_DEBUG(mvpn->pcib, "slab alloc failed c_src %s, c_grp %s, p_src %s, p_grp %s", ip_print_addr(join.c_src),
               ip_print_addr(join.c_grp), ip_print_addr(p_src), ip_print_addr(join.p_grp));
    return nullptr;
  }
  record->c_src = join.c_src;
  record->c_grp = join.c_grp;
  record->p_src = p_src;
  record->p_grp = join.p_grp;
  mvpn_update_data_mdt_recv_join_stats_info(mvpn, 1, record);
  uint8_t key[MVPN_RECV_KEY_BYTES];
  mvpn_build_data_mdt_recv_join_info_pt_key(join.c_src, join.c_grp, p_src, key);
  if (pt_add(mvpn_data_mdt_info_pt_attr, &mvpn->data_mdt_recv_cache, MVPN_RECV_KEY_BYTES, key, kKeyBits, record) != 0) {
    mvpn_report(msg_error_PIM_PT_ADD, "Data MDT recv info cache");
    slab_free(mvpn_slabs[MVPN_SLAB_RECV_JOIN_INFO], record);
    MVPN_DEBUG(mvpn->pcib, "Unable to add entry to receive cache. c_src %s, c_grp %s, p_src %s, p_grp %s",
               ip_print_addr(join.c_src), ip_print_addr(join.c_grp), ip_print_addr(p_src), ip_print_addr(join.p_grp));
    return nullptr;
  }
  mvpn->data_mdt_recv_count++;
  mvpn_data_mdt_map_remote_source_to_receiver(mvpn, record);
  return record;
}

bool mvpn_add_data_mdt_recv_join_info(mvpn_cibtype *mvpn, const mvpn_data_mdt_join &join, ip_addr_t p_src) {
  if (!mvpn_is_multicast(join.p_grp)) {
    note_invalid_group(mvpn, join.p_grp, p_src);
    return false;
  }
  // Only the PE towards the source is believed.
  if (join.c_src != 0) {
    const mvpn_mdt_route_addrs addrs = s_g_addrs(join.c_src, join.c_grp);
    const pim_route *croute = pim_get_route_from_pt(mvpn->pcib, &addrs);
    if (croute != nullptr && croute->rpf_neighbor != p_src) {
      MVPN_DEBUG(mvpn->pcib, "RPF check for %s differs from %s", mrib_print_addrs(&addrs), ip_print_addr(p_src));
      return false;
    }
  }
  Record *record = mvpn_get_data_mdt_recv_join_info(mvpn, join.c_src, join.c_grp, p_src);
  if (record != nullptr && record->p_grp == join.p_grp) {
    mvpn_update_data_mdt_recv_join_stats_info(mvpn, 0, record);
    return false;
  }
  if (record != nullptr)
    mvpn_destroy_data_mdt_recv_join_info(mvpn, record);
  else
    MVPN_DEBUG(mvpn->pcib, "Creating new receive cache mapping c_src %s, c_grp %s, p_src %s p_grp %s",
               ip_print_addr(join.c_src), ip_print_addr(join.c_grp), ip_print_addr(p_src), ip_print_addr(join.p_grp));
  mvpn_create_data_mdt_recv_join_info(mvpn, join, p_src);
  return true;
}

Record *mvpn_get_data_mdt_recv_join_info(mvpn_cibtype *mvpn, ip_addr_t c_src, ip_addr_t c_grp, ip_addr_t p_src) {
  uint8_t key[MVPN_RECV_KEY_BYTES];
  mvpn_build_data_mdt_recv_join_info_pt_key(c_src, c_grp, p_src, key);
  if (p_src != 0) return static_cast<Record *>(pt_lookup(mvpn->data_mdt_recv_cache, key, kKeyBits, 1));
  const pt_node *node = pt_get_first_node(mvpn->data_mdt_recv_cache, key, kGroupSourceBits);
  return node != nullptr ? static_cast<Record *>(pt_node_data(node)) : nullptr;
}

void mvpn_destroy_data_mdt_recv_join_info(mvpn_cibtype *mvpn, Record *record) {
  uint8_t key[MVPN_RECV_KEY_BYTES];
  mvpn_build_data_mdt_recv_join_info_pt_key(record->c_src, record->c_grp, record->p_src, key);
  if (pt_delete(mvpn_data_mdt_info_pt_attr, &mvpn->data_mdt_recv_cache, key, kKeyBits) == 0)
    mvpn->data_mdt_recv_count--;
  mvpn_data_mdt_unmap_remote_source_from_receiver(mvpn, record);
  // A customer route that vanished without a withdrawal was not found: the core route must not keep the record.
  leave_route(mvpn, record, announced_flow(record));
  slab_free(mvpn_slabs[MVPN_SLAB_RECV_JOIN_INFO], record);
}

void mvpn_destroy_data_mdt_recv_cache(mvpn_cibtype *mvpn, ip_addr_t p_src) {
  uint8_t key[MVPN_RECV_KEY_BYTES];
  uint32_t visited = 0;
  const mvpn_vrf_handle vrf(mvpn);
  pt_node *node = pt_get_first_node(mvpn->data_mdt_recv_cache, nullptr, 0);
  while (node != nullptr) {
    std::copy_n(pt_node_key(node), sizeof key, key);
    auto *record = static_cast<Record *>(pt_node_data(node));
    if (p_src == 0 || record->p_src == p_src) mvpn_destroy_data_mdt_recv_join_info(mvpn, record);
    if (++visited % kNodesBetweenYields == 0) {
      mvpn_may_sched_yield(mvpn);
      if (!vrf.same()) return;
    }
    node = pt_get_next_node(mvpn->data_mdt_recv_cache, key, 0);
  }
}

// ------------------------------------------------------------------------------------ mapping from the customer route

int mvpn_data_mdt_map_receiver_to_remote_source(mvpn_cibtype *mvpn, pim_route *croute,
                                                const mvpn_mdt_route_addrs *key) {
  if (croute == nullptr) return 0;
  MVPN_DEBUG(mvpn->pcib, "Mapping receiver to remote source for %s", mrib_print_addrs(key));
  {
    mrib_read_guard mrib_lock;
    if (mrib_get_route_by_addr(mvpn->pcib->context_id, key) == nullptr ||
        mvpn_should_install_remote_data_mdt(croute, mvpn) == 0) {
      mrib_lock.release();
      MVPN_DEBUG(mvpn->pcib, "Not adding croute (%s,%s) to receive cache.", ip_print_addr(key->source),
                 ip_print_addr(key->group));
      return 0;
    }
  }
  for_each_under(mvpn, key->source, key->group, mvpn_get_recv_join_info_mask_len(croute->is_star_g),
                 [&](Record *record) {
                   if (mvpn_match_remote_data_mdt(key, record) == 0) return false;
                   mvpn_install_remote_data_mdt(mvpn, croute, record);
                   return true;
                 });
  return 1;
}

void mvpn_data_mdt_unmap_receiver_from_remote_source(mvpn_cibtype *mvpn, pim_route *croute,
                                                     const mvpn_mdt_route_addrs *key) {
  if (mvpn == nullptr) return;
  MVPN_DEBUG(mvpn->pcib, "Unmapping receiver to remote source for %s", mrib_print_addrs(key));
  for_each_under(mvpn, key->source, key->group, mvpn_get_recv_join_info_mask_len(croute->is_star_g),
                 [&](Record *record) {
                   if (mvpn_match_remote_data_mdt(key, record) == 0) return false;
                   if (mvpn_mdt_join_refers_croute(record, croute) != 0)
                     mvpn_uninstall_remote_data_mdt(mvpn, record, croute, key);
                   else
                     MVPN_DEBUG(mvpn->pcib, "Route %s didnt match the recv join entry", mrib_print_addrs(key));
                   return true;
                 });
  if (mvpn_switchover_entry *entry = mvpn_get_entry_from_switchover_cache(mvpn, croute))
    mvpn_delete_entry_from_switchover_cache(mvpn, entry);
}

bool mvpn_is_announcement_installed_for(mvpn_cibtype *mvpn, const pim_route *croute, const mvpn_mdt_route_addrs *key) {
  bool installed = false;
  for_each_under(mvpn, key->source, key->group, mvpn_get_recv_join_info_mask_len(croute->is_star_g),
                 [&](const Record *record) {
                   if (mvpn_match_remote_data_mdt(key, record) == 0) return false;
                   installed = mvpn_mdt_join_refers_croute(record, croute) != 0;
                   return !installed;
                 });
  return installed;
}

void mvpn_mdt_route_cleanup_recv_join_info(mvpn_mdt_route *route) {
  mvpn_cibtype *mvpn = route->mvpn;
  const mvpn_vrf_handle vrf(mvpn);
  uint8_t key[MVPN_RECV_KEY_BYTES];
  uint32_t visited = 0;
  pt_node *node = pt_get_first_node(mvpn->data_mdt_recv_cache, nullptr, 0);
  // Over as soon as no announcement refers to any route.
  while (node != nullptr && mvpn->data_mdt_recv_mapped != 0) {
    std::copy_n(pt_node_key(node), sizeof key, key);
    auto *record = static_cast<Record *>(pt_node_data(node));
    if (record->mdt_route == route) clear_route(mvpn, record);
    if (++visited % kNodesBetweenYields == 0 && tsp_sched_may_yield() != 0 && !vrf.same()) return;
    node = pt_get_next_node(mvpn->data_mdt_recv_cache, key, 0);
  }
}
