/* BGP library. MDT SAFI entries themselves travel as messages (mts.h), laid out below. */
#ifndef PLATFORM_BGP_H
#define PLATFORM_BGP_H

#include "platform/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* MDT SAFI update, local or remote: count (u16), then entries of 56 bytes from offset 2; host byte order, any
 * alignment. */
enum {
  BGP_MDT_SAFI_COUNT_SIZE = 2,
  BGP_MDT_SAFI_ENTRY_SIZE = 56,
  BGP_MDT_SAFI_ENTRY_VRF_NAME = 0,      /* 33 bytes, NUL-terminated, zero-filled */
  BGP_MDT_SAFI_ENTRY_SOURCE = 36,       /* u32 */
  BGP_MDT_SAFI_ENTRY_RD = 40,           /* 8 bytes */
  BGP_MDT_SAFI_ENTRY_GROUP = 48,        /* u32 */
  BGP_MDT_SAFI_ENTRY_ADD = 52,          /* 1 advertised, 0 withdrawn */
  BGP_MDT_SAFI_ENTRY_EOR = 53,          /* end-of-RIB mark; in a local update: the request for remote entries */
  BGP_MDT_SAFI_ENTRY_END_OF_LOCAL = 54, /* 1: last entry of the answer to a request for all local entries */
};

/* RD notification. */
enum {
  BGP_RD_NOTIFY_VRF_NAME = 0, /* 36 bytes, NUL-terminated, at most 32 characters */
  BGP_RD_NOTIFY_VRF_NAME_SIZE = 36,
  BGP_RD_NOTIFY_VALID = 36, /* u32, host byte order: 0 = the VRF has no RD any more */
  BGP_RD_NOTIFY_RD = 40,    /* 8 bytes */
  BGP_RD_NOTIFY_SIZE = 48,
};

/* Update-source notification: the interface name, at most 40 bytes, NUL-terminated when shorter; empty = none. */
enum { BGP_UPDATE_SOURCE_NAME_SIZE = 40 };

/* Connects to BGP; non-zero on success. */
int bgp_api_init(void);
void bgp_api_close(void);

/* Route distinguisher of a VRF; non-zero when BGP knows it, else rd is unchanged. */
int bgp_get_rd(const char *vrf_name, uint8_t rd[ROUTE_DISTINGUISHER_SIZE], uint32_t reserved);

/* Writes the name of BGP's update-source interface; leaves the buffer alone when none is configured. */
void bgp_mvpn_get_update_source(char *name, uint32_t size);

/* Route distinguisher and PE source that a connector attribute carries; left alone when it carries none. first and
 * attribute are BGP's own. */
void bgp_mvpn_get_conattr(void *first, void *attribute, uint8_t rd[ROUTE_DISTINGUISHER_SIZE], ip_addr_t *source);

/* A route distinguisher for people, such as "65000:1" (RFC 4364 forms). Served by the sibling library of BGP. */
const char *mvpn_bgp_print_rd(const uint8_t rd[ROUTE_DISTINGUISHER_SIZE]);

#ifdef __cplusplus
}
#endif

#endif /* PLATFORM_BGP_H */
