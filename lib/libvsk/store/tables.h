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

}  // namespace vsk::store
