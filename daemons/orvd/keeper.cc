// See keeper.h.
#include "keeper.h"

#include "given_up.h"

#include <db.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <future>
#include <thread>

#include "libvsk/shared/intf_file.h"
#include "libvsk/store/env.h"
#include "libvsk/store/view.h"
#include "log.h"
#include "platform/paths.h"
#include "vsk/vsk.h"

namespace orvd {
namespace {

// Thread number in Berkeley DB's thread table of the one-off helper that runs orvd's last
// calls at shutdown (the main thread is 0, the worker 1).
constexpr db_threadid_t kShutdownThreadNumber = 2;
constexpr auto kShutdownCallLimit = std::chrono::seconds(2);

void TraceSink(void*, int, const char* format, va_list args) { VLog(format, args); }

void SetStatusWord(uint32_t value) {
  if (vsk_db_status != nullptr) std::atomic_ref<uint32_t>(*vsk_db_status).store(value);
}

const char* PhaseName(int phase) {
  static const char* const kNames[] = {"serving", "draining", "reopening"};
  return kNames[phase];
}

// orvd's last words to the environment before a clean close: a dead process inside it
// makes the close unsafe, and a checkpoint makes the next start's recovery short. Run on
// a helper thread that is abandoned if a call does not return in time. True when the
// environment may be closed normally. The standby gets no failchk (Berkeley DB crashes in
// it on a replication client): its caller judges deaths there by the reopen's record.
bool FinalCheck(DB_ENV* env, bool master) {
  auto done = std::make_shared<std::promise<bool>>();
  std::future<bool> result = done->get_future();
  std::thread([env, master, done] {
    vsk::store::SetThisThreadNumber(kShutdownThreadNumber);
    int ret = master ? env->failchk(env, 0) : 0;
    if (ret == EBUSY) ret = env->failchk(env, 0);
    bool clean = ret == 0;
    if (clean && master) env->txn_checkpoint(env, 0, 0, 0);
    done->set_value(clean);
  }).detach();
  if (result.wait_for(kShutdownCallLimit) != std::future_status::ready) {
    Log("the store does not answer at shutdown; leaving it without closing");
    return false;
  }
  if (!result.get()) {
    Log("a process died inside the store; leaving it without closing");
    return false;
  }
  return true;
}

}  // namespace

Keeper::Keeper(evContext ev) : ev_(ev) {}

Keeper::~Keeper() {
  for (auto& old : old_envs_) old.worker->Stop(Clock::duration::zero());
  if (check_fd_ >= 0) {
    __evDeselectFD(ev_, check_id_);
    close(check_fd_);
  }
}

void Keeper::Serve(Server* server, StoreReopen* reopen) {
  server_ = server;
  reopen_ = reopen;
  check_fd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (check_fd_ < 0 || __evSelectFD(ev_, check_fd_, EV_READ, OnCheckDone, this, &check_id_) != 0) {
    Log("cannot watch the store's checks: registrations are answered at the tick");
  }
}

void Keeper::OnCheckDone(evContext, void* uap, int fd, int) {
  uint64_t count;
  (void)!read(fd, &count, sizeof count);
  auto* self = static_cast<Keeper*>(uap);
  if (self->server_ != nullptr) self->server_->AnswerPendingJoins();
}

uint64_t Keeper::RequestJoinCheck() {
  if (!maintenance_) return 0;
  uint64_t ticket = maintenance_->CleanChecks();
  maintenance_->RequestCheck(check_fd_);
  return ticket;
}

bool Keeper::JoinChecked(uint64_t ticket) {
  return maintenance_ && maintenance_->CleanChecks() > ticket;
}

vsk_status_t Keeper::Open() {
  handle_ = orvd_init_handle();
  if (handle_ == nullptr) return VSK_ERR_NOMEM;
  orvd_set_trace_callback(handle_, nullptr, TraceSink);
  orvd_set_reg_type_event(handle_, &ev_);
  vsk_status_t rc = orvd_register(handle_);
  if (rc != VSK_OK) {
    Log("cannot open the store: %d (%s)", rc, vsk_get_err_msg(rc));
    orvd_unregister(&handle_);
    return rc;
  }
  StartMaintenance();
  removed_store_check_ = Clock::now() + kOldEnvironmentWatch;
  removed_store_check_due_ = true;
  return VSK_OK;
}

void Keeper::StartMaintenance() {
  DB_ENV* env = nullptr;
  if (vsk_db_get_dbenv(&env) == 0 && env != nullptr) {
    maintenance_ = std::make_unique<Maintenance>(env, vsk_db_rep_is_master());
  }
}

void Keeper::CloseForReopen(bool wedged) {
  if (maintenance_) {
    if (!maintenance_->Stop(kStuckLimit)) wedged = true;
    maintenance_.reset();
  }
  if (wedged) {
    vsk_in_panic = true;
    DB_ENV* env = nullptr;
    if (vsk_db_get_dbenv(&env) == 0 && env != nullptr) GivenUpEnvironments().push_back(env);
  }
  orvd_unregister(&handle_);
}

bool Keeper::OpenAfterReopen() {
  if (Open() != VSK_OK) return false;
  phase_ = Phase::kServing;
  return true;
}

vsk_status_t Keeper::Close() {
  bool clean = !vsk_in_panic;
  if (maintenance_) {
    if (maintenance_->RecoveryNeeded()) clean = false;
    if (!maintenance_->Stop(kShutdownCallLimit)) clean = false;
    past_figures_ += maintenance_->Figures();
    maintenance_.reset();
  }
  // Workers still watching given-up environments end with orvd.
  for (auto& old : old_envs_) old.worker->Stop(std::chrono::milliseconds(500));
  DB_ENV* env = nullptr;
  const bool master = vsk_db_rep_is_master();
  // A client that died in the standby's store since its last reopen may have left a mutex
  // or a lock there: the store is left for the next start's recovery.
  if (!master && reopen_ != nullptr && reopen_->active()) clean = false;
  if (clean && vsk_db_get_dbenv(&env) == 0 && env != nullptr) clean = FinalCheck(env, master);
  // A store that cannot be closed cleanly is left as it is: the next orvd recovers it.
  if (!clean) {
    vsk_in_panic = true;
    if (env != nullptr || vsk_db_get_dbenv(&env) == 0) GivenUpEnvironments().push_back(env);
  }
  return orvd_unregister(&handle_);
}

StoreHealth Keeper::Health() {
  if (phase_ != Phase::kServing || handle_ == nullptr) return {false, VSK_ERR_NOT_STARTED};
  if (reopen_ != nullptr && reopen_->active()) return {false, VSK_ERR_NOT_STARTED};
  const int32_t state = vsk::store::View().state();
  if (vsk_in_panic || state == VSK_ENV_PANIC) return {false, VSK_ERR_RECOVERING};
  if (state == VSK_ENV_NEEDS_RECOVERY) return {false, VSK_ERR_SECONDARY_RECOVERY};
  if (!orvd_is_registered()) return {false, VSK_ERR_NOT_STARTED};
  if (vsk_db_rep_is_master()) {
    bool ok = state == VSK_ENV_READY && vsk_db_status != nullptr &&
              *vsk_db_status == VSK_DB_STATUS_READY;
    return {ok, ok ? 0 : VSK_ERR_NOT_STARTED};
  }
  bool ok = state == VSK_ENV_REPLICATING || state == VSK_ENV_READY;
  return {ok, ok ? 0 : VSK_ERR_REP_NOT_STARTED};
}

void Keeper::OnReplicationRequest() {
  if (maintenance_) maintenance_->RequestReplicationFlush();
}

void Keeper::OnTick(Server& server) {
  const Clock::time_point now = Clock::now();
  ReleaseOldEnvironments(now);
  EndProcessesLeftInRemovedStore(now);
  // Before anything touches a store that a reopen in place may be closing.
  if (reopen_ != nullptr && phase_ == Phase::kServing && reopen_->Tick(server)) {
    WriteHealthFile(server);
    return;
  }
  switch (phase_) {
    case Phase::kServing:
      if (handle_ == nullptr) {
        phase_ = Phase::kReopening;
        phase_since_ = now;
      } else if (maintenance_ && maintenance_->RecoveryNeeded()) {
        StartRecovery(server, "a process died inside the store", true);
      } else if (maintenance_ && maintenance_->BusyFor() > kStuckLimit) {
        StartRecovery(server, "store maintenance waits on a dead process", true);
      } else if (!Health().ready) {
        StartRecovery(server, "orvd's store is not ready", vsk_in_panic);
      } else {
        CheckInterfaceTable();
      }
      break;
    case Phase::kDraining:
      if (server.ToldStillOpen() == 0 || now - phase_since_ >= kDrainGrace) {
        // The worker takes stock of what the given-up environment holds before the next
        // one opens; after a while without it, that stock is not taken at all.
        OldEnvironment* last = old_envs_.empty() ? nullptr : &old_envs_.back();
        if (last != nullptr && !last->worker->HoldingsTaken() &&
            now - phase_since_ < kDrainGrace * 4) {
          break;
        }
        if (last != nullptr && !last->worker->CloseHoldings()) {
          Log("the given-up store's descriptors and mappings are kept: its worker is busy");
        }
        Reopen(server);
      }
      break;
    case Phase::kReopening:
      if (now - phase_since_ >= kReopenRetry) Reopen(server);
      break;
  }
  WriteHealthFile(server);
}

void Keeper::StartRecovery(Server& server, const char* why, bool died_inside) {
  const Clock::time_point now = Clock::now();
  Log("store recovery: %s", why);
  ++recoveries_;
  last_recovery_reason_ = why;
  phase_ = Phase::kDraining;
  phase_since_ = now;
  // Clients of the master stop joining before anything else happens.
  SetStatusWord(VSK_DB_STATUS_RECOVERING);
  DB_ENV* env = nullptr;
  vsk_db_get_dbenv(&env);
  if (died_inside && env != nullptr) {
    // Processes that would wait on what the dead one holds fail at their next call
    // instead; orvd's own close must then leave the handles alone.
    int ret = env->set_flags(env, DB_PANIC_ENVIRONMENT, 1);
    if (ret != 0) Log("cannot panic the environment: %s", db_strerror(ret));
    vsk_in_panic = true;
    // The handle is never closed: it stays referenced for the life of the process.
    GivenUpEnvironments().push_back(env);
  }
  OldEnvironment* given_up = nullptr;
  if (maintenance_) {
    if (died_inside) {
      maintenance_->Drain(now + kOldEnvironmentWatch);
      old_envs_.push_back({std::move(maintenance_), {}});
      given_up = &old_envs_.back();
    } else if (!maintenance_->Stop(kStuckLimit)) {
      vsk_in_panic = true;  // a stuck worker means the handles are not safe to close
      ++abandoned_workers_;
      maintenance_.reset();
    } else {
      maintenance_.reset();
    }
  }
  std::vector<pid_t> told =
      server.BroadcastStoreDown(died_inside || vsk_in_panic ? VSK_ERR_RECOVERING : VSK_ERR_NOT_STARTED);
  if (given_up != nullptr) given_up->told = std::move(told);
}

void Keeper::ReleaseOldEnvironments(Clock::time_point now) {
  // A worker goes when its watch is over; one still inside Berkeley DB well after that
  // waits on the dead process for ever and is abandoned with everything its environment
  // holds.
  for (auto it = old_envs_.begin(); it != old_envs_.end();) {
    Maintenance& w = *it->worker;
    // At the end of the watch, whether or not the worker could finish its looks.
    if (now >= w.DrainUntil() && (w.Finished() || now >= w.DrainUntil() + kTick * 2)) {
      EndBlockedProcesses(*it);
    }
    if (!w.Finished() && now <= w.DrainUntil() + kStuckLimit) {
      ++it;
      continue;
    }
    const bool stopped = w.Stop(Clock::duration::zero());
    EndBlockedProcesses(*it);
    if (stopped) {
      Release(w.TakenHoldings());
      ++released_environments_;
    } else {
      ++abandoned_workers_;
    }
    past_figures_ += w.Figures();
    it = old_envs_.erase(it);
  }
}

void Keeper::EndBlockedProcesses(OldEnvironment& old) {
  if (old.blocked_ended) return;
  old.blocked_ended = true;
  std::vector<pid_t> blocked = old.worker->BlockedProcesses();
  for (pid_t pid : old.told) {
    if (WaitsInsideGivenUpStore(pid)) blocked.push_back(pid);
  }
  std::sort(blocked.begin(), blocked.end());
  blocked.erase(std::unique(blocked.begin(), blocked.end()), blocked.end());
  for (pid_t pid : blocked) {
    if (pid <= 0 || pid == getpid() || kill(pid, 0) != 0) continue;
    Log("pid %d is blocked for good inside the given-up store; ending it", static_cast<int>(pid));
    kill(pid, SIGKILL);
    ++blocked_ended_;
  }
}

void Keeper::EndProcessesLeftInRemovedStore(Clock::time_point now) {
  if (!removed_store_check_due_ || now < removed_store_check_) return;
  removed_store_check_due_ = false;
  for (pid_t pid : ProcessesWaitingInsideRemovedStore()) {
    Log("pid %d is blocked for good inside the store of an earlier environment; ending it",
        static_cast<int>(pid));
    kill(pid, SIGKILL);
    ++blocked_ended_;
  }
}

void Keeper::Reopen(Server&) {
  const Clock::time_point started = phase_since_;
  phase_since_ = Clock::now();
  if (handle_ != nullptr) orvd_unregister(&handle_);
  if (Open() != VSK_OK) {
    ++reopen_failures_;
    phase_ = Phase::kReopening;
    return;
  }
  phase_ = Phase::kServing;
  longest_unready_ = std::max(longest_unready_, Clock::now() - started);
  Log("store reopened with recovery");
}

void Keeper::CheckInterfaceTable() {
  if (!vsk::shared::intf::DeadHolderSuspected()) return;
  Log("interface table: a process died holding its lock; rebuilding it");
  vsk_status_t rc = vsk_failcheck();
  if (rc == VSK_OK) {
    ++interface_repairs_;
  } else {
    Log("interface table rebuild failed: %d (%s)", rc, vsk_get_err_msg(rc));
  }
}

void Keeper::WriteHealthFile(const Server& server) const {
  MaintenanceFigures m = past_figures_;
  if (maintenance_) m += maintenance_->Figures();
  for (const auto& old : old_envs_) m += old.worker->Figures();
  ServerFigures s = server.Figures();
  const std::string path = vsk::platform::RootedPath(kHealthFile);
  const std::string tmp = path + ".tmp";
  {
    std::ofstream out(tmp, std::ios::trunc);
    if (!out) return;
    out << "pid " << getpid() << "\n"
        << "phase " << PhaseName(static_cast<int>(phase_)) << "\n"
        << "status_word " << (vsk_db_status != nullptr ? static_cast<long>(*vsk_db_status) : -1)
        << "\n"
        << "recoveries " << recoveries_ << "\n"
        << "last_recovery_reason " << last_recovery_reason_ << "\n"
        << "longest_unready_ms "
        << std::chrono::duration_cast<std::chrono::milliseconds>(longest_unready_).count() << "\n"
        << "reopen_failures " << reopen_failures_ << "\n"
        << "interface_repairs " << interface_repairs_ << "\n"
        << "failchk_runs " << m.failchk_runs << "\n"
        << "lock_waits_expired " << m.lock_waits_expired << "\n"
        << "checkpoints " << m.checkpoints << "\n"
        << "log_files_removed " << m.log_files_removed << "\n"
        << "replication_flushes " << m.replication_flushes << "\n"
        << "old_environments_watched " << old_envs_.size() << "\n"
        << "released_environments " << released_environments_ << "\n"
        << "abandoned_workers " << abandoned_workers_ << "\n"
        << "blocked_processes_ended " << blocked_ended_ << "\n"
        << "connections " << s.connections << "\n"
        << "registered " << s.registered << "\n"
        << "accepted " << s.accepted << "\n"
        << "registrations " << s.registrations << "\n"
        << "refused " << s.refused << "\n"
        << "dropped " << s.dropped << "\n"
        << "accept_backoffs " << s.accept_backoffs << "\n";
  }
  std::rename(tmp.c_str(), path.c_str());
}

}  // namespace orvd
