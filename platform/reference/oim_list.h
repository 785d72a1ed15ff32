// The interface lists in which clients of the tunnel interface manager describe tunnels.
//
// A list: interface count (2 bytes), 2 zero bytes, then per interface its parameter count (2 bytes), 2 zero bytes, the
// 8-byte header, and the parameters back to back, each type, length, value; network byte order. It grows at its end
// only, which the counts and lengths in it determine, so that no bookkeeping is needed outside the buffer.
#ifndef REFERENCE_OIM_LIST_H
#define REFERENCE_OIM_LIST_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "platform/oim.h"
#include "platform/reference/wire.h"

namespace ref::oim_list {

using Bytes = std::vector<uint8_t>;

// A list that is sound: where its last interface begins, 0 when it has none, and where it ends.
struct Extent {
  size_t last;
  size_t end;
};

// Nothing: the list is not sound, or longer than its buffer.
std::optional<Extent> extent_of(const uint8_t *list, size_t size);

// An interface as a list describes it; valid as long as the list.
struct Described {
  if_index_t if_index;
  im_iod_t iod;           // 0: it names none
  const uint8_t *params;  // the first one
  uint16_t param_count;
};

uint16_t interface_count(const Bytes &list);

// A list of one interface without parameters.
Bytes list_of(if_index_t if_index);

namespace detail {

constexpr size_t first_interface = 4;  // position of the first interface
// The interface that begins there, and the position behind the one at `position`, of a sound list.
Described describe(const uint8_t *interface);
size_t end_of_sound(const Bytes &list, size_t position);

}  // namespace detail

// Visits the interfaces of a sound list until a visit returns false; whether none did.
template <typename Visit>
bool all_interfaces(const Bytes &list, Visit visit) {
  size_t position = detail::first_interface;
  for (uint16_t left = interface_count(list); left > 0; left--) {
    if (!visit(detail::describe(list.data() + position))) return false;
    position = detail::end_of_sound(list, position);
  }
  return true;
}

// The same for the parameters of an interface: visit(type, value).
template <typename Visit>
bool all_params(const Described &interface, Visit visit) {
  const uint8_t *tlv = interface.params;
  for (uint16_t left = interface.param_count; left > 0; left--) {
    const std::span value(tlv + OIM_TLV_VALUE, wire::load_be16(tlv + OIM_TLV_LENGTH));
    if (!visit(wire::load_be16(tlv + OIM_TLV_TYPE), value)) return false;
    tlv = value.data() + value.size();
  }
  return true;
}

}  // namespace ref::oim_list

#endif  // REFERENCE_OIM_LIST_H
