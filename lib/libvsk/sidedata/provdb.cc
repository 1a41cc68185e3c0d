// The provisioning table's life: naming, opening and closing "dcpprovDB.db" inside the
// store's environment. It joins the store's open (after the statistics tables) and close
// (before the environment) through the store's provisioning join, registered below.
//
//   closed (db null) --provdb_init_db--> open --provdb_db_close--> closed
//   a failed open closes what it made; in panic the close only forgets the handle.
#include "vsk/provdb.h"

#include <climits>
#include <cstdlib>
#include <cstring>

#include "libvsk/sidedata/provdb_internal.h"
#include "libvsk/store/joins.h"
#include "platform/paths.h"
#include "platform/progname.h"
#include "vsk/store.h"

namespace vsk::sidedata {
namespace {

constexpr const char kFileName[] = "dcpprovDB.db";
constexpr const char kInnerName[] = "vsk.db";

ProvisionDbs g_provdb;

// Clears the state, forgetting any handle of an earlier life of the store (after a panic
// it must not be touched).
void provdb_initialize_provision_dbs(ProvisionDbs* state) {
  std::free(state->base_path);
  std::free(state->file_name);
  *state = ProvisionDbs{};
}

// False when a name cannot be made; what was made is freed with the state.
bool provdb_set_db_filenames(ProvisionDbs* state) {
  char base[PATH_MAX];
  const size_t n = platform::RootedPath(platform::kStoreHome, base, sizeof(base));
  if (n >= sizeof(base)) return false;
  state->base_path = strdup(base);
  state->file_name = static_cast<char*>(std::malloc(n + sizeof(kFileName)));
  if (state->file_name == nullptr) return false;
  std::memcpy(state->file_name, base, n);
  std::memcpy(state->file_name + n, kFileName, sizeof(kFileName));
  return state->base_path != nullptr;
}

void provdb_databases_free(ProvisionDbs* state) {
  std::free(state->base_path);
  std::free(state->file_name);
  *state = ProvisionDbs{};
}

// Opens one table of the module. Unlike the statistics tables, a handle whose open failed
// stays in *out: the caller's close releases it.
int provdb_open_database(DB** out, const char* file_name, const char* inner_name, bool duplicates,
                         DB_ENV* env) {
  if (env == nullptr) {
    PROVDB_FAILURE_TRACE("Error invalid vsk env ptr\n");
    return -1;
  }
  int ret = db_create(out, env, 0);
  if (ret != 0) {
    *out = nullptr;
    PROVDB_FAILURE_TRACE("%s: failed to create db, prog=%s, err=%s\n", __func__,
                         platform::ProgramName(), db_strerror(ret));
    return ret;
  }
  DB* db = *out;
  // Berkeley DB's own reports go through the environment's error hook, which traces them;
  // the library writes to no stream of its own.
  db->set_errpfx(db, inner_name);
  if (duplicates) {
    ret = db->set_flags(db, DB_DUPSORT);
    if (ret != 0) {
      PROVDB_FAILURE_TRACE("Attempt to set DUPSORT flags fails file:%s prog:%s\n", file_name,
                           platform::ProgramName());
      db->err(db, ret, "Attempt to set DUPSORT flags failed.");
      return ret;
    }
  }
  // The file is named relative to the environment's home, which is the base path: the
  // replication log carries the name as given, and a standby must find it under its own
  // home.
  ret = db->open(db, nullptr, kFileName, inner_name, DB_BTREE, DB_CREATE | DB_AUTO_COMMIT, 0);
  if (ret != 0) {
    db->err(db, ret, "Database '%s' open failed.", file_name);
    PROVDB_FAILURE_TRACE("Database '%s' open failed.", file_name);
  }
  return ret;
}

int provdb_databases_setup(ProvisionDbs* state, DB_ENV* env) {
  return provdb_open_database(&state->db, state->file_name, kInnerName, false, env);
}

// Closes the handle unless the environment has panicked; the slot is cleared either way.
int provdb_database_close(DB** db) {
  int ret = 0;
  if (*db != nullptr && !vsk_in_panic) {
    ret = (*db)->close(*db, 0);
    if (ret != 0) PROVDB_FAILURE_TRACE("Provision database close failed: %s\n", db_strerror(ret));
  }
  *db = nullptr;
  return ret;
}

vsk_status_t OpenJoin(bool /*creator*/) noexcept {
  return OpenProvisionTable(store::Environment());
}
vsk_status_t CloseJoin() noexcept { return CloseProvisionTable(); }

const store::StoreJoinRegistrar kProvisioningJoin{
    store::JoinSlot::kProvisioning,
    {"provisioning", OpenJoin, CloseJoin, "DCF Provisioning database is not available %s",
     "Failed to init DCF provisioning db %s", "closed dcp provisioning db",
     "Failed to close dcp provisioning db %s"}};

}  // namespace

ProvisionDbs& provdb_state() { return g_provdb; }

bool ProvisionTableOpen() { return g_provdb.db != nullptr; }

int OpenProvisionTable(DB_ENV* env) {
  if (env == nullptr) {
    PROVDB_FAILURE_TRACE_IN("provdb_init_db", "provdb_init_db:- Error invalid vsk env ptr\n");
    return -1;
  }
  provdb_initialize_provision_dbs(&g_provdb);
  int ret = provdb_set_db_filenames(&g_provdb) ? provdb_databases_setup(&g_provdb, env) : ENOMEM;
  if (ret != 0) {
    PROVDB_FAILURE_TRACE_IN("provdb_init_db", "provdb_init_db:- Error opening databases\n");
    CloseProvisionTable();
  }
  return ret;
}

int CloseProvisionTable() {
  const int ret = provdb_database_close(&g_provdb.db);
  provdb_databases_free(&g_provdb);
  if (ret != 0) {
    PROVDB_FAILURE_TRACE_IN("provdb_db_close", "provdb_db_close:- failed with err:%d\n", ret);
  }
  return ret;
}

}  // namespace vsk::sidedata

extern "C" {

int provdb_init_db(DB_ENV* env) { return vsk::sidedata::OpenProvisionTable(env); }

int provdb_db_close(void) { return vsk::sidedata::CloseProvisionTable(); }

int provdb_is_db_open(void) { return vsk_db_check() == VSK_OK ? 1 : 0; }

}  // extern "C"
