// The gate in front of every session operation (vsk_db_check) and the transaction
// helpers.
//
// The owner of a transaction retries; these helpers never do. vsk_db_abort_txn leaves a
// transaction alone on -11: the environment is recovering and its handles must not be
// used.
#include <db.h>

#include "libvsk/base/trace.h"
#include "libvsk/store/context.h"
#include "libvsk/store/joins.h"
#include "vsk/store.h"

extern "C" {

// 0 when the store is usable (possibly after re-registering); -1 before registration,
// -27 during the switchover phase of an upgrade, or the status of the re-registration.
vsk_status_t vsk_db_check(void) {
  using namespace vsk::store;
  StoreContext* ctx = Context();
  if (ctx == nullptr || ctx->orvd_handle == nullptr) {
    VSK_TRACE("orvd_register should be called before using vsk");
    return VSK_ERR_FATAL;
  }
  orvd_ctx* handle = ctx->orvd_handle;
  const LinkHooks& link = InstalledLinkHooks();
  // Session operations stop while the chassis finishes an upgrade's switchover; the
  // link is not read then.
  if (link.operations_stopped != nullptr && link.operations_stopped(handle)) {
    return VSK_ERR_ISSU;
  }
  // A poll-mode daemon has its link serviced here; a message may change the state.
  if (link.poll != nullptr) link.poll(handle);
  if (ctx->state == VSK_ENV_READY) return VSK_OK;
  VSK_TRACE("db env state is invalid %d, re-init", ctx->state);
  // Repair in passing: close the link and the store (no timer), then join again.
  return link.repair != nullptr ? link.repair(handle) : VSK_ERR_FATAL;
}

// REQUIRES: `ctx` cleared by the caller or holding a finished transaction.
vsk_status_t vsk_db_start_txn(vsk_db_txn_t* ctx) {
  vsk_status_t st = vsk_db_check();
  if (st != VSK_OK) return st;
  DB_TXN* parent = ctx->parent != nullptr ? ctx->parent->txn : nullptr;
  DB_ENV* env = vsk::store::Context()->dbenv;
  int ret = env->txn_begin(env, parent, &ctx->txn, 0);
  if (ret != 0) {
    VSK_TRACE("Failed to start transaction: %s", db_strerror(ret));
    ctx->txn = nullptr;
  }
  return get_vsk_err(ret);
}

// REQUIRES: a transaction in `ctx->txn`. The handle is gone afterwards whatever the result.
vsk_status_t vsk_db_end_txn(vsk_db_txn_t* ctx) {
  if (ctx->txn == nullptr) return VSK_OK;
  int ret = ctx->txn->commit(ctx->txn, 0);
  if (ret != 0) VSK_TRACE("Failed to end transaction: %s\n", db_strerror(ret));
  ctx->txn = nullptr;
  return get_vsk_err(ret);
}

vsk_status_t vsk_db_abort_txn(vsk_db_txn_t* ctx, vsk_status_t status) {
  if (status == VSK_ERR_RECOVERING) return VSK_ERR_RECOVERING;
  if (ctx->txn == nullptr) return VSK_OK;
  int ret = ctx->txn->abort(ctx->txn);
  if (ret != 0) VSK_TRACE("Failed to abort transaction: %s\n", db_strerror(ret));
  ctx->txn = nullptr;
  return get_vsk_err(ret);
}

}  // extern "C"
