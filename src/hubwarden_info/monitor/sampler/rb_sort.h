// The sampler's sort: a red-black tree of item pointers ordered by a
// caller's three-way comparison, read back in order.
//
// The placement rule is part of the sampler's contract: an item goes left
// of a node only when compare(data, item, node) returns exactly -1; 0, 1
// and any other value send it right. Rotations keep the in-order sequence,
// so the result is that of a plain search tree with this rule: items that
// compare equal come out in the order they were inserted. The sampler
// inserts in ascending process number, which is where the tie-break by
// process number comes from.
//
// Insert-only; not thread-safe. Items are not owned and must outlive the
// tree.
#pragma once

#include <cstdint>
#include <vector>

namespace hubwarden {

template <typename T>
class RedBlackSort {
 public:
  using Compare = int (*)(const void* data, const T* a, const T* b);

  RedBlackSort(Compare compare, const void* data) : compare_(compare), data_(data) {}

  void reserve(size_t n) { nodes_.reserve(n); }

  void insert(const T* item) {
    int32_t parent = kNil;
    int32_t at = root_;
    bool left = false;
    while (at != kNil) {
      parent = at;
      left = compare_(data_, item, nodes_[at].item) == -1;
      at = left ? nodes_[at].left : nodes_[at].right;
    }
    int32_t z = static_cast<int32_t>(nodes_.size());
    nodes_.push_back(Node{item, kNil, kNil, parent, true});
    if (parent == kNil)
      root_ = z;
    else if (left)
      nodes_[parent].left = z;
    else
      nodes_[parent].right = z;
    repair_after_insert(z);
  }

  // Appends the items to *out in order.
  void in_order(std::vector<const T*>* out) const {
    std::vector<int32_t> stack;
    int32_t at = root_;
    while (at != kNil || !stack.empty()) {
      while (at != kNil) {
        stack.push_back(at);
        at = nodes_[at].left;
      }
      at = stack.back();
      stack.pop_back();
      out->push_back(nodes_[at].item);
      at = nodes_[at].right;
    }
  }

  size_t size() const { return nodes_.size(); }

  // The longest root-to-leaf path; tests use it to see the tree stays
  // balanced (at most 2 log2(n + 1)).
  size_t height() const { return height_of(root_); }

  // true when the red-black rules hold: black root, no red node with a red
  // child, and the same number of black nodes on every path.
  bool is_valid() const {
    if (root_ != kNil && nodes_[root_].red) return false;
    return black_height(root_) >= 0;
  }

 private:
  static constexpr int32_t kNil = -1;

  struct Node {
    const T* item;
    int32_t left;
    int32_t right;
    int32_t parent;
    bool red;
  };

  bool is_red(int32_t n) const { return n != kNil && nodes_[n].red; }

  void rotate_left(int32_t x) {
    int32_t y = nodes_[x].right;
    nodes_[x].right = nodes_[y].left;
    if (nodes_[y].left != kNil) nodes_[nodes_[y].left].parent = x;
    replace_child(x, y);
    nodes_[y].left = x;
    nodes_[x].parent = y;
  }

  void rotate_right(int32_t x) {
    int32_t y = nodes_[x].left;
    nodes_[x].left = nodes_[y].right;
    if (nodes_[y].right != kNil) nodes_[nodes_[y].right].parent = x;
    replace_child(x, y);
    nodes_[y].right = x;
    nodes_[x].parent = y;
  }

  // Puts y where x hangs from its parent.
  void replace_child(int32_t x, int32_t y) {
    int32_t p = nodes_[x].parent;
    nodes_[y].parent = p;
    if (p == kNil)
      root_ = y;
    else if (nodes_[p].left == x)
      nodes_[p].left = y;
    else
      nodes_[p].right = y;
  }

  void repair_after_insert(int32_t z) {
    while (is_red(nodes_[z].parent)) {
      int32_t p = nodes_[z].parent;
      int32_t g = nodes_[p].parent;  // exists: a red node is never the root
      bool parent_is_left = nodes_[g].left == p;
      int32_t uncle = parent_is_left ? nodes_[g].right : nodes_[g].left;
      if (is_red(uncle)) {
        nodes_[p].red = false;
        nodes_[uncle].red = false;
        nodes_[g].red = true;
        z = g;
        continue;
      }
      if (parent_is_left) {
        if (nodes_[p].right == z) {
          z = p;
          rotate_left(z);
          p = nodes_[z].parent;
        }
        nodes_[p].red = false;
        nodes_[g].red = true;
        rotate_right(g);
      } else {
        if (nodes_[p].left == z) {
          z = p;
          rotate_right(z);
          p = nodes_[z].parent;
        }
        nodes_[p].red = false;
        nodes_[g].red = true;
        rotate_left(g);
      }
    }
    nodes_[root_].red = false;
  }

  size_t height_of(int32_t n) const {
    if (n == kNil) return 0;
    size_t l = height_of(nodes_[n].left);
    size_t r = height_of(nodes_[n].right);
    return 1 + (l > r ? l : r);
  }

  // The black height below n, or -1 when the rules are broken there.
  int black_height(int32_t n) const {
    if (n == kNil) return 1;
    const Node& node = nodes_[n];
    if (node.red && (is_red(node.left) || is_red(node.right))) return -1;
    int l = black_height(node.left);
    int r = black_height(node.right);
    if (l < 0 || r < 0 || l != r) return -1;
    return l + (node.red ? 0 : 1);
  }

  Compare compare_;
  const void* data_;
  std::vector<Node> nodes_;
  int32_t root_ = kNil;
};

}  // namespace hubwarden
