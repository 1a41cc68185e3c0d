// Application private data ("app-private-db", one blob per session and application) and
// the application-defined tables 0 to 6: the session API's thin layer over the table
// operations. The library never looks inside the bytes.
//
// Who may call: a registered daemon, from its own thread; walks on the master only.
//
// Walks of an application-defined table keep their position in the caller's handle:
//
//   zeroed handle ─ step (action 2): key/current_key := key read, next_key := key behind it
//                 ─ ... ─ step with current_key set and next_key null: -7, the end
//
// Invariants:
//  1. Each step runs in a transaction of its own (a child of the walk block's, which is
//     empty), so nothing is held between steps; records inserted behind the position by
//     other processes are seen, and a retried step starts where the failed one did (the
//     handle's position moves only after the step's read has succeeded).
//  2. In a walk, `key`, `current_key` and `next_key` are key buffers of the library: a
//     step gives back the buffers of the step before, and the end of the walk (the end of
//     vsk_recover_app_defined_table, or the `done` call) gives back the last ones. After
//     a single read `key` is the caller's and is never freed here.
#include "vsk/app_data.h"

#include <cstdlib>

#include "libvsk/base/trace.h"
#include "libvsk/store/dyn_db_internal.h"
#include "libvsk/store/records.h"
#include "libvsk/store/tables.h"
#include "libvsk/store/txn.h"
#include "libvsk/vsk/app_data_internal.h"
#include "libvsk/vsk/dynamic_internal.h"
#include "libvsk/vsk/snapshot_internal.h"
#include "vsk/dyn_db.h"

namespace vsk::session {
namespace {

constexpr int kWriteAttempts = 4;
constexpr int kReadAttempts = 3;
constexpr int kSnapshotAttempts = 4;
constexpr char kSnapshotFn[] = "vsk_get_app_defined_snapshot_internal";
constexpr char kNoSnapshot[] = "Getting application private data without providing snapshot";

static_assert(sizeof(vsk_app_defined_handle) == 128);
static_assert(offsetof(vsk_app_defined_handle, table_id) == 0);
static_assert(offsetof(vsk_app_defined_handle, key) == 8);
static_assert(offsetof(vsk_app_defined_handle, walk) == 96);
static_assert(offsetof(vsk_app_defined_handle, current_key) == 104);
static_assert(offsetof(vsk_app_defined_handle, next_key) == 112);
static_assert(offsetof(vsk_app_defined_handle, data) == 120);

uint16_t TableOf(uint32_t table_id) { return static_cast<uint16_t>(table_id & 0xffffu); }

// One write in a transaction of its own per attempt; -7 commits like 0 when
// `missing_is_success`. The final failure is traced with `words` and the status.
template <typename Op>
vsk_status_t WritePasses(Op op, bool missing_is_success, const char* words) {
  vsk_status_t st =
      store::RunPasses(kWriteAttempts, store::RetryOnDeadlockOrRecovery, [&](int) -> vsk_status_t {
        vsk_db_txn_t block{};
        store::Txn txn(&block);
        vsk_status_t rc = txn.Begin();
        if (rc != VSK_OK) return rc;
        rc = op(&block);
        if (rc == VSK_ERR_NOT_FOUND && missing_is_success) rc = VSK_OK;
        if (rc != VSK_OK) return txn.Fail(rc);
        return txn.Commit();
      });
  if (st != VSK_OK) VSK_TRACE(words, st);
  return st;
}

// Published: both words end with a blank, and the application-defined writes reuse them.
constexpr char kPutWords[] = "Failed to put application private data %d ";
constexpr char kRemoveWords[] = "Failed to remove application private data %d ";

void FreeKeyBuffer(void* buffer) {
  vsk_app_def_key_t block{0, buffer};
  store::ReleaseKeyAppDefId(&block, false);
}

// Gives back the key buffers a walk left in the handle and rewinds its position.
void ReleaseWalkKeys(vsk_app_defined_handle* h) {
  if (h->key == h->current_key) h->key = nullptr;
  FreeKeyBuffer(h->current_key);
  FreeKeyBuffer(h->next_key);
  h->current_key = nullptr;
  h->next_key = nullptr;
}

// What one attempt ended with: the status, and whether the transaction is to commit.
struct StepEnd {
  vsk_status_t st;
  bool commit;
};

StepEnd ReadOne(vsk_db_txn_t* txn, const vsk_app_def_key_t& key, vsk_app_data_t** data) {
  vsk_status_t st = store::GetAppDefData(txn, &key, data, false);
  if (st == VSK_OK || st == VSK_ERR_NOT_FOUND) return {st, true};
  VSK_TRACE(
      "%s: Failed to locate private data record for snapshot by user defined private id %d, "
      "return code %s\n",
      kSnapshotFn, static_cast<int>(key.table_id), vsk_get_err_msg(st));
  return {st, false};
}

StepEnd SingleRead(vsk_app_defined_handle* h, vsk_db_txn_t* txn) {
  const uint16_t table = TableOf(h->table_id);
  // Table 0 has keys of no length: a single read never looks at it.
  if (table == 0) {
    h->data = nullptr;
    return {VSK_OK, true};
  }
  vsk_app_data_t* data = nullptr;
  StepEnd end = ReadOne(txn, vsk_app_def_key_t{table, h->key}, &data);
  if (end.commit) h->data = data;
  return end;
}

StepEnd WalkStep(vsk_app_defined_handle* h, vsk_db_txn_t* txn) {
  const uint16_t table = TableOf(h->table_id);
  vsk_app_def_key_t found{}, behind{};
  vsk_app_def_key_t* found_p = &found;
  vsk_app_def_key_t* behind_p = &behind;
  vsk_status_t st = store::IterateAppDefined(txn, h->current_key, h->next_key, &found_p, &behind_p,
                                             nullptr, table);
  StepEnd end{st, st == VSK_ERR_NOT_FOUND};
  vsk_app_data_t* data = nullptr;
  if (st == VSK_OK) end = ReadOne(txn, found, &data);
  if (st != VSK_OK || !end.commit) {
    store::ReleaseKeyAppDefId(&found, false);
    store::ReleaseKeyAppDefId(&behind, false);
    store::ReleaseAppPriData(data, true);
    return end;
  }
  ReleaseWalkKeys(h);
  h->table_id = found.table_id;
  h->key = found.key;
  h->current_key = found.key;
  h->next_key = behind.key;
  h->data = data;
  return end;
}

}  // namespace

vsk_status_t PutAppPrivateData(uint32_t app_id, vsk_session_id_t session_id,
                               const vsk_app_data_t* data) {
  const vsk_app_pri_key_t key{session_id, app_id};
  return WritePasses([&](vsk_db_txn_t* txn) { return store::PutAppPriData(txn, &key, data); },
                     false, kPutWords);
}

vsk_status_t RemoveAppPrivateData(uint32_t app_id, vsk_session_id_t session_id) {
  const vsk_app_pri_key_t key{session_id, app_id};
  return WritePasses([&](vsk_db_txn_t* txn) { return store::DelAppPriData(txn, &key); }, true,
                     kRemoveWords);
}

vsk_status_t PutAppDefinedData(uint16_t table_id, const void* key, const vsk_app_data_t* data) {
  const vsk_app_def_key_t block{table_id, const_cast<void*>(key)};
  return WritePasses([&](vsk_db_txn_t* txn) { return store::PutAppDefData(txn, &block, data); },
                     false, kPutWords);
}

vsk_status_t RemoveAppDefinedData(uint16_t table_id, const void* key) {
  const vsk_app_def_key_t block{table_id, const_cast<void*>(key)};
  return WritePasses([&](vsk_db_txn_t* txn) { return store::DelAppDefData(txn, &block); }, true,
                     kRemoveWords);
}

vsk_app_data_t* ReadAppPrivateData(vsk_session_id_t session_id, uint32_t app_id) {
  if (store::Check() != VSK_OK) return nullptr;
  const vsk_app_pri_key_t key{session_id, app_id};
  vsk_app_data_t* data = nullptr;
  vsk_status_t st =
      store::RunPasses(kReadAttempts, store::RetryOnDeadlockOrRecovery, [&](int) -> vsk_status_t {
        vsk_db_txn_t block{};
        store::Txn txn(&block);
        vsk_status_t rc = txn.Begin();
        if (rc == VSK_OK) rc = store::GetAppPriData(&block, &key, &data, false);
        // A missing record commits like a found one; only the read's result counts.
        if (rc != VSK_OK && rc != VSK_ERR_NOT_FOUND) return txn.open() ? txn.Fail(rc) : rc;
        txn.Commit();
        return VSK_OK;
      });
  return st == VSK_OK ? data : nullptr;
}

vsk_status_t OpenAppDefinedTable(uint32_t table_id, const char* name) {
  return store::AppDefine(static_cast<int16_t>(table_id), name);
}

vsk_status_t GetAppDefinedSnapshot(vsk_app_defined_handle* h, int action, vsk_db_txn_t* walk) {
  if (h == nullptr) {
    // Published: this one ends with a newline, the same words from the shim do not.
    VSK_TRACE("%s\n", kNoSnapshot);
    return VSK_ERR_INVALID_PARAM;
  }
  if ((action == VSK_SNAPSHOT_ACTION_SEARCH || action == VSK_SNAPSHOT_ACTION_WALK) &&
      walk == nullptr) {
    VSK_TRACE("Missing filter with snapshot action %d\n", action);
    return VSK_ERR_INVALID_PARAM;
  }
  if (action != VSK_SNAPSHOT_ACTION_GET && action != VSK_SNAPSHOT_ACTION_WALK) {
    VSK_TRACE("Unsupported application defined snapshot action %d", action);
    return VSK_ERR_INVALID_PARAM;
  }
  StepEnd end{VSK_OK, false};
  for (int attempt = 1; attempt <= kSnapshotAttempts; ++attempt) {
    vsk_db_txn_t block{};
    block.parent = action == VSK_SNAPSHOT_ACTION_WALK ? walk : nullptr;
    store::Txn txn(&block);
    vsk_status_t st = txn.Begin();
    if (st != VSK_OK) {
      end = {st, false};
    } else {
      end = action == VSK_SNAPSHOT_ACTION_GET ? SingleRead(h, &block) : WalkStep(h, &block);
      if (end.commit) {
        // The read's status is the answer; the commit's is not looked at.
        txn.Commit();
        return end.st;
      }
      txn.Fail(end.st);
    }
    if (!store::RetryOnDeadlockOrRecovery(end.st)) break;
  }
  // Published: the words of a write, though this is a read.
  VSK_TRACE("Failed to put user defined private data %d ", end.st);
  return end.st;
}

void FreeAppDefinedHandle(vsk_app_defined_handle* h) {
  if (h == nullptr || h->data == nullptr) return;
  store::ReleaseAppPriData(h->data, true);
  // Safe deviation: `data` is cleared, so that a second free (or a free after a walk's
  // callback freed it) cannot release the record twice.
  h->data = nullptr;
}

vsk_status_t RecoverAppDefinedTable(vsk_app_defined_callback_t callback, uint32_t table_id) {
  vsk_status_t st = RecoveryWalkGate();
  if (st != VSK_OK) return st;
  const uint32_t table = TableOf(table_id);
  VSK_TRACE("App Defined Table %d Recover Start", static_cast<int>(table));
  vsk_app_defined_handle h{};
  vsk_db_txn_t walk{};
  h.table_id = table;
  for (;;) {
    st = GetAppDefinedSnapshot(&h, VSK_SNAPSHOT_ACTION_WALK, &walk);
    if (st == VSK_OK) {
      if (callback != nullptr) callback(&h);
      FreeAppDefinedHandle(&h);
      h.table_id = table;
    } else if (st != VSK_ERR_FILTERED) {
      break;
    }
  }
  ReleaseWalkKeys(&h);
  // The normal end is -7, returned as it is, with no finish trace.
  return st;
}

vsk_status_t GetNextRecoverAppDefinedTable(vsk_app_defined_callback_t callback,
                                           vsk_app_defined_handle* h, int32_t max_count,
                                           bool done) {
  vsk_status_t st = RecoveryWalkGate();
  if (st != VSK_OK) return st;
  if (h == nullptr) {
    VSK_TRACE("%s", kNoSnapshot);
    return VSK_ERR_INVALID_PARAM;
  }
  if (h->walk == nullptr) {
    h->walk = static_cast<vsk_db_txn_t*>(std::calloc(1, sizeof(vsk_db_txn_t)));
    if (h->walk == nullptr) return VSK_ERR_NOMEM;
    VSK_TRACE("Recover Start");
  } else if (done) {
    std::free(h->walk);
    h->walk = nullptr;
    // The position goes with the walk, so that the handle can start a new one.
    ReleaseWalkKeys(h);
    VSK_TRACE("Recover Finish");
    return VSK_OK;
  }
  if (max_count < 0) return VSK_OK;
  st = VSK_OK;
  for (int32_t n = 0; max_count == 0 || n < max_count; ++n) {
    st = GetAppDefinedSnapshot(h, VSK_SNAPSHOT_ACTION_WALK, h->walk);
    if (st == VSK_OK) {
      if (callback != nullptr) callback(h);
      FreeAppDefinedHandle(h);
    } else if (st != VSK_ERR_FILTERED) {
      return st;
    }
  }
  return st;
}

}  // namespace vsk::session

using namespace vsk::session;

extern "C" {

vsk_status_t vsk_put_app_private_data(uint32_t app_id, vsk_session_id_t session_id,
                                      const vsk_app_data_t* data) {
  return PutAppPrivateData(app_id, session_id, data);
}

vsk_status_t vsk_remove_app_private_data(uint32_t app_id, vsk_session_id_t session_id) {
  return RemoveAppPrivateData(app_id, session_id);
}

vsk_app_data_t* vsk_get_app_pri_data(vsk_session_id_t session_id, uint32_t app_id) {
  return ReadAppPrivateData(session_id, app_id);
}

vsk_status_t vsk_get_app_private_data(const vsk_snapshot_handle* handle,
                                      vsk_session_id_t session_id, uint32_t app_id,
                                      vsk_app_data_t** out) {
  if (handle == nullptr || handle->data == nullptr || app_id == 0 || out == nullptr) {
    VSK_TRACE("%s", kNoSnapshot);
    return VSK_ERR_INVALID_PARAM;
  }
  *out = nullptr;
  const vsk_snapshot_client_data* client = handle->data->client;
  if (client == nullptr) return VSK_ERR_NOT_FOUND;
  vsk_app_data_t* found = nullptr;
  if (session_id == 0) {
    found = client->app_private;
  } else if (handle->data->services != nullptr) {
    const vsk_snapshot_service_node* node = vsk::snapshot::FindService(handle, session_id);
    if (node != nullptr) found = node->app_private;
  }
  if (found == nullptr) return VSK_ERR_NOT_FOUND;
  *out = found;
  return VSK_OK;
}

vsk_status_t vsk_open_app_defined_table(uint32_t table_id, const char* name) {
  return OpenAppDefinedTable(table_id, name);
}

vsk_status_t vsk_put_app_defined_data(uint32_t table_id, void** key, const vsk_app_data_t* data) {
  if (key == nullptr) {
    VSK_TRACE("%s: no key for table id %u", "vsk_put_app_defined_data", table_id);
    return VSK_ERR_INVALID_PARAM;
  }
  return PutAppDefinedData(TableOf(table_id), *key, data);
}

vsk_status_t vsk_remove_app_defined_data(uint32_t table_id, void** key) {
  if (key == nullptr) {
    VSK_TRACE("%s: no key for table id %u", "vsk_remove_app_defined_data", table_id);
    return VSK_ERR_INVALID_PARAM;
  }
  return RemoveAppDefinedData(TableOf(table_id), *key);
}

vsk_status_t vsk_get_app_defined_snapshot(vsk_app_defined_handle* handle) {
  vsk_status_t st = vsk::store::Check();
  if (st != VSK_OK) return st;
  return GetAppDefinedSnapshot(handle, VSK_SNAPSHOT_ACTION_GET, nullptr);
}

vsk_status_t vsk_get_app_defined_snapshot_internal(vsk_app_defined_handle* handle, int action,
                                                   const void* filter, vsk_db_txn_t* walk) {
  (void)filter;  // accepted for the callers' sake; it selects nothing
  return GetAppDefinedSnapshot(handle, action, walk);
}

void vsk_free_app_defined_handle(vsk_app_defined_handle* handle) { FreeAppDefinedHandle(handle); }

vsk_status_t vsk_recover_app_defined_table(vsk_app_defined_callback_t callback, uint32_t table_id,
                                           const void* filter) {
  (void)filter;  // has no effect
  return RecoverAppDefinedTable(callback, table_id);
}

vsk_status_t vsk_get_next_recover_app_defined_table(vsk_app_defined_callback_t callback,
                                                    const void* filter,
                                                    vsk_app_defined_handle* handle,
                                                    int32_t max_count, uint8_t done) {
  (void)filter;  // has no effect
  return GetNextRecoverAppDefinedTable(callback, handle, max_count, done != 0);
}

}  // extern "C"
