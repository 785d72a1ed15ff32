// Interface lists, for tests.
#ifndef MVPN_OIM_INTERNAL_H
#define MVPN_OIM_INTERNAL_H

#include "routing/pim/mvpn/mvpn_oim.h"

// Appends an interface and its wanted parameters, with the context's values, to a zero-filled list of size bytes.
// 0 after a report when the list is full: it is then not to be sent.
struct mvpn_oim_params {
  bool admin = false;  // as the next ones: the list gets this parameter
  bool vrf_name = false;
  bool mtu = false;
  bool source = false;
  bool destination = false;
};
int mvpn_oim_populate_if_list(mvpn_cibtype *mvpn, void *list, uint32_t size, if_index_t if_index,
                              const mvpn_oim_params &params, im_iod_t iod);

#endif  // MVPN_OIM_INTERNAL_H
