// Areas whose memory is given out from the front to the back.
#include "host/bgp/large_pages.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <new>

namespace host {
namespace {

constexpr size_t kPage = size_t{4} << 10;
constexpr size_t kLargePage = size_t{2} << 20;  // on x86-64, and on arm64 with pages of 4 KiB
constexpr size_t kFirstArea = size_t{256} << 10;
constexpr size_t kArea = 2 * kLargePage;

}  // namespace

// The system is asked for large pages before the first octet is touched. A hint: it may have none.
void LargePages::add_area(size_t least) {
  const bool first = areas_.empty() && least <= kFirstArea;
  const size_t page = first ? kPage : kLargePage;
  const size_t size = first ? kFirstArea : std::max(kArea, (least + page - 1) / page * page);
  areas_.emplace_back(std::aligned_alloc(page, size));
  next_ = areas_.back().get();
  left_ = size;
  if (next_ != nullptr && !first) ::madvise(next_, size, MADV_HUGEPAGE);
}

void *LargePages::do_allocate(size_t octets, size_t alignment) {
  if (std::align(alignment, octets, next_, left_) == nullptr) add_area(octets + alignment);
  if (std::align(alignment, octets, next_, left_) == nullptr) {
    areas_.pop_back();
    left_ = 0;
    throw std::bad_alloc();
  }
  void *memory = next_;
  next_ = static_cast<uint8_t *>(next_) + octets;
  left_ -= octets;
  in_use_ += octets;
  return memory;
}

void LargePages::do_deallocate(void *, size_t octets, size_t) {
  in_use_ -= octets;
  if (in_use_ > 0) return;
  areas_.clear();
  next_ = nullptr;
  left_ = 0;
}

}  // namespace host
