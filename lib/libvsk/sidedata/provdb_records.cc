// Provision records: store, read and free. Each operation is one short transaction started
// here; a read takes its record for update (DB_RMW), as writers of the same key do.
//
// Stored key: head (2 + 2 bytes, copied as they are) then the tail; stored value: data_len
// as a host-order 32-bit word, then the data. Both sides are built in a fixed room; a
// record whose side would not fit is refused rather than written past it.
#include <cstdlib>
#include <cstring>

#include "libvsk/sidedata/provdb_internal.h"
#include "vsk/provdb.h"
#include "vsk/store.h"

namespace vsk::sidedata {
namespace {

constexpr uint32_t kRoom = PROVDB_RECORD_ROOM;
constexpr uint32_t kHead = PROVDB_KEY_HEAD;
constexpr uint32_t kLengthWord = sizeof(uint32_t);

bool KeyFits(const provdb_provision_info_record_t* r) {
  return r->key != nullptr && r->key_len <= kRoom - kHead;
}

constexpr const char kGet[] = "provdb_get_provision_info_record";

vsk_status_t provdb_store_provision_info_record(ProvisionDbs* state,
                                                const provdb_provision_info_record_t* r) {
  VSK_TRACE("Entering %s \n", __func__);
  DB_ENV* env = nullptr;
  vsk_db_get_dbenv(&env);
  if (env == nullptr || state->db == nullptr) {
    PROVDB_FAILURE_TRACE("provdb_store_provision_info_record:- Error invalid vsk env ptr\n");
    PROVDB_FAILURE_TRACE("vsk_env_ptr is NULL.. write not possible\n");
    return VSK_ERR_FATAL;
  }
  if (!KeyFits(r) || (r->data == nullptr && r->data_len != 0) ||
      r->data_len > kRoom - kLengthWord) {
    PROVDB_FAILURE_TRACE(
        "provdb_store_provision_info_record:- invalid record key_len %u "
        "data_len %u\n",
        r->key_len, r->data_len);
    return VSK_ERR_INVALID_PARAM;
  }
  uint8_t key_buf[kRoom] = {};
  uint8_t value_buf[kRoom] = {};
  std::memcpy(key_buf, r->key, kHead + r->key_len);
  VSK_TRACE(">>><<< Finished copying key (key_len %d)...\n", static_cast<int>(r->key_len));
  std::memcpy(value_buf, &r->data_len, kLengthWord);
  if (r->data_len != 0) std::memcpy(value_buf + kLengthWord, r->data, r->data_len);
  VSK_TRACE(">>><<< Finished copying data (data_len %d)...\n", static_cast<int>(r->data_len));

  vsk_db_txn_t txn{};
  vsk_status_t st = vsk_db_start_txn(&txn);
  if (st != VSK_OK) {
    PROVDB_FAILURE_TRACE("%%%% start txn failed ..\n");
    return st;
  }
  DBT key{};
  key.data = key_buf;
  key.size = kHead + r->key_len;
  DBT value{};
  value.data = value_buf;
  value.size = kLengthWord + r->data_len;
  st = get_vsk_err(state->db->put(state->db, txn.txn, &key, &value, 0));
  if (st == VSK_OK) {
    st = vsk_db_end_txn(&txn);
    if (st == VSK_OK) VSK_TRACE("Write operation successful :: \n");
  } else {
    vsk_db_abort_txn(&txn, st);
    PROVDB_FAILURE_TRACE("provdb_store_provision_info_record:- store failed:%d\n", st);
    PROVDB_FAILURE_TRACE(">>>> Error in put API ..(ret status %d)\n", st);
  }
  return st;
}

// Hands the stored value's data to `r`, after checking the length word against the bytes
// Berkeley DB returned.
vsk_status_t TakeValue(const DBT& value, provdb_provision_info_record_t* r) {
  uint32_t len = 0;
  if (value.size < kLengthWord ||
      (std::memcpy(&len, value.data, kLengthWord), len > value.size - kLengthWord)) {
    PROVDB_FAILURE_TRACE_IN(kGet, "provdb_get_provision_info_record:- bad stored value, %u bytes\n",
                            value.size);
    return VSK_ERR_CORRUPT;
  }
  auto* data = static_cast<uint8_t*>(std::malloc(len != 0 ? len : 1));
  if (data == nullptr) return VSK_ERR_NOMEM;
  std::memcpy(data, static_cast<const uint8_t*>(value.data) + kLengthWord, len);
  r->data_len = len;
  r->data = data;
  return VSK_OK;
}

vsk_status_t GetRecord(provdb_provision_info_record_t* r) {
  DB_ENV* env = nullptr;
  vsk_db_get_dbenv(&env);
  DB* db = provdb_state().db;
  if (env == nullptr || db == nullptr) {
    PROVDB_FAILURE_TRACE_IN(kGet, "provdb_get_provision_info_record: bad vsk env ptr\n");
    return VSK_ERR_FATAL;
  }
  if (!KeyFits(r)) {
    PROVDB_FAILURE_TRACE_IN(kGet, "provdb_get_provision_info_record:- invalid key, key_len %u\n",
                            r->key_len);
    return VSK_ERR_INVALID_PARAM;
  }
  uint8_t key_buf[kRoom] = {};
  std::memcpy(key_buf, r->key, kHead + r->key_len);
  vsk_db_txn_t txn{};
  vsk_status_t st = vsk_db_start_txn(&txn);
  if (st != VSK_OK) return st;
  DBT key{};
  key.data = key_buf;
  key.size = kHead + r->key_len;
  DBT value{};
  value.flags = DB_DBT_MALLOC;
  st = get_vsk_err(db->get(db, txn.txn, &key, &value, DB_RMW));
  if (st != VSK_OK) {
    vsk_db_abort_txn(&txn, st);
    PROVDB_FAILURE_TRACE_IN(kGet, "provdb_get_provision_info_record:- get failed:%d\n", st);
    return st;
  }
  st = vsk_db_end_txn(&txn);
  if (st != VSK_OK) {
    db->errx(db, "Err searching provdb for record:");
    PROVDB_FAILURE_TRACE_IN(kGet, "Err searching provdb for record err:%d", st);
  } else {
    st = TakeValue(value, r);
  }
  std::free(value.data);
  return st;
}

}  // namespace
}  // namespace vsk::sidedata

extern "C" {

vsk_status_t provdb_write_provision_info_record(const provdb_provision_info_record_t* record) {
  if (record == nullptr) {
    VSK_TRACE("%s: no record given", __func__);
    return VSK_ERR_INVALID_PARAM;
  }
  return vsk::sidedata::provdb_store_provision_info_record(&vsk::sidedata::provdb_state(), record);
}

vsk_status_t provdb_get_provision_info_record(provdb_provision_info_record_t* record) {
  if (record == nullptr) {
    VSK_TRACE("%s: no record given", __func__);
    return VSK_ERR_INVALID_PARAM;
  }
  return vsk::sidedata::GetRecord(record);
}

void provdb_provision_free(provdb_provision_info_record_t* record) {
  if (record == nullptr || record->data == nullptr) return;
  std::free(record->data);
  record->data = nullptr;
}

}  // extern "C"
