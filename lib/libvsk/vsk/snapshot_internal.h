// Snapshots inside the library: the build of one snapshot, its two loaders, the free, and
// the reads of a loaded handle that other session code calls without the exported shims.
//
// A handle is empty (zeroed), loaded (`data` set) or freed (`data` null, freed_marker
// VSK_SNAPSHOT_FREED). A light handle (flags VSK_HANDLE_FLAG_ATTRS_ONLY) holds a bare client
// record in `data` and one result entry in `attr_result`, never trees.
#pragma once

#include <cstdint>

#include "vsk/attr.h"
#include "vsk/snapshot.h"
#include "vsk/status.h"
#include "vsk/tables.h"

namespace vsk::snapshot {

inline constexpr char kInternalFn[] = "vsk_get_snapshot_internal";

inline bool IsLight(const vsk_snapshot_handle* h) {
  return (h->flags & VSK_HANDLE_FLAG_ATTRS_ONLY) == VSK_HANDLE_FLAG_ATTRS_ONLY;
}

inline unsigned long long Ull(uint64_t v) { return static_cast<unsigned long long>(v); }

// The whole build; see snapshot.cc.
vsk_status_t GetSnapshot(vsk_snapshot_handle* h, int action, const vsk_snapshot_filter* filter,
                         bool nearest, vsk_db_txn_t* walk);
// Takes `record` over (also on failure) and loads it with its dynamic configuration.
vsk_status_t LoadClient(vsk_snapshot_handle* h, void* shm, vsk_snapshot_data* data, int action,
                        vsk_client_session_t* record, vsk_db_txn_t* txn);
// Takes `record` over (also on failure, when non-null) as a node of the service tree.
vsk_status_t LoadService(vsk_snapshot_handle* h, vsk_db_txn_t* txn, uint64_t id,
                         vsk_service_session_t* record);
// Frees the client part's content and the block itself; `client` may be null.
void FreeClientData(vsk_snapshot_handle* h, vsk_snapshot_client_data* client);
void FreeSnapshot(vsk_snapshot_handle* h);
// Replaces `service_ids` with an owned array of `count` cleared ids. -2 without memory.
vsk_status_t AllocServiceIds(vsk_snapshot_handle* h, uint16_t count);

// Reads of a loaded handle (attr_read.cc, dynamic_read.cc).
vsk_status_t ClientAttr(vsk_snapshot_handle* h, uint16_t type, vsk_attr_value_t** out);
vsk_status_t ServiceAttr(vsk_snapshot_handle* h, uint64_t id, uint16_t type,
                         vsk_attr_value_t** out);
vsk_status_t DynamicAttr(vsk_snapshot_handle* h, uint64_t id, const char* name,
                         vsk_attr_value_t** out);
vsk_status_t LightRead(vsk_snapshot_handle* h);

// The service node of `id`, or null.
vsk_snapshot_service_node* FindService(const vsk_snapshot_handle* h, uint64_t id);

}  // namespace vsk::snapshot
