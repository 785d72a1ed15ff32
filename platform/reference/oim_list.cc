// Every count and length in a list is compared with the list's size before it is followed.
#include "platform/reference/oim_list.h"

#include <algorithm>
#include <cstring>

#include "platform/im.h"

namespace ref::oim_list {
namespace {

enum ListOffset { list_count = 0, list_interfaces = detail::first_interface };
enum InterfaceOffset {
  interface_params = 0,
  interface_header = 4,
  interface_first_tlv = interface_header + OIM_IF_HEADER_SIZE
};
constexpr uint32_t longest_param = VRF_NAME_MAX + 1;  // room that every parameter gets

// Position behind the last parameter of the interface at `position`; nullopt when the list ends inside it.
std::optional<size_t> end_of_interface(const uint8_t *list, size_t size, size_t position) {
  if (size - position < interface_first_tlv) return std::nullopt;
  const uint16_t count = wire::load_be16(list + position + interface_params);
  position += interface_first_tlv;
  for (uint16_t i = 0; i < count; i++) {
    if (size - position < OIM_TLV_VALUE) return std::nullopt;
    const size_t length = size_t{OIM_TLV_VALUE} + wire::load_be16(list + position + OIM_TLV_LENGTH);
    if (size - position < length) return std::nullopt;
    position += length;
  }
  return position;
}

}  // namespace

std::optional<Extent> extent_of(const uint8_t *list, size_t size) {
  if (list == nullptr || size < list_interfaces) return std::nullopt;
  Extent extent{0, list_interfaces};
  for (uint16_t left = wire::load_be16(list + list_count); left > 0; left--) {
    const auto end = end_of_interface(list, size, extent.end);
    if (!end) return std::nullopt;
    extent = {extent.end, *end};
  }
  return extent;
}

uint16_t interface_count(const Bytes &list) { return wire::load_be16(list.data() + list_count); }

Bytes list_of(if_index_t if_index) {
  Bytes list(size_t{list_interfaces} + interface_first_tlv);
  wire::store_be16(list.data() + list_count, 1);
  const uint32_t network_form = hton_if_index(if_index);
  std::memcpy(list.data() + list_interfaces + interface_header + OIM_IF_HEADER_IF_INDEX, &network_form,
              sizeof network_form);
  return list;
}

namespace detail {

Described describe(const uint8_t *interface) {
  const uint8_t *header = interface + interface_header;
  uint32_t network_form;
  std::memcpy(&network_form, header + OIM_IF_HEADER_IF_INDEX, sizeof network_form);
  return {ntoh_if_index(network_form), wire::load_be32(header + OIM_IF_HEADER_IOD), interface + interface_first_tlv,
          wire::load_be16(interface + interface_params)};
}

size_t end_of_sound(const Bytes &list, size_t position) {
  return *end_of_interface(list.data(), list.size(), position);
}

}  // namespace detail
}  // namespace ref::oim_list

using namespace ref::oim_list;

extern "C" {

uint32_t oim_if_info_list_get_size(uint32_t interfaces, uint32_t parameters, uint32_t longest_value) {
  const uint32_t value = std::max(longest_value, longest_param);
  return list_interfaces + interfaces * (interface_first_tlv + parameters * (OIM_TLV_VALUE + value));
}

int oim_if_info_list_add_new_if(void *list, uint32_t size, uint8_t **header) {
  auto *bytes = static_cast<uint8_t *>(list);
  const auto extent = extent_of(bytes, size);
  const uint16_t count = extent ? ref::wire::load_be16(bytes + list_count) : uint16_t{0xFFFF};
  if (count == 0xFFFF || size - extent->end < interface_first_tlv) return 0;
  ref::wire::store_be16(bytes + list_count, static_cast<uint16_t>(count + 1));
  *header = bytes + extent->end + interface_header;
  return 1;
}

int oim_if_info_list_add_new_param_tlv(void *list, uint32_t size, uint8_t *header, uint8_t **tlv) {
  auto *bytes = static_cast<uint8_t *>(list);
  const auto extent = extent_of(bytes, size);
  if (!extent || extent->last == 0) return 0;
  uint8_t *last = bytes + extent->last;
  const uint16_t count = ref::wire::load_be16(last + interface_params);
  if (header != last + interface_header || count == 0xFFFF || size - extent->end < OIM_TLV_VALUE + longest_param)
    return 0;
  ref::wire::store_be16(last + interface_params, static_cast<uint16_t>(count + 1));
  *tlv = bytes + extent->end;
  return 1;
}

}  // extern "C"
