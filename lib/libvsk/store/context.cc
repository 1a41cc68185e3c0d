#include "libvsk/store/context.h"

#include "libvsk/base/trace.h"

namespace vsk::store {
namespace {

StoreContext g_context;
StoreContext* g_current = nullptr;

}  // namespace

StoreContext* Context() { return g_current; }

StoreContext* ActivateContext() {
  g_current = &g_context;
  // From now on every trace carries the daemon-link handle the store was opened with.
  base::InstallTraceHandleSource(&vsk_db_get_orvd_handle);
  return g_current;
}

}  // namespace vsk::store

using vsk::store::Context;

extern "C" {

int vsk_db_get_dbenv(DB_ENV** out) {
  if (Context() == nullptr) return -1;
  *out = Context()->dbenv;
  return 0;
}

orvd_ctx* vsk_db_get_orvd_handle(void) {
  return Context() != nullptr ? Context()->orvd_handle : nullptr;
}

void vsk_db_reset_orvd_handle(void) {
  if (Context() != nullptr) Context()->orvd_handle = nullptr;
}

}  // extern "C"
