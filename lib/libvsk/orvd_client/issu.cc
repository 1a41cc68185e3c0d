// The daemon's side of an in-service upgrade: the handler that answers each state the
// chassis daemon announces (relayed by orvd), and the daemon's own answers.
//
// The handler runs in the message reader's context, for every daemon, whether or not it
// set an ISSU option: the chassis state is always stored first (vsk_db_check acts on it
// even when the transition is refused), then the daemon state moves only along the
// transitions below, and only a transition into a state that orvd must hear about
// (prepare, switchover, abort) is answered.
//
//   received            daemon state before   callback                  new state
//   0 idle              any                   issu_idle_cbk             0
//   1 prepare           0, 1, 2               issu_prepare_cbk          5 abort / 2 ready / 1
//   2 prepare done      2                     issu_prepare_done_cbk     unchanged
//   5 switchover        2, 3, 4               issu_switchover_cbk       4 ready / 3
//   6 switchover done   4                     issu_switchover_done_cbk  unchanged
//   7 abort             not 0                 issu_abort_cbk            5
#include <cstddef>
#include <cstring>
#include <initializer_list>

#include "libvsk/orvd_client/link.h"
#include "libvsk/orvd_client/wire.h"
#include "platform/mgtlib_issu.h"

static_assert(offsetof(vsk_issu_info_t, state) == 0);
static_assert(offsetof(vsk_issu_info_t, wait) == 4);
static_assert(offsetof(vsk_issu_info_t, err_len) == 8);
static_assert(offsetof(vsk_issu_info_t, err_text) == 9);
static_assert(sizeof(vsk_issu_cbk_block_t) == 4 + VSK_ISSU_ERR_TEXT_LEN);

namespace vsk::orvd {
namespace {

const char* DaemonName(uint32_t state) { return mgtlib_format_daemon_issu_state(state); }

// The wait states carry the daemon's wait and reason; the others carry neither.
bool IsWaitState(uint32_t state) {
  return state == ISSU_DAEMON_PREPARE_WAIT || state == ISSU_DAEMON_SWITCHOVER_WAIT ||
         state == ISSU_DAEMON_ABORT_WAIT;
}

void ClearReason(vsk_issu_info_t* info) {
  info->wait = 0;
  info->err_len = 0;
  info->err_text[0] = '\0';
}

// Copies a non-empty `text` into the reason, cut to 127 characters and the NUL; an
// empty or null one leaves the reason as it was. `text` need not be NUL-terminated
// within `cap` bytes.
void SetReason(vsk_issu_info_t* info, const char* text, size_t cap) {
  if (text == nullptr || text[0] == '\0') return;
  size_t len = strnlen(text, cap < VSK_ISSU_ERR_TEXT_LEN - 1 ? cap : VSK_ISSU_ERR_TEXT_LEN - 1);
  std::memcpy(info->err_text, text, len);
  info->err_text[len] = '\0';
  info->err_len = static_cast<uint8_t>(len + 1);
}

// Sends the daemon's block as it stands.
vsk_status_t SendIssuState(orvd_ctx* ctx) {
  const vsk_issu_info_t& info = ctx->issu_info;
  if (IsWaitState(info.state)) {
    ORVD_TRACE(ctx, "Send ISSU message <%s>, wait=%d errstr=\"%s\"", DaemonName(info.state),
               static_cast<int>(info.wait), info.err_len != 0 ? info.err_text : "");
  } else {
    ORVD_TRACE(ctx, "Send ISSU message <%s>", DaemonName(info.state));
  }
  IssuStateMsg msg;
  std::memset(&msg, 0, sizeof msg);
  msg.type = ORVD_MSG_ISSU_STATE;
  msg.issu_info = info;
  return SendMessage(ctx, &msg, sizeof msg);
}

// True when the daemon state is one of `allowed`; otherwise traces the refusal.
bool Allowed(orvd_ctx* ctx, std::initializer_list<uint32_t> allowed) {
  for (uint32_t s : allowed) {
    if (ctx->issu_info.state == s) return true;
  }
  ORVD_TRACE(ctx, "Invalid ISSU state transition");
  return false;
}

}  // namespace

void OnPlatdIssuState(orvd_ctx* ctx, uint32_t state) {
  vsk_issu_cbk_block_t block;
  std::memset(&block, 0, sizeof block);
  bool abort = false;
  bool ready = true;
  ORVD_TRACE(ctx, "Received ISSU message <%s>, daemon state <%s>",
             mgtlib_format_platd_issu_state(state), DaemonName(ctx->issu_info.state));
  ctx->platd_issu_state = state;
  void* cookie = ctx->issu_cookie;
  const uint32_t mine = ctx->issu_info.state;
  uint32_t next = mine;
  switch (state) {
    case ISSU_PLATD_IDLE:
      if (ctx->issu_idle_cbk != nullptr) ctx->issu_idle_cbk(cookie);
      ctx->issu_info.state = ISSU_DAEMON_IDLE;
      return;
    case ISSU_PLATD_PREPARE:
      if (!Allowed(ctx, {ISSU_DAEMON_IDLE, ISSU_DAEMON_PREPARE_WAIT, ISSU_DAEMON_PREPARE_READY})) {
        return;
      }
      if (ctx->issu_prepare_cbk != nullptr) ctx->issu_prepare_cbk(cookie, &abort, &ready, &block);
      // A daemon that both aborts and says ready has aborted.
      next = abort   ? ISSU_DAEMON_ABORT_WAIT
             : ready ? ISSU_DAEMON_PREPARE_READY
                     : ISSU_DAEMON_PREPARE_WAIT;
      break;
    case ISSU_PLATD_PREPARE_DONE:
      if (!Allowed(ctx, {ISSU_DAEMON_PREPARE_READY})) return;
      if (ctx->issu_prepare_done_cbk != nullptr) ctx->issu_prepare_done_cbk(cookie);
      return;
    case ISSU_PLATD_SWITCHOVER:
      if (!Allowed(ctx, {ISSU_DAEMON_PREPARE_READY, ISSU_DAEMON_SWITCHOVER_WAIT,
                         ISSU_DAEMON_SWITCHOVER_READY})) {
        return;
      }
      if (ctx->issu_switchover_cbk != nullptr) ctx->issu_switchover_cbk(cookie, &ready, &block);
      next = ready ? ISSU_DAEMON_SWITCHOVER_READY : ISSU_DAEMON_SWITCHOVER_WAIT;
      break;
    case ISSU_PLATD_SWITCHOVER_DONE:
      if (!Allowed(ctx, {ISSU_DAEMON_SWITCHOVER_READY})) return;
      if (ctx->issu_switchover_done_cbk != nullptr) ctx->issu_switchover_done_cbk(cookie);
      return;
    case ISSU_PLATD_ABORT:
      if (mine == ISSU_DAEMON_IDLE) {
        ORVD_TRACE(ctx, "Invalid ISSU state transition");
        return;
      }
      if (ctx->issu_abort_cbk != nullptr) ctx->issu_abort_cbk(cookie, &block);
      next = ISSU_DAEMON_ABORT_WAIT;
      break;
    default:
      ORVD_TRACE(ctx, "Invalid ISSU state message %d", static_cast<int>(state));
      return;
  }
  ctx->issu_info.state = next;
  ClearReason(&ctx->issu_info);
  if (IsWaitState(next)) {
    ctx->issu_info.wait = block.wait;
    SetReason(&ctx->issu_info, block.text, sizeof block.text);
  }
  SendIssuState(ctx);  // a failure closes the link; the state goes with the next registration
}

}  // namespace vsk::orvd

using vsk::orvd::SendIssuState;
using vsk::orvd::SetReason;

extern "C" {

vsk_status_t orvd_send_issu_state_ready(orvd_ctx_t* ctx) {
  if (ctx == nullptr) return VSK_ERR_ORVD_FATAL;
  const uint32_t mine = ctx->issu_info.state;
  switch (mine) {
    case ISSU_DAEMON_PREPARE_WAIT:
      ctx->issu_info.state = ISSU_DAEMON_PREPARE_READY;
      break;
    case ISSU_DAEMON_SWITCHOVER_WAIT:
      ctx->issu_info.state = ISSU_DAEMON_SWITCHOVER_READY;
      break;
    case ISSU_DAEMON_ABORT_WAIT:
      ctx->issu_info.state = ISSU_DAEMON_IDLE;  // the end of an abort: back to idle by the daemon's word
      break;
    default:
      ORVD_TRACE(ctx, "Cannot send ISSU ready to ORVD in %s state",
                 vsk::orvd::DaemonName(mine));
      return VSK_ERR_ORVD_FATAL;
  }
  vsk::orvd::ClearReason(&ctx->issu_info);
  return SendIssuState(ctx);
}

vsk_status_t orvd_send_issu_wait_extend(orvd_ctx_t* ctx, uint32_t wait, const char* text) {
  if (ctx == nullptr) return VSK_ERR_ORVD_FATAL;
  // Only a daemon that asked for time before may ask for more.
  if (!vsk::orvd::IsWaitState(ctx->issu_info.state) || ctx->issu_info.wait == 0) {
    ORVD_TRACE(ctx, "Cannot extend ISSU wait in state <%s>",
               vsk::orvd::DaemonName(ctx->issu_info.state));
    return VSK_ERR_ORVD_FATAL;
  }
  ctx->issu_info.wait = wait;
  SetReason(&ctx->issu_info, text, VSK_ISSU_ERR_TEXT_LEN);
  return SendIssuState(ctx);
}

vsk_status_t orvd_send_issu_abort(orvd_ctx_t* ctx, uint32_t wait, const char* text) {
  if (ctx == nullptr) return VSK_ERR_ORVD_FATAL;
  if (ctx->issu_info.state != ISSU_DAEMON_PREPARE_WAIT) {
    ORVD_TRACE(ctx, "Cannot send ISSU abort to ORVD in %s state",
               vsk::orvd::DaemonName(ctx->issu_info.state));
    return VSK_ERR_ORVD_FATAL;
  }
  ctx->issu_info.state = ISSU_DAEMON_ABORT_WAIT;
  ctx->issu_info.wait = wait;
  SetReason(&ctx->issu_info, text, VSK_ISSU_ERR_TEXT_LEN);
  return SendIssuState(ctx);
}

}  // extern "C"
