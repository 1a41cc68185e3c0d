// Internals of the daemon link shared by its files: the process-wide handle, the trace
// site of the link, sending, the message reader and the connect-and-register exchange.
//
// Who may call: the daemon's main context only (its event loop, its select loop, or the
// thread that calls vsk_db_check). Nothing here is locked.
//
// Link states follow from the handle: closed (fd -1), connected (fd valid, reg_ack
// false), registered (reg_ack true). Every read or send failure leads back to closed.
#pragma once

#include <cstddef>

#include "libvsk/base/trace.h"
#include "libvsk/orvd_ctx.h"
#include "vsk/status.h"

namespace vsk::orvd {

// The handle made by orvd_init_handle, or null.
orvd_ctx* CurrentHandle();

// Writes `size` bytes of `msg` in one send. On a short or failed send: trace, close the
// link, arm the timer (store left open) and return -25.
vsk_status_t SendMessage(orvd_ctx* ctx, const void* msg, size_t size);

// Sends ORVD_MSG_REGISTER with `role` and `status` and the handle's flags and ISSU block.
vsk_status_t SendRegister(orvd_ctx* ctx, uint8_t role, vsk_status_t status);

// Reads one message from orvd and acts on it (the message reader).
void ReadMessage(orvd_ctx* ctx);

// Connects to orvd (making the socket if needed), registers and waits for the answer.
vsk_status_t ConnectAndRegister(orvd_ctx* ctx);

// The ISSU handler (issu.cc): the chassis daemon has announced `state`, in a message or
// in the acknowledgement of a registration made during an upgrade. Stores it in
// platd_issu_state (which vsk_db_check consults), runs the daemon's callback when the
// transition is allowed, and answers orvd with the daemon's new state.
void OnPlatdIssuState(orvd_ctx* ctx, uint32_t state);

// The re-registration timer's callback.
void OnReregisterTimer(wtimer_leaf_t* leaf, void* arg);

}  // namespace vsk::orvd

// Traces of the link carry the link's own handle, which exists before the store context.
#define ORVD_TRACE(ctx, ...) VSK_TRACE_WITH(ctx, VSK_TRACE_LEVEL, __VA_ARGS__)

namespace vsk::orvd {
// Drops the process-wide pointer (orvd_unregister, after freeing the handle).
void ForgetHandle();
}  // namespace vsk::orvd

// Guard of the process-wide handle (orvd_init_handle sets it, orvd_unregister clears it).
extern bool orvd_init_handle_done;
