// Per-table operations of the session tables: client, service, auth request, auth
// response and dynamic configuration, all keyed by an 8-byte id.
//
// Every operation runs in the caller's transaction (the block may hold a null `txn`),
// does no retry and no vsk_db_check. Reads hand back an object the caller releases; on a
// failed read *record_out is null, except after -20, when the filtered object stays there
// for the caller to release.
#include <db.h>

#include "libvsk/base/trace.h"
#include "libvsk/store/context.h"
#include "libvsk/store/dyn_db_internal.h"
#include "libvsk/store/records.h"
#include "libvsk/store/tables.h"
#include "vsk/dyn_db.h"
#include "vsk/tables.h"

namespace vsk::store {
namespace {

DB_TXN* TxnOf(vsk_db_txn_t* block) { return block != nullptr ? block->txn : nullptr; }

enum class Table { kClient, kService, kAuthRequest, kAuthResponse, kDynamic };

DB* Handle(Table t) {
  StoreContext* ctx = Context();
  if (ctx == nullptr) return nullptr;
  switch (t) {
    case Table::kClient:
      return ctx->client_session_db;
    case Table::kService:
      return ctx->service_session_db;
    case Table::kAuthRequest:
      return ctx->auth_request_db;
    case Table::kAuthResponse:
      return ctx->auth_response_db;
    case Table::kDynamic:
      return ctx->dynamic_config_db;
  }
  return nullptr;
}

// A table that was never opened in this process: the store is not up here.
vsk_status_t NotOpen() { return VSK_ERR_FATAL; }

template <typename Rec, typename Release>
vsk_status_t Get(Table t, vsk_db_txn_t* txn, const vsk_session_id_t* key, Rec** out,
                 bool for_update, vsk_value_decoder_t decoder, Release release,
                 const uint8_t* mask = nullptr, uint16_t mask_len = 0) {
  if (out == nullptr || key == nullptr) return VSK_ERR_INVALID_PARAM;
  *out = nullptr;
  DB* db = Handle(t);
  if (db == nullptr) return NotOpen();
  vsk_status_t st = vsk::store::DynGet(db, TxnOf(txn), key, EncodeSessionKey, out, decoder,
                                       for_update ? DB_RMW : 0, mask, mask_len);
  if (st != VSK_OK && st != VSK_ERR_SNAPSHOT_ONLY && *out != nullptr) {
    release(*out, true);
    *out = nullptr;
  }
  return st;
}

vsk_status_t Put(Table t, vsk_db_txn_t* txn, const vsk_session_id_t* key, const void* rec,
                 vsk_encoder_t encoder) {
  if (key == nullptr || rec == nullptr) return VSK_ERR_INVALID_PARAM;
  DB* db = Handle(t);
  if (db == nullptr) return NotOpen();
  return vsk::store::DynPut(db, TxnOf(txn), key, EncodeSessionKey, rec, encoder, 0);
}

vsk_status_t Del(Table t, vsk_db_txn_t* txn, const vsk_session_id_t* key) {
  if (key == nullptr) return VSK_ERR_INVALID_PARAM;
  DB* db = Handle(t);
  if (db == nullptr) return NotOpen();
  return vsk::store::DynDel(db, TxnOf(txn), key, EncodeSessionKey, 0);
}

vsk_status_t Exists(Table t, vsk_db_txn_t* txn, const vsk_session_id_t* key, bool for_update) {
  if (key == nullptr) return VSK_ERR_INVALID_PARAM;
  DB* db = Handle(t);
  if (db == nullptr) return NotOpen();
  return vsk::store::DynExists(db, TxnOf(txn), key, EncodeSessionKey, for_update ? DB_RMW : 0);
}

}  // namespace
}  // namespace vsk::store

using namespace vsk::store;

vsk_status_t vsk::store::GetClientSession(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                          vsk_client_session_t** record_out, bool for_update) {
  return Get(Table::kClient, txn, key, record_out, for_update, DecodeClientRecord,
             vsk_db_release_client_session);
}

extern "C" {

vsk_status_t vsk_db_get_client_session(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                       vsk_client_session_t** record_out, bool for_update) {
  return vsk::store::GetClientSession(txn, key, record_out, for_update);
}
}  // extern "C"

vsk_status_t vsk::store::PutClientSession(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                          const vsk_client_session_t* record) {
  return Put(Table::kClient, txn, key, record, EncodeClientRecord);
}

extern "C" {

vsk_status_t vsk_db_put_client_session(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                       const vsk_client_session_t* record) {
  return vsk::store::PutClientSession(txn, key, record);
}
}  // extern "C"

vsk_status_t vsk::store::DelClientSession(vsk_db_txn_t* txn, const vsk_session_id_t* key) {
  return Del(Table::kClient, txn, key);
}

extern "C" {

vsk_status_t vsk_db_del_client_session(vsk_db_txn_t* txn, const vsk_session_id_t* key) {
  return vsk::store::DelClientSession(txn, key);
}
}  // extern "C"

vsk_status_t vsk::store::ClientSessionRecordExists(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                                   bool for_update) {
  return Exists(Table::kClient, txn, key, for_update);
}

extern "C" vsk_status_t vsk_db_client_session_record_exists(vsk_db_txn_t* txn,
                                                            const vsk_session_id_t* key,
                                                            bool for_update) {
  return vsk::store::ClientSessionRecordExists(txn, key, for_update);
}

vsk_status_t vsk::store::GetServiceSession(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                           vsk_service_session_t** record_out, bool for_update,
                                           const uint8_t* mask, uint16_t mask_len) {
  return Get(Table::kService, txn, key, record_out, for_update, DecodeServiceRecord,
             vsk_db_release_service_session, mask, mask_len);
}

extern "C" {

vsk_status_t vsk_db_get_service_session(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                        vsk_service_session_t** record_out, bool for_update,
                                        const uint8_t* mask, uint16_t mask_len) {
  return vsk::store::GetServiceSession(txn, key, record_out, for_update, mask, mask_len);
}
}  // extern "C"

vsk_status_t vsk::store::PutServiceSession(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                           const vsk_service_session_t* record) {
  return Put(Table::kService, txn, key, record, EncodeServiceRecord);
}

extern "C" {

vsk_status_t vsk_db_put_service_session(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                        const vsk_service_session_t* record) {
  return vsk::store::PutServiceSession(txn, key, record);
}
}  // extern "C"

vsk_status_t vsk::store::DelServiceSession(vsk_db_txn_t* txn, const vsk_session_id_t* key) {
  return Del(Table::kService, txn, key);
}

extern "C" vsk_status_t vsk_db_del_service_session(vsk_db_txn_t* txn, const vsk_session_id_t* key) {
  return vsk::store::DelServiceSession(txn, key);
}

vsk_status_t vsk::store::GetAuthRequest(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                        vsk_auth_info_t** record_out, bool for_update) {
  return Get(Table::kAuthRequest, txn, key, record_out, for_update, DecodeAuthRecord,
             vsk_db_release_auth_info);
}

extern "C" {

vsk_status_t vsk_db_get_auth_request(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                     vsk_auth_info_t** record_out, bool for_update) {
  return vsk::store::GetAuthRequest(txn, key, record_out, for_update);
}
}  // extern "C"

vsk_status_t vsk::store::PutAuthRequest(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                        const vsk_auth_info_t* record) {
  return Put(Table::kAuthRequest, txn, key, record, EncodeAuthRecord);
}

extern "C" {

vsk_status_t vsk_db_put_auth_request(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                     const vsk_auth_info_t* record) {
  return vsk::store::PutAuthRequest(txn, key, record);
}
}  // extern "C"

vsk_status_t vsk::store::DelAuthRequest(vsk_db_txn_t* txn, const vsk_session_id_t* key) {
  return Del(Table::kAuthRequest, txn, key);
}

extern "C" {

vsk_status_t vsk_db_del_auth_request(vsk_db_txn_t* txn, const vsk_session_id_t* key) {
  return vsk::store::DelAuthRequest(txn, key);
}
}  // extern "C"

vsk_status_t vsk::store::AuthRequestRecordExists(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                                 bool for_update) {
  return Exists(Table::kAuthRequest, txn, key, for_update);
}

extern "C" vsk_status_t vsk_db_auth_request_record_exists(vsk_db_txn_t* txn,
                                                          const vsk_session_id_t* key,
                                                          bool for_update) {
  return vsk::store::AuthRequestRecordExists(txn, key, for_update);
}

vsk_status_t vsk::store::GetAuthResponse(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                         vsk_auth_info_t** record_out, bool for_update) {
  return Get(Table::kAuthResponse, txn, key, record_out, for_update, DecodeAuthRecord,
             vsk_db_release_auth_info);
}

extern "C" {

vsk_status_t vsk_db_get_auth_response(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                      vsk_auth_info_t** record_out, bool for_update) {
  return vsk::store::GetAuthResponse(txn, key, record_out, for_update);
}
}  // extern "C"

vsk_status_t vsk::store::PutAuthResponse(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                         const vsk_auth_info_t* record) {
  return Put(Table::kAuthResponse, txn, key, record, EncodeAuthRecord);
}

extern "C" {

vsk_status_t vsk_db_put_auth_response(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                      const vsk_auth_info_t* record) {
  return vsk::store::PutAuthResponse(txn, key, record);
}
}  // extern "C"

vsk_status_t vsk::store::DelAuthResponse(vsk_db_txn_t* txn, const vsk_session_id_t* key) {
  return Del(Table::kAuthResponse, txn, key);
}

extern "C" {

vsk_status_t vsk_db_del_auth_response(vsk_db_txn_t* txn, const vsk_session_id_t* key) {
  return vsk::store::DelAuthResponse(txn, key);
}
}  // extern "C"

vsk_status_t vsk::store::AuthResponseRecordExists(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                                  bool for_update) {
  return Exists(Table::kAuthResponse, txn, key, for_update);
}

extern "C" vsk_status_t vsk_db_auth_response_record_exists(vsk_db_txn_t* txn,
                                                           const vsk_session_id_t* key,
                                                           bool for_update) {
  return vsk::store::AuthResponseRecordExists(txn, key, for_update);
}

vsk_status_t vsk::store::GetDynamicConfig(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                          vsk_dynamic_config_t** record_out, bool for_update) {
  return Get(Table::kDynamic, txn, key, record_out, for_update, DecodeDynamicRecord,
             vsk_db_release_dynamic_config);
}

extern "C" {

vsk_status_t vsk_db_get_dynamic_config(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                       vsk_dynamic_config_t** record_out, bool for_update) {
  return vsk::store::GetDynamicConfig(txn, key, record_out, for_update);
}
}  // extern "C"

vsk_status_t vsk::store::PutDynamicConfig(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                          const vsk_dynamic_config_t* record) {
  return Put(Table::kDynamic, txn, key, record, EncodeDynamicRecord);
}

extern "C" {

vsk_status_t vsk_db_put_dynamic_config(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                       const vsk_dynamic_config_t* record) {
  return vsk::store::PutDynamicConfig(txn, key, record);
}
}  // extern "C"

vsk_status_t vsk::store::DelDynamicConfig(vsk_db_txn_t* txn, const vsk_session_id_t* key) {
  return Del(Table::kDynamic, txn, key);
}

extern "C" {

vsk_status_t vsk_db_del_dynamic_config(vsk_db_txn_t* txn, const vsk_session_id_t* key) {
  return vsk::store::DelDynamicConfig(txn, key);
}
}  // extern "C"

vsk_status_t vsk::store::DynamicConfigRecordExists(vsk_db_txn_t* txn, const vsk_session_id_t* key,
                                                   bool for_update) {
  return Exists(Table::kDynamic, txn, key, for_update);
}

extern "C" vsk_status_t vsk_db_dynamic_config_record_exists(vsk_db_txn_t* txn,
                                                            const vsk_session_id_t* key,
                                                            bool for_update) {
  return vsk::store::DynamicConfigRecordExists(txn, key, for_update);
}
