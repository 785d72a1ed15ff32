/* Bit sets: the host's sets of interface ordinals. */
#ifndef PLATFORM_BITFIELD_H
#define PLATFORM_BITFIELD_H

#include "platform/types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Zero-filled: the empty set. Filled by its owner, the host; the module only reads it. */
struct bitfield {
  uint32_t *words;     /* 32 bits a word, lowest bit first; null when word_count is 0 */
  uint32_t word_count; /* 0: the empty set */
};

/* Non-zero when the bit is in the set; bits beyond the words are not. */
int bitfield_test(const struct bitfield *set, uint32_t bit);

/* Non-zero when any bit is set. */
int bitfield_is_any_set(const struct bitfield *set);

/* Lowest bit; lowest bit above `bit`. -1: none. */
int64_t bitfield_find_first_set(const struct bitfield *set);
int64_t bitfield_find_next_set(const struct bitfield *set, uint32_t bit);

#ifdef __cplusplus
}
#endif

#endif /* PLATFORM_BITFIELD_H */
