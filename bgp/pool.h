// Records of one kind, known by number, in chunks that never move: no allocation for each, four octets for a reference.
// Their memory is that of whoever embeds the speaker, since how it stands in pages is a large part of what a look-up
// among a million costs.
#ifndef BGP_POOL_H
#define BGP_POOL_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <memory_resource>
#include <vector>

namespace bgp {

// Records 0 and up; none goes before all do.
template <class T, uint32_t kChunk>
class Chunks {
 public:
  explicit Chunks(std::pmr::memory_resource *memory) : allocator_(memory) {}
  ~Chunks() {
    for (uint32_t id = 0; id < size_; id++) std::destroy_at(&(*this)[id]);
    for (T *chunk : chunks_) allocator_.deallocate(chunk, kChunk);
  }
  Chunks(const Chunks &) = delete;
  Chunks &operator=(const Chunks &) = delete;

  T &operator[](size_t id) { return chunks_[id / kChunk][id % kChunk]; }
  const T &operator[](size_t id) const { return chunks_[id / kChunk][id % kChunk]; }

  // Puts a fresh record behind the last.
  void append() {
    if (size_ == chunks_.size() * kChunk) {
      if (chunks_.size() == chunks_.capacity()) chunks_.reserve(2 * chunks_.size() + 1);  // or a chunk might be lost
      chunks_.push_back(allocator_.allocate(kChunk));
    }
    std::construct_at(&(*this)[size_]);
    size_++;
  }

  uint32_t size() const { return size_; }
  size_t octets() const { return chunks_.size() * kChunk * sizeof(T); }

 private:
  std::pmr::polymorphic_allocator<T> allocator_;
  std::vector<T *> chunks_;
  uint32_t size_ = 0;
};

// Records that come and go. Number 0 is no record. A record has a field `next`, which a free one is threaded by.
template <class T, uint32_t kChunk = 1024>
class Pool {
 public:
  explicit Pool(std::pmr::memory_resource *memory) : records_(memory) { records_.append(); }

  T &operator[](uint32_t id) { return records_[id]; }
  const T &operator[](uint32_t id) const { return records_[id]; }

  uint32_t take() {
    used_++;
    if (free_ == 0) {
      records_.append();
      return records_.size() - 1;
    }
    const uint32_t id = free_;
    free_ = records_[id].next;
    records_[id] = T{};
    return id;
  }

  void give(uint32_t id) {
    used_--;
    records_[id] = T{};
    records_[id].next = free_;
    free_ = id;
  }

  uint32_t end() const { return records_.size(); }  // every number that was ever given out is smaller
  size_t used() const { return used_; }
  size_t octets() const { return records_.octets(); }

 private:
  Chunks<T, kChunk> records_;
  uint32_t free_ = 0;
  size_t used_ = 0;
};

}  // namespace bgp

#endif  // BGP_POOL_H
