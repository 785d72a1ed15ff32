// Transmit list: a circular list through a sentinel, with positions of its kinds and one version counter.
//
// An iterator is a member that stands behind the object it returned last, at every moment and not only after a commit:
// that object may be removed, moved or freed without the walk losing its place.
#include "platform/txlist.h"

#include <array>
#include <new>

struct txlist {
  txlist_obj head;  // sentinel
  uint32_t version = 0;
  std::array<size_t, TXLIST_KIND_MAX + 1> offsets{};
};

struct txlist_iterator {
  txlist_member member;
  txlist *list;  // there while the member is linked
};

namespace {

bool is_linked(const txlist_obj *obj) { return obj->next != nullptr; }

void unlink(txlist_obj *obj) {
  if (!is_linked(obj)) return;
  obj->prev->next = obj->next;
  obj->next->prev = obj->prev;
  obj->next = obj->prev = nullptr;
}

void link_after(txlist_obj *obj, txlist_obj *place) {
  obj->prev = place;
  obj->next = place->next;
  place->next->prev = obj;
  place->next = obj;
}

void init(txlist_obj *obj, uint8_t kind, bool member) {
  *obj = txlist_obj{};
  obj->kind = kind;
  obj->is_member = member ? 1 : 0;
}

// A member's version is that of what stands before it.
void place_member(txlist *list, txlist_obj *member, txlist_obj *place) {
  unlink(member);
  link_after(member, place);
  member->version = place == &list->head ? 0 : place->version;
}

bool is_iterator(const txlist_obj *obj) { return obj->is_member != 0 && obj->kind == TXLIST_KIND_ITERATOR; }

}  // namespace

txlist *txlist_create(uint32_t, uint32_t) {
  auto *list = new (std::nothrow) txlist;
  if (list == nullptr) return nullptr;
  list->head = txlist_obj{};
  list->head.next = list->head.prev = &list->head;
  return list;
}

void txlist_destroy(txlist *list) {
  if (list == nullptr) return;
  while (list->head.next != &list->head) unlink(list->head.next);
  delete list;
}

void txlist_register_kind(txlist *list, uint8_t kind, size_t offset) {
  if (kind <= TXLIST_KIND_MAX) list->offsets[kind] = offset;
}

void txlist_init_element(txlist_element *element, uint8_t kind) { init(&element->obj, kind, false); }
void txlist_init_member(txlist_member *member, uint8_t kind) { init(&member->obj, kind, true); }
int txlist_element_is_linked(const txlist_element *element) { return is_linked(&element->obj) ? 1 : 0; }

void txlist_insert_element_at_tail(txlist *list, txlist_element *element) {
  unlink(&element->obj);
  link_after(&element->obj, list->head.prev);
  element->obj.version = ++list->version;
}

void txlist_remove_element(txlist *, txlist_element *element) { unlink(&element->obj); }

void txlist_insert_member_at_head(txlist *list, txlist_member *member) {
  place_member(list, &member->obj, &list->head);
}

void txlist_insert_member_after_node(txlist *list, txlist_member *member, txlist_obj *node) {
  if (node != &member->obj) place_member(list, &member->obj, node);
}

void txlist_insert_member_before_node(txlist *list, txlist_member *member, txlist_obj *node) {
  if (node == &member->obj) return;
  unlink(&member->obj);  // it may be what stands before the node
  place_member(list, &member->obj, node->prev);
}

void txlist_remove_member(txlist *, txlist_member *member) { unlink(&member->obj); }

txlist_obj *txlist_get_next_node(txlist *list, txlist_obj *node) {
  if (node != nullptr && !is_linked(node)) return nullptr;  // it was removed
  txlist_obj *next = node != nullptr ? node->next : list->head.next;
  while (next != &list->head && is_iterator(next)) next = next->next;
  return next == &list->head ? nullptr : next;
}

txlist_obj *txlist_member_to_obj(txlist_member *member) { return &member->obj; }

void *txlist_obj_to_ptr(txlist *list, txlist_obj *obj) {
  return reinterpret_cast<uint8_t *>(obj) - list->offsets[obj->kind];
}

int txlist_obj_is_element(const txlist_obj *obj) { return obj->is_member == 0 ? 1 : 0; }
uint8_t txlist_obj_get_kind(const txlist_obj *obj) { return obj->kind; }
uint32_t txlist_get_version(const txlist *list) { return list->version; }
uint32_t txlist_get_member_version(const txlist_member *member) { return member->obj.version; }
uint32_t txlist_get_obj_version(const txlist_obj *obj) { return obj->version; }

txlist_iterator *txlist_iterator_create(txlist *list) {
  auto *iterator = new (std::nothrow) txlist_iterator;
  if (iterator == nullptr) return nullptr;
  iterator->list = list;
  init(&iterator->member.obj, TXLIST_KIND_ITERATOR, true);
  place_member(list, &iterator->member.obj, &list->head);
  return iterator;
}

txlist_obj *txlist_iterator_next(txlist_iterator *iterator) {
  if (!is_linked(&iterator->member.obj)) return nullptr;  // the list was destroyed
  txlist_obj *next = txlist_get_next_node(iterator->list, &iterator->member.obj);
  if (next != nullptr) place_member(iterator->list, &iterator->member.obj, next);
  return next;
}

// The iterator stands there already.
void txlist_iterator_commit(txlist_iterator *) {}

void txlist_iterator_remove(txlist_iterator *iterator) {
  if (iterator == nullptr) return;
  unlink(&iterator->member.obj);
  delete iterator;
}
