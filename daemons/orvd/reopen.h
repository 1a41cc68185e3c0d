// orvd's reopen of the store in place, for two reasons:
//  - a switchover: the chassis role (hwframe, which the role file can change) no longer
//    matches the role the store was opened in;
//  - on the standby, a client died while registered: its process may have been inside
//    Berkeley DB (lodexd applying replication, a reader), leaving a mutex or lock that
//    nobody will release. The standby takes no writes but replication's, so reopening it
//    with recovery costs nothing but a short pause, and a wedged standby would never catch
//    up again.
//
//   idle --master to standby--> fencing: every client but lodexd is told the store goes
//                    (negative answer), so nothing more commits here, while lodexd, still
//                    master, brings the standby up to the last commit
//        --lodexd reports the standby in step, or kFenceWait passed--> closing
//   idle --other reason--> closing: every client is told the store goes; registrations
//                    are refused from the start of either path
//   closing --all left for kSettle, or kWait passed--> reopen: close (forgetting every
//                    handle when wedged), open with recovery in the role of the moment --> idle
//
// Recovery must not run under a process still attached, hence the wait for every client
// to leave. Runs on orvd's loop, from the housekeeping tick.
#pragma once

#include <chrono>
#include <cstdint>

#include "server.h"

namespace orvd {

class StoreReopen {
 public:
  using CloseFn = void (*)(bool wedged);
  using OpenFn = bool (*)();

  static constexpr auto kWait = std::chrono::seconds(5);
  static constexpr auto kSettle = std::chrono::milliseconds(300);
  // The standby applies with its log synced at each commit and may be far behind a busy
  // master: the fence waits longer than a close.
  static constexpr auto kFenceWait = std::chrono::seconds(30);

  StoreReopen(CloseFn close, OpenFn open) : close_(close), open_(open) {}

  // Called first on each tick. True while a reopen is in progress: the caller leaves the
  // store alone until it returns false.
  bool Tick(Server& server);
  // A reopen is in progress, or due: a client died on the standby since the last tick (so
  // no registration is accepted into a store that may be wedged).
  bool active() const;
  void Attach(const Server* server) { server_ = server; }

 private:
  CloseFn close_;
  OpenFn open_;
  enum class Phase { kIdle, kFencing, kClosing };
  Phase phase_ = Phase::kIdle;
  bool wedged_ = false;
  Clock::time_point since_{};
  int64_t fenced_at_ms_ = 0;
  uint64_t lost_seen_ = 0;
  const Server* server_ = nullptr;
};

}  // namespace orvd
