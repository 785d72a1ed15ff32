/* Persistent store: records that survive a restart of the process, in key order (bytes). */
#ifndef PLATFORM_PSS_H
#define PLATFORM_PSS_H

#include "platform/types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ksink_pss ksink_pss; /* opaque */

enum { PSS_KEY_SIZE = 20 };

/* Stores a value under a key of key_size bytes, replacing an older one. Non-zero on success. */
int ksink_pss_update(ksink_pss *store, const void *key, uint32_t key_size, const void *value, uint32_t length);

/* Finds a value. *value stays valid until the next call of this service. Non-zero when found. */
int ksink_pss_fetch(ksink_pss *store, const void *key, uint32_t key_size, const void **value, uint32_t *length);

/* Deletes a record, every record whose key begins with prefix. Non-zero on success, also when there was none. */
int ksink_pss_delete(ksink_pss *store, const void *key, uint32_t key_size);
int ksink_pss_delete_range(ksink_pss *store, const void *prefix, uint32_t prefix_size);

/* First record whose key is not less than prefix (prefix_size bytes, the rest taken as zero), whatever it begins with;
 * the record after the one last returned, which may have been deleted meanwhile. *key (PSS_KEY_SIZE bytes) and *value
 * stay valid until the next call of this service. Non-zero while a record was returned. */
int ksink_pss_get_first(ksink_pss *store, const void **key, const void *prefix, uint32_t prefix_size,
                        const void **value, uint32_t *length);
int ksink_pss_get_next(ksink_pss *store, const void **key, const void **value, uint32_t *length);

/* Non-zero when the process was restarted and is to take up its former state. */
int sysmgr_is_stateful_restart(void);

#ifdef __cplusplus
}
#endif

#endif /* PLATFORM_PSS_H */
