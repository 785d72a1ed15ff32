// Slabs and the memory tracker. A slab is a size: objects come out of pages that all slabs share, so they outlive it.
#include "platform/mem.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

#include "platform/reference/internal.h"
#include "platform/reference/mem.h"
#include "platform/reference/object_pages.h"

struct slab {
  size_t object_size;
};

namespace {

std::atomic<size_t> objects, buffers, bytes;

// Stands before a tracked buffer.
struct alignas(std::max_align_t) Header {
  size_t size;
};

}  // namespace

namespace ref {

MemoryUse memory_use() { return {objects, buffers, bytes, live_timers()}; }

}  // namespace ref

void slab_set_attr(slab_attr *attr, uint32_t kind, uint32_t flags) { *attr = {kind, flags}; }

slab_handle slab_create(size_t object_size, uint16_t, const slab_attr *, const char *) {
  return new (std::nothrow) slab{object_size};
}

void *slab_calloc(slab_handle handle) {
  if (handle == nullptr) return nullptr;
  void *object = ref::take_object(handle->object_size);
  if (object != nullptr) objects++;
  return object;
}

void slab_free(slab_handle, void *object) {
  if (object == nullptr) return;
  ref::give_object(object);
  objects--;
}

void slab_destroy(slab_handle *handle) {
  delete *handle;
  *handle = nullptr;
}

void *mtrack_alloc(uint32_t, uint32_t, size_t size) {
  auto *header = static_cast<Header *>(std::malloc(sizeof(Header) + size));
  if (header == nullptr) return nullptr;
  header->size = size;
  buffers++;
  bytes += size;
  return header + 1;
}

void mtrack_free(void *buffer) {
  if (buffer == nullptr) return;
  Header *header = static_cast<Header *>(buffer) - 1;
  buffers--;
  bytes -= header->size;
  std::free(header);
}
