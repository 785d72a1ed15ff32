// AVL trees over Boost.Intrusive's algorithms. The node layout is the contract's, so node traits map it; keys are
// compared as bytes unless the tree has a comparison of its own. Keys of 8 to 16 bytes are compared as two numbers,
// their first and their last 8 bytes: where the first are equal, what both share does not matter.
#include "platform/ravl.h"

#include <boost/intrusive/avltree_algorithms.hpp>
#include <cstring>

#include "platform/reference/wire.h"
#include "platform/thread.h"

namespace {

struct NodeTraits {
  using node = ravl_node;
  using node_ptr = ravl_node *;
  using const_node_ptr = const ravl_node *;
  using balance = int32_t;
  static node_ptr get_parent(const_node_ptr n) { return n->parent; }
  static void set_parent(node_ptr n, node_ptr parent) { n->parent = parent; }
  static node_ptr get_left(const_node_ptr n) { return n->left; }
  static void set_left(node_ptr n, node_ptr left) { n->left = left; }
  static node_ptr get_right(const_node_ptr n) { return n->right; }
  static void set_right(node_ptr n, node_ptr right) { n->right = right; }
  static balance get_balance(const_node_ptr n) { return n->balance; }
  static void set_balance(node_ptr n, balance b) { n->balance = b; }
  static balance negative() { return -1; }
  static balance zero() { return 0; }
  static balance positive() { return 1; }
};
using Algorithms = boost::intrusive::avltree_algorithms<NodeTraits>;

const uint8_t *key_of(const ravl_tree *tree, const ravl_node *node) {
  return reinterpret_cast<const uint8_t *>(node) + tree->key_place;
}

bool bytes_less(const uint8_t *a, const uint8_t *b, size_t length) {
  constexpr size_t word = sizeof(uint64_t);
  if (length < word || length > 2 * word) return std::memcmp(a, b, length) < 0;
  const uint64_t first_a = ref::wire::load_be64(a), first_b = ref::wire::load_be64(b);
  if (first_a != first_b) return first_a < first_b;
  return ref::wire::load_be64(a + length - word) < ref::wire::load_be64(b + length - word);
}

// Compares keys, each given as a node or as bytes.
struct Less {
  const ravl_tree *tree;
  const uint8_t *bytes(const ravl_node *node) const { return key_of(tree, node); }
  const uint8_t *bytes(const void *key) const { return static_cast<const uint8_t *>(key); }
  template <typename A, typename B>
  bool operator()(A a, B b) const {
    if (tree->compare != nullptr) return tree->compare(bytes(a), bytes(b)) < 0;
    return bytes_less(bytes(a), bytes(b), tree->key_length);
  }
};

void *record_of(ravl_tree *tree, ravl_node *node) { return node == &tree->header ? nullptr : node; }

ravl_node *at_or_after(ravl_tree *tree, const void *key) {
  return Algorithms::lower_bound(&tree->header, key, Less{tree});
}

ravl_node *after(ravl_tree *tree, const void *key) { return Algorithms::upper_bound(&tree->header, key, Less{tree}); }

// Remembers where a walk is; null at its end.
ravl_node *stop_at(ravl_iterator *iterator, ravl_node *node) {
  if (node == &iterator->tree->header) return nullptr;
  std::memcpy(iterator->key, key_of(iterator->tree, node), iterator->tree->key_length);
  iterator->started = 1;
  return node;
}

void *in_range(ravl_iterator *iterator, ravl_node *node, const void *high) {
  ravl_tree *tree = iterator->tree;
  if (node == &tree->header || Less{tree}(high, static_cast<const ravl_node *>(node))) return nullptr;
  return stop_at(iterator, node);
}

}  // namespace

void ravl_init(ravl_tree *tree, uint32_t key_length, uint32_t key_place, ravl_compare compare) {
  std::memset(static_cast<void *>(tree), 0, sizeof *tree);
  tree->key_length = key_length;
  tree->key_place = key_place;
  tree->compare = compare;
  Algorithms::init_header(&tree->header);
}

int ravl_insert(ravl_tree *tree, void *record) {
  auto *node = static_cast<ravl_node *>(record);
  Algorithms::insert_commit_data place;
  const void *key = key_of(tree, node);
  if (!Algorithms::insert_unique_check(&tree->header, key, Less{tree}, place).second) return 0;
  Algorithms::insert_unique_commit(&tree->header, node, place);
  node->linked = 1;
  tree->count++;
  return 1;
}

void *ravl_lookup(ravl_tree *tree, const void *key) {
  return record_of(tree, Algorithms::find(&tree->header, key, Less{tree}));
}

int ravl_delete(ravl_tree *tree, void *record) {
  auto *node = static_cast<ravl_node *>(record);
  if (node->linked == 0) return 0;
  // A record of a tree that ravl_init emptied still looks linked.
  if (ravl_lookup(tree, key_of(tree, node)) != record) return 0;
  Algorithms::erase(&tree->header, node);
  node->parent = node->left = node->right = nullptr;
  node->linked = 0;
  tree->count--;
  return 1;
}

void *ravl_get_first_node(ravl_tree *tree, uint32_t) { return record_of(tree, Algorithms::begin_node(&tree->header)); }

void *ravl_get_next_node(ravl_tree *tree, void *record) {
  return record_of(tree, Algorithms::next_node(static_cast<ravl_node *>(record)));
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
  const ravl_node *node = stop_at(iterator, Algorithms::begin_node(&iterator->tree->header));
  return node != nullptr ? node->user_data : nullptr;
}

void *ravl_get_next_user_data(ravl_iterator *iterator) {
  if (iterator->started == 0) return ravl_get_first_user_data(iterator);
  const ravl_node *node = stop_at(iterator, after(iterator->tree, iterator->key));
  return node != nullptr ? node->user_data : nullptr;
}

void ravl_pre_sched_yield(ravl_iterator *) { tsp_sched_may_yield(); }
