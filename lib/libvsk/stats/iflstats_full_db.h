// Internal steps on full records shared by the record operations, the update and the
// operations by secondary index.
#pragma once

#include <db.h>

#include "libvsk/stats/iflstats_full_codec.h"
#include "libvsk/stats/stats_internal.h"
#include "vsk/libstats.h"

namespace vsk::stats {

// The primary key of `record`: `ifl`, then the location id. -6 (traced) when the
// location id does not fit the key buffer or is missing.
vsk_status_t BuildFullKey(const libstats_iflstats_full_t& record, KeyBuffer* key);

// Encodes `record` and puts it in the primary table inside `txn`. A failed put traces
// "<caller> store failed:%d". REQUIRES: the store usable.
vsk_status_t PutFullRecord(DB_TXN* txn, const libstats_iflstats_full_t& record, const char* caller);

// The record operations behind libstats_get_iflstats_full_record and
// libstats_write_iflstats_full_record. REQUIRES: `record` not null.
vsk_status_t GetFullRecord(libstats_iflstats_full_t* record);
vsk_status_t WriteFullRecord(libstats_iflstats_full_t* record);
// libstats_iflstats_full_show_records.
void ShowFullRecord(const libstats_iflstats_full_t* record);
// Writes the text form of a location id to location_id_str and returns it.
char* LocationText(uint32_t length, const uint8_t* bytes);
// libstats_iflstats_full_copy_agg_bps_pps.
void CopyAggRates(libstats_iflstats_full_t* results, const libstats_agg_rates_t* rates);

}  // namespace vsk::stats
