// A record's attributes as an attribute tree and back: load (values borrowed, nothing
// copied), then, after the edit, one flat list in tree order whose values are still
// borrowed from the record and from the update lists.
#pragma once

#include <cstdlib>
#include <memory>

#include "vsk/attr.h"
#include "vsk/patricia.h"

namespace vsk::session {

struct TreeFree {
  void operator()(patricia_root_t* tree) const { vsk_attr_tree_free(tree); }
};
using TreePtr = std::unique_ptr<patricia_root_t, TreeFree>;

// Adds every node of `list` (null: none) under the address of its type. 0, -2 or -3.
vsk_status_t LoadTree(patricia_root_t* tree, const vsk_attr_list_t* list);

// An upper bound of the values a tree holds after loading `list` and applying `updates`:
// each update entry adds at most one value.
size_t CountValues(const vsk_attr_list_t* list, const vsk_attr_update_list_t* updates);

// The tree's values as list nodes, one block for all of them. Nodes whose value list went
// empty are dropped, so an attribute removed by value is gone from the record.
class FlatList {
 public:
  // `most` bounds the number of values (CountValues). 0, or -2 when the nodes could not
  // be allocated.
  vsk_status_t Build(patricia_root_t* tree, size_t most);
  vsk_attr_list_t* get() { return &list_; }

 private:
  struct Free {
    void operator()(vsk_attr_t* p) const { std::free(p); }
  };
  std::unique_ptr<vsk_attr_t, Free> nodes_;
  vsk_attr_list_t list_{nullptr, &list_.first};
};

}  // namespace vsk::session
