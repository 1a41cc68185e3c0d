// Internals of the store environment shared by its source files: the callbacks that
// Berkeley DB calls, and the order of the tables.
//
// Every callback is noexcept: an exception unwinding through Berkeley DB would leave its
// internal locks held.
#pragma once

#include <db.h>

#include "libvsk/store/context.h"

namespace vsk::store {

// Traces Berkeley DB's error messages ("%s").
void ErrorCallback(const DB_ENV* env, const char* prefix, const char* message) noexcept;
// Traces Berkeley DB's informational messages ("%s").
void MessageCallback(const DB_ENV* env, const char* message) noexcept;
// Reports this process to Berkeley DB as (context pid, thread 0).
void ThreadIdCallback(DB_ENV* env, pid_t* pid, db_threadid_t* tid) noexcept;
// True while process `pid` exists. Registered in every process that opens the
// environment: Berkeley DB reuses the thread slot of a dead process only when the joiner
// can ask this, and the owner's failchk needs it to find dead lock holders.
int IsAliveCallback(DB_ENV* env, pid_t pid, db_threadid_t tid, uint32_t flags) noexcept;
// Panic and replication events; only a panic changes the store's state.
void EventCallback(DB_ENV* env, uint32_t event, void* info) noexcept;

// The six fixed session tables, in the order they open and close.
struct FixedTable {
  DB* StoreContext::*slot;
  const char* name;
  const char* not_available;  // trace when the standby lacks the table ("%s")
  const char* open_failed;    // trace of any other open failure ("%s")
  const char* closed;         // trace of a good close
  const char* close_failed;   // trace of a failed close ("%s")
};
extern const FixedTable kFixedTables[6];

}  // namespace vsk::store
