// Pages of 64 KiB at addresses that are multiples of 64 KiB, so that an object's page is found by clearing the lower
// bits of its address. A page keeps the list of its free objects; pages of a size with room form a list, and those
// without are in none: their objects bring them back. Objects that are too large for this are allocations of their own
// behind a page's head.
//
// Traps. What is given back must be zeroed by whoever takes it next, which take_object() does; and the first word of a
// free object is a link, so a use after give_object() shows as a damaged list, unless the address sanitizer is there.
#include "platform/reference/object_pages.h"

#include <sys/mman.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "platform/reference/address_sanitizer.h"

namespace ref {

#if WATCHED_BY_ADDRESS_SANITIZER

void *take_object(size_t octets) { return std::calloc(1, octets); }
void give_object(void *object) { std::free(object); }
size_t object_page_octets() { return 0; }

#else

namespace {

constexpr size_t page_octets = size_t{64} << 10;  // also the alignment of a page
constexpr size_t large_page = size_t{2} << 20;    // of the system
constexpr size_t chunk_pages = 64;                // asked of the system at a time
constexpr size_t warm_pages = 32;                 // free ones that keep their memory
constexpr size_t grain = sizeof(void *);  // objects end with their page: those of 16 octets, or 32, are aligned as much
constexpr size_t largest = page_octets / 4;  // of several objects in a page; a larger one is alone

// The head of a page; its objects follow.
struct alignas(64) Page {
  size_t object_octets;
  void *free;            // objects that came back, linked through their first word
  uint32_t live;         // objects that are out
  uint32_t fresh;        // objects that were never out: the last ones of the page
  Page *before, *after;  // pages of this size with room
};

size_t pages_in_use;                                         // that serve a size
std::vector<void *> &free_pages = *new std::vector<void *>;  // objects may come back while the process ends
std::array<Page *, largest / grain + 1> open;  // by size: pages with room, the one that something came back to in front

bool has_room(const Page *page) { return page->free != nullptr || page->fresh > 0; }

Page *&open_pages(const Page *page) { return open[page->object_octets / grain]; }

void link(Page *page) {
  Page *&first = open_pages(page);
  page->before = nullptr;
  page->after = first;
  if (first != nullptr) first->before = page;
  first = page;
}

void unlink(Page *page) {
  (page->before != nullptr ? page->before->after : open_pages(page)) = page->after;
  if (page->after != nullptr) page->after->before = page->before;
}

// On large pages where the system has them: a hundred thousand routes are then a few dozen first touches instead of ten
// thousand, and look-ups in them find the addresses in the processor's table.
void add_chunk() {
  constexpr size_t octets = chunk_pages * page_octets;
  void *chunk = mmap(nullptr, octets + large_page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (chunk == MAP_FAILED) return;
  const auto unaligned = reinterpret_cast<uintptr_t>(chunk) % large_page;
  auto *first = static_cast<uint8_t *>(chunk) + (unaligned == 0 ? 0 : large_page - unaligned);
  madvise(first, octets, MADV_HUGEPAGE);
  for (size_t i = chunk_pages; i > 0; i--) free_pages.push_back(first + (i - 1) * page_octets);
}

Page *open_page(size_t object_octets) {
  if (Page *page = open[object_octets / grain]) return page;
  if (free_pages.empty()) add_chunk();
  if (free_pages.empty()) return nullptr;
  const auto objects = static_cast<uint32_t>((page_octets - sizeof(Page)) / object_octets);
  auto *page = new (free_pages.back()) Page{object_octets, nullptr, 0, objects, nullptr, nullptr};
  free_pages.pop_back();
  pages_in_use++;
  link(page);
  return page;
}

// The system keeps the address and takes the memory.
void give_page(Page *page) {
  if (free_pages.size() >= warm_pages) madvise(page, page_octets, MADV_DONTNEED);
  free_pages.push_back(page);
  pages_in_use--;
}

void *take_alone(size_t octets) {
  const size_t whole = (sizeof(Page) + octets + page_octets - 1) / page_octets * page_octets;
  void *page = std::aligned_alloc(page_octets, whole);
  return page != nullptr ? new (page) Page{octets, nullptr, 1, 0, nullptr, nullptr} + 1 : nullptr;
}

void *take_from(Page *page) {
  void *object = page->free;
  if (object != nullptr)
    page->free = *static_cast<void **>(object);
  else
    object = reinterpret_cast<uint8_t *>(page) + page_octets - page->fresh-- * page->object_octets;
  page->live++;
  if (!has_room(page)) unlink(page);
  return object;
}

}  // namespace

void *take_object(size_t octets) {
  const size_t rounded = octets == 0 ? grain : (octets + grain - 1) / grain * grain;
  void *object = nullptr;
  if (rounded > largest) {
    object = take_alone(rounded);
  } else if (Page *page = open_page(rounded)) {
    object = take_from(page);
  }
  return object != nullptr ? std::memset(object, 0, octets) : nullptr;
}

void give_object(void *object) {
  auto *page = reinterpret_cast<Page *>(reinterpret_cast<uintptr_t>(object) / page_octets * page_octets);
  if (page->object_octets > largest) return std::free(page);
  if (has_room(page)) unlink(page);
  *static_cast<void **>(object) = page->free;
  page->free = object;
  page->live--;
  link(page);
  // The last page of a size stays, for what comes next.
  if (page->live > 0 || page->after == nullptr) return;
  unlink(page);
  give_page(page);
}

size_t object_page_octets() { return pages_in_use * page_octets; }

#endif

}  // namespace ref
