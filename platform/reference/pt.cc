// Patricia trees as B-trees of numbers: the walks that the contract promises are by key and by prefix, which any order
// of the keys gives and keeps through every deletion. A step down a tree of single nodes is a wait for memory; a node
// of a B-tree has some ten keys beside each other, so that a tree of a hundred routes is two steps deep and takes half
// the memory. A key is one number or two in network byte order, and a comparison is one of numbers.
#include "platform/pt.h"

#include <absl/container/btree_set.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <new>

#include "platform/reference/object_pages.h"
#include "platform/reference/wire.h"

struct pt_attr {
  uint32_t key_bytes;
};

struct pt_node {
  void *data;  // the key follows
};

struct pt_root {
  uint32_t key_bytes;
};

namespace {

constexpr size_t short_key = 8;  // of one number
static_assert(PT_KEY_MAX == 16, "a long key is two numbers");

// Keys shorter than their room are padded with zeros, which keeps the order of keys of one length.
template <size_t Room>
struct Key {
  Key(const void *from, uint32_t size) {
    if (from != nullptr) std::memcpy(bytes, from, std::min<size_t>(size, Room));
  }
  bool operator<(const Key &other) const {
    for (size_t at = 0; at < Room; at += short_key) {
      const uint64_t number = ref::wire::load_be64(bytes + at), others = ref::wire::load_be64(other.bytes + at);
      if (number != others || at + short_key == Room) return number < others;
    }
    return false;
  }
  uint8_t bytes[Room] = {};
};

template <size_t Room>
struct Node : pt_node {
  Node(const Key<Room> &its_key, void *its_data) : pt_node{its_data}, key(its_key) {}
  Key<Room> key;
};

template <size_t Room>
struct InOrder {
  using is_transparent = void;
  static const Key<Room> &key_of(const Node<Room> &node) { return node.key; }
  static const Key<Room> &key_of(const Key<Room> &key) { return key; }
  template <typename A, typename B>
  bool operator()(const A &a, const B &b) const {
    return key_of(a) < key_of(b);
  }
};

// Out of the pages that all records share.
template <typename T>
struct FromPages {
  using value_type = T;
  FromPages() = default;
  template <typename Other>
  explicit FromPages(const FromPages<Other> &) {}
  T *allocate(size_t count) {
    void *memory = ref::take_object(count * sizeof(T));
    if (memory == nullptr) throw std::bad_alloc();
    return static_cast<T *>(memory);
  }
  void deallocate(T *memory, size_t) { ref::give_object(memory); }
  bool operator==(const FromPages &) const { return true; }
};

template <size_t Room>
struct Tree : pt_root {
  using Nodes = absl::btree_set<Node<Room>, InOrder<Room>, FromPages<Node<Room>>>;
  explicit Tree(uint32_t its_key_bytes) : pt_root{its_key_bytes} {}

  static Key<Room> key(const void *from, uint32_t size) { return {from, size}; }

  // The node there when its key begins with these bits.
  pt_node *matching(typename Nodes::iterator at, const Key<Room> &prefix, uint32_t prefix_bits) {
    if (at == nodes.end() || std::memcmp(at->key.bytes, prefix.bytes, prefix_bits / 8) != 0) return nullptr;
    return const_cast<Node<Room> *>(&*at);
  }
  Nodes nodes;
};

// Does something with a tree of either sort.
template <typename Do>
auto with(pt_root *root, Do something) {
  if (root->key_bytes <= short_key) return something(static_cast<Tree<short_key> &>(*root));
  return something(static_cast<Tree<PT_KEY_MAX> &>(*root));
}

pt_root *make_tree(uint32_t key_bytes) {
  if (key_bytes <= short_key) return new (std::nothrow) Tree<short_key>(key_bytes);
  return new (std::nothrow) Tree<PT_KEY_MAX>(key_bytes);
}

// An empty tree is a null root.
void drop_if_empty(pt_root **root) {
  with(*root, [root](auto &tree) {
    if (!tree.nodes.empty()) return;
    delete &tree;
    *root = nullptr;
  });
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
  if (*root == nullptr) *root = make_tree(key_bytes);
  if (*root == nullptr) return 1;
  const bool added = with(*root, [&](auto &tree) {
    try {
      return tree.nodes.emplace(tree.key(key, key_bytes), data).second;
    } catch (const std::bad_alloc &) {
      return false;
    }
  });
  drop_if_empty(root);
  return added ? 0 : 1;
}

int pt_delete(pt_attr *attr, pt_root **root, const void *key, uint32_t key_bits) {
  if (attr == nullptr || *root == nullptr || key_bits != (*root)->key_bytes * 8) return 1;
  const bool deleted = with(*root, [&](auto &tree) {
    const auto found = tree.nodes.find(tree.key(key, tree.key_bytes));
    if (found == tree.nodes.end()) return false;
    tree.nodes.erase(found);
    return true;
  });
  drop_if_empty(root);
  return deleted ? 0 : 1;
}

void *pt_lookup(pt_root *root, const void *key, uint32_t key_bits, int) {
  if (root == nullptr || key_bits != root->key_bytes * 8) return nullptr;
  return with(root, [key](auto &tree) -> void * {
    const auto found = tree.nodes.find(tree.key(key, tree.key_bytes));
    return found == tree.nodes.end() ? nullptr : found->data;
  });
}

pt_node *pt_get_first_node(pt_root *root, const void *prefix, uint32_t prefix_bits) {
  if (root == nullptr) return nullptr;
  return with(root, [prefix, prefix_bits](auto &tree) {
    const auto key = tree.key(prefix, prefix_bits / 8);
    return tree.matching(tree.nodes.lower_bound(key), key, prefix_bits);
  });
}

pt_node *pt_get_next_node(pt_root *root, const void *last_key, uint32_t prefix_bits) {
  if (root == nullptr) return nullptr;
  return with(root, [last_key, prefix_bits](auto &tree) {
    const auto key = tree.key(last_key, tree.key_bytes);
    return tree.matching(tree.nodes.upper_bound(key), key, prefix_bits);
  });
}

const uint8_t *pt_node_key(const pt_node *node) { return reinterpret_cast<const uint8_t *>(node + 1); }
void *pt_node_data(const pt_node *node) { return node->data; }
