// Internal steps on full records shared by the record operations, the update and the
// operations by secondary index.
#pragma once

#include <db.h>

#include "libvsk/stats/stats_internal.h"
#include "vsk/libstats.h"

namespace vsk::stats {

// The primary key of `record`: `ifl`, then the location id. -6 (traced) when the
// location id does not fit the key buffer or is missing.
vsk_status_t BuildFullKey(const libstats_iflstats_full_t& record, KeyBuffer* key);

// Encodes `record` and puts it in the primary table inside `txn`. A failed put traces
// "<caller> store failed:%d". REQUIRES: the store usable.
vsk_status_t PutFullRecord(DB_TXN* txn, const libstats_iflstats_full_t& record,
                           const char* caller);

// Frees the sections of one set (libstats_free_iflstats_full), of both sets.
void FreeSet(libstats_iflstats_full_set_t* set);
void FreeSets(libstats_iflstats_full_t* record);

}  // namespace vsk::stats
