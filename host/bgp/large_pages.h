// Memory on large pages of the system, for tables of which each look-up goes to another place: with a million routes in
// small pages the processor would look for nearly every address in the page tables, and each page would be a fault when
// it is touched first.
#ifndef HOST_BGP_LARGE_PAGES_H
#define HOST_BGP_LARGE_PAGES_H

#include <cstdlib>
#include <memory>
#include <memory_resource>
#include <vector>

namespace host {

// What is given back stays here until all has been; then everything goes back to the system. A little that is asked for
// stands on small pages: a large one is two megabytes. Used by one thread.
class LargePages final : public std::pmr::memory_resource {
 private:
  struct Free {
    void operator()(void *area) const { std::free(area); }
  };

  void *do_allocate(size_t octets, size_t alignment) override;
  void do_deallocate(void *memory, size_t octets, size_t alignment) override;
  bool do_is_equal(const std::pmr::memory_resource &other) const noexcept override { return this == &other; }
  void add_area(size_t least);

  std::vector<std::unique_ptr<void, Free>> areas_;
  void *next_ = nullptr;  // room of the last area
  size_t left_ = 0;       // its octets
  size_t in_use_ = 0;     // octets that have not been given back
};

}  // namespace host

#endif  // HOST_BGP_LARGE_PAGES_H
