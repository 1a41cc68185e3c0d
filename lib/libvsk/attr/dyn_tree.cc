// Dynamic trees: values keyed by name, with the array bookkeeping of identifying entries
// (index trees by value, one nesting level per identifying entry), array starts (a new
// array id and member list) and members (appended to the open instance's list).
//
// The caller carries the cursors (array id, member list, index root, index node) from one
// call to the next; a null index-root cursor switches the bookkeeping off and tags then
// only label the node. The process-wide array id counter is unlocked: it belongs to the
// daemon's single event context, like the trees.
#include <cstdlib>

#include "libvsk/attr/tree_internal.h"

extern "C" {
uint16_t vsk_array_id_counter = 0;
}

namespace vsk::attr {
namespace {

bool IsIdentifying(uint16_t tag) {
  return tag == VSK_ARRAY_IDENTIFYING_TLV || tag == VSK_ARRAY_START_TLV;
}

// For an add of an identifying value: the instance it names at this level, if one exists.
vsk_array_index_node_t* FindInstance(patricia_root_t* index, uint32_t length, const void* value) {
  for (patricia_node_t* p = patricia_find_next(index, nullptr); p != nullptr;
       p = patricia_find_next(index, p)) {
    auto* ix = reinterpret_cast<vsk_array_index_node_t*>(p);
    if (ix->entry != nullptr && SameBytes(ix->entry->length, ix->entry->value, length, value)) {
      return ix;
    }
  }
  return nullptr;
}

uint16_t NextArrayId() {
  ++vsk_array_id_counter;
  if (vsk_array_id_counter == 0) vsk_array_id_counter = 1;
  return vsk_array_id_counter;
}

}  // namespace
}  // namespace vsk::attr

using namespace vsk::attr;

extern "C" {

vsk_status_t vsk_dyn_tree_add(patricia_root_t* tree, uint16_t key_length, const char* name,
                              uint32_t length, const void* value, uint16_t tag,
                              const void* array_value, uint16_t* array_id,
                              vsk_array_member_list_t** members, patricia_root_t** index_root,
                              vsk_array_index_node_t** index_node, bool owns) {
  if (tree == nullptr || name == nullptr) return VSK_ERR_INVALID_PARAM;
  const bool bookkeeping = index_root != nullptr;
  vsk_attr_tree_node_t* node = FindNode(tree, key_length, name);
  // A new node; without bookkeeping always, so an existing name is refused (-3).
  if (node == nullptr || !bookkeeping) {
    vsk_status_t st = MakeNode(tree, key_length, name, owns, &node);
    if (st != VSK_OK) return st;
    node->array_tag = tag;
    node->top_level = (!bookkeeping || *index_root == nullptr) ? 1 : 0;
  } else if (IsIdentifying(tag)) {
    // An identifying value that already has an instance at this level: enter it.
    if (*index_root == nullptr) *index_root = node->index_root;
    if (*index_root != nullptr) {
      vsk_array_index_node_t* ix = FindInstance(*index_root, length, value);
      if (ix != nullptr) {
        if (ix->array_id != 0 && array_id != nullptr) *array_id = ix->array_id;
        if (members != nullptr) *members = ix->entry->members;
        auto* found = reinterpret_cast<vsk_array_index_node_t*>(
            patricia_get(*index_root, static_cast<uint16_t>(length), value));
        *index_root = found != nullptr ? found->nested_root : nullptr;
        if (index_node != nullptr) *index_node = found;
        return VSK_OK;
      }
    }
  }
  // The value's entry, filled in once the array bookkeeping has succeeded.
  auto* entry = static_cast<vsk_attr_value_t*>(std::calloc(1, sizeof(vsk_attr_value_t)));
  if (entry == nullptr) return VSK_ERR_NOMEM;
  // An identifying value opens a nesting level.
  vsk_array_index_node_t* ix = nullptr;
  if (IsIdentifying(tag) && bookkeeping) {
    if (*index_root == nullptr) {
      patricia_root_t* fresh = NewIndexTree();
      if (fresh == nullptr) {
        std::free(entry);
        return VSK_ERR_NOMEM;
      }
      *index_root = fresh;
      if (node->index_root == nullptr) {
        node->index_root = fresh;
      }
    }
    ix = static_cast<vsk_array_index_node_t*>(std::calloc(1, sizeof(vsk_array_index_node_t)));
    if (ix == nullptr) {
      std::free(entry);
      if (index_node != nullptr) *index_node = nullptr;
      return VSK_ERR_NOMEM;
    }
    patricia_node_init_length(&ix->header, static_cast<uint16_t>(length));
    ix->key = const_cast<void*>(value);
    ix->name = name;
    ix->entry = entry;
    ix->tag = tag;
    if (!patricia_add(*index_root, &ix->header)) {
      std::free(ix);
      std::free(entry);
      if (index_node != nullptr) *index_node = nullptr;
      return VSK_ERR_INVALID_DATA;
    }
    ix->nested_root = NewIndexTree();
    if (ix->nested_root == nullptr) {
      patricia_delete(*index_root, &ix->header);
      std::free(ix);
      std::free(entry);
      if (index_node != nullptr) *index_node = nullptr;
      return VSK_ERR_NOMEM;
    }
    entry->parent_index = *index_root;
    *index_root = ix->nested_root;
    if (index_node != nullptr) *index_node = ix;
  }
  // An array start opens a new instance with a new id and an empty member list.
  if (tag == VSK_ARRAY_START_TLV && ix != nullptr) {
    auto* list =
        static_cast<vsk_array_member_list_t*>(std::calloc(1, sizeof(vsk_array_member_list_t)));
    if (list == nullptr) {
      patricia_root_t* holder = entry->parent_index;
      patricia_delete(holder, &ix->header);
      FreeIndexTree(ix->nested_root, true);
      *index_root = holder;
      std::free(ix);
      std::free(entry);
      if (index_node != nullptr) *index_node = nullptr;
      return VSK_ERR_NOMEM;
    }
    list->first = nullptr;
    list->last = &list->first;
    uint16_t id = NextArrayId();
    if (array_id != nullptr) *array_id = id;
    ix->array_id = id;
    entry->array_id = id;
    entry->members = list;
    if (members != nullptr) *members = list;
    *index_root = nullptr;
  }
  // The value joins its node.
  entry->length = length;
  entry->value = const_cast<void*>(value);
  entry->array_value = const_cast<void*>(array_value);
  AppendValue(node, entry);
  // A member joins the open instance.
  if (tag == VSK_ARRAY_MEMBER_TLV && bookkeeping) {
    entry->array_id = array_id != nullptr ? *array_id : 0;
    auto* m = static_cast<vsk_array_member_t*>(std::calloc(1, sizeof(vsk_array_member_t)));
    if (m == nullptr) return VSK_ERR_NOMEM;
    m->entry = entry;
    m->name = name;
    if (members == nullptr || *members == nullptr) {
      std::free(m);
      return VSK_ERR_INVALID_PARAM;
    }
    m->next = nullptr;
    *(*members)->last = m;
    (*members)->last = &m->next;
    entry->member_state = kListed;
    *index_root = nullptr;
  }
  return VSK_OK;
}

vsk_status_t vsk_dyn_tree_remove(patricia_root_t* tree, uint16_t key_length, const char* name,
                                 uint32_t length, const void* value, uint16_t array_id,
                                 bool by_value) {
  vsk_attr_tree_node_t* node = tree != nullptr ? FindNode(tree, key_length, name) : nullptr;
  if (node == nullptr) return by_value ? VSK_ERR_ATTR_MISMATCH : VSK_OK;
  const bool member = node->array_tag == VSK_ARRAY_MEMBER_TLV;
  if (!by_value) {
    if (!member) {
      DropNode(tree, node);
      return VSK_OK;
    }
    // Members of other instances stay; this instance's values leave.
    vsk_attr_value_t** link = &node->values_first;
    while (*link != nullptr) {
      vsk_attr_value_t* v = *link;
      if (v->array_id == array_id) {
        UnlinkValue(node, link);
        DetachMemberValue(node, v);
      } else {
        link = &v->next;
      }
    }
    if (node->values_first == nullptr) DropNode(tree, node);
    return VSK_OK;
  }
  for (vsk_attr_value_t** link = &node->values_first; *link != nullptr; link = &(*link)->next) {
    vsk_attr_value_t* v = *link;
    if ((length == 0 || SameBytes(v->length, v->value, length, value)) && v->array_id == array_id) {
      UnlinkValue(node, link);
      if (member) {
        DetachMemberValue(node, v);
      } else {
        ReleaseValue(node, v);
      }
      return VSK_OK;
    }
  }
  return VSK_ERR_ATTR_MISMATCH;
}

}  // extern "C"
