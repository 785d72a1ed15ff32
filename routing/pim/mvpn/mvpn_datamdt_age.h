// Ageing of received announcements.
#ifndef MVPN_DATAMDT_AGE_H
#define MVPN_DATAMDT_AGE_H

#include "routing/pim/mvpn/mvpn.h"

extern active_timer *mvpn_age_timer;  // null = none

// What the timer does: starts the next pass unless one is running.
void mvpn_process_age_timer();
// Ends a running pass and waits for its end.
void mvpn_stop_ageing();

#endif  // MVPN_DATAMDT_AGE_H
