// Records of one kind by key: a hash table of which every record takes its own size and four octets more. Records stand
// in chunks out of shared pages and never move. The table grows by linear hashing, one bucket for each record that
// comes, so that no insertion pays for all; it has no order.
//
// A record has `uint32_t next`, which belongs to the table, and key(), which does not change while it is in the table.
// Its key has hash() and ==.
#ifndef REFERENCE_RECORD_TABLE_H
#define REFERENCE_RECORD_TABLE_H

#include <bit>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <new>
#include <random>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/reference/object_pages.h"

namespace ref {

// Spreads what differs in a few bits over all of them, in another way in each process: keys come from other machines,
// none of which may choose them so that they share a bucket.
inline const uint64_t mix_seed = uint64_t{std::random_device()()} << 32 | std::random_device()();
inline uint64_t mix(uint64_t value) {
  value ^= mix_seed;
  value ^= value >> 32;
  // 2^64 divided by the golden ratio: multiplying by it spreads neighbouring values.
  value *= 0x9E3779B97F4A7C15;
  return value ^ value >> 29;
}

template <typename Record, typename Key>
class RecordTable {
 public:
  using Id = uint32_t;  // 0: none

  RecordTable() : buckets_(first_buckets), level_(first_buckets) {}
  ~RecordTable() {
    for (Record *chunk : chunks_) give_object(chunk);
  }
  RecordTable(const RecordTable &) = delete;
  RecordTable &operator=(const RecordTable &) = delete;
  // Not noexcept: what is moved from is left an empty table, which takes memory.
  RecordTable(RecordTable &&other) : RecordTable() { swap(other); }  // NOLINT(performance-noexcept-move-constructor)
  RecordTable &operator=(RecordTable &&other) {                      // NOLINT(performance-noexcept-move-constructor)
    RecordTable taken(std::move(other));
    swap(taken);
    return *this;
  }

  Record &operator[](Id id) { return chunks_[id / chunk_records][id % chunk_records]; }
  const Record &operator[](Id id) const { return chunks_[id / chunk_records][id % chunk_records]; }

  size_t size() const { return size_; }

  // 0: there is none.
  Id find(const Key &key) const {
    Id id = buckets_[bucket(key)];
    while (id != 0 && !((*this)[id].key() == key)) id = (*this)[id].next;
    return id;
  }

  // Has the memory of so many keys' records fetched: look-ups that follow wait for it once instead of one after the
  // other.
  template <typename KeyOf>
  void expect(size_t count, KeyOf key_of) const {
    for (size_t i = 0; i < count; i++) __builtin_prefetch(&buckets_[bucket(key_of(i))]);
    for (size_t i = 0; i < count; i++)
      if (const Id id = buckets_[bucket(key_of(i))]; id != 0) __builtin_prefetch(&(*this)[id]);
  }

  // Puts in a record whose key is not there yet.
  Id add(Record record) {
    if (size_ >= buckets_.size()) split_bucket();
    const Id id = take();
    (*this)[id] = std::move(record);
    link(id);
    return id;
  }

  void erase(Id id) {
    Id *link = &buckets_[bucket((*this)[id].key())];
    while (*link != id) link = &(*this)[*link].next;
    *link = (*this)[id].next;
    (*this)[id] = Record{};
    (*this)[id].next = free_;
    free_ = id;
    size_--;
  }

  // Visits every id, in no order. The visitor leaves the table alone.
  template <typename Visitor>
  void for_each(Visitor visit) const {
    for (Id id : buckets_)
      for (; id != 0; id = (*this)[id].next) visit(id);
  }

 private:
  static_assert(std::is_trivially_destructible_v<Record>, "chunks are given back as they are");
  static constexpr size_t splits_ahead = 8;    // whose records are fetched before they are due
  static constexpr size_t first_buckets = 64;  // a power of two; small tables stay small
  static constexpr size_t chunk_records = std::bit_floor(4096 / sizeof(Record));  // no page has much room left over

  void swap(RecordTable &other) {
    std::swap(chunks_, other.chunks_);
    std::swap(buckets_, other.buckets_);
    std::swap(level_, other.level_);
    std::swap(split_, other.split_);
    std::swap(size_, other.size_);
    std::swap(end_, other.end_);
    std::swap(free_, other.free_);
  }

  static Record *make_chunk() {
    void *memory = take_object(chunk_records * sizeof(Record));
    if (memory == nullptr) throw std::bad_alloc();
    auto *chunk = static_cast<Record *>(memory);
    std::uninitialized_value_construct_n(chunk, chunk_records);
    return chunk;
  }

  Id take() {
    size_++;
    if (free_ != 0) {
      const Id id = free_;
      free_ = (*this)[id].next;
      return id;
    }
    if (end_ / chunk_records == chunks_.size()) chunks_.push_back(make_chunk());
    return end_++;
  }

  void link(Id id) {
    Id &into = buckets_[bucket((*this)[id].key())];
    (*this)[id].next = into;
    into = id;
  }

  size_t bucket(const Key &key) const {
    const uint64_t hash = key.hash();
    const size_t place = hash & (level_ - 1);
    return place < split_ ? hash & (2 * level_ - 1) : place;
  }

  void split_bucket() {
    if (const Id soon = buckets_[split_ + splits_ahead]; soon != 0) __builtin_prefetch(&(*this)[soon]);
    Id id = buckets_[split_];
    buckets_[split_] = 0;
    buckets_.push_back(0);
    if (++split_ == level_) {
      level_ *= 2;
      split_ = 0;
    }
    while (id != 0) {
      const Id next = (*this)[id].next;
      link(id);
      id = next;
    }
  }

  std::vector<Record *> chunks_;
  std::deque<Id> buckets_;  // grows without being copied
  size_t level_, split_ = 0, size_ = 0;
  Id end_ = 1, free_ = 0;
};

}  // namespace ref

#endif  // REFERENCE_RECORD_TABLE_H
