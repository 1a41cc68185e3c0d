// Attribute reads of a loaded snapshot, the light read, and the reads that need none.
//
// None of the snapshot reads touches the store: they look up the handle's trees (or, for a
// light handle, the bare record's list). vsk_get_client_session_attr_shm alone looks at the
// cache's present state.
#include "vsk/attr_read.h"

#include <cstdlib>

#include "libvsk/base/trace.h"
#include "libvsk/shared/intf_ops.h"
#include "libvsk/shared/session_cache.h"
#include "libvsk/store/records.h"
#include "libvsk/store/tables.h"
#include "libvsk/store/txn.h"
#include "libvsk/vsk/snapshot_internal.h"

namespace vsk::snapshot {
namespace {

constexpr int kLightAttempts = 4;
constexpr int kServiceOwnerAttempts = 3;

vsk_attr_value_t** NodeValues(patricia_root_t* tree, uint16_t type) {
  if (tree == nullptr) return nullptr;
  auto* node = reinterpret_cast<vsk_attr_tree_node_t*>(patricia_get(tree, sizeof type, &type));
  return node != nullptr ? &node->values_first : nullptr;
}

void ReleaseLight(vsk_snapshot_handle* h, vsk_client_session_t* record) {
  store::ReleaseClientSession(record, true);
  h->data = nullptr;
  auto* result = static_cast<vsk_attr_list_t*>(h->attr_result);
  if (result != nullptr) std::free(result->first);
  std::free(result);
  h->attr_result = nullptr;
}

}  // namespace

vsk_snapshot_service_node* FindService(const vsk_snapshot_handle* h, uint64_t id) {
  if (h == nullptr || h->data == nullptr || h->data->services == nullptr) return nullptr;
  return reinterpret_cast<vsk_snapshot_service_node*>(
      patricia_get(h->data->services, sizeof id, &id));
}

vsk_status_t ClientAttr(vsk_snapshot_handle* h, uint16_t type, vsk_attr_value_t** out) {
  if (h == nullptr || h->data == nullptr || (h->flags == 0 && h->data->client == nullptr)) {
    VSK_TRACE("Getting client session attribute without providing snapshot");
    return VSK_ERR_INVALID_PARAM;
  }
  if (IsLight(h)) {
    auto* record = reinterpret_cast<vsk_client_session_t*>(h->data);
    auto* result = static_cast<vsk_attr_list_t*>(h->attr_result);
    vsk_attr_t* a =
        record->attrs != nullptr ? vsk_get_attribute_from_list(record->attrs, type) : nullptr;
    if (a == nullptr || result == nullptr || result->first == nullptr) return VSK_ERR_NOT_FOUND;
    // The one result entry: each read overwrites what the previous one showed.
    auto* entry = reinterpret_cast<vsk_attr_value_t*>(result->first);
    entry->length = a->length;
    entry->value = a->value;
    *out = reinterpret_cast<vsk_attr_value_t*>(h->attr_result);
    return VSK_OK;
  }
  vsk_attr_value_t** values = NodeValues(h->data->client->attrs, type);
  if (values == nullptr) return VSK_ERR_NOT_FOUND;
  *out = reinterpret_cast<vsk_attr_value_t*>(values);
  return VSK_OK;
}

vsk_status_t ServiceAttr(vsk_snapshot_handle* h, uint64_t id, uint16_t type,
                         vsk_attr_value_t** out) {
  if (h == nullptr || h->data == nullptr || IsLight(h) || h->data->services == nullptr) {
    VSK_TRACE("Getting service session attribute without providing snapshot");
    return VSK_ERR_INVALID_PARAM;
  }
  vsk_snapshot_service_node* node = FindService(h, id);
  vsk_attr_value_t** values = node != nullptr ? NodeValues(node->attrs, type) : nullptr;
  if (values == nullptr) return VSK_ERR_NOT_FOUND;
  *out = reinterpret_cast<vsk_attr_value_t*>(values);
  return VSK_OK;
}

// The light read: the bare client record, read from the cache (no retry) or in a
// transaction of its own (four attempts on -4 and -11).
vsk_status_t LightRead(vsk_snapshot_handle* h) {
  void* shm = cache::Segment();
  vsk_status_t st = VSK_OK;
  // A handle that still holds a light load gives it back first.
  if (h->data != nullptr) FreeSnapshot(h);
  for (int attempt = 1; attempt <= kLightAttempts; ++attempt) {
    uint64_t id = h->client_session_id;
    vsk_client_session_t* record = nullptr;
    if (cache::IsCached(shm, id)) {
      st = store::ClientSessionEmpty(&record);
      if (st == VSK_OK) st = cache::ToSessionRecord(h, shm, id, record);
      if (st != VSK_OK) {
        VSK_TRACE(
            "%s: Failed to locate shm client session record for snapshot by generic id "
            "%llu, err=%s\n",
            "vsk_get_client_session_attr_from_sid", Ull(id), vsk_get_err_msg(st));
        store::ReleaseClientSession(record, false);
        cache::DropSlotCopy(h);
        return st;
      }
    } else {
      vsk_db_txn_t block{};
      store::Txn txn(&block);
      st = txn.Begin();
      if (st == VSK_OK) st = store::GetClientSession(&block, &id, &record, false);
      if (st == VSK_OK) {
        st = txn.Commit();
      } else {
        VSK_TRACE(
            "%s: Failed to locate client session record for snapshot by generic id %llu, "
            "err=%s\n",
            "vsk_get_client_session_attr_from_sid", Ull(id), vsk_get_err_msg(st));
        txn.Fail(st);
      }
    }
    if (st == VSK_OK) {
      h->data = reinterpret_cast<vsk_snapshot_data*>(record);
      auto* result = static_cast<vsk_attr_list_t*>(std::calloc(1, sizeof(vsk_attr_list_t)));
      auto* entry = static_cast<vsk_attr_value_t*>(std::calloc(1, sizeof(vsk_attr_value_t)));
      if (result != nullptr && entry != nullptr) {
        // The list's only entry; the reads treat it as a value entry.
        result->first = reinterpret_cast<vsk_attr_t*>(entry);
        result->last = &result->first;
        h->attr_result = result;
        if (record->config_bits_len != 0) {
          h->config_bits_len = record->config_bits_len;
          h->config_bits = record->config_bits;
        }
        return VSK_OK;
      }
      std::free(result);
      std::free(entry);
      st = VSK_ERR_NOMEM;
    }
    ReleaseLight(h, record);
    if (st != VSK_ERR_RECOVERING && st != VSK_ERR_RETRY) break;
  }
  return st;
}

}  // namespace vsk::snapshot

using namespace vsk::snapshot;
namespace cache = vsk::cache;
namespace store = vsk::store;

extern "C" {

vsk_status_t vsk_get_client_session_attr(vsk_snapshot_handle* handle, uint16_t type,
                                         vsk_attr_value_t** out) {
  if (out == nullptr) return VSK_ERR_INVALID_PARAM;
  return ClientAttr(handle, type, out);
}

vsk_status_t vsk_get_client_session_attr_shm(vsk_snapshot_handle* handle, uint16_t type,
                                             vsk_attr_value_t** out, uint16_t* length,
                                             void** value) {
  if (handle == nullptr || out == nullptr || length == nullptr || value == nullptr) {
    return VSK_ERR_INVALID_PARAM;
  }
  uint64_t id = handle->client_session_id != 0 ? handle->client_session_id : handle->session_id;
  void* shm = cache::Segment();
  if (cache::IsCached(shm, id)) {
    return cache::ReadAttr(handle, shm, id, type, length, value);
  }
  return ClientAttr(handle, type, out);
}

vsk_status_t vsk_get_service_session_attr(vsk_snapshot_handle* handle, vsk_session_id_t id,
                                          uint16_t type, vsk_attr_value_t** out) {
  if (out == nullptr) return VSK_ERR_INVALID_PARAM;
  return ServiceAttr(handle, id, type, out);
}

vsk_status_t vsk_get_service_name(vsk_snapshot_handle* handle, vsk_session_id_t id, char** name) {
  if (name == nullptr) return VSK_ERR_INVALID_PARAM;
  vsk_attr_value_t* values = nullptr;
  vsk_status_t st = ServiceAttr(handle, id, VSK_SERVICE_NAME, &values);
  if (st != VSK_OK) return st;
  // `values` is the address of the node's list head: its first word is the first value.
  vsk_attr_value_t* first = *reinterpret_cast<vsk_attr_value_t**>(values);
  if (first == nullptr) return VSK_ERR_NOT_FOUND;
  *name = static_cast<char*>(first->value);
  return VSK_OK;
}

vsk_status_t vsk_get_service_session_config_bits(vsk_snapshot_handle* handle, vsk_session_id_t id,
                                                 uint16_t* length, uint8_t** bits) {
  if (handle == nullptr || handle->data == nullptr || IsLight(handle) || length == nullptr ||
      bits == nullptr) {
    return VSK_ERR_INVALID_PARAM;
  }
  vsk_snapshot_service_node* node = FindService(handle, id);
  if (node == nullptr || node->record == nullptr) return VSK_ERR_NOT_FOUND;
  *length = node->record->config_bits_len;
  *bits = node->record->config_bits;
  return VSK_OK;
}

vsk_status_t vsk_get_client_session_attr_from_sid(vsk_snapshot_handle* handle) {
  if (handle == nullptr) return VSK_ERR_INVALID_PARAM;
  return LightRead(handle);
}

vsk_status_t vsk_get_client_id_by_service_session_id(vsk_session_id_t id,
                                                     vsk_session_id_t* client_id) {
  vsk_status_t st = store::Check();
  if (st != VSK_OK) return st;
  if (client_id == nullptr) return VSK_ERR_INVALID_PARAM;
  for (int attempt = 1; attempt <= kServiceOwnerAttempts; ++attempt) {
    vsk_db_txn_t block{};
    store::Txn txn(&block);
    vsk_service_session_t* rec = nullptr;
    st = txn.Begin();
    if (st == VSK_OK) st = store::GetServiceSession(&block, &id, &rec, false, nullptr, 0);
    if (st == VSK_OK) {
      *client_id = rec->client_id;
      store::ReleaseServiceSession(rec, true);
      return txn.Commit();
    }
    VSK_TRACE("%s: Failed to read the service session %llu, err=%s",
              "vsk_get_client_id_by_service_session_id", Ull(id), vsk_get_err_msg(st));
    txn.Fail(st);
    store::ReleaseServiceSession(rec, true);
    if (st != VSK_ERR_RECOVERING && st != VSK_ERR_RETRY) break;
  }
  return st;
}

vsk_status_t vsk_get_num_clients_on_uifl(const char* name, uint32_t* count_out) {
  return vsk::shared::NumClientsOnUifl(name, count_out);
}

vsk_status_t vsk_get_clients_by_uifl(const char* name, uint32_t* count_out,
                                     vsk_session_id_t** ids_out) {
  return vsk::shared::ClientsByUifl(name, count_out, ids_out);
}

vsk_status_t vsk_get_first_client_on_uifl(const char* name, vsk_session_id_t* id_out) {
  return vsk::shared::FirstClientOnUifl(name, id_out);
}

}  // extern "C"
