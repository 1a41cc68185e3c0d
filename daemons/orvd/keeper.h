// The store's owner inside orvd: opens the library as orvd, keeps the environment healthy
// (with the maintenance worker), repairs the interface table, and drives a recovery when
// the store cannot go on.
//
// Phases and what moves between them:
//
//   Serving --(failchk: a process died inside the store | the worker is stuck |
//              orvd's own store is not ready)--> Draining --(every told client has
//              closed its link | kDrainGrace)--> Reopening --(the library opens with
//              recovery)--> Serving;  Reopening retries every kReopenRetry.
//
// Starting a recovery: the status word leaves "ready" (clients stop joining), the
// environment is panicked when a process died inside it (every other process then gets
// DB_RUNRECOVERY at its next call instead of waiting on what the dead one held), orvd's
// own close is told not to touch the panicked handles, every registered client is told
// through the link (-11: leave the environment without touching it), and the worker goes
// on expiring lock waits in the old environment for a lock timeout and a second, so that
// processes already blocked behind the dead one get their timeout (lock or transaction,
// both counted from before the panic) and find the panic.
// Reopening runs the library's open as orvd, which recovers the environment (DB_RECOVER)
// and rebuilds the shared state; clients then register again by themselves.
//
// A reopen in place (reopen.h: a switchover, or on the standby a client that died while
// registered) runs first on each tick; while it is in progress nothing else here touches
// the store, and registrations are refused.
//
// Interface table: every tick, a cheap look for a dead holder of its lock; when there is
// one, vsk_failcheck() rebuilds the table.
//
// A process that at the end of the watch is still inside the given-up environment (its
// worker looks twice, a second apart, at Berkeley DB's table of threads), or that still
// waits on a futex inside one of its removed region files (a client told of the recovery,
// checked in /proc), waits on what the dead process held: Berkeley DB never wakes it, and
// it would hang for ever. orvd ends it (SIGKILL, logged and counted) so that its
// supervisor starts it again.
//
// A panicked environment is never closed (a close would flush its old cache and log over
// the recovered store): once its worker has finished, orvd closes the descriptors it had
// on the store's files and unmaps its deleted region files, so that recoveries do not
// use up descriptors and memory. An environment whose worker is stuck keeps them.
//
// Everything here runs on orvd's event loop, except the worker's calls into Berkeley DB.
// The figures are published in "/var/run/orvd_health" (rooted), one "name value" line
// each, rewritten every tick.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "maintenance.h"
#include "platform/evlib.h"
#include "reopen.h"
#include "server.h"
#include "vsk/orvd.h"

namespace orvd {

inline constexpr const char kHealthFile[] = "/var/run/orvd_health";
// How long told clients get to leave the environment before it is recovered: enough for
// a call in progress that is not blocked to end (they take microseconds); a blocked one
// never ends, and one that is idle does not touch the environment.
inline constexpr auto kDrainGrace = std::chrono::milliseconds(500);
inline constexpr auto kReopenRetry = std::chrono::seconds(1);
// The worker expires lock waits in a panicked environment for this long: the lock and
// transaction timeouts (10 seconds each), and a margin.
inline constexpr auto kOldEnvironmentWatch = std::chrono::seconds(11);

class Keeper : public StoreOwner {
 public:
  explicit Keeper(evContext ev);
  ~Keeper() override;
  Keeper(const Keeper&) = delete;
  Keeper& operator=(const Keeper&) = delete;

  // The server whose registrations wait for checks of the store, and the reopen in place
  // that runs before everything else on each tick.
  void Serve(Server* server, StoreReopen* reopen);
  // The two halves of a reopen in place: the close (forgetting every handle when the
  // store may be wedged) and the open in the role of the moment.
  void CloseForReopen(bool wedged);
  bool OpenAfterReopen();
  // Opens the library as orvd. 0 or the registration's status.
  vsk_status_t Open();
  // Closes the library at shutdown. A store that cannot be closed cleanly (a process died
  // inside it, the worker is stuck) is given up without touching its handles.
  vsk_status_t Close();

  // Writes the health file now (it is also rewritten every tick).
  void Publish(const Server& server) const { WriteHealthFile(server); }

  StoreHealth Health() override;
  void OnReplicationRequest() override;
  void OnTick(Server& server) override;
  uint64_t RequestJoinCheck() override;
  bool JoinChecked(uint64_t ticket) override;

 private:
  enum class Phase { kServing, kDraining, kReopening };

  void StartRecovery(Server& server, const char* why, bool died_inside);
  void Reopen(Server& server);
  void CheckInterfaceTable();
  void StartMaintenance();
  void WriteHealthFile(const Server& server) const;

  static void OnCheckDone(evContext ctx, void* uap, int fd, int mask);

  evContext ev_;
  Server* server_ = nullptr;
  StoreReopen* reopen_ = nullptr;
  int check_fd_ = -1;  // eventfd the worker writes when a requested check has ended
  evFileID check_id_{};
  orvd_ctx_t* handle_ = nullptr;
  Phase phase_ = Phase::kServing;
  Clock::time_point phase_since_{};
  std::unique_ptr<Maintenance> maintenance_;
  // Environments given up, with their workers still expiring lock waits there, and the
  // descriptors they hold on the store's files.
  struct OldEnvironment {
    std::unique_ptr<Maintenance> worker;
    std::vector<pid_t> told;  // clients told of the recovery
    bool blocked_ended = false;
  };
  void EndBlockedProcesses(OldEnvironment& old);
  // Each open recovers the store and removes the region files of the environment before
  // it, which may be a killed orvd's whose clients orvd never told: once they have had
  // the watch's time to notice, those still waiting inside its removed files are ended.
  void EndProcessesLeftInRemovedStore(Clock::time_point now);
  Clock::time_point removed_store_check_{};
  bool removed_store_check_due_ = false;
  void ReleaseOldEnvironments(Clock::time_point now);
  std::vector<OldEnvironment> old_envs_;
  uint64_t abandoned_workers_ = 0;
  uint64_t released_environments_ = 0;
  uint64_t blocked_ended_ = 0;
  MaintenanceFigures past_figures_;  // of workers that have ended
  uint64_t recoveries_ = 0;
  uint64_t interface_repairs_ = 0;
  uint64_t reopen_failures_ = 0;
  Clock::duration longest_unready_{};
  const char* last_recovery_reason_ = "none";
};

}  // namespace orvd
