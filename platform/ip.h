/* IPv4 helpers and interface addresses. */
#ifndef PLATFORM_IP_H
#define PLATFORM_IP_H

#include "platform/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Primary address of an interface; 0 when it has none or does not exist. */
ip_addr_t ip_get_local_addr(im_iod_t iod);

/* Makes an interface borrow the address of a named one, ends that. Non-zero on success. */
int ip_set_unnumbered(im_iod_t iod, const char *target_name);
int ip_unset_unnumbered(im_iod_t iod);

/* Non-zero when the address belongs to this router in the named VRF. */
int ip_is_addr_local(const char *vrf_name, ip_addr_t addr);

/* Non-zero when the address lies in prefix/length. */
int ip_is_addr_in_prefix(ip_addr_t addr, ip_addr_t prefix, uint32_t length);

/* Mask of `length` leading ones, its complement. Total: lengths from 32 up count as 32. */
ip_addr_t ip_bits2mask(uint32_t length);
ip_addr_t ip_wildcard_mask(uint32_t length);

/* "10.0.0.1"; "239.1.0.0/16". */
const char *ip_print_addr(ip_addr_t addr);
const char *ip_print_prefix(ip_addr_t prefix, uint32_t length);

/* Internet checksum (RFC 1071) over length bytes, as it is stored in a header: store it with memcpy. */
uint16_t ip_checksum(const void *data, uint32_t length);

#ifdef __cplusplus
}
#endif

#endif /* PLATFORM_IP_H */
