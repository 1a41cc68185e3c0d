// The exported snapshot drivers: one session by id, a search with a callback, one step of a
// walk, and the free. Each is a thin loop around vsk::snapshot::GetSnapshot.
//
// The recovery walk (vsk_recover_sessions, vsk_get_next_recover_sessions) joins here: it
// drives GetSnapshot with VSK_SNAPSHOT_ACTION_WALK and its own walk block exactly as
// vsk_get_next_snapshot does, copying the filter's app_id into the handle first.
#include <cstdlib>

#include "libvsk/base/trace.h"
#include "libvsk/store/txn.h"
#include "libvsk/vsk/snapshot_internal.h"

using namespace vsk::snapshot;
namespace store = vsk::store;

extern "C" {

vsk_status_t vsk_get_snapshot(vsk_snapshot_handle* handle) {
  vsk_status_t st = store::Check();
  if (st != VSK_OK) return st;
  if (handle == nullptr) {
    VSK_TRACE("%s: Snapshot handle is null", kInternalFn);
    return VSK_ERR_INVALID_PARAM;
  }
  if (handle->flags == 0) {
    return GetSnapshot(handle, VSK_SNAPSHOT_ACTION_GET, nullptr, false, nullptr);
  }
  // Bits 0 and 2 both set select the light read, whatever else is set.
  if (IsLight(handle)) return LightRead(handle);
  return VSK_ERR_INVALID_PARAM;
}

vsk_status_t vsk_search_session(vsk_snapshot_callback_t callback,
                                const vsk_snapshot_filter* filter) {
  vsk_status_t st = store::Check();
  if (st != VSK_OK) return st;
  vsk_snapshot_handle handle{};
  vsk_db_txn_t walk{};
  for (;;) {
    st = GetSnapshot(&handle, VSK_SNAPSHOT_ACTION_SEARCH, filter, true, &walk);
    if (st == VSK_OK) {
      if (callback != nullptr) callback(&handle);
      FreeSnapshot(&handle);
    } else if (st != VSK_ERR_FILTERED) {
      break;
    }
  }
  // The handle's last step may have left an owned id array behind a failed build.
  if (handle.service_ids_owned != 0) std::free(handle.service_ids);
  return st == VSK_ERR_NOT_FOUND ? VSK_OK : st;
}

vsk_status_t vsk_get_next_snapshot(vsk_snapshot_handle* handle, const vsk_snapshot_filter* filter,
                                   int done) {
  vsk_status_t st = store::Check();
  if (st != VSK_OK) return st;
  if (handle == nullptr || filter == nullptr || filter->flags == 0) return VSK_ERR_INVALID_PARAM;
  if (handle->walk == nullptr) {
    handle->walk = static_cast<vsk_db_txn_t*>(std::calloc(1, sizeof(vsk_db_txn_t)));
    if (handle->walk == nullptr) return VSK_ERR_NOMEM;
    VSK_TRACE("VSK Get Next Snapshot Start");
  } else if ((done & 0xff) != 0) {
    std::free(handle->walk);
    handle->walk = nullptr;
    VSK_TRACE("VSK Get Next Snapshot Finish");
    return VSK_OK;
  } else {
    FreeSnapshot(handle);
  }
  do {
    st = GetSnapshot(handle, VSK_SNAPSHOT_ACTION_WALK, filter, true, handle->walk);
  } while (st == VSK_ERR_FILTERED);
  return st;
}

void vsk_free_snapshot_handle(vsk_snapshot_handle* handle) { FreeSnapshot(handle); }

}  // extern "C"
