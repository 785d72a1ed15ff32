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
  // Not by a number that clients send, but by what they ask for:
  json_line = 4,  // a JSON document in a line, for answers of many documents
};
constexpr Format kLastFormat = Format::yang;  // that a client may send

}  // namespace output

#endif  // HOST_OUTPUT_FORMAT_H
