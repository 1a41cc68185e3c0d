// Closing the store, and the state changes forced from outside: vsk_db_close,
// vsk_db_event_down, vsk_db_event_recover.
//
// Invariants:
//  1. While vsk_in_panic is set no Berkeley DB handle is touched: each is just forgotten.
//  2. After vsk_db_close the context is cleared except `orvd_handle`, state is 6, and the
//     process is detached from the replication queue.
//
//   any --close--> 5 CLOSING --> 6 CLOSED
//   7 READY --event_recover--> 10 NEEDS_RECOVERY;  any --event_down--> 9 DOWN --> closed
#include <db.h>

#include "libvsk/base/trace.h"
#include "libvsk/store/dyn_db_internal.h"
#include "libvsk/store/env.h"
#include "libvsk/store/env_internal.h"
#include "libvsk/store/joins.h"
#include "libvsk/store/txn_registry.h"
#include "platform/lodex.h"
#include "vsk/dyn_db.h"
#include "vsk/store.h"

namespace vsk::store {
namespace {

// A fixed table is closed only while it still has its environment.
bool Closable(DB* db, bool fixed) {
  if (db == nullptr || vsk_in_panic) return false;
  return !fixed || db->get_env(db) != nullptr;
}

}  // namespace
}  // namespace vsk::store

int vsk::store::Close() {
  using namespace vsk::store;
  StoreContext* ctx = Context();
  if (ctx == nullptr || ctx->dbenv == nullptr) return 0;
  bool failed = false;
  switch (ctx->state) {
    case VSK_ENV_PANIC:
      VSK_TRACE("Attempting to close VSK on PANIC");
      break;
    case VSK_ENV_DOWN:
      VSK_TRACE("Attempting to close VSK while DOWN");
      break;
    case VSK_ENV_NEEDS_RECOVERY:
      VSK_TRACE("Attempting to close VSK while in secondary recover");
      failed = true;
      break;
    default:
      break;
  }
  if (vsk_in_panic) failed = true;
  ctx->state = VSK_ENV_CLOSING;

  for (const FixedTable& t : kFixedTables) {
    DB*& slot = ctx->*t.slot;
    if (Closable(slot, true)) {
      int ret = vsk::store::DynClose(slot);
      if (ret == 0) {
        VSK_TRACE("%s", t.closed);
      } else {
        VSK_TRACE(t.close_failed, db_strerror(ret));
        failed = true;
      }
    }
    slot = nullptr;
  }
  for (DB*& slot : ctx->app_defined_db) {
    if (Closable(slot, false)) {
      int ret = vsk::store::DynClose(slot);
      if (ret == 0) {
        VSK_TRACE("closed private data database\n");
      } else {
        VSK_TRACE("Failed to close private data database %s\n", db_strerror(ret));
        failed = true;
      }
    }
    slot = nullptr;
  }

  // The side stores close in the order they opened, before the environment. Each decides
  // for itself what a panic leaves it to do; in panic nothing is closed, so no close is
  // reported as done.
  for (auto i = static_cast<size_t>(kFirstSideStore); i < kJoinSlots; ++i) {
    const StoreJoin* join = JoinAt(static_cast<JoinSlot>(i));
    if (join == nullptr || join->close == nullptr) continue;
    const int ret = join->close();
    if (ret == 0) {
      // In a panic a join only forgets its handles: nothing was closed to report.
      if (join->closed != nullptr && !vsk_in_panic) VSK_TRACE("%s", join->closed);
    } else {
      if (join->close_failed != nullptr) VSK_TRACE(join->close_failed, db_strerror(ret));
      failed = true;
    }
  }

  if (!vsk_in_panic) {
    int ret = ctx->dbenv->close(ctx->dbenv, 0);
    if (ret == 0) {
      VSK_TRACE("closed environment");
    } else {
      VSK_TRACE("DB environment close failed: %s", db_strerror(ret));
      failed = true;
    }
  }

  // Every transaction handle went with the environment (or is unusable in a panic).
  ForgetAllTxns();
  orvd_ctx* keep = ctx->orvd_handle;
  *ctx = StoreContext{};
  ctx->orvd_handle = keep;
  ctx->state = VSK_ENV_CLOSED;

  if (lodex_release(0) != 0) {
    VSK_TRACE("Failed to release replication message queue");
    return -1;
  }
  return failed ? -1 : 0;
}

extern "C" int vsk_db_close(void) { return vsk::store::Close(); }

void vsk::store::EventDown(orvd_ctx* handle) {
  using namespace vsk::store;
  StoreContext* ctx = Context();
  if (ctx == nullptr) return;
  ctx->state = VSK_ENV_DOWN;
  VSK_TRACE("VSK STATE DOWN");
  // Everything of the library goes down in this process and the daemon is told; the
  // daemon link knows how. Without it only the store closes.
  orvd_ctx* link = handle != nullptr ? handle : ctx->orvd_handle;
  if (InstalledLinkHooks().went_down != nullptr) {
    InstalledLinkHooks().went_down(link);
  } else {
    vsk::store::Close();
  }
}

extern "C" void vsk_db_event_down(orvd_ctx* handle) { vsk::store::EventDown(handle); }

void vsk::store::EventRecover() {
  using namespace vsk::store;
  StoreContext* ctx = Context();
  if (ctx != nullptr && ctx->state == VSK_ENV_READY) {
    ctx->state = VSK_ENV_NEEDS_RECOVERY;
    VSK_TRACE("VSK SECONDARY TABLE NEEDS RECOVERY");
  }
}

extern "C" void vsk_db_event_recover(void) { vsk::store::EventRecover(); }
