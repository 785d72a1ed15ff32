// Data-MDT Joins: the subsystem's start and stop, and the packet that a VRF gathers.
#ifndef MVPN_DATAMDT_JOIN_H
#define MVPN_DATAMDT_JOIN_H

#include "routing/pim/mvpn/mvpn.h"

// Socket, receiving thread and ageing. init: 0 after a report, with what came before left in place.
int mvpn_init_data_mdt();
void mvpn_deinit_data_mdt();

// Appends an announcement to the VRF's packet; one that is full is sent first, which yields.
void mvpn_fill_one_data_mdt_join(mvpn_cibtype *mvpn, const mvpn_data_mdt_join &join);

#endif  // MVPN_DATAMDT_JOIN_H
