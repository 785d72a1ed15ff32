// The forms that output has. Clients ask for one by its number.
#ifndef HOST_OUTPUT_FORMAT_H
#define HOST_OUTPUT_FORMAT_H

#include <cstdint>

namespace output {

enum class Format : uint8_t {
  text = 0,
  json = 1,
  xml = 2,
  yang = 3,  // data of the YANG module libmvpn-state, in JSON as RFC 7951 wants it
};
constexpr Format kLastFormat = Format::yang;

}  // namespace output

#endif  // HOST_OUTPUT_FORMAT_H
