// The store's lifecycle for C++ callers: open, close and the state changes forced from
// outside. The exported vsk_db_init, vsk_db_close, vsk_db_event_down and
// vsk_db_event_recover are shims over these.
#pragma once

#include <db.h>

#include "vsk/store.h"

namespace vsk::store {

// Gives the calling thread its own thread number in Berkeley DB's thread table (0, the
// default, is the daemon's thread). Berkeley DB tracks pinned pages per (pid, thread):
// a second thread that calls it beside the daemon's thread must not share that slot.
// Used by orvd's maintenance threads; no other process has such a thread.
void SetThisThreadNumber(db_threadid_t number);

vsk_status_t Init(orvd_ctx* orvd_handle, bool is_orvd);

int Close();
void EventDown(orvd_ctx* handle);
void EventRecover();

}  // namespace vsk::store
