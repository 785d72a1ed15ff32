// What the module installed in the MRIB: core routes, and the encapsulations of its VRFs.
#ifndef REFERENCE_MRIB_H
#define REFERENCE_MRIB_H

#include <cstdint>
#include <vector>

#include "platform/mrib.h"
#include "platform/types.h"

namespace ref {

// A core route as its owner installed it.
struct MribRoute {
  mvpn_mdt_route_addrs addrs{};     // core source and group
  vrf_context_id_t context_id = 0;  // of the core
  uint32_t owner = 0;               // context id of the customer VRF
  im_iod_t mti_iod = 0;             // the owner's tunnel; 0: none was given
  im_iod_t mdt_source_iod = 0;      // interface of its MDT source
  ip_addr_t rpf_addr = 0;           // 0: none was given
  bool local = false;               // this PE is the source
  bool last_hop = false;            // this PE receives
  bool asm_shared_tree = false;     // joined on the shared tree
  std::vector<uint8_t> entry;       // the 92 bytes that installed it
  uint32_t xid = 0;                 // transaction id of the update that did
};
struct MribEncap {
  vrf_context_id_t context_id;  // customer VRF
  uint16_t index;               // 1: the default group; 2..1023: a data group
  ip_addr_t group;              // provider group
  ip_addr_t source;             // MDT source
  im_iod_t mti_iod;             // tunnel of the VRF
  im_iod_t source_iod;          // interface of the source
};
std::vector<MribRoute> mrib_routes();  // core routes, by context, group, source
std::vector<MribEncap> mrib_encaps();  // by context, index
uint64_t mrib_updates_total();         // update messages that the module has sent

}  // namespace ref

#endif  // REFERENCE_MRIB_H
