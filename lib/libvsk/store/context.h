// The process-wide store context.
//
// One static instance per process, reached through one pointer that stays null until the
// first vsk_db_init. Written only from the daemon's single event context and from the
// Berkeley DB event callback; nothing here is locked.
//
// Invariants:
//  1. Context() is null before the first vsk_db_init and never null after it.
//  2. `dbenv` is null whenever the environment is not open in this process.
//  3. `orvd_handle` survives vsk_db_close; only vsk_db_reset_orvd_handle clears it.
//  4. The master flag lives outside the context and survives every close.
#pragma once

#include <db.h>

#include <cstdint>

#include "vsk/dyn_db.h"
#include "vsk/store.h"

namespace vsk::store {

struct StoreContext {
  DB* client_session_db;
  DB* service_session_db;
  DB* auth_request_db;
  DB* auth_response_db;
  DB* dynamic_config_db;
  DB_ENV* dbenv;
  DB* app_private_db;
  DB* app_defined_db[VSK_APP_DEFINED_TABLES];
  int32_t state;
  int32_t pid;
  orvd_ctx* orvd_handle;
};

// The context, or null before the first vsk_db_init.
StoreContext* Context();

// Points the process-wide pointer at the static instance and returns it. Does not clear.
StoreContext* ActivateContext();

}  // namespace vsk::store
