#include "libvsk/vsk/tree_edit.h"

#include <cstring>

#include "platform/patricia_walk.h"

namespace vsk::session {

vsk_status_t LoadTree(patricia_root_t* tree, const vsk_attr_list_t* list) {
  for (const vsk_attr_t* a = list != nullptr ? list->first : nullptr; a != nullptr; a = a->next) {
    vsk_status_t st = vsk_attr_tree_add(tree, sizeof a->type, &a->type, a->length, a->value, false);
    if (st != VSK_OK) return st;
  }
  return VSK_OK;
}

vsk_status_t FlatList::Build(patricia_root_t* tree, size_t most) {
  vsk_attr_list_init(&list_);
  if (most == 0) most = 1;
  nodes_.reset(static_cast<vsk_attr_t*>(std::malloc(most * sizeof(vsk_attr_t))));
  if (nodes_ == nullptr) return VSK_ERR_NOMEM;
  vsk_attr_t* out = nodes_.get();
  vsk_attr_t* const end = out + most;
  platform::PatriciaWalk walk(tree);
  for (patricia_node_t* p = walk.Next(); p != nullptr; p = walk.Next()) {
    auto* node = reinterpret_cast<vsk_attr_tree_node_t*>(p);
    uint16_t type;
    std::memcpy(&type, node->key, sizeof type);
    for (vsk_attr_value_t* v = node->values_first; v != nullptr; v = v->next, ++out) {
      if (out == end) return VSK_ERR_NOMEM;  // more values than the caller's bound: a bug
      // Lengths are 16 bits in a record; a longer tree value is cut as stored.
      *out = {type, static_cast<uint16_t>(v->length), v->value, nullptr};
      vsk_attr_list_append(&list_, out);
    }
  }
  return walk.failed() ? VSK_ERR_NOMEM : VSK_OK;
}

size_t CountValues(const vsk_attr_list_t* list, const vsk_attr_update_list_t* updates) {
  size_t n = 0;
  for (const vsk_attr_t* a = list != nullptr ? list->first : nullptr; a != nullptr; a = a->next) ++n;
  for (const vsk_attr_update_t* e = updates != nullptr ? updates->first : nullptr; e != nullptr;
       e = e->next)
    ++n;
  return n;
}

}  // namespace vsk::session
