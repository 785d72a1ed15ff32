// What the module holds of memory and timers.
#ifndef REFERENCE_MEM_H
#define REFERENCE_MEM_H

#include <cstddef>

namespace ref {

struct MemoryUse {
  size_t slab_objects = 0;     // live objects of all slabs
  size_t tracked_buffers = 0;  // live tracked buffers
  size_t tracked_bytes = 0;    // in them
  size_t timers = 0;           // created and not cancelled, whether they run or not
};
MemoryUse memory_use();  // of this moment

}  // namespace ref

#endif  // REFERENCE_MEM_H
