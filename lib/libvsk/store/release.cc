// Release of decoded records and keys, and the cleared objects of the *_empty calls.
// None of these fails; every one accepts null. `free_raw` is false for objects whose
// buffer was taken over elsewhere or that were built in memory.
#include <cstdlib>

#include "libvsk/attr/attr_codec.h"
#include "libvsk/store/records.h"
#include "vsk/tables.h"

void vsk::store::ReleaseSessionAttrs(vsk_attr_list_t** slot, bool free_values) {
  if (slot == nullptr) return;
  vsk::attr::FreeAttrList(*slot, free_values);
  *slot = nullptr;
}

extern "C" void vsk_db_release_session_attrs(vsk_attr_list_t** slot, bool free_values) {
  vsk::store::ReleaseSessionAttrs(slot, free_values);
}

void vsk::store::ReleaseClientSession(vsk_client_session_t* rec, bool free_raw) {
  if (rec == nullptr) return;
  vsk::store::ReleaseSessionAttrs(&rec->attrs, rec->free_attr_values != 0);
  std::free(rec->config_bits);
  if (rec->free_service_ids) std::free(rec->service_ids);
  if (free_raw) std::free(rec->raw);
  std::free(rec);
}

extern "C" void vsk_db_release_client_session(vsk_client_session_t* rec, bool free_raw) {
  vsk::store::ReleaseClientSession(rec, free_raw);
}

void vsk::store::ReleaseServiceSession(vsk_service_session_t* rec, bool free_raw) {
  if (rec == nullptr) return;
  vsk::store::ReleaseSessionAttrs(&rec->attrs, false);
  if (free_raw) std::free(rec->raw);
  std::free(rec);
}

extern "C" void vsk_db_release_service_session(vsk_service_session_t* rec, bool free_raw) {
  vsk::store::ReleaseServiceSession(rec, free_raw);
}

void vsk::store::ReleaseAuthInfo(vsk_auth_info_t* rec, bool free_raw) {
  if (rec == nullptr) return;
  vsk::store::ReleaseSessionAttrs(&rec->attrs, rec->free_attr_values != 0);
  if (free_raw) std::free(rec->raw);
  std::free(rec);
}

extern "C" void vsk_db_release_auth_info(vsk_auth_info_t* rec, bool free_raw) {
  vsk::store::ReleaseAuthInfo(rec, free_raw);
}

void vsk::store::ReleaseDynamicConfig(vsk_dynamic_config_t* rec, bool free_raw) {
  if (rec == nullptr) return;
  vsk::attr::FreeDynList(rec->attrs, rec->free_attr_values != 0);
  rec->attrs = nullptr;
  if (free_raw) std::free(rec->raw);
  std::free(rec);
}

extern "C" void vsk_db_release_dynamic_config(vsk_dynamic_config_t* rec, bool free_raw) {
  vsk::store::ReleaseDynamicConfig(rec, free_raw);
}

void vsk::store::ReleaseAppPriData(vsk_app_data_t* rec, bool free_raw) {
  if (rec == nullptr) return;
  if (free_raw) std::free(rec->raw);
  std::free(rec);
}

extern "C" void vsk_db_release_app_pri_data(vsk_app_data_t* rec, bool free_raw) {
  vsk::store::ReleaseAppPriData(rec, free_raw);
}

void vsk::store::ReleaseKeySessionId(vsk_session_key_t* key, bool free_raw) {
  if (key == nullptr) return;
  if (free_raw) std::free(key->raw);
  std::free(key);
}

extern "C" void vsk_db_release_key_session_id(vsk_session_key_t* key, bool free_raw) {
  vsk::store::ReleaseKeySessionId(key, free_raw);
}

void vsk::store::ReleaseKeyAppPriId(vsk_session_key_t* key, bool free_raw) {
  vsk::store::ReleaseKeySessionId(key, free_raw);
}

extern "C" void vsk_db_release_key_app_pri_id(vsk_session_key_t* key, bool free_raw) {
  vsk::store::ReleaseKeyAppPriId(key, free_raw);
}

void vsk::store::ReleaseKeyAppDefId(vsk_app_def_key_t* key, bool free_raw) {
  if (key == nullptr || key->key == nullptr) return;
  // The key buffer is shaped like a decoded object: its last word holds the raw buffer.
  auto* buffer = static_cast<vsk_session_key_t*>(key->key);
  if (free_raw) std::free(buffer->raw);
  std::free(buffer);
  key->key = nullptr;
}

extern "C" void vsk_db_release_key_app_def_id(vsk_app_def_key_t* key, bool free_raw) {
  vsk::store::ReleaseKeyAppDefId(key, free_raw);
}

vsk_status_t vsk::store::ClientSessionEmpty(vsk_client_session_t** out) {
  *out = static_cast<vsk_client_session_t*>(std::calloc(1, sizeof(vsk_client_session_t)));
  return *out != nullptr ? VSK_OK : VSK_ERR_NOMEM;
}

extern "C" vsk_status_t vsk_db_client_session_empty(vsk_client_session_t** out) {
  return vsk::store::ClientSessionEmpty(out);
}

vsk_status_t vsk::store::AuthInfoEmpty(vsk_auth_info_t** out) {
  *out = static_cast<vsk_auth_info_t*>(std::calloc(1, sizeof(vsk_auth_info_t)));
  return *out != nullptr ? VSK_OK : VSK_ERR_NOMEM;
}

extern "C" vsk_status_t vsk_db_auth_info_empty(vsk_auth_info_t** out) {
  return vsk::store::AuthInfoEmpty(out);
}

vsk_status_t vsk::store::DynamicConfigEmpty(vsk_dynamic_config_t** out) {
  *out = static_cast<vsk_dynamic_config_t*>(std::calloc(1, sizeof(vsk_dynamic_config_t)));
  return *out != nullptr ? VSK_OK : VSK_ERR_NOMEM;
}

extern "C" vsk_status_t vsk_db_dynamic_config_empty(vsk_dynamic_config_t** out) {
  return vsk::store::DynamicConfigEmpty(out);
}
