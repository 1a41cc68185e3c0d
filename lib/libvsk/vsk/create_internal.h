// Client session creation, inside the library: the create itself, the login time, and the
// joins where bundled sessions hook into the create's transaction.
//
// Callers: the exported create shims (create_api.cc). The joins below are the bundled-session
// steps (bundle_join.cc) that the create calls at fixed points of each pass.
#pragma once

#include <cstdint>

#include "vsk/attr.h"
#include "vsk/session.h"
#include "vsk/snapshot.h"
#include "vsk/store.h"

namespace vsk::session {

// What a caller handed to the extended create. Lists stay the caller's.
struct CreateRequest {
  uint32_t client_type = 0;
  vsk_attr_list_t* attrs = nullptr;  // may be null
  vsk_attr_list_t* auth_request = nullptr;
  vsk_dyn_attr_list_t* dynamic = nullptr;
  vsk_session_ids_t* ids = nullptr;  // REQUIRES: non-null
  const vsk_create_options_t* options = nullptr;
  const vsk_attr_list_t* inherit_types = nullptr;
};

// The whole create. Returns the commit's status, or the failure that ended it.
vsk_status_t CreateClientSession(const CreateRequest& request);

// The process-wide login-time text (see login_time.cc); `seconds` may be null.
const char* LoginTime(uint32_t* seconds);

// ---- joins of bundled sessions ------------------------------------------------------------
// One pass of the create's transaction keeps this state for the bundled-session steps;
// every pass starts with it empty and frees it at its end (BundlePass::Free).
struct BundlePass {
  vsk_dyn_update_list_t* dynamic_changes = nullptr;  // applied instead of a dynamic put
  vsk_attr_update_list_t* inherited = nullptr;       // values borrowed from `underlying`
  vsk_snapshot_handle* underlying = nullptr;         // the underlying session's snapshot
  bool skip_cache = false;                           // this pass does not cache the session
  void Free();
};

// Before the cache position is taken: a session whose VSK_AGGREGATED is 2 shares its
// underlying interface and is not cached; it takes the dynamic id of the first client on
// that interface, if any (*dynamic_id changes). 0 or a failure of the pass.
vsk_status_t BundleJoinSharedInterface(vsk_db_txn_t* txn, const CreateRequest& request,
                                       const vsk_attr_list_t* attrs, uint64_t session_id,
                                       uint64_t* dynamic_id, BundlePass* pass);
// Before the client record is written: a session on top of ids->dynamic_session_id
// prepares its dynamic changes and inherited attributes.
vsk_status_t BundleJoinUnderlyingSession(vsk_db_txn_t* txn, const CreateRequest& request,
                                         uint64_t session_id, BundlePass* pass);
// After the client record is written: applies the inherited attributes to it, then
// releases them and the underlying snapshot.
vsk_status_t BundleJoinInheritedAttributes(vsk_db_txn_t* txn, const CreateRequest& request,
                                           uint64_t session_id, BundlePass* pass);
// In place of the dynamic record's put when the pass holds dynamic changes: applies them
// to the record the session's dynamic id names (the shared one).
vsk_status_t BundleJoinDynamicChanges(vsk_db_txn_t* txn, const CreateRequest& request,
                                      uint64_t session_id, uint64_t dynamic_id, BundlePass* pass);

}  // namespace vsk::session
