/* Timers and clocks. */
#ifndef PLATFORM_TIMER_H
#define PLATFORM_TIMER_H

#include "platform/types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct active_timer active_timer; /* opaque; owned by the service until active_timer_cancel */
typedef void (*active_timer_callback)(void *argument);

/* Creates a timer set: active_timer_new_set_init(8). Result: its identifier, 0 on failure. */
uint8_t active_timer_new_set_init(uint32_t size);

enum {
  ACTIVE_TIMER_SET_SIZE = 8,
  ACTIVE_TIMER_TYPE_MVPN = 9,
};

/* Creates a stopped one-shot timer in a set. type: ACTIVE_TIMER_TYPE_MVPN. The callback runs on the main thread.
 * Result: null on failure. */
active_timer *active_timer_create(uint8_t set, uint32_t type, active_timer_callback callback, void *argument);

/* Arms the timer, anew when it is running. seconds 0 fires as soon as the main loop runs. Three reserved
 * arguments: 0. Result: non-zero on success. */
int active_timer_start(active_timer *timer, uint32_t seconds, uint32_t reserved1, uint32_t reserved2,
                       uint32_t reserved3);

/* Disarms the timer; an expiry that is not delivered yet is dropped. A null timer is ignored. */
void active_timer_stop(active_timer *timer);

/* Stops and frees the timer; also from inside its own callback. A null timer is ignored. */
void active_timer_cancel(active_timer *timer);

/* Monotonic time since an arbitrary start, which 136 years do not use up. Every core route has one, so it is small. */
struct zeph_timestamp {
  uint32_t seconds;     /* whole ones */
  uint32_t nanoseconds; /* 0..999999999 */
};

/* Reads the monotonic clock. Result: -1 on failure, in which case *now is unspecified. */
int zeph_sys_mclock_get(struct zeph_timestamp *now);

/* Non-zero when the stamp is not in the future. */
int timestamp_expired(const struct zeph_timestamp *stamp);

/* Time passed since the stamp; zero when it is in the future. */
void timestamp_elapsed(const struct zeph_timestamp *since, struct zeph_timestamp *elapsed);

/* Time left until the stamp; zero when it has passed. */
void timestamp_left_sleeping(const struct zeph_timestamp *until, struct zeph_timestamp *left);

/* A duration for people, such as "00:01:05" or "2d03h". */
const char *timestamp_sprint(const struct zeph_timestamp *duration);

/* Wall-clock milliseconds since 1970 for debug files. */
uint64_t ksink_get_milli_abstime_now(void);

#ifdef __cplusplus
}
#endif

#endif /* PLATFORM_TIMER_H */
