/* Intrusive AVL trees of records ordered by a key that is compared byte by byte.
 *
 * A record begins with its ravl_node, unless it stands in several trees; then the node's user_data leads back to it.
 * Trees own nothing. All walks are key-based: deleting any record during a walk, the current one and the next
 * included, is allowed. */
#ifndef PLATFORM_RAVL_H
#define PLATFORM_RAVL_H

#include "platform/types.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { RAVL_KEY_MAX = 40 }; /* bytes of the longest key */

/* Zero-filled before the first insert, and at a multiple of 8 bytes. There may be a million, so it is small. */
struct ravl_node {
  uintptr_t links[2]; /* the service's */
  void *user_data;    /* set by the owner before the insert; what the user-data walk returns */
};

typedef int (*ravl_compare)(const void *key_a, const void *key_b);

struct ravl_tree {
  struct ravl_node *root; /* the service's; null: the tree is empty */
  uint32_t key_length;    /* bytes, at most RAVL_KEY_MAX */
  uint32_t key_place;     /* byte offset of the key from the node */
  ravl_compare compare;   /* null: memcmp over key_length bytes */
  uint32_t count;         /* records in the tree */
};

/* A position in a walk: the key of the last record returned. Lives on the caller's stack. */
struct ravl_iterator {
  struct ravl_tree *tree;    /* the one that is walked; outlives the walk */
  uint32_t started;          /* 0: nothing was returned yet, and key means nothing */
  uint8_t key[RAVL_KEY_MAX]; /* of the record returned last; key_length bytes count */
};

/* Empties a tree and fixes its order. key_length: 1..RAVL_KEY_MAX. compare: null for byte order. */
void ravl_init(struct ravl_tree *tree, uint32_t key_length, uint32_t key_place, ravl_compare compare);

/* Non-zero when inserted; 0 when a record with the same key stands in the tree already (nothing changes). */
int ravl_insert(struct ravl_tree *tree, void *record);

/* The record with this key, or null. */
void *ravl_lookup(struct ravl_tree *tree, const void *key);

/* Removes the record; 0 when it does not stand in a tree, else non-zero. */
int ravl_delete(struct ravl_tree *tree, void *record);

/* First record, or null; position: 0. */
void *ravl_get_first_node(struct ravl_tree *tree, uint32_t position);

/* Record after this one, which must stand in the tree, or null. */
void *ravl_get_next_node(struct ravl_tree *tree, void *record);

/* Walk of the records with low <= key <= high. next continues after the key that the iterator remembers, whether or
 * not that record still exists. Null at the end. */
void *ravl_get_first_node_in_range(struct ravl_tree *tree, const void *low, const void *high,
                                   struct ravl_iterator *iterator);
void *ravl_get_next_node_in_range(struct ravl_tree *tree, const void *low, const void *high,
                                  struct ravl_iterator *iterator);

/* Walk of a tree by the user_data of its nodes; as above. */
void ravl_init_iterator(struct ravl_iterator *iterator, struct ravl_tree *tree);
void *ravl_get_first_user_data(struct ravl_iterator *iterator);
void *ravl_get_next_user_data(struct ravl_iterator *iterator);

/* Yields when other work waits. The iterator stays valid; records do not. */
void ravl_pre_sched_yield(struct ravl_iterator *iterator);

#ifdef __cplusplus
}
#endif

#endif /* PLATFORM_RAVL_H */
