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

SHGenAVLNode* vsk::shared::avl::Find(SHGenAVLTree* tree, const void* key) {
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

extern "C" SHGenAVLNode* SHGenAVLTreeFind(SHGenAVLTree* tree, const void* key) {
  return vsk::shared::avl::Find(tree, key);
}

uint32_t vsk::shared::avl::FindData(SHGenAVLTree* tree, const void* key) {
  return DataOf(vsk::shared::avl::Find(tree, key));
}

extern "C" uint32_t SHGenAVLTreeFindData(SHGenAVLTree* tree, const void* key) {
  return vsk::shared::avl::FindData(tree, key);
}

SHGenAVLNode* vsk::shared::avl::First(SHGenAVLTree* tree) {
  SHGenAVLNode* n = NodeAt(tree->root);
  while (n != nullptr && n->left != 0) n = NodeAt(n->left);
  return n;
}

extern "C" SHGenAVLNode* SHGenAVLTreeFirst(SHGenAVLTree* tree) {
  return vsk::shared::avl::First(tree);
}

uint32_t vsk::shared::avl::FirstData(SHGenAVLTree* tree) {
  return DataOf(vsk::shared::avl::First(tree));
}

extern "C" uint32_t SHGenAVLTreeFirstData(SHGenAVLTree* tree) {
  return vsk::shared::avl::FirstData(tree);
}

SHGenAVLNode* vsk::shared::avl::Next(SHGenAVLTree* tree, const void* key) {
  return Descend(tree, key, Bound::kAbove);
}

extern "C" {

SHGenAVLNode* SHGenAVLTreeNext(SHGenAVLTree* tree, const void* key) {
  return vsk::shared::avl::Next(tree, key);
}
}  // extern "C"

uint32_t vsk::shared::avl::NextData(SHGenAVLTree* tree, const void* key) {
  return DataOf(vsk::shared::avl::Next(tree, key));
}

extern "C" {

uint32_t SHGenAVLTreeNextData(SHGenAVLTree* tree, const void* key) {
  return vsk::shared::avl::NextData(tree, key);
}
}  // extern "C"

SHGenAVLNode* vsk::shared::avl::EqualNext(SHGenAVLTree* tree, const void* key) {
  return Descend(tree, key, Bound::kAtOrAbove);
}

extern "C" {

SHGenAVLNode* SHGenAVLTreeEqualNext(SHGenAVLTree* tree, const void* key) {
  return vsk::shared::avl::EqualNext(tree, key);
}
}  // extern "C"

uint32_t vsk::shared::avl::EqualNextData(SHGenAVLTree* tree, const void* key) {
  return DataOf(vsk::shared::avl::EqualNext(tree, key));
}

extern "C" {

uint32_t SHGenAVLTreeEqualNextData(SHGenAVLTree* tree, const void* key) {
  return vsk::shared::avl::EqualNextData(tree, key);
}
}  // extern "C"

SHGenAVLNode* vsk::shared::avl::Prev(SHGenAVLTree* tree, const void* key) {
  return Descend(tree, key, Bound::kBelow);
}

extern "C" {

SHGenAVLNode* SHGenAVLTreePrev(SHGenAVLTree* tree, const void* key) {
  return vsk::shared::avl::Prev(tree, key);
}
}  // extern "C"

uint32_t vsk::shared::avl::PrevData(SHGenAVLTree* tree, const void* key) {
  return DataOf(vsk::shared::avl::Prev(tree, key));
}

extern "C" {

uint32_t SHGenAVLTreePrevData(SHGenAVLTree* tree, const void* key) {
  return vsk::shared::avl::PrevData(tree, key);
}
}  // extern "C"

SHGenAVLNode* vsk::shared::avl::EqualPrev(SHGenAVLTree* tree, const void* key) {
  return Descend(tree, key, Bound::kAtOrBelow);
}

extern "C" {

SHGenAVLNode* SHGenAVLTreeEqualPrev(SHGenAVLTree* tree, const void* key) {
  return vsk::shared::avl::EqualPrev(tree, key);
}
}  // extern "C"

uint32_t vsk::shared::avl::EqualPrevData(SHGenAVLTree* tree, const void* key) {
  return DataOf(vsk::shared::avl::EqualPrev(tree, key));
}

extern "C" {

uint32_t SHGenAVLTreeEqualPrevData(SHGenAVLTree* tree, const void* key) {
  return vsk::shared::avl::EqualPrevData(tree, key);
}

// An in-order walk that carries `key` along: each node at or below `key` pushes it one
// step further, and the first node found strictly above it leaves a gap at `key`. Past the
// last node `key` is free unless it wrapped, in which case the walk starts over.
}  // extern "C"

int vsk::shared::avl::NextFreeKey(SHGenAVLTree* tree, const void* limit, void* key) {
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

extern "C" int SHGenAVLTreeNextFreeKey(SHGenAVLTree* tree, const void* limit, void* key) {
  return vsk::shared::avl::NextFreeKey(tree, limit, key);
}
