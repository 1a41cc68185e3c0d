// The replication message queue: attach, send, receive, release. See lodex.h for the
// layout and the ring's invariants.
#include "platform/lodex.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>

#include "platform/paths.h"

namespace vsk::platform {
namespace {

constexpr uint32_t kFresh = 0;
constexpr uint32_t kInitialising = 1;
constexpr uint32_t kReady = 2;
constexpr int kInitWaitMs = 2000;

struct Attachment {
  int shmid = -1;
  LodexQueueHeader* queue = nullptr;
  uint8_t* ring = nullptr;
  DB_ENV* dbenv = nullptr;
};

Attachment g_attached;
char g_error[256] = "";

void SetError(const char* what, int err) {
  std::snprintf(g_error, sizeof(g_error), "%s: %s", what, std::strerror(err));
}

uint64_t Align8(uint64_t n) { return (n + 7) & ~uint64_t{7}; }

std::atomic_ref<uint32_t> InitState(LodexQueueHeader* q) {
  return std::atomic_ref<uint32_t>(q->init_state);
}

// REQUIRES: the caller won the race for kInitialising.
bool InitialiseQueue(LodexQueueHeader* q, size_t segment_size) {
  q->capacity = (segment_size - sizeof(LodexQueueHeader)) & ~uint64_t{7};
  q->head = q->tail = 0;
  q->enqueued = q->dequeued = 0;
  q->dropped_full = q->dropped_busy = q->dropped_bytes = 0;
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
  pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
  int err = pthread_mutex_init(&q->lock, &attr);
  pthread_mutexattr_destroy(&attr);
  if (err != 0) {
    SetError("cannot initialise the queue lock", err);
    InitState(q).store(kFresh, std::memory_order_release);
    return false;
  }
  q->magic = kLodexMagic;
  InitState(q).store(kReady, std::memory_order_release);
  return true;
}

bool WaitReady(LodexQueueHeader* q) {
  for (int i = 0; i < kInitWaitMs; ++i) {
    if (InitState(q).load(std::memory_order_acquire) == kReady) return q->magic == kLodexMagic;
    usleep(1000);
  }
  std::snprintf(g_error, sizeof(g_error), "replication message queue never became ready");
  return false;
}

// A lock taken on a robust mutex whose holder died: the ring is consistent by invariant
// 2 (lodex.h), so it only needs to be marked so.
int Recover(LodexQueueHeader* q, int err) {
  if (err == EOWNERDEAD) {
    pthread_mutex_consistent(&q->lock);
    return 0;
  }
  return err;
}

int64_t MonotonicNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

// The lock of a send: another sender's copy is waited out, a stopped holder is not (after
// kLodexSendLockWaitNs the result is EBUSY).
int LockForSend(LodexQueueHeader* q) {
  int err = Recover(q, pthread_mutex_trylock(&q->lock));
  if (err != EBUSY) return err;
  const int64_t deadline = MonotonicNs() + kLodexSendLockWaitNs;
  do {
    sched_yield();
    err = Recover(q, pthread_mutex_trylock(&q->lock));
  } while (err == EBUSY && MonotonicNs() < deadline);
  return err;
}

void CopyIn(const Attachment& a, uint64_t pos, const void* src, uint32_t n) {
  uint64_t cap = a.queue->capacity;
  uint64_t at = pos % cap;
  uint64_t first = n < cap - at ? n : cap - at;
  std::memcpy(a.ring + at, src, first);
  if (first < n) std::memcpy(a.ring, static_cast<const uint8_t*>(src) + first, n - first);
}

void CopyOut(const Attachment& a, uint64_t pos, void* dst, uint32_t n) {
  uint64_t cap = a.queue->capacity;
  uint64_t at = pos % cap;
  uint64_t first = n < cap - at ? n : cap - at;
  std::memcpy(dst, a.ring + at, first);
  if (first < n) std::memcpy(static_cast<uint8_t*>(dst) + first, a.ring, n - first);
}

uint32_t SizeOf(const DBT* d) { return d != nullptr && d->data != nullptr ? d->size : 0; }

}  // namespace

key_t LodexKey() { return ftok(RootedPath(kLodexKeyFile).c_str(), kLodexProject); }

}  // namespace vsk::platform

using vsk::platform::g_attached;
using vsk::platform::LodexQueueHeader;
using vsk::platform::LodexRecordHeader;

extern "C" {

int lodex_init(DB_ENV* dbenv, uint32_t size) {
  using namespace vsk::platform;
  if (g_attached.queue != nullptr) {
    g_attached.dbenv = dbenv;
    return 0;
  }
  if (size < 2 * sizeof(LodexRecordHeader)) {
    std::snprintf(g_error, sizeof(g_error), "queue size %u is too small", size);
    return -1;
  }
  std::string key_file = RootedPath(kLodexKeyFile);
  int fd = open(key_file.c_str(), O_CREAT | O_RDONLY, 0644);  // the key needs the file
  if (fd >= 0) close(fd);
  key_t key = LodexKey();
  if (key == -1) {
    SetError(key_file.c_str(), errno);
    return -1;
  }
  size_t wanted = sizeof(LodexQueueHeader) + Align8(size);
  int shmid = shmget(key, wanted, IPC_CREAT | 0660);
  if (shmid < 0 && errno == EINVAL) shmid = shmget(key, 0, 0);  // exists with another size
  if (shmid < 0) {
    SetError("cannot get the replication queue segment", errno);
    return -1;
  }
  shmid_ds ds{};
  if (shmctl(shmid, IPC_STAT, &ds) != 0) {
    SetError("cannot stat the replication queue segment", errno);
    return -1;
  }
  if (ds.shm_segsz < sizeof(LodexQueueHeader) + 64) {
    std::snprintf(g_error, sizeof(g_error), "replication queue segment of %zu bytes is too small",
                  static_cast<size_t>(ds.shm_segsz));
    return -1;
  }
  void* base = shmat(shmid, nullptr, 0);
  if (base == reinterpret_cast<void*>(-1)) {
    SetError("cannot attach the replication queue segment", errno);
    return -1;
  }
  auto* q = static_cast<LodexQueueHeader*>(base);
  uint32_t expected = kFresh;
  bool ok = InitState(q).compare_exchange_strong(expected, kInitialising,
                                                 std::memory_order_acq_rel)
                ? InitialiseQueue(q, ds.shm_segsz)
                : WaitReady(q);
  if (ok && sizeof(LodexQueueHeader) + q->capacity > ds.shm_segsz) {
    std::snprintf(g_error, sizeof(g_error), "replication queue header is corrupt");
    ok = false;
  }
  if (!ok) {
    shmdt(base);
    return -1;
  }
  g_attached.shmid = shmid;
  g_attached.queue = q;
  g_attached.ring = static_cast<uint8_t*>(base) + sizeof(LodexQueueHeader);
  g_attached.dbenv = dbenv;
  return 0;
}

int lodex_send(DB_ENV*, const DBT* control, const DBT* rec, const DB_LSN* lsnp, int envid,
               uint32_t flags) noexcept {
  using namespace vsk::platform;
  LodexQueueHeader* q = g_attached.queue;
  if (q == nullptr) return 0;  // nothing to ship through; replication asks again later
  const uint32_t csize = SizeOf(control);
  const uint32_t rsize = SizeOf(rec);
  const uint64_t total = Align8(uint64_t{sizeof(LodexRecordHeader)} + csize + rsize);

  int err = LockForSend(q);
  if (err != 0) {
    // Counted without the lock: this word is only ever added to, atomically.
    std::atomic_ref<uint64_t>(q->dropped_busy).fetch_add(1, std::memory_order_relaxed);
    std::atomic_ref<uint64_t>(q->dropped_bytes).fetch_add(csize + rsize,
                                                          std::memory_order_relaxed);
    return 0;
  }
  if (total > q->capacity - (q->tail - q->head)) {
    ++q->dropped_full;
    std::atomic_ref<uint64_t>(q->dropped_bytes).fetch_add(csize + rsize,
                                                          std::memory_order_relaxed);
  } else {
    LodexRecordHeader h{};
    h.total = static_cast<uint32_t>(total);
    h.envid = envid;
    h.flags = flags;
    h.lsn_file = lsnp != nullptr ? lsnp->file : 0;
    h.lsn_offset = lsnp != nullptr ? lsnp->offset : 0;
    h.control_size = csize;
    h.rec_size = rsize;
    uint64_t pos = q->tail;
    CopyIn(g_attached, pos, &h, sizeof(h));
    if (csize > 0) CopyIn(g_attached, pos + sizeof(h), control->data, csize);
    if (rsize > 0) CopyIn(g_attached, pos + sizeof(h) + csize, rec->data, rsize);
    q->tail = pos + total;  // publishes the record (invariant 2)
    ++q->enqueued;
  }
  pthread_mutex_unlock(&q->lock);
  return 0;
}

int lodex_receive(lodex_msg_t* msg, void* buffer, uint32_t room) {
  using namespace vsk::platform;
  LodexQueueHeader* q = g_attached.queue;
  if (q == nullptr) {
    std::snprintf(g_error, sizeof(g_error), "not attached to the replication queue");
    return -1;
  }
  int err = Recover(q, pthread_mutex_lock(&q->lock));
  if (err != 0) {
    SetError("cannot lock the replication queue", err);
    return -1;
  }
  int result = 0;
  if (q->head != q->tail) {
    LodexRecordHeader h;
    CopyOut(g_attached, q->head, &h, sizeof(h));
    msg->envid = h.envid;
    msg->flags = h.flags;
    msg->lsn.file = h.lsn_file;
    msg->lsn.offset = h.lsn_offset;
    msg->control_size = h.control_size;
    msg->rec_size = h.rec_size;
    msg->control = msg->rec = nullptr;
    if (uint64_t{h.control_size} + h.rec_size > room) {
      result = -2;
    } else {
      auto* out = static_cast<uint8_t*>(buffer);
      CopyOut(g_attached, q->head + sizeof(h), out, h.control_size);
      CopyOut(g_attached, q->head + sizeof(h) + h.control_size, out + h.control_size,
              h.rec_size);
      msg->control = out;
      msg->rec = out + h.control_size;
      q->head += h.total;
      ++q->dequeued;
      result = 1;
    }
  }
  pthread_mutex_unlock(&q->lock);
  return result;
}

int lodex_get_stats(lodex_stats_t* out) {
  LodexQueueHeader* q = g_attached.queue;
  if (q == nullptr) return -1;
  int err = vsk::platform::Recover(q, pthread_mutex_lock(&q->lock));
  if (err != 0) return -1;
  out->capacity = q->capacity;
  out->used = q->tail - q->head;
  out->enqueued = q->enqueued;
  out->dequeued = q->dequeued;
  out->dropped_full = q->dropped_full;
  out->dropped_busy = std::atomic_ref<uint64_t>(q->dropped_busy).load();
  out->dropped_bytes = std::atomic_ref<uint64_t>(q->dropped_bytes).load();
  pthread_mutex_unlock(&q->lock);
  return 0;
}

int lodex_release(int remove) {
  using namespace vsk::platform;
  if (g_attached.queue == nullptr) return 0;
  int shmid = g_attached.shmid;
  void* base = g_attached.queue;
  g_attached = Attachment{};
  int ret = 0;
  if (shmdt(base) != 0) {
    SetError("cannot detach the replication queue", errno);
    ret = -1;
  }
  if (remove != 0 && shmctl(shmid, IPC_RMID, nullptr) != 0 && errno != EINVAL) {
    SetError("cannot remove the replication queue", errno);
    ret = -1;
  }
  return ret;
}

const char* lodex_get_err_msg(void) { return vsk::platform::g_error; }

}  // extern "C"
