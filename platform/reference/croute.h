// Customer routes, and the statistics passes over them.
#ifndef REFERENCE_CROUTE_H
#define REFERENCE_CROUTE_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/pim.h"
#include "platform/types.h"

namespace ref {

struct CustomerRoute {
  mvpn_mdt_route_addrs addrs{};   // identifies the route in its VRF
  std::string iif;                // empty: none; "mvpn": the VRF's tunnel whenever it is up
  ip_addr_t rpf_neighbor = 0;     // 0: none
  std::vector<std::string> oifs;  // outgoing interfaces of the VRF, its tunnel apart
  bool bidirectional = false;     // Bidir PIM: both directions on one tree
  uint64_t rate_kbps = 0;         // kilobits (1000) a second that the source sends
  bool to_mvpn = false;           // the VRF's tunnel is an outgoing interface
};
// Adds or changes a route of a VRF with the notifications that a PIM process gives; removes it in the order that the
// module relies on. Null, false: no such VRF, interface or route.
pim_route *set_customer_route(std::string_view vrf_name, const CustomerRoute &route);
bool delete_customer_route(std::string_view vrf_name, const mvpn_mdt_route_addrs &addrs);
bool set_customer_rate(std::string_view vrf_name, const mvpn_mdt_route_addrs &addrs, uint64_t rate_kbps);
bool set_customer_bytes(std::string_view vrf_name, const mvpn_mdt_route_addrs &addrs, uint64_t bytes_last_minute);
std::vector<CustomerRoute> customer_routes(std::string_view vrf_name);  // in tree order
// One statistics pass over every VRF: rate check of each customer route, then the VRF's Join packet, then the end of
// pending switchovers 3 s later. start_statistics: every 60 s from now on.
void statistics_pass();
void start_statistics();

}  // namespace ref

#endif  // REFERENCE_CROUTE_H
