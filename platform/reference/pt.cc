// Patricia trees as ordered trees of numbers: the walks that the contract promises are by key and by prefix, which any
// order of the keys gives and keeps through every deletion. A key is one number or two in network byte order, as long
// as it is, so that a comparison is one of numbers and a node has no more of it than its tree's keys have; a node is an
// object that never moves.
#include "platform/pt.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <new>

#include "platform/reference/key_tree.h"
#include "platform/reference/object_pages.h"
#include "platform/reference/wire.h"

struct pt_attr {
  uint32_t key_bytes;
};

struct pt_node {
  uintptr_t links[2];
  void *data;
  // The key's bytes follow, padded with zeros to whole numbers.
  const uint8_t *key() const { return reinterpret_cast<const uint8_t *>(this + 1); }
};

struct pt_root {
  uint32_t key_bytes;
  pt_node *nodes;
};

namespace {

using Tree = ref::KeyTree<pt_node>;

constexpr size_t number_octets = sizeof(uint64_t);
static_assert(PT_KEY_MAX == 2 * number_octets, "a key is one number or two");

bool is_one_number(uint32_t key_bytes) { return key_bytes <= number_octets; }

// Octets of a node.
size_t node_octets(uint32_t key_bytes) {
  return sizeof(pt_node) + (is_one_number(key_bytes) ? number_octets : 2 * number_octets);
}

// A key that stands outside of the tree, and where it stands beside those in it. Keys shorter than their numbers are
// padded with zeros, which keeps the order of keys of one length.
class Key {
 public:
  Key(const void *from, uint32_t size, uint32_t key_bytes) : one_number_(is_one_number(key_bytes)) {
    if (from != nullptr) std::memcpy(bytes_, from, std::min<size_t>(size, sizeof bytes_));
    high_ = ref::wire::load_be64(bytes_);
    low_ = ref::wire::load_be64(bytes_ + number_octets);
  }
  int operator()(const pt_node *node) const {
    const uint64_t high = ref::wire::load_be64(node->key());
    if (high_ != high) return high_ < high ? -1 : 1;
    if (one_number_) return 0;
    const uint64_t low = ref::wire::load_be64(node->key() + number_octets);
    return low_ < low ? -1 : low_ > low ? 1 : 0;
  }
  const uint8_t *bytes() const { return bytes_; }

 private:
  uint8_t bytes_[PT_KEY_MAX] = {};
  uint64_t high_, low_;
  bool one_number_;
};

pt_node *make_node(const Key &key, uint32_t key_bytes, void *data) {
  const size_t octets = node_octets(key_bytes);
  void *object = ref::take_object(octets);
  if (object == nullptr) return nullptr;
  auto *node = new (object) pt_node{{}, data};
  std::memcpy(node + 1, key.bytes(), octets - sizeof(pt_node));
  return node;
}

pt_node *matching(pt_node *node, const Key &prefix, uint32_t prefix_bits) {
  const bool matches = node != nullptr && std::memcmp(node->key(), prefix.bytes(), prefix_bits / 8) == 0;
  return matches ? node : nullptr;
}

// An empty tree is a null root.
void drop_if_empty(pt_root **root) {
  if ((*root)->nodes != nullptr) return;
  delete *root;
  *root = nullptr;
}

}  // namespace

pt_attr *pt_attr_create(uint32_t, uint32_t, uint32_t key_bytes) {
  static std::array<pt_attr, PT_KEY_MAX + 1> attributes;
  if (key_bytes == 0 || key_bytes > PT_KEY_MAX) return nullptr;
  attributes[key_bytes].key_bytes = key_bytes;
  return &attributes[key_bytes];
}

int pt_add(pt_attr *attr, pt_root **root, uint32_t key_bytes, const void *key, uint32_t key_bits, void *data) {
  if (attr == nullptr || key_bytes != attr->key_bytes || key_bits != key_bytes * 8) return 1;
  if (*root == nullptr) {
    *root = new (std::nothrow) pt_root{key_bytes, nullptr};
    if (*root == nullptr) return 1;
  }
  const Key wanted(key, key_bytes, key_bytes);
  Tree::Way way;
  if (!Tree::find_place((*root)->nodes, wanted, way)) return 1;
  pt_node *node = make_node(wanted, key_bytes, data);
  if (node != nullptr) Tree::insert(node, way);
  drop_if_empty(root);
  return node != nullptr ? 0 : 1;
}

int pt_delete(pt_attr *attr, pt_root **root, const void *key, uint32_t key_bits) {
  if (attr == nullptr || *root == nullptr || key_bits != (*root)->key_bytes * 8) return 1;
  const Key wanted(key, (*root)->key_bytes, (*root)->key_bytes);
  pt_node *node = Tree::erase((*root)->nodes, wanted, [](const pt_node *) { return true; });
  if (node == nullptr) return 1;
  ref::give_object(node);
  drop_if_empty(root);
  return 0;
}

void *pt_lookup(pt_root *root, const void *key, uint32_t key_bits, int) {
  if (root == nullptr || key_bits != root->key_bytes * 8) return nullptr;
  const pt_node *found = Tree::find(root->nodes, Key(key, root->key_bytes, root->key_bytes));
  return found != nullptr ? found->data : nullptr;
}

pt_node *pt_get_first_node(pt_root *root, const void *prefix, uint32_t prefix_bits) {
  if (root == nullptr) return nullptr;
  const Key key(prefix, prefix_bits / 8, root->key_bytes);
  return matching(Tree::at_or_after(root->nodes, key), key, prefix_bits);
}

pt_node *pt_get_next_node(pt_root *root, const void *last_key, uint32_t prefix_bits) {
  if (root == nullptr) return nullptr;
  const Key key(last_key, root->key_bytes, root->key_bytes);
  return matching(Tree::after(root->nodes, key), key, prefix_bits);
}

const uint8_t *pt_node_key(const pt_node *node) { return node->key(); }
void *pt_node_data(const pt_node *node) { return node->data; }
