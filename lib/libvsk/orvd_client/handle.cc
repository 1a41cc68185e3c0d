// The daemon-link handle: its creation, the daemon's options and the trace forwarder.
//
// One handle per process, reached through a process-wide pointer guarded by the flag
// orvd_init_handle_done. Options can be set only before orvd_register finishes
// (`user_reg`); afterwards every setter answers -25 and changes nothing.
#include <cstdarg>
#include <cstdlib>

#include "libvsk/orvd_client/link.h"
#include "platform/logging.h"

namespace vsk::orvd {
namespace {

orvd_ctx* g_handle = nullptr;

// vsk_trace_cbk while a handle exists: hands level, format and arguments to the daemon's
// sink with its cookie in place of the handle. Silent without a handle or a sink.
void ForwardTrace(void* handle, int level, const char* format, ...) {
  auto* ctx = static_cast<orvd_ctx*>(handle);
  if (ctx == nullptr || ctx->trace_fn == nullptr) return;
  va_list args;
  va_start(args, format);
  ctx->trace_fn(ctx->trace_cookie, level, format, args);
  va_end(args);
}

// True when options may still change.
bool Settable(const orvd_ctx* ctx) { return ctx != nullptr && !ctx->user_reg; }

}  // namespace

orvd_ctx* CurrentHandle() { return g_handle; }

void ForgetHandle() { g_handle = nullptr; }

}  // namespace vsk::orvd

// The guard of the process-wide handle; set by orvd_init_handle, cleared by
// orvd_unregister.
bool orvd_init_handle_done = false;

using vsk::orvd::Settable;

extern "C" {

// A second call without orvd_unregister is logged and makes a new handle all the same:
// the first one is the daemon's to free.
orvd_ctx_t* orvd_init_handle(void) {
  VSK_INSIST(!orvd_init_handle_done);
  auto* ctx = static_cast<orvd_ctx*>(std::calloc(1, sizeof(orvd_ctx)));
  if (ctx == nullptr) return nullptr;
  ctx->fd = -1;
  ctx->connect_timeout = 1000;
  vsk::orvd::g_handle = ctx;
  orvd_init_handle_done = true;
  vsk_trace_cbk = vsk::orvd::ForwardTrace;
  return ctx;
}

int orvd_set_reg_type_select(orvd_ctx_t* ctx, void* cookie, orvd_select_fn_t register_fn,
                             orvd_select_fn_t deregister_fn) {
  if (!Settable(ctx) || register_fn == nullptr || deregister_fn == nullptr) {
    return VSK_ERR_ORVD_FATAL;
  }
  ctx->reg_type_select = true;
  ctx->select_cookie = cookie;
  ctx->select_register = register_fn;
  ctx->select_deregister = deregister_fn;
  return 0;
}

int orvd_set_reg_type_event(orvd_ctx_t* ctx, const evContext* event_ctx) {
  if (!Settable(ctx) || event_ctx == nullptr || event_ctx->opaque == nullptr) {
    return VSK_ERR_ORVD_FATAL;
  }
  ctx->reg_type_event = true;
  ctx->event_ctx = *event_ctx;
  return 0;
}

int orvd_set_reg_type_poll(orvd_ctx_t* ctx) {
  if (!Settable(ctx)) return VSK_ERR_ORVD_FATAL;
  ctx->reg_type_poll = true;
  return 0;
}

int orvd_set_connect_timeout(orvd_ctx_t* ctx, uint32_t ms) {
  if (!Settable(ctx)) return VSK_ERR_ORVD_FATAL;
  ctx->connect_timeout = ms;
  return 0;
}

int orvd_set_trace_callback(orvd_ctx_t* ctx, void* cookie, orvd_trace_fn_t fn) {
  if (!Settable(ctx) || fn == nullptr) return VSK_ERR_ORVD_FATAL;
  ctx->trace_cookie = cookie;
  ctx->trace_fn = fn;
  return 0;
}

int orvd_set_db_env_change_callback(orvd_ctx_t* ctx, orvd_db_env_change_cbk_t fn) {
  if (!Settable(ctx) || fn == nullptr) return VSK_ERR_ORVD_FATAL;
  ctx->db_env_change_cbk = fn;
  return 0;
}

int orvd_set_issu_idle_cbk(orvd_ctx_t* ctx, orvd_issu_idle_cbk_t fn) {
  if (!Settable(ctx) || fn == nullptr) return VSK_ERR_ORVD_FATAL;
  ctx->issu_idle_cbk = fn;
  ctx->issu_enabled = true;
  return 0;
}

int orvd_set_issu_prepare_cbk(orvd_ctx_t* ctx, orvd_issu_prepare_cbk_t fn,
                              orvd_issu_done_cbk_t done_fn) {
  if (!Settable(ctx) || fn == nullptr) return VSK_ERR_ORVD_FATAL;
  ctx->issu_prepare_cbk = fn;
  ctx->issu_prepare_done_cbk = done_fn;
  ctx->issu_enabled = true;
  return 0;
}

int orvd_set_issu_switchover_cbk(orvd_ctx_t* ctx, orvd_issu_switchover_cbk_t fn,
                                 orvd_issu_done_cbk_t done_fn) {
  if (!Settable(ctx) || fn == nullptr) return VSK_ERR_ORVD_FATAL;
  ctx->issu_switchover_cbk = fn;
  ctx->issu_switchover_done_cbk = done_fn;
  ctx->issu_enabled = true;
  return 0;
}

int orvd_set_issu_abort_cbk(orvd_ctx_t* ctx, orvd_issu_abort_cbk_t fn) {
  if (!Settable(ctx) || fn == nullptr) return VSK_ERR_ORVD_FATAL;
  ctx->issu_abort_cbk = fn;
  ctx->issu_enabled = true;
  return 0;
}

int orvd_set_issu_cookie(orvd_ctx_t* ctx, void* cookie) {
  if (!Settable(ctx) || cookie == nullptr) return VSK_ERR_ORVD_FATAL;
  ctx->issu_cookie = cookie;
  ctx->issu_enabled = true;
  return 0;
}

bool orvd_is_registered(void) {
  return vsk::orvd::g_handle != nullptr && vsk::orvd::g_handle->user_reg;
}

uint32_t orvd_get_daemon_issu_state(orvd_ctx_t* ctx) { return ctx->issu_info.state; }

uint32_t orvd_get_platd_issu_state(orvd_ctx_t* ctx) { return ctx->platd_issu_state; }

}  // extern "C"
