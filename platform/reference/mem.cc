// Slabs and the memory tracker. Every object is an allocation of its own, so that the sanitizers see each of them and
// objects outlive their slab.
#include "platform/mem.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

#include "platform/reference/internal.h"

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
  void *object = std::calloc(1, handle->object_size);
  if (object != nullptr) objects++;
  return object;
}

void slab_free(slab_handle, void *object) {
  if (object == nullptr) return;
  std::free(object);
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
