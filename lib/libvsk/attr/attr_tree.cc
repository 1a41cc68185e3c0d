// Attribute trees: nodes keyed by attribute type (2 bytes) or name (with its NUL), each with
// its values in insertion order. Used by session updates (load, apply, flatten) and by
// snapshots. The invariants are stated in tree_internal.h.
#include <cstdlib>
#include <cstring>

#include "libvsk/attr/tree_internal.h"
#include "platform/patricia_walk.h"

namespace vsk::attr {

bool SameBytes(uint32_t a_len, const void* a, uint32_t b_len, const void* b) {
  if (a_len != b_len) return false;
  if (a_len == 0) return true;
  if (a == nullptr || b == nullptr) return false;
  return std::memcmp(a, b, a_len) == 0;
}

vsk_attr_tree_node_t* FindNode(patricia_root_t* tree, uint16_t key_length, const void* key) {
  return reinterpret_cast<vsk_attr_tree_node_t*>(patricia_get(tree, key_length, key));
}

vsk_status_t MakeNode(patricia_root_t* tree, uint16_t key_length, const void* key, bool owns,
                      vsk_attr_tree_node_t** out) {
  auto* node = static_cast<vsk_attr_tree_node_t*>(std::calloc(1, sizeof(vsk_attr_tree_node_t)));
  if (node == nullptr) return VSK_ERR_NOMEM;
  patricia_node_init_length(&node->header, key_length);
  node->key = const_cast<void*>(key);
  node->owns_key = owns ? 1 : 0;
  node->values_first = nullptr;
  node->values_last = &node->values_first;
  if (!patricia_add(tree, &node->header)) {
    std::free(node);
    return VSK_ERR_INVALID_DATA;
  }
  *out = node;
  return VSK_OK;
}

void AppendValue(vsk_attr_tree_node_t* node, vsk_attr_value_t* value) {
  value->next = nullptr;
  *node->values_last = value;
  node->values_last = &value->next;
}

void UnlinkValue(vsk_attr_tree_node_t* node, vsk_attr_value_t** link) {
  vsk_attr_value_t* value = *link;
  *link = value->next;
  if (node->values_last == &value->next) node->values_last = link;
  value->next = nullptr;
}

void FreeMemberList(vsk_array_member_list_t* list) {
  if (list == nullptr) return;
  vsk_array_member_t* m = list->first;
  while (m != nullptr) {
    vsk_array_member_t* next = m->next;
    if (m->entry != nullptr) {
      if (m->entry->member_state == kDetached) {
        std::free(m->entry);
      } else {
        m->entry->member_state = kNoMemberList;
      }
    }
    std::free(m);
    m = next;
  }
  std::free(list);
}

patricia_root_t* NewIndexTree() { return patricia_root_init(nullptr, true, 4, 0); }

void FreeIndexTree(patricia_root_t* root, bool clear_entries) {
  if (root == nullptr) return;
  patricia_node_t* p = vsk::platform::PatriciaDrain(root);
  while (p != nullptr) {
    auto* ix = reinterpret_cast<vsk_array_index_node_t*>(p);
    p = reinterpret_cast<patricia_node_t*>(p->pn_child[0]);
    if (ix->nested_root != nullptr) FreeIndexTree(ix->nested_root, clear_entries);
    if (clear_entries && ix->entry != nullptr) ix->entry->parent_index = nullptr;
    std::free(ix);
  }
  patricia_root_delete(root);
}

namespace {

// Removes the index node that names `value` (invariant 1).
void UnhookIndex(vsk_attr_value_t* value) {
  patricia_root_t* index = value->parent_index;
  if (index == nullptr) return;
  value->parent_index = nullptr;
  auto* ix = reinterpret_cast<vsk_array_index_node_t*>(
      patricia_get(index, static_cast<uint16_t>(value->length), value->value));
  if (ix == nullptr || ix->entry != value) return;
  patricia_delete(index, &ix->header);
  FreeIndexTree(ix->nested_root, true);
  std::free(ix);
}

}  // namespace

void ReleaseValue(vsk_attr_tree_node_t* node, vsk_attr_value_t* value) {
  FreeMemberList(value->members);
  value->members = nullptr;
  UnhookIndex(value);
  if (node->owns_key) std::free(value->value);
  if (value->member_state == kListed) {
    // Still named by a live member list: keep the shell for it.
    value->member_state = kDetached;
    value->length = 0;
    value->value = nullptr;
    return;
  }
  std::free(value);
}

void DetachMemberValue(vsk_attr_tree_node_t* node, vsk_attr_value_t* value) {
  ReleaseValue(node, value);
}

void DropNode(patricia_root_t* tree, vsk_attr_tree_node_t* node) {
  patricia_delete(tree, &node->header);
  vsk_attr_value_t* v = node->values_first;
  while (v != nullptr) {
    vsk_attr_value_t* next = v->next;
    ReleaseValue(node, v);
    v = next;
  }
  FreeIndexTree(node->index_root, true);
  if (node->owns_key) std::free(node->key);
  std::free(node);
}

}  // namespace vsk::attr

using namespace vsk::attr;

extern "C" {

patricia_root_t* vsk_attr_tree_create(void) { return patricia_root_init(nullptr, true, 4, 0); }

vsk_status_t vsk_attr_tree_add(patricia_root_t* tree, uint16_t key_length, const void* key,
                               uint32_t length, const void* value, bool owns) {
  if (tree == nullptr || key == nullptr) return VSK_ERR_INVALID_PARAM;
  // Loading a record adds mostly new keys: the add's own descent finds a key already
  // there, so the lookup runs only then (or when no node could be allocated).
  vsk_attr_tree_node_t* node = nullptr;
  if (MakeNode(tree, key_length, key, owns, &node) != VSK_OK) {
    node = FindNode(tree, key_length, key);
    if (node == nullptr) return VSK_ERR_NOMEM;  // a refused add always means the key exists
    if (owns && node->owns_key && node->key != key) {
      // The node already owns a copy of this key; the one handed over is surplus.
      std::free(const_cast<void*>(key));
    }
  }
  auto* entry = static_cast<vsk_attr_value_t*>(std::calloc(1, sizeof(vsk_attr_value_t)));
  if (entry == nullptr) return VSK_ERR_NOMEM;
  entry->length = length;
  entry->value = const_cast<void*>(value);
  AppendValue(node, entry);
  return VSK_OK;
}

vsk_status_t vsk_attr_tree_remove(patricia_root_t* tree, uint16_t key_length, const void* key,
                                  uint32_t length, const void* value, bool by_value) {
  vsk_attr_tree_node_t* node = tree != nullptr ? FindNode(tree, key_length, key) : nullptr;
  if (node == nullptr) return by_value ? VSK_ERR_ATTR_MISMATCH : VSK_OK;
  if (!by_value) {
    DropNode(tree, node);
    return VSK_OK;
  }
  for (vsk_attr_value_t** link = &node->values_first; *link != nullptr; link = &(*link)->next) {
    vsk_attr_value_t* v = *link;
    if (SameBytes(v->length, v->value, length, value)) {
      UnlinkValue(node, link);
      ReleaseValue(node, v);
      return VSK_OK;  // the node stays, also with an empty list
    }
  }
  return VSK_ERR_ATTR_MISMATCH;
}

void vsk_array_index_free(patricia_root_t* root) { FreeIndexTree(root, false); }

void vsk_attr_tree_free(patricia_root_t* tree) {
  if (tree == nullptr) return;
  // The nodes leave the tree first, all in one walk, chained through their headers' first
  // links. Then every member list and index tree goes, while all values are still alive;
  // then the nodes with their values.
  patricia_node_t* chain = vsk::platform::PatriciaDrain(tree);
  patricia_node_t* p;
  auto next_of = [](patricia_node_t* n) {
    return reinterpret_cast<patricia_node_t*>(n->pn_child[0]);
  };
  for (p = chain; p != nullptr; p = next_of(p)) {
    auto* node = reinterpret_cast<vsk_attr_tree_node_t*>(p);
    for (vsk_attr_value_t* v = node->values_first; v != nullptr; v = v->next) {
      FreeMemberList(v->members);
      v->members = nullptr;
    }
    FreeIndexTree(node->index_root, true);
    node->index_root = nullptr;
  }
  while (chain != nullptr) {
    auto* node = reinterpret_cast<vsk_attr_tree_node_t*>(chain);
    chain = next_of(chain);
    vsk_attr_value_t* v = node->values_first;
    while (v != nullptr) {
      vsk_attr_value_t* next = v->next;
      if (node->owns_key) std::free(v->value);
      std::free(v);
      v = next;
    }
    if (node->owns_key) std::free(node->key);
    std::free(node);
  }
  patricia_root_delete(tree);
}

}  // extern "C"
