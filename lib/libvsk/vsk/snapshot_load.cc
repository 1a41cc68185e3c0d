// The two loaders of a snapshot (a client with its dynamic configuration, a service with
// its own) and the free that undoes them.
//
// Ownership: a loader takes the record over as soon as it is called, so a failed load is
// released by the free like a good one. Tree values point into the records; the free
// therefore drops every tree before the record under it, and the cache copies after the
// trees that may point into them.
#include <cstdlib>
#include <cstring>

#include "libvsk/base/trace.h"
#include "libvsk/shared/session_cache.h"
#include "libvsk/store/records.h"
#include "libvsk/store/tables.h"
#include "libvsk/store/txn.h"
#include "libvsk/vsk/snapshot_internal.h"
#include "platform/logging.h"

namespace vsk::snapshot {
namespace {

constexpr char kClientFn[] = "vsk_get_client_dyn_internal";
constexpr char kServiceFn[] = "vsk_generate_service_session_snapshot";

uint16_t NameKeyLength(const char* name) { return static_cast<uint16_t>(std::strlen(name) + 1); }

vsk_status_t AddAttrs(patricia_root_t* tree, const vsk_attr_list_t* list) {
  for (vsk_attr_t* a = list != nullptr ? list->first : nullptr; a != nullptr; a = a->next) {
    vsk_status_t st = vsk_attr_tree_add(tree, sizeof a->type, &a->type, a->length, a->value, false);
    if (st != VSK_OK) return st;
  }
  return VSK_OK;
}

// The failed entry's value as text for the report, cut to the 100-byte buffer.
struct ValueText {
  char text[100] = {};
  explicit ValueText(const vsk_dyn_attr_t* a) {
    if (a->value != nullptr) {
      std::memcpy(text, a->value, a->length < sizeof text - 1 ? a->length : sizeof text - 1);
    }
  }
};

// Loads a client's dynamic list. The array bookkeeping is the handle's, so that the index
// root of the last array read lands in the handle. A duplicate name (-3) is reported and
// skipped; any other failure ends the load.
vsk_status_t AddClientDynamic(vsk_snapshot_handle* h, patricia_root_t* tree,
                              const vsk_dyn_attr_list_t* list) {
  const void* previous = nullptr;
  vsk_array_member_list_t* members = nullptr;
  vsk_array_index_node_t* index_node = nullptr;
  for (const vsk_dyn_attr_t* a = list->first; a != nullptr; a = a->next) {
    if (a->name == nullptr) continue;
    const uint16_t klen = NameKeyLength(a->name);
    vsk_status_t st;
    if (a->array_tag == VSK_ARRAY_IDENTIFYING_TLV || a->array_tag == VSK_ARRAY_START_TLV ||
        a->array_tag == VSK_ARRAY_MEMBER_TLV) {
      if (a->array_tag == VSK_ARRAY_MEMBER_TLV && previous == nullptr) {
        VSK_TRACE("%s - Array member without array start being added to patricia tree", kClientFn);
        return VSK_ERR_INVALID_PARAM;
      }
      st = vsk_dyn_tree_add(tree, klen, a->name, a->length, a->value, a->array_tag, previous,
                            &h->array_id, &members, &h->array_root, &index_node, false);
      if (a->array_tag != VSK_ARRAY_MEMBER_TLV) previous = a->value;
    } else {
      // A plain value leaves any array read that was named on this handle.
      std::free(h->array_attr_name);
      std::free(h->array_attr_value);
      h->array_attr_name = nullptr;
      h->array_attr_value = nullptr;
      st = vsk_dyn_tree_add(tree, klen, a->name, a->length, a->value, VSK_ARRAY_NONE, nullptr,
                            nullptr, nullptr, nullptr, nullptr, false);
    }
    if (st == VSK_OK) continue;
    ValueText v(a);
    if (st == VSK_ERR_INVALID_DATA) {
      logging(3,
              "%s: Failed to add dynamic configuration attribute %s=%s to patricia tree, error %d",
              kClientFn, a->name, v.text, st);
      continue;
    }
    VSK_TRACE("%s: Failed to add dynamic configuration attribute %s=%s to patricia tree, error %d",
              kClientFn, a->name, v.text, st);
    return st;
  }
  return VSK_OK;
}

// A service's dynamic list: bookkeeping in locals, every failed add fatal.
vsk_status_t AddServiceDynamic(patricia_root_t* tree, const vsk_dyn_attr_list_t* list) {
  const void* previous = nullptr;
  uint16_t array_id = 0;
  vsk_array_member_list_t* members = nullptr;
  patricia_root_t* index_root = nullptr;
  vsk_array_index_node_t* index_node = nullptr;
  for (const vsk_dyn_attr_t* a = list->first; a != nullptr; a = a->next) {
    if (a->name == nullptr) continue;
    vsk_status_t st;
    if (a->array_tag == VSK_ARRAY_MEMBER_TLV && array_id == 0) {
      VSK_TRACE("%s at %d: - Array member %s without array start being added to patricia tree \n",
                kServiceFn, __LINE__, a->name);
      return VSK_ERR_INVALID_PARAM;
    }
    if (a->array_tag >= VSK_ARRAY_IDENTIFYING_TLV && a->array_tag <= VSK_ARRAY_MEMBER_TLV) {
      st =
          vsk_dyn_tree_add(tree, NameKeyLength(a->name), a->name, a->length, a->value, a->array_tag,
                           previous, &array_id, &members, &index_root, &index_node, false);
      if (a->array_tag != VSK_ARRAY_MEMBER_TLV) previous = a->value;
    } else {
      st = vsk_dyn_tree_add(tree, NameKeyLength(a->name), a->name, a->length, a->value,
                            VSK_ARRAY_NONE, nullptr, nullptr, nullptr, nullptr, nullptr, false);
    }
    if (st != VSK_OK) {
      VSK_TRACE("%s: Failed to add dynamic configuration attributes to patricia tree, err=%s",
                kServiceFn, vsk_get_err_msg(st));
      return st;
    }
  }
  return VSK_OK;
}

}  // namespace

vsk_status_t LoadClient(vsk_snapshot_handle* h, void* shm, vsk_snapshot_data* data, int action,
                        vsk_client_session_t* record, vsk_db_txn_t* txn) {
  if (record == nullptr) {
    VSK_TRACE("%s: client_session_record is NULL", kClientFn);
    return VSK_ERR_NOT_FOUND;
  }
  vsk_snapshot_client_data* c = data->client;
  c->record = record;
  c->attrs = vsk_attr_tree_create();
  if (c->attrs == nullptr) return VSK_ERR_NOMEM;
  vsk_status_t st = AddAttrs(c->attrs, record->attrs);
  if (st != VSK_OK) {
    VSK_TRACE("Failed to add session attributes to patricia tree %d", st);
    return st;
  }
  c->dynamic = vsk_attr_tree_create();
  c->dynamic_str = vsk_attr_tree_create();
  if (c->dynamic == nullptr || c->dynamic_str == nullptr) return VSK_ERR_NOMEM;

  uint64_t dynamic_id = record->dynamic_id;
  vsk_dynamic_config_t* dyn = nullptr;
  bool from_cache = false;
  if (action == VSK_SNAPSHOT_ACTION_WALK || !cache::IsCached(shm, dynamic_id)) {
    st = store::GetDynamicConfig(txn, &dynamic_id, &dyn, false);
  } else {
    from_cache = true;
    st = store::DynamicConfigEmpty(&dyn);
    if (st == VSK_OK) st = cache::ToDynamicRecord(h, shm, dynamic_id, dyn);
  }
  if (st != VSK_OK && st != VSK_ERR_NOT_FOUND) {
    VSK_TRACE(
        "Failed to locate dynamic configuration record for snapshot by client session id "
        "%llu, err=%s",
        Ull(dynamic_id), vsk_get_err_msg(st));
    store::ReleaseDynamicConfig(dyn, !from_cache);
    return st;
  }
  if (st == VSK_ERR_NOT_FOUND) {
    store::ReleaseDynamicConfig(dyn, !from_cache);
    dyn = nullptr;
  }
  c->dynamic_record = dyn;
  if (dyn == nullptr || dyn->attrs == nullptr || dyn->attrs->first == nullptr) return VSK_OK;
  return AddClientDynamic(h, c->dynamic, dyn->attrs);
}

vsk_status_t LoadService(vsk_snapshot_handle* h, vsk_db_txn_t* txn, uint64_t id,
                         vsk_service_session_t* record) {
  if (record == nullptr) {
    VSK_TRACE("%s: service_session_record is NULL\n", kServiceFn);
    return VSK_ERR_NOT_FOUND;
  }
  auto* node =
      static_cast<vsk_snapshot_service_node*>(std::calloc(1, sizeof(vsk_snapshot_service_node)));
  if (node == nullptr) {
    store::ReleaseServiceSession(record, true);
    return VSK_ERR_NOMEM;
  }
  patricia_node_init_length(&node->header, sizeof node->id);
  node->id = id;
  node->record = record;
  if (!patricia_add(h->data->services, &node->header)) {
    // The same service twice in one snapshot: the first load stands.
    store::ReleaseServiceSession(record, true);
    std::free(node);
    return VSK_ERR_INVALID_DATA;
  }
  node->attrs = vsk_attr_tree_create();
  if (node->attrs == nullptr) return VSK_ERR_NOMEM;
  vsk_status_t st = AddAttrs(node->attrs, record->attrs);
  if (st != VSK_OK) {
    // Two blanks after "session", as the operators' text has always had them.
    VSK_TRACE("%s: Failed to add service session  attributes to patricia tree, err=%s\n",
              kServiceFn, vsk_get_err_msg(st));
    return st;
  }
  node->dynamic = vsk_attr_tree_create();
  node->dynamic_str = vsk_attr_tree_create();
  if (node->dynamic == nullptr || node->dynamic_str == nullptr) return VSK_ERR_NOMEM;
  // A service's dynamic configuration is keyed by the service id, and never cached.
  vsk_dynamic_config_t* dyn = nullptr;
  st = store::GetDynamicConfig(txn, &id, &dyn, false);
  if (st != VSK_OK && st != VSK_ERR_NOT_FOUND) {
    VSK_TRACE(
        "%s: Failed to locate dynamic configuration record for snapshot by service "
        "session id %llu, err=%s",
        kServiceFn, Ull(id), vsk_get_err_msg(st));
    store::ReleaseDynamicConfig(dyn, true);
    return st;
  }
  if (st == VSK_OK) {
    node->dynamic_record = dyn;
    if (dyn->attrs != nullptr) {
      st = AddServiceDynamic(node->dynamic, dyn->attrs);
      if (st != VSK_OK) return st;
    }
  } else {
    store::ReleaseDynamicConfig(dyn, true);
  }
  if (h->app_id != 0) {
    vsk_app_pri_key_t k{id, h->app_id};
    vsk_app_data_t* app = nullptr;
    st = store::GetAppPriData(txn, &k, &app, false);
    if (st != VSK_OK && st != VSK_ERR_NOT_FOUND) {
      VSK_TRACE(
          "%s: Failed to locate private data record for snapshot by service session id "
          "%llu, err=%s",
          kServiceFn, Ull(id), vsk_get_err_msg(st));
      store::ReleaseAppPriData(app, true);
      return st;
    }
    node->app_private = app;
  }
  return VSK_OK;
}

void FreeClientData(vsk_snapshot_handle* h, vsk_snapshot_client_data* c) {
  if (c == nullptr) return;
  // The array cursor points into the dynamic tree that goes here.
  vsk_cleanup_after_arrays(h);
  vsk_attr_tree_free(c->attrs);
  store::ReleaseClientSession(c->record, true);
  vsk_attr_tree_free(c->dynamic);
  vsk_attr_tree_free(c->predefined);
  cache::DropDynamicCopy(h);
  cache::DropSlotCopy(h);
  vsk_attr_tree_free(c->dynamic_str);
  store::ReleaseDynamicConfig(c->dynamic_record, true);
  store::ReleaseAppPriData(c->app_private, true);
  std::free(c);
}

void FreeSnapshot(vsk_snapshot_handle* h) {
  if (h == nullptr || h->data == nullptr) return;
  if (IsLight(h)) {
    store::ReleaseClientSession(reinterpret_cast<vsk_client_session_t*>(h->data), true);
    vsk_attr_list_t* result = static_cast<vsk_attr_list_t*>(h->attr_result);
    if (result != nullptr) std::free(result->first);
    std::free(result);
    h->attr_result = nullptr;
    cache::DropSlotCopy(h);
    if (h->service_ids_owned != 0) {
      std::free(h->service_ids);
      h->service_ids = nullptr;
      h->service_ids_owned = 0;
    }
    // Cleared so that a second free, or a later load into this handle, finds nothing left.
    h->data = nullptr;
    return;
  }
  if (h->freed_marker == VSK_SNAPSHOT_FREED) {
    logging(3, "trying to free an already freed snapshot\n");
    return;
  }
  vsk_snapshot_data* d = h->data;
  FreeClientData(h, d->client);
  if (d->services != nullptr) {
    patricia_node_t* n;
    while ((n = patricia_find_next(d->services, nullptr)) != nullptr) {
      patricia_delete(d->services, n);
      auto* s = reinterpret_cast<vsk_snapshot_service_node*>(n);
      vsk_attr_tree_free(s->attrs);
      store::ReleaseServiceSession(s->record, true);
      vsk_attr_tree_free(s->dynamic);
      vsk_attr_tree_free(s->dynamic_str);
      store::ReleaseDynamicConfig(s->dynamic_record, true);
      store::ReleaseAppPriData(s->app_private, true);
      std::free(s);
    }
    patricia_root_delete(d->services);
  }
  std::free(d);
  h->data = nullptr;
  if (h->service_ids_owned != 0) {
    std::free(h->service_ids);
    h->service_ids = nullptr;
    h->service_ids_owned = 0;
  }
  if (h->config_bits != nullptr) {
    h->config_bits = nullptr;
    h->config_bits_len = 0;
  }
  vsk_cleanup_after_arrays(h);
  h->freed_marker = VSK_SNAPSHOT_FREED;
}

}  // namespace vsk::snapshot

using namespace vsk::snapshot;
namespace store = vsk::store;

extern "C" {

vsk_status_t vsk_get_client_dyn_internal(vsk_snapshot_handle* handle, void* shm,
                                         vsk_snapshot_data* data, int action,
                                         vsk_client_session_t* record, vsk_db_txn_t* txn) {
  if (handle == nullptr || data == nullptr || data->client == nullptr || txn == nullptr) {
    store::ReleaseClientSession(record, true);
    return VSK_ERR_INVALID_PARAM;
  }
  return LoadClient(handle, shm, data, action, record, txn);
}

vsk_status_t vsk_generate_service_session_snapshot(vsk_snapshot_handle* handle, vsk_db_txn_t* txn,
                                                   vsk_session_id_t id,
                                                   vsk_service_session_t* record) {
  if (handle == nullptr || handle->data == nullptr || handle->data->services == nullptr ||
      txn == nullptr) {
    store::ReleaseServiceSession(record, true);
    return VSK_ERR_INVALID_PARAM;
  }
  return LoadService(handle, txn, id, record);
}

}  // extern "C"
