// Opening the store: vsk_db_init.
//
// Called by the daemon link during registration, never by a daemon itself. The
// infrastructure daemon (`orvd`, is_orvd true) creates and recovers the environment and
// starts replication; every other process joins what exists. States on the way:
//
//   0 INIT --env open--> 1 OPENED --replication--> 2 REPLICATING --tables--> 4 TABLES_OPEN
//        --side stores--> 7 READY
//   (a table the standby has not received yet: 3 NOT_REPLICATED, status -12)
//
// A failure after the environment opened leaves `dbenv` set; the caller's close releases
// it. Not re-entrant; runs on the daemon's main context.
#include <db.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "libvsk/base/role.h"
#include "libvsk/base/status.h"
#include "libvsk/base/trace.h"
#include "libvsk/store/capability.h"
#include "libvsk/store/dyn_db_internal.h"
#include "libvsk/store/env.h"
#include "libvsk/store/env_internal.h"
#include "libvsk/store/joins.h"
#include "platform/lodex.h"
#include "platform/paths.h"
#include "platform/progname.h"
#include "vsk/dyn_db.h"
#include "vsk/store.h"

namespace vsk::store {
namespace {

constexpr db_timeout_t kTxnTimeoutUs = 10000000;
constexpr db_timeout_t kLockTimeoutUs = 10000000;
constexpr uint32_t kThreadCount = 100;
constexpr uint32_t kLogBufferBytes = 64000;
constexpr uint32_t kLogRegionBytes = 195000;
constexpr uint32_t kCacheBytes = 1048576;
constexpr uint32_t kMaxMutexes = 8192;
constexpr uint32_t kMaxLocks = 4096;
constexpr uint32_t kMaxLockers = 4096;
constexpr uint32_t kQueueBytes = 1048576;
constexpr uint32_t kScaledQueueBytes = 5242880;
constexpr uint32_t kRepMessageLimitBytes = 64000;
constexpr int kMasterEnvId = 0;
constexpr int kStandbyEnvId = 1;

// The creator recovers and starts replication; joiners inherit replication from the
// environment they join.
constexpr uint32_t kOrvdOpenFlags = DB_CREATE | DB_RECOVER | DB_THREAD | DB_INIT_LOCK |
                                    DB_INIT_LOG | DB_INIT_MPOOL | DB_INIT_REP | DB_INIT_TXN;
constexpr uint32_t kJoinOpenFlags =
    DB_THREAD | DB_INIT_LOCK | DB_INIT_LOG | DB_INIT_MPOOL | DB_INIT_TXN;

// Sets one environment parameter; on failure traces `text` with the reason, discards the
// handle and gives the translated failure.
class EnvSetup {
 public:
  explicit EnvSetup(StoreContext* ctx) : ctx_(ctx) {}

  bool Step(int ret, const char* text) {
    if (ret == 0) return true;
    VSK_TRACE(text, db_strerror(ret));
    DB_ENV* env = ctx_->dbenv;
    ctx_->dbenv = nullptr;
    int cret = env->close(env, 0);
    if (cret != 0) VSK_TRACE("DB environment cleanup failed: %s", db_strerror(cret));
    status_ = vsk::base::TranslateError(ret);
    return false;
  }
  vsk_status_t status() const { return status_; }

 private:
  StoreContext* ctx_;
  vsk_status_t status_ = VSK_OK;
};

// Every environment parameter, in order. False with the status in `setup` on a failure.
bool SetParameters(StoreContext* ctx, bool is_orvd, EnvSetup& setup) {
  DB_ENV* env = ctx->dbenv;
  const bool master = vsk::base::IsMaster();
  env->set_errcall(env, ErrorCallback);
  return setup.Step(env->set_timeout(env, kTxnTimeoutUs, DB_SET_TXN_TIMEOUT),
                    "Failed to set txn timeout on db env: %s") &&
         setup.Step(env->set_timeout(env, kLockTimeoutUs, DB_SET_LOCK_TIMEOUT),
                    "Failed to set lock timeout on db env: %s") &&
         setup.Step(env->set_lk_detect(env, DB_LOCK_DEFAULT),
                    "Failed to enable dead lock detection: %s") &&
         (env->set_msgcall(env, MessageCallback), true) &&
         (!is_orvd ||
          setup.Step(env->set_thread_count(env, kThreadCount), "Failed to set thread count: %s")) &&
         setup.Step(env->set_thread_id(env, ThreadIdCallback), "Failed to set thread id: %s") &&
         // Beyond the listed parameters: without a liveness test in every joiner the
         // thread slots of dead processes are never reused, and after some 12,700
         // process lifetimes no process can join until a recovery.
         setup.Step(env->set_isalive(env, IsAliveCallback), "Failed to set is_alive: %s") &&
         setup.Step(env->set_lg_bsize(env, kLogBufferBytes), "Failed to set log buffer: %s") &&
         setup.Step(env->set_lg_regionmax(env, kLogRegionBytes), "Failed to set log region: %s") &&
         setup.Step(env->set_cachesize(env, 0, kCacheBytes, 0), "Failed to set cache size : %s") &&
         setup.Step(env->mutex_set_max(env, kMaxMutexes), "Failed to set mutex count : %s") &&
         setup.Step(env->set_lk_max_locks(env, kMaxLocks), "Failed to set lock count : %s") &&
         setup.Step(env->set_lk_max_lockers(env, kMaxLockers),
                    "Failed to set lockers count : %s") &&
         // Per handle: each process of the master sets its own, or its commits sync.
         // Write-without-sync rather than no-write: a commit hands its log records to the
         // file before it returns. A process that dies inside the library makes orvd
         // recover the store from the log files, and the shared log buffer may be held by
         // the dead process and cannot be flushed then; commits that had returned must
         // not be in it. Still no fsync, as before.
         setup.Step(env->set_flags(env, DB_TXN_WRITE_NOSYNC, master ? 1 : 0),
                    "Error setting DB environment flags: %s");
}

// Replication: every process attaches to the outbound queue and names its transport: on the
// master a joiner that writes (even a table open logs) must have one.
vsk_status_t SetUpReplication(DB_ENV* env, bool is_orvd) {
  const bool master = vsk::base::IsMaster();
  const uint32_t size = vsk::store::SupportScaling() ? kScaledQueueBytes : kQueueBytes;
  VSK_TRACE("Set replication queue size %u", size);
  if (lodex_init(env, size) != 0) {
    VSK_TRACE("Error init replication message queue: %s", lodex_get_err_msg());
    return VSK_ERR_FATAL;
  }
  int ret = env->rep_set_transport(env, master ? kMasterEnvId : kStandbyEnvId, lodex_send);
  if (ret != 0) {
    VSK_TRACE("Failed to set replication transport layer: %s", db_strerror(ret));
    return VSK_ERR_FATAL;
  }
  // Applications are not held back while replication recovers.
  ret = env->rep_set_config(env, DB_REP_CONF_NOWAIT, 1);
  if (ret != 0) {
    VSK_TRACE("Failed to disable replication recovery block : %s", db_strerror(ret));
    return VSK_ERR_FATAL;
  }
  ret = env->rep_set_limit(env, 0, kRepMessageLimitBytes);
  if (ret != 0) {
    VSK_TRACE("Failed to set the replication message size limit %d", ret);
    return VSK_ERR_FATAL;
  }
  ret = env->rep_set_timeout(env, DB_REP_CHECKPOINT_DELAY, 0);
  if (ret != 0) {
    VSK_TRACE("Failed to set the checkpoint delay time for replication %d", ret);
    return VSK_ERR_FATAL;
  }
  if (is_orvd) {
    ret = env->rep_start(env, nullptr, master ? DB_REP_MASTER : DB_REP_CLIENT);
    if (ret != 0) {
      VSK_TRACE("Failed to start replication %s", db_strerror(ret));
      return VSK_ERR_FATAL;
    }
  }
  return VSK_OK;
}

// The failure rule of every table open: ENOENT on the standby means replication has not
// brought the table yet.
vsk_status_t TableOpenFailure(StoreContext* ctx, int ret, const char* not_available,
                              const char* failed) {
  if (ret == ENOENT && !vsk::base::IsMaster()) {
    VSK_TRACE(not_available, db_strerror(ENOENT));
    ctx->state = VSK_ENV_NOT_REPLICATED;
    return VSK_ERR_REP_NOT_STARTED;
  }
  VSK_TRACE(failed, db_strerror(ret));
  return VSK_ERR_FATAL;
}

// Opens the joins of the slots [first, last) in order. A join without failure texts has
// its result ignored; otherwise the first failure ends the open under the table rule.
vsk_status_t OpenJoins(StoreContext* ctx, bool creator, JoinSlot first, JoinSlot last) {
  for (auto i = static_cast<size_t>(first); i < static_cast<size_t>(last); ++i) {
    const StoreJoin* join = JoinAt(static_cast<JoinSlot>(i));
    if (join == nullptr || join->open == nullptr) continue;
    const int ret = join->open(creator);
    if (ret == 0 || join->open_failed == nullptr) continue;
    const char* not_available =
        join->not_available != nullptr ? join->not_available : join->open_failed;
    return TableOpenFailure(ctx, ret, not_available, join->open_failed);
  }
  return VSK_OK;
}

vsk_status_t OpenTables(StoreContext* ctx) {
  const bool master = vsk::base::IsMaster();
  for (const FixedTable& t : kFixedTables) {
    DB* db = nullptr;
    int ret = vsk::store::DynOpen(&db, ctx->dbenv, t.name, 0, master);
    if (ret != 0) return TableOpenFailure(ctx, ret, t.not_available, t.open_failed);
    ctx->*t.slot = db;
  }
  // Application-defined tables defined before a close come back under their names.
  for (int16_t id = 0; id < VSK_APP_DEFINED_TABLES; ++id) {
    if (ctx->app_defined_db[id] != nullptr || vsk_app_defined[id].name == nullptr) continue;
    vsk_status_t st = vsk::store::AppDefine(id, vsk_app_defined[id].name);
    if (st != VSK_OK) {
      VSK_TRACE("Failed to init application defined table id %d, ret %d", id, st);
      // Unlike the fixed tables, any failure here is fatal to the open, the standby's
      // missing table included (vsk_db_app_define has already moved the state to 3).
      return VSK_ERR_FATAL;
    }
  }
  ctx->state = VSK_ENV_TABLES_OPEN;
  return VSK_OK;
}

}  // namespace
}  // namespace vsk::store

using vsk::store::StoreContext;

vsk_status_t vsk::store::Init(orvd_ctx* orvd_handle, bool is_orvd) {
  using namespace vsk::store;
  if (Context() != nullptr && Context()->state == VSK_ENV_READY) {
    VSK_TRACE("VSK already open");
    return VSK_OK;
  }
  StoreContext* ctx = ActivateContext();
  *ctx = StoreContext{};
  vsk_in_panic = false;
  ctx->state = VSK_ENV_INIT;
  ctx->pid = getpid();
  ctx->orvd_handle = orvd_handle;
  const bool master = vsk::base::IsMaster();
  VSK_TRACE("VSK open as: %s", master ? "Master" : "Standby");

  int ret = db_env_create(&ctx->dbenv, 0);
  if (ret != 0) {
    VSK_TRACE("Error creating DB environment: %s", db_strerror(ret));
    ctx->dbenv = nullptr;
    return VSK_ERR_FATAL;
  }
  EnvSetup setup(ctx);
  if (!SetParameters(ctx, is_orvd, setup)) return setup.status();

  const std::string home = vsk::platform::RootedPath(vsk::platform::kStoreHome);
  ret = ctx->dbenv->open(ctx->dbenv, home.c_str(), is_orvd ? kOrvdOpenFlags : kJoinOpenFlags, 0);
  if (ret != 0) {
    VSK_TRACE("Error opening DB environment: %s", db_strerror(ret));
    ctx->dbenv = nullptr;  // forgotten, not closed
    return vsk::base::TranslateError(ret);
  }
  ctx->state = VSK_ENV_OPENED;
  ctx->dbenv->set_event_notify(ctx->dbenv, EventCallback);

  if (!vsk::store::RepSupported()) {
    VSK_TRACE("Replication not supported on platform");
  } else {
    vsk_status_t st = SetUpReplication(ctx->dbenv, is_orvd);
    if (st != VSK_OK) return st;
    ctx->state = VSK_ENV_REPLICATING;
  }

  // The joins that need the environment but no table (the unit pools).
  vsk_status_t st = OpenJoins(ctx, is_orvd, JoinSlot::kUnitPools, kFirstSideStore);
  if (st != VSK_OK) return st;

  // On the standby the creator and the replication daemon open no tables.
  if (!master && (is_orvd || std::strcmp(vsk::platform::ProgramName(), "lodexd") == 0)) {
    return VSK_OK;
  }
  st = OpenTables(ctx);
  if (st != VSK_OK) return st;
  // The side stores (statistics, then provisioning) open behind the session tables.
  st = OpenJoins(ctx, is_orvd, kFirstSideStore, static_cast<JoinSlot>(kJoinSlots));
  if (st != VSK_OK) return st;

  ctx->state = VSK_ENV_READY;
  return VSK_OK;
}

extern "C" vsk_status_t vsk_db_init(orvd_ctx* orvd_handle, bool is_orvd) {
  return vsk::store::Init(orvd_handle, is_orvd);
}
