// The store's lifecycle for C++ callers: open, close and the state changes forced from
// outside. The exported vsk_db_init, vsk_db_close, vsk_db_event_down and
// vsk_db_event_recover are shims over these.
#pragma once

#include "vsk/store.h"

namespace vsk::store {

vsk_status_t Init(orvd_ctx* orvd_handle, bool is_orvd);

int Close();
void EventDown(orvd_ctx* handle);
void EventRecover();

}  // namespace vsk::store
