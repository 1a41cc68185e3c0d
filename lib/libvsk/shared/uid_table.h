// The UID table for C++ callers; the exported vsk_uid_* are shims over these. See
// uid_table.cc for the record and its invariants.
#pragma once

#include <cstdint>

#include "vsk/status.h"

namespace vsk::shared {

// The number stored for a name added while pool 1 had none to give: never a number of the
// pool (which starts at 1000), so no other name's number is aliased.
constexpr uint32_t kNoUid = 0;

// Opens application-defined table 6 once per process. 0 or the open's status.
vsk_status_t OpenTable();
// REQUIRES: `name` of at most 32 bytes (else -6), `result` non-null.
vsk_status_t AddEntry(const char* name, uint32_t* result);
vsk_status_t DeleteEntry(const char* name);
// Marks every stored number as in use in pool 1; 0 also for an empty table.
vsk_status_t RecoverTable();

// Test-only: the interface table's own tests rebuild it in a process that has no store;
// with the UID step skipped their rebuild ends as it does with an empty UID table.
class UidTestSeam {
 public:
  static void SkipRecovery(bool skip);
};

}  // namespace vsk::shared
