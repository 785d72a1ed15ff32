// Patricia trees as ordered maps of byte strings: the walks that the contract promises are by key and by prefix, which
// an ordered map gives and keeps through any deletion.
#include "platform/pt.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <new>

struct pt_attr {
  uint32_t key_bytes;
};

struct pt_node {
  std::array<uint8_t, PT_KEY_MAX> key{};
  void *data = nullptr;
};

namespace {
using Key = std::array<uint8_t, PT_KEY_MAX>;
}

struct pt_root {
  uint32_t key_bytes = 0;
  std::map<Key, pt_node> nodes;
};

namespace {

// Keys shorter than the longest are padded with zeros, which keeps the order of keys of one length.
Key padded(const void *bytes, uint32_t size) {
  Key key{};
  if (bytes != nullptr) std::memcpy(key.data(), bytes, std::min<size_t>(size, key.size()));
  return key;
}

pt_node *matching(pt_root *root, std::map<Key, pt_node>::iterator at, const Key &prefix, uint32_t prefix_bits) {
  if (at == root->nodes.end()) return nullptr;
  return std::memcmp(at->first.data(), prefix.data(), prefix_bits / 8) == 0 ? &at->second : nullptr;
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
    *root = new (std::nothrow) pt_root;
    if (*root == nullptr) return 1;
    (*root)->key_bytes = key_bytes;
  }
  try {
    const auto [at, added] = (*root)->nodes.try_emplace(padded(key, key_bytes));
    if (!added) return 1;
    at->second.key = at->first;
    at->second.data = data;
    return 0;
  } catch (const std::bad_alloc &) {
    drop_if_empty(root);
    return 1;
  }
}

int pt_delete(pt_attr *attr, pt_root **root, const void *key, uint32_t key_bits) {
  if (attr == nullptr || *root == nullptr || key_bits != (*root)->key_bytes * 8) return 1;
  if ((*root)->nodes.erase(padded(key, (*root)->key_bytes)) == 0) return 1;
  drop_if_empty(root);
  return 0;
}

void *pt_lookup(pt_root *root, const void *key, uint32_t key_bits, int) {
  if (root == nullptr || key_bits != root->key_bytes * 8) return nullptr;
  const auto found = root->nodes.find(padded(key, root->key_bytes));
  return found == root->nodes.end() ? nullptr : found->second.data;
}

pt_node *pt_get_first_node(pt_root *root, const void *prefix, uint32_t prefix_bits) {
  if (root == nullptr) return nullptr;
  const Key key = padded(prefix, prefix_bits / 8);
  return matching(root, root->nodes.lower_bound(key), key, prefix_bits);
}

pt_node *pt_get_next_node(pt_root *root, const void *last_key, uint32_t prefix_bits) {
  if (root == nullptr) return nullptr;
  const Key key = padded(last_key, root->key_bytes);
  return matching(root, root->nodes.upper_bound(key), key, prefix_bits);
}

const uint8_t *pt_node_key(const pt_node *node) { return node->key.data(); }
void *pt_node_data(const pt_node *node) { return node->data; }
