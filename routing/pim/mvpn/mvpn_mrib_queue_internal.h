// One encapsulation as the MRIB is told it, for tests.
#ifndef MVPN_MRIB_QUEUE_INTERNAL_H
#define MVPN_MRIB_QUEUE_INTERNAL_H

#include "routing/pim/mvpn/mvpn_mrib_queue.h"

int mvpn_mrib_update_one_mdt_encap_info(mvpn_cibtype *mvpn, uint32_t encap_index, int add);

#endif  // MVPN_MRIB_QUEUE_INTERNAL_H
