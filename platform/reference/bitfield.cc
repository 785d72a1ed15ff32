// Bit sets.
#include "platform/bitfield.h"

int bitfield_test(const bitfield *set, uint32_t bit) {
  return bit / 32 < set->word_count && (set->words[bit / 32] >> bit % 32 & 1) != 0 ? 1 : 0;
}

int bitfield_is_any_set(const bitfield *set) { return bitfield_find_first_set(set) >= 0 ? 1 : 0; }

int64_t bitfield_find_first_set(const bitfield *set) {
  return bitfield_test(set, 0) != 0 ? 0 : bitfield_find_next_set(set, 0);
}

int64_t bitfield_find_next_set(const bitfield *set, uint32_t bit) {
  for (uint64_t next = uint64_t{bit} + 1; next < uint64_t{set->word_count} * 32; next++) {
    if (next % 32 == 0 && set->words[next / 32] == 0) {
      next += 31;
      continue;
    }
    if (bitfield_test(set, static_cast<uint32_t>(next)) != 0) return static_cast<int64_t>(next);
  }
  return -1;
}
