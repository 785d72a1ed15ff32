// Messages of BGP and of the tunnel manager: the first byte chooses the opcode, the rest is the payload.
#include "fuzzers/fuzz_world.h"
#include "platform/reference/mts.h"
#include "routing/pim/mvpn/mvpn_mdt_safi.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const uint32_t opcodes[] = {MTS_OPC_MVPN_BGP_MDT_SAFI_REMOTE_UPDATE, MTS_OPC_MVPN_BGP_RD_NOTIFY,
                                     MTS_OPC_MVPN_BGP_UPDATE_SOURCE_NOTIFY,   MTS_OPC_MVPN_BGP_MDT_SAFI_LOCAL_REQUEST,
                                     MTS_OPC_OIM_IF_CREATE_RESPONSE,          MTS_OPC_OIM_IF_DELETE_RESPONSE,
                                     MTS_OPC_OIM_IF_PARAM_UPDATE_RESPONSE};
  if (size == 0) return 0;
  fuzz::red();
  ref::deliver(opcodes[data[0] % (sizeof opcodes / sizeof opcodes[0])], size > 1 ? data + 1 : nullptr, size - 1);
  fuzz::deliver();
  if (mvpn_bgp_mdt_safi_db.count > 5000) mvpn_bgp_mdt_safi_delete_all();
  return 0;
}
