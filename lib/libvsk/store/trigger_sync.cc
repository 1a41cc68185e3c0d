// vsk_trigger_sync: forces log traffic through replication so that a standby catches up,
// by writing and deleting a throw-away client record under session id 0 (never a real
// session) in one transaction. Only the log records remain.
#include "libvsk/base/trace.h"
#include "vsk/attr.h"
#include "vsk/store.h"
#include "vsk/tables.h"

namespace {
constexpr int kAttempts = 4;
}

extern "C" {

vsk_status_t vsk_trigger_sync(void) {
  vsk_status_t st = vsk_db_check();
  if (st != VSK_OK) return st;
  uint8_t zero[4] = {0, 0, 0, 0};
  vsk_attr_t type{VSK_CLIENT_SESSION_TYPE, 4, zero, nullptr};
  vsk_attr_list_t attrs{&type, &type.next};
  vsk_client_session_t rec{};
  rec.attrs = &attrs;
  const vsk_session_id_t id = 0;
  for (int attempt = 1;; ++attempt) {
    vsk_db_txn_t txn{};
    st = vsk_db_start_txn(&txn);
    if (st == VSK_OK) st = vsk_db_put_client_session(&txn, &id, &rec);
    if (st == VSK_OK) st = vsk_db_del_client_session(&txn, &id);
    if (st == VSK_OK) return vsk_db_end_txn(&txn);
    if (txn.txn != nullptr) vsk_db_abort_txn(&txn, st);
    if ((st == VSK_ERR_RETRY || st == VSK_ERR_RECOVERING) && attempt < kAttempts) continue;
    VSK_TRACE("Failed to trigger db synchronizatoin %d", st);
    return st;
  }
}

}  // extern "C"
