// Client side of the replication message service: one outbound queue per host, shared by
// every process of the store, which the replication daemon drains and ships to the other
// routing engine.
//
// The queue is a System V segment keyed by ftok(RootedPath("/mfs/var/tmp/lodex_shmem"),
// kLodexProject). It holds a header (LodexQueueHeader, pinned below) and a byte ring of
// messages. The first process to attach creates and initialises it; the rest attach.
//
// Senders are Berkeley DB's transport callback, called inside commits. A send must never
// block nor fail a commit: a message that does not fit, or that finds the queue's lock
// still busy after kLodexSendLockWaitNs, is dropped and counted in the header.
// Replication repairs a gap by asking again; a stalled commit could not be repaired.
//
// Invariants of the ring (all positions are byte counts that only grow):
//  1. head <= tail <= head + capacity.
//  2. [head, tail) holds whole records, each a LodexRecordHeader, the control bytes, the
//     record bytes, padded to 8. A record becomes visible only when tail moves past it,
//     after all its bytes are written; it leaves only when head moves past it, after it
//     has been copied out. So a process that dies holding the lock leaves a consistent
//     queue, and the next holder just marks the robust mutex consistent.
//  3. head, tail and the counters change only under the lock.
//
// Who may call: lodex_init/lodex_release/lodex_send from any process of the store (the
// store calls them); lodex_receive from the replication daemon. One attachment per
// process; not for use from several threads of one process except lodex_send.
#pragma once

#include <db.h>
#include <pthread.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace vsk::platform {

// Project number of the queue's key: 'L'. Other users of the key file must pick others.
inline constexpr int kLodexProject = 0x4c;
inline constexpr uint32_t kLodexMagic = 0x4c4f4458;  // "LODX"
// How long a send tries for the queue's lock before it drops its message. Holders keep
// the lock for one copy of a message, so this only runs out when a holder is stopped.
inline constexpr int64_t kLodexSendLockWaitNs = 500'000;

struct LodexQueueHeader {
  uint32_t magic;          // kLodexMagic once initialised
  uint32_t init_state;     // 0 fresh, 1 being initialised, 2 ready (atomic)
  uint64_t capacity;       // bytes of the ring after this header; a multiple of 8
  uint64_t head;           // consumer position
  uint64_t tail;           // producer position
  uint64_t enqueued;       // messages put in
  uint64_t dequeued;       // messages taken out
  uint64_t dropped_full;   // messages dropped for want of room
  uint64_t dropped_busy;   // messages dropped because the lock stayed busy
  uint64_t dropped_bytes;  // payload bytes of all dropped messages
  pthread_mutex_t lock;    // process-shared, robust
  uint8_t reserved[16];
};
static_assert(sizeof(pthread_mutex_t) == 40, "x86_64 glibc mutex");
static_assert(offsetof(LodexQueueHeader, magic) == 0);
static_assert(offsetof(LodexQueueHeader, init_state) == 4);
static_assert(offsetof(LodexQueueHeader, capacity) == 8);
static_assert(offsetof(LodexQueueHeader, head) == 16);
static_assert(offsetof(LodexQueueHeader, tail) == 24);
static_assert(offsetof(LodexQueueHeader, enqueued) == 32);
static_assert(offsetof(LodexQueueHeader, dequeued) == 40);
static_assert(offsetof(LodexQueueHeader, dropped_full) == 48);
static_assert(offsetof(LodexQueueHeader, dropped_busy) == 56);
static_assert(offsetof(LodexQueueHeader, dropped_bytes) == 64);
static_assert(offsetof(LodexQueueHeader, lock) == 72);
static_assert(sizeof(LodexQueueHeader) == 128);

// One message in the ring.
struct LodexRecordHeader {
  uint32_t total;         // bytes of the whole record, header and padding included
  int32_t envid;          // target environment id (DB_EID_BROADCAST for all)
  uint32_t flags;         // Berkeley DB's send flags
  uint32_t lsn_file;
  uint32_t lsn_offset;
  uint32_t control_size;
  uint32_t rec_size;
  uint32_t reserved;
};
static_assert(sizeof(LodexRecordHeader) == 32);
static_assert(offsetof(LodexRecordHeader, envid) == 4);
static_assert(offsetof(LodexRecordHeader, control_size) == 20);
static_assert(offsetof(LodexRecordHeader, rec_size) == 24);

// The queue's System V key under the root in force; -1 if the key file is missing.
key_t LodexKey();

}  // namespace vsk::platform

extern "C" {

// A message taken from the queue. `control` and `rec` point into the caller's buffer.
typedef struct lodex_msg {
  int envid;
  uint32_t flags;
  DB_LSN lsn;
  uint32_t control_size;
  uint32_t rec_size;
  void *control;
  void *rec;
} lodex_msg_t;

typedef struct lodex_stats {
  uint64_t capacity;
  uint64_t used;
  uint64_t enqueued;
  uint64_t dequeued;
  uint64_t dropped_full;
  uint64_t dropped_busy;
  uint64_t dropped_bytes;
} lodex_stats_t;

// Attaches this process to the queue, creating it with `size` bytes of ring if it does
// not exist (an existing queue keeps its size). `dbenv` may be null (the reader).
// Returns 0, or -1 with the reason in lodex_get_err_msg(). Attaching again is a no-op.
int lodex_init(DB_ENV *dbenv, uint32_t size);

// Berkeley DB's transport callback (rep_set_transport). Always returns 0.
int lodex_send(DB_ENV *dbenv, const DBT *control, const DBT *rec, const DB_LSN *lsnp,
               int envid, uint32_t flags) noexcept;

// Detaches this process. With `remove` non-zero also marks the segment for removal.
// 0, or -1 with the reason in lodex_get_err_msg(). Not attached: 0.
int lodex_release(int remove);

// The text of the last failure of this process.
const char *lodex_get_err_msg(void);

// Takes the oldest message: 1 with `msg` filled and its bytes copied into `buffer`; 0
// when the queue is empty; -2 when `room` is too small (sizes filled in, the message
// stays queued); -1 when not attached.
int lodex_receive(lodex_msg_t *msg, void *buffer, uint32_t room);

// The queue's counters. 0, or -1 when not attached.
int lodex_get_stats(lodex_stats_t *out);

}  // extern "C"
