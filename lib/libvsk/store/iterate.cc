// The resumable walks behind snapshots and searches: one record per call, resumed by key.
// Each call opens its own cursor in the walk block's transaction and closes it before it
// returns, so between two steps nothing is held.
//
// Callers pass null object pointers and release whatever is non-null after the call,
// whatever the status. Not reentrant: the app-defined key decoder reports through the
// exported `decoded_data2` and a file-level table length.
#include <db.h>

#include <cstdlib>
#include <cstring>

#include "libvsk/base/status.h"
#include "libvsk/base/trace.h"
#include "libvsk/store/context.h"
#include "libvsk/store/dyn_db_internal.h"
#include "libvsk/store/records.h"
#include "libvsk/store/tables.h"
#include "vsk/dyn_db.h"
#include "vsk/tables.h"

extern "C" {
void* decoded_data2 = nullptr;
}

namespace vsk::store {
namespace {

vsk_status_t SetOn(DBC* cursor, vsk_session_id_t id) {
  return vsk::store::DynSetCursor(cursor, &id, sizeof id);
}

// Key of the table's last record; 0 for an empty table (or when it cannot be read).
vsk_session_id_t LastKey(DBC* cursor) {
  vsk_session_key_t* key = nullptr;
  vsk::store::DynGetCursor(cursor, nullptr, nullptr, &key, DecodeSessionKey, nullptr, nullptr,
                           nullptr, nullptr, DB_LAST, nullptr, 0);
  vsk_session_id_t id = key != nullptr ? key->id : 0;
  vsk::store::ReleaseKeySessionId(key, true);
  return id;
}

vsk_status_t WalkSessions(DB* db, vsk_value_decoder_t decoder, vsk_db_txn_t* walk,
                          vsk_session_id_t current_key, vsk_session_id_t next_key,
                          vsk_session_id_t start_key, bool nearest, vsk_session_key_t** key_out,
                          vsk_session_key_t** next_out, void* record_out, const uint8_t* mask,
                          uint16_t mask_len) {
  // The walk has ended: the last read found no next record.
  if (current_key != 0 && next_key == 0) return VSK_ERR_NOT_FOUND;
  if (db == nullptr || walk == nullptr) return VSK_ERR_FATAL;
  // The walk's cursor, inside the caller's transaction, for this call only.
  DBC* cursor = nullptr;
  int ret = db->cursor(db, walk->txn, &cursor, 0);
  if (ret != 0) return vsk::base::TranslateError(ret);
  walk->cursor = cursor;
  vsk_status_t st = VSK_OK;
  uint32_t op = DB_FIRST;
  // Position: after the start key, or on the next key a previous call looked ahead to.
  bool positioned = false;
  if (start_key != 0) {
    st = SetOn(cursor, start_key);
    op = DB_NEXT;
    positioned = true;
  } else if (next_key != 0) {
    st = SetOn(cursor, next_key);
    op = DB_CURRENT;
    positioned = true;
  }
  if (positioned) {
    // The position has gone: continue at the nearest record that still exists.
    if (st == VSK_ERR_NOT_FOUND && nearest) {
      if (start_key != 0 && next_key == 0) {
        next_key = start_key;
        op = DB_CURRENT;
      }
      st = SetOn(cursor, current_key);
      if (st != VSK_ERR_NOT_FOUND) {
        op = DB_NEXT;
      } else {
        const vsk_session_id_t last = LastKey(cursor);
        if (next_key >= last) {
          st = VSK_ERR_NOT_FOUND;
        } else {
          // The read operation stays as chosen: with both a start and a next key it is
          // DB_NEXT, and the record found here is stepped over. Callers rely on that.
          for (;;) {
            ++next_key;
            st = SetOn(cursor, next_key);
            if (st != VSK_ERR_NOT_FOUND) break;
            if (next_key >= last) break;
          }
        }
      }
    }
  }
  // Read the record at the position, decoded (and filtered by `mask`).
  if (st == VSK_OK) {
    st = vsk::store::DynGetCursor(cursor, nullptr, nullptr, key_out, DecodeSessionKey, record_out,
                                  decoder, nullptr, nullptr, op, mask, mask_len);
    // Look ahead to the next key, so the caller can resume there; at the end *next_out stays as it
    // was.
    if (st == VSK_OK || st == VSK_ERR_SNAPSHOT_ONLY) {
      vsk_status_t ahead =
          vsk::store::DynGetCursor(cursor, nullptr, nullptr, next_out, DecodeSessionKey, nullptr,
                                   nullptr, nullptr, nullptr, DB_NEXT, nullptr, 0);
      if (ahead != VSK_OK && ahead != VSK_ERR_NOT_FOUND) st = ahead;
    }
  }
  // The cursor goes in every case; its close failure counts only after a good read.
  ret = cursor->close(cursor);
  walk->cursor = nullptr;
  if (st == VSK_OK) st = vsk::base::TranslateError(ret);
  return st;
}

// Key length of the table being walked, for the key decoder below.
uint16_t g_walk_key_len = 0;

// A key no longer than a decoded object gets a cleared buffer of that size (also left in
// decoded_data2); a longer one a cleared buffer of its own length. The key bytes are
// copied, so the buffer keeps no record buffer; Berkeley DB's is freed here.
int DecodeAppDefKey(void* out, void* data, uint32_t size) {
  if (size < g_walk_key_len) return -1;
  const uint32_t room = size <= VSK_DECODED_OBJECT_SIZE ? VSK_DECODED_OBJECT_SIZE : size;
  void* buffer = std::calloc(1, room);
  if (buffer == nullptr) return VSK_ERR_NOMEM;
  if (size != 0) std::memcpy(buffer, data, size);
  if (size <= VSK_DECODED_OBJECT_SIZE) decoded_data2 = buffer;
  std::free(data);
  *static_cast<void**>(out) = buffer;
  return static_cast<int>(size);
}

}  // namespace
}  // namespace vsk::store

using namespace vsk::store;

extern "C" {

vsk_status_t vsk_db_iterate_client_session(vsk_db_txn_t* walk, vsk_session_id_t current_key,
                                           vsk_session_id_t next_key, vsk_session_id_t start_key,
                                           bool nearest, vsk_session_key_t** key_out,
                                           vsk_session_key_t** next_out,
                                           vsk_client_session_t** record_out, const uint8_t* mask,
                                           uint16_t mask_len) {
  DB* db = Context() != nullptr ? Context()->client_session_db : nullptr;
  return WalkSessions(db, DecodeClientRecord, walk, current_key, next_key, start_key, nearest,
                      key_out, next_out, record_out, mask, mask_len);
}

vsk_status_t vsk_db_iterate_service_session(vsk_db_txn_t* walk, vsk_session_id_t current_key,
                                            vsk_session_id_t next_key, vsk_session_id_t start_key,
                                            bool nearest, vsk_session_key_t** key_out,
                                            vsk_session_key_t** next_out,
                                            vsk_service_session_t** record_out, const uint8_t* mask,
                                            uint16_t mask_len) {
  DB* db = Context() != nullptr ? Context()->service_session_db : nullptr;
  return WalkSessions(db, DecodeServiceRecord, walk, current_key, next_key, start_key, nearest,
                      key_out, next_out, record_out, mask, mask_len);
}

}  // extern "C"

vsk_status_t vsk::store::IterateAppDefined(vsk_db_txn_t* walk, const void* current_key,
                                           const void* next_key, vsk_app_def_key_t** key_out,
                                           vsk_app_def_key_t** next_out,
                                           vsk_app_data_t** data_out, uint16_t table_id) {
  (void)data_out;  // the data is read afterwards with vsk_db_get_app_def_data
  if (current_key != nullptr && next_key == nullptr) return VSK_ERR_NOT_FOUND;
  DB* db = nullptr;
  if (table_id < VSK_APP_DEFINED_TABLES && Context() != nullptr) {
    db = Context()->app_defined_db[table_id];
  }
  if (db == nullptr || walk == nullptr || key_out == nullptr || *key_out == nullptr ||
      next_out == nullptr || *next_out == nullptr) {
    VSK_TRACE("App defined table not open for table id %d", static_cast<int>(table_id));
    return VSK_ERR_FATAL;
  }
  DBC* cursor = nullptr;
  int ret = db->cursor(db, walk->txn, &cursor, 0);
  if (ret != 0) return vsk::base::TranslateError(ret);
  walk->cursor = cursor;
  const uint16_t key_len = vsk_app_defined[table_id].key_len;
  uint32_t op = DB_FIRST;
  vsk_status_t st = VSK_OK;
  if (next_key != nullptr) {
    st = vsk::store::DynSetCursor(cursor, next_key, key_len);
    op = DB_CURRENT;
  }
  if (st == VSK_OK) {
    (*key_out)->table_id = table_id;
    (*next_out)->table_id = table_id;
    g_walk_key_len = key_len;
    st = vsk::store::DynGetCursor(cursor, nullptr, nullptr, &(*key_out)->key, DecodeAppDefKey,
                                  nullptr, nullptr, nullptr, nullptr, op, nullptr, 0);
  }
  if (st == VSK_OK) {
    st = vsk::store::DynGetCursor(cursor, nullptr, nullptr, &(*next_out)->key, DecodeAppDefKey,
                                  nullptr, nullptr, nullptr, nullptr, DB_NEXT, nullptr, 0);
    ret = cursor->close(cursor);
    walk->cursor = nullptr;
    if (st == VSK_OK || st == VSK_ERR_NOT_FOUND) return vsk::base::TranslateError(ret);
    return st;
  }
  cursor->close(cursor);
  walk->cursor = nullptr;
  return st;
}

extern "C" {

vsk_status_t vsk_db_iterate_app_defined(vsk_db_txn_t* walk, const void* current_key,
                                        const void* next_key, vsk_app_def_key_t** key_out,
                                        vsk_app_def_key_t** next_out, vsk_app_data_t** data_out,
                                        uint16_t table_id) {
  return IterateAppDefined(walk, current_key, next_key, key_out, next_out, data_out, table_id);
}

}  // extern "C"
