// Look-ups and walks of the offset AVL tree, and the free-key search.
//
// Every walk is one descent from the root by key, with no parent links and no saved
// position: the answer is the last node passed on the wanted side. So a walk resumes from
// any key after any change to the tree, including the removal of the node it stood on.
#include "libvsk/shared/avl.h"

using namespace vsk::shared::avl;

namespace {

// Which bound a walk looks for.
enum class Bound { kAbove, kAtOrAbove, kBelow, kAtOrBelow };

SHGenAVLNode* Descend(const SHGenAVLTree* tree, const void* key, Bound bound) {
  SHGenAVLCompareFn compare = CompareOf(tree);
  if (compare == nullptr) return nullptr;
  SHGenAVLNode* found = nullptr;
  for (SHGenAVLNode* n = NodeAt(tree->root); n != nullptr;) {
    int c = compare(n, key);
    switch (bound) {
      case Bound::kAtOrAbove:
        if (c == 0) return n;
        [[fallthrough]];
      case Bound::kAbove:
        if (c > 0) {
          found = n;
          n = NodeAt(n->left);
        } else {
          n = NodeAt(n->right);
        }
        break;
      case Bound::kAtOrBelow:
        if (c == 0) return n;
        [[fallthrough]];
      case Bound::kBelow:
        if (c < 0) {
          found = n;
          n = NodeAt(n->right);
        } else {
          n = NodeAt(n->left);
        }
        break;
    }
  }
  return found;
}

uint32_t DataOf(const SHGenAVLNode* node) { return node == nullptr ? 0 : node->data; }

}  // namespace

extern "C" {

SHGenAVLNode* SHGenAVLTreeFind(SHGenAVLTree* tree, const void* key) {
  SHGenAVLCompareFn compare = CompareOf(tree);
  if (compare == nullptr) return nullptr;
  SHGenAVLNode* n = NodeAt(tree->root);
  while (n != nullptr) {
    int c = compare(n, key);
    if (c == 0) return n;
    n = NodeAt(c > 0 ? n->left : n->right);
  }
  return nullptr;
}

uint32_t SHGenAVLTreeFindData(SHGenAVLTree* tree, const void* key) {
  return DataOf(SHGenAVLTreeFind(tree, key));
}

SHGenAVLNode* SHGenAVLTreeFirst(SHGenAVLTree* tree) {
  SHGenAVLNode* n = NodeAt(tree->root);
  while (n != nullptr && n->left != 0) n = NodeAt(n->left);
  return n;
}

uint32_t SHGenAVLTreeFirstData(SHGenAVLTree* tree) { return DataOf(SHGenAVLTreeFirst(tree)); }

SHGenAVLNode* SHGenAVLTreeNext(SHGenAVLTree* tree, const void* key) {
  return Descend(tree, key, Bound::kAbove);
}
uint32_t SHGenAVLTreeNextData(SHGenAVLTree* tree, const void* key) {
  return DataOf(SHGenAVLTreeNext(tree, key));
}
SHGenAVLNode* SHGenAVLTreeEqualNext(SHGenAVLTree* tree, const void* key) {
  return Descend(tree, key, Bound::kAtOrAbove);
}
uint32_t SHGenAVLTreeEqualNextData(SHGenAVLTree* tree, const void* key) {
  return DataOf(SHGenAVLTreeEqualNext(tree, key));
}
SHGenAVLNode* SHGenAVLTreePrev(SHGenAVLTree* tree, const void* key) {
  return Descend(tree, key, Bound::kBelow);
}
uint32_t SHGenAVLTreePrevData(SHGenAVLTree* tree, const void* key) {
  return DataOf(SHGenAVLTreePrev(tree, key));
}
SHGenAVLNode* SHGenAVLTreeEqualPrev(SHGenAVLTree* tree, const void* key) {
  return Descend(tree, key, Bound::kAtOrBelow);
}
uint32_t SHGenAVLTreeEqualPrevData(SHGenAVLTree* tree, const void* key) {
  return DataOf(SHGenAVLTreeEqualPrev(tree, key));
}

// An in-order walk that carries `key` along: each node at or below `key` pushes it one
// step further, and the first node found strictly above it leaves a gap at `key`. Past the
// last node `key` is free unless it wrapped, in which case the walk starts over.
int SHGenAVLTreeNextFreeKey(SHGenAVLTree* tree, const void* limit, void* key) {
  SHGenAVLCompareFn compare = CompareOf(tree);
  SHGenAVLNextKeyFn next_key = NextKeyOf(tree);
  SHGenAVLKeyOkFn key_ok = KeyOkOf(tree);
  if (compare == nullptr || next_key == nullptr || key_ok == nullptr) return 0;
  if (tree->root == 0) {
    next_key(key);
    return 1;
  }

  SHGenAVLNode* stack[kMaxDepth];
  int depth = 0;
  SHGenAVLNode* n = NodeAt(tree->root);
  bool descend = true;  // true: n is to be compared with `key`; false: n is at or below it
  for (;;) {
    if (descend && compare(n, key) > 0) {
      // The node lies above `key`: a smaller one on the left comes first.
      if (n->left != 0) {
        stack[depth++] = n;
        n = NodeAt(n->left);
        continue;
      }
      next_key(key);
      if (key_ok(key, limit) == 0) return 0;
      if (compare(n, key) != 0) return 1;
    }
    // The node's key is at or below `key`.
    if (n->right != 0) {
      n = NodeAt(n->right);
      descend = true;
      continue;
    }
    if (depth == 0) {
      // Past the last node `key` is free, unless it wrapped: then start over.
      if (next_key(key) != 1) return 1;
      n = NodeAt(tree->root);
      descend = true;
      continue;
    }
    n = stack[--depth];
    next_key(key);
    if (key_ok(key, limit) == 0) return 0;
    if (compare(n, key) != 0) return 1;
    descend = false;
  }
}

}  // extern "C"
