// The session cache's internal interface: what the session API (create, update, removal,
// snapshots, dynamic configuration, authentication records) calls. The exported
// vsk_*_in_shm / vsk_*_from_shm / vsk_shm_to_* names are thin shims over these.
//
// Layout and the flag-word protocol: session_cache_layout.h. Every function here may run
// in any process at any time; none takes a semaphore or a Berkeley DB lock, except
// WriteSessionToTables, which writes in the caller's transaction.
//
// Common rules:
//  - REQUIRES: `shm` non-null unless a function says otherwise (Segment() gives the
//    attached base). `id` names the session; a slot that does not hold `id` is never
//    written or read for it (writers and readers return -7 then).
//  - Attribute types in slots are 1 to 123. A type out of range is a broken caller: it is
//    traced ("attr_type < VSK_TYPE_MAX" / "attr_type >= VSK_TYPE_MIN") at the error level
//    and answered with -6 in every build, never an abort.
//  - Records filled from the cache own heap copies of every value (free_attr_values set);
//    release them with free_raw false.
#pragma once

#include <cstdint>

#include "vsk/attr.h"
#include "vsk/session.h"
#include "vsk/snapshot.h"
#include "vsk/status.h"
#include "vsk/store.h"
#include "vsk/tables.h"

namespace vsk::cache {

// The attached snapshot segment, or null.
void* Segment();
// The id block's cache position: ((id - 1) mod 1500) x 1500, cut to 16 bits (published;
// not an offset the cache itself uses).
uint16_t CachePosition(uint64_t id);

// ---- slot ownership --------------------------------------------------------------------
// True when `shm` is non-null, `id` is not 0 and the slot holds `id`. `shm` may be null.
bool IsCached(const void* shm, uint64_t id);
// Zeroes the slot's id if it holds `id`; the rest of the slot stays. `shm` may be null.
void Clear(void* shm, uint64_t id);
// One wait of the protocol: sleeps one microsecond.
void Wait();

// ---- writers ---------------------------------------------------------------------------
// Fills the free slot of `id`: clears it and its authentication pair, then one value block
// per attribute of `attrs` (null: none). 0; -23 slot taken ("%s busy %llu"); -24 the value
// area is full (next_free not stored, the slot keeps `id`: the caller clears it); -6 a
// type out of range (the slot keeps `id`).
vsk_status_t CreateSession(void* shm, uint64_t id, uint64_t dynamic_id,
                           const vsk_attr_list_t* attrs);
// Rewrites the dynamic block from `list` (null: no entries). `reset` starts at byte 10;
// otherwise readers start behind the earlier entries. Stops at the first failing entry.
vsk_status_t WriteDynamicList(void* shm, uint64_t id, const vsk_dyn_attr_list_t* list, bool reset);
// Appends one dynamic entry. 0 (also when another writer kept the block: dropped and
// traced); -24 when it does not fit below byte 1380 or `length` is above 255; -6 for a
// null name or a null value with a length.
vsk_status_t PutDynamic(void* shm, uint64_t id, const char* name, uint32_t length,
                        const void* value, uint16_t tag);
// Writes `list` to the request or response block from its start. -24 when an entry does
// not fit below byte 380 or its value is above 255 bytes (entries before it stay).
vsk_status_t WriteAuthList(void* shm, uint64_t id, const vsk_attr_list_t* list, bool is_request);
// Applies `updates` (attribute changes, or an info_attrs list of VSK_INFO_ATTR) to the
// slot; see the exported vsk_update_session_data_in_shm. -24 when a grown value would pass
// the value area (the entries before it stand); -6 a bad entry. `new_shared_state` may be
// null. Allocates only for config-bit actions 2 and 3.
vsk_status_t UpdateSession(void* shm, uint64_t id, const vsk_attr_update_list_t* updates,
                           uint32_t* new_shared_state);
// Stores `count` (at most 10) service ids, reserving the 80-word array at the first use.
vsk_status_t UpdateHeader(void* shm, uint64_t id, uint16_t count, const uint64_t* service_ids);

// ---- readers ---------------------------------------------------------------------------
// One attribute: *length and *value point into the slot (or the handle's copy). With a
// handle, names the type being read and hands over the session id and service ids.
// -1 a writer of this type kept the slot (or `length` is null; the reader bits then stay
// set, as published), -7 absent, -5 a stored block that leaves the slot, -6 bad type.
vsk_status_t ReadAttr(vsk_snapshot_handle* handle, void* shm, uint64_t id, uint16_t type,
                      uint16_t* length, void** value);
// Up to 8 bytes of the config bits (type 76). *length 0 on failure.
vsk_status_t ReadConfigBits(void* shm, uint64_t id, uint8_t* bits, uint16_t* length);
// The first value of `type`: from `tree` when given (the update path's working tree), else
// from the slot. 1 when found, copied to `buffer` or to a new heap block of length + 1
// (NUL-terminated) in *allocated; 0 with *status 0 when absent, or with the failure
// (-2 for the copy). REQUIRES: `buffer` holds the value when `allocated` is null.
int AttrFromTreeOrCache(patricia_root_t* tree, uint16_t type, void* buffer, void** allocated,
                        void* shm, uint64_t id, vsk_status_t* status);
// The private copies a snapshot handle keeps: a whole slot's or a whole dynamic block's
// size, the first `used` bytes copied from the cache and the rest zero; null when out of
// memory. The Drop functions give the handle's copy up and null the field.
void* SlotCopy(const void* slot, size_t used);
void* DynamicCopy(const void* block, size_t used);
void DropSlotCopy(vsk_snapshot_handle* handle);
void DropDynamicCopy(vsk_snapshot_handle* handle);
// Slot to records. `record` comes empty (vsk_db_*_empty). -2 no memory.
vsk_status_t ToSessionRecord(vsk_snapshot_handle* handle, void* shm, uint64_t id,
                             vsk_client_session_t* record);
vsk_status_t ToDynamicRecord(vsk_snapshot_handle* handle, void* shm, uint64_t id,
                             vsk_dynamic_config_t* record);
vsk_status_t ToAuthRecord(void* shm, uint64_t id, bool is_request, vsk_auth_info_t* record);

// ---- flush -----------------------------------------------------------------------------
// Puts everything the slot holds in the caller's transaction; see the exported
// vsk_write_shm_session_to_db. The caller clears the slot afterwards.
vsk_status_t WriteSessionToTables(void* shm, uint64_t id, uint64_t dynamic_id,
                                  const vsk_dynamic_config_t* dynamic_record, vsk_db_txn_t* txn);

}  // namespace vsk::cache
