// The three-semaphore lock that guards the main segment's short critical sections.
//
// Semaphore 0 guards the last session id, 1 the unit pools' free lists, 2 the shared heap
// and secondary tables. Each is binary and starts at 1. Every operation carries SEM_UNDO, so
// the kernel gives back a semaphore whose holder died; there is no time-out and no
// IPC_NOWAIT: a waiter blocks for as long as a live holder keeps the semaphore.
//
// Invariants:
//  1. The set id is -1 until a semget succeeds; once obtained it is kept for the life of
//     the process (vsk_close_internal does not reset it), so a later open reuses it.
//  2. The values of an existing set are never reset: only the creator of the set sets them.
//  3. The set is never removed by the library.
//  4. The set is made 0666, or 0660 for one group when the creator runs with VSK_IPC_GROUP
//     (platform/ipc_access.h); the creator also narrows a set it finds.
#include <errno.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include <cstring>

#include "libvsk/base/fault.h"
#include "libvsk/base/trace.h"
#include "libvsk/shared/lock_hold.h"
#include "platform/ipc_access.h"
#include "platform/paths.h"
#include "vsk/shared.h"

namespace vsk::shared {
namespace {

constexpr int kSemaphoreCount = 3;
// Attempts of one operation when waits keep being interrupted by signals.
constexpr int kMaxAttempts = 1000;

int g_semaphore_set = -1;

// semget and semop through the fault seam.
int GetSet(key_t key, int flags) {
  int err;
  if (fault::Inject(fault::Kind::kSemget, &err)) {
    errno = err;
    return -1;
  }
  return semget(key, kSemaphoreCount, flags);
}

int Op(sembuf* op) {
  int err;
  if (fault::Inject(fault::Kind::kSemop, &err)) {
    errno = err;
    return -1;
  }
  return semop(g_semaphore_set, op, 1);
}

// One semop on semaphore `n` (delta -1 or +1), retried on EINTR. Returns 0 or -1 and sets
// *attempts to the number of semop calls made.
int SemaphoreOp(int n, short delta, int* attempts) {
  sembuf op{};
  op.sem_num = static_cast<unsigned short>(n);
  op.sem_op = delta;
  op.sem_flg = SEM_UNDO;
  int count = 0;
  for (;;) {
    int rc = Op(&op);
    ++count;
    if (rc == 0) break;
    if (errno != EINTR || count >= kMaxAttempts) {
      *attempts = count;
      return -1;
    }
  }
  *attempts = count;
  return 0;
}

// The creator narrows the set to the installation's group. On a refusal the set is not
// used: a daemon must not run on objects it was asked to keep closed.
int RestrictSet(bool create, const vsk::platform::IpcAccess& access) {
  if (!create || vsk::platform::ApplySemAccess(g_semaphore_set, access)) return 0;
  VSK_TRACE("Failed to restrict semaphore to group %u: %s", static_cast<unsigned>(access.gid),
            strerror(errno));
  g_semaphore_set = -1;
  return -1;
}

}  // namespace

int LockInit(bool create) {
  if (g_semaphore_set != -1) return 0;
  key_t key = vsk::platform::SemaphoreKey();
  if (key == -1) {
    // Under a root whose key file is missing there is no key to find or create a set by.
    VSK_TRACE("Failed to get semaphore");
    return -1;
  }
  vsk::platform::IpcAccess access;
  if (create) {
    access = vsk::platform::CreatorIpcAccess();
    if (!access.error.empty()) {
      VSK_TRACE("%s", access.error.c_str());
      return -1;
    }
  }
  g_semaphore_set = GetSet(key, 0666);
  if (g_semaphore_set != -1) {
    VSK_TRACE("semaphore exist");
    return RestrictSet(create, access);
  }
  if (!create) {
    VSK_TRACE("Failed to get semaphore");
    return -1;
  }
  VSK_TRACE("semaphore does not exist");
  g_semaphore_set = GetSet(key, IPC_CREAT | access.mode);
  if (g_semaphore_set == -1) {
    VSK_TRACE("Failed to init semaphore");
    return -1;
  }
  if (RestrictSet(create, access) != 0) return -1;
  for (int n = 0; n < kSemaphoreCount; ++n) {
    if (semctl(g_semaphore_set, n, SETVAL, 1) != 0) {
      VSK_TRACE("Failed to reset semaphore");
      return -1;
    }
  }
  return 0;
}

int AcquireLock(int n) {
  int attempts = 0;
  if (SemaphoreOp(n, -1, &attempts) != 0) {
    VSK_TRACE("VSK failed to acquire lock id %d, cnt %d, err %s", n, attempts, strerror(errno));
    return -1;
  }
  if (attempts > 1) VSK_TRACE("INFO: VSK acquire lock cnt %d", attempts);
  return 0;
}

int TryAcquireLock(int n) {
  if (g_semaphore_set == -1) return -1;
  sembuf op{};
  op.sem_num = static_cast<unsigned short>(n);
  op.sem_op = -1;
  op.sem_flg = SEM_UNDO | IPC_NOWAIT;
  for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
    if (Op(&op) == 0) return 1;
    if (errno == EAGAIN) return 0;
    if (errno != EINTR) return -1;
  }
  return -1;
}

int ReleaseLock(int n) {
  int attempts = 0;
  if (SemaphoreOp(n, +1, &attempts) != 0) {
    VSK_TRACE("VSK failed to release lock id %d, cnt %d, err %s", n, attempts, strerror(errno));
    return -1;
  }
  if (attempts > 1) VSK_TRACE("INFO: VSK release lock cnt %d", attempts);
  return 0;
}

}  // namespace vsk::shared

extern "C" {

int vsk_lock_init(bool create) { return vsk::shared::LockInit(create); }

int vsk_acquire_lock(int n) { return vsk::shared::AcquireLock(n); }

int vsk_release_lock(int n) { return vsk::shared::ReleaseLock(n); }

}  // extern "C"
