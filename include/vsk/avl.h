/* The offset AVL tree: a balanced binary tree for memory that moves.
 *
 * The nodes live in one block that every process maps at its own address and that may
 * move when it grows (the interface table's file). No node holds a pointer: every link is
 * a 32-bit offset from the process's base address (SHGenAVLInitBase), 0 meaning none. So
 * offset 0 can never hold a node: the block must begin with a header.
 *
 * The tree is intrusive. The caller allocates each SHGenAVLNode, usually inside its own
 * record, and the tree never allocates or frees. It takes no lock: the owner of the block
 * serialises the calls and must not call while the block is being remapped.
 *
 * The handle SHGenAVLTree keeps the 20-byte shared layout of the system. Its four function
 * fields are 32-bit ids of this process's function registry, not addresses: they are
 * valid only in the process that stored them, so a handle kept in shared memory must have
 * its functions stored again (SHGenAVLTreeSetFunctions) by each process before use.
 *
 * Node results are addresses in this process; the ...Data forms return the node's `data`
 * field instead, 0 for no node. */
#ifndef VSK_AVL_H
#define VSK_AVL_H

#include <stdint.h>

#include "vsk/export.h"

VSK_BEGIN_DECLS

/* Negative if the key of `node` is below `key`, 0 if equal, positive if above. Insertion
 * passes the new node as `node`, so it must be usable without being in the tree. */
typedef int (*SHGenAVLCompareFn)(const void *node, const void *key);
/* The key of `node`, in the form that the compare function takes as its second argument. */
typedef const void *(*SHGenAVLKeyOfFn)(const void *node);
/* Moves `key` on by one; returns 1 when it wrapped around to the start of the key space. */
typedef int (*SHGenAVLNextKeyFn)(void *key);
/* Zero when `key` has passed `limit`. */
typedef int (*SHGenAVLKeyOkFn)(const void *key, const void *limit);

/* A node in the shared block: 16 bytes. */
typedef struct SHGenAVLNode {
  uint32_t data;   /* the caller's value, in practice the offset of the enclosing record */
  int32_t balance; /* right height minus left height: -1..1 between operations */
  uint32_t right;  /* offset of the child with the greater key, 0 for none */
  uint32_t left;   /* offset of the child with the smaller key, 0 for none */
} SHGenAVLNode;

/* A tree's handle: 20 bytes, in the shared block or on a caller's stack. */
typedef struct SHGenAVLTree {
  uint32_t root;     /* offset of the root node, 0 for an empty tree */
  uint32_t compare;  /* process-local function id of a SHGenAVLCompareFn */
  uint32_t key_of;   /* process-local function id of a SHGenAVLKeyOfFn */
  uint32_t next_key; /* process-local function id of a SHGenAVLNextKeyFn (NextFreeKey only) */
  uint32_t key_ok;   /* process-local function id of a SHGenAVLKeyOkFn (NextFreeKey only) */
} SHGenAVLTree;

/* Sets this process's base address; call again after the block has moved. */
VSK_EXPORT void SHGenAVLInitBase(void *base);
/* Stores `data` in `node` and clears its other fields. */
VSK_EXPORT void SHGenAVLInit(SHGenAVLNode *node, uint32_t data);

/* Stores this process's functions in `tree` (null for unused ones). Keeps `root`.
 * Returns 1, or 0 if the process's registry of distinct functions is full (the fields
 * are then cleared and every operation on the tree finds nothing). */
VSK_EXPORT int SHGenAVLTreeSetFunctions(SHGenAVLTree *tree, SHGenAVLCompareFn compare,
                                        SHGenAVLKeyOfFn key_of, SHGenAVLNextKeyFn next_key,
                                        SHGenAVLKeyOkFn key_ok);

/* 1 when added; 0 when a node with an equal key is there already (the new node's links
 * have been cleared all the same). */
VSK_EXPORT int SHGenAVLTreeAdd(SHGenAVLTree *tree, SHGenAVLNode *node);
/* `data` of the removed node, 0 when `key` is not in the tree. */
VSK_EXPORT uint32_t SHGenAVLTreeDelete(SHGenAVLTree *tree, const void *key);

VSK_EXPORT SHGenAVLNode *SHGenAVLTreeFind(SHGenAVLTree *tree, const void *key);
VSK_EXPORT uint32_t SHGenAVLTreeFindData(SHGenAVLTree *tree, const void *key);
VSK_EXPORT SHGenAVLNode *SHGenAVLTreeFirst(SHGenAVLTree *tree);
VSK_EXPORT uint32_t SHGenAVLTreeFirstData(SHGenAVLTree *tree);

/* Walks go by key, so they resume after any change; `key` need not be in the tree.
 * Next: smallest key above `key`. EqualNext: smallest at or above. Prev: largest below.
 * EqualPrev: largest at or below. */
VSK_EXPORT SHGenAVLNode *SHGenAVLTreeNext(SHGenAVLTree *tree, const void *key);
VSK_EXPORT uint32_t SHGenAVLTreeNextData(SHGenAVLTree *tree, const void *key);
VSK_EXPORT SHGenAVLNode *SHGenAVLTreeEqualNext(SHGenAVLTree *tree, const void *key);
VSK_EXPORT uint32_t SHGenAVLTreeEqualNextData(SHGenAVLTree *tree, const void *key);
VSK_EXPORT SHGenAVLNode *SHGenAVLTreePrev(SHGenAVLTree *tree, const void *key);
VSK_EXPORT uint32_t SHGenAVLTreePrevData(SHGenAVLTree *tree, const void *key);
VSK_EXPORT SHGenAVLNode *SHGenAVLTreeEqualPrev(SHGenAVLTree *tree, const void *key);
VSK_EXPORT uint32_t SHGenAVLTreeEqualPrevData(SHGenAVLTree *tree, const void *key);

/* Moves `key` on, with the tree's next_key and key_ok functions, to the next key after it
 * that is not in the tree. 1 when `key` holds such a key, 0 when the search passed
 * `limit`. */
VSK_EXPORT int SHGenAVLTreeNextFreeKey(SHGenAVLTree *tree, const void *limit, void *key);

VSK_END_DECLS

#endif /* VSK_AVL_H */
