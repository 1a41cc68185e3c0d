// See maintenance.h.
#include "maintenance.h"

#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <string>

#include "libvsk/store/env.h"
#include "log.h"
#include "log_retention.h"
#include "platform/paths.h"

namespace orvd {
namespace {

// The worker's number in Berkeley DB's thread table (the main thread's is 0).
constexpr db_threadid_t kWorkerThreadNumber = 1;

int64_t Ticks(Clock::time_point t) { return t.time_since_epoch().count(); }

// Where Berkeley DB's statistics text goes while the worker reads its thread table.
thread_local std::set<pid_t>* t_inside = nullptr;

// Keeps the pids of lines "process/thread PID/TID: active" (or blocked).
void CollectThreadLine(const DB_ENV*, const char* line) {
  if (t_inside == nullptr) return;
  const char* at = std::strstr(line, "process/thread ");
  if (at == nullptr) return;
  if (std::strstr(at, ": active") == nullptr && std::strstr(at, ": blocked") == nullptr) return;
  t_inside->insert(static_cast<pid_t>(std::atol(at + std::strlen("process/thread "))));
}

}  // namespace

struct Maintenance::State {
  DB_ENV* env;
  bool master;
  std::string home;

  std::mutex mu;
  std::condition_variable wake;
  bool stop = false;
  bool draining = false;
  Clock::time_point drain_until{};

  std::atomic<bool> recovery_needed{false};
  std::atomic<uint64_t> clean_checks{0};
  int notify_fd = -1;              // guarded by mu
  bool check_requested = false;    // guarded by mu
  std::vector<pid_t> blocked;      // written by the worker before `ended`
  Holdings holdings;               // guarded by mu
  bool holdings_taken = false;     // guarded by mu
  bool holdings_closed = false;    // guarded by mu
  std::set<pid_t> first_look;
  std::atomic<bool> flush_requested{false};
  std::atomic<int64_t> busy_since{0};  // Ticks() of the current call's start, 0 when idle
  std::atomic<bool> ended{false};

  std::atomic<uint64_t> failchk_runs{0};
  std::atomic<uint64_t> lock_waits_expired{0};
  std::atomic<uint64_t> checkpoints{0};
  std::atomic<uint64_t> log_files_removed{0};
  std::atomic<uint64_t> replication_flushes{0};

  // The worker's own: where the last checkpoint made recovery start, the log's end when it
  // had been written (anything after it is new), and when.
  DB_LSN ckp_start{0, 0};
  DB_LSN ckp_ended_at{0, 0};
  Clock::time_point last_checkpoint{};

  // Runs one call into Berkeley DB with the busy mark set around it.
  template <typename Fn>
  int Call(Fn&& fn) {
    busy_since.store(Ticks(Clock::now()));
    int ret = fn();
    busy_since.store(0);
    return ret;
  }

  void ExpireLockWaits() {
    int rejected = 0;
    int ret = Call([&] { return env->lock_detect(env, 0, DB_LOCK_EXPIRE, &rejected); });
    if (ret != 0) {
      Log("deadlock detector: %s", db_strerror(ret));
    } else if (rejected > 0) {
      lock_waits_expired += static_cast<uint64_t>(rejected);
      Log("expired %d lock wait(s) past their timeout", rejected);
    }
  }

  void CheckForDeadProcesses() {
    if (!master) {
      // A standby does not run failchk: on a replication client Berkeley DB 5.3 crashes in
      // it while it closes the log registrations of a dead process. Deaths there are the
      // reopen's to handle (reopen.h): a registered client that dies has the standby's
      // store reopened with recovery.
      ++clean_checks;
      return;
    }
    int ret = Call([&] { return env->failchk(env, 0); });
    ++failchk_runs;
    if (ret == 0 || ret == EBUSY) ++clean_checks;
    if (ret == DB_RUNRECOVERY) {
      Log("failchk: a process died inside the store; recovery is needed");
      recovery_needed = true;
    } else if (ret != 0 && ret != EBUSY) {
      // EBUSY comes after a pass that did its work; the next pass is clean.
      Log("failchk: %s", db_strerror(ret));
    }
  }

  // The end of the log now; false (and a trace) when Berkeley DB cannot say.
  bool LogEnd(DB_LSN* end) {
    DB_LOG_STAT* st = nullptr;
    int ret = Call([&] { return env->log_stat(env, &st, 0); });
    if (ret != 0 || st == nullptr) {
      Log("cannot read the log's end: %s", db_strerror(ret));
      return false;
    }
    end->file = st->st_cur_file;
    end->offset = st->st_cur_offset;
    std::free(st);
    return true;
  }

  // Where a checkpoint begun now would make recovery start: the log's end, or the first
  // record of the oldest open transaction when that is earlier. `end` gets the log's end.
  bool RecoveryStartNow(DB_LSN* start, DB_LSN* end) {
    if (!LogEnd(end)) return false;
    *start = *end;
    DB_TXN_STAT* stat = nullptr;
    if (Call([&] { return env->txn_stat(env, &stat, 0); }) != 0 || stat == nullptr) return true;
    for (uint32_t i = 0; i < stat->st_nactive; ++i) {
      const DB_LSN& first = stat->st_txnarray[i].lsn;  // zero until it has logged
      if ((first.file != 0 || first.offset != 0) && log_compare(&first, start) < 0) *start = first;
    }
    std::free(stat);
    return true;
  }

  // Starts the bookkeeping of checkpoints from the log as the worker finds it.
  void StartCheckpointWatch(Clock::time_point now) {
    if (!RecoveryStartNow(&ckp_start, &ckp_ended_at)) ckp_start = ckp_ended_at = DB_LSN{0, 0};
    last_checkpoint = now;
  }

  // Writes a checkpoint when one is due and removes the log files nobody needs any more.
  // Berkeley DB's own thresholds count the log written since the last checkpoint record,
  // which is written at the checkpoint's end; but a checkpoint covers only what was
  // logged before it began, and nothing an open transaction logged since its start. What
  // a burst of writes logs while a long checkpoint flushes pages, or while a transaction
  // stays open, is then counted by nobody: the files stay, and recovery would replay
  // them, until something else is written and a minute has passed. So the worker decides
  // itself: a checkpoint is due when one now would move recovery's start by a megabyte,
  // when a megabyte has been logged since the last one (Berkeley DB's own rule), or a
  // minute after the last one when anything has been logged since.
  void Checkpoint(Clock::time_point now) {
    DB_LSN start, end;
    if (!RecoveryStartNow(&start, &end)) return;
    uint32_t lg_max = 0;
    env->get_lg_max(env, &lg_max);
    const uint64_t megabyte = uint64_t{kCheckpointKbytes} * 1024;
    const bool a_megabyte = LogBytesBetween(ckp_start, start, lg_max) >= megabyte ||
                            LogBytesBetween(ckp_ended_at, end, lg_max) >= megabyte;
    const bool a_while = now - last_checkpoint >= std::chrono::minutes(kCheckpointMinutes) &&
                         log_compare(&end, &ckp_ended_at) != 0;
    if (!a_megabyte && !a_while) return;
    int ret = Call([&] { return env->txn_checkpoint(env, 0, 0, DB_FORCE); });
    if (ret != 0) {
      Log("checkpoint: %s", db_strerror(ret));
      return;
    }
    ++checkpoints;
    last_checkpoint = now;
    ckp_start = start;
    // The log's end after the checkpoint record; the end before it when that cannot be read.
    DB_LSN ended = end;
    LogEnd(&ended);
    ckp_ended_at = ended;
    log_files_removed += static_cast<uint64_t>(Call([&] { return RemoveUnneededLogs(env, home); }));
  }

  void Flush() {
    if (!flush_requested.exchange(false)) return;
    int ret = Call([&] { return env->rep_flush(env); });
    if (ret != 0) {
      Log("replication request failed: %s", db_strerror(ret));
    } else {
      ++replication_flushes;
    }
  }

  // Processes inside the library now, from Berkeley DB's statistics text.
  std::set<pid_t> Inside() {
    std::set<pid_t> inside;
    t_inside = &inside;
    env->set_msgcall(env, CollectThreadLine);
    Call([&] { return env->stat_print(env, DB_STAT_ALL); });
    t_inside = nullptr;
    inside.erase(getpid());
    return inside;
  }

  // Tells the one who asked for a check that it is done.
  void Notify() {
    int fd;
    {
      std::lock_guard<std::mutex> lock(mu);
      fd = notify_fd;
      notify_fd = -1;
    }
    uint64_t one = 1;
    if (fd >= 0) (void)!write(fd, &one, sizeof one);
  }

  // Sleeps until the next tick or a change of plan. False when the worker must end.
  bool Wait(Clock::time_point until) {
    std::unique_lock<std::mutex> lock(mu);
    wake.wait_until(lock, until, [&] { return stop || check_requested; });
    return !stop;
  }
};

Maintenance::Maintenance(DB_ENV* env, bool master) : state_(std::make_shared<State>()) {
  state_->env = env;
  state_->master = master;
  state_->home = vsk::platform::RootedPath(vsk::platform::kStoreHome);
  thread_ = std::thread(Run, state_);
}

Maintenance::~Maintenance() { Stop(kStuckLimit); }

void Maintenance::Run(std::shared_ptr<State> s) {
  vsk::store::SetThisThreadNumber(kWorkerThreadNumber);
  Clock::time_point next_failchk = Clock::now();
  Clock::time_point next_checkpoint = Clock::now() + kCheckpointPeriod;
  if (s->master) s->StartCheckpointWatch(Clock::now());
  for (;;) {
    bool draining, asked;
    Clock::time_point drain_until;
    {
      std::lock_guard<std::mutex> lock(s->mu);
      if (s->stop) break;
      draining = s->draining;
      drain_until = s->drain_until;
      asked = s->check_requested;
      s->check_requested = false;
    }
    const Clock::time_point now = Clock::now();
    if (draining) {
      {
        // The in-flight call has returned: what the store holds in orvd now is this
        // environment's, unless the next one has opened already.
        std::lock_guard<std::mutex> lock(s->mu);
        if (!s->holdings_taken && !s->holdings_closed) {
          s->holdings = TakeHoldings();
          s->holdings_taken = true;
        }
      }
      if (now >= drain_until) {
        // Blocked for good: inside the library at both looks, a second apart.
        std::set<pid_t> second_look = s->Inside();
        for (pid_t pid : s->first_look) {
          if (second_look.count(pid) != 0) s->blocked.push_back(pid);
        }
        break;
      }
      if (s->first_look.empty() && now >= drain_until - std::chrono::seconds(1)) {
        s->first_look = s->Inside();
        s->first_look.insert(0);  // marks the first look as taken
      }
      // Only the detector runs here, never a call that names another process's locker
      // (lock_vec's DB_LOCK_TIMEOUT): a transaction's locker is freed when it ends, which
      // a process still inside a call may do at any moment, and Berkeley DB 5.3 follows
      // a null locker for an id it no longer knows. The timeouts suffice within the
      // watch: no transaction begins in a panicked environment, so each one's waits run
      // out at the latest a transaction timeout after the panic, and so does any wait
      // that had begun before it (lock timeout).
      s->ExpireLockWaits();
      s->Notify();  // nobody joins a drained environment: just release the asker
    } else {
      if (asked || now >= next_failchk) {
        s->CheckForDeadProcesses();
        next_failchk = now + kFailchkPeriod;
        s->Notify();
      }
      s->ExpireLockWaits();
      // Nothing is written into an environment that waits for its recovery.
      if (!s->recovery_needed) {
        s->Flush();
        if (s->master && now >= next_checkpoint) {
          s->Checkpoint(now);
          next_checkpoint = now + kCheckpointPeriod;
        }
      }
    }
    if (!s->Wait(now + kTick)) break;
  }
  s->ended = true;
}

bool Maintenance::RecoveryNeeded() const { return state_->recovery_needed; }

Clock::duration Maintenance::BusyFor() const {
  int64_t since = state_->busy_since.load();
  if (since == 0) return Clock::duration::zero();
  return Clock::now() - Clock::time_point(Clock::duration(since));
}

void Maintenance::RequestReplicationFlush() { state_->flush_requested = true; }

void Maintenance::RequestCheck(int notify_fd) {
  std::lock_guard<std::mutex> lock(state_->mu);
  state_->notify_fd = notify_fd;
  state_->check_requested = true;
  state_->wake.notify_all();
}

bool Maintenance::HoldingsTaken() const {
  std::lock_guard<std::mutex> lock(state_->mu);
  return state_->holdings_taken;
}

bool Maintenance::CloseHoldings() {
  std::lock_guard<std::mutex> lock(state_->mu);
  state_->holdings_closed = true;
  return state_->holdings_taken;
}

Holdings Maintenance::TakenHoldings() const {
  std::lock_guard<std::mutex> lock(state_->mu);
  return state_->holdings;
}

uint64_t Maintenance::CleanChecks() const { return state_->clean_checks; }

std::vector<pid_t> Maintenance::BlockedProcesses() const {
  if (!state_->ended) return {};
  return state_->blocked;
}

void Maintenance::Drain(Clock::time_point until) {
  // The worker's handle must keep working in the panicked environment to run the
  // deadlock detector there; nothing else is done with it.
  state_->env->set_flags(state_->env, DB_NOPANIC, 1);
  std::lock_guard<std::mutex> lock(state_->mu);
  state_->draining = true;
  state_->drain_until = until;
  state_->wake.notify_all();
}

bool Maintenance::Finished() const { return state_->ended; }

Clock::time_point Maintenance::DrainUntil() const {
  std::lock_guard<std::mutex> lock(state_->mu);
  return state_->drain_until;
}

bool Maintenance::Stop(Clock::duration wait) {
  if (!thread_.joinable()) return true;
  {
    std::lock_guard<std::mutex> lock(state_->mu);
    state_->stop = true;
    state_->wake.notify_all();
  }
  const Clock::time_point end = Clock::now() + wait;
  while (!state_->ended && Clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  if (state_->ended) {
    thread_.join();
    return true;
  }
  Log("store maintenance is stuck inside Berkeley DB; abandoning it");
  thread_.detach();
  return false;
}

MaintenanceFigures Maintenance::Figures() const {
  MaintenanceFigures f;
  f.failchk_runs = state_->failchk_runs;
  f.lock_waits_expired = state_->lock_waits_expired;
  f.checkpoints = state_->checkpoints;
  f.log_files_removed = state_->log_files_removed;
  f.replication_flushes = state_->replication_flushes;
  return f;
}

}  // namespace orvd
