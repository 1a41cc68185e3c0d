// The read of one application's private data of a session, outside any snapshot.
//
// This is the join to the session API's vsk_get_app_pri_data: the same read with the same
// results, written here on the private-data table operations until that call's C++ core
// exists; then this function becomes a call to it.
#pragma once

#include <cstdint>

#include "vsk/tables.h"

namespace vsk::sidedata {

// The record of (`session_id`, `app_id`), or null for every failure: store not usable,
// no record, or a read that failed after three attempts on -4 and -11. No trace. The
// caller releases the result with vsk_db_release_app_pri_data(data, true).
vsk_app_data_t* ReadAppPrivateData(vsk_session_id_t session_id, uint32_t app_id);

}  // namespace vsk::sidedata
