#include "mapi/table_tree.h"

namespace adp::mapi {

uint32_t OrderTree::NextPriority() {
  // splitmix64: cheap, and good enough to keep the expected depth logarithmic.
  uint64_t z = (m_seed += 0x9E3779B97F4A7C15ull);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return static_cast<uint32_t>((z ^ (z >> 31)) >> 32);
}

void OrderTree::Reset(TreeNode* n) {
  n->left = n->right = n->parent = nullptr;
  n->size = 1;
  n->priority = NextPriority();
}

void OrderTree::SetRoot(TreeNode* n) {
  m_root = n;
  if (n) n->parent = nullptr;
}

TreeNode* OrderTree::Merge(TreeNode* a, TreeNode* b) {
  if (!a) return b;
  if (!b) return a;
  if (a->priority > b->priority) {
    a->right = Merge(a->right, b);
    a->right->parent = a;
    Update(a);
    return a;
  }
  b->left = Merge(a, b->left);
  b->left->parent = b;
  Update(b);
  return b;
}

void OrderTree::Erase(TreeNode* n) {
  TreeNode* parent = n->parent;
  TreeNode* merged = Merge(n->left, n->right);
  if (merged) merged->parent = parent;
  if (!parent) {
    m_root = merged;
  } else if (parent->left == n) {
    parent->left = merged;
  } else {
    parent->right = merged;
  }
  for (TreeNode* p = parent; p; p = p->parent) --p->size;
  n->left = n->right = n->parent = nullptr;
  n->size = 1;
}

void OrderTree::Build(const std::vector<TreeNode*>& inOrder) {
  // Cartesian-tree construction over fresh priorities: the rightmost spine lives on a stack.
  std::vector<TreeNode*> spine;
  for (TreeNode* n : inOrder) {
    Reset(n);
    TreeNode* last = nullptr;
    while (!spine.empty() && spine.back()->priority < n->priority) {
      last = spine.back();
      spine.pop_back();
    }
    n->left = last;
    if (!spine.empty()) spine.back()->right = n;
    spine.push_back(n);
  }
  m_root = spine.empty() ? nullptr : spine.front();
  if (!m_root) return;
  // Parents and sizes: breadth first down, then sizes bottom up.
  std::vector<TreeNode*> order{m_root};
  m_root->parent = nullptr;
  for (size_t i = 0; i < order.size(); ++i) {
    for (TreeNode* child : {order[i]->left, order[i]->right}) {
      if (!child) continue;
      child->parent = order[i];
      order.push_back(child);
    }
  }
  for (size_t i = order.size(); i-- > 0;) Update(order[i]);
}

TreeNode* OrderTree::At(size_t index) const {
  TreeNode* t = m_root;
  while (t) {
    size_t left = SizeOf(t->left);
    if (index < left) {
      t = t->left;
    } else if (index == left) {
      return t;
    } else {
      index -= left + 1;
      t = t->right;
    }
  }
  return nullptr;
}

size_t OrderTree::IndexOf(const TreeNode* n) {
  size_t index = SizeOf(n->left);
  for (; n->parent; n = n->parent)
    if (n == n->parent->right) index += SizeOf(n->parent->left) + 1;
  return index;
}

TreeNode* OrderTree::First() const {
  TreeNode* t = m_root;
  while (t && t->left) t = t->left;
  return t;
}

TreeNode* OrderTree::Last() const {
  TreeNode* t = m_root;
  while (t && t->right) t = t->right;
  return t;
}

TreeNode* OrderTree::Next(const TreeNode* n) {
  if (n->right) {
    TreeNode* t = n->right;
    while (t->left) t = t->left;
    return t;
  }
  while (n->parent && n == n->parent->right) n = n->parent;
  return n->parent;
}

TreeNode* OrderTree::Prev(const TreeNode* n) {
  if (n->left) {
    TreeNode* t = n->left;
    while (t->right) t = t->right;
    return t;
  }
  while (n->parent && n == n->parent->left) n = n->parent;
  return n->parent;
}

}  // namespace adp::mapi
