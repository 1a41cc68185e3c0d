// Application private data and application-defined tables for C++ callers (the UID table,
// the filter daemon's side data); the exported vsk_*_app_private_data, vsk_get_app_pri_data
// and vsk_*_app_defined_* are thin shims over these, with the same statuses and traces.
#pragma once

#include <cstdint>

#include "vsk/app_data.h"

namespace vsk::session {

// Writes with four attempts on -4/-11, each in its own transaction. The removals count a
// missing record as success.
vsk_status_t PutAppPrivateData(uint32_t app_id, vsk_session_id_t session_id,
                               const vsk_app_data_t* data);
vsk_status_t RemoveAppPrivateData(uint32_t app_id, vsk_session_id_t session_id);
vsk_status_t PutAppDefinedData(uint16_t table_id, const void* key, const vsk_app_data_t* data);
vsk_status_t RemoveAppDefinedData(uint16_t table_id, const void* key);

// The record of (`session_id`, `app_id`) read outside a snapshot, or null for every
// failure (store not usable, no record, three attempts failed). No trace. The caller
// releases it with vsk_db_release_app_pri_data(data, true).
vsk_app_data_t* ReadAppPrivateData(vsk_session_id_t session_id, uint32_t app_id);

vsk_status_t OpenAppDefinedTable(uint32_t table_id, const char* name);

// Single read (action 0) or walk step (action 2, `walk` required) into `handle`.
vsk_status_t GetAppDefinedSnapshot(vsk_app_defined_handle* handle, int action, vsk_db_txn_t* walk);
void FreeAppDefinedHandle(vsk_app_defined_handle* handle);

vsk_status_t GetNextRecoverAppDefinedTable(vsk_app_defined_callback_t callback,
                                           vsk_app_defined_handle* handle, int32_t max_count,
                                           bool done);
vsk_status_t RecoverAppDefinedTable(vsk_app_defined_callback_t callback, uint32_t table_id);

}  // namespace vsk::session
