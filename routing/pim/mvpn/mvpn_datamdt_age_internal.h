// Ageing, for its tests.
#ifndef MVPN_DATAMDT_AGE_INTERNAL_H
#define MVPN_DATAMDT_AGE_INTERNAL_H

#include "routing/pim/mvpn/mvpn_datamdt_age.h"

extern pthread_t mvpn_age_thread;   // 0 = not running
extern zeph_timestamp mvpn_age_ts;  // start of the running pass; 0 = none runs

// One VRF's part of a pass. Yields.
void mvpn_age_route_by_vpn(mvpn_cibtype *mvpn);

#endif  // MVPN_DATAMDT_AGE_INTERNAL_H
