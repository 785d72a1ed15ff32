// What the host tells of its customer routes, and the announcement of everything that is stored. These entry points
// concern the sending and the receiving side, so they stand above both.
//
// What yields: the changes of a route's reverse path, which may map it onto the sending side as well, and
// announcements.
#include <new>

#include "platform/im.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_datamdt_join.h"
#include "routing/pim/mvpn/mvpn_datamdt_receiver.h"
#include "routing/pim/mvpn/mvpn_datamdt_sender.h"
#include "routing/pim/mvpn/mvpn_diag.h"
#include "routing/pim/mvpn/mvpn_ha.h"

static bool is_tunnel(im_iod_t iod) { return ksink_im_is_mvpn_tunnel(iod) != 0; }

static bool is_fed_through_mvpn(const pim_route *croute) {
  return is_tunnel(croute->iif) || croute->bidirectional != 0;
}

void mvpn_process_mrib_join_notify(pim_cibtype *pcib, const mvpn_mdt_route_addrs *key, pim_route *croute) {
  if (pcib->mvpn == nullptr) return;
  MVPN_DEBUG(pcib, "MVPN Processing MRIB join notification");
  if (mvpn_should_install_remote_data_mdt(croute, pcib->mvpn) != 0)
    mvpn_data_mdt_map_receiver_to_remote_source(pcib->mvpn, croute, key);
}

void mvpn_process_mrib_prune_notify(pim_cibtype *pcib, const mvpn_mdt_route_addrs *key, pim_route *croute) {
  if (pcib->mvpn == nullptr || pcib->ignore_mrib_prunes != 0) return;
  if (is_fed_through_mvpn(croute)) mvpn_data_mdt_unmap_receiver_from_remote_source(pcib->mvpn, croute, key);
}

void mvpn_process_pim_route_delete(pim_cibtype *pcib, const mvpn_mdt_route_addrs *key, pim_route *croute) {
  mvpn_cibtype *mvpn = pcib->mvpn;
  if (mvpn == nullptr) return;
  // A flow that was sent on a data MDT, or whose source has moved to this side, may hold announcements as well.
  if (is_fed_through_mvpn(croute) || mvpn_is_announcement_installed_for(mvpn, croute, key)) {
    mvpn_data_mdt_unmap_receiver_from_remote_source(mvpn, croute, key);
  }
}

void mvpn_process_mrib_rpf_notify(pim_cibtype *pcib, const mvpn_mdt_route_addrs *key, pim_route *croute, int up) {
  mvpn_cibtype *mvpn = pcib->mvpn;
  if (mvpn == nullptr) return;
  if (up != 0)
    mvpn_data_mdt_map_receiver_to_remote_source(mvpn, croute, key);
  else
    mvpn_data_mdt_unmap_receiver_from_remote_source(mvpn, croute, key);
  if (croute->iif != 0 && croute->iif != mvpn->mti_iod && bitfield_test(&croute->oifs, mvpn->mti_iod) != 0)
    mvpn_data_mdt_map_receiver_to_local_source(mvpn, key, croute);
}

void mvpn_process_rpf_lookup(pim_cibtype *pcib, const mvpn_mdt_route_addrs *key, pim_route *croute, ip_addr_t rp,
                             int before, int after) {
  mvpn_cibtype *mvpn = pcib->mvpn;
  if (mvpn == nullptr) return;
  const mvpn_vrf_handle vrf(mvpn);
  const mvpn_mdt_route_addrs addrs = *key;
  const bool fed_by_tunnel = is_tunnel(croute->iif);
  if (croute->bidirectional != 0 && croute->iif != 0) {
    const ip_addr_t winner = pim_get_df_winner(rp, croute->iif);
    if (winner != 0) croute->rpf_neighbor = winner;
    if (fed_by_tunnel) {
      const bool announced = mvpn_data_mdt_map_receiver_to_local_source(mvpn, &addrs, croute);
      // An announcement yields: the VRF and the route may be gone. Without one the route need not be in its tree yet.
      if (announced && (!vrf.same() || pim_get_route_from_pt(pcib, &addrs) != croute)) return;
    }
  }
  if (before != 0 && after == 0)
    mvpn_data_mdt_unmap_receiver_from_remote_source(mvpn, croute, &addrs);
  else if (after != 0 && before == 0)
    mvpn_data_mdt_map_receiver_to_remote_source(mvpn, croute, &addrs);
  if (croute->bidirectional != 0 && fed_by_tunnel) mvpn_data_mdt_map_receiver_to_local_source(mvpn, &addrs, croute);
}

void mvpn_data_mdt_map_local_source_to_receiver(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *key,
                                                pim_route *croute) {
  mvpn_data_mdt_map_receiver_to_local_source(mvpn, key, croute);
}

void mvpn_data_mdt_unmap_local_source_from_receiver(mvpn_cibtype *mvpn, pim_route *croute,
                                                    const mvpn_mdt_route_addrs *key) {
  mvpn_data_mdt_unmap_receiver_from_local_source(mvpn, croute, key);
}

void mvpn_unconditional_announce_data_mdt_join(mvpn_cibtype *mvpn) {
  std::vector<mvpn_data_mdt_join> announcements;
  try {
    if (!mvpn_ha_stored_data_mdts(mvpn->pcib, &announcements)) return;
  } catch (const std::bad_alloc &) {
    mvpn_report(msg_error_PIM_MALLOC, announcements.size() * sizeof(mvpn_data_mdt_join), __func__);
    return;
  }
  const mvpn_vrf_handle vrf(mvpn);
  for (const mvpn_data_mdt_join &announcement : announcements) {
    mvpn_fill_one_data_mdt_join(mvpn, announcement);
    if (!vrf.same()) return;  // a full packet was sent, and the VRF went away meanwhile
  }
  mvpn_send_data_mdt_join_packet(mvpn, 1);
}
