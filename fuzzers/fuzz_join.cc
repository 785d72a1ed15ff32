// Datagrams on the default MDT: what the receive loop makes of any bytes.
#include <cstdlib>
#include <cstring>

#include "fuzzers/fuzz_world.h"
#include "routing/pim/mvpn/mvpn_datamdt_join_internal.h"
#include "routing/pim/mvpn/mvpn_datamdt_receiver.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  mvpn_cibtype *red = fuzz::red();
  const size_t length = size < MVPN_RECV_JOIN_PACKET_SIZE ? size : MVPN_RECV_JOIN_PACKET_SIZE;
  // The rest of the buffer keeps the datagrams before this one, as in the receive loop.
  std::memcpy(mvpn_recv_data_mdt_join_pkt, data, length);
  const auto before = red->data_mdt_recv_join_count;
  mvpn_process_data_mdt_join(static_cast<uint16_t>(red->mti_iod), length);
  // No more entries than the datagram has room for.
  if (red->data_mdt_recv_join_count - before > length / 16) std::abort();
  if (red->data_mdt_recv_count > 2000) mvpn_destroy_data_mdt_recv_cache(red, 0);
  fuzz::deliver();
  return 0;
}
