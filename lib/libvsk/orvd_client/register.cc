// Registration: the start-up of the library in a daemon, the way back after a loss, and
// the end.
//
// Start-up order inside orvd_register (each step needs the previous one):
//   1. platform check and the role (vsk_db_set_master);
//   2. the re-registration timer in event mode;
//   3. vsk_open_internal: key files, segments, id generator, counters, status word;
//   4. in a client, the connection to orvd and the registration exchange;
//   5. vsk_db_init: environment, replication, unit pools, tables;
//   6. vsk_db_secondary_init; in orvd on the master, vsk_db_secondary_recover;
//   7. the daemon's environment-change callback.
// A client on the master may join only once orvd has rebuilt the shared state (status
// word 3); a client on the standby does not wait for it.
#include <db.h>

#include <cstdlib>

#include "libvsk/base/role.h"
#include "libvsk/base/status.h"
#include "libvsk/orvd_client/link.h"
#include "libvsk/orvd_client/wire.h"
#include "libvsk/store/capability.h"
#include "libvsk/store/env.h"
#include "libvsk/store/joins.h"
#include "platform/hwframe.h"
#include "platform/logging.h"
#include "platform/progname.h"
#include "vsk/intf.h"
#include "vsk/shared.h"
#include "vsk/store.h"

namespace vsk::orvd {
namespace {

// The shared state that orvd rebuilds is usable by clients of this routing engine.
bool SharedStateReady() {
  if (!vsk::base::IsMaster()) return true;
  return vsk_db_status != nullptr && *vsk_db_status == VSK_DB_STATUS_READY;
}

void TellEnvironment(orvd_ctx* ctx) {
  if (ctx == nullptr || ctx->db_env_change_cbk == nullptr) return;
  DB_ENV* env = nullptr;
  vsk_db_get_dbenv(&env);
  ctx->db_env_change_cbk(env);
}

// A first registration that fails leaves nothing running: a re-registration timer armed
// by the failure would open the store behind the daemon's back, which then finds its own
// retry of orvd_register refused. The timer is made again by the retry.
vsk_status_t Abandon(orvd_ctx* ctx, vsk_status_t status) {
  if (ctx->timer_leaf != nullptr) wtimer_destroy(ctx->timer_leaf);
  ctx->timer_leaf = nullptr;
  wtimer_root_destroy(ctx->timer_root);
  ctx->timer_root = nullptr;
  return status;
}

// The store, then the interface table: each needs the one before.
vsk_status_t OpenStore(orvd_ctx* ctx, bool is_orvd) {
  vsk_status_t rc = vsk::store::Init(ctx, is_orvd);
  if (rc == VSK_OK) rc = vsk_db_secondary_init(is_orvd);
  return rc;
}

// What the store's gate and its forced take-down borrow from the link.
constexpr uint32_t kPlatdSwitchover = 6;

[[maybe_unused]] const bool kLinkHooksInstalled = [] {
  store::InstallLinkHooks({
      .operations_stopped =
          [](orvd_ctx* link) { return orvd_get_platd_issu_state(link) == kPlatdSwitchover; },
      .poll = [](orvd_ctx* link) { orvd_poll_check(link); },
      .repair = [](orvd_ctx* link) -> vsk_status_t {
        orvd_reg_cleanup(link, true, false);
        return orvd_reregister(link);
      },
      // The store, then every pointer into shared memory; the environment handle the
      // daemon is given is null by now, which tells it to drop any cached one.
      .went_down =
          [](orvd_ctx* link) {
            vsk_close_internal();
            TellEnvironment(link);
          },
  });
  return true;
}();

}  // namespace
}  // namespace vsk::orvd

using vsk::orvd::Abandon;
using vsk::orvd::OpenStore;
using vsk::orvd::SharedStateReady;
using vsk::orvd::TellEnvironment;

extern "C" {

// A broken precondition is logged and the registration goes on, except with no handle
// at all, where going on could only crash.
vsk_status_t orvd_register(orvd_ctx_t* ctx) {
  VSK_INSIST(orvd_init_handle_done);
  if (!VSK_INSIST(ctx)) return VSK_ERR_ORVD_FATAL;
  VSK_INSIST(!ctx->user_reg);
  if (ctx->issu_enabled && ctx->issu_prepare_cbk == nullptr) return VSK_ERR_ORVD_FATAL;
  if (!vsk::store::Supported()) {
    ORVD_TRACE(ctx, "ORVD not supported on this platform");
    return VSK_ERR_UNSUPPORTED;
  }
  ctx->is_orvd = vsk::platform::IsOrvdProgram();
  vsk_db_set_master(hwframe_is_vc_or_single_re_protocol_master());
  ORVD_TRACE(ctx, "ORVD db: %s", vsk::base::IsMaster() ? "Master" : "Standby");

  if (ctx->reg_type_event && ctx->timer_root == nullptr) {
    ctx->timer_root = wtimer_init(ctx->event_ctx, 0);
    ctx->timer_leaf = wtimer_create_leaf(ctx->timer_root, 0, vsk::orvd::OnReregisterTimer, ctx);
    ctx->timer_interval = {5, 0};
  }

  int opened = vsk_open_internal(ctx->is_orvd);
  if (ctx->is_orvd) {
    if (opened != 0) return Abandon(ctx, opened);
  } else {
    if (opened != 0 || !SharedStateReady()) {
      vsk_close_internal();
      return Abandon(ctx, VSK_ERR_NOT_STARTED);
    }
    vsk_status_t rc = vsk::orvd::ConnectAndRegister(ctx);
    if (rc != VSK_OK) {
      orvd_reg_cleanup(ctx, false, false);
      vsk_close_internal();
      return Abandon(ctx, rc);
    }
  }

  vsk_status_t rc = OpenStore(ctx, ctx->is_orvd);
  if (rc != VSK_OK) {
    ORVD_TRACE(ctx, "Failed to open VSK %s", vsk::base::ErrorText(rc));
    if (!ctx->is_orvd) {
      vsk::orvd::SendRegister(ctx, vsk::orvd::kRoleLeaving, rc);
      orvd_reg_cleanup(ctx, false, false);
    }
    vsk_close_internal();
    return Abandon(ctx, rc);
  }
  if (ctx->is_orvd) {
    ORVD_TRACE(ctx, "Successfully opened VSK");
    if (vsk::base::IsMaster()) {
      rc = vsk_db_secondary_recover();
      if (rc != VSK_OK) {
        ORVD_TRACE(ctx, "Failed to recover VSK");
        vsk_close_internal();
        return Abandon(ctx, rc);
      }
      ORVD_TRACE(ctx, "Successfully recovered secondary table");
    }
  } else {
    ORVD_TRACE(ctx, "Successfully registered with ORVD");
  }
  TellEnvironment(ctx);
  ctx->user_reg = true;
  return VSK_OK;
}

vsk_status_t orvd_reregister(orvd_ctx_t* ctx) {
  if (!VSK_INSIST(ctx)) return VSK_ERR_ORVD_FATAL;
  VSK_INSIST(!ctx->is_orvd);  // logged; the re-registration goes on as a client's
  if (!vsk::store::Supported()) {
    ORVD_TRACE(ctx, "ORVD not supported on this platform");
    return VSK_ERR_UNSUPPORTED;
  }
  // The timer will come back by itself.
  if (ctx->reg_type_event && ctx->timer_leaf != nullptr && wtimer_running(ctx->timer_leaf)) {
    return VSK_ERR_FATAL;
  }
  if (vsk_open_internal(false) != 0 || !SharedStateReady()) {
    vsk_close_internal();
    return VSK_ERR_NOT_STARTED;
  }
  vsk_status_t rc = vsk::orvd::ConnectAndRegister(ctx);
  if (rc != VSK_OK) {
    orvd_reg_cleanup(ctx, false, true);
    vsk_close_internal();
    return rc;
  }
  rc = OpenStore(ctx, false);
  if (rc != VSK_OK) {
    // Published text: the "n" after the message is part of it (a lost backslash).
    ORVD_TRACE(ctx, "Failed to init session db %sn", vsk::base::ErrorText(rc));
    orvd_reg_cleanup(ctx, true, true);
    return VSK_ERR_ORVD_FATAL;
  }
  TellEnvironment(ctx);
  ORVD_TRACE(ctx, "Successfully reregistered with ORVD");
  return VSK_OK;
}

vsk_status_t orvd_unregister(orvd_ctx_t** ctx_slot) {
  if (ctx_slot == nullptr || *ctx_slot == nullptr) return VSK_OK;
  orvd_ctx* ctx = *ctx_slot;
  VSK_INSIST(orvd_init_handle_done);
  vsk_status_t result = VSK_OK;
  if (ctx->user_reg) {
    result = vsk_close_internal();
    if (ctx->fd >= 0) {
      vsk::orvd::SendRegister(ctx, vsk::orvd::kRoleLeaving, result);
      orvd_reg_cleanup(ctx, false, false);
    }
    ctx->user_reg = false;
  }
  if (ctx->reg_type_event && ctx->timer_leaf != nullptr) {
    wtimer_destroy(ctx->timer_leaf);
    ctx->timer_leaf = nullptr;
  }
  // The root is this platform's own object and goes with the handle.
  wtimer_root_destroy(ctx->timer_root);
  ctx->timer_root = nullptr;
  ORVD_TRACE(ctx, ctx->is_orvd ? "Closed VSK" : "Unregistered with ORVD");
  vsk_db_reset_orvd_handle();
  if (vsk::orvd::CurrentHandle() == ctx) vsk::orvd::ForgetHandle();
  std::free(ctx);
  *ctx_slot = nullptr;
  orvd_init_handle_done = false;
  return result;
}

}  // extern "C"
