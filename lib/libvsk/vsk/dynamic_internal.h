// Dynamic configuration, predefined variables and the recovery walk for C++ callers; the
// exported vsk_update_*_dynamic, vsk_set_client_dynamic_configuration,
// vsk_get_dynamic_config_attr_str, vsk_get_all_dynamic_config_attrs and vsk_recover_* are
// shims over these, with the same results.
#pragma once

#include <cstdint>

#include "vsk/attr.h"
#include "vsk/snapshot.h"
#include "vsk/status.h"
#include "vsk/store.h"

namespace vsk::session {

// ---- reads of a loaded snapshot (predefined.cc) ------------------------------------------
// The last stage of a name lookup: a predefined "kelvo-" variable computed from the
// session's attributes into the client's `predefined` tree ("kelvo-interface-unit": drawn
// from the unit pool and written into the session). -7 for any other name.
vsk_status_t Predefined(vsk_snapshot_handle* h, uint64_t id, const char* name,
                        vsk_attr_value_t** out);
// Values of `name` as NUL-terminated strings, kept in the `dynamic_str` tree.
vsk_status_t DynamicAttrStr(vsk_snapshot_handle* h, uint64_t id, const char* name,
                            vsk_attr_value_t** out);
// The dynamic record's list of the client (`id` 0) or of service `id`.
vsk_status_t AllDynamicAttrs(vsk_snapshot_handle* h, uint64_t id, vsk_dyn_attr_list_t** out);

// ---- writes (dynamic.cc) ---------------------------------------------------------------
// One transaction per attempt, four attempts on -4 and -11. `updates` may be null (the
// record is rewritten in name order).
vsk_status_t UpdateClientDynamic(uint64_t client_id, const vsk_dyn_update_list_t* updates);
vsk_status_t UpdateServiceDynamic(uint64_t service_id, const vsk_dyn_update_list_t* updates);
vsk_status_t SetClientDynamic(uint64_t client_id, const vsk_dyn_attr_list_t* list);
// One attempt inside the caller's transaction; the session in the cache or in the tables.
vsk_status_t UpdateClientDynamicInTxn(uint64_t client_id, void* shm,
                                      const vsk_dyn_update_list_t* updates, vsk_db_txn_t* txn);
// True when the session says with VSK_AGGREGATED 2 that it shares its underlying interface
// (and so its dynamic record) with other clients.
bool SharesUnderlyingInterface(const vsk_attr_list_t* attrs);

// ---- recovery walk (recover.cc) ----------------------------------------------------------
// The gate of every recovery walk: vsk_db_check, then -1 on the standby ("Application tried
// to recover data on standby RE").
vsk_status_t RecoveryWalkGate();
vsk_status_t RecoverSessions(vsk_snapshot_callback_t callback, const vsk_snapshot_filter* filter);
vsk_status_t GetNextRecoverSessions(vsk_snapshot_callback_t callback,
                                    const vsk_snapshot_filter* filter, vsk_snapshot_handle* h,
                                    int32_t max_count, bool done);
int RecoverOneSession(vsk_snapshot_handle* h);
void RecoverDebugInit();
void RecoverDebugOutput(vsk_snapshot_handle* h);
void RecoverDebugEnd();

}  // namespace vsk::session
