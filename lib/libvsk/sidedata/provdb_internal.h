// The provisioning table's module state and the entry points the store's open and close
// use. One instance per process, written from the daemon's main context only (like the
// store context); nothing here is locked.
//
// Invariants:
//  1. `db` is null whenever the table is not open in this process.
//  2. `base_path` and `file_name` are both set or both null; they are heap copies owned
//     here, freed by provdb_databases_free.
//  3. While vsk_in_panic is set no Berkeley DB call is made on `db`: it is forgotten.
#pragma once

#include <db.h>
#include <unistd.h>

#include "libvsk/base/trace.h"

namespace vsk::sidedata {

struct ProvisionDbs {
  char* base_path;  // the store's home
  char* file_name;  // base_path and "dcpprovDB.db"
  DB* db;
};

// The process's module state.
ProvisionDbs& provdb_state();

// Opens the table in `env`: 0, -1 without an environment, else the Berkeley DB value of
// the failure (the table is then closed again).
int OpenProvisionTable(DB_ENV* env);
// Closes the table (forgets it in panic) and clears the state: 0 or the Berkeley DB value.
int CloseProvisionTable();
bool ProvisionTableOpen();

}  // namespace vsk::sidedata

// Every failure trace of the module comes after a line that names the process, the
// module's function (`fn`, by its public name where it has one) and the source line.
#define PROVDB_FAILURE_TRACE_IN(fn, ...)                                                    \
  do {                                                                                      \
    VSK_TRACE("daemon:%d function:%s line:%d\n", static_cast<int>(getpid()), fn, __LINE__); \
    VSK_TRACE(__VA_ARGS__);                                                                 \
  } while (0)
#define PROVDB_FAILURE_TRACE(...) PROVDB_FAILURE_TRACE_IN(__func__, __VA_ARGS__)
