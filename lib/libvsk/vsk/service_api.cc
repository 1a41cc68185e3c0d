// The exported service session operations: the store's gate and argument checks over
// vsk::session.
#include <cstring>

#include "libvsk/base/trace.h"
#include "libvsk/store/txn.h"
#include "libvsk/vsk/arg_checks.h"
#include "libvsk/vsk/service_internal.h"
#include "vsk/service.h"

namespace {

using vsk::session::AttrsUsable;
using vsk::session::DynamicUsable;
using vsk::session::PrivateUsable;
using vsk::session::UpdatesUsable;

// The name goes into a 16-bit length with its NUL.
constexpr size_t kMaxNameLength = 0xFFFE;

// The checks of every update form, then the update; `parent` may be null.
vsk_status_t Update(const char* fn, vsk_session_id_t id, const vsk_attr_update_list_t* updates,
                    const vsk_attr_update_list_t* info_attrs, uint32_t app_id,
                    const vsk_app_data_t* private_data, vsk_db_txn_t* parent) {
  if (!UpdatesUsable(fn, updates) || !UpdatesUsable(fn, info_attrs) ||
      !PrivateUsable(fn, private_data)) {
    return VSK_ERR_INVALID_PARAM;
  }
  vsk::session::ServiceUpdate update;
  update.id = id;
  update.updates = updates;
  update.info_attrs = info_attrs;
  update.app_id = app_id;
  update.private_data = private_data;
  update.parent = parent;
  return vsk::session::UpdateServiceSession(update);
}

// The three public forms: the store's gate first.
vsk_status_t Public(const char* fn, vsk_session_id_t id, const vsk_attr_update_list_t* updates,
                    const vsk_attr_update_list_t* info_attrs, uint32_t app_id,
                    const vsk_app_data_t* private_data) {
  vsk_status_t st = vsk::store::Check();
  if (st != VSK_OK) return st;
  return Update(fn, id, updates, info_attrs, app_id, private_data, nullptr);
}

}  // namespace

extern "C" {

vsk_status_t vsk_create_service_session_by_client_id(vsk_session_id_t client_id,
                                                     const char* service_name,
                                                     vsk_attr_list_t* attrs,
                                                     vsk_dyn_attr_list_t* dynamic,
                                                     vsk_session_id_t* service_id) {
  constexpr char kFn[] = "vsk_create_service_session_by_client_id";
  if (service_name == nullptr || service_id == nullptr) {
    // Published: "idwithout" without a blank.
    VSK_TRACE(
        "%s: Creating service session by client session idwithout providing enough "
        "parameters",
        kFn);
    return VSK_ERR_INVALID_PARAM;
  }
  vsk_status_t st = vsk::store::Check();
  if (st != VSK_OK) return st;
  if (strnlen(service_name, kMaxNameLength + 1) > kMaxNameLength) {
    VSK_TRACE("%s: service name longer than %zu bytes", kFn, kMaxNameLength);
    return VSK_ERR_INVALID_PARAM;
  }
  if (!AttrsUsable(kFn, attrs) || !DynamicUsable(kFn, dynamic)) return VSK_ERR_INVALID_PARAM;
  return vsk::session::CreateServiceSession(client_id, service_name, attrs, dynamic, service_id);
}

vsk_status_t vsk_remove_service_session(vsk_session_id_t service_id) {
  vsk_status_t st = vsk::store::Check();
  if (st != VSK_OK) return st;
  return vsk::session::RemoveServiceSession(service_id);
}

vsk_status_t vsk_update_service_session(vsk_session_id_t service_id,
                                        const vsk_attr_update_list_t* updates) {
  return Public("vsk_update_service_session", service_id, updates, nullptr, 0, nullptr);
}

vsk_status_t vsk_update_service_session_and_info(vsk_session_id_t service_id,
                                                 const vsk_attr_update_list_t* updates,
                                                 const vsk_attr_update_list_t* info_attrs) {
  return Public("vsk_update_service_session_and_info", service_id, updates, info_attrs, 0, nullptr);
}

vsk_status_t vsk_update_service_session_private(vsk_session_id_t service_id,
                                                const vsk_attr_update_list_t* updates,
                                                uint32_t app_id,
                                                const vsk_app_data_t* private_data) {
  return Public("vsk_update_service_session_private", service_id, updates, nullptr, app_id,
                private_data);
}

vsk_status_t vsk_update_service_session_internal(vsk_session_id_t service_id,
                                                 const vsk_attr_update_list_t* updates,
                                                 const vsk_attr_update_list_t* info_attrs,
                                                 uint32_t app_id,
                                                 const vsk_app_data_t* private_data,
                                                 vsk_db_txn_t* parent_txn) {
  return Update("vsk_update_service_session_internal", service_id, updates, info_attrs, app_id,
                private_data, parent_txn);
}

vsk_status_t vsk_activate_service_sessions(const vsk_session_id_t* ids, uint32_t count) {
  vsk_status_t st = vsk::store::Check();
  if (st != VSK_OK) return st;
  if (ids == nullptr && count != 0) {
    VSK_TRACE("%s: %u service ids and no array", "vsk_activate_service_sessions", count);
    return VSK_ERR_INVALID_PARAM;
  }
  return vsk::session::ActivateServiceSessions(ids, count);
}

}  // extern "C"
