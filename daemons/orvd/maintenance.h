// The store's upkeep, on a thread of its own beside orvd's event loop.
//
// Berkeley DB leaves the health of a shared environment to its owner. Every kTick the
// worker expires lock waits that ran past their timeout (lock timeouts are only checked
// when the deadlock detector runs, and a waiter behind a dead holder would otherwise wait
// for ever); every kFailchkPeriod it runs failchk, which aborts the transactions and frees
// the locks and thread slots of processes that died outside the library and reports one
// that died inside it (recovery needed); on the master every kCheckpointPeriod it writes
// a checkpoint when one is due and removes the log files nobody needs (log_retention.h). On the
// standby it runs no failchk (Berkeley DB crashes in it on a replication client; the
// standby's store is reopened with recovery when a registered client dies, reopen.h).
//
// Why a thread: a process killed inside Berkeley DB may leave a mutex or a pinned page
// behind, and a call that needs it (a checkpoint, the deadlock detector) then never
// returns; a panic does not wake it. On its own thread such a call stalls only the
// worker: orvd's loop sees it busy for longer than kStuckLimit and starts a recovery,
// and the stalled thread is abandoned with the old environment.
//
// On demand (RequestCheck) the worker runs failchk at once and then writes to the
// caller's eventfd: orvd answers a registration only after a check that began after the
// registration arrived, so that a new process does not join an environment in which a
// process has just died holding what the joiner would wait on.
//
// Lifecycle: Running --(Drain)--> Draining: the environment has been panicked; the worker
// ignores the panic on its own handle and only expires lock waits, so that processes
// blocked behind the dead one get their timeout, until the drain ends, then stops by
// itself. In the drain's last second it looks twice at Berkeley DB's table of threads:
// a process still inside the library then, with every call of the panicked environment
// failing at its entry, waits on a mutex or a page of the dead process and never comes
// back (BlockedProcesses). Stop() ends the worker from any state, waiting a bounded time.
//
// The worker takes its own thread number in Berkeley DB's thread table: pinned pages are
// tracked per thread slot, and orvd's main thread uses slot 0.
#pragma once

#include <db.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "given_up.h"

namespace orvd {

using Clock = std::chrono::steady_clock;

inline constexpr auto kTick = std::chrono::milliseconds(250);
inline constexpr auto kFailchkPeriod = std::chrono::milliseconds(250);
inline constexpr auto kCheckpointPeriod = std::chrono::seconds(1);
// A call that has not returned after this long waits on a dead process.
inline constexpr auto kStuckLimit = std::chrono::seconds(5);
// A checkpoint is written when it would move the point recovery starts from by this
// much log, or this many minutes after the last when anything has been written since.
inline constexpr uint32_t kCheckpointKbytes = 1024;
inline constexpr uint32_t kCheckpointMinutes = 1;

// What the worker has done, for orvd's health file. Plain snapshot.
struct MaintenanceFigures {
  uint64_t failchk_runs = 0;
  uint64_t lock_waits_expired = 0;
  uint64_t checkpoints = 0;
  uint64_t log_files_removed = 0;
  uint64_t replication_flushes = 0;

  MaintenanceFigures& operator+=(const MaintenanceFigures& o) {
    failchk_runs += o.failchk_runs;
    lock_waits_expired += o.lock_waits_expired;
    checkpoints += o.checkpoints;
    log_files_removed += o.log_files_removed;
    replication_flushes += o.replication_flushes;
    return *this;
  }
};

class Maintenance {
 public:
  // Starts the worker on `env`. `master`: checkpoints and log removal are this
  // environment's to do (a standby gets its checkpoints through replication).
  Maintenance(DB_ENV* env, bool master);
  // Stops the worker (see Stop).
  ~Maintenance();
  Maintenance(const Maintenance&) = delete;
  Maintenance& operator=(const Maintenance&) = delete;

  // failchk found a process that died inside the library: only a recovery helps.
  bool RecoveryNeeded() const;
  // How long the current call into Berkeley DB has been running; zero when idle.
  Clock::duration BusyFor() const;
  // The next cycle re-sends the newest log record (a standby asked to catch up).
  void RequestReplicationFlush();
  // Runs failchk now; `notify_fd` (an eventfd) is written when it is done.
  void RequestCheck(int notify_fd);
  // Clean failchk passes so far (one that found a death inside the store is not counted).
  uint64_t CleanChecks() const;
  // After a drain: processes that were inside the panicked environment at both of the
  // drain's last looks.
  std::vector<pid_t> BlockedProcesses() const;
  // The draining worker has taken stock of what its environment holds in this process.
  bool HoldingsTaken() const;
  // Ends the window in which the draining worker may take stock of what its environment
  // holds in this process (given_up.h): true when it has, false when it is now too late
  // (the next environment is about to open) and nothing will be released.
  bool CloseHoldings();
  // What the environment held, as the worker took stock of it (empty if it did not).
  Holdings TakenHoldings() const;
  // The environment has been panicked: from now on only lock waits are expired, until
  // `until`, and then the worker ends by itself.
  void Drain(Clock::time_point until);
  // The worker has ended by itself (its drain is over).
  bool Finished() const;
  // End of the drain; the epoch when not draining.
  Clock::time_point DrainUntil() const;
  // Asks the worker to end and waits up to `wait`. True when it ended; false when it is
  // stuck inside Berkeley DB, in which case it is abandoned and never touched again.
  bool Stop(Clock::duration wait);

  MaintenanceFigures Figures() const;

 private:
  struct State;
  static void Run(std::shared_ptr<State> state);

  // Shared with the thread, which may outlive this object when it is abandoned.
  std::shared_ptr<State> state_;
  std::thread thread_;
};

}  // namespace orvd
