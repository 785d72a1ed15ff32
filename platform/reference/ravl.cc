// AVL trees of the contract's nodes. Keys are compared as bytes unless the tree has a comparison of its own. Keys of 8
// to 16 bytes are compared as two numbers, their first and their last 8 bytes: where the first are equal, what both
// share does not matter.
#include "platform/ravl.h"

#include <cstring>

#include "platform/reference/key_tree.h"
#include "platform/reference/wire.h"
#include "platform/thread.h"

namespace {

using Tree = ref::KeyTree<ravl_node>;

const uint8_t *key_of(const ravl_tree *tree, const ravl_node *node) {
  return reinterpret_cast<const uint8_t *>(node) + tree->key_place;
}

int compare_numbers(uint64_t a, uint64_t b) { return a < b ? -1 : a > b ? 1 : 0; }

int compare_bytes(const uint8_t *a, const uint8_t *b, size_t length) {
  constexpr size_t word = sizeof(uint64_t);
  if (length < word || length > 2 * word) return std::memcmp(a, b, length);
  const uint64_t first_a = ref::wire::load_be64(a), first_b = ref::wire::load_be64(b);
  if (first_a != first_b) return compare_numbers(first_a, first_b);
  return compare_numbers(ref::wire::load_be64(a + length - word), ref::wire::load_be64(b + length - word));
}

// Where a key stands beside those of nodes.
struct Order {
  const ravl_tree *tree;
  const uint8_t *key;
  Order(const ravl_tree *its_tree, const void *its_key) : tree(its_tree), key(static_cast<const uint8_t *>(its_key)) {}
  int operator()(const ravl_node *node) const {
    if (tree->compare != nullptr) return tree->compare(key, key_of(tree, node));
    return compare_bytes(key, key_of(tree, node), tree->key_length);
  }
};

ravl_node *at_or_after(const ravl_tree *tree, const void *key) {
  return Tree::at_or_after(tree->root, Order(tree, key));
}

ravl_node *after(const ravl_tree *tree, const void *key) { return Tree::after(tree->root, Order(tree, key)); }

// Remembers where a walk is; null at its end.
ravl_node *stop_at(ravl_iterator *iterator, ravl_node *node) {
  if (node == nullptr) return nullptr;
  std::memcpy(iterator->key, key_of(iterator->tree, node), iterator->tree->key_length);
  iterator->started = 1;
  return node;
}

void *in_range(ravl_iterator *iterator, ravl_node *node, const void *high) {
  if (node == nullptr || Order(iterator->tree, high)(node) < 0) return nullptr;
  return stop_at(iterator, node);
}

}  // namespace

void ravl_init(ravl_tree *tree, uint32_t key_length, uint32_t key_place, ravl_compare compare) {
  *tree = ravl_tree{nullptr, key_length, key_place, compare, 0};
}

int ravl_insert(ravl_tree *tree, void *record) {
  auto *node = static_cast<ravl_node *>(record);
  Tree::Way way;
  if (!Tree::find_place(tree->root, Order(tree, key_of(tree, node)), way)) return 0;
  Tree::insert(node, way);
  tree->count++;
  return 1;
}

void *ravl_lookup(ravl_tree *tree, const void *key) { return Tree::find(tree->root, Order(tree, key)); }

int ravl_delete(ravl_tree *tree, void *record) {
  auto *node = static_cast<ravl_node *>(record);
  // Another record may stand under its key.
  const auto is_it = [node](const ravl_node *found) { return found == node; };
  if (Tree::erase(tree->root, Order(tree, key_of(tree, node)), is_it) == nullptr) return 0;
  tree->count--;
  return 1;
}

void *ravl_get_first_node(ravl_tree *tree, uint32_t) { return Tree::first(tree->root); }

void *ravl_get_next_node(ravl_tree *tree, void *record) {
  return after(tree, key_of(tree, static_cast<ravl_node *>(record)));
}

void *ravl_get_first_node_in_range(ravl_tree *tree, const void *low, const void *high, ravl_iterator *iterator) {
  ravl_init_iterator(iterator, tree);
  return in_range(iterator, at_or_after(tree, low), high);
}

void *ravl_get_next_node_in_range(ravl_tree *tree, const void *low, const void *high, ravl_iterator *iterator) {
  if (iterator->started == 0) return in_range(iterator, at_or_after(tree, low), high);
  return in_range(iterator, after(tree, iterator->key), high);
}

void ravl_init_iterator(ravl_iterator *iterator, ravl_tree *tree) {
  std::memset(iterator, 0, sizeof *iterator);
  iterator->tree = tree;
}

void *ravl_get_first_user_data(ravl_iterator *iterator) {
  const ravl_node *node = stop_at(iterator, Tree::first(iterator->tree->root));
  return node != nullptr ? node->user_data : nullptr;
}

void *ravl_get_next_user_data(ravl_iterator *iterator) {
  if (iterator->started == 0) return ravl_get_first_user_data(iterator);
  const ravl_node *node = stop_at(iterator, after(iterator->tree, iterator->key));
  return node != nullptr ? node->user_data : nullptr;
}

void ravl_pre_sched_yield(ravl_iterator *) { tsp_sched_may_yield(); }
