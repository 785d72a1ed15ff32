// Queues. A data queue is a list of small cells with an index from pointer to cell; both exist only while it is not
// empty.
#include "rqueue.h"

#include <list>
#include <new>
#include <unordered_map>

namespace {

struct Cell {
  void *data;
  uint32_t tag;
};

struct Index {
  std::list<Cell> cells;
  std::unordered_map<const void *, std::list<Cell>::iterator> places;
};

Index *index_of(const rqueue *queue) { return static_cast<Index *>(queue->index); }

// Keeps the first word and the count in step, and gives the index back when nothing is left.
void refresh(rqueue *queue) {
  Index *index = index_of(queue);
  queue->count = static_cast<uint32_t>(index->cells.size());
  if (queue->count != 0) {
    queue->head = index->cells.front().data;
    queue->tail = index->cells.back().data;
    return;
  }
  delete index;
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
  try {
    if (queue->index == nullptr) queue->index = new Index;
    Index *index = index_of(queue);
    index->cells.push_back({data, tag});
    index->places[data] = std::prev(index->cells.end());
  } catch (const std::bad_alloc &) {
    if (queue->index != nullptr) refresh(queue);
    return 0;
  }
  refresh(queue);
  return 1;
}

void *rdequeue_data(rqueue *queue, uint32_t *tag) {
  Index *index = index_of(queue);
  if (index == nullptr) return nullptr;
  const Cell first = index->cells.front();
  index->places.erase(first.data);
  index->cells.pop_front();
  refresh(queue);
  if (tag != nullptr) *tag = first.tag;
  return first.data;
}

int runqueue_data(rqueue *queue, void *data) {
  Index *index = index_of(queue);
  if (index == nullptr) return 0;
  const auto found = index->places.find(data);
  if (found == index->places.end()) return 0;
  index->cells.erase(found->second);
  index->places.erase(found);
  refresh(queue);
  return 1;
}

int rqueue_find_item(const rqueue *queue, const void *data) {
  const Index *index = index_of(queue);
  return index != nullptr && index->places.contains(data) ? 1 : 0;
}

void rqueue_visit_data(const rqueue *queue, void (*visit)(void *, uint32_t, void *), void *argument) {
  const Index *index = index_of(queue);
  if (index == nullptr) return;
  for (const Cell &cell : index->cells) visit(cell.data, cell.tag, argument);
}
