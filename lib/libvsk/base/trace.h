// The trace site: every diagnostic of the library is written through VSK_TRACE.
//
// This is the base module: it sits below every layer (store, shared state, attributes,
// daemon link, session API) and names none of them.
//
// 1. Load vsk_trace_cbk; if it is null nothing else happens: the arguments are not even
//    evaluated, so db_strerror, strerror and the like are not called.
// 2. Otherwise call it with the trace handle (vsk_db_get_orvd_handle(): the daemon-link
//    handle the store was opened with, null before), the level, the format and the args.
// The format is checked against its arguments at compile time.
#pragma once

#include "vsk/status.h"

struct orvd_ctx;

namespace vsk::base {

// Where the first argument of every trace comes from. The store installs its accessor
// when its context first comes to life; until then every trace carries null.
using TraceHandleSource = orvd_ctx* (*)();
void InstallTraceHandleSource(TraceHandleSource source);

// The handle that the installed source gives, or null.
orvd_ctx* TraceHandle();

[[gnu::format(printf, 1, 2)]] inline void CheckTraceFormat(const char*, ...) {}

}  // namespace vsk::base

// Traces `...` (a printf format and its arguments) at `level` with `handle` as the first
// argument of the hook. Nothing is evaluated when the hook is null.
#define VSK_TRACE_WITH(handle, level, ...)                             \
  do {                                                                 \
    vsk_trace_cbk_t vsk_trace_fn_ = vsk_trace_cbk;                     \
    if (vsk_trace_fn_ != nullptr) {                                    \
      if (false) ::vsk::base::CheckTraceFormat(__VA_ARGS__);           \
      vsk_trace_fn_(static_cast<void*>(handle), (level), __VA_ARGS__); \
    }                                                                  \
  } while (0)

#define VSK_TRACE_AT(level, ...) VSK_TRACE_WITH(::vsk::base::TraceHandle(), level, __VA_ARGS__)

#define VSK_TRACE(...) VSK_TRACE_AT(VSK_TRACE_LEVEL, __VA_ARGS__)
