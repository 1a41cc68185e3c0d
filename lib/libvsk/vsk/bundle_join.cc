// The joins of bundled client sessions inside the create's transaction.
//
// A bundled session sits on top of an underlying session: it shares that session's
// dynamic configuration and may copy chosen attributes from it. Two ways lead there: the
// caller names the underlying session (ids->dynamic_session_id), or the session says with
// VSK_AGGREGATED 2 that it shares its underlying interface with other clients.
//
// Each join below does today what a plain (unbundled) create needs and keeps the bundled
// inputs safe; its comment says what the bundled-session work adds. The order of the joins
// in a pass is fixed by the create: shared interface, cache position, underlying session,
// client record, inherited attributes, dynamic changes (or the dynamic put).
#include <cstdlib>
#include <cstring>

#include "libvsk/base/trace.h"
#include "libvsk/vsk/create_internal.h"
#include "vsk/attr.h"

namespace vsk::session {
namespace {

constexpr char kCreateFn[] = "vsk_create_extended_client_session";
constexpr uint32_t kAggregatedShared = 2;

unsigned long long Ull(uint64_t v) { return static_cast<unsigned long long>(v); }

bool SharesUnderlyingInterface(const vsk_attr_list_t* attrs) {
  const vsk_attr_t* a = vsk_get_attribute_from_list(attrs, VSK_AGGREGATED);
  if (a == nullptr || a->value == nullptr) return false;
  uint32_t value = 0;
  std::memcpy(&value, a->value, a->length < 4 ? a->length : 4);
  return value == kAggregatedShared;
}

}  // namespace

void BundlePass::Free() {
  vsk_dyn_update_list_free(dynamic_changes);
  dynamic_changes = nullptr;
  if (inherited != nullptr) {
    for (vsk_attr_update_t* e = inherited->first; e != nullptr;) {
      vsk_attr_update_t* next = e->next;
      std::free(e);
      e = next;
    }
    std::free(inherited);
    inherited = nullptr;
  }
  std::free(underlying);
  underlying = nullptr;
  skip_cache = false;
}

// Shared underlying interface. Today: such a session is created with its own dynamic id
// and dynamic record, and is never cached (as when its interface has no client yet).
// Bundling adds: with VSK_UNDERLYING_INTERFACE_NAME, vsk_db_get_first_client_on_uifl; a
// first client's record read in this transaction gives the dynamic id; with `dynamic`
// given, the dynamic list becomes the pass's dynamic changes.
vsk_status_t BundleJoinSharedInterface(vsk_db_txn_t* /*txn*/, const CreateRequest& /*request*/,
                                       const vsk_attr_list_t* attrs, uint64_t /*session_id*/,
                                       uint64_t* /*dynamic_id*/, BundlePass* pass) {
  if (SharesUnderlyingInterface(attrs)) pass->skip_cache = true;
  return VSK_OK;
}

// Underlying session. Today: refuses to combine a named underlying session with a dynamic
// list gathered for a shared interface, and turns `dynamic` into the pass's dynamic
// changes (so that the underlying session's dynamic record is changed, never replaced).
// Bundling adds: the inheritance of `inherit_types` from the underlying session's
// snapshot, as borrowed replace entries in pass->inherited. Until snapshots can be read,
// the create goes on without inheritance, which is the published way when the underlying
// snapshot cannot be had.
vsk_status_t BundleJoinUnderlyingSession(vsk_db_txn_t* /*txn*/, const CreateRequest& request,
                                         uint64_t session_id, BundlePass* pass) {
  const uint64_t underlying = request.ids->dynamic_session_id;
  if (underlying == 0) return VSK_OK;
  if (pass->dynamic_changes != nullptr) {
    VSK_TRACE("%s: session %llu names dynamic session %llu and shares an interface", kCreateFn,
              Ull(session_id), Ull(underlying));
    return VSK_ERR_INVALID_PARAM;
  }
  if (request.dynamic != nullptr) {
    vsk_status_t st = vsk_convert_dynamic_to_add_replace(request.dynamic, &pass->dynamic_changes);
    if (st != VSK_OK) return st;
  }
  if (request.inherit_types != nullptr && request.inherit_types->first != nullptr) {
    VSK_TRACE("client sid:%llu failed to get snapshot handle for underlying sid:%llu",
              Ull(session_id), Ull(underlying));
  }
  return VSK_OK;
}

// Inherited attributes. Today nothing gathers them (see above), so a pass has none.
// Bundling adds: vsk_update_client_session_internal of pass->inherited on the new record
// in this transaction, then the release of the list and of the underlying snapshot.
vsk_status_t BundleJoinInheritedAttributes(vsk_db_txn_t* /*txn*/, const CreateRequest& request,
                                           uint64_t session_id, BundlePass* pass) {
  if (pass->inherited == nullptr || pass->inherited->first == nullptr) return VSK_OK;
  VSK_TRACE("failed to update the client:%llu attribs with underlying sid:%llu attribs",
            Ull(session_id), Ull(request.ids->dynamic_session_id));
  return VSK_ERR_INVALID_PARAM;
}

// Dynamic changes on the shared dynamic record. Bundling adds their application with
// vsk_update_client_dynamic_internal in this transaction. Until that exists the pass
// fails with -6, so that the underlying session's dynamic configuration is never
// overwritten by the bundled session's list.
vsk_status_t BundleJoinDynamicChanges(vsk_db_txn_t* /*txn*/, const CreateRequest& /*request*/,
                                      uint64_t session_id, uint64_t dynamic_id,
                                      BundlePass* /*pass*/) {
  VSK_TRACE("%s: session %llu cannot change the dynamic configuration of session %llu yet",
            kCreateFn, Ull(session_id), Ull(dynamic_id));
  return VSK_ERR_INVALID_PARAM;
}

}  // namespace vsk::session
