/* Shared types and the conventions of the platform contract.
 *
 * The headers in this directory declare what libmvpn needs from the host PIM process and from the routing
 * platform. They declare and do not implement: a platform links its own services under these names, or the
 * stand-ins of platform/reference. The module is built from these headers and the C and C++ standard headers alone.
 *
 * Conventions, which hold for every header unless an operation says otherwise:
 *
 *  1. Linkage. Everything has C linkage. No operation throws.
 *  2. Byte order. Addresses, lengths, ordinals and counts are in host byte order. Where bytes on a wire, in a tree
 *     key or in a stored record are meant, the declaration says "network byte order".
 *  3. Results. The services come from several generations of platform code and disagree about what success looks
 *     like; each operation states its own: "non-zero on success", "0 on success", "negative on failure".
 *  4. Ownership. Pointers passed in stay the caller's and are not kept beyond the call. Pointers returned stay the
 *     service's unless the operation says that the caller frees them.
 *  5. Text. `const char *` results that print something live in a per-thread ring of at least eight buffers: eight
 *     results may be used in one message. Text arguments are NUL-terminated; the length limits exclude the NUL.
 *  6. Threads. Every operation is called by a thread that holds the host's scheduling locks (thread.h), so one call
 *     runs at a time. An operation that may let another thread run says "yields": whatever the caller knew about
 *     module records is stale afterwards. Operations that do not say so do not yield and are not cancellation points.
 *  7. Asynchrony. Answers, notifications and timer callbacks are queued and delivered from the host's main loop,
 *     never from inside the call that caused them.
 *  8. Reserved arguments. Arguments written as 0 or as a plain number in an operation's comment are passed as they
 *     stand; only the service gives them a meaning.
 */
#ifndef PLATFORM_TYPES_H
#define PLATFORM_TYPES_H

#include <stddef.h>
#include <stdint.h>

/* Version of the contract of platform/ and mvpn.h, a plain number. It grows with every change that one side would not
 * survive without the other: a service that is new, gone or called differently, a record or a format that is laid out
 * differently. A module carries the version that it was built for as an ELF note (owner "mvpn", type
 * PLATFORM_CONTRACT_NOTE, four bytes), so that a host can compare before it binds anything. */
#define PLATFORM_CONTRACT_VERSION 2
#define PLATFORM_CONTRACT_NOTE 1

#ifdef __cplusplus
extern "C" {
#endif

/* IPv4 address (RFC 791) as a number in host byte order; 0 = none, or any source where a source is meant. */
typedef uint32_t ip_addr_t;

/* Interface ordinal: the host's small integer for an interface; 0 = none. Fits 16 bits in socket addresses. */
typedef uint32_t im_iod_t;

/* Interface index as the interface manager and SNMP know it; 0 = none. */
typedef uint32_t if_index_t;

/* Context id of a VRF; 0 = none, 1 = the default VRF. */
typedef uint32_t vrf_context_id_t;

enum {
  VRF_CONTEXT_ID_NONE = 0,
  VRF_CONTEXT_ID_DEFAULT = 1,
  VRF_NAME_MAX = 32,            /* characters of a VRF name, without the NUL */
  IF_NAME_SIZE = 40,            /* bytes of an interface name buffer */
  ROUTE_DISTINGUISHER_SIZE = 8, /* bytes of a BGP route distinguisher (RFC 4364), opaque to the module */
};

/* A multicast route's address, 12 bytes; the last two bytes are padding and always 0. */
struct mvpn_mdt_route_addrs {
  ip_addr_t source;   /* host byte order; 0 for a (*,G) route */
  ip_addr_t group;    /* host byte order */
  uint8_t source_len; /* mask length 0..32, or MROUTE_ANY_SOURCE_LEN for any source */
  uint8_t group_len;  /* mask length 0..32 */
  uint8_t padding[2]; /* 0: keys are compared byte by byte */
};

enum {
  MROUTE_ANY_SOURCE_LEN = 255, /* source length of a (*,G) route */
  MROUTE_HOST_LEN = 32,        /* mask length of a single address */
};

#ifdef __cplusplus
}
#endif

#endif /* PLATFORM_TYPES_H */
