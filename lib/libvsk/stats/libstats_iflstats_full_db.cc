// Full interface statistics records in their table: read, write, delete and the freeing
// rules of the record in memory.
//
// A record is keyed by interface and forwarding location (`ifl`, then the `loc_id`
// bytes); its value is the TLV form of iflstats_full_codec.h. The secondary index by
// interface is kept by Berkeley DB from the value (libstats_iflstats_full_get_secondary_index).
#include <db.h>

#include <cstdlib>
#include <cstring>

#include "libvsk/base/trace.h"
#include "libvsk/stats/iflstats_full_codec.h"
#include "libvsk/stats/iflstats_full_db.h"
#include "libvsk/stats/stats_internal.h"
#include "vsk/libstats.h"

namespace vsk::stats {

vsk_status_t BuildFullKey(const libstats_iflstats_full_t& record, KeyBuffer* key) {
  if (record.loc_id_len > LIBSTATS_KEY_BUFFER_SIZE - sizeof(uint32_t) ||
      (record.loc_id_len != 0 && record.loc_id == nullptr)) {
    VSK_TRACE("%s: invalid loc_id_len:%d", "libstats_iflstats_full_key", record.loc_id_len);
    return VSK_ERR_INVALID_PARAM;
  }
  std::memcpy(key->bytes, &record.ifl, sizeof(uint32_t));
  if (record.loc_id_len != 0) {
    std::memcpy(key->bytes + sizeof(uint32_t), record.loc_id, record.loc_id_len);
  }
  key->len = sizeof(uint32_t) + record.loc_id_len;
  return VSK_OK;
}

vsk_status_t PutFullRecord(DB_TXN* txn, const libstats_iflstats_full_t& record,
                           const char* caller) {
  KeyBuffer key;
  vsk_status_t st = BuildFullKey(record, &key);
  if (st != VSK_OK) return st;
  Buffer value;
  uint32_t value_len = 0;
  st = EncodeIflstatsFull(record, &value, &value_len);
  if (st != VSK_OK) return st;
  DBT k = key.Dbt();
  DBT v = InDbt(value.get(), value_len);
  DB* db = g_stats.iflstats_full_db;
  st = get_vsk_err(db->put(db, txn, &k, &v, 0));
  if (st != VSK_OK) VSK_TRACE("%s store failed:%d", caller, st);
  return st;
}

vsk_status_t GetFullRecord(libstats_iflstats_full_t* record) {
  static constexpr const char kName[] = "libstats_get_iflstats_full_record";
  if (!StoreUsable(kName)) return VSK_ERR_FATAL;
  KeyBuffer key;
  vsk_status_t st = BuildFullKey(*record, &key);
  if (st != VSK_OK) return st;
  DB* db = g_stats.iflstats_full_db;
  MallocDbt value;
  st = RunInTxn(db,
                {kName, "%s: get failed:%d",
                 "Error searching iflstats full for record:", "%s: err:%d searching", true},
                [&](DB_TXN* txn) {
                  DBT k = key.Dbt();
                  return get_vsk_err(db->get(db, txn, &k, value.dbt(), DB_RMW));
                });
  if (st != VSK_OK) return st;
  std::memset(record->stats, 0, sizeof(record->stats));
  int ret = DecodeIflstatsFull(value.data(), value.size(), record);
  if (ret != 0) {
    VSK_TRACE("copy failed err:%d\n", ret);
    FreeSets(record);
  }
  return ret;
}

vsk_status_t WriteFullRecord(libstats_iflstats_full_t* record) {
  static constexpr const char kName[] = "libstats_write_iflstats_full_record_internal";
  if (!StoreUsable(kName)) return VSK_ERR_FATAL;
  return RunInTxn(g_stats.iflstats_full_db, {kName, nullptr, nullptr, nullptr, false},
                  [&](DB_TXN* txn) { return PutFullRecord(txn, *record, kName); });
}

}  // namespace vsk::stats

using namespace vsk::stats;

extern "C" {

vsk_status_t libstats_get_iflstats_full_record(libstats_iflstats_full_t* record) {
  if (record == nullptr) return VSK_ERR_INVALID_PARAM;
  return GetFullRecord(record);
}

vsk_status_t libstats_write_iflstats_full_record(libstats_iflstats_full_t* record) {
  if (record == nullptr) return VSK_ERR_INVALID_PARAM;
  return WriteFullRecord(record);
}

vsk_status_t libstats_del_iflstats_full_record(libstats_iflstats_full_t* record) {
  static constexpr const char kName[] = "libstats_del_iflstats_full_record";
  if (record == nullptr) return VSK_ERR_INVALID_PARAM;
  if (!StoreUsable(kName)) return VSK_ERR_FATAL;
  KeyBuffer key;
  vsk_status_t st = BuildFullKey(*record, &key);
  if (st != VSK_OK) return st;
  VSK_TRACE("%s: key_len:%zd", kName, static_cast<ssize_t>(key.len));
  VSK_TRACE("%s: buflen:%zd key_len:%zd", kName, static_cast<ssize_t>(sizeof(key.bytes)),
            static_cast<ssize_t>(key.len));
  DB* db = g_stats.iflstats_full_db;
  return RunInTxn(db, {kName, "%s: del failed:%d", "Error deleting record:", "%s: err=%d", true},
                  [&](DB_TXN* txn) {
                    DBT k = key.Dbt();
                    return get_vsk_err(db->del(db, txn, &k, 0));
                  });
}

void libstats_free_iflstats_full(libstats_iflstats_full_set_t* set) {
  if (set != nullptr) FreeSet(set);
}

void libstats_free_iflstats_full_all(libstats_iflstats_full_t* record) {
  if (record != nullptr) FreeSets(record);
}

void libstats_free_iflstats_full_record(libstats_iflstats_full_t* record) {
  if (record == nullptr) return;
  std::free(record->loc_id);
  std::free(record);
}

void libstats_iflstats_full_set_version(uint32_t* ts) {
  if (ts != nullptr) *ts = LIBSTATS_IFLSTATS_FULL_VERSION;
}

}  // extern "C"
