/* Patricia trees: maps from bit-string keys to records, walked in key order and by prefix.
 *
 * A tree is known by its root pointer, null while it is empty. Walks are key-based: they tolerate the removal of any
 * record, the current one and the next included. Keys are compared as byte strings, so numbers in them are stored in
 * network byte order. */
#ifndef PLATFORM_PT_H
#define PLATFORM_PT_H

#include "platform/types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct pt_attr pt_attr; /* opaque; shared by any number of trees */
typedef struct pt_root pt_root; /* opaque */
typedef struct pt_node pt_node; /* opaque; valid until its key is deleted */

enum { PT_KEY_MAX = 16 }; /* bytes of the longest key */

/* Attributes of trees with keys of key_bytes: pt_attr_create(0, 1, key_bytes). Null on failure. They live until the
 * process ends; the same key size gives the same attributes. */
pt_attr *pt_attr_create(uint32_t flags, uint32_t kind, uint32_t key_bytes);

/* Adds a record under a key of key_bytes bytes, all key_bits of which count. 0 on success; non-zero when the key is
 * present already or memory ran out (nothing changes). */
int pt_add(pt_attr *attr, pt_root **root, uint32_t key_bytes, const void *key, uint32_t key_bits, void *data);

/* Removes the key; 0 on success, non-zero when it is not there. The root becomes null with the last key. */
int pt_delete(pt_attr *attr, pt_root **root, const void *key, uint32_t key_bits);

/* Record under exactly this key (exact: 1), or null. key_bits: the whole key. */
void *pt_lookup(pt_root *root, const void *key, uint32_t key_bits, int exact);

/* First node whose leading prefix_bits (a multiple of 8) equal the prefix; prefix_bits 0: of the tree. Null: none. */
pt_node *pt_get_first_node(pt_root *root, const void *prefix, uint32_t prefix_bits);

/* Node with the smallest key greater than last_key (a whole key, present or not) whose leading prefix_bits equal
 * those of last_key. Null: none. */
pt_node *pt_get_next_node(pt_root *root, const void *last_key, uint32_t prefix_bits);

/* Key (the tree's key_bytes) and record of a node. */
const uint8_t *pt_node_key(const pt_node *node);
void *pt_node_data(const pt_node *node);

#ifdef __cplusplus
}
#endif

#endif /* PLATFORM_PT_H */
