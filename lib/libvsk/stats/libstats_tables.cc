// The five statistics tables: their names, opening, association of the secondary indexes,
// closing, and the gate every operation passes. The store opens and closes them through
// its statistics join.
//
// Invariants:
//  1. g_stats holds names and handles only between an open and a close; after a close (or
//     a failed open) every field is null.
//  2. A secondary is closed before its primary, so that no associated handle outlives the
//     table it indexes.
//  3. While vsk_in_panic is set no handle is touched: each is forgotten.
#include <db.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "libvsk/base/trace.h"
#include "libvsk/stats/sec_index.h"
#include "libvsk/stats/stats_internal.h"
#include "libvsk/store/joins.h"
#include "libvsk/store/txn.h"
#include "platform/paths.h"
#include "vsk/libstats.h"
#include "vsk/store.h"

extern "C" {
libstats_databases_t g_stats = {};
}

namespace vsk::stats {
namespace {

constexpr const char kInnerName[] = "vsk.db";

char* JoinPath(const std::string& base, const char* file) {
  std::string full = base + file;
  return strdup(full.c_str());
}

// The plain table's secondary key: the 8-byte index at the head of the primary key.
int IflstatsSecondaryKey(DB*, const DBT* key, const DBT*, DBT* result) noexcept {
  if (key->size < sizeof(uint64_t)) return DB_DONOTINDEX;
  *result = InDbt(key->data, sizeof(uint64_t));
  return 0;
}

// The full table's secondary key: the generic TLV leads every value, its header and then
// the section's `ifl`.
int FullSecondaryKey(DB*, const DBT*, const DBT* data, DBT* result) noexcept {
  constexpr uint32_t kIflOffset = 4;
  if (data->size < kIflOffset + sizeof(uint32_t)) return DB_DONOTINDEX;
  *result = InDbt(static_cast<const uint8_t*>(data->data) + kIflOffset, sizeof(uint32_t));
  return 0;
}

int Associate(DB* primary, DB* secondary, int (*callback)(DB*, const DBT*, const DBT*, DBT*)) {
  int ret = primary->associate(primary, nullptr, secondary, callback, 0);
  if (ret != 0) VSK_TRACE("failed to associate sec db to prim err:%d", ret);
  return ret;
}

void FreeNames(libstats_databases_t* state) {
  std::free(state->base_path);
  std::free(state->iflstats_file);
  std::free(state->iflstats_sec_file);
  std::free(state->servstats_file);
  std::free(state->iflstats_full_file);
  std::free(state->iflstats_full_sec_file);
  *state = libstats_databases_t{};
}

// Closes every table of g_stats, secondaries first. The result is that of the last
// close performed, not of the first failure: a failing secondary close followed by a good
// primary close gives 0.
int CloseAll() {
  CloseLeftOpen();
  int last = 0;
  auto step = [&last](DB*& slot, const char* failure) {
    DB* db = slot;
    slot = nullptr;
    if (db == nullptr || vsk_in_panic) return;
    last = db->close(db, 0);
    if (last != 0) VSK_TRACE(failure, db_strerror(last));
  };
  step(g_stats.iflstats_sec_db, "IFLSTATS_SECONDARY_DB database close failed: %s");
  step(g_stats.iflstats_db, "IFLSTATS database close failed: %s");
  step(g_stats.servstats_db, "SERVSTATS database close failed: %s");
  step(g_stats.iflstats_full_sec_db, "IFLSTATSFULL_SECONDARY_DB database close failed: %s");
  step(g_stats.iflstats_full_db, "IFLSTATSFULL database close failed: %s");
  FreeNames(&g_stats);
  return last;
}

int OpenDatabase(DB** out, const char* file, const char* inner, FILE* errfile, bool dups,
                 DB_ENV* env) {
  static constexpr const char kName[] = "libstats_open_database";
  *out = nullptr;
  if (env == nullptr) {
    VSK_TRACE("%s: Error invalid vsk env ptr", kName);
    return -1;
  }
  DB* db = nullptr;
  int ret = db_create(&db, env, 0);
  if (ret != 0) {
    VSK_TRACE("%s: failed to create db, prog=%s, err=%s", kName, file, db_strerror(ret));
    return ret;
  }
  // Berkeley DB's own messages reach the trace hook through the environment; a stream is
  // used only when a caller hands one in.
  if (errfile != nullptr) db->set_errfile(db, errfile);
  db->set_errpfx(db, inner);
  if (dups && (ret = db->set_flags(db, DB_DUP | DB_DUPSORT)) != 0) {
    VSK_TRACE("%s: Attempt to set DUPSORT flags fails file:%s prog:%s", kName, file, inner);
    db->err(db, ret, "Attempt to set DUPSORT flags failed.");
    db->close(db, 0);
    return ret;
  }
  ret = db->open(db, nullptr, file, inner, DB_BTREE, DB_CREATE | DB_AUTO_COMMIT, 0);
  if (ret != 0) {
    db->err(db, ret, "Database '%s' open failed.", file);
    int cret = db->close(db, 0);
    if (cret != 0) VSK_TRACE("database:%s close failed err:%s", file, db_strerror(cret));
    VSK_TRACE("Database '%s' open failed.", file);
    return ret;
  }
  *out = db;
  return 0;
}

int OpenAll(DB_ENV* env) {
  const std::string base = platform::RootedPath(platform::kStoreHome);
  g_stats.base_path = strdup(base.c_str());
  g_stats.iflstats_file = JoinPath(base, "iflstatsDB.db");
  g_stats.iflstats_sec_file = JoinPath(base, "iflstatsSecDB.db");
  g_stats.servstats_file = JoinPath(base, "servstatsDB.db");
  g_stats.iflstats_full_file = JoinPath(base, "iflstatsfullDB.db");
  g_stats.iflstats_full_sec_file = JoinPath(base, "iflstatsfullSecondaryDB.db");
  if (g_stats.base_path == nullptr || g_stats.iflstats_file == nullptr ||
      g_stats.iflstats_sec_file == nullptr || g_stats.servstats_file == nullptr ||
      g_stats.iflstats_full_file == nullptr || g_stats.iflstats_full_sec_file == nullptr) {
    return ENOMEM;
  }
  int ret =
      OpenDatabase(&g_stats.iflstats_db, g_stats.iflstats_file, kInnerName, nullptr, false, env);
  if (ret != 0) return ret;
  ret = OpenDatabase(&g_stats.iflstats_sec_db, g_stats.iflstats_sec_file, kInnerName, nullptr, true,
                     env);
  if (ret != 0) return ret;
  // This association's result does not stop the opening (the next open decides): a plain
  // table without its index still stores and reads.
  Associate(g_stats.iflstats_db, g_stats.iflstats_sec_db, IflstatsSecondaryKey);
  ret =
      OpenDatabase(&g_stats.servstats_db, g_stats.servstats_file, kInnerName, nullptr, false, env);
  if (ret != 0) return ret;
  ret = OpenDatabase(&g_stats.iflstats_full_db, g_stats.iflstats_full_file, kInnerName, nullptr,
                     false, env);
  if (ret != 0) return ret;
  ret = OpenDatabase(&g_stats.iflstats_full_sec_db, g_stats.iflstats_full_sec_file, kInnerName,
                     nullptr, true, env);
  if (ret != 0) return ret;
  return Associate(g_stats.iflstats_full_db, g_stats.iflstats_full_sec_db, FullSecondaryKey);
}

}  // namespace

int InitDb(DB_ENV* env) {
  if (env == nullptr) {
    VSK_TRACE("%s: Error invalid vsk env ptr", "libstats_init_db");
    return -1;
  }
  // Names left by an open that was never closed would leak; their handles belonged to an
  // environment that is gone and are only forgotten.
  FreeNames(&g_stats);
  int ret = OpenAll(env);
  if (ret != 0) {
    VSK_TRACE("%s: Error opening databases", "libstats_init_db");
    CloseAll();
  }
  return ret;
}

int CloseDb() {
  int ret = CloseAll();
  if (ret != 0) VSK_TRACE("%s: failed with err:%d", "libstats_db_close", ret);
  return ret;
}

bool StoreUsable(const char* caller) {
  if (vsk::store::Check() == VSK_OK) return true;
  VSK_TRACE("%s: bad vsk env ptr", caller);
  return false;
}

namespace {

// The store opens the tables behind its session tables and closes them before its
// environment; in a panic the close only forgets the handles.
[[maybe_unused]] const store::StoreJoinRegistrar kStatisticsJoin{
    store::JoinSlot::kStatistics,
    {.name = "statistics",
     .open = [](bool) -> vsk_status_t { return InitDb(store::Environment()); },
     .close = []() -> vsk_status_t { return CloseDb(); },
     .not_available = "stats databases is not available %s",
     .open_failed = "Failed to init stats db %s",
     .closed = "closed stats database",
     .close_failed = "Failed to close stats database %s"}};

}  // namespace
}  // namespace vsk::stats

extern "C" {

int libstats_open_database(DB** out, const char* file, const char* inner, FILE* errfile, bool dups,
                           DB_ENV* env) {
  if (out == nullptr || file == nullptr || inner == nullptr) return EINVAL;
  return vsk::stats::OpenDatabase(out, file, inner, errfile, dups, env);
}

int libstats_init_db(DB_ENV* env) { return vsk::stats::InitDb(env); }

int libstats_db_close(void) { return vsk::stats::CloseDb(); }

void libstats_databases_free(libstats_databases_t* state) {
  if (state != nullptr) vsk::stats::FreeNames(state);
}

int libstats_is_db_open(void) { return vsk::store::Check() == VSK_OK ? 0 : -1; }

void libstats_show_vsk_env_ptr(void) {
  if (vsk::store::Environment() == nullptr) {
    VSK_TRACE("%s: bad vsk env ptr", "libstats_show_vsk_env_ptr");
  }
}

int libstats_iflstats_full_get_secondary_index(DB* secondary, const DBT* key, const DBT* data,
                                               DBT* result) {
  return vsk::stats::FullSecondaryKey(secondary, key, data, result);
}

}  // extern "C"
