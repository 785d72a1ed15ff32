// The MDT source of the VRFs: its interface is replaced, or its address changes.
//
// The default MDT is sourced from one interface of the PE: the one that 'mdt source' names, else BGP's update source.
// Its address is the tunnel's source, the source of the local core route and the address that is advertised. When it
// changes, the tunnel is taken through a bring-down and a bring-up, or told the new source while it is still coming up.
#include "routing/pim/mvpn/mvpn_mdt_source.h"

#include "platform/im.h"
#include "platform/ip.h"
#include "routing/pim/mvpn/mvpn_context.h"
#include "routing/pim/mvpn/mvpn_default_mdt.h"
#include "routing/pim/mvpn/mvpn_diag.h"
#include "routing/pim/mvpn/mvpn_oim.h"

static void bring_up_when_ready(mvpn_cibtype *mvpn) {
  if (mvpn_is_default_mdt_ready(mvpn) != 0) mvpn_oim_bringup_tunnel(mvpn);
}

// The source has a new address.
static void follow_new_address(mvpn_cibtype *mvpn) {
  switch (mvpn->mti_status) {
    case MVPN_MTI_CREATED:
    case MVPN_MTI_DOWN:
      bring_up_when_ready(mvpn);
      break;
    case MVPN_MTI_DELETED:
      // It was configured again while its tunnel went, and had no source then: nothing else asks for another tunnel.
      if (mvpn->mti_ifindex == 0 && mvpn_is_default_mdt_ready(mvpn) != 0) mvpn_setup_default_mdt(mvpn);
      break;
    case MVPN_MTI_UP_PENDING:
      mvpn_oim_tunnel_update_source(mvpn);
      break;
    case MVPN_MTI_UP:
      // It comes back with the new source.
      mvpn_oim_bringdown_tunnel(mvpn);
      break;
    default:
      break;
  }
}

// The source has lost its address.
static void follow_lost_address(mvpn_cibtype *mvpn) {
  if (mvpn->mti_status == MVPN_MTI_UP_PENDING || mvpn->mti_status == MVPN_MTI_UP) mvpn_oim_bringdown_tunnel(mvpn);
}

void mvpn_process_mdt_source_change(mvpn_cibtype *mvpn, im_iod_t iod) {
  if (mvpn_update_mdt_source_info(mvpn, iod) == 0) return;
  MVPN_DEBUG(mvpn->pcib, "MDT Source addr = %s, MTI status = %s", ip_print_addr(mvpn->mdt_source_addr),
             mvpn_mti_status_str[mvpn->mti_status]);
  if (mvpn->mdt_source_addr != 0) {
    follow_new_address(mvpn);
  } else {
    follow_lost_address(mvpn);
  }
}

void mvpn_process_bgp_update_source_change(im_iod_t iod) {
  mvpn_for_each_context([iod](mvpn_cibtype *mvpn) {
    if (mvpn->mdt_source_ifname[0] != '\0') return true;
    MVPN_DEBUG(pim_null_pcib, "BGP: Update MTI source for %s\n", mvpn->pcib->vrf_name);
    mvpn_process_mdt_source_change(mvpn, iod);
    return true;
  });
}

void mvpn_process_address_change(im_iod_t iod) {
  MVPN_DEBUG(pim_null_pcib, "Received Address change notification for Interface %s\n", ksink_im_get_if_name(iod));
  // Nobody would answer the requests of a module that has stopped. It follows the address at its next start.
  if (mvpn_stopped) return;
  mvpn_for_each_context([iod](mvpn_cibtype *mvpn) {
    if (mvpn->mdt_source_iod != iod) return true;
    MVPN_DEBUG(pim_null_pcib, "IP: Update MTI source for %s\n", mvpn->pcib->vrf_name);
    mvpn_process_mdt_source_change(mvpn, iod);
    return true;
  });
}
