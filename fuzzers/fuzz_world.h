// The world of the fuzz targets: one started module per process, with a VRF whose default MDT is up.
#ifndef FUZZERS_FUZZ_WORLD_H
#define FUZZERS_FUZZ_WORLD_H

#include "routing/pim/mvpn/mvpn.h"

namespace fuzz {

// Starts the platform and the module at the first call. VRF "red" has default group 239.1.1.1 and a data range; its
// tunnel is up; customer routes (10.3.0.1, 225.1.1.1) with a receiver and (*, 225.1.1.2) exist.
mvpn_cibtype *red();

// Delivers whatever the last input queued.
void deliver();

}  // namespace fuzz

#endif  // FUZZERS_FUZZ_WORLD_H
