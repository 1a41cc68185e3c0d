// A read-only probe of the store's Berkeley DB environment, for operators' tools and
// exporters: the figures an operator needs to judge the store's health.
//
// The probe joins the environment of the root in force with its own handle, with no
// DB_CREATE and no DB_RECOVER and no table opened, reads Berkeley DB's statistics and
// leaves again. It needs no registration with orvd and never changes the store; it works
// while orvd is down as long as the environment's regions exist. It does not use the
// process's store context, so it may run in a daemon beside its registered store.
//
// The probe registers a liveness callback, so the thread slot it takes in the environment
// is reused after it has left rather than kept for ever.
#pragma once

#include <cstdint>
#include <string>

namespace vsk::store {

struct EnvFigures {
  std::string home;
  std::string version;  // Berkeley DB's version text of this build

  // Transactions.
  uint32_t txn_active = 0;
  uint32_t txn_max_active = 0;  // the most active at once since the environment was made
  uint32_t txn_limit = 0;
  uint64_t txn_begins = 0;
  uint64_t txn_commits = 0;
  uint64_t txn_aborts = 0;
  uint32_t last_txn_id = 0;

  // Locks and lockers (the limits are the environment's configured maxima).
  uint32_t locks = 0;
  uint32_t locks_max_seen = 0;
  uint32_t locks_limit = 0;
  uint32_t lockers = 0;
  uint32_t lockers_max_seen = 0;
  uint32_t lockers_limit = 0;
  uint64_t lock_requests = 0;
  uint64_t lock_waits = 0;
  uint64_t deadlocks = 0;
  uint64_t lock_timeouts = 0;
  uint64_t txn_timeouts = 0;

  // Thread slots: allocated blocks, the configured count, and slots whose process is gone.
  uint32_t thread_slots = 0;
  uint32_t thread_slots_limit = 0;
  uint32_t thread_slots_dead = 0;

  // Log.
  uint32_t log_file_limit = 0;  // bytes at which a log file is switched
  uint32_t log_current_file = 0;
  uint32_t log_current_offset = 0;
  uint32_t log_files = 0;   // log files present in the home
  uint64_t log_bytes = 0;   // their total size on disk
  uint64_t data_bytes = 0;  // total size of the table files (*.db) in the home

  // Cache.
  uint64_t cache_bytes = 0;
  uint64_t cache_hits = 0;
  uint64_t cache_misses = 0;

  // Replication as this environment knows it.
  bool replication = false;  // the environment was made with replication
  std::string rep_role;      // "master", "client" or "none"
  bool rep_startup_complete = false;
  int64_t rep_env_id = 0;
  uint64_t rep_log_queued = 0;
};

enum class EnvError {
  kNone,
  kMissing,        // no environment in the home (or no home)
  kOtherVersion,   // regions made by another version of Berkeley DB
  kNeedsRecovery,  // a process died inside it: orvd must run recovery
  kNoAccess,
  kFailed,
};

// "open", "missing", "other_version", "needs_recovery", "no_access", "failed".
const char* EnvStateName(EnvError error);

// Joins, reads, leaves. True with *out filled; otherwise *error and *message say why,
// naming the home directory.
bool ProbeEnvironment(EnvFigures* out, EnvError* error, std::string* message);

}  // namespace vsk::store
