// A second process that holds a client record's write lock, and a trace hook that tells it
// when to let go: the lock is released after a given number of failed passes, seen in the
// traces of the process that meets it, never after a time. The process that meets the lock
// does not wait for locks (NoLockWaits), so every pass fails on it at once and no lock
// time-out is involved. The hook then waits until the holder says it has let go, so the
// passes left to the caller never race the holder's way to its abort (on a loaded machine
// the holder may not run for longer than the caller's remaining passes take).
#pragma once

#include <db.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "session_fixture.h"

namespace vsk::test {

inline int g_signal_fd = -1;
inline int g_released_fd = -1;  // the holder's answer, when it has let go
inline const char* g_signal_on = nullptr;
inline int g_signal_after = 0;
inline std::atomic<int> g_seen{0};

// A trace hook that records like the harness and, on the `g_signal_after`th trace holding
// `g_signal_on`, writes one byte to `g_signal_fd`: the lock holder then lets go. With
// `g_released_fd` set it returns only once the holder has answered there that it let go
// (or after 30 s, so that a holder that never answers fails the test instead of hanging).
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
    pollfd p{g_released_fd, POLLIN, 0};
    if (g_released_fd >= 0 && poll(&p, 1, 30000) == 1) (void)!read(g_released_fd, &b, 1);
  }
}

// This process's lock requests do not wait (DB_TXN_NOWAIT): a request that meets the
// holder fails at once with DB_LOCK_NOTGRANTED, which the library reports as -4.
inline void NoLockWaits() {
  DB_ENV* env = nullptr;
  vsk_db_get_dbenv(&env);
  env->set_flags(env, DB_TXN_NOWAIT, 1);
}

// Holds the write lock of client record `id` in an open transaction until a byte arrives
// on `fd`, then aborts, writes one byte to `released_fd` and waits for Go() before it ends.
inline void HoldRecordLock(Child& holder, uint64_t id, int fd, int released_fd) {
  holder.Start([id, fd, released_fd](Child::Channel& ch) {
    orvd_ctx link{};
    if (Up(&link, false) != 0) return 1;
    vsk_db_txn_t txn{};
    vsk_client_session_t* rec = nullptr;
    if (vsk_db_start_txn(&txn) != 0 || vsk_db_get_client_session(&txn, &id, &rec, true) != 0)
      return 2;
    ch.Ready();
    char b;
    // The holder lets go after 20 s all the same, so that a test whose signal never comes
    // ends with a failure instead of hanging.
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 20000) == 1) (void)!read(fd, &b, 1);
    vsk_db_release_client_session(rec, true);
    vsk_db_abort_txn(&txn, 0);
    (void)!write(released_fd, &b, 1);
    ch.WaitGo();
    vsk_close_internal();
    return 0;
  });
}

// Runs `fn` in a client daemon that does not wait for locks while another process holds
// client record `id`'s write lock, letting go at the `after`th trace of this daemon that
// holds `on` (with `on` null, once `fn` has returned). The daemon's result; a holder that
// failed counts as a failure of the test.
template <typename Fn>
ChildResult WhileRecordHeld(uint64_t id, const char* on, int after, Fn fn) {
  int fds[2], back[2];
  if (pipe(fds) != 0) return {};
  if (pipe(back) != 0) return close(fds[0]), close(fds[1]), ChildResult{};
  Child holder;
  HoldRecordLock(holder, id, fds[0], back[1]);
  ChildResult r;
  if (holder.WaitReady()) {
    const int write_fd = fds[1], released_fd = back[0];
    r = InClientDaemon([=] {
      NoLockWaits();
      g_signal_fd = write_fd, g_released_fd = released_fd;
      g_signal_on = on, g_signal_after = after;
      vsk_trace_cbk = SignallingTrace;
      return fn();
    });
  }
  (void)!write(fds[1], "", 1);  // lets the holder go also when the signal never came
  holder.Go();
  EXPECT_TRUE(holder.Wait().Ok()) << "the lock holder";
  close(fds[0]), close(fds[1]), close(back[0]), close(back[1]);
  return r;
}

}  // namespace vsk::test
