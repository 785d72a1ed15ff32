/* First-in first-out queues.
 *
 * Two forms. A linking queue (flag 0) links its items through their first word, and counts them by a walk. A data queue
 * (flag 1) holds pointers and a small tag for each; it keeps an index, so that finding and removing an item does not
 * depend on its length. An item stands at an even address. */
#ifndef PLATFORM_RQUEUE_H
#define PLATFORM_RQUEUE_H

#include "platform/types.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { RQUEUE_LINKING = 0, RQUEUE_DATA = 1 };

/* The first word is the head, null when the queue is empty. Every core route has a queue, so it is small. */
struct rqueue {
  void *head;
  uintptr_t rest; /* the service's, 0 while the queue is empty: a linking queue's last item, a data queue's index */
};

/* Empties a queue without freeing anything: rqueue_init(queue, RQUEUE_LINKING or RQUEUE_DATA, 0). */
void rqueue_init(struct rqueue *queue, uint32_t flag, uint32_t reserved);

/* Items in the queue. */
uint32_t rqueue_count(const struct rqueue *queue);

/* Linking queue: appends an item; takes the first one off (null: empty); takes this one off (0: not in the queue);
 * the item after this one (null: none), the head when item is null. */
void renqueue(struct rqueue *queue, void *item);
void *rdequeue(struct rqueue *queue);
int runqueue(struct rqueue *queue, void *item);
void *rqueue_next(const struct rqueue *queue, const void *item);

/* Data queue: appends a pointer with its tag (0: memory ran out); takes the first pointer off and stores its tag
 * (null: empty); takes this pointer off (0: not in the queue); non-zero when the pointer is in the queue.
 * The queue holds memory only while it is not empty. */
int renqueue_data(struct rqueue *queue, void *data, uint32_t tag);
void *rdequeue_data(struct rqueue *queue, uint32_t *tag);
int runqueue_data(struct rqueue *queue, void *data);
int rqueue_find_item(const struct rqueue *queue, const void *data);

/* Walk of a data queue, for checks and displays: calls visit for every pointer in order. */
void rqueue_visit_data(const struct rqueue *queue, void (*visit)(void *data, uint32_t tag, void *argument),
                       void *argument);

#ifdef __cplusplus
}
#endif

#endif /* PLATFORM_RQUEUE_H */
