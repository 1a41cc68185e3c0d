// The gate in front of every session operation (vsk_db_check) and the transaction
// helpers; see txn.h.
//
// The owner of a transaction retries; these helpers never do. AbortTxn leaves a
// transaction alone on -11: the environment is recovering and its handles must not be
// used. A block whose handle has already ended (a stale block, or a copy of one) gets -6
// and a trace instead of reaching Berkeley DB (txn_registry.h). The exported calls also
// refuse a handle that was begun through another block: a daemon ends a transaction
// through the block it began it with. The library's own walks carry a handle from block
// to block and are held only to the first rule.
#include "libvsk/store/txn.h"

#include <db.h>

#include "libvsk/base/fault.h"
#include "libvsk/base/status.h"
#include "libvsk/base/trace.h"
#include "libvsk/store/context.h"
#include "libvsk/store/joins.h"
#include "libvsk/store/txn_registry.h"

namespace vsk::store {
namespace {

// A block that may be ended: holding either nothing or a live handle (that it began, if
// `own`). A stale or foreign handle is dropped from the block, since no call may use it.
bool UsableBlock(vsk_db_txn_t* block, const char* fn, bool own) {
  if (block->txn == nullptr) return true;
  if (own ? TxnOwnedBy(block->txn, block) : TxnLive(block->txn)) return true;
  VSK_TRACE("%s: transaction %p is not open in this block (copied, or already ended)", fn,
            static_cast<void*>(block->txn));
  block->txn = nullptr;
  return false;
}

}  // namespace

vsk_status_t Check() {
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

// REQUIRES: `block` cleared by the caller or holding a finished transaction.
vsk_status_t StartTxn(vsk_db_txn_t* block) {
  vsk_status_t st = Check();
  if (st != VSK_OK) return st;
  DB_TXN* parent = block->parent != nullptr ? block->parent->txn : nullptr;
  DB_ENV* env = Context()->dbenv;
  int ret;
  if (!fault::Inject(fault::Kind::kTxnBegin, &ret)) {
    ret = env->txn_begin(env, parent, &block->txn, 0);
  }
  if (ret != 0) {
    VSK_TRACE("Failed to start transaction: %s", db_strerror(ret));
    block->txn = nullptr;
  } else {
    RegisterTxn(block->txn, block, parent);
  }
  return vsk::base::TranslateError(ret);
}

vsk_status_t EndTxn(vsk_db_txn_t* block) {
  if (!UsableBlock(block, "vsk_db_end_txn", false)) return VSK_ERR_INVALID_PARAM;
  if (block->txn == nullptr) return VSK_OK;
  ForgetTxn(block->txn);  // the handle is gone whatever the result
  int ret;
  if (fault::Inject(fault::Kind::kTxnCommit, &ret)) {
    block->txn->abort(block->txn);  // a failed commit has aborted, as Berkeley DB's does
  } else {
    ret = block->txn->commit(block->txn, 0);
  }
  if (ret != 0) VSK_TRACE("Failed to end transaction: %s\n", db_strerror(ret));
  block->txn = nullptr;
  return vsk::base::TranslateError(ret);
}

vsk_status_t AbortTxn(vsk_db_txn_t* block, vsk_status_t status) {
  if (status == VSK_ERR_RECOVERING) return VSK_ERR_RECOVERING;
  if (!UsableBlock(block, "vsk_db_abort_txn", false)) return VSK_ERR_INVALID_PARAM;
  if (block->txn == nullptr) return VSK_OK;
  ForgetTxn(block->txn);
  int ret = block->txn->abort(block->txn);
  if (ret != 0) VSK_TRACE("Failed to abort transaction: %s\n", db_strerror(ret));
  block->txn = nullptr;
  return vsk::base::TranslateError(ret);
}

Txn::~Txn() {
  if (block_->txn == nullptr) return;
  if (vsk_in_panic) {
    block_->txn = nullptr;  // forgotten: the environment is beyond use
    return;
  }
  AbortTxn(block_, VSK_ERR_FATAL);
}

vsk_status_t Txn::Fail(vsk_status_t status) {
  AbortTxn(block_, status);
  return status;
}

}  // namespace vsk::store

extern "C" {

vsk_status_t vsk_db_check(void) { return vsk::store::Check(); }

vsk_status_t vsk_db_start_txn(vsk_db_txn_t* ctx) {
  if (ctx == nullptr) {
    VSK_TRACE("%s: null transaction block", "vsk_db_start_txn");
    return VSK_ERR_INVALID_PARAM;
  }
  return vsk::store::StartTxn(ctx);
}

vsk_status_t vsk_db_end_txn(vsk_db_txn_t* ctx) {
  if (ctx == nullptr) {
    VSK_TRACE("%s: null transaction block", "vsk_db_end_txn");
    return VSK_ERR_INVALID_PARAM;
  }
  if (!vsk::store::UsableBlock(ctx, "vsk_db_end_txn", true)) return VSK_ERR_INVALID_PARAM;
  return vsk::store::EndTxn(ctx);
}

vsk_status_t vsk_db_abort_txn(vsk_db_txn_t* ctx, vsk_status_t status) {
  if (status == VSK_ERR_RECOVERING) return VSK_ERR_RECOVERING;
  if (ctx == nullptr) return VSK_OK;  // nothing to abort
  if (!vsk::store::UsableBlock(ctx, "vsk_db_abort_txn", true)) return VSK_ERR_INVALID_PARAM;
  return vsk::store::AbortTxn(ctx, status);
}

}  // extern "C"
