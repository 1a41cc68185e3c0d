// The session tables' operations for C++ callers; the exported vsk_db_get_*, vsk_db_put_*,
// vsk_db_del_* and vsk_db_*_record_exists are shims over these, with the same rules:
// every operation takes the caller's transaction block first, and none retries.
#pragma once

#include "vsk/tables.h"

namespace vsk::store {

vsk_status_t GetClientSession(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                       vsk_client_session_t** record_out, bool for_update);
vsk_status_t PutClientSession(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                       const vsk_client_session_t* record);
vsk_status_t DelClientSession(vsk_db_txn_t* txn, const vsk_session_id_t* key);
vsk_status_t ClientSessionRecordExists(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                                 bool for_update);
vsk_status_t GetServiceSession(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                        vsk_service_session_t** record_out, bool for_update,
                                        const uint8_t* mask, uint16_t mask_len);
vsk_status_t PutServiceSession(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                        const vsk_service_session_t* record);
vsk_status_t DelServiceSession(vsk_db_txn_t* txn, const vsk_session_id_t* key);
vsk_status_t GetAuthRequest(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                     vsk_auth_info_t** record_out, bool for_update);
vsk_status_t PutAuthRequest(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                     const vsk_auth_info_t* record);
vsk_status_t DelAuthRequest(vsk_db_txn_t* txn, const vsk_session_id_t* key);
vsk_status_t AuthRequestRecordExists(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                               bool for_update);
vsk_status_t GetAuthResponse(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                      vsk_auth_info_t** record_out, bool for_update);
vsk_status_t PutAuthResponse(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                      const vsk_auth_info_t* record);
vsk_status_t DelAuthResponse(vsk_db_txn_t* txn, const vsk_session_id_t* key);
vsk_status_t AuthResponseRecordExists(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                                bool for_update);
vsk_status_t GetDynamicConfig(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                       vsk_dynamic_config_t** record_out, bool for_update);
vsk_status_t PutDynamicConfig(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                       const vsk_dynamic_config_t* record);
vsk_status_t DelDynamicConfig(vsk_db_txn_t* txn, const vsk_session_id_t* key);
vsk_status_t DynamicConfigRecordExists(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                                 bool for_update);

// Application private data, keyed by (session id, application id).
vsk_status_t GetAppPriData(vsk_db_txn_t* txn, const vsk_app_pri_key_t* key,
                           vsk_app_data_t** data_out, bool for_update);
vsk_status_t PutAppPriData(vsk_db_txn_t* txn, const vsk_app_pri_key_t* key,
                           const vsk_app_data_t* data);
vsk_status_t DelAppPriData(vsk_db_txn_t* txn, const vsk_app_pri_key_t* key);
// Application-defined tables: -1 with "App defined table not open for table id %d" for an
// id of 7 or more or a table not open.
vsk_status_t GetAppDefData(vsk_db_txn_t* txn, const vsk_app_def_key_t* key,
                           vsk_app_data_t** data_out, bool for_update);
vsk_status_t PutAppDefData(vsk_db_txn_t* txn, const vsk_app_def_key_t* key,
                           const vsk_app_data_t* data);
vsk_status_t DelAppDefData(vsk_db_txn_t* txn, const vsk_app_def_key_t* key);
// One step of a walk of an application-defined table; see vsk_db_iterate_app_defined.
vsk_status_t IterateAppDefined(vsk_db_txn_t* walk, const void* current_key, const void* next_key,
                               vsk_app_def_key_t** key_out, vsk_app_def_key_t** next_out,
                               vsk_app_data_t** data_out, uint16_t table_id);

}  // namespace vsk::store
