// IPv4 helpers: masks for any length, the Internet checksum, printing, and the addresses of interfaces.
#include "platform/ip.h"

#include <charconv>
#include <cstring>
#include <string_view>

#include "platform/reference/im.h"
#include "platform/reference/services.h"
#include "platform/reference/text.h"

namespace {

// Addresses stand in most messages: they are printed without the library's formatting.
struct Dotted {
  explicit Dotted(ip_addr_t addr) {
    for (int shift = 24; shift >= 0; shift -= 8) {
      end = std::to_chars(end, text + sizeof text, addr >> shift & 0xFF).ptr;
      if (shift > 0) *end++ = '.';
    }
  }
  char text[sizeof "255.255.255.255/4294967295"];
  char *end = text;
  std::string_view view() const { return {text, static_cast<size_t>(end - text)}; }
};

}  // namespace

extern "C" {

ip_addr_t ip_get_local_addr(im_iod_t iod) {
  const ref::Interface *interface = ref::find_interface(iod);
  if (interface == nullptr) return 0;
  if (interface->unnumbered_to.empty()) return interface->address;
  const ref::Interface *target = ref::find_interface(std::string_view(interface->unnumbered_to));
  return target == nullptr ? 0 : target->address;
}

int ip_set_unnumbered(im_iod_t iod, const char *target_name) {
  ref::Interface *interface = ref::im_find(iod);
  const ref::Interface *target = ref::find_interface(std::string_view(target_name));
  if (interface == nullptr || target == nullptr || interface == target) return 0;
  interface->unnumbered_to = target_name;
  return 1;
}

int ip_unset_unnumbered(im_iod_t iod) {
  ref::Interface *interface = ref::im_find(iod);
  if (interface == nullptr) return 0;
  interface->unnumbered_to.clear();
  return 1;
}

int ip_is_addr_local(const char *vrf_name, ip_addr_t addr) {
  const vrf_context_id_t context_id = ref::l3vm_find(vrf_name);
  if (addr == 0 || context_id == VRF_CONTEXT_ID_NONE) return 0;
  for (const ref::Interface *interface : ref::interfaces())
    if (interface->context_id == context_id && interface->address == addr) return 1;
  return 0;
}

int ip_is_addr_in_prefix(ip_addr_t addr, ip_addr_t prefix, uint32_t length) {
  return ((addr ^ prefix) & ref::prefix_mask(length)) == 0 ? 1 : 0;
}

ip_addr_t ip_bits2mask(uint32_t length) { return ref::prefix_mask(length); }
ip_addr_t ip_wildcard_mask(uint32_t length) { return ~ref::prefix_mask(length); }

const char *ip_print_addr(ip_addr_t addr) { return ref::keep_text(Dotted(addr).view()); }

const char *ip_print_prefix(ip_addr_t prefix, uint32_t length) {
  Dotted printed(prefix);
  *printed.end++ = '/';
  printed.end = std::to_chars(printed.end, printed.text + sizeof printed.text, length).ptr;
  return ref::keep_text(printed.view());
}

// RFC 1071 adds 16-bit words in any byte order, as long as the result is stored in the same.
uint16_t ip_checksum(const void *data, uint32_t length) {
  const auto *bytes = static_cast<const uint8_t *>(data);
  uint64_t sum = 0;
  for (uint32_t at = 0; at < length; at += 2) {
    uint8_t pair[2] = {bytes[at], at + 1 < length ? bytes[at + 1] : uint8_t{0}};
    uint16_t word;
    std::memcpy(&word, pair, sizeof word);
    sum += word;
  }
  while (sum >> 16 != 0) sum = (sum & 0xFFFF) + (sum >> 16);
  return static_cast<uint16_t>(~sum);
}

}  // extern "C"
