// The transactions this process has open through vsk_db_start_txn, each with the block
// that began it.
//
// A transaction handle is freed by Berkeley DB when it commits or aborts, and a later
// transaction may get the same address. Ending a block that was copied, or a stale copy
// of a finished one, would hand Berkeley DB a freed handle. The registry turns those cases
// into a clean status:
//  1. a handle is live from its begin until its own end, its parent's end, or the close
//     of the environment, whichever comes first;
//  2. a daemon ends a handle only through the block that began it (same address); the
//     library's own walks, which carry a handle from one block to another, only need it
//     live.
// What it cannot see: a block whose memory was freed and reused for a new block at the
// same address that still holds the old handle (documented in vsk/store.h).
//
// Any thread of the daemon may begin or end transactions; a mutex guards the map.
#pragma once

#include <db.h>

#include "vsk/store.h"

namespace vsk::store {

// Records `txn`, begun by `owner` inside `parent` (null for none).
void RegisterTxn(DB_TXN* txn, const vsk_db_txn_t* owner, DB_TXN* parent);

// True when `txn` is live.
bool TxnLive(DB_TXN* txn);
// True when `txn` is live and was begun by `owner`.
bool TxnOwnedBy(DB_TXN* txn, const vsk_db_txn_t* owner);

// `txn` has ended (committed or aborted): it and every live child of it are forgotten.
void ForgetTxn(DB_TXN* txn);

// The environment has closed: every handle is gone.
void ForgetAllTxns();

}  // namespace vsk::store
