// The join table and the daemon link's hooks; see joins.h. Written by registrars while
// the library loads and read by the store's open, close and gate on the daemon's main
// context; nothing here is locked.
#include "libvsk/store/joins.h"

#include "libvsk/store/context.h"

namespace vsk::store {
namespace {

// Zero-initialised before any registrar can run.
StoreJoin g_joins[kJoinSlots];
bool g_joined[kJoinSlots];
LinkHooks g_link_hooks;

}  // namespace

void RegisterJoin(JoinSlot slot, const StoreJoin& join) {
  const auto i = static_cast<size_t>(slot);
  if (i >= kJoinSlots) return;
  g_joins[i] = join;
  g_joined[i] = true;
}

const StoreJoin* JoinAt(JoinSlot slot) {
  const auto i = static_cast<size_t>(slot);
  return i < kJoinSlots && g_joined[i] ? &g_joins[i] : nullptr;
}

DB_ENV* Environment() { return Context() != nullptr ? Context()->dbenv : nullptr; }

void InstallLinkHooks(const LinkHooks& hooks) { g_link_hooks = hooks; }

const LinkHooks& InstalledLinkHooks() { return g_link_hooks; }

}  // namespace vsk::store
