/* Transmit list: one list that producers append to and that members walk, each at its own pace.
 *
 * The list holds objects of two sorts: elements, which carry something to transmit, and members, which mark how far a
 * reader has come. Every object has a kind (1..7); the list knows for each kind where the object sits in its record.
 * Versions are drawn from one counter that grows with every insertion; an object's version is that of its last
 * insertion. An object stands on at most one list. */
#ifndef PLATFORM_TXLIST_H
#define PLATFORM_TXLIST_H

#include "platform/types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct txlist txlist;                   /* opaque */
typedef struct txlist_iterator txlist_iterator; /* opaque; itself a member of the list */

enum { TXLIST_KIND_ITERATOR = 0, TXLIST_KIND_MAX = 7 };

/* All fields belong to the service. */
struct txlist_obj {
  struct txlist_obj *next; /* null while not linked */
  struct txlist_obj *prev;
  uint32_t version;  /* of its last insertion; wraps */
  uint8_t kind;      /* 1..TXLIST_KIND_MAX, or TXLIST_KIND_ITERATOR */
  uint8_t is_member; /* 1: a member, 0: an element */
};

struct txlist_element {
  struct txlist_obj obj;
};

struct txlist_member {
  struct txlist_obj obj;
};

/* Creates a list: txlist_create(0, 0). Null on failure. */
txlist *txlist_create(uint32_t flags, uint32_t size);

/* Unlinks every object and frees the list. A null list is ignored. */
void txlist_destroy(txlist *list);

/* Tells the list that objects of this kind sit at byte offset of their records. */
void txlist_register_kind(txlist *list, uint8_t kind, size_t offset);

/* Prepares an unlinked element, an unlinked member. */
void txlist_init_element(struct txlist_element *element, uint8_t kind);
void txlist_init_member(struct txlist_member *member, uint8_t kind);

/* Non-zero while the element stands on a list. */
int txlist_element_is_linked(const struct txlist_element *element);

/* Appends the element; one that stands on the list moves to the tail. */
void txlist_insert_element_at_tail(txlist *list, struct txlist_element *element);

/* Unlinks the element; harmless when it is not linked. */
void txlist_remove_element(txlist *list, struct txlist_element *element);

/* Places a member, moving it when it is linked. Placing it beside itself changes nothing. */
void txlist_insert_member_at_head(txlist *list, struct txlist_member *member);
void txlist_insert_member_after_node(txlist *list, struct txlist_member *member, struct txlist_obj *node);
void txlist_insert_member_before_node(txlist *list, struct txlist_member *member, struct txlist_obj *node);
void txlist_remove_member(txlist *list, struct txlist_member *member);

/* Object after node, null at the end. A null node gives the first object. */
struct txlist_obj *txlist_get_next_node(txlist *list, struct txlist_obj *node);

/* The object inside a member; the record around an object; what an object is. */
struct txlist_obj *txlist_member_to_obj(struct txlist_member *member);
void *txlist_obj_to_ptr(txlist *list, struct txlist_obj *obj);
int txlist_obj_is_element(const struct txlist_obj *obj);
uint8_t txlist_obj_get_kind(const struct txlist_obj *obj);

/* Versions. A member's is that of the last object that it was placed behind. */
uint32_t txlist_get_version(const txlist *list);
uint32_t txlist_get_member_version(const struct txlist_member *member);
uint32_t txlist_get_obj_version(const struct txlist_obj *obj);

/* A walk that survives yields. create: null when memory ran out. next: the next object, members included and
 * iterators (this one too) excluded; null at the end. commit: parks the iterator behind the last object returned;
 * call it before a yield. remove: takes the iterator off the list and frees it; also after its list was destroyed,
 * which unlinks it like every other object. */
txlist_iterator *txlist_iterator_create(txlist *list);
struct txlist_obj *txlist_iterator_next(txlist_iterator *iterator);
void txlist_iterator_commit(txlist_iterator *iterator);
void txlist_iterator_remove(txlist_iterator *iterator);

#ifdef __cplusplus
}
#endif

#endif /* PLATFORM_TXLIST_H */
