// The raw side of --baseline: the Berkeley DB table operations that one lifecycle makes in
// the store, replayed directly against an environment set up as the store's, with records
// of the same sizes (the library's own encodings of the same subscriber) and the client
// table ordered by the store's key comparison.
//
// The environment is the store's: the same cache, log buffer and region, mutex and lock
// limits, time-outs and deadlock detector; thread tracking with a thread-id and liveness
// callback (the store's joiners need them for failchk); commits written to the log file
// without a sync; replication started as master, here with a transport that drops what
// it is given (the store's queues it for the replication daemon: that copy is the
// library's cost). The tables live in one file, as the store's do.
//
// Per lifecycle, as the library does them with the session cache:
//   create    one transaction: put client record, put dynamic record (the authentication
//             request stays in the cache slot)
//   set-up    none (the cached update touches only the slot)
//   activate  one transaction: put client record (the flushed slot) and dynamic record
//   snapshot  one transaction: get client record, get dynamic record (the attribute reads
//             look at the loaded snapshot only)
//   remove    one transaction: delete the private data of applications 0-9 (absent), get
//             client record, delete it, get dynamic record for update, delete it, delete
//             auth request and auth response (both absent)
// Workers hold and remove their sessions exactly as the library's workers do.
#include <db.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>

#include "libvsk/store/dyn_db_internal.h"
#include "libvsk/store/records.h"
#include "load.h"

namespace vsk::load {
namespace {

using Clock = std::chrono::steady_clock;

constexpr db_timeout_t kTimeoutUs = 10000000;
constexpr uint32_t kThreadCount = 100;
constexpr uint32_t kLogBufferBytes = 64000;
constexpr uint32_t kLogRegionBytes = 195000;
constexpr uint32_t kCacheBytes = 1048576;
constexpr uint32_t kMaxMutexes = 8192;
constexpr uint32_t kMaxLocks = 4096;
constexpr uint32_t kMaxLockers = 4096;
constexpr uint32_t kRepMessageLimitBytes = 64000;
constexpr int kMasterEnvId = 0;
// The creator makes the environment with replication and starts it as master; the workers
// join it and inherit replication, as the store's daemons do.
constexpr uint32_t kCreateFlags = DB_CREATE | DB_RECOVER | DB_THREAD | DB_INIT_LOCK | DB_INIT_LOG |
                                  DB_INIT_MPOOL | DB_INIT_REP | DB_INIT_TXN;
constexpr uint32_t kJoinFlags =
    DB_THREAD | DB_INIT_LOCK | DB_INIT_LOG | DB_INIT_MPOOL | DB_INIT_TXN;
constexpr const char kFile[] = "raw.db";
constexpr int kPasses = 250;
// Applications whose private data a removal deletes (0 to 9), as the library's does.
constexpr uint32_t kApplications = 10;
enum Table { kClient, kDynamic, kAuthRequest, kAuthResponse, kAppPrivate, kTables };
constexpr const char* kTableNames[kTables] = {"client", "dynamic", "auth-request", "auth-response",
                                              "app-private"};

// The process's identity for thread tracking: the pid taken once, every thread thread 0,
// as the store's callback gives it.
pid_t g_pid = 0;
void ThreadId(DB_ENV*, pid_t* pid, db_threadid_t* tid) noexcept {
  if (pid != nullptr) *pid = g_pid;
  if (tid != nullptr) *tid = 0;
}
int IsAlive(DB_ENV*, pid_t pid, db_threadid_t, uint32_t) noexcept {
  return pid > 0 && (kill(pid, 0) == 0 || errno != ESRCH) ? 1 : 0;
}
// Nobody listens: every message is taken and dropped, so that a commit never waits.
int DropMessage(DB_ENV*, const DBT*, const DBT*, const DB_LSN*, int, uint32_t) noexcept {
  return 0;
}

struct EnvCloser {
  void operator()(DB_ENV* e) const { e->close(e, 0); }
};
using EnvPtr = std::unique_ptr<DB_ENV, EnvCloser>;

int OpenEnv(const std::string& home, bool create, EnvPtr* out) {
  DB_ENV* env = nullptr;
  int ret = db_env_create(&env, 0);
  if (ret != 0) return ret;
  out->reset(env);
  g_pid = getpid();
  if ((ret = env->set_timeout(env, kTimeoutUs, DB_SET_TXN_TIMEOUT)) != 0 ||
      (ret = env->set_timeout(env, kTimeoutUs, DB_SET_LOCK_TIMEOUT)) != 0 ||
      (ret = env->set_lk_detect(env, DB_LOCK_DEFAULT)) != 0 ||
      (create && (ret = env->set_thread_count(env, kThreadCount)) != 0) ||
      (ret = env->set_thread_id(env, ThreadId)) != 0 ||
      (ret = env->set_isalive(env, IsAlive)) != 0 ||
      (ret = env->set_lg_bsize(env, kLogBufferBytes)) != 0 ||
      (ret = env->set_lg_regionmax(env, kLogRegionBytes)) != 0 ||
      (ret = env->set_cachesize(env, 0, kCacheBytes, 0)) != 0 ||
      (ret = env->mutex_set_max(env, kMaxMutexes)) != 0 ||
      (ret = env->set_lk_max_locks(env, kMaxLocks)) != 0 ||
      (ret = env->set_lk_max_lockers(env, kMaxLockers)) != 0 ||
      (ret = env->set_flags(env, DB_TXN_WRITE_NOSYNC, 1)) != 0)
    return ret;
  if ((ret = env->open(env, home.c_str(), create ? kCreateFlags : kJoinFlags, 0)) != 0 ||
      (ret = env->rep_set_transport(env, kMasterEnvId, DropMessage)) != 0 ||
      (ret = env->rep_set_config(env, DB_REP_CONF_NOWAIT, 1)) != 0 ||
      (ret = env->rep_set_limit(env, 0, kRepMessageLimitBytes)) != 0 ||
      (ret = env->rep_set_timeout(env, DB_REP_CHECKPOINT_DELAY, 0)) != 0)
    return ret;
  return create ? env->rep_start(env, nullptr, DB_REP_MASTER) : 0;
}

struct DbCloser {
  void operator()(DB* d) const { d->close(d, 0); }
};
using DbPtr = std::unique_ptr<DB, DbCloser>;

int OpenTables(DB_ENV* env, DbPtr (&dbs)[kTables]) {
  for (int t = 0; t < kTables; ++t) {
    DB* db = nullptr;
    int ret = db_create(&db, env, 0);
    if (ret != 0) return ret;
    dbs[t].reset(db);
    if (t == kClient && (ret = db->set_bt_compare(db, vsk::store::CompareSessionIdKeys)) != 0)
      return ret;
    ret = db->open(db, nullptr, kFile, kTableNames[t], DB_BTREE,
                   DB_AUTO_COMMIT | DB_THREAD | DB_CREATE, 0);
    if (ret != 0) return ret;
  }
  return 0;
}

std::string Encode(uint32_t (*encoder)(const void*, void*, uint32_t), const void* record) {
  std::string out(encoder(record, nullptr, 0), '\0');
  encoder(record, out.data(), static_cast<uint32_t>(out.size()));
  return out;
}

uint32_t Ns(Clock::time_point start) {
  auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count();
  return ns > 0xFFFFFFFFll ? 0xFFFFFFFFu : static_cast<uint32_t>(ns);
}

class RawLifecycles {
 public:
  RawLifecycles(DB_ENV* env, DbPtr (&dbs)[kTables]) : env_(env), dbs_(dbs) {}

  // The library's records of this subscriber as created (with the type and the login
  // time that the create adds) and as activated.
  void Records(Subscriber& sub) {
    const uint32_t type = kClientType, active = 2;
    const char login[] = "2026-01-01 00:00:00 UTC";
    vsk_attr_t extra[2] = {{VSK_CLIENT_SESSION_TYPE, 4, const_cast<uint32_t*>(&type), nullptr},
                           {VSK_LOGIN_TIME, sizeof login, const_cast<char*>(login), nullptr}};
    vsk_attr_list_append(&sub.attr_list, &extra[0]);
    vsk_attr_list_append(&sub.attr_list, &extra[1]);
    vsk_client_session_t rec{};
    rec.attrs = &sub.attr_list;
    client_ = Encode(vsk::store::EncodeClientRecord, &rec);
    sub.attrs[0].value = const_cast<uint32_t*>(&active);
    active_client_ = Encode(vsk::store::EncodeClientRecord, &rec);
    vsk_dynamic_config_t dyn{};
    dyn.attrs = &sub.dyn_list;
    dynamic_ = Encode(vsk::store::EncodeDynamicRecord, &dyn);
  }

  int Create(uint64_t key) {
    return InTxn([&](DB_TXN* txn) {
      int ret = Put(kClient, txn, key, client_);
      return ret == 0 ? Put(kDynamic, txn, key, dynamic_) : ret;
    });
  }
  int Activate(uint64_t key) {
    return InTxn([&](DB_TXN* txn) {
      int ret = Put(kClient, txn, key, active_client_);
      return ret == 0 ? Put(kDynamic, txn, key, dynamic_) : ret;
    });
  }
  int Read(uint64_t key) {
    return InTxn([&](DB_TXN* txn) {
      int ret = Get(kClient, txn, key, 0);
      return ret == 0 ? Get(kDynamic, txn, key, 0) : ret;
    });
  }
  int Remove(uint64_t key) {
    return InTxn([&](DB_TXN* txn) {
      int ret = 0;
      for (uint32_t app = 0; app < kApplications && ret == 0; ++app) {
        uint8_t private_key[12];
        const vsk_app_pri_key_t k{key, app};
        vsk::store::EncodeAppPriKey(&k, private_key, sizeof private_key);
        ret = Del(kAppPrivate, txn, private_key, sizeof private_key);
      }
      if (ret == 0) ret = Get(kClient, txn, key, 0);
      if (ret == 0) ret = Del(kClient, txn, &key, sizeof key);
      if (ret == 0) ret = Get(kDynamic, txn, key, DB_RMW);
      if (ret == 0) ret = Del(kDynamic, txn, &key, sizeof key);
      if (ret == 0) ret = Del(kAuthRequest, txn, &key, sizeof key);
      if (ret == 0) ret = Del(kAuthResponse, txn, &key, sizeof key);
      return ret;
    });
  }

 private:
  // One transaction, retried on a deadlock as the library's removal is (the most patient
  // of its operations), so that the raw side never gives up where the library would not.
  template <typename Body>
  int InTxn(Body body) {
    int ret = 0;
    for (int pass = 0; pass <= kPasses; ++pass) {
      DB_TXN* txn = nullptr;
      ret = env_->txn_begin(env_, nullptr, &txn, 0);
      if (ret != 0) return ret;
      ret = body(txn);
      if (ret == 0) return txn->commit(txn, 0);
      txn->abort(txn);
      if (ret != DB_LOCK_DEADLOCK && ret != DB_LOCK_NOTGRANTED) return ret;
    }
    return ret;
  }
  int Put(Table t, DB_TXN* txn, uint64_t key, const std::string& bytes) {
    DBT k{}, d{};
    k.data = &key;
    k.size = sizeof key;
    d.data = const_cast<char*>(bytes.data());
    d.size = static_cast<uint32_t>(bytes.size());
    return dbs_[t]->put(dbs_[t].get(), txn, &k, &d, 0);
  }
  int Get(Table t, DB_TXN* txn, uint64_t key, uint32_t flags) {
    DBT k{}, d{};
    k.data = &key;
    k.size = k.ulen = sizeof key;
    k.flags = DB_DBT_USERMEM;  // thread-safe handles with a key comparison want a memory flag
    d.flags = DB_DBT_MALLOC;
    int ret = dbs_[t]->get(dbs_[t].get(), txn, &k, &d, flags);
    std::free(d.data);
    return ret;
  }
  // Absent records pass, as they do in the library's removal.
  int Del(Table t, DB_TXN* txn, void* key, uint32_t size) {
    DBT k{};
    k.data = key;
    k.size = size;
    int ret = dbs_[t]->del(dbs_[t].get(), txn, &k, 0);
    return ret == DB_NOTFOUND ? 0 : ret;
  }

  DB_ENV* env_;
  DbPtr (&dbs_)[kTables];
  std::string client_, active_client_, dynamic_;
};

}  // namespace

bool CreateRawEnvironment(const std::string& home, std::string* error) {
  mkdir(home.c_str(), 0755);
  EnvPtr env;
  DbPtr dbs[kTables];
  int ret = OpenEnv(home, true, &env);
  if (ret == 0) ret = OpenTables(env.get(), dbs);
  if (ret != 0) *error = db_strerror(ret);
  return ret == 0;
}

int RunRawWorker(const Options& o, Shared& shared, int index, const std::string& home,
                 const std::string& samples_path) {
  WorkerLine& line = shared.board->lines[index];
  EnvPtr env;
  DbPtr dbs[kTables];
  int ret = OpenEnv(home, false, &env);
  if (ret == 0) ret = OpenTables(env.get(), dbs);
  if (ret != 0) {
    line.first_error.store(ret, std::memory_order_relaxed);
    line.phase.store(kFailed, std::memory_order_relaxed);
    return 1;
  }
  line.phase.store(kRunning, std::memory_order_relaxed);
  Subscriber sub;
  sub.Name(index, 0);
  RawLifecycles run(env.get(), dbs);
  run.Records(sub);

  Samples samples;
  std::deque<uint64_t> held;
  const uint64_t quota = line.quota.load(std::memory_order_relaxed);
  const uint64_t hold = std::max<uint64_t>(1, o.live / static_cast<uint64_t>(o.workers));
  auto step = [&](Step s, auto&& op) {
    auto t = Clock::now();
    ret = op();
    if (ret == 0) samples.ns[s].push_back(Ns(t));
    return ret == 0;
  };
  auto remove_oldest = [&] {
    const uint64_t key = held.front();
    held.pop_front();
    if (!step(kRemove, [&] { return run.Remove(key); })) return false;
    line.done.fetch_add(1, std::memory_order_relaxed);
    line.live.fetch_sub(1, std::memory_order_relaxed);
    return true;
  };
  bool ok = true;
  for (uint64_t n = 0; ok && n < quota && !shared.board->stop.load(std::memory_order_relaxed);
       ++n) {
    // Keys as the id generator hands them out: rising, the workers' interleaved.
    const uint64_t key = n * static_cast<uint64_t>(o.workers) + static_cast<uint64_t>(index) + 1;
    ok = step(kCreate, [&] { return run.Create(key); }) &&
         step(kActivate, [&] { return run.Activate(key); }) &&
         step(kSnapshot, [&] { return run.Read(key); });
    if (!ok) break;
    line.created.fetch_add(1, std::memory_order_relaxed);
    line.live.fetch_add(1, std::memory_order_relaxed);
    held.push_back(key);
    while (ok && held.size() > hold) ok = remove_oldest();
  }
  while (ok && !held.empty()) ok = remove_oldest();
  if (!ok) {
    line.errors.fetch_add(1, std::memory_order_relaxed);
    line.first_error.store(ret, std::memory_order_relaxed);
  }
  const bool written = WriteSamples(samples_path, samples);
  line.phase.store(ok && written ? kFinished : kFailed, std::memory_order_relaxed);
  return ok && written ? 0 : 1;
}

}  // namespace vsk::load
