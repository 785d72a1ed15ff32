// When memory of objects goes back to the system. What they hold is watched by everything that stands on them.
#include "platform/reference/object_pages.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <vector>

#include "platform/reference/address_sanitizer.h"

namespace {

constexpr size_t object_octets = 4096, large_octets = size_t{2} << 20;
using LargePages = std::map<uintptr_t, std::vector<void *>>;  // objects by the large page that they stand in

uintptr_t large_page_of(const void *object) {
  return reinterpret_cast<uintptr_t>(object) / large_octets * large_octets;
}

bool is_resident(const void *object) {
  const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  unsigned char resident = 0;
  const uintptr_t at = reinterpret_cast<uintptr_t>(object) / page * page;
  EXPECT_EQ(mincore(reinterpret_cast<void *>(at), page, &resident), 0);
  return (resident & 1) != 0;
}

TEST(ObjectPages, MemoryGoesBackByWholeLargePages) {
  if (WATCHED_BY_ADDRESS_SANITIZER) GTEST_SKIP() << "objects are the heap's";
  LargePages objects;
  for (size_t i = 0; i < 6 * large_octets / object_octets; i++) {
    void *object = ref::take_object(object_octets);
    ASSERT_NE(object, nullptr);
    objects[large_page_of(object)].push_back(object);
  }
  ASSERT_GE(objects.size(), 6u);
  const uintptr_t kept = std::next(objects.begin(), 2)->first;
  void *last = objects[kept].back();
  for (const auto &[large, own] : objects)
    for (void *object : own)
      if (object != last) ref::give_object(object);
  const std::vector<void *> &neighbours = objects[kept];
  EXPECT_TRUE(std::all_of(neighbours.begin(), neighbours.end(), is_resident)) << "one of them is in use";
  size_t given_back = 0;
  for (const auto &[large, own] : objects) {
    const auto resident = std::count_if(own.begin(), own.end(), is_resident);
    EXPECT_TRUE(resident == 0 || resident == static_cast<ptrdiff_t>(own.size())) << "a part of a large page";
    given_back += resident == 0 ? 1 : 0;
  }
  EXPECT_GE(given_back, 2u);
  ref::give_object(last);
}

}  // namespace
