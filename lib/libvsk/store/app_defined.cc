// The registry of application-defined tables: up to seven tables of a daemon's own, by
// table id 0 to 6, each a named database in the store file.
//
// The registry (`vsk_app_defined`) keeps each table's name and key length across a close
// of the store so that vsk_db_init can open the table again; only the handle, kept in the
// store context, goes with the close. Written only by the daemon's main context.
#include <db.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "libvsk/base/role.h"
#include "libvsk/base/trace.h"
#include "libvsk/store/context.h"
#include "libvsk/store/dyn_db_internal.h"
#include "vsk/dyn_db.h"

extern "C" {

vsk_app_defined_entry_t vsk_app_defined[VSK_APP_DEFINED_TABLES] = {};

const uint16_t vsk_app_defined_len_table[VSK_APP_DEFINED_TABLES] = {0, 12, 12, 12, 12, 60, 32};

// REQUIRES: an open environment (a context with `dbenv`); -1 otherwise.
// Returns 0 (also when the id is open already: the first definition stands), -6 for an id
// above 6, -12 when the standby has not received the table yet (state becomes 3), -2 when
// the name cannot be kept, -1 for any other failure.
}  // extern "C"

vsk_status_t vsk::store::AppDefine(int16_t table_id, const char* name) {
  if (table_id > VSK_APP_DEFINED_TABLES - 1) {
    VSK_TRACE("Application private databases table id %d, is not valid for %s", table_id,
              name != nullptr ? name : "(null)");
    return VSK_ERR_INVALID_PARAM;
  }
  // Only the upper bound is part of the contract; a negative id still must not index
  // outside the arrays.
  if (table_id < 0 || name == nullptr) {
    VSK_TRACE("Application private databases table id %d, is not valid for %s", table_id,
              name != nullptr ? name : "(null)");
    return VSK_ERR_INVALID_PARAM;
  }
  vsk::store::StoreContext* ctx = vsk::store::Context();
  if (ctx == nullptr || ctx->dbenv == nullptr) {
    VSK_TRACE("Failed to init application private databases for table id %d: %s", table_id,
              "no store environment");
    return VSK_ERR_FATAL;
  }
  if (ctx->app_defined_db[table_id] != nullptr) return VSK_OK;

  DB* db = nullptr;
  int ret = vsk::store::DynOpen(&db, ctx->dbenv, name, 0, vsk::base::IsMaster());
  if (ret != 0) {
    ctx->app_defined_db[table_id] = nullptr;
    if (ret == ENOENT && !vsk::base::IsMaster()) {
      VSK_TRACE("Application private database for table id %d is not available %s", table_id,
                db_strerror(ENOENT));
      ctx->state = VSK_ENV_NOT_REPLICATED;
      return VSK_ERR_REP_NOT_STARTED;
    }
    VSK_TRACE("Failed to init application private databases for table id %d: %s", table_id,
              db_strerror(ret));
    if (db != nullptr) vsk::store::DynClose(db);  // set_flags failed: the handle is still ours
    return VSK_ERR_FATAL;
  }
  ctx->app_defined_db[table_id] = db;
  vsk_app_defined_entry_t& entry = vsk_app_defined[table_id];
  entry.key_len = vsk_app_defined_len_table[table_id];
  if (entry.name == nullptr || std::strcmp(entry.name, name) != 0) {
    char* copy = strdup(name);
    if (copy == nullptr) return VSK_ERR_NOMEM;
    std::free(entry.name);
    entry.name = copy;
  }
  return VSK_OK;
}

extern "C" vsk_status_t vsk_db_app_define(int16_t table_id, const char* name) {
  return vsk::store::AppDefine(table_id, name);
}
