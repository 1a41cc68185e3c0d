// Helpers of the tests of orvd's care for the store: client processes that register in
// poll mode, rows of an application-defined table written and read through the public
// table layer, and Berkeley DB's own figures of the environment.
#pragma once

#include <db.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "support/harness.h"
#include "vsk/vsk.h"

namespace vsk::test {

// Application-defined table 1: keys of 12 bytes (an id and a tag).
inline constexpr int16_t kRowsTable = 1;
inline constexpr char kRowsTableName[] = "health-rows";

// Registers this process with orvd in poll mode and opens the rows table. 0 or the status.
inline vsk_status_t JoinAsClient(orvd_ctx_t** out, uint32_t connect_timeout_ms = 1000) {
  orvd_ctx_t* ctx = orvd_init_handle();
  orvd_set_trace_callback(ctx, nullptr, CaptureTraceV);
  orvd_set_reg_type_poll(ctx);
  orvd_set_connect_timeout(ctx, connect_timeout_ms);
  vsk_status_t rc = orvd_register(ctx);
  if (rc == VSK_OK) rc = vsk_db_app_define(kRowsTable, kRowsTableName);
  *out = ctx;
  return rc;
}

// The value stored under `id`: `size` bytes that tell the id.
inline std::string RowValue(uint64_t id, uint32_t size = 64) {
  std::string v(size, static_cast<char>('a' + id % 26));
  std::memcpy(v.data(), &id, std::min<size_t>(sizeof id, size));
  return v;
}

inline vsk_status_t PutRowIn(vsk_db_txn_t* txn, uint64_t id, uint32_t size = 64,
                             int16_t table = kRowsTable) {
  uint8_t key[12] = {};
  std::memcpy(key, &id, sizeof id);
  std::memcpy(key + 8, "rows", 4);
  std::string value = RowValue(id, size);
  vsk_app_def_key_t k{static_cast<uint16_t>(table), key};
  vsk_app_data_t data{};
  data.length = static_cast<uint32_t>(value.size());
  data.data = value.data();
  return vsk_db_put_app_def_data(txn, &k, &data);
}

// Rows first..first+count-1 in one transaction; one attempt, aborted on a failure.
inline vsk_status_t PutRows(uint64_t first, int count, uint32_t size = 64) {
  vsk_db_txn_t txn{};
  vsk_status_t st = vsk_db_start_txn(&txn);
  if (st != VSK_OK) return st;
  for (int i = 0; i < count && st == VSK_OK; ++i) st = PutRowIn(&txn, first + i, size);
  if (st != VSK_OK) {
    vsk_db_abort_txn(&txn, st);
    return st;
  }
  return vsk_db_end_txn(&txn);
}

// 0 when row `id` holds its value, -7 when it is missing, or the read's status.
inline vsk_status_t CheckRow(uint64_t id, uint32_t size = 64, int16_t table = kRowsTable) {
  uint8_t key[12] = {};
  std::memcpy(key, &id, sizeof id);
  std::memcpy(key + 8, "rows", 4);
  vsk_app_def_key_t k{static_cast<uint16_t>(table), key};
  vsk_app_data_t* data = nullptr;
  vsk_db_txn_t txn{};
  vsk_status_t st = vsk_db_check();
  if (st == VSK_OK) st = vsk_db_get_app_def_data(&txn, &k, &data, false);
  if (st != VSK_OK) return st;
  bool same = data->length == size && std::memcmp(data->data, RowValue(id, size).data(), size) == 0;
  vsk_db_release_app_pri_data(data, true);
  return same ? VSK_OK : VSK_ERR_CORRUPT;
}

// Berkeley DB's count of thread control blocks in the environment, read from its
// statistics text (which the library traces); -1 if not found.
inline long ThreadBlocksAllocated() {
  DB_ENV* env = nullptr;
  if (vsk_db_get_dbenv(&env) != 0 || env == nullptr) return -1;
  GlobalTraces().Clear();
  env->stat_print(env, DB_STAT_ALL);
  for (const std::string& line : GlobalTraces().Texts()) {
    auto at = line.find("\tThread blocks allocated");
    if (at != std::string::npos) return std::atol(line.substr(0, at).c_str());
  }
  return -1;
}

}  // namespace vsk::test
