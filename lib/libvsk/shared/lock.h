// Internal half of the three-semaphore lock (see lock.cc).
#pragma once

namespace vsk::shared {

// Takes semaphore `n` only if it is free at once (SEM_UNDO, no wait). 1 when taken (give
// it back with vsk_release_lock), 0 when another process holds it, -1 on a failure.
int TryAcquireLock(int n);

}  // namespace vsk::shared
