/* Multicast routing information base of the core. */
#ifndef PLATFORM_MRIB_H
#define PLATFORM_MRIB_H

#include "platform/mts.h"
#include "platform/pt.h"
#include "platform/types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct mrib_client_handle mrib_client_handle; /* opaque */
typedef struct mrib_context mrib_context;             /* opaque: one VRF's multicast routes */

#define MRIB_CLIENT_NAME "mvpn"

enum {
  MRIB_REGISTER_FLAGS = 1288,  /* registration code of a first start: the MRIB's own number, which means nothing here */
  MRIB_REREGISTER_FLAGS = 210, /* registration code after a crash: the same */
  MRIB_UPDATE_HEADER_SIZE = 64,    /* bytes of an update-route buffer before its entries; the MRIB fills them */
  MRIB_UPDATE_ENTRY_SIZE = 92,     /* bytes of an update-route entry */
  MRIB_ENCAP_RECORD_SIZE = 88,     /* bytes of an encapsulation record */
  MRIB_ACK_XID_OFFSET = 56,        /* offset of the transaction id (u32) in an acknowledgement */
  MRIB_ACK_SIZE = 60,              /* bytes of an acknowledgement */
  MRIB_NOTIFY_COUNT_OFFSET = 24,   /* offset of the number of entries (u32) in a notification */
  MRIB_NOTIFY_ENTRIES_OFFSET = 32, /* offset of the first entry in a notification */
  MRIB_NOTIFY_ENTRY_SIZE = 88,     /* bytes of a notification entry */
};

/* The three formats that client and MRIB exchange, by byte offset. Numbers have 4 bytes unless their line says another
 * size, are in host byte order, and lie at any alignment; bytes that no line names are 0. Addresses are ip_addr_t,
 * interfaces im_iod_t with 0 for none. */

/* Header of an update-route buffer, as the MRIB writes it. */
enum {
  MRIB_UPDATE_LENGTH = 0, /* of header and entries, in bytes */
  MRIB_UPDATE_COUNT = 4,  /* of entries */
  MRIB_UPDATE_XID = MRIB_ACK_XID_OFFSET,
};

/* Update-route entry. A deletion is two entries: one takes the owner's claim away; the second one, which carries
 * context, addresses, lengths and the teardown mark only, gives the route up when no owner is left. */
enum mrib_update_entry {
  MRIB_ENTRY_CONTEXT_ID = 0, /* vrf_context_id_t of the core */
  MRIB_ENTRY_SOURCE = 4,     /* 0 for (*,G) */
  MRIB_ENTRY_GROUP = 8,
  MRIB_ENTRY_SOURCE_LEN = 12,      /* 1 byte: 32, or MROUTE_ANY_SOURCE_LEN for (*,G) */
  MRIB_ENTRY_GROUP_LEN = 13,       /* 1 byte: 32 */
  MRIB_ENTRY_RPF_ADDR = 16,        /* RPF neighbour */
  MRIB_ENTRY_RPF_ADDR_SET = 24,    /* 1 when it is set */
  MRIB_ENTRY_ADD_OWNER = 28,       /* handle of the owning VRF, its context id, on adds */
  MRIB_ENTRY_OWNER = 32,           /* the same on first entries; 0 in the second one of a deletion */
  MRIB_ENTRY_MDT_SOURCE_IOD = 36,  /* interface of the MDT source */
  MRIB_ENTRY_MTI_IOD = 40,         /* tunnel interface of the owner */
  MRIB_ENTRY_ASM_SHARED_TREE = 60, /* 1 byte: 1 = joined on the shared tree */
  MRIB_ENTRY_ADD = 62,             /* 1 byte: 1 add, 0 delete */
  MRIB_ENTRY_LOCAL = 70,           /* 1 byte: 1 = this PE is the source */
  MRIB_ENTRY_LAST_HOP = 71,        /* 1 byte: 1 = this PE receives */
  MRIB_ENTRY_MTI_IOD_SET = 72,     /* 1 byte: 1 = the tunnel interface counts */
  MRIB_ENTRY_TEARDOWN = 83,        /* 1 byte: 1 = deleted with the owner's whole default MDT; in both entries */
  MRIB_ENTRY_END = MRIB_UPDATE_ENTRY_SIZE,
};

/* Encapsulation record: the index that stands for a provider group in a customer VRF. */
enum mrib_encap_record {
  MRIB_ENCAP_ADD = 36,        /* 1 byte: 1 add, 0 delete */
  MRIB_ENCAP_CONTEXT_ID = 40, /* vrf_context_id_t of the customer VRF */
  MRIB_ENCAP_MTI_IOD = 48,    /* tunnel interface */
  MRIB_ENCAP_INDEX = 52,      /* 2 bytes; in a deletion 0 stands for every index of the VRF */
  MRIB_ENCAP_GROUP = 56,      /* provider group */
  MRIB_ENCAP_SOURCE = 60,     /* MDT source */
  MRIB_ENCAP_SOURCE_IOD = 64, /* its interface */
};

/* Notification entry. */
enum mrib_notify_entry {
  MRIB_NOTIFY_ENTRY_CONTEXT_ID = 0,
  MRIB_NOTIFY_ENTRY_EVENT = 4, /* 1 byte, enum mrib_notify_event */
  MRIB_NOTIFY_ENTRY_SOURCE = 8,
  MRIB_NOTIFY_ENTRY_GROUP = 12,
  MRIB_NOTIFY_ENTRY_SOURCE_LEN = 16,  /* 1 byte */
  MRIB_NOTIFY_ENTRY_GROUP_LEN = 17,   /* 1 byte */
  MRIB_NOTIFY_ENTRY_ONLY_SOURCE = 56, /* 1 byte: 1 = a clear of (S,G) routes only */
  MRIB_NOTIFY_ENTRY_ONLY_SHARED = 57, /* 1 byte: 1 = a clear of (*,G) routes only */
};

/* Events of a notification entry. */
enum mrib_notify_event {
  MRIB_NOTIFY_JOIN = 0x01,
  MRIB_NOTIFY_DELETE = 0x08,
  MRIB_NOTIFY_CLEAR = 0x20,
};

/* A route of the MRIB. Read-only for clients; valid until the caller yields. */
struct mrib_route {
  struct mvpn_mdt_route_addrs addrs; /* the record begins with its address */
  uint8_t reserved1[80];             /* the service's */
  im_iod_t mti_iod;                  /* byte offset 92: tunnel interface that the route was installed with; 0 = none */
  uint8_t reserved2[56];             /* the service's */
};

/* A group of the MRIB. sources: tree of the group's routes by source, 4-byte keys in network byte order, data a
 * struct mrib_route or null; the group's own (*,G) route stands in it under key 0. */
struct mrib_group {
  pt_root *sources;                /* null: no route */
  const struct mrib_route *star_g; /* the group's own (*,G) route; null when there is none */
};

/* Request for a recomputation of RPF. */
struct mrib_rpf_request {
  uint8_t reserved1[32];       /* 0 */
  vrf_context_id_t context_id; /* byte offset 32: customer VRF */
  uint8_t reserved2[4];        /* 0 */
};

/* Registers a client whose notifications and acknowledgements go to a queue.
 * mrib_register(name, queue, 0, MRIB_REGISTER_FLAGS, 0, 0, 0, 0). Null on failure. */
mrib_client_handle *mrib_register(const char *name, mts_queue *queue, uint32_t reserved1, uint32_t flags,
                                  uint32_t reserved2, uint32_t reserved3, uint32_t reserved4, uint32_t reserved5);

/* Takes over a registration that survived a crash of the client.
 * mrib_reregister(name, queue, 0, MRIB_REREGISTER_FLAGS, 0, 0, 0). Null on failure. */
mrib_client_handle *mrib_reregister(const char *name, mts_queue *queue, uint32_t reserved1, uint32_t flags,
                                    uint32_t reserved2, uint32_t reserved3, uint32_t reserved4);

/* The registration known under a name, or null. */
mrib_client_handle *mrib_get_pib(const char *name);

/* Ends a registration: mrib_deregister(name, 1). 0 on failure, else non-zero. */
int mrib_deregister(const char *name, uint32_t flags);

/* Hands over an update-route buffer: length = 64 + 92 * count bytes, its header is written by the MRIB. operation: 1.
 * The buffer stays the client's and is copied. Result: 0 when accepted; then an acknowledgement with the same xid
 * follows. */
int mrib_mts_update_route(mrib_client_handle *client, uint32_t operation, void *buffer, uint32_t length, uint32_t count,
                          uint32_t xid, uint32_t reserved);

/* Hands over one encapsulation record of 88 bytes. operation: 1. Copied; not acknowledged. Non-zero when accepted. */
int mrib_update_mdt_encap_info(mrib_client_handle *client, const void *record, uint32_t operation, uint32_t xid,
                               uint32_t reserved);

/* Recomputes RPF for the VRF's routes. */
void mrib_trigger_rpf_lookup(mrib_client_handle *client, const struct mrib_rpf_request *request);

/* Notifies a client's joins again. client: the host's own (pim_mpib). */
void mrib_trigger_join_notify(mrib_client_handle *client);

/* The read lock that holds the MRIB still. Any number of readers, also of one thread; never blocks a reader. */
void mrib_acquire_rdlock(void);
void mrib_release_rdlock(void);

/* The route with exactly this address in a VRF, or null. source_len MROUTE_ANY_SOURCE_LEN: the (*,G) route. */
const struct mrib_route *mrib_get_route_by_addr(vrf_context_id_t context_id, const struct mvpn_mdt_route_addrs *addrs);

/* Routes of a VRF; a group in them. Null when there are none. */
mrib_context *mrib_get_context_by_context_id(vrf_context_id_t context_id);
const struct mrib_group *mrib_get_group(mrib_context *context, ip_addr_t group, uint32_t group_len);

/* Non-zero while the VRF's routes are being built up after a start. */
int mrib_context_initializing(vrf_context_id_t context_id);

/* "(10.1.1.1/32, 239.1.1.1/32)", "(*, 239.1.1.1/32)". */
const char *mrib_print_addrs(const struct mvpn_mdt_route_addrs *addrs);

#ifdef __cplusplus
}
#endif

#endif /* PLATFORM_MRIB_H */
