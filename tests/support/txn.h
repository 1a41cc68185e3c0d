// One store transaction around a test's table operations.
#pragma once

#include "vsk/store.h"

namespace vsk::test {

// Runs `fn(&txn)` in a transaction of its own: committed when it returns 0, otherwise
// aborted with its status, which is returned.
template <typename Fn>
vsk_status_t InTxn(Fn fn) {
  vsk_db_txn_t txn{};
  vsk_status_t st = vsk_db_start_txn(&txn);
  if (st != 0) return st;
  if ((st = fn(&txn)) == 0) return vsk_db_end_txn(&txn);
  vsk_db_abort_txn(&txn, st);
  return st;
}

}  // namespace vsk::test
