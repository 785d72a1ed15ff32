// Trees without parents, from inside: mvpn-contract-test compares what they hold with the standard library's, which a
// tree out of balance would pass.
#include "platform/reference/key_tree.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <vector>

namespace {

struct Node {
  uintptr_t links[2] = {};
  uint32_t key = 0;
};
using Tree = ref::KeyTree<Node>;

struct Order {
  uint32_t key;
  int operator()(const Node *node) const { return key < node->key ? -1 : key > node->key ? 1 : 0; }
};

const Node *child(const Node *node, size_t side) {
  return reinterpret_cast<const Node *>(node->links[side] & ~uintptr_t{3});
}

// How deep it is; -1: some node is out of balance, or says something else of its sides than what they are.
int depth_of(const Node *node) {
  if (node == nullptr) return 0;
  const int left = depth_of(child(node, 0)), right = depth_of(child(node, 1));
  const int told = static_cast<int>(node->links[0] & 3);
  const int wanted = left == right ? 0 : left > right ? 1 : 2;
  if (left < 0 || right < 0 || std::abs(left - right) > 1 || told != wanted) return -1;
  return 1 + std::max(left, right);
}

void put(Node *&root, Node &node) {
  Tree::Way way;
  ASSERT_TRUE(Tree::find_place(root, Order{node.key}, way));
  Tree::insert(&node, way);
}

Node *take(Node *&root, uint32_t key) {
  return Tree::erase(root, Order{key}, [](const Node *) { return true; });
}

TEST(KeyTree, StaysBalanced) {
  std::mt19937 random(1);
  for (const size_t size : {1, 2, 3, 7, 20, 100, 1000}) {
    SCOPED_TRACE(size);
    std::vector<Node> nodes(size);
    std::set<uint32_t> model;
    Node *root = nullptr;
    for (uint32_t i = 0; i < size; i++) nodes[i].key = i;
    for (int step = 0; step < 4000; step++) {
      Node &node = nodes[random() % size];
      if (model.insert(node.key).second) {
        put(root, node);
      } else {
        model.erase(node.key);
        ASSERT_EQ(take(root, node.key), &node);
      }
      ASSERT_GE(depth_of(root), 0);
    }
    const Node *at = Tree::first(root);
    for (const uint32_t key : model) {
      ASSERT_NE(at, nullptr);
      ASSERT_EQ(at->key, key);
      at = Tree::after(root, Order{key});
    }
    EXPECT_EQ(at, nullptr);
  }
}

TEST(KeyTree, TakesKeysInOrderAndBackwards) {
  std::vector<Node> nodes(4096);
  for (uint32_t i = 0; i < nodes.size(); i++) nodes[i].key = i;
  for (const bool backwards : {false, true}) {
    Node *root = nullptr;
    if (backwards) std::reverse(nodes.begin(), nodes.end());
    for (Node &node : nodes) put(root, node);
    EXPECT_EQ(depth_of(root), 13);
    for (const Node &node : nodes) {
      ASSERT_NE(take(root, node.key), nullptr);
      if (node.key % 64 == 0) {
        ASSERT_GE(depth_of(root), 0);
      }
    }
    EXPECT_EQ(root, nullptr);
  }
}

TEST(KeyTree, LeavesWhatIsNotWantedAndWhatIsNotThere) {
  Node node, *root = nullptr;
  node.key = 5;
  put(root, node);
  EXPECT_EQ(take(root, 4), nullptr);
  EXPECT_EQ(Tree::erase(root, Order{5}, [](const Node *) { return false; }), nullptr);
  EXPECT_EQ(root, &node);
}

}  // namespace
