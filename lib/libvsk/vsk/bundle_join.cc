// The joins of bundled client sessions inside the create's transaction.
//
// A bundled session sits on top of an underlying session: it shares that session's
// dynamic configuration record and may copy chosen attributes from it. Two ways lead
// there: the caller names the underlying session (ids->dynamic_session_id), or the session
// says with VSK_AGGREGATED 2 that it shares its underlying interface with other clients,
// and the first client on that interface lends its dynamic id.
//
// The joins run in a fixed order inside one pass of the create's transaction: shared
// interface, (cache position), underlying session, (client record), inherited attributes,
// dynamic changes in place of the dynamic put. Everything they write goes through the
// create's transaction, so an aborted pass leaves nothing behind in the tables.
//
// Ownership within a pass (BundlePass): the dynamic changes borrow names and values from
// the caller's `dynamic` list; the inherited entries borrow their values from the
// underlying session's snapshot, which therefore lives until the entries have been
// applied or dropped. BundlePass::Free releases whatever a pass still holds, on every way
// out of the pass.
#include <cstdlib>
#include <cstring>

#include "libvsk/base/trace.h"
#include "libvsk/shared/intf_ops.h"
#include "libvsk/shared/session_cache.h"
#include "libvsk/store/records.h"
#include "libvsk/store/tables.h"
#include "libvsk/vsk/create_internal.h"
#include "libvsk/vsk/dynamic_internal.h"
#include "libvsk/vsk/snapshot_internal.h"
#include "libvsk/vsk/update_internal.h"
#include "vsk/attr.h"

namespace vsk::session {
namespace {

constexpr char kCreateFn[] = "vsk_create_extended_client_session";
constexpr size_t kNameCopy = 256;

unsigned long long Ull(uint64_t v) { return static_cast<unsigned long long>(v); }

void FreeInherited(vsk_attr_update_list_t* list) {
  if (list == nullptr) return;
  for (vsk_attr_update_t* e = list->first; e != nullptr;) {
    vsk_attr_update_t* next = e->next;
    std::free(e);
    e = next;
  }
  std::free(list);
}

// The inherited entries borrow from the snapshot, so they go first.
void ReleaseUnderlying(BundlePass* pass) {
  FreeInherited(pass->inherited);
  pass->inherited = nullptr;
  if (pass->underlying == nullptr) return;
  snapshot::FreeSnapshot(pass->underlying);
  if (pass->underlying->service_ids_owned != 0) std::free(pass->underlying->service_ids);
  std::free(pass->underlying);
  pass->underlying = nullptr;
}

// The first client on the shared interface lends its dynamic id, read from its record in
// this transaction. *found stays false when there is none to lend (no client on the
// interface, or its record is gone); any other failure of the lookup or the read ends the
// pass. Only a borrowed dynamic id turns `dynamic` into changes: with none, the session's
// list is put as its own record, since changes would have no record to apply to.
vsk_status_t FirstClientDynamicId(vsk_db_txn_t* txn, const vsk_attr_t* uifl, uint64_t session_id,
                                  uint64_t* dynamic_id, bool* found) {
  *found = false;
  char name[kNameCopy];
  size_t n =
      uifl->value == nullptr ? 0 : (uifl->length < kNameCopy - 1 ? uifl->length : kNameCopy - 1);
  if (n != 0) std::memcpy(name, uifl->value, n);
  name[n] = '\0';
  vsk_session_id_t first = 0;
  vsk_status_t st = shared::FirstClientOnUifl(name, &first);
  if (st == VSK_ERR_NOT_FOUND) return VSK_OK;
  if (st != VSK_OK) return st;
  vsk_client_session_t* record = nullptr;
  st = store::GetClientSession(txn, &first, &record, false);
  if (st == VSK_OK) {
    *dynamic_id = record->dynamic_id;
    *found = true;
    VSK_TRACE("%s: session %llu shares dynamic session id %llu of client %llu on %s", kCreateFn,
              Ull(session_id), Ull(*dynamic_id), Ull(first), name);
  }
  store::ReleaseClientSession(record, true);
  return st == VSK_ERR_NOT_FOUND ? VSK_OK : st;
}

// Copies the values of `inherit_types` out of the underlying session's snapshot into
// borrowed replace entries. Every failure here is traced and leaves the create without
// inheritance; only a handle that cannot be allocated fails the pass.
vsk_status_t GatherInherited(const CreateRequest& request, uint64_t session_id, BundlePass* pass) {
  const uint64_t underlying = request.ids->dynamic_session_id;
  pass->underlying = static_cast<vsk_snapshot_handle*>(std::calloc(1, sizeof(vsk_snapshot_handle)));
  if (pass->underlying == nullptr) {
    VSK_TRACE("out of memory; failed to allocate memory for underlying session snapshot handle");
    return VSK_ERR_NOMEM;
  }
  pass->underlying->client_session_id = underlying;
  vsk_status_t st =
      snapshot::GetSnapshot(pass->underlying, VSK_SNAPSHOT_ACTION_GET, nullptr, false, nullptr);
  if (st != VSK_OK) {
    VSK_TRACE("client sid:%llu failed to get snapshot handle for underlying sid:%llu",
              Ull(session_id), Ull(underlying));
    ReleaseUnderlying(pass);
    return VSK_OK;
  }
  pass->inherited =
      static_cast<vsk_attr_update_list_t*>(std::calloc(1, sizeof(vsk_attr_update_list_t)));
  if (pass->inherited == nullptr) {
    VSK_TRACE("memory alloc failed for underlying_session_attrs");
  } else {
    pass->inherited->first = nullptr;
    pass->inherited->last = &pass->inherited->first;
    st = VSK_OK;
    for (const vsk_attr_t* t = request.inherit_types->first; t != nullptr && st == VSK_OK;
         t = t->next) {
      vsk_attr_value_t* values = nullptr;
      st = snapshot::ClientAttr(pass->underlying, t->type, &values);
      if (st == VSK_ERR_NOT_FOUND) {
        VSK_TRACE("could not get the underlying session params:%d", t->type);
        st = VSK_OK;
        continue;
      }
      // The result's head word is the first value; a type with no value copies nothing.
      const vsk_attr_value_t* first = st == VSK_OK ? values->next : nullptr;
      if (first == nullptr) continue;
      auto* e = static_cast<vsk_attr_update_t*>(std::calloc(1, sizeof(vsk_attr_update_t)));
      if (e == nullptr) {
        st = VSK_ERR_NOMEM;
        break;
      }
      e->type = t->type;
      e->action = VSK_ATTR_ACTION_ADD_OR_REPLACE;
      e->length = 0;
      e->new_length = first->length;
      e->new_value = first->value;
      *pass->inherited->last = e;
      pass->inherited->last = &e->next;
    }
    if (st == VSK_OK) return VSK_OK;
  }
  // The entries gathered so far borrow from the snapshot that is freed here, so they are
  // dropped with it: the session is created without inheritance.
  VSK_TRACE("client sid:%llu failed to get copy attrib of underlying sid:%llu", Ull(session_id),
            Ull(underlying));
  ReleaseUnderlying(pass);
  return VSK_OK;
}

}  // namespace

void BundlePass::Free() {
  vsk_dyn_update_list_free(dynamic_changes);
  dynamic_changes = nullptr;
  ReleaseUnderlying(this);
  skip_cache = false;
}

// A session with VSK_AGGREGATED 2 is never cached. With VSK_UNDERLYING_INTERFACE_NAME it
// takes the dynamic id of the first client on that interface, and its `dynamic` list then
// becomes changes to that shared record rather than a record of its own.
vsk_status_t BundleJoinSharedInterface(vsk_db_txn_t* txn, const CreateRequest& request,
                                       const vsk_attr_list_t* attrs, uint64_t session_id,
                                       uint64_t* dynamic_id, BundlePass* pass) {
  if (!SharesUnderlyingInterface(attrs)) return VSK_OK;
  pass->skip_cache = true;
  const vsk_attr_t* uifl = vsk_get_attribute_from_list(attrs, VSK_UNDERLYING_INTERFACE_NAME);
  if (uifl == nullptr) return VSK_OK;
  bool found = false;
  vsk_status_t st = FirstClientDynamicId(txn, uifl, session_id, dynamic_id, &found);
  if (st != VSK_OK || !found || request.dynamic == nullptr) return st;
  return vsk_convert_dynamic_to_add_replace(request.dynamic, &pass->dynamic_changes);
}

// A session on top of ids->dynamic_session_id: its `dynamic` list becomes changes to the
// underlying session's record (never a replacement of it), and the values of
// `inherit_types` are gathered from the underlying session's snapshot. Naming an
// underlying session while also sharing a first client's record with a list is refused.
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
  if (request.inherit_types == nullptr || request.inherit_types->first == nullptr) return VSK_OK;
  return GatherInherited(request, session_id, pass);
}

// The inherited values go onto the record just written, in this transaction, as one
// update; the snapshot they were borrowed from is released after it.
vsk_status_t BundleJoinInheritedAttributes(vsk_db_txn_t* txn, const CreateRequest& request,
                                           uint64_t session_id, BundlePass* pass) {
  if (pass->inherited == nullptr || pass->inherited->first == nullptr) {
    ReleaseUnderlying(pass);
    return VSK_OK;
  }
  UpdateRequest update;
  update.id = session_id;
  update.shm = cache::Segment();
  update.updates = pass->inherited;
  update.txn = txn;
  vsk_status_t st = UpdateClientSession(update);
  ReleaseUnderlying(pass);
  if (st != VSK_OK) {
    VSK_TRACE("failed to update the client:%llu attribs with underlying sid:%llu attribs",
              Ull(session_id), Ull(request.ids->dynamic_session_id));
  }
  return st;
}

// The pass's dynamic changes go onto the dynamic record the new session's record points
// at (the shared one), in this transaction; no record is put under the session's own id.
vsk_status_t BundleJoinDynamicChanges(vsk_db_txn_t* txn, const CreateRequest& /*request*/,
                                      uint64_t session_id, uint64_t /*dynamic_id*/,
                                      BundlePass* pass) {
  vsk_status_t st =
      UpdateClientDynamicInTxn(session_id, cache::Segment(), pass->dynamic_changes, txn);
  vsk_dyn_update_list_free(pass->dynamic_changes);
  pass->dynamic_changes = nullptr;
  return st;
}

}  // namespace vsk::session
