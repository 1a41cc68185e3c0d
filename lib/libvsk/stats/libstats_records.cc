// The plain statistics records (`iflstats`, `servstats`): their keys, the generic store,
// read and delete, and the cursor walk over the plain interface table.
//
// Every operation is one short transaction that it starts itself; reads take write locks
// (DB_RMW) so that a read-then-write by the same daemon does not deadlock against
// another. No operation retries: a caller that gets -4 may call again.
#include <db.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "libvsk/base/trace.h"
#include "libvsk/stats/layout.h"
#include "libvsk/stats/stats_internal.h"
#include "libvsk/store/txn.h"
#include "vsk/libstats.h"

namespace vsk::stats {
namespace {

constexpr uint32_t kIndexBytes = sizeof(uint64_t);
// What a walk copies of a stored value: the statistics area's size, taken from the
// value's first byte (see libstats_get_final_stats_using_cursor).
constexpr uint32_t kWalkCopyBytes = sizeof(libstats_iflstats_counters_t);

struct KeyAndValue {
  KeyBuffer key;
  const void* value = nullptr;
  uint32_t value_len = 0;
};

vsk_status_t BuildKey(const void* record, libstats_key_fn_t fn, KeyAndValue* kv) {
  int st = fn(record, kv->key.bytes, &kv->key.len, &kv->value, &kv->value_len);
  if (st != 0) VSK_TRACE("%s: key or value does not fit, err:%d", "libstats_key", st);
  return st;
}

// One put in its own transaction. REQUIRES: the store usable, `table` open.
vsk_status_t StoreRecord(DB* table, const void* record, libstats_key_fn_t fn) {
  static constexpr const char kName[] = "libstats_store_stats_record";
  uint32_t flags = 0;
  if (table->get_flags(table, &flags) == 0 && flags != 0) {
    VSK_TRACE("%s: flagsp:0x%x", kName, flags);
  }
  KeyAndValue kv;
  vsk_status_t st = BuildKey(record, fn, &kv);
  if (st != VSK_OK) return st;
  return RunInTxn(table, {kName, "%s: store failed:%d", nullptr, nullptr, false}, [&](DB_TXN* txn) {
    DBT key = kv.key.Dbt();
    DBT value = InDbt(kv.value, kv.value_len);
    return get_vsk_err(table->put(table, txn, &key, &value, 0));
  });
}

// The read shared by both get operations: the stored value of `record`'s key, in memory
// that Berkeley DB allocated and `out` now owns.
vsk_status_t ReadRecord(DB* table, const void* record, libstats_key_fn_t fn, MallocDbt* out) {
  KeyAndValue kv;
  vsk_status_t st = BuildKey(record, fn, &kv);
  if (st != VSK_OK) return st;
  st = RunInTxn(
      table,
      {"libstats_get_stats_record_from_db", "%s: get failed:%d",
       "Error searching iflstats for record:", "Error searching iflstats for record err:%d", false},
      [&](DB_TXN* txn) {
        DBT key = kv.key.Dbt();
        return get_vsk_err(table->get(table, txn, &key, out->dbt(), DB_RMW));
      });
  if (st != VSK_OK) return st;
  return out->data() == nullptr ? VSK_ERR_NOMEM : VSK_OK;
}

// The delete shared by both delete operations.
vsk_status_t DeleteRecord(DB* table, const void* record, libstats_key_fn_t fn) {
  KeyAndValue kv;
  vsk_status_t st = BuildKey(record, fn, &kv);
  if (st != VSK_OK) return st;
  return RunInTxn(table,
                  {"libstats_del_stats_record", "%s: del failed:%d",
                   "Error deleting record:", "Error deleting record err:%d", false},
                  [&](DB_TXN* txn) {
                    DBT key = kv.key.Dbt();
                    return get_vsk_err(table->del(table, txn, &key, 0));
                  });
}

// Ends a walk after its last step or a failure: cursor closed, transaction aborted (a
// walk writes nothing), context cleared.
void EndWalk(libstats_cursor_ctx_t* ctx, vsk_status_t status) {
  static constexpr const char kName[] = "libstats_get_final_stats_using_cursor";
  if (ctx->cursor != nullptr) ctx->cursor->close(ctx->cursor);
  ctx->cursor = nullptr;
  VSK_TRACE("%s: closed err:%d", kName, status);
  if (ctx->txn != nullptr) {
    vsk_db_txn_t block{ctx->txn, nullptr, nullptr};
    vsk_status_t st = vsk::store::AbortTxn(&block, VSK_OK);
    if (st != VSK_OK) VSK_TRACE("%s: end txn fails status:%d", kName, st);
  }
  ctx->txn = nullptr;
}

int IflstatsKey(const void* record, uint8_t* key, uint32_t* key_len, const void** value,
                uint32_t* value_len) {
  auto* bytes = static_cast<const uint8_t*>(record);
  auto* r = static_cast<const libstats_iflstats_t*>(record);
  const uint16_t name_len = r->name_len;
  if (kIndexBytes + name_len > LIBSTATS_KEY_BUFFER_SIZE) return VSK_ERR_INVALID_PARAM;
  if (name_len != 0 && r->name == nullptr) return VSK_ERR_INVALID_PARAM;
  std::memcpy(key, bytes + offsetof(libstats_iflstats_t, index), kIndexBytes);
  if (name_len != 0) std::memcpy(key + kIndexBytes, r->name, name_len);
  *key_len = kIndexBytes + name_len;
  *value = bytes + offsetof(libstats_iflstats_t, value);
  *value_len = LIBSTATS_IFLSTATS_VALUE_SIZE;
  return 0;
}

int ServstatsKey(const void* record, uint8_t* key, uint32_t* key_len, const void** value,
                 uint32_t* value_len) {
  auto* bytes = static_cast<const uint8_t*>(record);
  auto* r = static_cast<const libstats_servstats_t*>(record);
  const uint64_t size =
      uint64_t{LIBSTATS_SERVSTATS_ENTRY_SIZE(r->entry_extra_len)} * r->entry_count +
      LIBSTATS_SERVSTATS_HEADER_SIZE;
  std::memcpy(key, bytes + offsetof(libstats_servstats_t, key), kIndexBytes);
  *key_len = kIndexBytes;
  *value = bytes + offsetof(libstats_servstats_t, magic);
  *value_len = static_cast<uint32_t>(size);  // at most 65608 * 65535 + 32, below 2^32
  return 0;
}

void FreeIflstatsRecord(libstats_iflstats_t* record) {
  std::free(record->name);
  std::free(record);
}

}  // namespace
}  // namespace vsk::stats

using namespace vsk::stats;

extern "C" {

int libstats_iflstats_key(const void* record, uint8_t* key, uint32_t* key_len, const void** value,
                          uint32_t* value_len) {
  return IflstatsKey(record, key, key_len, value, value_len);
}

int libstats_servstats_key(const void* record, uint8_t* key, uint32_t* key_len, const void** value,
                           uint32_t* value_len) {
  return ServstatsKey(record, key, key_len, value, value_len);
}

vsk_status_t libstats_store_stats_record(DB* table, const void* record, libstats_key_fn_t fn) {
  if (!StoreUsable("libstats_store_stats_record")) return VSK_ERR_FATAL;
  if (table == nullptr || record == nullptr || fn == nullptr) return VSK_ERR_INVALID_PARAM;
  return StoreRecord(table, record, fn);
}

vsk_status_t libstats_write_iflstats_record(libstats_iflstats_t* record) {
  if (!StoreUsable("libstats_write_iflstats_record")) return VSK_ERR_FATAL;
  if (record == nullptr) return VSK_ERR_INVALID_PARAM;
  record->value.magic = LIBSTATS_MAGIC;
  record->value.version = LIBSTATS_RECORD_VERSION;
  return StoreRecord(g_stats.iflstats_db, record, IflstatsKey);
}

vsk_status_t libstats_write_servstats_record(libstats_servstats_t* record) {
  if (!StoreUsable("libstats_write_servstats_record")) return VSK_ERR_FATAL;
  if (record == nullptr) return VSK_ERR_INVALID_PARAM;
  record->magic = LIBSTATS_MAGIC;
  record->version = LIBSTATS_RECORD_VERSION;
  return StoreRecord(g_stats.servstats_db, record, ServstatsKey);
}

vsk_status_t libstats_get_iflstats_record(libstats_iflstats_t* record) {
  if (!StoreUsable("libstats_get_iflstats_record")) return VSK_ERR_FATAL;
  if (record == nullptr) return VSK_ERR_INVALID_PARAM;
  MallocDbt value;
  vsk_status_t st = ReadRecord(g_stats.iflstats_db, record, IflstatsKey, &value);
  if (st != VSK_OK) return st;
  // A stored value shorter than the image (written by something else) leaves zeros.
  auto* image = reinterpret_cast<uint8_t*>(record) + offsetof(libstats_iflstats_t, value);
  const uint32_t n = std::min<uint32_t>(value.size(), LIBSTATS_IFLSTATS_VALUE_SIZE);
  std::memset(image, 0, LIBSTATS_IFLSTATS_VALUE_SIZE);
  std::memcpy(image, value.data(), n);
  return VSK_OK;
}

vsk_status_t libstats_get_servstats_record(const libstats_servstats_t* record, void** block,
                                           void** payload) {
  if (!StoreUsable("libstats_get_servstats_record")) return VSK_ERR_FATAL;
  if (record == nullptr || block == nullptr || payload == nullptr) {
    VSK_TRACE("invalid NULL argument passed");
    return VSK_ERR_INVALID_PARAM;
  }
  MallocDbt value;
  vsk_status_t st = ReadRecord(g_stats.servstats_db, record, ServstatsKey, &value);
  if (st != VSK_OK) return st;
  *block = value.Release();
  *payload = static_cast<uint8_t*>(*block) + 4;
  return VSK_OK;
}

vsk_status_t libstats_del_iflstats_record(libstats_iflstats_t* record) {
  if (record == nullptr) return VSK_ERR_INVALID_PARAM;
  vsk_status_t st = VSK_ERR_FATAL;
  if (StoreUsable("libstats_del_iflstats_record")) {
    st = DeleteRecord(g_stats.iflstats_db, record, IflstatsKey);
  }
  FreeIflstatsRecord(record);
  return st;
}

vsk_status_t libstats_del_servstats_record(libstats_servstats_t* record, int free_record) {
  if (record == nullptr) return VSK_ERR_INVALID_PARAM;
  if (!StoreUsable("libstats_del_servstats_record")) {
    if (free_record == 1) std::free(record);
    return VSK_ERR_FATAL;
  }
  vsk_status_t st = DeleteRecord(g_stats.servstats_db, record, ServstatsKey);
  if (free_record) std::free(record);
  return st;
}

vsk_status_t libstats_get_final_stats_using_cursor(libstats_cursor_ctx_t* ctx,
                                                   libstats_iflstats_t* record) {
  static constexpr const char kName[] = "libstats_get_final_stats_using_cursor";
  if (ctx == nullptr || record == nullptr) return VSK_ERR_INVALID_PARAM;
  if (ctx->cursor == nullptr) {
    if (!StoreUsable(kName)) return VSK_ERR_FATAL;
    vsk_db_txn_t block{};
    vsk_status_t st = vsk::store::StartTxn(&block);
    if (st != VSK_OK) return st;
    ctx->txn = block.txn;
    DB* db = g_stats.iflstats_db;
    st = get_vsk_err(db->cursor(db, ctx->txn, &ctx->cursor, DB_READ_COMMITTED));
    if (st != VSK_OK) {
      ctx->cursor = nullptr;
      vsk::store::AbortTxn(&block, st);
      ctx->txn = nullptr;
      VSK_TRACE("%s: aborting txn err:%d", kName, st);
      return st;
    }
  }
  MallocDbt key;
  MallocDbt value;
  vsk_status_t st = get_vsk_err(ctx->cursor->get(ctx->cursor, key.dbt(), value.dbt(), DB_NEXT));
  if (st != VSK_OK) {
    EndWalk(ctx, st);
    return st;
  }
  // A key shorter than the index or a short value (not written by this module) reads as
  // zeros where bytes are missing.
  uint8_t index[kIndexBytes] = {};
  std::memcpy(index, key.data(), std::min(key.size(), kIndexBytes));
  std::memcpy(reinterpret_cast<uint8_t*>(record) + offsetof(libstats_iflstats_t, index), index,
              kIndexBytes);
  const uint32_t name_len = key.size() > kIndexBytes ? key.size() - kIndexBytes : 0;
  record->name_len = static_cast<uint16_t>(name_len);
  record->name = nullptr;
  if (name_len != 0) {
    char* name = static_cast<char*>(std::malloc(name_len + 1));
    if (name == nullptr) {
      EndWalk(ctx, VSK_ERR_NOMEM);
      return VSK_ERR_NOMEM;
    }
    std::memcpy(name, key.data() + kIndexBytes, name_len);
    name[name_len] = '\0';
    record->name = name;
  }
  // The stored value is copied from its first byte into the statistics area: the area
  // thus starts with the stored magic and version, and the value's last four bytes are
  // not copied. Readers of a walk rely on this placement.
  auto* area = reinterpret_cast<uint8_t*>(record) + offsetof(libstats_iflstats_t, value) +
               offsetof(libstats_iflstats_value_t, stats);
  std::memset(area, 0, kWalkCopyBytes);
  std::memcpy(area, value.data(), std::min(value.size(), kWalkCopyBytes));
  return VSK_OK;
}

vsk_status_t libstats_close_cursor(libstats_cursor_ctx_t* ctx) {
  static constexpr const char kName[] = "libstats_close_cursor";
  if (ctx == nullptr || ctx->cursor == nullptr) return VSK_ERR_FATAL;
  vsk_status_t st = get_vsk_err(ctx->cursor->close(ctx->cursor));
  ctx->cursor = nullptr;
  VSK_TRACE("%s: cursor closed status:%d", kName, st);
  vsk_db_txn_t block{ctx->txn, nullptr, nullptr};
  vsk_status_t end = st == VSK_OK ? vsk::store::EndTxn(&block) : vsk::store::AbortTxn(&block, st);
  if (end != VSK_OK) VSK_TRACE("%s: end txn fails ret:%d", kName, end);
  ctx->txn = block.txn;
  return st;
}

void libstats_free_iflstats_record(libstats_iflstats_t* record) {
  if (record != nullptr) FreeIflstatsRecord(record);
}

void libstats_free_iflstats(void* block) { std::free(block); }

}  // extern "C"
