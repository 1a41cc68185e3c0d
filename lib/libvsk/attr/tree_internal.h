// Shared pieces of the attribute and dynamic trees: node creation, value lists, member
// lists and array index trees. Callers: the tree files of this folder only.
//
// Invariants kept across every edit of a tree:
//  1. An identifying value with a non-null `parent_index` has exactly one index node in
//     that tree whose `entry` is the value; freeing the value first removes that index node
//     (and releases the index node's nested tree).
//  2. `member_state` of a value: 0 no member list points at it; 1 a live member list does
//     and the value is in its node's list; 2 a live member list does and the value was
//     unlinked from its node (kept only for that list, with length and value zeroed).
//     A member list frees the values in state 2 and returns the others to 0.
#pragma once

#include <cstdint>

#include "vsk/attr.h"

namespace vsk::attr {

enum MemberState : uint8_t { kNoMemberList = 0, kListed = 1, kDetached = 2 };

// The node under this key, or null.
vsk_attr_tree_node_t* FindNode(patricia_root_t* tree, uint16_t key_length, const void* key);

// Allocates a node with an empty value list and adds it. -2 no memory, -3 refused (the
// node is freed). On success *out is the node.
vsk_status_t MakeNode(patricia_root_t* tree, uint16_t key_length, const void* key, bool owns,
                      vsk_attr_tree_node_t** out);

// Appends `value` at the end of the node's list.
void AppendValue(vsk_attr_tree_node_t* node, vsk_attr_value_t* value);

// Unlinks `value` (found through `link`, the address of the pointer to it) from the node.
void UnlinkValue(vsk_attr_tree_node_t* node, vsk_attr_value_t** link);

// Frees a member list; see invariant 2.
void FreeMemberList(vsk_array_member_list_t* list);

// Frees one value that is no longer in any node list: its member list, its index node,
// its bytes when the node owns them, and the value itself.
void ReleaseValue(vsk_attr_tree_node_t* node, vsk_attr_value_t* value);

// A member value leaves its node's list but may stay for its member list.
void DetachMemberValue(vsk_attr_tree_node_t* node, vsk_attr_value_t* value);

// Deletes the node from the tree and frees it with all its values and its index tree.
void DropNode(patricia_root_t* tree, vsk_attr_tree_node_t* node);

// Frees an index tree and every nested tree below it. With `clear_entries`, each index
// node's value forgets its `parent_index` (the values must still be alive).
void FreeIndexTree(patricia_root_t* root, bool clear_entries);

// A new empty index tree (key by pointer, offset 0), or null.
patricia_root_t* NewIndexTree();

bool SameBytes(uint32_t a_len, const void* a, uint32_t b_len, const void* b);

}  // namespace vsk::attr
