// The exported operations of the session cache: argument checks over vsk::cache.
#include "libvsk/base/trace.h"
#include "libvsk/shared/session_cache.h"
#include "vsk/session_cache.h"
#include "vsk/shared.h"

namespace {

// A caller that handed no segment to an operation that must write or read one.
vsk_status_t NoSegment(const char* fn, vsk_session_id_t id) {
  VSK_TRACE("%s shm_offset is NULL %llu flag \n", fn, static_cast<unsigned long long>(id));
  return VSK_ERR_FATAL;
}

vsk_status_t NullArgument(const char* fn, const char* what) {
  VSK_TRACE("%s: %s is NULL", fn, what);
  return VSK_ERR_INVALID_PARAM;
}

}  // namespace

extern "C" {

bool vsk_is_session_in_shm(vsk_session_id_t id, void* shm) { return vsk::cache::IsCached(shm, id); }

void vsk_clear_session_in_shm(vsk_session_id_t id, void* shm) { vsk::cache::Clear(shm, id); }

void vsk_shm_wait(void) { vsk::cache::Wait(); }

int vsk_get_shared_mem(vsk_session_ids_t* ids) {
  if (ids == nullptr) {
    VSK_TRACE("%s: null id block", "vsk_get_shared_mem");
    return 0;
  }
  ids->shm_offset = vsk::cache::CachePosition(ids->session_id);
  return 0;
}

vsk_status_t vsk_create_session_data_in_shm(const vsk_session_ids_t* ids,
                                            vsk_session_id_t dynamic_id,
                                            const vsk_attr_list_t* attrs, void* shm) {
  static const char kFn[] = "vsk_create_session_data_in_shm";
  if (ids == nullptr) return NullArgument(kFn, "ids");
  if (shm == nullptr) return NoSegment(kFn, ids->session_id);
  return vsk::cache::CreateSession(shm, ids->session_id, dynamic_id, attrs);
}

vsk_status_t vsk_create_dynamic_data_in_shm(const vsk_dynamic_config_t* record, void* shm,
                                            vsk_session_id_t id, bool reset) {
  static const char kFn[] = "vsk_create_dynamic_data_in_shm";
  if (shm == nullptr) return NoSegment(kFn, id);
  return vsk::cache::WriteDynamicList(shm, id, record != nullptr ? record->attrs : nullptr, reset);
}

vsk_status_t vsk_put_dynamic_data_in_shm(const char* name, uint32_t length, const void* value,
                                         uint16_t tag, vsk_session_id_t id) {
  return vsk::cache::PutDynamic(vsk::cache::Segment(), id, name, length, value, tag);
}

vsk_status_t vsk_create_auth_req_resp_in_shm(const vsk_attr_list_t* list, void* shm,
                                             vsk_session_id_t id, bool is_request) {
  static const char kFn[] = "vsk_create_auth_req_resp_in_shm";
  if (shm == nullptr) return NoSegment(kFn, id);
  return vsk::cache::WriteAuthList(shm, id, list, is_request);
}

vsk_status_t vsk_update_session_data_in_shm(vsk_session_id_t id,
                                            const vsk_attr_update_list_t* updates,
                                            uint32_t* new_shared_state) {
  return vsk::cache::UpdateSession(vsk::cache::Segment(), id, updates, new_shared_state);
}

vsk_status_t vsk_update_session_header_in_shm(vsk_session_id_t id, uint16_t service_count,
                                              const vsk_session_id_t* service_ids) {
  return vsk::cache::UpdateHeader(vsk::cache::Segment(), id, service_count, service_ids);
}

vsk_status_t vsk_get_session_data_from_shm(vsk_snapshot_handle* handle, void* shm, uint16_t type,
                                           uint16_t* length, void** value, vsk_session_id_t id) {
  return vsk::cache::ReadAttr(handle, shm, id, type, length, value);
}

vsk_status_t vsk_get_config_bits_from_shm(void* shm, vsk_session_id_t id, uint8_t* bits,
                                          uint16_t* length) {
  return vsk::cache::ReadConfigBits(shm, id, bits, length);
}

int vsk_get_attr_from_tree_or_shm(patricia_root_t* tree, uint16_t type, void* buffer,
                                  void** allocated, void* shm, vsk_session_id_t id,
                                  vsk_status_t* status) {
  if (buffer == nullptr && allocated == nullptr) {
    if (status != nullptr) *status = NullArgument("vsk_get_attr_from_tree_or_shm", "buffer");
    return 0;
  }
  return vsk::cache::AttrFromTreeOrCache(tree, type, buffer, allocated, shm, id, status);
}

vsk_status_t vsk_shm_to_session_record(vsk_snapshot_handle* handle, void* shm,
                                       vsk_client_session_t* record, vsk_session_id_t id) {
  if (record == nullptr) return NullArgument("vsk_shm_to_session_record", "record");
  return vsk::cache::ToSessionRecord(handle, shm, id, record);
}

vsk_status_t vsk_shm_to_dynamic_record(vsk_dynamic_config_t* record, void* shm, vsk_session_id_t id,
                                       vsk_snapshot_handle* handle) {
  if (record == nullptr) return NullArgument("vsk_shm_to_dynamic_record", "record");
  return vsk::cache::ToDynamicRecord(handle, shm, id, record);
}

vsk_status_t vsk_shm_to_auth_record(vsk_auth_info_t* record, void* shm, vsk_session_id_t id,
                                    bool is_request) {
  if (record == nullptr) return NullArgument("vsk_shm_to_auth_record", "record");
  return vsk::cache::ToAuthRecord(shm, id, is_request, record);
}

vsk_status_t vsk_write_shm_session_to_db(vsk_session_id_t id, vsk_session_id_t dynamic_id,
                                         const vsk_dynamic_config_t* dynamic_record, void* shm,
                                         vsk_db_txn_t* txn) {
  static const char kFn[] = "vsk_write_shm_session_to_db";
  if (shm == nullptr) return NoSegment(kFn, id);
  return vsk::cache::WriteSessionToTables(shm, id, dynamic_id, dynamic_record, txn);
}

}  // extern "C"
