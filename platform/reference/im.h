// Interfaces and their addresses.
#ifndef REFERENCE_IM_H
#define REFERENCE_IM_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/types.h"

namespace ref {

// Addresses are in host byte order.
struct Interface {
  std::string name;                                      // 1..39 bytes, nobody else's
  im_iod_t iod = 0;                                      // 1..65535; 0 in a new one: the next free
  if_index_t if_index = 0;                               // sort in the top byte; 0 in a new one: made of the ordinal
  vrf_context_id_t context_id = VRF_CONTEXT_ID_DEFAULT;  // VRF that it belongs to
  ip_addr_t address = 0;                                 // 0: none
  uint32_t mtu = 1500;                                   // bytes
  bool up = false;                                       // one state, administrative and physical in one
  bool mvpn_tunnel = false;                              // made by the tunnel manager
  std::string unnumbered_to;                             // interface whose address it uses; empty: its own
  bool leaving = false;                                  // deleted; it goes when the module has been told
};
// Creates an interface (iod 0: the next free one); 0 when the name is taken. Notifications go to the module through the
// main loop: creation, state and address changes, each only when something changes and while enabled.
im_iod_t create_interface(std::string_view name, vrf_context_id_t context_id, ip_addr_t address, bool up);
// False: there is no such interface. One that is up can be found until the module has been told that it is not any
// more.
bool delete_interface(std::string_view name);
bool set_interface_state(std::string_view name, bool up);
bool set_interface_address(std::string_view name, ip_addr_t address);
// Null: there is none. Valid until the interface is deleted.
const Interface *find_interface(std::string_view name);
const Interface *find_interface(im_iod_t iod);
std::vector<const Interface *> interfaces();  // by ordinal
// Grows whenever an interface comes, goes or changes its state, and whenever a tunnel does.
uint64_t interface_changes();
// Off until the configuration has been replayed; turning it on reports every interface that is up.
void enable_interface_events(bool on);

}  // namespace ref

#endif  // REFERENCE_IM_H
