// Applying change lists to attribute trees: vsk_update_session for numeric session
// attributes, vsk_update_session_dynamic for named dynamic attributes with arrays.
//
// An error stops the list at that entry; what was applied before stands in the tree, and
// the caller throws the tree away. The trees borrow keys and values from the list, so the
// tree must be released before the list.
#include <cstring>

#include "libvsk/base/status.h"
#include "libvsk/base/trace.h"
#include "vsk/attr.h"

extern "C" {

vsk_status_t vsk_update_session(patricia_root_t* tree, const vsk_attr_update_list_t* updates) {
  if (tree == nullptr || updates == nullptr) return VSK_OK;
  for (const vsk_attr_update_t* e = updates->first; e != nullptr; e = e->next) {
    const void* key = &e->type;
    vsk_status_t st;
    switch (e->action) {
      case VSK_ATTR_ACTION_ADD_OR_APPEND:
        st = vsk_attr_tree_add(tree, 2, key, e->length, e->value, false);
        if (st != VSK_OK) {
          VSK_TRACE("Failed to append attributes to patricia tree %d\n", st);
          return st;
        }
        break;
      case VSK_ATTR_ACTION_ADD_OR_REPLACE:
        if (e->length != 0) {
          if (e->new_length == 0 || e->new_value == nullptr || e->value == nullptr) {
            VSK_TRACE("%s: Replacing attribute without providing old or new value\n", __func__);
            return VSK_ERR_INVALID_PARAM;
          }
          st = vsk_attr_tree_remove(tree, 2, key, e->length, e->value, true);
          if (st != VSK_OK) {
            VSK_TRACE("Failed to delete old attribute %d\n", st);
            return st;
          }
        } else {
          st = vsk_attr_tree_remove(tree, 2, key, 0, nullptr, false);
          if (st != VSK_OK && st != VSK_ERR_ATTR_MISMATCH) {
            VSK_TRACE("Failed to delete old attributes %d\n", st);
            return st;
          }
        }
        st = vsk_attr_tree_add(tree, 2, key, e->new_length, e->new_value, false);
        if (st != VSK_OK) {
          VSK_TRACE("%s: Failed to replace attribute, err=%s", __func__, vsk::base::ErrorText(st));
          return st;
        }
        break;
      case VSK_ATTR_ACTION_DELETE:
        if (e->length == 0) {
          st = vsk_attr_tree_remove(tree, 2, key, 0, nullptr, false);
          if (st != VSK_OK && st != VSK_ERR_ATTR_MISMATCH) {
            VSK_TRACE("%s: Failed to blind delete attributes, err=%s", __func__,
                      vsk::base::ErrorText(st));
            return st;
          }
        } else {
          if (e->value == nullptr) {
            VSK_TRACE("%s at %d: Deleting attribute without providing old value\n", __func__,
                      __LINE__);
            return VSK_ERR_INVALID_PARAM;
          }
          st = vsk_attr_tree_remove(tree, 2, key, e->length, e->value, true);
          if (st != VSK_OK) {
            VSK_TRACE("%s: Failed to delete attribute, err=%s", __func__, vsk::base::ErrorText(st));
            return st;
          }
        }
        break;
      default:
        // Published text: the double space before "action" is part of it.
        VSK_TRACE("%s at %d: Update client session with unknown  action type %d\n", __func__,
                  __LINE__, static_cast<int>(e->action));
        return VSK_ERR_INVALID_PARAM;
    }
  }
  return VSK_OK;
}

vsk_status_t vsk_update_session_dynamic(patricia_root_t* tree, const vsk_dyn_update_list_t* updates,
                                        uint16_t array_id, bool append_replaces) {
  if (tree == nullptr || updates == nullptr) return VSK_OK;
  // Cursors carried across the list.
  uint16_t cur_id = array_id;
  vsk_array_member_list_t* cur_members = nullptr;
  patricia_root_t* cur_index = nullptr;
  vsk_array_index_node_t* cur_index_node = nullptr;
  const void* ident_value = nullptr;  // the last identifying value
  const void* array_value = nullptr;  // the current array value
  bool ident_replaced = false;

  for (const vsk_dyn_update_t* src = updates->first; src != nullptr; src = src->next) {
    vsk_dyn_update_t e = *src;  // a copy: an append may be rewritten below
    if (e.name == nullptr) {
      VSK_TRACE("%s at %d: Update client session with unknown action name %d\n", __func__, __LINE__,
                static_cast<int>(e.action));
      return VSK_ERR_INVALID_PARAM;
    }
    const uint16_t klen = static_cast<uint16_t>(std::strlen(e.name) + 1);
    const uint16_t tag = e.array_tag;
    const bool identifying = tag == VSK_ARRAY_IDENTIFYING_TLV || tag == VSK_ARRAY_START_TLV;
    // Array context: a plain entry leaves any array; an identifying entry names the
    // instance that its members follow; a member needs one named before it.
    if (tag == VSK_ARRAY_NONE) {
      array_value = nullptr;
      ident_replaced = false;
    } else if (identifying) {
      array_value = nullptr;
      if (e.length != 0) {
        ident_value = e.value;
      } else if (e.new_length != 0) {
        ident_value = e.new_value;
      } else {
        VSK_TRACE("%s: No array value in identifying TLV, err=%s ", __func__,
                  vsk::base::ErrorText(VSK_ERR_INVALID_PARAM));
        return VSK_ERR_INVALID_PARAM;
      }
    } else if (tag == VSK_ARRAY_MEMBER_TLV) {
      if (ident_value == nullptr) {
        VSK_TRACE("%s - Array member without array start being added to patricia tree \n",
                  __func__);
        return VSK_ERR_INVALID_PARAM;
      }
      array_value = ident_value;
    }
    // An append that replaces whatever is there becomes a replace of the new value.
    if (append_replaces && e.action == VSK_ATTR_ACTION_ADD_OR_APPEND && e.length != 0 &&
        (tag == VSK_ARRAY_NONE || tag == VSK_ARRAY_MEMBER_TLV)) {
      e.new_length = e.length;
      e.new_value = e.value;
      e.length = 0;
      e.value = nullptr;
      e.action = VSK_ATTR_ACTION_ADD_OR_REPLACE;
    }
    // Bit actions and unknown codes have no meaning for dynamic configuration.
    if (e.action > VSK_ATTR_ACTION_DELETE_ARRAY || e.action == VSK_ATTR_ACTION_CLEAR_BITS ||
        e.action == VSK_ATTR_ACTION_SET_BITS) {
      VSK_TRACE("%s at %d: Update client session with unknown action name %d\n", __func__, __LINE__,
                static_cast<int>(e.action));
      return VSK_ERR_INVALID_PARAM;
    }
    vsk_status_t st;
    switch (e.action) {
      case VSK_ATTR_ACTION_ADD_OR_REPLACE:  // remove the old value (or all), add the new
        if (identifying) {
          ident_replaced = true;
        } else if (e.length != 0) {
          if (e.new_length == 0 || e.new_value == nullptr || e.value == nullptr) {
            VSK_TRACE("%s: Replacing attribute without providing old or new value\n", __func__);
            return VSK_ERR_INVALID_PARAM;
          }
          st = vsk_dyn_tree_remove(tree, klen, e.name, e.length, e.value, cur_id, true);
          if (st != VSK_OK && !(st == VSK_ERR_ATTR_MISMATCH && ident_replaced)) {
            VSK_TRACE("%s: Failed to delete old attribute, err=%s", __func__,
                      vsk::base::ErrorText(st));
            return st;
          }
        } else {
          st = vsk_dyn_tree_remove(tree, klen, e.name, 0, nullptr, cur_id, false);
          if (st != VSK_OK && st != VSK_ERR_ATTR_MISMATCH) {
            VSK_TRACE("%s: Failed to delete old attributes, err=%s", __func__,
                      vsk::base::ErrorText(st));
            return st;
          }
        }
        st = vsk_dyn_tree_add(tree, klen, e.name, e.new_length, e.new_value, tag, array_value,
                              &cur_id, &cur_members, &cur_index, &cur_index_node, false);
        if (st != VSK_OK) {
          VSK_TRACE("%s: Failed to replace attribute, err=%s", __func__, vsk::base::ErrorText(st));
          return st;
        }
        break;
      case VSK_ATTR_ACTION_ADD_OR_APPEND:  // one more value
        st = vsk_dyn_tree_add(tree, klen, e.name, e.length, e.value, tag, array_value, &cur_id,
                              &cur_members, &cur_index, &cur_index_node, false);
        if (st != VSK_OK) {
          VSK_TRACE("%s: Failed to append attributes to patricia tree, err=%s", __func__,
                    vsk::base::ErrorText(st));
          return st;
        }
        break;
      case VSK_ATTR_ACTION_DELETE:  // the given value, or every value without one
        if (identifying) {
          VSK_TRACE("%s at %d: Deleting array attribute with VSK_ARRAY_IDENTIFYING_TLV\n", __func__,
                    __LINE__);
          break;
        }
        if (e.length == 0) {
          st = vsk_dyn_tree_remove(tree, klen, e.name, 0, nullptr, cur_id, false);
          if (st != VSK_OK && st != VSK_ERR_ATTR_MISMATCH) {
            VSK_TRACE("%s: Failed to blind delete attributes, err=%s", __func__,
                      vsk::base::ErrorText(st));
            return st;
          }
        } else {
          if (e.value == nullptr) {
            VSK_TRACE("%s at %d: Deleting attribute without providing old value\n", __func__,
                      __LINE__);
            return VSK_ERR_INVALID_PARAM;
          }
          st = vsk_dyn_tree_remove(tree, klen, e.name, e.length, e.value, cur_id, true);
          if (st != VSK_OK) {
            VSK_TRACE("%s: Failed to delete attribute, err=%s", __func__, vsk::base::ErrorText(st));
            return st;
          }
        }
        break;
      case VSK_ATTR_ACTION_DELETE_ARRAY:  // a whole array instance, by its identifying value
        if (!identifying) {
          // Published text: the double space before "with" is part of it.
          VSK_TRACE("%s at %d: Deleting non-array attribute  with VSK_ARRAY_IDENTIFYING_TLV\n",
                    __func__, __LINE__);
          break;
        }
        st = vsk_dyn_tree_remove(tree, klen, e.name, e.length, e.value, cur_id, e.length != 0);
        if (st != VSK_OK) {
          VSK_TRACE("%s: Failed to delete attribute, err=%s", __func__, vsk::base::ErrorText(st));
          return st;
        }
        break;
      default:
        break;
    }
  }
  return VSK_OK;
}

}  // extern "C"
