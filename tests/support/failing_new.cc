// Replaces the global operator new. It counts in the calling thread only, and lets one allocation fail and no other.
#include "tests/support/failing_new.h"

#include <cstdlib>
#include <new>

static thread_local unsigned countdown;

void trace::fail_new(unsigned nth) { countdown = nth; }

void *operator new(std::size_t size) {
  if (countdown != 0 && --countdown == 0) throw std::bad_alloc();
  if (void *memory = std::malloc(size != 0 ? size : 1)) return memory;
  throw std::bad_alloc();
}
// The sanitizers would bring their own of this one, and take what it gives for another's when it is freed here.
void *operator new(std::size_t size, const std::nothrow_t &) noexcept {
  if (countdown != 0 && --countdown == 0) return nullptr;
  return std::malloc(size != 0 ? size : 1);
}
void operator delete(void *memory) noexcept { std::free(memory); }
void operator delete(void *memory, std::size_t) noexcept { std::free(memory); }
