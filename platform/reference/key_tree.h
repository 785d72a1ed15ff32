// AVL trees of nodes that do not know their parents, so that a node is two words and what its owner needs: there may be
// a million of them. A step that changes a tree remembers the way down instead, and a walk finds the node after a key
// from the root again, which is also what lets it survive the removal of any node.
//
// A node has `uintptr_t links[2]`: its left and its right child. The two lowest bits of the left one tell which side is
// deeper, so nodes stand at multiples of four. An order is a function of a node that is negative, zero or positive as
// the key that is looked for comes before it, is its own or comes after it.
#ifndef REFERENCE_KEY_TREE_H
#define REFERENCE_KEY_TREE_H

#include <array>
#include <cstddef>
#include <cstdint>

namespace ref {

template <typename Node>
class KeyTree {
 public:
  // The node with the key; null: none.
  template <typename Order>
  static Node *find(Node *root, Order order) {
    Node *node = root;
    while (node != nullptr) {
      const int side = order(node);
      if (side == 0) return node;
      node = child(node, side > 0 ? right : left);
    }
    return nullptr;
  }

  // The first node at the key or after it, the first one after it, the first of all; null: none.
  template <typename Order>
  static Node *at_or_after(Node *root, Order order) {
    return first_where(root, [&order](const Node *node) { return order(node) <= 0; });
  }
  template <typename Order>
  static Node *after(Node *root, Order order) {
    return first_where(root, [&order](const Node *node) { return order(node) < 0; });
  }
  static Node *first(Node *root) {
    return first_where(root, [](const Node *) { return true; });
  }

  // The place of a key that comes in; the tree stays as it is between the two calls.
  class Way;
  // False: the key is there already.
  template <typename Order>
  static bool find_place(Node *&root, Order order, Way &way) {
    way.start(root);
    for (Node *node = root; node != nullptr;) {
      const int side = order(node);
      if (side == 0) return false;
      node = way.down(node, side > 0 ? right : left);
    }
    return true;
  }
  static void insert(Node *node, Way &way) {
    node->links[left] = node->links[right] = 0;
    way.put(way.length, node);
    for (size_t at = way.length; at-- > 0;) {
      Node *grown = way.nodes[at];
      const Side side = way.side(at);
      if (deeper(grown) == even) {
        set_deeper(grown, side);
        continue;
      }
      if (deeper(grown) == side)
        way.put(at, rotate(grown, side));
      else
        set_deeper(grown, even);
      return;
    }
  }

  // Takes the node with the key out, which `wanted` may refuse; null: nothing was taken out.
  template <typename Order, typename Wanted>
  static Node *erase(Node *&root, Order order, Wanted wanted) {
    Way way;
    if (find_place(root, order, way)) return nullptr;
    const size_t place = way.length;
    Node *node = way.below(place);
    if (!wanted(node)) return nullptr;
    if (child(node, left) == nullptr || child(node, right) == nullptr) {
      way.put(place, child(node, child(node, left) == nullptr ? right : left));
    } else {
      take_next(way, node, place);
    }
    shrink(way);
    return node;
  }

 private:
  enum Side : uint8_t { left = 0, right = 1, even = 2 };
  static Side opposite(Side side) { return side == left ? right : left; }

  // What the two lowest bits of the left link say: 0 neither side is deeper, 1 the left one, 2 the right one.
  static constexpr uintptr_t depth_bits = 3;
  static Side deeper(const Node *node) {
    const uintptr_t bits = node->links[left] & depth_bits;
    return bits == 0 ? even : static_cast<Side>(bits - 1);
  }
  static void set_deeper(Node *node, Side side) {
    node->links[left] = (node->links[left] & ~depth_bits) | (side == even ? 0u : side + 1u);
  }
  static Node *child(const Node *node, Side side) { return reinterpret_cast<Node *>(node->links[side] & ~depth_bits); }
  static void set_child(Node *node, Side side, const Node *below) {
    node->links[side] = (node->links[side] & depth_bits) | reinterpret_cast<uintptr_t>(below);
  }

  template <typename Passes>
  static Node *first_where(Node *node, Passes passes) {
    Node *found = nullptr;
    while (node != nullptr) {
      const bool here = passes(node);
      if (here) found = node;
      node = child(node, here ? left : right);
    }
    return found;
  }

  // One side of a node has become two levels deeper than the other: what stands in the node's place instead.
  static Node *rotate(Node *node, Side side) {
    const Side other = opposite(side);
    Node *top = child(node, side);
    if (deeper(top) == other) return rotate_twice(node, top, side);
    set_child(node, side, child(top, other));
    set_child(top, other, node);
    const bool was_even = deeper(top) == even;
    set_deeper(node, was_even ? side : even);
    set_deeper(top, was_even ? other : even);
    return top;
  }
  static Node *rotate_twice(Node *node, Node *middle, Side side) {
    const Side other = opposite(side);
    Node *top = child(middle, other);
    const Side was_deeper = deeper(top);
    set_child(middle, other, child(top, side));
    set_child(top, side, middle);
    set_child(node, side, child(top, other));
    set_child(top, other, node);
    set_deeper(node, was_deeper == side ? other : even);
    set_deeper(middle, was_deeper == other ? side : even);
    set_deeper(top, even);
    return top;
  }

  // The node after `node`, which has two children, takes its place.
  static void take_next(Way &way, Node *node, size_t place) {
    Node *next = way.down(node, right);
    while (child(next, left) != nullptr) next = way.down(next, left);
    way.put(way.length, child(next, right));
    next->links[left] = node->links[left];
    next->links[right] = node->links[right];
    way.put(place, next);
    way.nodes[place] = next;
  }

  // Something at the end of the way has become one level less deep.
  static void shrink(Way &way) {
    for (size_t at = way.length; at-- > 0;) {
      Node *node = way.nodes[at];
      const Side side = way.side(at), was_deeper = deeper(node);
      if (was_deeper == even) return set_deeper(node, opposite(side));
      if (was_deeper == side) {
        set_deeper(node, even);
        continue;
      }
      Node *top = rotate(node, was_deeper);
      way.put(at, top);
      if (deeper(top) != even) return;  // as deep as before
    }
  }
};

// The nodes from the root down, and which side each was left by. An AVL tree of 2^32 nodes is 46 deep.
template <typename Node>
class KeyTree<Node>::Way {
  friend class KeyTree;
  void start(Node *&its_root) { root = &its_root; }
  Node *down(Node *node, Side side) {
    nodes[length] = node;
    sides = (sides & ~(uint64_t{1} << length)) | uint64_t{side} << length;
    length++;
    return child(node, side);
  }
  Side side(size_t at) const { return static_cast<Side>(sides >> at & 1); }
  // What stands below the last of so many nodes; sets it.
  Node *below(size_t count) const { return count == 0 ? *root : child(nodes[count - 1], side(count - 1)); }
  void put(size_t count, Node *node) {
    if (count == 0)
      *root = node;
    else
      set_child(nodes[count - 1], side(count - 1), node);
  }

  Node **root = nullptr;
  size_t length = 0;
  uint64_t sides = 0;
  std::array<Node *, 64> nodes;
};

}  // namespace ref

#endif  // REFERENCE_KEY_TREE_H
