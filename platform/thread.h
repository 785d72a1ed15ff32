/* Threads and cooperative scheduling.
 *
 * The host's main thread and the module's threads run under one pair of scheduling locks, seen here as one: a thread
 * that holds them runs, every other one waits. They are fair: a thread that gives them up gets them again only after
 * the threads that were waiting. Threads start holding them, with cancellation disabled; a thread enables cancellation
 * where it may end (a blocking call, an explicit test). None of the tsp_ operations is a cancellation point. Whatever
 * way a thread ends, the wrapper around its body gives the locks back if the thread holds them. */
#ifndef PLATFORM_THREAD_H
#define PLATFORM_THREAD_H

#include <pthread.h>

#include "platform/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Default attributes; 0 on success. */
int quillon_pthread_attr_init(pthread_attr_t *attributes);

/* Starts a thread. attributes: null for the defaults. name: copied, any length. *handle is stored before the body
 * runs. Result: 0, or an error number. */
int quillon_pthread_create(pthread_t *handle, const pthread_attr_t *attributes, void *(*body)(void *), void *argument,
                           const char *name);

/* Yields when another thread waits for the locks. Non-zero when another thread ran. */
int tsp_sched_may_yield(void);

/* Non-zero when the caller should offer a yield soon: its share of time is used up and another thread waits. */
int tsp_should_sched_yield(void);

/* Yields to the threads that wait, if any. */
void tsp_sched_yield(void);

/* Bracket of a blocking call: gives the locks up, takes them back. errno is unspecified after tsp_after_yield. */
void tsp_before_yield(void);
void tsp_after_yield(void);

/* Bracket of a wait on a condition. release gives the locks up and returns the host's scheduling mutex, held by the
 * caller, who waits on its condition with it: a thread that signals the condition while holding the locks cannot come
 * between the caller's last test and its wait. acquire is called with that mutex held, and gives it back when it has
 * taken the locks. Both arguments are 0. */
pthread_mutex_t *tsp_release_locks_before_yield(uint32_t reserved1, uint32_t reserved2);
void tsp_acquire_locks_after_yield(uint32_t reserved1, uint32_t reserved2);

typedef struct tsp_lock tsp_lock; /* opaque */

/* Takes a write lock; recursive for the holding thread. Waits, and thereby yields, only while another thread holds
 * it. */
void tsp_lock_acquire_wrlock(tsp_lock *lock);

#ifdef __cplusplus
}
#endif

#endif /* PLATFORM_THREAD_H */
