// Internals of the offset AVL tree shared by its two sources (avl.cc: base, function
// registry, insertion, deletion, rotations; avl_walk.cc: look-ups, walks, free keys).
//
// Invariants:
//  1. A link is 0 or the offset of a node from the process's base; offset 0 is no node.
//  2. Between operations every node's balance is right height minus left height, in -1..1.
//  3. The function ids in a handle index this process's registry; 0 is "no function".
//     Ids are handed out once per distinct function and never reused, so a handle's ids
//     stay valid for the life of the process that stored them.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vsk/avl.h"

namespace vsk::shared::avl {

static_assert(sizeof(SHGenAVLNode) == 16);
static_assert(offsetof(SHGenAVLNode, data) == 0);
static_assert(offsetof(SHGenAVLNode, balance) == 4);
static_assert(offsetof(SHGenAVLNode, right) == 8);
static_assert(offsetof(SHGenAVLNode, left) == 12);
static_assert(sizeof(SHGenAVLTree) == 20);
static_assert(offsetof(SHGenAVLTree, root) == 0);
static_assert(offsetof(SHGenAVLTree, compare) == 4);
static_assert(offsetof(SHGenAVLTree, key_of) == 8);
static_assert(offsetof(SHGenAVLTree, next_key) == 12);
static_assert(offsetof(SHGenAVLTree, key_ok) == 16);

// Depth of the path stacks of delete and of the free-key walk. Not checked: a tree that a
// 32-bit offset can address holds too few 16-byte nodes to get this deep.
inline constexpr int kMaxDepth = 64;

// Address of the node at `offset` in this process, null for 0.
SHGenAVLNode* NodeAt(uint32_t offset);
// Offset of `node` from the base, 0 for null.
uint32_t OffsetOf(const SHGenAVLNode* node);

// The functions behind a handle's ids; null for 0 or an unknown id.
SHGenAVLCompareFn CompareOf(const SHGenAVLTree* tree);
SHGenAVLKeyOfFn KeyOfOf(const SHGenAVLTree* tree);
SHGenAVLNextKeyFn NextKeyOf(const SHGenAVLTree* tree);
SHGenAVLKeyOkFn KeyOkOf(const SHGenAVLTree* tree);

// Child access: with no parent the root; a negative direction the left child, otherwise
// the right one.
SHGenAVLNode* GetChild(const SHGenAVLTree* tree, const SHGenAVLNode* parent, int dir);
void SetChild(SHGenAVLTree* tree, SHGenAVLNode* parent, int dir, SHGenAVLNode* node);

void InitBase(void* base);
void Init(SHGenAVLNode* node, uint32_t data);
int SetFunctions(SHGenAVLTree* tree, SHGenAVLCompareFn compare, SHGenAVLKeyOfFn key_of,
                 SHGenAVLNextKeyFn next_key, SHGenAVLKeyOkFn key_ok);
int Add(SHGenAVLTree* tree, SHGenAVLNode* node);
uint32_t Delete(SHGenAVLTree* tree, const void* key);

SHGenAVLNode* Find(SHGenAVLTree* tree, const void* key);
uint32_t FindData(SHGenAVLTree* tree, const void* key);
SHGenAVLNode* First(SHGenAVLTree* tree);
uint32_t FirstData(SHGenAVLTree* tree);
SHGenAVLNode* Next(SHGenAVLTree* tree, const void* key);
uint32_t NextData(SHGenAVLTree* tree, const void* key);
SHGenAVLNode* EqualNext(SHGenAVLTree* tree, const void* key);
uint32_t EqualNextData(SHGenAVLTree* tree, const void* key);
SHGenAVLNode* Prev(SHGenAVLTree* tree, const void* key);
uint32_t PrevData(SHGenAVLTree* tree, const void* key);
SHGenAVLNode* EqualPrev(SHGenAVLTree* tree, const void* key);
uint32_t EqualPrevData(SHGenAVLTree* tree, const void* key);
int NextFreeKey(SHGenAVLTree* tree, const void* limit, void* key);

}  // namespace vsk::shared::avl
