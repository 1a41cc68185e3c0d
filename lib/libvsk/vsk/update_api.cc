// The exported update and removal operations: argument checks over vsk::session.
//
// An update entry with a length but no value would be read through a null pointer by the
// record encoder or the cache; such a list, or one with a type out of range, is refused
// with -6 before anything is touched.
#include "libvsk/base/trace.h"
#include "libvsk/shared/session_cache.h"
#include "libvsk/store/txn.h"
#include "libvsk/vsk/arg_checks.h"
#include "libvsk/vsk/update_internal.h"
#include "vsk/session.h"

namespace {

using vsk::session::PrivateUsable;
using vsk::session::UpdatesUsable;

// The public forms: the segment, the gate, the checks, then the internal form.
vsk_status_t Public(const char* fn, vsk_session_id_t id, const vsk_attr_update_list_t* updates,
                    const vsk_attr_update_list_t* info_attrs, uint32_t app_id,
                    const vsk_app_data_t* private_data) {
  vsk::session::UpdateRequest request;
  request.shm = vsk::cache::Segment();
  vsk_status_t st = vsk::store::Check();
  if (st != VSK_OK) return st;
  if (!UpdatesUsable(fn, updates) || !UpdatesUsable(fn, info_attrs) ||
      !PrivateUsable(fn, private_data)) {
    return VSK_ERR_INVALID_PARAM;
  }
  request.id = id;
  request.updates = updates;
  request.info_attrs = info_attrs;
  request.app_id = app_id;
  request.private_data = private_data;
  return vsk::session::UpdateClientSession(request);
}

}  // namespace

extern "C" {

vsk_status_t vsk_update_client_session(vsk_session_id_t session_id,
                                       const vsk_attr_update_list_t* updates) {
  return Public("vsk_update_client_session", session_id, updates, nullptr, 0, nullptr);
}

vsk_status_t vsk_update_client_session_and_info(vsk_session_id_t session_id,
                                                const vsk_attr_update_list_t* updates,
                                                const vsk_attr_update_list_t* info_attrs) {
  return Public("vsk_update_client_session_and_info", session_id, updates, info_attrs, 0,
                nullptr);
}

vsk_status_t vsk_update_client_session_private(vsk_session_id_t session_id,
                                               const vsk_attr_update_list_t* updates,
                                               uint32_t app_id,
                                               const vsk_app_data_t* private_data) {
  return Public("vsk_update_client_session_private", session_id, updates, nullptr, app_id,
                private_data);
}

vsk_status_t vsk_update_client_session_internal(vsk_session_ids_t ids, void* shm,
                                                const vsk_attr_update_list_t* updates,
                                                const vsk_attr_update_list_t* info_attrs,
                                                uint32_t app_id,
                                                const vsk_app_data_t* private_data,
                                                vsk_db_txn_t* txn, uint32_t* client_type_out,
                                                char* interface_name_out) {
  constexpr char kFn[] = "vsk_update_client_session_internal";
  if (!UpdatesUsable(kFn, updates) || !UpdatesUsable(kFn, info_attrs) ||
      !PrivateUsable(kFn, private_data)) {
    return VSK_ERR_INVALID_PARAM;
  }
  vsk::session::UpdateRequest request;
  request.id = ids.session_id;
  request.shm = shm;
  request.updates = updates;
  request.info_attrs = info_attrs;
  request.app_id = app_id;
  request.private_data = private_data;
  request.txn = txn;
  request.client_type_out = client_type_out;
  request.interface_name_out = interface_name_out;
  return vsk::session::UpdateClientSession(request);
}

vsk_status_t vsk_remove_bundled_client_session(vsk_session_id_t session_id,
                                               uint8_t remove_dynamic) {
  vsk_status_t st = vsk::store::Check();
  if (st != VSK_OK) return st;
  return vsk::session::RemoveClientSession(session_id, remove_dynamic != 0);
}

vsk_status_t vsk_remove_client_session(vsk_session_id_t session_id) {
  return vsk_remove_bundled_client_session(session_id, 1);
}

}  // extern "C"
