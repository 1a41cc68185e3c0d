// A second process that holds a client record's write lock, and a trace hook that tells it
// when to let go: the lock is released after a given number of failed passes, seen in the
// traces of the process that waits, never after a time.
#pragma once

#include <db.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <thread>

#include "session_fixture.h"

namespace vsk::test {

inline int g_signal_fd = -1;
inline const char* g_signal_on = nullptr;
inline int g_signal_after = 0;
inline std::atomic<int> g_seen{0};

// A trace hook that records like the harness and, on the `g_signal_after`th trace holding
// `g_signal_on`, writes one byte to `g_signal_fd`: the lock holder then lets go.
inline void SignallingTrace(void* handle, int level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  CaptureTraceV(handle, level, format, copy);
  va_end(copy);
  char text[512];
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  if (g_signal_on != nullptr && std::strstr(text, g_signal_on) != nullptr &&
      ++g_seen == g_signal_after) {
    char b = 1;
    (void)!write(g_signal_fd, &b, 1);
  }
}

// Holds the write lock of client record `id` in an open transaction (with the lock
// detector running, so that waiters time out) until a byte arrives on `fd` (then waits
// for Go() before it ends) or, with `fd` -1, until Go().
inline void HoldRecordLock(Child& holder, uint64_t id, int fd) {
  holder.Start([id, fd](Child::Channel& ch) {
    orvd_ctx link{};
    if (UpAsClient(&link) != 0) return 1;
    vsk_db_txn_t txn{};
    vsk_client_session_t* rec = nullptr;
    if (vsk_db_start_txn(&txn) != 0 || vsk_db_get_client_session(&txn, &id, &rec, true) != 0)
      return 2;
    DB_ENV* env = nullptr;
    vsk_db_get_dbenv(&env);
    std::atomic<bool> stop{false};
    std::thread detector([&] {
      while (!stop) {
        env->lock_detect(env, 0, DB_LOCK_EXPIRE, nullptr);
        usleep(20000);
      }
    });
    ch.Ready();
    char b;
    if (fd >= 0) (void)!read(fd, &b, 1);
    if (fd < 0) ch.WaitGo();
    stop = true;
    detector.join();
    vsk_db_release_client_session(rec, true);
    vsk_db_abort_txn(&txn, 0);
    if (fd >= 0) ch.WaitGo();
    vsk_close_internal();
    return 0;
  });
}

// Lock and transaction time-outs of 0.1 s for the waits of this process.
inline void ShortTimeouts() {
  DB_ENV* env = nullptr;
  vsk_db_get_dbenv(&env);
  env->set_timeout(env, 100000, DB_SET_LOCK_TIMEOUT);
  env->set_timeout(env, 100000, DB_SET_TXN_TIMEOUT);
}

}  // namespace vsk::test
