// Walks over the core routes of a VRF.
#ifndef MVPN_MDT_ROUTE_WALK_H
#define MVPN_MDT_ROUTE_WALK_H

#include "routing/pim/mvpn/mvpn.h"

// Which routes of a VRF a walk is for; as it is made: all of them.
struct mvpn_route_selection {
  const mvpn_mdt_route_addrs *filter = nullptr;  // compared under its mask lengths; source 0: any. Null: any route
  uint32_t route_type = 0;                       // mvpn_mdt_route_type_t; 0: any
  uint32_t mode = 0;                             // mvpn_mdt_group_mode_t; 0: any
  int only_shared = 0;                           // non-zero: (*,G) routes only
  int only_source = 0;                           // non-zero: (S,G) routes only
};

// Drops (send 0, or never sent) or schedules as deletes, with this teardown mark, the selected routes of the VRF.
// Result: 1 when any was, or when the VRF went away during the walk: callers find the context again. Yields.
int mvpn_mrib_clear_mdt_routes(mvpn_cibtype *mvpn, const mvpn_route_selection &selection, uint8_t teardown, int send);

// Drops all routes of a VRF that is to be freed; those that the MRIB holds are withdrawn from it afterwards. Yields.
void mvpn_mrib_withdraw_mdt_routes(mvpn_cibtype *mvpn);

#endif  // MVPN_MDT_ROUTE_WALK_H
