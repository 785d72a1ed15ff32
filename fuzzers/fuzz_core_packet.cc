// GRE-in-UDP datagrams from the core: any bytes are decoded or refused, and what was decoded encodes to the same
// packet.
#include <cstdlib>

#include "platform/reference/carriers.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const auto packet = ref::decode_core_packet({data, size});
  if (!packet) return 0;
  const std::vector<uint8_t> bytes = ref::encode_core_packet(*packet);
  // Our own form has the shortest headers: what arrived as one datagram also fits into one.
  const auto again = ref::decode_core_packet(bytes);
  if (!again || again->provider_source != packet->provider_source || again->provider_group != packet->provider_group ||
      again->datagram != packet->datagram)
    std::abort();
  return 0;
}
