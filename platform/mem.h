/* Memory: object slabs and the memory tracker. */
#ifndef PLATFORM_MEM_H
#define PLATFORM_MEM_H

#include "platform/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Attributes of slabs; filled by slab_set_attr only. */
struct slab_attr {
  uint32_t kind;  /* the service's */
  uint32_t flags; /* the service's */
};

typedef struct slab *slab_handle; /* 0 (null) = no slab */

/* Prepares an attribute block: slab_set_attr(attr, 1, 0). */
void slab_set_attr(struct slab_attr *attr, uint32_t kind, uint32_t flags);

/* Creates a slab of objects of object_size bytes. count: objects added per growth step, not a limit.
 * name: copied. Result: a handle, 0 on failure. */
slab_handle slab_create(size_t object_size, uint16_t count, const struct slab_attr *attr, const char *name);

/* A zero-filled object, aligned for any type of its size; null when memory ran out. The caller gives it back with
 * slab_free. */
void *slab_calloc(slab_handle slab);

/* Gives an object back to the slab that it came from. */
void slab_free(slab_handle slab, void *object);

/* Drops the handle and sets it to 0; a handle of 0 is ignored. Objects still in use stay valid, for a module that
 * stops while its configuration stays, until they are given back (slab 0 is accepted then) or the process ends. */
void slab_destroy(slab_handle *slab);

enum {
  MTRACK_IDENTITY_PIM = 284, /* the PIM process's identity with the memory tracker */
};

/* Use of a tracked buffer of the PIM process. */
enum mtrack_type {
  MTRACK_MVPN_LIST = 3,          /* tunnel-manager interface list */
  MTRACK_MVPN_JOIN_PACKET = 4,   /* Data-MDT Join packet */
  MTRACK_MVPN_GENERAL = 6,       /* MRIB interface state, persisted values */
  MTRACK_MVPN_DATA_RANGE = 20,   /* data-MDT range and its policy name */
  MTRACK_MVPN_ENCAP = 21,        /* MRIB encapsulation record */
  MTRACK_MVPN_SWITCHOVER = 22,   /* switchover cache entry */
  MTRACK_MVPN_UPDATE_BUFFER = 23 /* MRIB update buffer */
};

/* A buffer of size bytes, aligned for any type, content undefined; null when memory ran out. */
void *mtrack_alloc(uint32_t identity, uint32_t type, size_t size);

/* Frees a tracked buffer; null is ignored. */
void mtrack_free(void *buffer);

#ifdef __cplusplus
}
#endif

#endif /* PLATFORM_MEM_H */
