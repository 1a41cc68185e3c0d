// Reads of a snapshot's dynamic configuration by name, and the array cursor that reads an
// array one step per call.
//
// Name lookup: the service's (or client's) `dynamic` tree, then the client's `predefined`
// tree of values computed on demand, then the computation of a predefined name
// (predefined.cc); any other name is -7.
//
// The array cursor keeps its state in the handle (vsk/attr_read.h), except `g_saved_level`,
// the deepest level of the previous pass, which is process-wide: two handles read in turn
// disturb each other, as the published behaviour has it.
#include <cstdlib>
#include <cstring>

#include "libvsk/base/trace.h"
#include "libvsk/vsk/dynamic_internal.h"
#include "libvsk/vsk/snapshot_internal.h"
#include "vsk/attr_read.h"

namespace vsk::snapshot {
namespace {

uint32_t g_saved_level = 0;

vsk_attr_tree_node_t* FindName(patricia_root_t* tree, const char* name) {
  if (tree == nullptr) return nullptr;
  return reinterpret_cast<vsk_attr_tree_node_t*>(
      patricia_get(tree, static_cast<uint16_t>(std::strlen(name) + 1), name));
}

// A value equals `text` when it holds its characters, with or without a closing NUL.
bool SameValue(const vsk_attr_value_t* v, const char* text) {
  if (v == nullptr || v->value == nullptr || text == nullptr) return false;
  const size_t n = std::strlen(text);
  const auto* bytes = static_cast<const char*>(v->value);
  return (v->length == n || (v->length == n + 1 && bytes[n] == '\0')) &&
         std::memcmp(bytes, text, n) == 0;
}

// A member's `array_value` points at its instance's identifying value, whose length is not
// kept with the pointer: at most the length of `text` is read.
bool SameArrayValue(const void* a, const char* text) {
  return a != nullptr && text != nullptr &&
         std::strncmp(static_cast<const char*>(a), text, std::strlen(text)) == 0;
}

// The stored identifying text kept in the handle against an argument.
bool SameText(const char* kept, const char* text) {
  return kept != nullptr && text != nullptr && std::strcmp(kept, text) == 0;
}

// Keeps `text` in `*slot`: an equal string stays, otherwise the old one is replaced by a copy.
vsk_status_t StoreString(char** slot, const char* text) {
  if (*slot != nullptr && std::strcmp(*slot, text) == 0) return VSK_OK;
  char* copy = strdup(text);
  if (copy == nullptr) {
    VSK_TRACE("%s can't allocate space for array identifying attr name", "STORE_STRING");
    return VSK_ERR_NOMEM;
  }
  std::free(*slot);
  *slot = copy;
  return VSK_OK;
}

constexpr uint32_t kTopLevel = VSK_ARRAY_LEVELS - 1;

// One step of the cursor at level `l` through index tree `r`.
vsk_status_t Step(vsk_snapshot_handle* h, uint32_t l, patricia_root_t* r, vsk_attr_value_t** out) {
  if (r != nullptr && h->same_entry == 0) {
    h->level_cursor[l] = reinterpret_cast<vsk_array_index_node_t*>(
        patricia_find_next(r, reinterpret_cast<patricia_node_t*>(h->level_cursor[l])));
    h->level_next[l] = h->level_cursor[l] != nullptr
                           ? reinterpret_cast<vsk_array_index_node_t*>(patricia_find_next(
                                 r, reinterpret_cast<patricia_node_t*>(h->level_cursor[l])))
                           : nullptr;
  }
  vsk_array_index_node_t* at = h->level_cursor[l];
  if (at == nullptr) {
    h->array_done = 1;
    h->same_entry = 0;
    h->array_root = nullptr;
    return VSK_ERR_NOT_FOUND;
  }
  if (at->nested_root != nullptr) {
    h->level = l;
    h->level_root = at->nested_root;
    h->array_id = at->array_id;
    *out = at->entry;
  }
  return VSK_OK;
}

vsk_status_t Lookup(vsk_snapshot_handle* h, uint64_t id, const char* name, vsk_attr_value_t** out,
                    uint16_t* tag_out, uint8_t* top_out, bool array_mode) {
  if (name == nullptr || h == nullptr || h->data == nullptr || IsLight(h)) {
    return VSK_ERR_INVALID_PARAM;
  }
  patricia_root_t* tree;
  patricia_root_t* pre = nullptr;
  if (id == 0) {
    if (h->data->client == nullptr) return VSK_ERR_NOT_FOUND;
    tree = h->data->client->dynamic;
    pre = h->data->client->predefined;
  } else {
    vsk_snapshot_service_node* s = FindService(h, id);
    if (s == nullptr) return VSK_ERR_NOT_FOUND;
    tree = s->dynamic;
  }
  if (vsk_attr_tree_node_t* node = FindName(tree, name)) {
    if (node->array_tag >= VSK_ARRAY_IDENTIFYING_TLV && node->array_tag <= VSK_ARRAY_MEMBER_TLV &&
        !array_mode) {
      return VSK_ERR_NO_ARRAY;  // an array member is not read by plain name
    }
    if (top_out != nullptr) *top_out = node->top_level;
    if (tag_out != nullptr) *tag_out = node->array_tag;
    if (node->top_level != 0 && node->index_root != nullptr && node->index_root != h->array_root) {
      vsk_cleanup_after_arrays(h);
      h->array_root = node->index_root;
    }
    *out = reinterpret_cast<vsk_attr_value_t*>(&node->values_first);
    return VSK_OK;
  }
  if (vsk_attr_tree_node_t* node = FindName(pre, name)) {
    *out = reinterpret_cast<vsk_attr_value_t*>(&node->values_first);
    return VSK_OK;
  }
  // A predefined "kelvo-" name is computed now (for a service too, into the client's tree).
  return session::Predefined(h, id, name, out);
}

// A plain or member name: the value of the array instance being read.
vsk_status_t ReadPlainOrMember(vsk_snapshot_handle* h, const char* name, const char* array_value,
                               vsk_attr_value_t* list, uint16_t tag, vsk_attr_value_t** out) {
  vsk_status_t st = StoreString(&h->last_attr_name, name);
  if (st != VSK_OK) return st;
  h->same_entry = 0;
  *out = list->next;
  if (*out == nullptr) return VSK_ERR_NOT_FOUND;
  if (tag == VSK_ARRAY_NONE) return VSK_OK;
  if (h->array_attr_name == nullptr && h->array_attr_value != nullptr) return VSK_ERR_NOT_FOUND;
  for (vsk_attr_value_t* v = list->next; v != nullptr; v = v->next) {
    const bool match = h->array_attr_name != nullptr ? v->array_id == h->array_id
                       : array_value != nullptr      ? SameArrayValue(v->array_value, array_value)
                                                     : true;
    if (match) {
      *out = v;
      return VSK_OK;
    }
  }
  return VSK_ERR_NOT_FOUND;
}

}  // namespace

vsk_status_t DynamicAttr(vsk_snapshot_handle* h, uint64_t id, const char* name,
                         vsk_attr_value_t** out) {
  vsk_status_t st = Lookup(h, id, name, out, nullptr, nullptr, false);
  if (st == VSK_ERR_NOT_FOUND && id != 0) st = Lookup(h, 0, name, out, nullptr, nullptr, false);
  return st;
}

}  // namespace vsk::snapshot

using namespace vsk::snapshot;

extern "C" {

vsk_status_t vsk_get_internal_variables_internal(vsk_snapshot_handle* handle, vsk_session_id_t id,
                                                 const char* name, vsk_attr_value_t** out,
                                                 uint16_t* tag_out, uint8_t* top_level_out,
                                                 int array_mode) {
  if (out == nullptr) return VSK_ERR_INVALID_PARAM;
  return Lookup(handle, id, name, out, tag_out, top_level_out, array_mode != 0);
}

vsk_status_t vsk_get_dynamic_config_attr(vsk_snapshot_handle* handle, vsk_session_id_t id,
                                         const char* name, vsk_attr_value_t** out) {
  if (out == nullptr) return VSK_ERR_INVALID_PARAM;
  return DynamicAttr(handle, id, name, out);
}

vsk_status_t vsk_get_dynamic_array_config_attr_str(vsk_snapshot_handle* h, vsk_session_id_t id,
                                                   const char* name, const char* array_value,
                                                   vsk_attr_value_t** out, int mode) {
  if (h == nullptr) {
    VSK_TRACE_AT(VSK_TRACE_LEVEL_ERROR, "%s: can't call without snapshot handle",
                 "vsk_get_dynamic_array_config_attr_str");
    return VSK_ERR_INVALID_PARAM;
  }
  if (out == nullptr || name == nullptr) return VSK_ERR_INVALID_PARAM;
  uint32_t lvl = h->level < kTopLevel ? h->level : kTopLevel;
  vsk_attr_value_t* list = nullptr;
  uint16_t tag = 0;
  uint8_t top = 0;
  vsk_status_t st = Lookup(h, id, name, &list, &tag, &top, true);
  if (st == VSK_ERR_NOT_FOUND && id != 0) st = Lookup(h, 0, name, &list, &tag, &top, true);
  if (st != VSK_OK) return st;
  if (tag != VSK_ARRAY_IDENTIFYING_TLV && tag != VSK_ARRAY_START_TLV) {
    return ReadPlainOrMember(h, name, array_value, list, tag, out);
  }
  // An identifying name: the cursor moves through the array's index trees.
  patricia_root_t* root = h->array_root;
  if (h->array_attr_name == nullptr && (st = StoreString(&h->array_attr_name, name)) != VSK_OK) {
    return st;
  }
  if (h->last_attr_name == nullptr) {
    if ((st = StoreString(&h->last_attr_name, name)) != VSK_OK) return st;
  } else if (std::strcmp(name, h->last_attr_name) != 0 || mode == VSK_ARRAY_READ_NEXT) {
    if (std::strcmp(name, h->array_attr_name) != 0 && mode != VSK_ARRAY_READ_NEXT) {
      if (lvl + 1 < kTopLevel) ++lvl;  // the caller went down a nesting level
    } else if (lvl != 0) {
      g_saved_level = lvl;
      lvl = 0;
    }
    if ((st = StoreString(&h->last_attr_name, name)) != VSK_OK) return st;
    h->same_entry = 0;
    if (lvl + 1 <= g_saved_level && lvl + 1 < VSK_ARRAY_LEVELS) {
      if (h->level_next[lvl + 1] != nullptr) {
        h->same_entry = 1;
      } else {
        h->level_cursor[lvl + 1] = nullptr;
      }
    }
  } else {
    h->same_entry = 1;
  }
  if (array_value != nullptr && root != nullptr) {
    if ((st = StoreString(&h->array_attr_value, array_value)) != VSK_OK) return st;
    if (lvl != 0) root = h->level_root;
    h->level_cursor[lvl] = nullptr;
    h->same_entry = 0;
    for (;;) {
      st = Step(h, lvl, root, out);
      if (st != VSK_OK) {
        h->array_done = 1;
        return st;
      }
      const vsk_array_index_node_t* at = h->level_cursor[lvl];
      if (SameValue(at->entry, array_value)) {
        *out = at->entry;
        return VSK_OK;
      }
    }
  }
  if (array_value != nullptr) {
    if (SameText(h->array_attr_value, array_value) && h->level_cursor[lvl] == nullptr) {
      return VSK_ERR_NOT_FOUND;
    }
    for (vsk_attr_value_t* v = list->next; v != nullptr; v = v->next) {
      if (SameArrayValue(v->array_value, array_value)) {
        root = h->array_root = v->parent_index;
        break;
      }
    }
    h->same_entry = 0;
    if ((st = StoreString(&h->array_attr_value, array_value)) != VSK_OK) return st;
    h->array_done = 0;
    return Step(h, lvl, root, out);
  }
  if (root == nullptr) return VSK_ERR_NO_ARRAY;  // "need array identifying TLV"
  if (lvl != 0) root = h->level_root;
  if (mode == VSK_ARRAY_READ_BEGIN) {
    h->entry_index = 0;
  } else if (mode == VSK_ARRAY_READ_NEXT) {
    ++h->entry_index;
  } else if (mode != VSK_ARRAY_READ_STAY) {
    return Step(h, lvl, root, out);
  }
  if (h->array_done == 1) {
    vsk_cleanup_after_arrays(h);
    return VSK_ERR_NOT_FOUND;
  }
  if (mode == VSK_ARRAY_READ_BEGIN) {
    uint16_t n = 0;
    for (vsk_attr_value_t* v = list->next; v != nullptr; v = v->next) ++n;
    h->entry_count = n;
  }
  vsk_attr_value_t* v = list->next;
  for (uint32_t i = 0; v != nullptr && i < h->entry_index; ++i) v = v->next;
  if (v == nullptr) {
    h->entry_index = 0;
    h->array_done = 1;
    return VSK_ERR_NOT_FOUND;
  }
  *out = v;
  return VSK_OK;
}

}  // extern "C"
