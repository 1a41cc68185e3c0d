// The ordered radix tree behind every attribute, array-index and service tree.
//
// A crit-bit tree over an extended bit string of each key: byte i of a key becomes nine
// bits, a "present" bit of 1 followed by the byte's eight bits, most significant first;
// every position past the key's end reads 0. Comparing extended strings bit by bit gives
// byte-wise order with a prefix before its extensions, and two different keys always
// differ somewhere, so variable-length keys need no terminator.
//
// Links are tagged words: a plain node address is a leaf; the address with bit 0 set
// names the branch slot kept inside that node's header.
//
// Invariants:
//  1. Along any path from the top, branch bits strictly increase.
//  2. A tree of n leaves has n-1 branches, each in the slot of one of its own leaves; the
//     branch made when a leaf was added lives in that leaf's slot until a delete moves it.
//  3. A branch slot's own leaf lies below it (the branch was made on that leaf's path), so
//     the slot is found again by walking the leaf's key.
#include "vsk/patricia.h"

#include "platform/patricia_walk.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr uintptr_t kBranchTag = 1;

bool IsBranch(uintptr_t link) { return (link & kBranchTag) != 0; }
patricia_node_t* NodeOf(uintptr_t link) {
  return reinterpret_cast<patricia_node_t*>(link & ~kBranchTag);
}
uintptr_t LeafLink(patricia_node_t* n) { return reinterpret_cast<uintptr_t>(n); }
uintptr_t BranchLink(patricia_node_t* n) { return reinterpret_cast<uintptr_t>(n) | kBranchTag; }

struct Key {
  const uint8_t* bytes;
  uint32_t length;
};

uint16_t LengthOf(const patricia_root_t* root, const patricia_node_t* n) {
  return n->pn_length_set ? n->pn_length : root->pr_default_length;
}

Key KeyOf(const patricia_root_t* root, const patricia_node_t* n) {
  const uint8_t* where = reinterpret_cast<const uint8_t*>(n + 1) + root->pr_key_offset;
  const uint8_t* bytes = where;
  if (root->pr_key_by_pointer) std::memcpy(&bytes, where, sizeof bytes);
  return Key{bytes, LengthOf(root, n)};
}

// Bit `index` of the extended string of `k`.
unsigned BitAt(const Key& k, uint32_t index) {
  uint32_t byte = index / 9;
  uint32_t within = index % 9;
  if (byte >= k.length) return 0;
  if (within == 0) return 1;
  return (k.bytes[byte] >> (8 - within)) & 1u;
}

// First bit where the extended strings differ; false when the keys are equal.
bool FirstDifference(const Key& a, const Key& b, uint32_t* index) {
  uint32_t common = a.length < b.length ? a.length : b.length;
  for (uint32_t i = 0; i < common; ++i) {
    unsigned x = a.bytes[i] ^ b.bytes[i];
    if (x != 0) {
      unsigned lead = 0;
      while ((x & 0x80u) == 0) {
        x <<= 1;
        ++lead;
      }
      *index = i * 9 + 1 + lead;
      return true;
    }
  }
  if (a.length == b.length) return false;
  *index = common * 9;  // the shorter key's missing "present" bit
  return true;
}

bool KeysEqual(const Key& a, const Key& b) {
  return a.length == b.length && (a.length == 0 || std::memcmp(a.bytes, b.bytes, a.length) == 0);
}

// The leaf reached by following `k`'s bits from the top; the top must not be empty.
patricia_node_t* BestLeaf(const patricia_root_t* root, const Key& k) {
  uintptr_t link = root->pr_top;
  while (IsBranch(link)) {
    patricia_node_t* b = NodeOf(link);
    link = b->pn_child[BitAt(k, b->pn_bit)];
  }
  return NodeOf(link);
}

patricia_node_t* Leftmost(uintptr_t link) {
  while (IsBranch(link)) link = NodeOf(link)->pn_child[0];
  return NodeOf(link);
}

// The first leaf whose key is above `k`.
patricia_node_t* Successor(const patricia_root_t* root, const Key& k) {
  if (root->pr_top == 0) return nullptr;
  patricia_node_t* leaf = BestLeaf(root, k);
  uint32_t diff = 0;
  bool differs = FirstDifference(k, KeyOf(root, leaf), &diff);
  patricia_node_t* last_left = nullptr;
  uintptr_t link = root->pr_top;
  while (IsBranch(link)) {
    patricia_node_t* b = NodeOf(link);
    if (differs && b->pn_bit > diff) break;
    unsigned dir = BitAt(k, b->pn_bit);
    if (dir == 0) last_left = b;
    link = b->pn_child[dir];
  }
  // The subtree at `link` holds the keys that agree with `k` before `diff`: all below
  // `k` when `k` has a 1 there, all above it when `k` has a 0.
  if (differs && BitAt(k, diff) == 0) return Leftmost(link);
  return last_left != nullptr ? Leftmost(last_left->pn_child[1]) : nullptr;
}

}  // namespace

extern "C" {

patricia_root_t* patricia_root_init(patricia_root_t* root, bool key_by_pointer,
                                    uint16_t default_key_len, uint16_t key_offset) {
  bool allocated = false;
  if (root == nullptr) {
    root = static_cast<patricia_root_t*>(std::calloc(1, sizeof *root));
    if (root == nullptr) return nullptr;
    allocated = true;
  }
  std::memset(root, 0, sizeof *root);
  root->pr_key_offset = key_offset;
  root->pr_default_length = default_key_len;
  root->pr_key_by_pointer = key_by_pointer ? 1 : 0;
  root->pr_allocated = allocated ? 1 : 0;
  return root;
}

void patricia_root_delete(patricia_root_t* root) {
  if (root == nullptr) return;
  if (root->pr_allocated) {
    std::free(root);
  } else {
    std::memset(root, 0, sizeof *root);
  }
}

void patricia_node_init_length(patricia_node_t* node, uint16_t key_length) {
  std::memset(node, 0, sizeof *node);
  node->pn_length = key_length;
  node->pn_length_set = 1;
}

bool patricia_add(patricia_root_t* root, patricia_node_t* node) {
  if (root == nullptr || node == nullptr) return false;
  node->pn_slot_used = 0;
  if (root->pr_top == 0) {
    root->pr_top = LeafLink(node);
    return true;
  }
  Key k = KeyOf(root, node);
  patricia_node_t* leaf = BestLeaf(root, k);
  uint32_t diff = 0;
  if (!FirstDifference(k, KeyOf(root, leaf), &diff)) return false;
  uintptr_t* where = &root->pr_top;
  while (IsBranch(*where)) {
    patricia_node_t* b = NodeOf(*where);
    if (b->pn_bit > diff) break;
    where = &b->pn_child[BitAt(k, b->pn_bit)];
  }
  unsigned dir = BitAt(k, diff);
  node->pn_bit = diff;
  node->pn_child[dir] = LeafLink(node);
  node->pn_child[1 - dir] = *where;
  node->pn_slot_used = 1;
  *where = BranchLink(node);
  return true;
}

patricia_node_t* patricia_get(patricia_root_t* root, uint16_t key_length, const void* key) {
  if (root == nullptr || root->pr_top == 0) return nullptr;
  Key k{static_cast<const uint8_t*>(key), key_length};
  patricia_node_t* leaf = BestLeaf(root, k);
  return KeysEqual(k, KeyOf(root, leaf)) ? leaf : nullptr;
}

bool patricia_delete(patricia_root_t* root, patricia_node_t* node) {
  if (root == nullptr || node == nullptr || root->pr_top == 0) return false;
  Key k = KeyOf(root, node);
  uintptr_t* parent_link = nullptr;  // the link that points at the leaf's parent branch
  uintptr_t* where = &root->pr_top;
  while (IsBranch(*where)) {
    parent_link = where;
    patricia_node_t* b = NodeOf(*where);
    where = &b->pn_child[BitAt(k, b->pn_bit)];
  }
  if (NodeOf(*where) != node) return false;
  if (parent_link == nullptr) {
    root->pr_top = 0;
    node->pn_slot_used = 0;
    return true;
  }
  // Replace the parent branch by the leaf's sibling; the parent's slot becomes free.
  patricia_node_t* parent = NodeOf(*parent_link);
  unsigned side = (&parent->pn_child[1] == where) ? 1 : 0;
  *parent_link = parent->pn_child[1 - side];
  parent->pn_slot_used = 0;
  if (parent != node && node->pn_slot_used) {
    // The leaf's own slot still carries a branch above it: move that branch into the
    // slot just freed, and repoint the one link to it.
    uintptr_t* link = &root->pr_top;
    while (*link != BranchLink(node)) {
      patricia_node_t* b = NodeOf(*link);
      link = &b->pn_child[BitAt(k, b->pn_bit)];
    }
    parent->pn_bit = node->pn_bit;
    parent->pn_child[0] = node->pn_child[0];
    parent->pn_child[1] = node->pn_child[1];
    parent->pn_slot_used = 1;
    *link = BranchLink(parent);
  }
  node->pn_slot_used = 0;
  return true;
}

patricia_node_t* patricia_find_next(patricia_root_t* root, patricia_node_t* node) {
  if (root == nullptr || root->pr_top == 0) return nullptr;
  if (node == nullptr) return Leftmost(root->pr_top);
  // The usual caller steps through the tree from one of its own leaves: one descent along
  // the leaf's key finds it, and the last branch left on the way has the successor as the
  // leftmost leaf of its right side. Any other key takes the general search.
  const Key k = KeyOf(root, node);
  patricia_node_t* last_left = nullptr;
  uintptr_t link = root->pr_top;
  while (IsBranch(link)) {
    patricia_node_t* b = NodeOf(link);
    const unsigned dir = BitAt(k, b->pn_bit);
    if (dir == 0) last_left = b;
    link = b->pn_child[dir];
  }
  if (NodeOf(link) == node) return last_left != nullptr ? Leftmost(last_left->pn_child[1]) : nullptr;
  return Successor(root, k);
}

}  // extern "C"

namespace vsk::platform {

PatriciaWalk::PatriciaWalk(const patricia_root_t* root) {
  if (root != nullptr && root->pr_top != 0) Push(root->pr_top);
}

PatriciaWalk::~PatriciaWalk() {
  if (stack_ != local_) std::free(stack_);
}

bool PatriciaWalk::Push(uintptr_t link) {
  if (depth_ == capacity_) {
    auto* bigger = static_cast<uintptr_t*>(std::malloc(2 * capacity_ * sizeof *stack_));
    if (bigger == nullptr) return false;
    std::memcpy(bigger, stack_, depth_ * sizeof *stack_);
    if (stack_ != local_) std::free(stack_);
    stack_ = bigger;
    capacity_ *= 2;
  }
  stack_[depth_++] = link;
  return true;
}

patricia_node_t* PatriciaWalk::Next() {
  // The stack holds the subtrees still to visit, the leftmost on top; it never holds
  // more than one link per level plus one.
  while (depth_ != 0 && !failed_) {
    const uintptr_t link = stack_[--depth_];
    if (!IsBranch(link)) return NodeOf(link);
    const patricia_node_t* b = NodeOf(link);
    if (!Push(b->pn_child[1]) || !Push(b->pn_child[0])) failed_ = true;
  }
  return nullptr;
}

patricia_node_t* PatriciaDrain(patricia_root_t* root) {
  if (root == nullptr) return nullptr;
  // A leaf's branch slot, when in use, holds a branch above that leaf (invariant 3),
  // which the walk has expanded before it reaches the leaf: so the leaf's first link is
  // free to carry the chain by then. Each branch's slot is marked unused as it is
  // expanded, so that the fallback below never looks for a branch already taken apart.
  uintptr_t local[48];
  uintptr_t* stack = local;
  size_t capacity = sizeof local / sizeof local[0];
  size_t depth = 0;
  patricia_node_t* chain = nullptr;
  if (root->pr_top != 0) stack[depth++] = root->pr_top;
  while (depth != 0) {
    const uintptr_t link = stack[--depth];
    patricia_node_t* n = NodeOf(link);
    if (!IsBranch(link)) {
      n->pn_slot_used = 0;
      n->pn_child[0] = reinterpret_cast<uintptr_t>(chain);
      chain = n;
      continue;
    }
    if (depth + 2 > capacity) {
      auto* bigger = static_cast<uintptr_t*>(std::malloc(2 * capacity * sizeof *stack));
      if (bigger == nullptr) {
        stack[depth++] = link;  // not expanded: the fallback takes it whole
        break;
      }
      std::memcpy(bigger, stack, depth * sizeof *stack);
      if (stack != local) std::free(stack);
      stack = bigger;
      capacity *= 2;
    }
    const uintptr_t right = n->pn_child[1];
    const uintptr_t left = n->pn_child[0];
    n->pn_slot_used = 0;
    stack[depth++] = right;
    stack[depth++] = left;
  }
  // Out of memory: each pending subtree is a tree of its own, emptied by deletes.
  while (depth != 0) {
    patricia_root_t rest = *root;
    rest.pr_top = stack[--depth];
    patricia_node_t* p;
    while ((p = patricia_find_next(&rest, nullptr)) != nullptr) {
      patricia_delete(&rest, p);
      p->pn_child[0] = reinterpret_cast<uintptr_t>(chain);
      chain = p;
    }
  }
  if (stack != local) std::free(stack);
  root->pr_top = 0;
  return chain;
}

}  // namespace vsk::platform
