// Checks of caller-given lists that every exported session operation runs before it
// touches anything: a node or entry with a length but no value would be read through a
// null pointer by a record encoder or by the cache. Each check traces what it refused
// (naming `fn`, the exported operation) and answers false; the caller returns -6.
//
// Callers: the exported create, update and service session shims of this folder.
#pragma once

#include "vsk/attr.h"
#include "vsk/tables.h"

namespace vsk::session {

// Attribute nodes (null list: nothing to check).
bool AttrsUsable(const char* fn, const vsk_attr_list_t* list);
// Dynamic entries: a name each, and a value where there is a length.
bool DynamicUsable(const char* fn, const vsk_dyn_attr_list_t* list);
// Update entries: a type in range, an appended value where there is a length, a new value
// where there is a new length.
bool UpdatesUsable(const char* fn, const vsk_attr_update_list_t* list);
// Private data: bytes where there is a length (null data: nothing to store).
bool PrivateUsable(const char* fn, const vsk_app_data_t* data);

}  // namespace vsk::session
