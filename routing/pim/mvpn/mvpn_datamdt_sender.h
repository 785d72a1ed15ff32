// The mapping of customer routes onto the sending side.
#ifndef MVPN_DATAMDT_SENDER_H
#define MVPN_DATAMDT_SENDER_H

#include "routing/pim/mvpn/mvpn.h"

// map: true when an immediate switch announced the flow, which yields.
bool mvpn_data_mdt_map_receiver_to_local_source(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *key, pim_route *croute);
void mvpn_data_mdt_unmap_receiver_from_local_source(mvpn_cibtype *mvpn, pim_route *croute,
                                                    const mvpn_mdt_route_addrs *key);

#endif  // MVPN_DATAMDT_SENDER_H
