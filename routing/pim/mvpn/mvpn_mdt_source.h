// The MDT source of the VRFs.
#ifndef MVPN_MDT_SOURCE_H
#define MVPN_MDT_SOURCE_H

#include "routing/pim/mvpn/mvpn.h"

// The VRF's source is interface iod, or iod has another address: the tunnel follows.
void mvpn_process_mdt_source_change(mvpn_cibtype *mvpn, im_iod_t iod);
// BGP's update source is now iod.
void mvpn_process_bgp_update_source_change(im_iod_t iod);

#endif  // MVPN_MDT_SOURCE_H
