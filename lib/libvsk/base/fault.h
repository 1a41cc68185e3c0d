// A seam at the library's calls into Berkeley DB, System V IPC and the file system, so that
// a test can make the Nth call of one kind fail and watch the failure path run on the real
// store, without permissions, root or a broken machine.
//
// Who may call: Arm and Disarm from tests only (process-local, inherited by a fork, so a
// test may arm a child before it runs); Inject from the library's call sites.
//
// Invariants:
//  1. Disarmed, the cost at a call site is one relaxed load of a process-wide word.
//  2. An armed kind fails `times` calls in a row from the Nth call of that kind counted
//     from Arm, and is disarmed by the last of them; other kinds are not affected.
//  3. A site that fires behaves as the real call does when it fails with the armed value:
//     a Berkeley DB method returns it, a System V or file call returns its failure value
//     with errno set to it. A failed commit aborts the transaction first, as Berkeley DB
//     does, so that no handle is left behind.
#pragma once

#include <atomic>
#include <cstdint>

namespace vsk::fault {

enum class Kind : uint8_t {
  kTxnBegin,   // DB_ENV->txn_begin
  kTxnCommit,  // DB_TXN->commit
  kDbPut,      // DB->put
  kDbGet,      // DB->get
  kDbDel,      // DB->del
  kShmget,
  kShmat,
  kSemget,
  kSemop,
  kOpendir,
  kUnlink,
  kCount
};

// The `nth` call of `kind` from now (1 is the next one) and the `times` - 1 calls after it
// fail with `result`: a Berkeley DB return value, or the errno of a System V or file call.
void Arm(Kind kind, uint32_t nth, int result, uint32_t times = 1);
// Forgets what is armed for `kind`, or for every kind.
void Disarm(Kind kind);
void DisarmAll();
// True while `kind` is armed and has failures left to give.
bool Pending(Kind kind);

namespace internal {
// Number of kinds armed now; zero on every run but a fault test's.
extern std::atomic<uint32_t> g_armed;
bool Fire(Kind kind, int* result);
}  // namespace internal

// At a call site: true when this call must fail, with the value in *result.
inline bool Inject(Kind kind, int* result) {
  if (internal::g_armed.load(std::memory_order_relaxed) == 0) [[likely]] {
    return false;
  }
  return internal::Fire(kind, result);
}

}  // namespace vsk::fault
