// Pages of 64 KiB at addresses that are multiples of 64 KiB, so that an object's page is found by clearing the lower
// bits of its address. A page keeps the list of its free objects; pages of a size with room form a list, and those
// without are in none: their objects bring them back. Objects that are too large for this are allocations of their own
// behind a page's head.
//
// Pages are parts of large pages of the system, which come and go as a whole: one of which a part were given back would
// be small pages from then on.
//
// Traps. What is given back must be zeroed by whoever takes it next, which take_object() does; and the first word of a
// free object is a link, so a use after give_object() shows as a damaged list, unless the address sanitizer is there.
#include "platform/reference/object_pages.h"

#include <sys/mman.h>

#include <array>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "platform/reference/address_sanitizer.h"

namespace ref {

#if WATCHED_BY_ADDRESS_SANITIZER

void *take_object(size_t octets) { return std::calloc(1, octets); }
void give_object(void *object) { std::free(object); }
size_t object_page_octets() { return 0; }

#else

namespace {

constexpr size_t page_octets = size_t{64} << 10;  // also the alignment of a page
constexpr size_t large_octets = size_t{2} << 20;  // of a large page of the system
constexpr size_t chunk_large_pages = 2;           // asked of the system at a time
constexpr size_t grain = sizeof(void *);  // objects end with their page: those of 16 octets, or 32, are aligned as much
constexpr size_t largest = page_octets / 4;  // of several objects in a page; a larger one is alone

struct LargePage {
  uint8_t *first;
  uint32_t free;              // its pages that serve no size, a bit for each
  LargePage *before, *after;  // in a list
};
constexpr uint32_t all_free = UINT32_MAX;
static_assert(large_octets / page_octets == 32, "as many as there are bits");

// The head of a page; its objects follow.
struct alignas(64) Page {
  size_t object_octets;
  void *free;            // objects that came back, linked through their first word
  uint32_t live;         // objects that are out
  uint32_t fresh;        // objects that were never out: the last ones of the page
  Page *before, *after;  // pages of this size with room
  LargePage *home;       // null: an object that is alone
};

size_t pages_in_use;                           // that serve a size
LargePage *partly;                             // large pages of which some pages are in use and some are free
LargePage *spare;                              // one that nothing uses, with its memory; null: none
LargePage *empty;                              // those that have no memory
std::array<Page *, largest / grain + 1> open;  // by size: pages with room, the one that something came back to in front

bool has_room(const Page *page) { return page->free != nullptr || page->fresh > 0; }

Page *&open_pages(const Page *page) { return open[page->object_octets / grain]; }

template <typename T>
void add_to(T *&list, T *item) {
  item->before = nullptr;
  item->after = list;
  if (list != nullptr) list->before = item;
  list = item;
}

template <typename T>
void take_from(T *&list, T *item) {
  (item->before != nullptr ? item->before->after : list) = item->after;
  if (item->after != nullptr) item->after->before = item->before;
}

// On large pages where the system has them: a hundred thousand routes are then a few dozen first touches instead of ten
// thousand, and look-ups in them find the addresses in the processor's table.
void add_chunk() {
  constexpr size_t octets = chunk_large_pages * large_octets;
  void *chunk = mmap(nullptr, octets + large_octets, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (chunk == MAP_FAILED) return;
  const auto unaligned = reinterpret_cast<uintptr_t>(chunk) % large_octets;
  auto *first = static_cast<uint8_t *>(chunk) + (unaligned == 0 ? 0 : large_octets - unaligned);
  madvise(first, octets, MADV_HUGEPAGE);
  for (size_t i = chunk_large_pages; i-- > 0;)
    if (auto *large = new (std::nothrow) LargePage{first + i * large_octets, all_free, nullptr, nullptr})
      add_to(empty, large);
}

// One that has a free page, before any that has none in use; null when memory ran out.
LargePage *large_page_with_room() {
  if (partly != nullptr) return partly;
  LargePage *large = std::exchange(spare, nullptr);
  if (large == nullptr) {
    if (empty == nullptr) add_chunk();
    if (empty == nullptr) return nullptr;
    large = empty;
    take_from(empty, large);
  }
  add_to(partly, large);
  return large;
}

Page *open_page(size_t object_octets) {
  if (Page *page = open[object_octets / grain]) return page;
  LargePage *large = large_page_with_room();
  if (large == nullptr) return nullptr;
  uint8_t *memory = large->first + static_cast<size_t>(std::countr_zero(large->free)) * page_octets;
  large->free &= large->free - 1;
  if (large->free == 0) take_from(partly, large);
  const auto objects = static_cast<uint32_t>((page_octets - sizeof(Page)) / object_octets);
  auto *page = new (memory) Page{object_octets, nullptr, 0, objects, nullptr, nullptr, large};
  pages_in_use++;
  add_to(open_pages(page), page);
  return page;
}

// The system keeps the address and takes the memory, of a large page that nothing uses while another one waits.
void give_page(Page *page) {
  LargePage *large = page->home;
  pages_in_use--;
  if (large->free == 0) add_to(partly, large);
  const auto place = static_cast<size_t>(reinterpret_cast<uint8_t *>(page) - large->first) / page_octets;
  large->free |= uint32_t{1} << place;
  if (large->free != all_free) return;
  take_from(partly, large);
  if (spare == nullptr) {
    spare = large;
    return;
  }
  madvise(large->first, large_octets, MADV_DONTNEED);
  add_to(empty, large);
}

void *take_alone(size_t octets) {
  const size_t whole = (sizeof(Page) + octets + page_octets - 1) / page_octets * page_octets;
  void *page = std::aligned_alloc(page_octets, whole);
  return page != nullptr ? new (page) Page{octets, nullptr, 1, 0, nullptr, nullptr, nullptr} + 1 : nullptr;
}

void *next_object(Page *page) {
  void *object = page->free;
  if (object != nullptr)
    page->free = *static_cast<void **>(object);
  else
    object = reinterpret_cast<uint8_t *>(page) + page_octets - page->fresh-- * page->object_octets;
  page->live++;
  if (!has_room(page)) take_from(open_pages(page), page);
  return object;
}

}  // namespace

void *take_object(size_t octets) {
  const size_t rounded = octets == 0 ? grain : (octets + grain - 1) / grain * grain;
  void *object = nullptr;
  if (rounded > largest) {
    object = take_alone(rounded);
  } else if (Page *page = open_page(rounded)) {
    object = next_object(page);
  }
  return object != nullptr ? std::memset(object, 0, octets) : nullptr;
}

void give_object(void *object) {
  auto *page = reinterpret_cast<Page *>(reinterpret_cast<uintptr_t>(object) / page_octets * page_octets);
  if (page->object_octets > largest) return std::free(page);
  if (has_room(page)) take_from(open_pages(page), page);
  *static_cast<void **>(object) = page->free;
  page->free = object;
  page->live--;
  add_to(open_pages(page), page);
  // The last page of a size stays, for what comes next.
  if (page->live > 0 || page->after == nullptr) return;
  take_from(open_pages(page), page);
  give_page(page);
}

size_t object_page_octets() { return pages_in_use * page_octets; }

#endif

}  // namespace ref
