// The default MDT of a VRF: how it comes up and how it is taken apart. Every change of the MTI status stands here.
//
// A VRF's default MDT is a multicast tunnel interface (MTI) whose traffic crosses the core in the default MDT group,
// sent from the MDT source: the configured interface, else BGP's update source. The tunnel manager owns the interface;
// mti_status says what it was asked for last and how far that has come.
//
// Flow. Set-up resolves source and route distinguisher and asks for the tunnel, or for its bring-up once the VRF is
// ready. When the interface is up, PIM runs on it, the VRF is advertised to BGP, and the core routes and the
// encapsulation of the default group are installed. When it goes down, the same is undone in the opposite sense, and
// the VRF is queued behind its own route deletions for the MRIB worker, which decides what comes next: up again, or
// deletion when the group was removed. A changed source address takes the tunnel through that cycle.
//
// Teardown while the module stops tells nobody: BGP, the MRIB and the host's routes are left as they are, and the
// context is freed at once.
//
// Invariants.
//   - A context is freed by mvpn_finish_destroy_default_mdt only, and only when nothing hangs on it any more. On the
//     normal road nothing does; answers and events that nobody asked for may get there early.
//   - Several steps of a teardown yield. After each the VRF is looked up again, and the teardown ends when it has
//     another context or none.
//
// All of it runs on the main thread and, once the route deletions of a teardown are written, on the MRIB worker.
#include "routing/pim/mvpn/mvpn_default_mdt_internal.h"

#include <algorithm>
#include <iterator>

#include "platform/im.h"
#include "platform/ip.h"
#include "platform/l3vm.h"
#include "platform/oim.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_data_mdt_range.h"
#include "routing/pim/mvpn/mvpn_datamdt.h"
#include "routing/pim/mvpn/mvpn_datamdt_receiver.h"
#include "routing/pim/mvpn/mvpn_diag.h"
#include "routing/pim/mvpn/mvpn_ha.h"
#include "routing/pim/mvpn/mvpn_mdt_route.h"
#include "routing/pim/mvpn/mvpn_mdt_route_walk.h"
#include "routing/pim/mvpn/mvpn_mdt_safi.h"
#include "routing/pim/mvpn/mvpn_mrib_queue.h"
#include "routing/pim/mvpn/mvpn_oim.h"

// --------------------------------------------------------------------------------------------------------- the tunnel

// Whether the interface manager knows an if-index; *iod is then its ordinal.
static bool is_known_interface(if_index_t if_index, im_iod_t *iod) {
  return im_get_iod_frm_ifindex(if_index, iod) == 0;
}

void mvpn_oim_tunnel_create(mvpn_cibtype *mvpn) {
  if (mvpn == nullptr || mvpn->pcib == nullptr || mvpn->pcib->table_id == 0) return;
  const uint32_t table_id = mvpn->pcib->table_id;
  MVPN_DEBUG(mvpn->pcib, "Initiating tunnel create for mvpn (table-id 0x%lx)", static_cast<unsigned long>(table_id));
  mvpn_set_mti_ifindex(mvpn, 0);
  if_index_t if_index = 0;
  if (if_index_overlay_cli_init(&if_index, IF_INDEX_OVERLAY_MVPN, table_id) != 0) {
    mvpn_report(msg_error_PIM_TUNNEL_CREATE_FAIL, mvpn->pcib->vrf_name);
    return;
  }
  if (pim_oim_initialized == 0) {
    MVPN_DEBUG(mvpn->pcib, "Havent initialized with OIM yet");
    return;
  }
  im_iod_t iod = 0;
  if (is_known_interface(if_index, &iod) && iod != 0) {
    MVPN_DEBUG(mvpn->pcib, "Tunnel interface already exists");
    mvpn_set_mti_ifindex(mvpn, if_index);
    mvpn_set_mti_status(mvpn, MVPN_MTI_CREATED, "the tunnel interface exists already");
    if (mvpn_is_default_mdt_ready(mvpn) != 0) mvpn_oim_bringup_tunnel(mvpn);
    return;
  }
  // The answer finds the VRF by the if-index.
  if (mvpn_oim_send_create(mvpn, if_index, iod) == 0) return;
  mvpn_set_mti_status(mvpn, MVPN_MTI_CREATE_PENDING, "create request sent");
  mvpn_set_mti_ifindex(mvpn, if_index);
}

void mvpn_oim_bringup_tunnel(mvpn_cibtype *mvpn) {
  MVPN_DEBUG(mvpn->pcib, "Initiating tunnel bringup with OIM");
  im_iod_t iod = 0;
  if (is_known_interface(mvpn->mti_ifindex, &iod)) {
    if (ksink_im_is_if_up(iod) != 0 && mvpn_is_default_mdt_ready(mvpn) != 0) {
      MVPN_DEBUG(mvpn->pcib, "Tunnel interface is already up");
      mvpn_default_tunnel_up(mvpn, iod);
      return;
    }
    if (mvpn_oim_refresh_parameters(mvpn, iod) == 0) return;
  }
  MVPN_DEBUG(mvpn->pcib, "Send tunnel bringup request to OIM");
  oim_send_if_bringup_request(mvpn->mti_ifindex, 0);
  mvpn_set_mti_status(mvpn, MVPN_MTI_UP_PENDING, "bring-up request sent");
}

void mvpn_oim_bringdown_tunnel(mvpn_cibtype *mvpn) {
  MVPN_DEBUG(mvpn->pcib, "Initiating tunnel bringdown with OIM ");
  oim_send_if_bringdown_request(mvpn->mti_ifindex, 0);
  mvpn_set_mti_status(mvpn, MVPN_MTI_DOWN_PENDING, "bring-down request sent");
}

void mvpn_oim_tunnel_delete(mvpn_cibtype *mvpn) {
  MVPN_DEBUG(mvpn != nullptr ? mvpn->pcib : pim_null_pcib, "Initiating tunnel delete with OIM ");
  if (mvpn_oim_send_delete(mvpn) != 0) {
    mvpn_set_mti_status(mvpn, MVPN_MTI_DELETE_PENDING, "delete request sent");
  }
}

// -------------------------------------------------------------------------------------------------------------- set-up

int mvpn_update_mdt_source_info(mvpn_cibtype *mvpn, im_iod_t iod) {
  mvpn_set_mdt_source_iod(mvpn, iod);
  const ip_addr_t address = ip_get_local_addr(iod);
  const bool changed = address != mvpn->mdt_source_addr;
  mvpn->mdt_source_addr = address;
  mvpn->mdt_source_context = l3vm_if_get_context_id(iod);
  mvpn->mdt_group_mode = mvpn_get_group_mode(mvpn->mdt_source_context, mvpn->mdt_default_group);
  return changed ? 1 : 0;
}

// Without an interface the source's address, VRF and mode stay.
static void resolve_source(mvpn_cibtype *mvpn) {
  const bool configured = mvpn->mdt_source_ifname[0] != '\0';
  const im_iod_t iod = configured ? im_get_if_by_name(mvpn->mdt_source_ifname) : mvpn_bgp_updatesrc_iod;
  if (iod != 0) {
    mvpn_update_mdt_source_info(mvpn, iod);
  } else {
    mvpn_set_mdt_source_iod(mvpn, 0);
  }
}

static void bring_up_when_ready(mvpn_cibtype *mvpn) {
  if (mvpn_is_default_mdt_ready(mvpn) != 0) mvpn_oim_bringup_tunnel(mvpn);
}

void mvpn_setup_default_mdt(mvpn_cibtype *mvpn) {
  if (mvpn == nullptr) return;
  mvpn_note_change(mvpn, MVPN_LAST_CHANGE_DEFAULT_MDT);
  resolve_source(mvpn);
  mvpn_bgp_get_rd(mvpn);
  // In every other status a request is outstanding, or the tunnel is up.
  switch (mvpn->mti_status) {
    case MVPN_MTI_NONE:
    case MVPN_MTI_DELETED:
      mvpn_oim_tunnel_create(mvpn);
      break;
    case MVPN_MTI_CREATED:
    case MVPN_MTI_DOWN:
      bring_up_when_ready(mvpn);
      break;
    default:
      break;
  }
}

// ----------------------------------------------------------------------------------------------------------- tunnel up

// The MTI borrows the source's address and runs PIM.
static void enable_pim(mvpn_cibtype *mvpn) {
  MVPN_DEBUG(pim_null_pcib, "Set unnumbered for %s and target %s", ksink_im_get_if_name(mvpn->mti_iod),
             ksink_im_get_if_name(mvpn->mdt_source_iod));
  ip_set_unnumbered(mvpn->mti_iod, ksink_im_get_if_name(mvpn->mdt_source_iod));
  pim_enable(0, mvpn->pcib, mvpn->mti_iod, 0);
  mvpn->mti_pim_if = pim_get_iftype(mvpn->mti_iod);
}

static void configure_pim_interface(const mvpn_cibtype *mvpn) {
  pim_iftype *interface = mvpn->mti_pim_if;
  interface->local_addr = mvpn->mdt_source_addr;
  interface->hello_interval = mvpn->pim_hello_interval;
  int adjusted = 0;
  interface->hello_holdtime = pim_calculate_holdtime(mvpn->pim_hello_interval, &adjusted);
  interface->jp_interval = static_cast<uint16_t>(mvpn->pim_jp_interval);
  interface->configured_jp_interval = static_cast<uint16_t>(mvpn->pim_jp_interval);
  interface->mtu = mvpn->mdt_mtu;
}

// The PE takes part in the group.
static void advertise_when_ready(mvpn_cibtype *mvpn) {
  if (mvpn_is_default_mdt_ready(mvpn) == 0) return;
  mvpn_bgp_mdt_safi_send_one_local_update(mvpn, 1);
  MVPN_DEBUG(mvpn->pcib, "Sent our local MDT SAFI to BGP ");
  mvpn_ha_recover_mdt_safi_from_pss(mvpn);
}

void mvpn_repopulate_default_mdt_route_from_local_cache(mvpn_cibtype *mvpn) {
  mvpn_mdt_add_route_resources(mvpn, MVPN_MDT_ROUTE_LOCAL_DEFAULT, mvpn->mdt_source_addr, 0, mvpn->mdt_default_group,
                               0);
}

void mvpn_repopulate_default_mdt_routes_from_bgp_cache(mvpn_cibtype *mvpn) {
  const ip_addr_t group = mvpn->mdt_default_group;
  const mvpn_bgp_mdt_safi *entry = mvpn_bgp_mdt_safi_of_group_after(group, nullptr);
  while (entry != nullptr) {
    const mvpn_bgp_mdt_safi_key key = entry->key;
    mvpn_mdt_add_route_resources(mvpn, MVPN_MDT_ROUTE_REMOTE_DEFAULT, key.mdt_src, 0, group, 0);
    entry = mvpn_bgp_mdt_safi_of_group_after(group, &key);
  }
  mvpn_mrib_wakeup_worker_thread();
}

// Encapsulation and core routes of the default group. Remote PEs are those that BGP knows, or, when BGP need
// not be followed, the sources that the core has routes for.
static void install_default_group(mvpn_cibtype *mvpn) {
  mvpn->mdt_group_mode = mvpn_get_group_mode(mvpn->mdt_source_context, mvpn->mdt_default_group);
  mvpn_add_mdt_encap_info(mvpn, mvpn->mdt_default_group, MVPN_ENCAP_INDEX_DEFAULT);
  mvpn_repopulate_default_mdt_route_from_local_cache(mvpn);
  if (mvpn->enforce_bgp_mdt_safi != 0) {
    mvpn_repopulate_default_mdt_routes_from_bgp_cache(mvpn);
  } else {
    mvpn_mdt_add_all_sg_route_resources(mvpn, mvpn->mdt_default_group);
  }
}

void mvpn_default_tunnel_up(mvpn_cibtype *mvpn, im_iod_t mti_iod) {
  MVPN_DEBUG(mvpn->pcib, "Default MDT tunnel interface %s(%ld) has come up\n", ksink_im_get_if_name(mti_iod),
             static_cast<long>(mti_iod));
  mvpn_set_mti_iod(mvpn, mti_iod);
  mvpn_set_mti_status(mvpn, MVPN_MTI_UP, "the tunnel interface is up");
  enable_pim(mvpn);
  if (mvpn->mti_pim_if == nullptr) {
    MVPN_DEBUG(mvpn->pcib, "Couldnt find PIM interface for default mdt interface %s", ksink_im_get_if_name(mti_iod));
    return;
  }
  configure_pim_interface(mvpn);
  advertise_when_ready(mvpn);
  install_default_group(mvpn);
  mvpn_mrib_trigger_rpf_lookup(mvpn);
  pim_setup_encap_for_pending_routes(mvpn->pcib);
  pim_send_periodic_hello(mvpn->mti_pim_if);
  mvpn_mrib_wakeup_worker_thread();
}

// --------------------------------------------------------------------------------------------------------- tunnel down

// What follows returns false when the VRF's context went away in a yield.

// Announcements heard and core routes; send: whether the MRIB is told.
static bool drop_announcements_and_routes(const mvpn_vrf_handle &vrf, mvpn_cibtype *mvpn, int send) {
  mvpn_destroy_data_mdt_recv_cache(mvpn, 0);
  if (!vrf.same()) return false;
  mvpn_mrib_clear_mdt_routes(mvpn, {}, 1, send);
  return vrf.same();
}

// Pending switchovers, send records, announcements that were gathered.
static bool drop_sender_state(const mvpn_vrf_handle &vrf, mvpn_cibtype *mvpn) {
  mvpn_delete_all_entries_from_switchover_cache(mvpn);
  mvpn_destroy_all_data_mdt_send_join_info(mvpn);
  if (!vrf.same()) return false;
  mvpn_free_join_packet(mvpn);
  return true;
}

// Takes the default MDT apart.
static bool clean_up(mvpn_cibtype *mvpn, int vrf_down) {
  const mvpn_vrf_handle vrf(mvpn);
  mvpn_set_mti_status(mvpn, MVPN_MTI_DOWN_IN_PROGRESS, "the default MDT goes down");
  const int notify = mvpn_is_stopping() ? 0 : 1;
  if (notify != 0) {
    MVPN_DEBUG(mvpn->pcib, "Sending update to BGP to remove local MDT SAFI");
    mvpn_bgp_mdt_safi_send_one_local_update(mvpn, 0);
  }
  if (!drop_announcements_and_routes(vrf, mvpn, notify)) return false;
  // A VRF that is down itself has nothing left to clean up in the MRIB and in its customer routes.
  const int clean = vrf_down == 0 ? notify : 0;
  mvpn_delete_all_mdt_encap_info(mvpn, clean);
  active_timer_stop(mvpn->switchover_timer);
  if (!drop_sender_state(vrf, mvpn)) return false;
  if (clean != 0) {
    pim_delete_oif_from_all_routes(mvpn->pcib, mvpn->mti_iod, 0);
    mvpn_mrib_trigger_rpf_lookup(mvpn);
  }
  return true;
}

// Hands the VRF on: to the worker, behind its route deletions, or out of a module that stops.
static void conclude_tunnel_down(mvpn_cibtype *mvpn) {
  if (!mvpn_is_stopping()) {
    mvpn_mrib_queue_context(mvpn);
    return;
  }
  mvpn_set_mdt_default_group(mvpn, 0);
  mvpn_set_mti_status(mvpn, MVPN_MTI_DOWN, "the module stops");
  mvpn_finish_destroy_default_mdt(mvpn);
}

void mvpn_default_tunnel_down(mvpn_cibtype *mvpn, int vrf_down) {
  const bool has_vrf = mvpn != nullptr && mvpn->pcib != nullptr;
  MVPN_DEBUG(has_vrf ? mvpn->pcib : pim_null_pcib, "Default MDT tunnel interface is going down");
  if (!has_vrf) return;
  const mvpn_mti_status_t status = mvpn->mti_status;
  if (status == MVPN_MTI_DOWN_IN_PROGRESS && mvpn_is_up()) {
    MVPN_DEBUG(mvpn->pcib, "MTI down in progress. Skipping cleanup.");
    return;
  }
  if (status == MVPN_MTI_CREATE_PENDING || status == MVPN_MTI_CREATED) {
    MVPN_DEBUG(mvpn->pcib, "MTI status is Create. Skipping cleanup.");
  } else if (status == MVPN_MTI_DOWN) {
    MVPN_DEBUG(mvpn->pcib, "MTI status already down. Skipping cleanup.");
  } else if (!clean_up(mvpn, vrf_down)) {
    return;
  }
  conclude_tunnel_down(mvpn);
}

// ------------------------------------------------------------------------------------------------------------- removal

void mvpn_start_destroy_default_mdt(mvpn_cibtype *mvpn) {
  MVPN_DEBUG(mvpn->pcib, "Start tunnel destory");
  mvpn_set_mdt_default_group(mvpn, 0);
  // In every other status a request is outstanding; its answer continues.
  switch (mvpn->mti_status) {
    case MVPN_MTI_NONE:
      mvpn_finish_destroy_default_mdt(mvpn);
      break;
    case MVPN_MTI_DELETED:
      // The tunnel has gone already, in a VRF that was configured again and not ready then.
      if (mvpn->mti_ifindex == 0) mvpn_finish_destroy_default_mdt(mvpn);
      break;
    case MVPN_MTI_CREATED:
    case MVPN_MTI_DOWN:
      mvpn_oim_tunnel_delete(mvpn);
      break;
    case MVPN_MTI_UP:
      mvpn_oim_bringdown_tunnel(mvpn);
      break;
    default:
      break;
  }
}

void mvpn_leave_vrf(pim_cibtype *pcib) {
  mvpn_cibtype *mvpn = pcib != nullptr ? pcib->mvpn : nullptr;
  if (!mvpn_is_up() || mvpn == nullptr) return;
  // Without a group the removal is under way, unless the VRF never had one: it was refused, and left a context.
  if (mvpn->mdt_default_group == 0 && mvpn->mti_status != MVPN_MTI_NONE) return;
  mvpn_start_destroy_default_mdt(mvpn);
}

// Core routes and encapsulations. While the module runs they are withdrawn from the MRIB: a flow may have been moved in
// a VRF that was down.
static bool drop_leftovers_in_mrib(const mvpn_vrf_handle &vrf, mvpn_cibtype *mvpn) {
  if (mvpn_is_stopping() || mvpn_mrib_info == nullptr) {
    mvpn_mrib_clear_mdt_routes(mvpn, {}, 1, 0);
    return vrf.same();
  }
  mvpn_mrib_withdraw_mdt_routes(mvpn);
  if (!vrf.same()) return false;
  const auto &groups = mvpn->mdt_encap_group;
  const auto in_use = [](ip_addr_t group) { return group != 0; };
  if (std::any_of(std::begin(groups), std::end(groups), in_use)) mvpn_delete_all_mdt_encap_info(mvpn, 1);
  return true;
}

// Frees what still hangs on a context whose end came before its teardown was through. False when the context is no
// longer to be freed: it went away, or was configured anew, in a yield.
static bool drop_leftovers(mvpn_cibtype *mvpn) {
  const mvpn_vrf_handle vrf(mvpn);
  const ip_addr_t group = mvpn->mdt_default_group;
  mvpn_destroy_data_mdt_recv_cache(mvpn, 0);
  if (!vrf.same() || !drop_leftovers_in_mrib(vrf, mvpn) || !drop_sender_state(vrf, mvpn)) return false;
  if (mvpn->mdt_default_group != group) return false;
  mvpn_free_data_mdt_ranges(mvpn);
  return true;
}

static void detach_from_pim(const mvpn_cibtype *mvpn) {
  if (pim_is_enabled(mvpn->mti_iod) != 0) pim_disable(0, mvpn->pcib, mvpn->mti_pim_if, mvpn->mti_iod, 1, 0, 0);
  if (!mvpn_is_stopping() && mvpn->mti_iod != 0) ip_unset_unnumbered(mvpn->mti_iod);
}

void mvpn_finish_destroy_default_mdt(mvpn_cibtype *mvpn) {
  // Leftovers go first, since that yields; nothing after it does.
  MVPN_DEBUG(mvpn->pcib, "Finish tunnel destroy");
  if (!drop_leftovers(mvpn)) return;
  detach_from_pim(mvpn);
  mvpn_mrib_unqueue_context(mvpn);
  mvpn->mti_pim_if = nullptr;
  mvpn_set_mti_iod(mvpn, 0);
  MVPN_DEBUG(mvpn->pcib, "mvpn=%p default MDT destroy", static_cast<void *>(mvpn));
  if (mvpn->switchover_timer != nullptr) active_timer_cancel(mvpn->switchover_timer);
  mvpn_ha_delete_encap_info(mvpn, nullptr);
  mvpn_free_context(mvpn);
}

// --------------------------------------------------------------------------------- what the tunnel and the worker say

void mvpn_default_tunnel_created(mvpn_cibtype *mvpn) {
  mvpn_set_mti_status(mvpn, MVPN_MTI_CREATED, "create response");
  if (mvpn_is_default_mdt_ready(mvpn) != 0) {
    mvpn_oim_bringup_tunnel(mvpn);
    MVPN_DEBUG(mvpn->pcib, "Sent bringup request for if-index 0x%x", mvpn->mti_ifindex);
    return;
  }
  // Removed from the configuration meanwhile.
  if (mvpn->mdt_default_group == 0) mvpn_oim_tunnel_delete(mvpn);
}

void mvpn_default_tunnel_deleted(mvpn_cibtype *mvpn) {
  mvpn_set_mti_status(mvpn, MVPN_MTI_DELETED, "delete response");
  mvpn_set_mti_ifindex(mvpn, 0);
  if (mvpn_is_default_mdt_ready(mvpn) != 0) {
    mvpn_setup_default_mdt(mvpn);
  } else if (mvpn->mdt_default_group == 0) {
    mvpn_finish_destroy_default_mdt(mvpn);
  }
}

void mvpn_default_tunnel_updated(mvpn_cibtype *mvpn, im_iod_t iod) {
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
  if (mvpn->mti_status == MVPN_MTI_DELETE_PENDING && mvpn->mdt_default_group == 0) {
    MVPN_DEBUG(mvpn->pcib, "Destroying the default tunnel");
    mvpn_finish_destroy_default_mdt(mvpn);
  }
}

// A VRF whose route deletions are written: its tunnel comes up again, goes for good, or stays down.
void mvpn_default_mdt_routes_written(mvpn_cibtype *mvpn) {
  // While the module stops its VRFs are taken apart at once, and the tunnel manager is told nothing.
  if (mvpn_is_stopping()) {
    mvpn_mrib_unqueue_context(mvpn);
    return;
  }
  mvpn_set_mti_status(mvpn, MVPN_MTI_DOWN, "route deletions written");
  mvpn_mrib_unqueue_context(mvpn);
  if (mvpn_is_default_mdt_ready(mvpn) != 0) {
    mvpn_oim_bringup_tunnel(mvpn);
  } else if (mvpn->mdt_default_group == 0) {
    mvpn_oim_tunnel_delete(mvpn);
  }
}
