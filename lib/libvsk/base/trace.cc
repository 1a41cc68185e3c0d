// The source of the trace handle. Installed from the daemon's single event context;
// nothing here is locked.
#include "libvsk/base/trace.h"

namespace vsk::base {
namespace {

TraceHandleSource g_trace_handle_source = nullptr;

}  // namespace

void InstallTraceHandleSource(TraceHandleSource source) { g_trace_handle_source = source; }

orvd_ctx* TraceHandle() {
  return g_trace_handle_source != nullptr ? g_trace_handle_source() : nullptr;
}

}  // namespace vsk::base
