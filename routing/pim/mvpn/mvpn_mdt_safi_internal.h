// Single entries of the MDT SAFI database, for tests.
#ifndef MVPN_MDT_SAFI_INTERNAL_H
#define MVPN_MDT_SAFI_INTERNAL_H

#include "routing/pim/mvpn/mvpn_mdt_safi.h"

// create: null after a report. The equivalent entry, the first in tree order, has the same source and group and another
// RD.
mvpn_bgp_mdt_safi *mvpn_bgp_create_mdt_safi_entry(const mvpn_bgp_mdt_safi_key *key);
mvpn_bgp_mdt_safi *mvpn_bgp_get_equivalent_mdt_safi_entry(const mvpn_bgp_mdt_safi_key *key);
// 1 when an entry was removed; the key's group is not looked at.
int mvpn_bgp_mdt_safi_delete_local(const mvpn_bgp_mdt_safi_key &key);

#endif  // MVPN_MDT_SAFI_INTERNAL_H
