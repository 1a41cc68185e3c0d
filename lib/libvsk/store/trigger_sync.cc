// vsk_trigger_sync: forces log traffic through replication so that a standby catches up,
// by writing and deleting a throw-away client record under session id 0 (never a real
// session) in one transaction. Only the log records remain.
#include "libvsk/base/trace.h"
#include "libvsk/store/tables.h"
#include "libvsk/store/txn.h"
#include "vsk/attr.h"
#include "vsk/store.h"
#include "vsk/tables.h"

namespace {
constexpr int kAttempts = 4;
}

extern "C" vsk_status_t vsk_trigger_sync(void) {
  using vsk::store::Txn;
  vsk_status_t st = vsk::store::Check();
  if (st != VSK_OK) return st;
  uint8_t zero[4] = {0, 0, 0, 0};
  vsk_attr_t type{VSK_CLIENT_SESSION_TYPE, 4, zero, nullptr};
  vsk_attr_list_t attrs{&type, &type.next};
  vsk_client_session_t rec{};
  rec.attrs = &attrs;
  const vsk_session_id_t id = 0;
  bool committed = false;
  // A failed commit ends the call with its status, without another pass.
  auto retry = [&](vsk_status_t s) {
    return !committed && vsk::store::RetryOnDeadlockOrRecovery(s);
  };
  st = vsk::store::RunPasses(kAttempts, retry, [&](int) {
    vsk_db_txn_t block{};
    Txn txn(&block);
    vsk_status_t pass = txn.Begin();
    if (pass == VSK_OK) pass = vsk::store::PutClientSession(&block, &id, &rec);
    if (pass == VSK_OK) pass = vsk::store::DelClientSession(&block, &id);
    if (pass != VSK_OK) return txn.Fail(pass);
    committed = true;
    return txn.Commit();  // the commit's status is the call's, without a retry
  });
  if (committed) return st;
  // Published text: "synchronizatoin" is spelt so on purpose; daemons match it.
  VSK_TRACE("Failed to trigger db synchronizatoin %d", st);
  return st;
}
