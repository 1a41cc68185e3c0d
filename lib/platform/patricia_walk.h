// Whole-tree passes over a radix tree (vsk/patricia.h) that need no search per step:
// the leaves in key order, and taking a whole tree apart at once. Library-internal C++;
// both know the tree's link tagging, which stays private to patricia.cc and this pair.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vsk/patricia.h"

namespace vsk::platform {

// Visits the leaves of a tree in key order, the order of patricia_find_next, in one
// depth-first pass. The tree must not change during the walk.
class PatriciaWalk {
 public:
  explicit PatriciaWalk(const patricia_root_t* root);
  ~PatriciaWalk();
  PatriciaWalk(const PatriciaWalk&) = delete;
  PatriciaWalk& operator=(const PatriciaWalk&) = delete;

  // The next leaf, or null at the end, or null with failed() when a very deep tree
  // needed more stack than could be allocated.
  patricia_node_t* Next();
  bool failed() const { return failed_; }

 private:
  bool Push(uintptr_t link);

  uintptr_t local_[48];
  uintptr_t* stack_ = local_;
  size_t capacity_ = sizeof local_ / sizeof local_[0];
  size_t depth_ = 0;
  bool failed_ = false;
};

// Takes every node out of `root` and leaves it empty, without a descent per node: the
// nodes come back chained through pn_child[0] (null ends the chain) with their branch
// slots marked unused, ready to be freed. Never fails: a tree too deep for the walk's
// stack has the rest taken out one leftmost node at a time.
patricia_node_t* PatriciaDrain(patricia_root_t* root);

}  // namespace vsk::platform
