// Why a VRF's default MDT is not up, in words.
#ifndef HOST_DAEMON_READINESS_H
#define HOST_DAEMON_READINESS_H

#include <string>

#include "host/daemon/router.h"

namespace host {

// The first condition that is not met; empty: the default MDT is up. With the scheduling locks.
std::string why_not_up(const Router &router, const std::string &vrf);

// Status of the VRF's tunnel interface, "None" to "Up"; empty: the VRF has no default MDT, or does not exist.
std::string mti_status(const std::string &vrf);

}  // namespace host

#endif  // HOST_DAEMON_READINESS_H
