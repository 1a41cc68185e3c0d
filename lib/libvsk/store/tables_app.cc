// Application private data (12-byte key: session id, application id) and the
// application-defined tables 0 to 6 (key of the table's own length). The records are the
// application's bytes with no framing.
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

DB* PrivateTable() { return Context() != nullptr ? Context()->app_private_db : nullptr; }

// The table of `key`, or null after the trace.
DB* DefinedTable(const vsk_app_def_key_t* key) {
  const unsigned id = key != nullptr ? key->table_id : VSK_APP_DEFINED_TABLES;
  DB* db = nullptr;
  if (id < VSK_APP_DEFINED_TABLES && Context() != nullptr) db = Context()->app_defined_db[id];
  if (db == nullptr) VSK_TRACE("App defined table not open for table id %d", static_cast<int>(id));
  return db;
}

uint32_t EncodeAppDefKey(const void* object, void* buffer, uint32_t room) {
  const auto* key = static_cast<const vsk_app_def_key_t*>(object);
  const uint32_t len = vsk_app_defined[key->table_id].key_len;
  if (len <= room && len != 0) {
    if (key->key != nullptr) {
      std::memcpy(buffer, key->key, len);
    } else {
      std::memset(buffer, 0, len);
    }
  }
  return len;
}

vsk_status_t GetData(DB* db, vsk_db_txn_t* txn, const void* key, vsk_encoder_t enc,
                     vsk_app_data_t** out, bool for_update) {
  *out = nullptr;
  vsk_status_t st = vsk::store::DynGet(db, TxnOf(txn), key, enc, out, DecodeAppData,
                                       for_update ? DB_RMW : 0, nullptr, 0);
  if (st != VSK_OK && *out != nullptr) {
    vsk::store::ReleaseAppPriData(*out, true);
    *out = nullptr;
  }
  return st;
}

}  // namespace

vsk_status_t GetAppPriData(vsk_db_txn_t* txn, const vsk_app_pri_key_t* key,
                           vsk_app_data_t** data_out, bool for_update) {
  if (key == nullptr || data_out == nullptr) return VSK_ERR_INVALID_PARAM;
  DB* db = PrivateTable();
  if (db == nullptr) return VSK_ERR_FATAL;
  return GetData(db, txn, key, EncodeAppPriKey, data_out, for_update);
}

vsk_status_t PutAppPriData(vsk_db_txn_t* txn, const vsk_app_pri_key_t* key,
                           const vsk_app_data_t* data) {
  if (key == nullptr || data == nullptr) return VSK_ERR_INVALID_PARAM;
  DB* db = PrivateTable();
  if (db == nullptr) return VSK_ERR_FATAL;
  return DynPut(db, TxnOf(txn), key, EncodeAppPriKey, data, EncodeAppData, 0);
}

vsk_status_t DelAppPriData(vsk_db_txn_t* txn, const vsk_app_pri_key_t* key) {
  if (key == nullptr) return VSK_ERR_INVALID_PARAM;
  DB* db = PrivateTable();
  if (db == nullptr) return VSK_ERR_FATAL;
  return DynDel(db, TxnOf(txn), key, EncodeAppPriKey, 0);
}

vsk_status_t GetAppDefData(vsk_db_txn_t* txn, const vsk_app_def_key_t* key,
                           vsk_app_data_t** data_out, bool for_update) {
  if (data_out == nullptr) return VSK_ERR_INVALID_PARAM;
  *data_out = nullptr;
  DB* db = DefinedTable(key);
  if (db == nullptr) return VSK_ERR_FATAL;
  return GetData(db, txn, key, EncodeAppDefKey, data_out, for_update);
}

vsk_status_t PutAppDefData(vsk_db_txn_t* txn, const vsk_app_def_key_t* key,
                           const vsk_app_data_t* data) {
  DB* db = DefinedTable(key);
  if (db == nullptr) return VSK_ERR_FATAL;
  if (data == nullptr) return VSK_ERR_INVALID_PARAM;
  return DynPut(db, TxnOf(txn), key, EncodeAppDefKey, data, EncodeAppData, 0);
}

vsk_status_t DelAppDefData(vsk_db_txn_t* txn, const vsk_app_def_key_t* key) {
  DB* db = DefinedTable(key);
  if (db == nullptr) return VSK_ERR_FATAL;
  return DynDel(db, TxnOf(txn), key, EncodeAppDefKey, 0);
}

}  // namespace vsk::store

extern "C" {

vsk_status_t vsk_db_get_app_pri_data(vsk_db_txn_t* txn, const vsk_app_pri_key_t* key,
                                     vsk_app_data_t** data_out, bool for_update) {
  return vsk::store::GetAppPriData(txn, key, data_out, for_update);
}

vsk_status_t vsk_db_put_app_pri_data(vsk_db_txn_t* txn, const vsk_app_pri_key_t* key,
                                     const vsk_app_data_t* data) {
  return vsk::store::PutAppPriData(txn, key, data);
}

vsk_status_t vsk_db_del_app_pri_data(vsk_db_txn_t* txn, const vsk_app_pri_key_t* key) {
  return vsk::store::DelAppPriData(txn, key);
}

vsk_status_t vsk_db_get_app_def_data(vsk_db_txn_t* txn, const vsk_app_def_key_t* key,
                                     vsk_app_data_t** data_out, bool for_update) {
  return vsk::store::GetAppDefData(txn, key, data_out, for_update);
}

vsk_status_t vsk_db_put_app_def_data(vsk_db_txn_t* txn, const vsk_app_def_key_t* key,
                                     const vsk_app_data_t* data) {
  return vsk::store::PutAppDefData(txn, key, data);
}

vsk_status_t vsk_db_del_app_def_data(vsk_db_txn_t* txn, const vsk_app_def_key_t* key) {
  return vsk::store::DelAppDefData(txn, key);
}

}  // extern "C"
