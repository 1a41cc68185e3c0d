#include "libvsk/store/context.h"

namespace vsk::store {
namespace {

StoreContext g_context;
StoreContext* g_current = nullptr;
bool g_master = false;

}  // namespace

StoreContext* Context() { return g_current; }

StoreContext* ActivateContext() {
  g_current = &g_context;
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

void vsk_db_set_master(bool flag) { vsk::store::g_master = flag; }

bool vsk_db_rep_is_master(void) { return vsk::store::g_master; }

bool vsk_is_master(void) { return vsk_db_rep_is_master(); }

}  // extern "C"
