// Walks over a whole statistics table: the version walk after a software upgrade, and the
// clean-up of full records whose interface is gone.
#include <db.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "libvsk/base/trace.h"
#include "libvsk/stats/iflstats_full_codec.h"
#include "libvsk/stats/iflstats_full_db.h"
#include "libvsk/stats/sec_index.h"
#include "libvsk/store/joins.h"
#include "libvsk/store/txn.h"
#include "platform/mgtlib_iflm.h"
#include "vsk/libstats.h"

namespace vsk::stats {
namespace {

constexpr const char kIssuWalk[] = "libstats_issu_walk_all_stats";
constexpr uint8_t kCurrentVersion = LIBSTATS_RECORD_VERSION;
// Where the generation number stands in the interface message.
constexpr uint32_t kGenNumOffset = offsetof(mgtlib_ifl_msg_t, gen_num);

// The place of a conversion from version 0: it opens a transaction, says so and changes
// nothing, since no conversion from version 0 is defined.
void SampleConvert(int type) {
  VSK_TRACE("%s(%d) DB version %d, current version %d", "libstats_issu_sample_convert_db", type, 0,
            kCurrentVersion);
  vsk_db_txn_t txn{};
  if (store::StartTxn(&txn) != VSK_OK) return;
  VSK_TRACE("add sample issu conversion routine, type %d", type);
  store::AbortTxn(&txn, VSK_OK);
}

void BadEnvironment(int line) {
  VSK_TRACE("daemon:%d function:%s line:%d\n", getpid(), kIssuWalk, line);
  VSK_TRACE("libstats_issu_walk_all_servstats: bad vsk env ptr\n");
}

void IssuWalk(int type) {
  VSK_TRACE("%s(%d)", kIssuWalk, type);
  if (store::Environment() == nullptr) {
    BadEnvironment(__LINE__);
    return;
  }
  DB* db = nullptr;
  const char* file = nullptr;
  const char* table = nullptr;
  if (type == LIBSTATS_ISSU_IFLSTATS) {
    db = g_stats.iflstats_db;
    file = g_stats.iflstats_file;
    table = "iflstats";
  } else if (type == LIBSTATS_ISSU_SERVSTATS) {
    db = g_stats.servstats_db;
    file = g_stats.servstats_file;
    table = "servstats";
  } else {
    VSK_TRACE("%s() unknown type %d", kIssuWalk, type);
    return;
  }
  if (db == nullptr) {  // an environment without its tables (the standby's creator)
    BadEnvironment(__LINE__);
    return;
  }
  // A plain cursor, no transaction: the walk only reads.
  DBC* cursor = nullptr;
  vsk_status_t st = get_vsk_err(db->cursor(db, nullptr, &cursor, 0));
  if (st != VSK_OK) {
    VSK_TRACE("%s(%d) cursor ret %d", kIssuWalk, type, st);
    return;
  }
  int recovered = 0;
  int converted = 0;
  MallocDbt key;
  MallocDbt value;
  int ret = cursor->get(cursor, key.dbt(), value.dbt(), DB_FIRST);
  if (ret == DB_NOTFOUND) {
    VSK_TRACE("%s(%d): c_get(%s) ret DB_NOTFOUND", kIssuWalk, type, file);
  } else if (ret != 0) {
    VSK_TRACE("%s(%d): c_get(%s) ret error %d", kIssuWalk, type, file, ret);
  }
  while (ret == 0) {
    ++recovered;
    // The version is the value's second byte; a value too short to hold one is left alone.
    const int version = value.size() > 1 ? value.data()[1] : kCurrentVersion;
    if (version == 0) {
      SampleConvert(type);
      ++converted;
    } else if (version > kCurrentVersion) {
      VSK_TRACE("%s(%d) %s DB version %d more recent than current version %d: IGNORE", kIssuWalk,
                type, table, version, kCurrentVersion);
    }
    key.Reset();
    value.Reset();
    ret = cursor->get(cursor, key.dbt(), value.dbt(), DB_NEXT);
  }
  cursor->close(cursor);
  VSK_TRACE("%s(%d) closing DB: recovered:%d, converted:%d", kIssuWalk, type, recovered, converted);
}

// Whether the record in `work` belongs to no living interface: the interface is gone,
// was created again (another generation number), or the record is of another version.
// A look-up that cannot say keeps the record.
bool Stale(mgtlib_iflm_t* handle, const libstats_iflstats_full_set_t& current) {
  void* msg = nullptr;
  uint32_t len = 0;
  const int found =
      mgtlib_iflm_get_by_index(handle, current.generic.ifl, sizeof(uint32_t), &msg, &len);
  bool stale = false;
  if (found == 0 && len >= kGenNumOffset + sizeof(uint32_t)) {
    uint32_t gen_num = 0;
    std::memcpy(&gen_num, static_cast<const uint8_t*>(msg) + kGenNumOffset, sizeof(gen_num));
    stale = gen_num != current.gen_num || current.ts != LIBSTATS_IFLSTATS_FULL_VERSION;
  } else if (found == ENOENT) {
    stale = true;
  }
  mgtlib_msg_idl_release(handle, msg, len);
  return stale;
}

vsk_status_t FullWalk(mgtlib_iflm_t* handle) {
  static constexpr const char kName[] = "libstats_iflstats_full_walk_all_stats";
  auto* work =
      static_cast<libstats_iflstats_full_t*>(std::calloc(1, sizeof(libstats_iflstats_full_t)));
  if (work == nullptr) return ENOMEM;
  GroupWalk walk;
  vsk_status_t st =
      walk.Begin(kName, g_stats.iflstats_full_sec_db, "%s: aborting txn cursor create err:%d");
  if (st != VSK_OK) {
    std::free(work);
    return st;
  }
  DBC* cursor = walk.cursor();
  MallocDbt key;
  MallocDbt value;
  int ret = 0;
  while ((ret = cursor->get(cursor, key.dbt(), value.dbt(), DB_NEXT)) == 0) {
    DecodeIflstatsFull(value.data(), value.size(), work);  // a record that does not decode
                                                           // reads as interface 0
    if (Stale(handle, work->stats[LS_CURRENT])) {
      ret = cursor->del(cursor, 0);
      if (ret != 0) VSK_TRACE("%s: db delete failed ret:%d", kName, ret);
    }
    key.Reset();
    value.Reset();
    FreeSets(work);
    std::memset(work->stats, 0, sizeof(work->stats));
    if (ret != 0) break;
  }
  st = get_vsk_err(ret);
  VSK_TRACE("%s: closed cursor:%d", kName, walk.CloseCursor());
  vsk_status_t end = st == VSK_ERR_NOT_FOUND ? walk.Commit() : walk.Abort();
  if (end != VSK_OK) VSK_TRACE("%s: end txn fails status:%d", kName, end);
  std::free(work);
  return st;
}

}  // namespace
}  // namespace vsk::stats

extern "C" {

void libstats_issu_walk_all_stats(int type) { vsk::stats::IssuWalk(type); }

vsk_status_t libstats_iflstats_full_walk_all_stats(struct mgtlib_iflm* handle) {
  if (handle == nullptr) return VSK_ERR_INVALID_PARAM;
  return vsk::stats::FullWalk(handle);
}

}  // extern "C"
