// Attribute lists: lookups by type and the conversion of a dynamic attribute list into a
// replace list. Nothing here takes ownership of a caller's list or values.
#include <cstdlib>

#include "vsk/attr.h"

extern "C" {

vsk_attr_t* vsk_get_attribute_from_list(const vsk_attr_list_t* list, uint16_t type) {
  for (vsk_attr_t* a = list->first; a != nullptr; a = a->next) {
    if (a->type == type) return a;
  }
  return nullptr;
}

vsk_status_t vsk_db_get_client_attr_by_type(vsk_attr_t** result, const vsk_attr_list_t* list,
                                            uint16_t type) {
  if (result != nullptr) *result = nullptr;
  if (list == nullptr) return VSK_ERR_INVALID_PARAM;
  vsk_attr_t* a = vsk_get_attribute_from_list(list, type);
  if (result != nullptr) *result = a;
  return a != nullptr ? VSK_OK : VSK_ERR_NOT_FOUND;
}

void vsk_dyn_update_list_free(vsk_dyn_update_list_t* list) {
  if (list == nullptr) return;
  vsk_dyn_update_t* e = list->first;
  while (e != nullptr) {
    vsk_dyn_update_t* next = e->next;
    std::free(e);
    e = next;
  }
  std::free(list);
}

vsk_status_t vsk_convert_dynamic_to_add_replace(const vsk_dyn_attr_list_t* list,
                                                vsk_dyn_update_list_t** result) {
  if (result == nullptr) return VSK_ERR_INVALID_PARAM;
  *result = nullptr;
  auto* out = static_cast<vsk_dyn_update_list_t*>(std::calloc(1, sizeof(vsk_dyn_update_list_t)));
  if (out == nullptr) return VSK_ERR_NOMEM;
  out->first = nullptr;
  out->last = &out->first;
  for (const vsk_dyn_attr_t* a = list != nullptr ? list->first : nullptr; a != nullptr;
       a = a->next) {
    auto* e = static_cast<vsk_dyn_update_t*>(std::calloc(1, sizeof(vsk_dyn_update_t)));
    if (e == nullptr) {
      vsk_dyn_update_list_free(out);
      return VSK_ERR_NOMEM;
    }
    e->action = VSK_ATTR_ACTION_ADD_OR_REPLACE;
    e->name = a->name;
    e->length = 0;
    e->value = nullptr;
    e->array_tag = 0;
    e->new_length = a->length;
    e->new_value = a->value;
    *out->last = e;
    out->last = &e->next;
  }
  *result = out;
  return VSK_OK;
}

}  // extern "C"
