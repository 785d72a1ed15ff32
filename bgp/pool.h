// Records of one kind, known by number, in chunks that never move: no allocation for each, four octets for a reference.
// Number 0 is no record. A record has a field `next`, which a free one is threaded by.
#ifndef BGP_POOL_H
#define BGP_POOL_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace bgp {

template <class T, uint32_t kChunk = 1024>
class Pool {
 public:
  T &operator[](uint32_t id) { return chunks_[id / kChunk][id % kChunk]; }
  const T &operator[](uint32_t id) const { return chunks_[id / kChunk][id % kChunk]; }

  uint32_t take() {
    used_++;
    if (free_ != 0) {
      const uint32_t id = free_;
      free_ = (*this)[id].next;
      (*this)[id] = T{};
      return id;
    }
    if (end_ % kChunk == 0 || chunks_.empty()) chunks_.push_back(std::make_unique<T[]>(kChunk));
    return end_++;
  }

  void give(uint32_t id) {
    used_--;
    (*this)[id] = T{};
    (*this)[id].next = free_;
    free_ = id;
  }

  uint32_t end() const { return end_; }  // every number that was ever given out is smaller
  size_t used() const { return used_; }
  size_t octets() const { return chunks_.size() * kChunk * sizeof(T); }

 private:
  std::vector<std::unique_ptr<T[]>> chunks_;
  uint32_t end_ = 1, free_ = 0;
  size_t used_ = 0;
};

}  // namespace bgp

#endif  // BGP_POOL_H
