#include "libvsk/vsk/arg_checks.h"

#include "libvsk/base/trace.h"

namespace vsk::session {

bool AttrsUsable(const char* fn, const vsk_attr_list_t* list) {
  if (list == nullptr) return true;
  for (const vsk_attr_t* a = list->first; a != nullptr; a = a->next) {
    if (a->length != 0 && a->value == nullptr) {
      VSK_TRACE("%s: attribute %u has length %u and no value", fn, a->type, a->length);
      return false;
    }
  }
  return true;
}

bool DynamicUsable(const char* fn, const vsk_dyn_attr_list_t* list) {
  if (list == nullptr) return true;
  for (const vsk_dyn_attr_t* a = list->first; a != nullptr; a = a->next) {
    if (a->name == nullptr || (a->length != 0 && a->value == nullptr)) {
      VSK_TRACE("%s: dynamic attribute %s has length %u and no value", fn,
                a->name != nullptr ? a->name : "(no name)", a->length);
      return false;
    }
  }
  return true;
}

bool UpdatesUsable(const char* fn, const vsk_attr_update_list_t* list) {
  if (list == nullptr) return true;
  for (const vsk_attr_update_t* e = list->first; e != nullptr; e = e->next) {
    const bool bad_type = e->type < VSK_TYPE_MIN || e->type >= VSK_TYPE_MAX;
    const bool bad_old =
        e->length != 0 && e->value == nullptr && e->action == VSK_ATTR_ACTION_ADD_OR_APPEND;
    const bool bad_new = e->new_length != 0 && e->new_value == nullptr;
    if (bad_type || bad_old || bad_new) {
      VSK_TRACE("%s: update of attribute %u (action %u) has a bad type or a length without value",
                fn, e->type, e->action);
      return false;
    }
  }
  return true;
}

bool PrivateUsable(const char* fn, const vsk_app_data_t* data) {
  if (data == nullptr || data->length == 0 || data->data != nullptr) return true;
  VSK_TRACE("%s: private data has length %u and no value", fn, data->length);
  return false;
}

}  // namespace vsk::session
