// The trace site: every diagnostic of the library is written through VSK_TRACE.
//
// 1. Load vsk_trace_cbk; if it is null nothing else happens: the arguments are not even
//    evaluated, so db_strerror, strerror and the like are not called.
// 2. Otherwise call it with vsk_db_get_orvd_handle(), the level, the format and the args.
// The format is checked against its arguments at compile time.
#pragma once

#include "vsk/status.h"
#include "vsk/store.h"

namespace vsk::internal {
[[gnu::format(printf, 1, 2)]] inline void CheckTraceFormat(const char*, ...) {}
}  // namespace vsk::internal

#define VSK_TRACE_AT(level, ...)                                                     \
  do {                                                                               \
    vsk_trace_cbk_t vsk_trace_fn_ = vsk_trace_cbk;                                   \
    if (vsk_trace_fn_ != nullptr) {                                                  \
      if (false) ::vsk::internal::CheckTraceFormat(__VA_ARGS__);                     \
      vsk_trace_fn_(static_cast<void*>(vsk_db_get_orvd_handle()), (level), __VA_ARGS__); \
    }                                                                                \
  } while (0)

#define VSK_TRACE(...) VSK_TRACE_AT(VSK_TRACE_LEVEL, __VA_ARGS__)
