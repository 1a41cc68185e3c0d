// The store's one-way joins: what the store opens and closes on behalf of the layers above
// it, and what the daemon link lends its gate, without the store naming any of them.
//
// The layers above fill these in when the library is loaded (each holds a registrar in the
// file that implements its join; libvsk is always linked whole, so every registrar runs).
// The slots fix the order, whatever the order of registration:
//
//   vsk_db_init:  environment, replication, [unit pools], session tables, app-defined
//                 tables, [statistics], [provisioning], READY
//   vsk_db_close: session tables, app-defined tables, [statistics], [provisioning],
//                 environment
//
// Opens walk the slots forwards. The side stores close in the order they opened, right
// before the environment, because that is the order of the published close traces; the
// unit pools have nothing to close in the store (the process's shared regions drop them).
//
// Invariants:
//  1. A slot holds at most one join; registering a slot again replaces it.
//  2. An empty slot, or a join without `open` or `close`, is passed over.
//  3. The table is plain data, zero before any registrar runs: registration order across
//     files does not matter.
#pragma once

#include <db.h>

#include <cstddef>

#include "vsk/status.h"
#include "vsk/store.h"

namespace vsk::store {

// A subsystem the store opens and closes. `open` gets whether this process creates the
// shared state (`orvd`); both return a raw result: 0, an errno or Berkeley DB value, or a
// status. The texts are traced by the store with db_strerror of the raw result (null: no
// trace); see StoreJoinOpen/StoreJoinClose in env_open.cc and env_close.cc.
struct StoreJoin {
  const char* name;
  vsk_status_t (*open)(bool creator);
  vsk_status_t (*close)();
  const char* not_available;  // ENOENT on the standby: not replicated yet ("%s")
  const char* open_failed;    // any other open failure ("%s"); null: failures are ignored
  const char* closed;         // a good close
  const char* close_failed;   // a failed close ("%s")
};

// The joins' places, in open order.
enum class JoinSlot : size_t {
  kUnitPools = 0,     // right after replication, before the session tables
  kStatistics = 1,    // after the session tables
  kProvisioning = 2,  // after the statistics tables
};
inline constexpr size_t kJoinSlots = 3;
// The first slot opened after the session tables.
inline constexpr JoinSlot kFirstSideStore = JoinSlot::kStatistics;

void RegisterJoin(JoinSlot slot, const StoreJoin& join);

// The join in `slot`, or null when the slot is empty.
const StoreJoin* JoinAt(JoinSlot slot);

// A registrar for a file-scope object: `const StoreJoinRegistrar kJoin{slot, {...}};`.
struct StoreJoinRegistrar {
  StoreJoinRegistrar(JoinSlot slot, const StoreJoin& join) { RegisterJoin(slot, join); }
};

// The open environment for a join's `open`, or null.
DB_ENV* Environment();

// What the store's gate (vsk_db_check) and its forced take-down need from the daemon link.
// Installed by the daemon link; until then the gate only checks the state, and a forced
// take-down only closes the store.
struct LinkHooks {
  // True while the chassis finishes an upgrade's switchover: session operations stop.
  bool (*operations_stopped)(orvd_ctx* link);
  // A poll-mode daemon's waiting messages are taken in (they may change the state).
  void (*poll)(orvd_ctx* link);
  // The store is not ready: close the link and the store (no timer) and join again.
  vsk_status_t (*repair)(orvd_ctx* link);
  // The store went down (vsk_db_event_down): everything of the library goes down in this
  // process and the daemon is told. `link` is the handle given, or the store's own.
  void (*went_down)(orvd_ctx* link);
};
void InstallLinkHooks(const LinkHooks& hooks);
const LinkHooks& InstalledLinkHooks();

}  // namespace vsk::store
