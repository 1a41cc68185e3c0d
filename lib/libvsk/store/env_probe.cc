// See env_probe.h.
#include "libvsk/store/env_probe.h"

#include <db.h>
#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "platform/paths.h"

namespace vsk::store {
namespace {

// What Berkeley DB tells the probe's handle: its error texts and the lines of its
// environment report, collected through app_private.
struct Collector {
  std::string last_error;
  std::vector<std::string> lines;
};

void OnError(const DB_ENV* env, const char*, const char* msg) noexcept {
  auto* c = static_cast<Collector*>(env->app_private);
  if (c != nullptr && msg != nullptr) c->last_error = msg;
}

void OnMessage(const DB_ENV* env, const char* msg) noexcept {
  auto* c = static_cast<Collector*>(env->app_private);
  if (c != nullptr && msg != nullptr) c->lines.emplace_back(msg);
}

bool ProcessAlive(pid_t pid) { return pid > 0 && (kill(pid, 0) == 0 || errno != ESRCH); }

// Liveness for Berkeley DB's thread slots: a slot whose process is gone may be reused.
int IsAlive(DB_ENV*, pid_t pid, db_threadid_t, uint32_t) noexcept { return ProcessAlive(pid); }

struct EnvCloser {
  void operator()(DB_ENV* env) const { env->close(env, 0); }
};
using EnvPtr = std::unique_ptr<DB_ENV, EnvCloser>;

template <typename T>
struct StatFree {
  void operator()(T* p) const { std::free(p); }
};
template <typename T>
using StatPtr = std::unique_ptr<T, StatFree<T>>;

// Thread slots from the environment's report: "N<TAB>Thread blocks allocated" and one
// "process/thread PID/TID: state" line per slot. Berkeley DB has no statistics structure
// for them.
void ReadThreadSlots(const std::vector<std::string>& lines, EnvFigures* out) {
  constexpr std::string_view kAllocated = "\tThread blocks allocated";
  constexpr std::string_view kSlot = "process/thread ";
  for (const std::string& line : lines) {
    if (line.size() > kAllocated.size() &&
        line.compare(line.size() - kAllocated.size(), kAllocated.size(), kAllocated) == 0) {
      out->thread_slots = static_cast<uint32_t>(std::strtoul(line.c_str(), nullptr, 10));
      continue;
    }
    size_t at = line.find(kSlot);
    if (at == std::string::npos) continue;
    pid_t pid = static_cast<pid_t>(std::strtol(line.c_str() + at + kSlot.size(), nullptr, 10));
    if (!ProcessAlive(pid)) ++out->thread_slots_dead;
  }
}

// Log and table files in the home: Berkeley DB's log files are "log.NNNNNNNNNN".
void ReadFiles(const std::string& home, EnvFigures* out) {
  DIR* dir = opendir(home.c_str());
  if (dir == nullptr) return;
  while (dirent* e = readdir(dir)) {
    std::string_view name(e->d_name);
    bool log = name.rfind("log.", 0) == 0;
    bool table = name.size() > 3 && name.substr(name.size() - 3) == ".db";
    if (!log && !table) continue;
    struct stat st {};
    if (stat((home + e->d_name).c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    if (log) {
      ++out->log_files;
      out->log_bytes += static_cast<uint64_t>(st.st_size);
    } else {
      out->data_bytes += static_cast<uint64_t>(st.st_size);
    }
  }
  closedir(dir);
}

bool Fail(EnvError kind, std::string text, EnvError* error, std::string* message) {
  *error = kind;
  *message = std::move(text);
  return false;
}

}  // namespace

const char* EnvStateName(EnvError error) {
  switch (error) {
    case EnvError::kNone:
      return "open";
    case EnvError::kMissing:
      return "missing";
    case EnvError::kOtherVersion:
      return "other_version";
    case EnvError::kNeedsRecovery:
      return "needs_recovery";
    case EnvError::kNoAccess:
      return "no_access";
    case EnvError::kFailed:
      return "failed";
  }
  return "failed";
}

bool ProbeEnvironment(EnvFigures* out, EnvError* error, std::string* message) {
  *out = EnvFigures{};
  *error = EnvError::kNone;
  message->clear();
  out->home = platform::RootedPath(platform::kStoreHome);
  int major = 0, minor = 0, patch = 0;
  db_version(&major, &minor, &patch);
  out->version = std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch);
  const std::string what = "store environment " + out->home;

  struct stat st {};
  if (stat(out->home.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    return Fail(EnvError::kMissing, what + " does not exist", error, message);
  }
  DB_ENV* raw = nullptr;
  if (int rc = db_env_create(&raw, 0); rc != 0) {
    return Fail(EnvError::kFailed, what + ": " + db_strerror(rc), error, message);
  }
  Collector collector;
  raw->app_private = &collector;
  raw->set_errcall(raw, OnError);
  raw->set_msgcall(raw, OnMessage);
  raw->set_isalive(raw, IsAlive);
  // Joining: no DB_CREATE, so a missing environment stays missing; the subsystems are
  // those the creator chose.
  int rc = raw->open(raw, out->home.c_str(), DB_JOINENV, 0);
  if (rc != 0) {
    // A handle whose open failed is closed all the same, and no region was made.
    raw->close(raw, 0);
    std::string why = collector.last_error.empty() ? db_strerror(rc) : collector.last_error;
    switch (rc) {
      case ENOENT:
        return Fail(EnvError::kMissing,
                    what + " has no environment: orvd has not opened the store here", error,
                    message);
      case DB_VERSION_MISMATCH:
        return Fail(EnvError::kOtherVersion,
                    what + " was made by another version of Berkeley DB (this is " + out->version +
                        "): " + why,
                    error, message);
      case DB_RUNRECOVERY:
        return Fail(EnvError::kNeedsRecovery,
                    what + " needs recovery (a process died inside it): " + why, error, message);
      case EACCES:
        return Fail(EnvError::kNoAccess, what + ": permission denied", error, message);
      default:
        return Fail(EnvError::kFailed, what + ": " + why, error, message);
    }
  }
  EnvPtr env(raw);

  DB_TXN_STAT* ts = nullptr;
  if (env->txn_stat(env.get(), &ts, 0) == 0) {
    StatPtr<DB_TXN_STAT> hold(ts);
    out->txn_active = ts->st_nactive;
    out->txn_max_active = ts->st_maxnactive;
    out->txn_limit = ts->st_maxtxns;
    out->txn_begins = ts->st_nbegins;
    out->txn_commits = ts->st_ncommits;
    out->txn_aborts = ts->st_naborts;
    out->last_txn_id = ts->st_last_txnid;
  }
  DB_LOCK_STAT* ls = nullptr;
  if (env->lock_stat(env.get(), &ls, 0) == 0) {
    StatPtr<DB_LOCK_STAT> hold(ls);
    out->locks = ls->st_nlocks;
    out->locks_max_seen = ls->st_maxnlocks;
    out->locks_limit = ls->st_maxlocks;
    out->lockers = ls->st_nlockers;
    out->lockers_max_seen = ls->st_maxnlockers;
    out->lockers_limit = ls->st_maxlockers;
    out->lock_requests = ls->st_nrequests;
    out->lock_waits = ls->st_lock_wait;
    out->deadlocks = ls->st_ndeadlocks;
    out->lock_timeouts = ls->st_nlocktimeouts;
    out->txn_timeouts = ls->st_ntxntimeouts;
  }
  DB_LOG_STAT* gs = nullptr;
  if (env->log_stat(env.get(), &gs, 0) == 0) {
    StatPtr<DB_LOG_STAT> hold(gs);
    out->log_file_limit = gs->st_lg_size;
    out->log_current_file = gs->st_cur_file;
    out->log_current_offset = gs->st_cur_offset;
  }
  DB_MPOOL_STAT* ms = nullptr;
  if (env->memp_stat(env.get(), &ms, nullptr, 0) == 0) {
    StatPtr<DB_MPOOL_STAT> hold(ms);
    out->cache_bytes = uint64_t{ms->st_gbytes} * (1u << 30) + ms->st_bytes;
    out->cache_hits = ms->st_cache_hit;
    out->cache_misses = ms->st_cache_miss;
  }
  env->get_thread_count(env.get(), &out->thread_slots_limit);
  uint32_t open_flags = 0;
  env->get_open_flags(env.get(), &open_flags);
  out->replication = (open_flags & DB_INIT_REP) != 0;
  out->rep_role = "none";
  DB_REP_STAT* rs = nullptr;
  if (out->replication && env->rep_stat(env.get(), &rs, 0) == 0) {
    StatPtr<DB_REP_STAT> hold(rs);
    out->rep_role = rs->st_status == DB_REP_MASTER   ? "master"
                    : rs->st_status == DB_REP_CLIENT ? "client"
                                                     : "none";
    out->rep_startup_complete = rs->st_startup_complete != 0;
    out->rep_env_id = static_cast<int64_t>(rs->st_env_id);
    out->rep_log_queued = rs->st_log_queued;
  }
  collector.lines.clear();
  env->stat_print(env.get(), DB_STAT_ALL);
  ReadThreadSlots(collector.lines, out);
  ReadFiles(out->home, out);
  return true;
}

}  // namespace vsk::store
