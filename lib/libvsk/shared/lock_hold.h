// LockHold: one semaphore of the set held for one short critical section, in the shape
// of the interface table's Begin/Finish(status).
//
//   shared::LockHold hold(VSK_LOCK_UNIT);
//   if (hold.Begin() != VSK_OK) return ...;   // the wait has no time-out (SEM_UNDO)
//   ... change what the semaphore guards ...
//   return hold.Finish(result);               // result, or -1 if the release failed
//
// Invariants:
//  1. At most one semaphore is held at a time and none across a call of the library.
//  2. A hold still taken when the guard goes is released (and a failed release traced by
//     the lock); a process that dies holding it gives it back through SEM_UNDO.
// Who may call: the daemon's thread; a LockHold is not copyable.
#pragma once

#include "vsk/status.h"

namespace vsk::shared {

// The semaphore set's operations for C++ callers; the same results as vsk_lock_init,
// vsk_acquire_lock and vsk_release_lock.
int LockInit(bool create);
int AcquireLock(int n);
int ReleaseLock(int n);
// Takes semaphore `n` only if it is free at once (SEM_UNDO, no wait). 1 when taken (give
// it back with ReleaseLock), 0 when another process holds it, -1 on a failure.
int TryAcquireLock(int n);

class LockHold {
 public:
  explicit LockHold(int semaphore) : semaphore_(semaphore) {}
  LockHold(const LockHold&) = delete;
  LockHold& operator=(const LockHold&) = delete;
  ~LockHold() {
    if (held_) ReleaseLock(semaphore_);
  }

  // Takes the semaphore: VSK_OK, or `on_failure` when the wait failed (traced).
  vsk_status_t Begin(vsk_status_t on_failure = VSK_ERR_FATAL) {
    if (held_) return VSK_OK;
    if (AcquireLock(semaphore_) != 0) return on_failure;
    held_ = true;
    return VSK_OK;
  }

  // Gives the semaphore back and returns `status`, or `on_failure` when the release
  // failed: the work is done, but the next holder may not get in.
  int Finish(int status, int on_failure = VSK_ERR_FATAL) {
    if (!held_) return status;
    held_ = false;
    return ReleaseLock(semaphore_) == 0 ? status : on_failure;
  }

  bool held() const { return held_; }

 private:
  int semaphore_;
  bool held_ = false;
};

}  // namespace vsk::shared
