// Queues. A data queue is a sequence with an index by pointer; it exists only while the queue is not empty, and its
// address has the lowest bit set where the queue keeps it, which tells the two forms apart.
#include "platform/rqueue.h"

#include <boost/multi_index/hashed_index.hpp>
#include <boost/multi_index/member.hpp>
#include <boost/multi_index/sequenced_index.hpp>
#include <boost/multi_index_container.hpp>
#include <new>

namespace {

namespace mi = boost::multi_index;

struct Cell {
  const void *data;
  uint32_t tag;
};

using Cells = mi::multi_index_container<
    Cell, mi::indexed_by<mi::sequenced<>, mi::hashed_non_unique<mi::member<Cell, const void *, &Cell::data>>>>;

constexpr uintptr_t is_data = 1;

// Null: a linking queue, or an empty one.
Cells *cells_of(const rqueue *queue) {
  return (queue->rest & is_data) != 0 ? reinterpret_cast<Cells *>(queue->rest - is_data) : nullptr;
}

void *pointer_of(const Cell &cell) { return const_cast<void *>(cell.data); }

// Keeps the head in step, and gives the cells back when none is left.
void refresh(rqueue *queue) {
  Cells *cells = cells_of(queue);
  if (!cells->empty()) {
    queue->head = pointer_of(cells->front());
    return;
  }
  delete cells;
  *queue = {};
}

void *tail_of(const rqueue *queue) { return reinterpret_cast<void *>(queue->rest); }
void set_tail(rqueue *queue, void *item) { queue->rest = reinterpret_cast<uintptr_t>(item); }

void *&link_of(void *item) { return *static_cast<void **>(item); }

}  // namespace

void rqueue_init(rqueue *queue, uint32_t, uint32_t) { *queue = {}; }

uint32_t rqueue_count(const rqueue *queue) {
  if (const Cells *cells = cells_of(queue)) return static_cast<uint32_t>(cells->size());
  uint32_t count = 0;
  for (void *at = queue->head; at != nullptr; at = link_of(at)) count++;
  return count;
}

void renqueue(rqueue *queue, void *item) {
  link_of(item) = nullptr;
  if (queue->head != nullptr)
    link_of(tail_of(queue)) = item;
  else
    queue->head = item;
  set_tail(queue, item);
}

void *rdequeue(rqueue *queue) {
  void *item = queue->head;
  if (item != nullptr) runqueue(queue, item);
  return item;
}

int runqueue(rqueue *queue, void *item) {
  void *previous = nullptr;
  for (void *at = queue->head; at != nullptr; previous = at, at = link_of(at)) {
    if (at != item) continue;
    if (previous != nullptr)
      link_of(previous) = link_of(item);
    else
      queue->head = link_of(item);
    if (tail_of(queue) == item) set_tail(queue, previous);
    link_of(item) = nullptr;
    return 1;
  }
  return 0;
}

void *rqueue_next(const rqueue *queue, const void *item) {
  return item != nullptr ? *static_cast<void *const *>(item) : queue->head;
}

int renqueue_data(rqueue *queue, void *data, uint32_t tag) {
  int added = 1;
  try {
    if (queue->rest == 0) queue->rest = reinterpret_cast<uintptr_t>(new Cells) | is_data;
    cells_of(queue)->push_back({data, tag});
  } catch (const std::bad_alloc &) {
    added = 0;
  }
  if (queue->rest != 0) refresh(queue);
  return added;
}

void *rdequeue_data(rqueue *queue, uint32_t *tag) {
  Cells *cells = cells_of(queue);
  if (cells == nullptr) return nullptr;
  const Cell first = cells->front();
  cells->pop_front();
  refresh(queue);
  if (tag != nullptr) *tag = first.tag;
  return pointer_of(first);
}

int runqueue_data(rqueue *queue, void *data) {
  Cells *cells = cells_of(queue);
  if (cells == nullptr) return 0;
  auto &by_pointer = cells->get<1>();
  const auto found = by_pointer.find(data);
  if (found == by_pointer.end()) return 0;
  by_pointer.erase(found);
  refresh(queue);
  return 1;
}

int rqueue_find_item(const rqueue *queue, const void *data) {
  const Cells *cells = cells_of(queue);
  return cells != nullptr && cells->get<1>().count(data) > 0 ? 1 : 0;
}

void rqueue_visit_data(const rqueue *queue, void (*visit)(void *, uint32_t, void *), void *argument) {
  const Cells *cells = cells_of(queue);
  if (cells == nullptr) return;
  for (const Cell &cell : *cells) visit(pointer_of(cell), cell.tag, argument);
}
