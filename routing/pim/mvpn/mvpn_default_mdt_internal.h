// Steps of a removal, for tests that begin in the middle.
#ifndef MVPN_DEFAULT_MDT_INTERNAL_H
#define MVPN_DEFAULT_MDT_INTERNAL_H

#include "routing/pim/mvpn/mvpn_default_mdt.h"

void mvpn_oim_tunnel_delete(mvpn_cibtype *mvpn);
// The last step, after which the context is gone. Yields.
void mvpn_finish_destroy_default_mdt(mvpn_cibtype *mvpn);

#endif  // MVPN_DEFAULT_MDT_INTERNAL_H
