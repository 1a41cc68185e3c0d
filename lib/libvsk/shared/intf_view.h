// A read-only copy of the interface table for operators' tools and exporters.
//
// The file is read with pread into a private buffer, never mapped, so a reader cannot be
// hurt when the file is truncated or rebuilt under it (orvd recreates it at each start),
// and the reader writes nothing: not the table, not `lock_pid`. The walk then runs over
// the copy at leisure.
//
// Two ways to take the copy:
//  - locked: under semaphore 2, as every table operation runs, so the copy is consistent.
//    The semaphore is held only for the copy. A `lock_pid` found set means a holder died
//    inside the table; the copy is still walked and the dead holder reported, and nothing
//    is repaired here (orvd does that).
//  - unlocked: no semaphore at all, for exporters that must never wait on a daemon. A
//    writer may be half-way through a change, so the copy may be inconsistent.
// Either way the walk trusts no offset it reads: every record and node is bounds-checked
// against the copy, node links must agree with their records, and the number of nodes
// visited is bounded by what the copy can hold, so a damaged or racing copy ends the walk
// with a note in `damage` rather than a crash or a loop.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "vsk/session.h"

namespace vsk::shared::intf {

struct InterfaceInfo {
  std::string name;
  int32_t ifl_count = 0;   // clients with this as their own interface
  int32_t uifl_count = 0;  // clients with this as underlying interface
  uint32_t state = 0;
  std::vector<vsk_session_id_t> sessions;  // ids on this underlying interface, ascending
};

struct InterfaceTable {
  std::string path;
  int32_t file_size = 0;
  uint32_t grow_size = 0;
  uint32_t heap_top = 0;
  pid_t dead_holder = 0;  // lock_pid found set under the semaphore: a holder that died
  std::vector<InterfaceInfo> interfaces;  // by name, as the table orders them
  std::string damage;                     // empty when the walk found nothing wrong
};

enum class Locking { kSemaphore, kNone };

// Copies and walks the root's interface table. True on success; otherwise *error names
// the file or the semaphore set and says what failed (missing, unreadable, not formatted).
bool ReadInterfaceTable(Locking locking, InterfaceTable* out, std::string* error);

}  // namespace vsk::shared::intf
