// orvd's reopen of the store in place, for two reasons:
//  - a switchover: the chassis role (hwframe, which the role file can change) no longer
//    matches the role the store was opened in;
//  - on the standby, a client died while registered: its process may have been inside
//    Berkeley DB (lodexd applying replication, a reader), leaving a mutex or lock that
//    nobody will release. The standby takes no writes but replication's, so reopening it
//    with recovery costs nothing but a short pause, and a wedged standby would never catch
//    up again.
//
//   idle --reason--> closing: every client is told the store goes (negative answer);
//                    registrations are refused
//        --all left for kSettle, or kWait passed--> reopen: close (forgetting every handle
//                    when wedged), open with recovery in the role of the moment --> idle
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
  bool active_ = false;
  bool wedged_ = false;
  Clock::time_point since_{};
  uint64_t lost_seen_ = 0;
  const Server* server_ = nullptr;
};

}  // namespace orvd
