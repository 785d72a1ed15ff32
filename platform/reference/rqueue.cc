// Queues. A data queue is a sequence with an index by pointer; it exists only while the queue is not empty.
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

Cells *cells_of(const rqueue *queue) { return static_cast<Cells *>(queue->index); }

void *pointer_of(const Cell &cell) { return const_cast<void *>(cell.data); }

// Keeps the fields that callers read in step, and gives the cells back when none is left.
void refresh(rqueue *queue) {
  Cells *cells = cells_of(queue);
  queue->count = static_cast<uint32_t>(cells->size());
  if (queue->count != 0) {
    queue->head = pointer_of(cells->front());
    queue->tail = pointer_of(cells->back());
    return;
  }
  delete cells;
  queue->index = queue->head = queue->tail = nullptr;
}

void *&link_of(void *item) { return *static_cast<void **>(item); }

}  // namespace

void rqueue_init(rqueue *queue, uint32_t flag, uint32_t) { *queue = rqueue{nullptr, nullptr, 0, flag, nullptr}; }

uint32_t rqueue_count(const rqueue *queue) { return queue->count; }

void renqueue(rqueue *queue, void *item) {
  link_of(item) = nullptr;
  if (queue->tail != nullptr)
    link_of(queue->tail) = item;
  else
    queue->head = item;
  queue->tail = item;
  queue->count++;
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
    if (queue->tail == item) queue->tail = previous;
    link_of(item) = nullptr;
    queue->count--;
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
    if (queue->index == nullptr) queue->index = new Cells;
    cells_of(queue)->push_back({data, tag});
  } catch (const std::bad_alloc &) {
    added = 0;
  }
  if (queue->index != nullptr) refresh(queue);
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
