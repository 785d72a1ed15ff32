// Tunnels of the default MDTs, and the file in which they outlive the process (oim_file.h).
#ifndef REFERENCE_OIM_H
#define REFERENCE_OIM_H

#include <cstdint>
#include <string>
#include <vector>

#include "platform/types.h"

namespace ref {

struct Tunnel {
  if_index_t if_index = 0;    // of overlay sort: made of the VRF's table id
  im_iod_t iod = 0;           // its interface
  uint8_t admin_up = 0;       // 1: the module wants it up
  std::string vrf_name;       // empty: of a VRF that is not there yet
  uint32_t mtu = 0;           // bytes; 0: not given yet
  ip_addr_t source = 0;       // 0: not given yet
  ip_addr_t destination = 0;  // the default group; 0: not given yet
  bool up = false;            // its interface is
};
std::vector<Tunnel> tunnels();                   // by if-index
const Tunnel *find_tunnel(if_index_t if_index);  // null: none; valid until the tunnel is changed or deleted
// File in which the tunnel database outlives the process; empty: none. False when it cannot be read.
bool oim_use_file(const std::string &path);

}  // namespace ref

#endif  // REFERENCE_OIM_H
