// The ordered sequence under every table and view: a treap whose nodes count their subtrees, so
// that insertion, removal, position of a node and node at a position all cost O(log n) expected.
// Nodes are intrusive (a row entry or a view node derives from TreeNode) and owned by the caller;
// the tree only links them.
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

namespace adp::mapi {

struct TreeNode {
  TreeNode* left = nullptr;
  TreeNode* right = nullptr;
  TreeNode* parent = nullptr;
  uint32_t size = 1;
  uint32_t priority = 0;
};

class OrderTree {
 public:
  size_t Size() const { return m_root ? m_root->size : 0; }
  bool Empty() const { return m_root == nullptr; }

  // Links n in; before(x) tells whether node x comes before n. O(log n).
  template <class Before> void Insert(TreeNode* n, Before before) {
    Reset(n);
    TreeNode* l = nullptr;
    TreeNode* r = nullptr;
    Split(m_root, before, l, r);
    SetRoot(Merge(Merge(l, n), r));
  }
  // Unlinks a node of this tree. O(log n).
  void Erase(TreeNode* n);
  // Replaces the content with nodes already in order. O(n).
  void Build(const std::vector<TreeNode*>& inOrder);
  // Forgets every node (the caller owns them).
  void Clear() { m_root = nullptr; }

  // First node that does not come before the probe: before(x) as for Insert.
  template <class Before> TreeNode* LowerBound(Before before) const {
    TreeNode* found = nullptr;
    for (TreeNode* t = m_root; t;) {
      if (before(t)) {
        t = t->right;
      } else {
        found = t;
        t = t->left;
      }
    }
    return found;
  }

  TreeNode* At(size_t index) const;  // nullptr past the end
  static size_t IndexOf(const TreeNode* n);
  TreeNode* First() const;
  TreeNode* Last() const;
  static TreeNode* Next(const TreeNode* n);
  static TreeNode* Prev(const TreeNode* n);

  // Calls f on every node in order; f must not change the tree.
  template <class F> void ForEach(F f) const {
    for (TreeNode* n = First(); n; n = Next(n)) f(n);
  }

 private:
  static uint32_t SizeOf(const TreeNode* n) { return n ? n->size : 0; }
  static void Update(TreeNode* n) { n->size = 1 + SizeOf(n->left) + SizeOf(n->right); }
  void Reset(TreeNode* n);
  void SetRoot(TreeNode* n);
  static TreeNode* Merge(TreeNode* a, TreeNode* b);
  template <class Before> static void Split(TreeNode* t, Before& before, TreeNode*& l, TreeNode*& r) {
    if (!t) {
      l = r = nullptr;
      return;
    }
    if (before(t)) {
      Split(t->right, before, t->right, r);
      if (t->right) t->right->parent = t;
      l = t;
    } else {
      Split(t->left, before, l, t->left);
      if (t->left) t->left->parent = t;
      r = t;
    }
    Update(t);
  }
  uint32_t NextPriority();

  TreeNode* m_root = nullptr;
  uint64_t m_seed = 0x9E3779B97F4A7C15ull;
};

}  // namespace adp::mapi
