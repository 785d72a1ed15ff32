// The receive cache, for its tests.
#ifndef MVPN_DATAMDT_RECEIVER_INTERNAL_H
#define MVPN_DATAMDT_RECEIVER_INTERNAL_H

#include "routing/pim/mvpn/mvpn_datamdt_receiver.h"

// p_src 0: the first of any PE. Null: none.
mvpn_data_mdt_recv_join_info *mvpn_get_data_mdt_recv_join_info(mvpn_cibtype *mvpn, ip_addr_t c_src, ip_addr_t c_grp,
                                                               ip_addr_t p_src);

#endif  // MVPN_DATAMDT_RECEIVER_INTERNAL_H
