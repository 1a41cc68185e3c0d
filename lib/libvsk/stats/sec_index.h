// The walk over a group of records through a secondary index, shared by the full and the
// plain interface tables: one transaction and one read-committed cursor on the secondary.
#pragma once

#include <db.h>

#include "libvsk/stats/stats_internal.h"

namespace vsk::stats {

class GroupWalk {
 public:
  GroupWalk() = default;
  ~GroupWalk();  // closes what is still open: cursor, then transaction (aborted)
  GroupWalk(const GroupWalk&) = delete;
  GroupWalk& operator=(const GroupWalk&) = delete;

  // The store gate, a transaction and a cursor on `secondary`. 0; -1 when the store is
  // not usable; 1 when no transaction can be started; the cursor's status otherwise,
  // traced with `cursor_failure` (caller, status).
  vsk_status_t Begin(const char* caller, DB* secondary,
                     const char* cursor_failure = "%s: aborting txn err:%d");
  vsk_status_t CloseCursor();
  vsk_status_t Commit();
  vsk_status_t Abort();
  // Hands transaction and cursor over, open, to the list that CloseLeftOpen ends.
  void LeaveOpen();

  DB_TXN* txn() const { return txn_; }
  DBC* cursor() const { return cursor_; }

 private:
  DB_TXN* txn_ = nullptr;
  DBC* cursor_ = nullptr;
};

// Deletes every record under `index` (and, through the association, its primary record),
// then closes the cursor and commits. 0 whatever the walk met.
vsk_status_t DeleteGroupRecords(GroupWalk* walk, const void* index, uint32_t size);

// Ends the transactions and cursors left open by calls with an unknown operation code
// (nothing is touched in a panic). Called when the statistics tables close.
void CloseLeftOpen();

}  // namespace vsk::stats
