// The engine fixture of update and removal tests, and reading committed rows and the
// Berkeley DB transaction figures. Each read runs in a transaction of its own.
#pragma once

#include <db.h>

#include <cstdlib>
#include <string>

#include "session_fixture.h"
#include "support/attr_lists.h"
#include "support/recount.h"
#include "vsk/vsk.h"

namespace vsk::test {

// The test process is `orvd` with everything up.
class EngineTest : public VskTest {
 protected:
  void SetUp() override {
    VskTest::SetUp();
    ASSERT_EQ(Up(&link_, true), 0) << traces().Dump();
    shm_ = vsk_snap_get_shared_memory_ptr();
    traces().Clear();
  }
  void TearDown() override {
    vsk_close_internal();
    vsk_db_reset_orvd_handle();
    VskTest::TearDown();
  }
  // A client session of `type`, cached or not; 0 when the create failed.
  static uint64_t Create(AttrList& attrs, bool cache, uint32_t type = 2, DynList* dyn = nullptr) {
    const vsk_create_options_t use_cache{0, 1, {0, 0}};
    vsk_session_ids_t ids{};
    vsk_status_t st = vsk_create_extended_client_session(
        type, attrs.get(), nullptr, dyn != nullptr ? dyn->get() : nullptr, &ids,
        cache ? &use_cache : nullptr, nullptr);
    return st == 0 ? ids.session_id : 0;
  }
  orvd_ctx link_{};
  void* shm_ = nullptr;
};

// "" when the shared counts equal a recount from the tables, else the differences.
inline std::string Drift() { return CountDifferences(RecountFromTables(), ReadSharedCounts()); }

// The client record's value of `type`; "st<n>" when the read failed.
inline std::string Row(uint64_t id, uint16_t type) {
  vsk_db_txn_t txn{};
  vsk_client_session_t* rec = nullptr;
  vsk_status_t st = vsk_db_get_client_session(&txn, &id, &rec, false);
  std::string out = st == 0 ? ValueOf(rec->attrs, type) : "st" + std::to_string(st);
  vsk_db_release_client_session(rec, true);
  return out;
}

// Types of the client record in stored order, "37,15,..."; "st<n>" when the read failed.
inline std::string RowTypes(uint64_t id, std::string* bits = nullptr) {
  vsk_db_txn_t txn{};
  vsk_client_session_t* rec = nullptr;
  vsk_status_t st = vsk_db_get_client_session(&txn, &id, &rec, false);
  if (st != 0) return "st" + std::to_string(st);
  std::string out;
  for (vsk_attr_t* a = rec->attrs->first; a != nullptr; a = a->next) {
    out += (out.empty() ? "" : ",") + std::to_string(a->type);
  }
  if (bits != nullptr) bits->assign(reinterpret_cast<char*>(rec->config_bits), rec->config_bits_len);
  vsk_db_release_client_session(rec, true);
  return out;
}

// The slot's value of `type`; "<absent>" when the slot lacks it or does not hold `id`.
inline std::string SlotValue(uint64_t id, uint16_t type) {
  uint16_t length = 0;
  void* value = nullptr;
  if (vsk_get_session_data_from_shm(nullptr, vsk_snap_get_shared_memory_ptr(), type, &length,
                                    &value, id) != 0)
    return "<absent>";
  return std::string(static_cast<char*>(value), length);
}

inline std::string AuthResponseRow(uint64_t id) {
  vsk_db_txn_t txn{};
  vsk_auth_info_t* rec = nullptr;
  vsk_status_t st = vsk_db_get_auth_response(&txn, &id, &rec, false);
  std::string out = st == 0 ? ValueOf(rec->attrs, VSK_USER_NAME) : "st" + std::to_string(st);
  vsk_db_release_auth_info(rec, true);
  return out;
}

inline std::string PrivateRow(uint64_t id, uint32_t app) {
  vsk_db_txn_t txn{};
  vsk_app_pri_key_t key{id, app};
  vsk_app_data_t* data = nullptr;
  vsk_status_t st = vsk_db_get_app_pri_data(&txn, &key, &data, false);
  std::string out = st == 0 ? std::string(static_cast<char*>(data->data), data->length)
                            : "st" + std::to_string(st);
  vsk_db_release_app_pri_data(data, true);
  return out;
}

// Transactions begun in the environment so far (every process), or -1.
inline long TxnBegins() {
  DB_ENV* env = nullptr;
  vsk_db_get_dbenv(&env);
  DB_TXN_STAT* sp = nullptr;
  if (env == nullptr || env->txn_stat(env, &sp, 0) != 0) return -1;
  long n = static_cast<long>(sp->st_nbegins);
  std::free(sp);
  return n;
}

}  // namespace vsk::test
