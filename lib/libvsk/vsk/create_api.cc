// The exported create operations: argument checks over vsk::session::CreateClientSession.
//
// A node with a length but no value would be read through a null pointer by the record
// encoder and the cache: such a list is refused with -6 before anything is touched.
#include "libvsk/base/trace.h"
#include "libvsk/vsk/arg_checks.h"
#include "libvsk/vsk/create_internal.h"
#include "vsk/session.h"

namespace {

using vsk::session::AttrsUsable;
using vsk::session::DynamicUsable;

constexpr char kNotEnough[] = "%s: Creating client session without provide enough parameters";

// The extended create's checks and call, shared by the three entry points.
vsk_status_t Extended(const char* fn, uint32_t client_type, vsk_attr_list_t* attrs,
                      vsk_attr_list_t* auth_request, vsk_dyn_attr_list_t* dynamic,
                      vsk_session_ids_t* ids, const vsk_create_options_t* options,
                      const vsk_attr_list_t* inherit_types) {
  if (ids == nullptr) {
    VSK_TRACE(kNotEnough, fn);
    return VSK_ERR_INVALID_PARAM;
  }
  if (!AttrsUsable(fn, attrs) || !AttrsUsable(fn, auth_request) || !DynamicUsable(fn, dynamic)) {
    return VSK_ERR_INVALID_PARAM;
  }
  vsk::session::CreateRequest request;
  request.client_type = client_type;
  request.attrs = attrs;
  request.auth_request = auth_request;
  request.dynamic = dynamic;
  request.ids = ids;
  request.options = options;
  request.inherit_types = inherit_types;
  return vsk::session::CreateClientSession(request);
}

// The bundled form: a stack id block, no options; the id is handed out on success only.
vsk_status_t Bundled(const char* fn, uint32_t client_type, vsk_attr_list_t* attrs,
                     vsk_attr_list_t* auth_request, vsk_dyn_attr_list_t* dynamic,
                     vsk_session_id_t* session_id, vsk_session_id_t dynamic_session_id,
                     const vsk_attr_list_t* inherit_types) {
  if (session_id == nullptr) {
    VSK_TRACE(kNotEnough, fn);
    return VSK_ERR_INVALID_PARAM;
  }
  vsk_session_ids_t ids{};
  ids.dynamic_session_id = dynamic_session_id;
  vsk_status_t st =
      Extended(fn, client_type, attrs, auth_request, dynamic, &ids, nullptr, inherit_types);
  if (st == VSK_OK) *session_id = ids.session_id;
  return st;
}

}  // namespace

extern "C" {

vsk_status_t vsk_create_extended_client_session(uint32_t client_type, vsk_attr_list_t* attrs,
                                                vsk_attr_list_t* auth_request,
                                                vsk_dyn_attr_list_t* dynamic,
                                                vsk_session_ids_t* ids,
                                                const vsk_create_options_t* options,
                                                const vsk_attr_list_t* inherit_types) {
  return Extended("vsk_create_extended_client_session", client_type, attrs, auth_request, dynamic,
                  ids, options, inherit_types);
}

vsk_status_t vsk_create_bundled_client_session(uint32_t client_type, vsk_attr_list_t* attrs,
                                               vsk_attr_list_t* auth_request,
                                               vsk_dyn_attr_list_t* dynamic,
                                               vsk_session_id_t* session_id,
                                               vsk_session_id_t dynamic_session_id,
                                               const vsk_attr_list_t* inherit_types) {
  return Bundled("vsk_create_bundled_client_session", client_type, attrs, auth_request, dynamic,
                 session_id, dynamic_session_id, inherit_types);
}

vsk_status_t vsk_create_client_session(uint32_t client_type, vsk_attr_list_t* attrs,
                                       vsk_attr_list_t* auth_request, vsk_dyn_attr_list_t* dynamic,
                                       vsk_session_id_t* session_id) {
  return Bundled("vsk_create_client_session", client_type, attrs, auth_request, dynamic, session_id,
                 0, nullptr);
}

}  // extern "C"
