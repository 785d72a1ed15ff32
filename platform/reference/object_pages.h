// Small objects out of pages: no header for each, neighbours in memory, and what came back last is given out first.
// Each page holds objects of one size. An object finds its page by its address, so whoever made it need not be there
// any more; a page that all objects have left serves any size. Under the address sanitizer every object is an
// allocation of its own, so that each of them is watched.
//
// Everything runs under the scheduling locks.
#ifndef REFERENCE_OBJECT_PAGES_H
#define REFERENCE_OBJECT_PAGES_H

#include <cstddef>

namespace ref {

// A zero-filled object, aligned for any type; null when memory ran out.
void *take_object(size_t octets);

// Gives back what take_object made.
void give_object(void *object);

// Octets of the pages that serve a size, room in them included. An object too large for a page's share is the heap's,
// and under the address sanitizer all are.
size_t object_page_octets();

}  // namespace ref

#endif  // REFERENCE_OBJECT_PAGES_H
