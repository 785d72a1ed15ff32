// Patricia trees as ordered trees of numbers: the walks that the contract promises are by key and by prefix, which any
// order of the keys gives and keeps through every deletion. A key is two numbers in network byte order, so that a
// comparison is one of numbers; a node is an object that never moves.
#include "platform/pt.h"

#include <algorithm>
#include <array>
#include <boost/intrusive/set.hpp>
#include <cstring>
#include <new>

#include "platform/reference/object_pages.h"
#include "platform/reference/wire.h"

struct pt_attr {
  uint32_t key_bytes;
};

namespace {

namespace bi = boost::intrusive;
using Hook = bi::set_base_hook<bi::optimize_size<true>, bi::link_mode<bi::normal_link>>;

// Keys shorter than the longest are padded with zeros, which keeps the order of keys of one length.
struct Key {
  Key(const void *from, uint32_t size) {
    if (from != nullptr) std::memcpy(bytes, from, std::min<size_t>(size, sizeof bytes));
  }
  bool operator<(const Key &other) const {
    const uint64_t high = ref::wire::load_be64(bytes), other_high = ref::wire::load_be64(other.bytes);
    if (high != other_high) return high < other_high;
    return ref::wire::load_be64(bytes + 8) < ref::wire::load_be64(other.bytes + 8);
  }
  uint8_t bytes[PT_KEY_MAX] = {};
};
static_assert(PT_KEY_MAX == 16, "a key is two numbers");

}  // namespace

struct pt_node : Hook {
  pt_node(const Key &its_key, void *record) : key(its_key), data(record) {}
  Key key;
  void *data;
};

namespace {

struct KeyOf {
  using type = Key;
  const Key &operator()(const pt_node &node) const { return node.key; }
};

using Nodes = bi::set<pt_node, bi::base_hook<Hook>, bi::key_of_value<KeyOf>, bi::constant_time_size<false>>;

}  // namespace

struct pt_root {
  uint32_t key_bytes;
  Nodes nodes;
};

namespace {

pt_node *matching(pt_root *root, const Nodes::iterator &at, const Key &prefix, uint32_t prefix_bits) {
  if (at == root->nodes.end()) return nullptr;
  return std::memcmp(at->key.bytes, prefix.bytes, prefix_bits / 8) == 0 ? &*at : nullptr;
}

// An empty tree is a null root.
void drop_if_empty(pt_root **root) {
  if (!(*root)->nodes.empty()) return;
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
    *root = new (std::nothrow) pt_root{key_bytes, {}};
    if (*root == nullptr) return 1;
  }
  Nodes::insert_commit_data place;
  const Key wanted(key, key_bytes);
  if (!(*root)->nodes.insert_check(wanted, place).second) return 1;
  void *object = ref::take_object(sizeof(pt_node));
  if (object != nullptr) (*root)->nodes.insert_commit(*new (object) pt_node(wanted, data), place);
  drop_if_empty(root);
  return object != nullptr ? 0 : 1;
}

int pt_delete(pt_attr *attr, pt_root **root, const void *key, uint32_t key_bits) {
  if (attr == nullptr || *root == nullptr || key_bits != (*root)->key_bytes * 8) return 1;
  const auto found = (*root)->nodes.find(Key(key, (*root)->key_bytes));
  if (found == (*root)->nodes.end()) return 1;
  (*root)->nodes.erase_and_dispose(found, [](pt_node *node) { ref::give_object(node); });
  drop_if_empty(root);
  return 0;
}

void *pt_lookup(pt_root *root, const void *key, uint32_t key_bits, int) {
  if (root == nullptr || key_bits != root->key_bytes * 8) return nullptr;
  const auto found = root->nodes.find(Key(key, root->key_bytes));
  return found == root->nodes.end() ? nullptr : found->data;
}

pt_node *pt_get_first_node(pt_root *root, const void *prefix, uint32_t prefix_bits) {
  if (root == nullptr) return nullptr;
  const Key key(prefix, prefix_bits / 8);
  return matching(root, root->nodes.lower_bound(key), key, prefix_bits);
}

pt_node *pt_get_next_node(pt_root *root, const void *last_key, uint32_t prefix_bits) {
  if (root == nullptr) return nullptr;
  const Key key(last_key, root->key_bytes);
  return matching(root, root->nodes.upper_bound(key), key, prefix_bits);
}

const uint8_t *pt_node_key(const pt_node *node) { return node->key.bytes; }
void *pt_node_data(const pt_node *node) { return node->data; }
