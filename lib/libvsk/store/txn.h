// The store's gate and transactions for C++ callers, and Txn, the guard every multi-step
// operation of the library holds its transaction with.
//
// The owner of a transaction retries; nothing here does. The pattern of one pass:
//
//   vsk_db_txn_t block{};            // cleared; `parent` set for a child transaction
//   store::Txn txn(&block);
//   vsk_status_t st = txn.Begin();   // the gate, then txn_begin
//   if (st != VSK_OK) return st;
//   st = vsk_db_put_client_session(&block, ...);
//   if (st != VSK_OK) return txn.Fail(st);   // aborts by the rule, gives `st` back
//   return txn.Commit();
//
// Who may call: the daemon's thread that owns `block`. A Txn is not copyable.
#pragma once

#include "vsk/status.h"
#include "vsk/store.h"

namespace vsk::store {

// vsk_db_check: 0 when the store is usable (possibly after the daemon link repaired it),
// -1 before registration, -27 during an upgrade's switchover, or the repair's status.
vsk_status_t Check();
// vsk_db_start_txn, vsk_db_end_txn and vsk_db_abort_txn, with the same rules.
vsk_status_t StartTxn(vsk_db_txn_t* block);
vsk_status_t EndTxn(vsk_db_txn_t* block);
vsk_status_t AbortTxn(vsk_db_txn_t* block, vsk_status_t status);

class Txn {
 public:
  // REQUIRES: `block` cleared by the caller (its `parent` may be set) and outliving the
  // guard. Nothing starts until Begin.
  explicit Txn(vsk_db_txn_t* block) : block_(block) {}
  Txn(const Txn&) = delete;
  Txn& operator=(const Txn&) = delete;
  // A transaction still open here is aborted as after a failure of status -1. In a panic
  // (the environment must be recovered) it is forgotten, never touched.
  ~Txn();

  // Runs the gate and begins; the status of either.
  vsk_status_t Begin() { return StartTxn(block_); }
  // Commits; the handle is gone afterwards whatever the result. The commit's status.
  vsk_status_t Commit() { return EndTxn(block_); }
  // Aborts after a failure of `status` and returns `status`, not the abort's own result,
  // so that callers report (and retry on) what went wrong. On -11 the transaction is left
  // untouched: the environment is recovering and its handles must not be used.
  vsk_status_t Fail(vsk_status_t status);

  vsk_db_txn_t* block() const { return block_; }
  bool open() const { return block_->txn != nullptr; }

 private:
  vsk_db_txn_t* block_;
};

// Runs `pass(attempt)` (attempt from 1) until it gives a status that `retry` refuses, or
// `attempts` passes have run; the last status. Each pass owns its own Txn.
template <typename Pass, typename Retry>
vsk_status_t RunPasses(int attempts, Retry retry, Pass pass) {
  vsk_status_t st = VSK_OK;
  for (int attempt = 1; attempt <= attempts; ++attempt) {
    st = pass(attempt);
    if (st == VSK_OK || !retry(st)) break;
  }
  return st;
}

// The retry rule of reads and small writes: deadlock/timeout (-4) and recovery (-11).
inline bool RetryOnDeadlockOrRecovery(vsk_status_t st) {
  return st == VSK_ERR_RETRY || st == VSK_ERR_RECOVERING;
}

}  // namespace vsk::store
