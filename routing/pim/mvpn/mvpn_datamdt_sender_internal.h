// A step of the sending side, for its tests.
#ifndef MVPN_DATAMDT_SENDER_INTERNAL_H
#define MVPN_DATAMDT_SENDER_INTERNAL_H

#include "routing/pim/mvpn/mvpn_datamdt_sender.h"

// Takes a flow back to the default MDT at once.
void mvpn_finish_switchback_from_data_mdt(mvpn_cibtype *mvpn, const mvpn_mdt_route_addrs *key, pim_route *croute);

#endif  // MVPN_DATAMDT_SENDER_INTERNAL_H
