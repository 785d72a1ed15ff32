// The MRIB worker.
#ifndef MVPN_MRIB_WORKER_H
#define MVPN_MRIB_WORKER_H

#include "routing/pim/mvpn/mvpn_mrib_queue.h"

void *mvpn_mrib_worker_main(void *argument);
void mvpn_mrib_reset_buffer(mrib_update_buffer *buffer);  // makes it empty and free

#endif  // MVPN_MRIB_WORKER_H
