// What the rebuild of the interface table offers the per-session step of the recovery
// walk, which runs inside vsk_db_secondary_recover.
#pragma once

#include <cstdint>

#include "vsk/status.h"

namespace vsk::shared::intf {

// The summary counter record that the walk counts into while a rebuild runs: a private
// record while readers still see the old values in the shared one, or null for the shared
// record itself (pass it as the `record` argument of the increment operations).
uint32_t* RecoveryCounterRecord();

// What the session layer lends the rebuild, without this layer naming it: the debug log's
// start and end, and the walk of every stored session (which counts into
// RecoveryCounterRecord()). A missing member is a step the rebuild passes over; without a
// walk the table is rebuilt empty. Filled once when the library is loaded.
struct RecoveryJoin {
  void (*debug_init)();
  vsk_status_t (*walk_sessions)();
  void (*debug_end)();
};
void RegisterRecoveryJoin(const RecoveryJoin& join);
struct RecoveryJoinRegistrar {
  explicit RecoveryJoinRegistrar(const RecoveryJoin& join) { RegisterRecoveryJoin(join); }
};

}  // namespace vsk::shared::intf
