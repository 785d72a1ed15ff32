// The sending side of data MDTs: the periodic check of each flow's rate, the switchover to a data MDT and back, the
// flows of a VRF that wait for the end of their switchover, and the mapping of customer routes to the local source.
//
// A flow above its range's threshold, with receivers across the MVPN, takes a group, gets a core route and is
// announced; when the VRF's switchover timer expires it is installed again with the new encapsulation. It goes back
// after two consecutive checks below the threshold. An immediate switch starts as soon as a flow is mapped.
//
// Appending a Join entry may send the packet, which yields: every function here does that last, and touches neither the
// VRF nor the customer route afterwards.
#include "routing/pim/mvpn/mvpn_datamdt_sender_internal.h"

#include "platform/ip.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_datamdt.h"
#include "routing/pim/mvpn/mvpn_datamdt_join.h"
#include "routing/pim/mvpn/mvpn_datamdt_receiver.h"
#include "routing/pim/mvpn/mvpn_diag.h"
#include "routing/pim/mvpn/mvpn_guards.h"
#include "routing/pim/mvpn/mvpn_ha.h"
#include "routing/pim/mvpn/mvpn_mdt_route.h"
#include "routing/pim/mvpn/mvpn_mrib_queue.h"

// --------------------------------------------------------------------------------------------------------- switchover

static void mvpn_start_switchover_to_data_mdt(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *key, pim_route *croute) {
  mvpn_data_mdt_send_join_info *record = croute->send_join_info;
  if (record == nullptr) return;
  if (record->state == MVPN_DATA_MDT_STATE_SWITCHBACK_PENDING) {
    record->state = MVPN_DATA_MDT_STATE_ACTIVE;
    return;
  }
  if (record->config == nullptr || record->mdt_route != nullptr) return;
  mvpn_ha_encap_info_t choice{};
  if (!mvpn_take_data_mdt_group(mvpn, key, record->config, &choice)) return;
  mvpn_mdt_route *route =
      mvpn_mdt_add_route_resources(mvpn, MVPN_MDT_ROUTE_LOCAL_DATA, mvpn->mdt_source_addr, 0, choice.mdt_group, 0);
  if (route == nullptr || mvpn_mdt_mroute_link_referer(route, croute) == 0) {
    mvpn_give_back_data_mdt_group(mvpn, record->config, choice.mdt_group, key, route, 0,
                                  [](mvpn_cibtype *, const mvpn_mdt_route *) {});
    return;
  }
  record->mdt_route = route;
  record->group = choice.mdt_group;
  zeph_sys_mclock_get(&record->switch_time);
  mvpn_set_encap_index_for_customer_route(mvpn, croute, choice.encap_index);
  record->state = MVPN_DATA_MDT_STATE_SWITCHOVER_PENDING;
  mvpn_add_entry_to_switchover_cache(mvpn, key, croute);
  mvpn_data_mdt_map_receiver_to_remote_source(mvpn, croute, key);
}

static void mvpn_finish_switchover_to_data_mdt(mvpn_cibtype *mvpn, mvpn_switchover_entry *entry) {
  pim_route *croute = entry->route;
  // The entry goes first: the installation may unmap the flow and delete it.
  mvpn_delete_entry_from_switchover_cache(mvpn, entry);
  mvpn_data_mdt_send_join_info *record = croute->send_join_info;
  if (record == nullptr) return;
  record->state = MVPN_DATA_MDT_STATE_ACTIVE;
  if (record->encap_index >= MVPN_ENCAP_INDEX_FIRST_DATA) pim_add_route(mvpn->pcib, croute, 0, 0, 0, 0, 0, 0);
}

void mvpn_process_data_mdt_switchover_expiry(mvpn_cibtype *mvpn) {
  if (mvpn == nullptr || mvpn->pcib == nullptr) return;
  const pim_write_guard pim_lock;
  const mvpn_vrf_handle vrf(mvpn);
  // Each installation runs host code: the first entry is looked up anew every time.
  while (vrf.same()) {
    auto *entry = static_cast<mvpn_switchover_entry *>(ravl_get_first_node(&mvpn->switchover_cache, 0));
    if (entry == nullptr) break;
    mvpn_finish_switchover_to_data_mdt(mvpn, entry);
  }
  pim_mrib_wakeup_txlist_worker_thread();
  // The core routes of the flows were queued without waking our own worker.
  mvpn_mrib_wakeup_worker_thread();
}

// ---------------------------------------------------------------------------------------------------------- switchback

static void mvpn_start_switchback_from_data_mdt(mvpn_cibtype *, const mvpn_mdt_route_addrs *, pim_route *croute) {
  if (croute->send_join_info != nullptr) croute->send_join_info->state = MVPN_DATA_MDT_STATE_SWITCHBACK_PENDING;
}

void mvpn_finish_switchback_from_data_mdt(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *key, pim_route *croute) {
  mvpn_data_mdt_send_join_info *record = croute->send_join_info;
  if (record == nullptr || record->config == nullptr) return;
  mvpn_release_data_mdt_group(mvpn, croute, key, 0, [](mvpn_cibtype *vrf, const mvpn_mdt_route *route) {
    MVPN_DEBUG(vrf->pcib, "Finished switchback from data mdt for (%s, %s)", ip_print_addr(route->source),
               ip_print_addr(route->group));
  });
  mvpn_init_data_mdt_send_join_info(mvpn, croute, record);
}

namespace {

bool is_sent_into_mvpn(const mvpn_cibtype *mvpn, const pim_route *croute) {
  return bitfield_test(&croute->oifs, mvpn->mti_iod) != 0;
}

uint32_t rate_kbps(const pim_route *croute) {
  return static_cast<uint32_t>(pim_data_bytes_in_last_minute(croute) * 8 / 60000);
}

// Whether the flow belongs on a data MDT now; *rate and *remote receive what decided.
bool is_over(const mvpn_cibtype *mvpn, const pim_route *croute, uint32_t *rate, bool *remote) {
  *rate = rate_kbps(croute);
  *remote = is_sent_into_mvpn(mvpn, croute);
  const bool wanted = croute->bidirectional != 0 ? mvpn->data_mdt_bidir_enable != 0 : *remote;
  return *rate >= croute->send_join_info->config->threshold && wanted;
}

// One check of a flow by its state; true when it went back to the default MDT.
bool check_state(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *key, pim_route *croute) {
  uint32_t rate;
  bool remote;
  const bool over = is_over(mvpn, croute, &rate, &remote);
  switch (croute->send_join_info->state) {
    case MVPN_DATA_MDT_STATE_DEFAULT:
      if (over) {
        MVPN_DEBUG(mvpn->pcib, "Start switching to Data MDT for %s", mrib_print_addrs(key));
        mvpn_start_switchover_to_data_mdt(mvpn, key, croute);
      } else {
        MVPN_DEBUG_DETAIL(mvpn->pcib, "Bit rate for %s is %lu and less than threshold. remote receivers = %s",
                          mrib_print_addrs(key), static_cast<unsigned long>(rate), remote ? "TRUE" : "FALSE");
      }
      return false;
    case MVPN_DATA_MDT_STATE_SWITCHOVER_PENDING:
      // A withdrawal has dropped its entry, or none could be stored: without one nothing would end the switchover.
      if (mvpn_get_entry_from_switchover_cache(mvpn, croute) == nullptr) {
        mvpn_add_entry_to_switchover_cache(mvpn, key, croute);
      }
      return false;
    case MVPN_DATA_MDT_STATE_ACTIVE:
      if (over) return false;
      MVPN_DEBUG(mvpn->pcib, "Start switchback from Data MDT for %s", mrib_print_addrs(key));
      mvpn_start_switchback_from_data_mdt(mvpn, key, croute);
      return false;
    case MVPN_DATA_MDT_STATE_SWITCHBACK_PENDING:
      if (over) {
        MVPN_DEBUG(mvpn->pcib, "Start switching to Data MDT for %s", mrib_print_addrs(key));
        mvpn_start_switchover_to_data_mdt(mvpn, key, croute);
        return false;
      }
      MVPN_DEBUG(mvpn->pcib, "Finish switchback from Data MDT for %s", mrib_print_addrs(key));
      mvpn_finish_switchback_from_data_mdt(mvpn, key, croute);
      mvpn_data_mdt_unmap_receiver_from_remote_source(mvpn, croute, key);
      return true;
  }
  return false;
}

// Announces a flow that is on a data MDT. The record is counted first: appending may yield.
void announce(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *key, const pim_route *croute) {
  mvpn_data_mdt_send_join_info *record = croute->send_join_info;
  if (record == nullptr || record->encap_index < MVPN_ENCAP_INDEX_FIRST_DATA) return;
  record->join_count++;
  mvpn_fill_one_data_mdt_join(mvpn, {key->source, key->group, record->group});
}

}  // namespace

// ------------------------------------------------------------------------------------------------------ periodic check

int mvpn_stats_check(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *key, pim_route *croute) {
  if (mvpn == nullptr) return 0;
  if (croute->send_join_info == nullptr || croute->send_join_info->config == nullptr) {
    if (mvpn_map_data_mdt_config(mvpn, key, croute) == 0 || croute->send_join_info->config == nullptr) return 0;
  }
  if (key->group_len != MROUTE_HOST_LEN) return 0;
  if (croute->bidirectional != 0 && mvpn->data_mdt_bidir_enable == 0 &&
      croute->send_join_info->state == MVPN_DATA_MDT_STATE_DEFAULT)
    return 0;
  int result = 0;
  if (mrib_context_initializing(mvpn->pcib->context_id) == 0) result = check_state(mvpn, key, croute) ? 1 : 0;
  announce(mvpn, key, croute);
  return result;
}

// -------------------------------------------------------------------------------------------------------- local source

bool mvpn_data_mdt_map_receiver_to_local_source(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *key,
                                                pim_route *croute) {
  if (mvpn == nullptr) return false;
  mvpn_mdt_route_addrs working = mvpn_unpadded_addrs(*key);
  if (working.source_len == MROUTE_ANY_SOURCE_LEN) working.source = 0;
  if (croute->send_join_info != nullptr && croute->send_join_info->encap_index != MVPN_ENCAP_INDEX_NONE) {
    MVPN_DEBUG(mvpn->pcib, "While mapping croute %s already has proper encap ", mrib_print_addrs(&working));
    return false;
  }
  MVPN_DEBUG(mvpn->pcib, "Mapping receiver to local source for %s", mrib_print_addrs(&working));
  if (mvpn_map_data_mdt_config(mvpn, &working, croute) == 0) return false;
  const mvpn_data_mdt_send_join_info *record = croute->send_join_info;
  if (record == nullptr || record->config == nullptr) return false;
  if (record->config->immediate_switch == 0 || record->config->threshold != 0) return false;
  mvpn_start_switchover_to_data_mdt(mvpn, &working, croute);
  MVPN_DEBUG(mvpn->pcib, "Switchover to Data MDT for %s", mrib_print_addrs(&working));
  if (mvpn->switchover_timer != nullptr) active_timer_start(mvpn->switchover_timer, 0, 0, 0, 0);
  mvpn_mrib_wakeup_worker_thread();
  if (record->encap_index < MVPN_ENCAP_INDEX_FIRST_DATA) return false;
  const mvpn_vrf_handle vrf(mvpn);
  mvpn_fill_one_data_mdt_join(mvpn, {working.source, working.group, record->group});
  if (vrf.same()) mvpn_send_data_mdt_join_packet(mvpn, 0);
  return true;
}

void mvpn_data_mdt_unmap_receiver_from_local_source(mvpn_cibtype *mvpn, pim_route *croute,
                                                    const mvpn_mdt_route_addrs *key) {
  if (mvpn == nullptr) return;
  MVPN_DEBUG(mvpn->pcib, "Clearing data MDT state for: addr: %s", mrib_print_addrs(key));
  // What counts is the group that the flow holds, not its index, which the host may have changed.
  if (croute->send_join_info != nullptr)
    mvpn_release_data_mdt_group(mvpn, croute, key, 1, [](mvpn_cibtype *vrf, const mvpn_mdt_route *route) {
      MVPN_DEBUG(vrf->pcib, "Unmapping receiver from local source for (%s, %s)", ip_print_addr(route->source),
                 ip_print_addr(route->group));
    });
  // Nobody is going to claim the choice that a teardown left of this flow, unless a recovery period is open.
  if (mvpn->unclaimed_choices != 0 && mvpn_ha_recovery_timer == nullptr) mvpn_ha_delete_encap_info(mvpn, key);
  if (mvpn_switchover_entry *entry = mvpn_get_entry_from_switchover_cache(mvpn, croute))
    mvpn_delete_entry_from_switchover_cache(mvpn, entry);
  mvpn_destroy_data_mdt_send_join_info(croute);
}
