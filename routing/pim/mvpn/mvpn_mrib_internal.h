// A step of the start of the MRIB's interface, for tests.
#ifndef MVPN_MRIB_INTERNAL_H
#define MVPN_MRIB_INTERNAL_H

#include "routing/pim/mvpn/mvpn_mrib.h"

// 0: memory ran out before all buffers were there.
int mvpn_preallocate_mrib_buffers();

#endif  // MVPN_MRIB_INTERNAL_H
