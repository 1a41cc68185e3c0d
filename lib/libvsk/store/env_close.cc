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

#include "libvsk/orvd_ctx.h"
#include "libvsk/sidedata/provdb_internal.h"
#include "libvsk/store/env_internal.h"
#include "libvsk/trace.h"
#include "platform/lodex.h"
#include "vsk/dyn_db.h"
#include "vsk/shared.h"
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

extern "C" {

int vsk_db_close(void) {
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
      int ret = dyn_db_close(slot);
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
      int ret = dyn_db_close(slot);
      if (ret == 0) {
        VSK_TRACE("closed private data database\n");
      } else {
        VSK_TRACE("Failed to close private data database %s\n", db_strerror(ret));
        failed = true;
      }
    }
    slot = nullptr;
  }

  // The statistics and provisioning tables close here, before the environment.
  {
    // In panic the table is only forgotten: nothing was closed, so nothing is reported.
    const bool report = vsk::sidedata::ProvisionTableOpen() && !vsk_in_panic;
    const int ret = vsk::sidedata::CloseProvisionTable();
    if (ret != 0) {
      VSK_TRACE("Failed to close dcp provisioning db %s", db_strerror(ret));
      failed = true;
    } else if (report) {
      VSK_TRACE("closed dcp provisioning db");
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

void vsk_db_event_down(orvd_ctx* handle) {
  using namespace vsk::store;
  StoreContext* ctx = Context();
  if (ctx == nullptr) return;
  ctx->state = VSK_ENV_DOWN;
  VSK_TRACE("VSK STATE DOWN");
  // Everything of the library goes down in this process: the store, then every pointer
  // into shared memory.
  vsk_close_internal();
  orvd_ctx* link = handle != nullptr ? handle : ctx->orvd_handle;
  if (link != nullptr && link->db_env_change_cbk != nullptr) {
    DB_ENV* env = nullptr;  // null by now: tells the daemon to drop any cached handle
    vsk_db_get_dbenv(&env);
    link->db_env_change_cbk(env);
  }
}

void vsk_db_event_recover(void) {
  using namespace vsk::store;
  StoreContext* ctx = Context();
  if (ctx != nullptr && ctx->state == VSK_ENV_READY) {
    ctx->state = VSK_ENV_NEEDS_RECOVERY;
    VSK_TRACE("VSK SECONDARY TABLE NEEDS RECOVERY");
  }
}

}  // extern "C"
