// Views of a speaker.
#ifndef HOST_BGP_BGP_VIEWS_H
#define HOST_BGP_BGP_VIEWS_H

#include <functional>
#include <string>

#include "host/bgp/bgp_service.h"
#include "host/output/listing.h"

namespace host {

// Each prints its view row by row and yields between rows of long ones; what it shows may have changed meanwhile, the
// speaker may have gone. Without a speaker the first two say so.
void show_bgp_summary(const BgpService &bgp, output::Listing &listing);
// One neighbour, or all of them with the address 0.
void show_bgp_neighbors(const BgpService &bgp, bgp::Ipv4 address, output::Listing &listing);
// vrf_of: the VRF that a route of this router comes from; empty: none. False: nobody wants more.
bool show_bgp_routes(const BgpService &bgp, const std::function<std::string(const bgp::RouteKey &)> &vrf_of,
                     output::Listing &listing);

}  // namespace host

#endif  // HOST_BGP_BGP_VIEWS_H
