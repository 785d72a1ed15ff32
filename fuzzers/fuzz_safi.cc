// Frames between a PE and the route reflector: any bytes are decoded or refused, and what was decoded encodes to the
// same frame.
#include <algorithm>
#include <cstdlib>
#include <string>

#include "reflector/safi_protocol.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string error;
  const auto message = safi::decode({data, size}, &error);
  if (!message) {
    if (error.empty()) std::abort();
    return 0;
  }
  const std::vector<uint8_t> frame = safi::encode(*message);
  if (frame.size() != safi::kLengthSize + size || !std::equal(data, data + size, frame.begin() + safi::kLengthSize))
    std::abort();
  return 0;
}
