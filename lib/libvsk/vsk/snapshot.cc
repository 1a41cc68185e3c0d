// The build of one snapshot: one transaction over the client record, its dynamic
// configuration, its services and private data, loaded into the handle as trees.
//
//   attempt: txn ─ client stage (by id, by generic id, or one step of the client walk;
//            then trees, private data, filters) ─ service stage (the client's services,
//            a preset list, one step of the service walk, or a service by generic id)
//   tails:   success: commit;  failure: -20 counts as success, the rest aborts;
//            abort: free the handle, roll back; -4 and -11 start a new attempt (four in
//            all); -29 (filtered) clears client_session_id and is handed to the driver.
//
// Invariants:
//  1. Everything read in one attempt comes from one transaction (or one slot copy), so a
//     snapshot never mixes a client record and a dynamic record of different commits.
//  2. A record read is either held by the pass (`record`, released on every way out) or
//     owned by the handle's data; never both, never neither.
//  3. A walk step (action 2) never reads the cache; the walk keys and the ids survive the
//     free on every tail, so a walk goes on behind a filtered or failed session.
#include <cstdlib>
#include <cstring>

#include "libvsk/base/trace.h"
#include "libvsk/shared/session_cache.h"
#include "libvsk/store/records.h"
#include "libvsk/store/tables.h"
#include "libvsk/store/txn.h"
#include "libvsk/vsk/snapshot_internal.h"

namespace vsk::snapshot {
namespace {

constexpr int kAttempts = 4;

enum class Tail { kSuccess, kFailure, kAbort };
struct Outcome {
  Tail tail;
  vsk_status_t st;
};
Outcome Success() { return {Tail::kSuccess, VSK_OK}; }
Outcome Failure(vsk_status_t st) { return {Tail::kFailure, st}; }
Outcome Abort(vsk_status_t st) { return {Tail::kAbort, st}; }

// Whether one value of a read's result (`list`: the address of a node's list head, whose
// first word, read as `next`, is the first value) equals `bytes`, or begins with them.
bool SharesBytes(const vsk_attr_value_t* list, uint32_t length, const void* bytes, bool prefix) {
  if (list == nullptr) return false;
  for (const vsk_attr_value_t* v = list->next; v != nullptr; v = v->next) {
    if (!prefix && v->length != length) continue;
    if (prefix && v->length < length) continue;
    if (length == 0 || std::memcmp(v->value, bytes, length) == 0) return true;
  }
  return false;
}

// One attempt's state. The transaction is the step's own, child of the walk block's (null)
// transaction, so that a walk holds nothing between steps.
struct Pass {
  vsk_snapshot_handle* h;
  void* shm;
  int action;
  const vsk_snapshot_filter* f;
  bool nearest;
  vsk_db_txn_t txn{};
  vsk_session_key_t* key = nullptr;
  vsk_session_key_t* next = nullptr;
  const uint8_t* mask = nullptr;
  uint16_t mask_len = 0;
  vsk_client_session_t* record = nullptr;  // read, not yet owned by the handle
  bool record_from_cache = false;
  bool found_by_session_id = false;

  vsk_snapshot_data* data() const { return h->data; }

  void ReleaseRecord() {
    store::ReleaseClientSession(record, !record_from_cache);
    record = nullptr;
    record_from_cache = false;
  }
  void ReleaseKeys() {
    store::ReleaseKeySessionId(key, true);
    store::ReleaseKeySessionId(next, true);
    key = next = nullptr;
  }
  void CopyBits(uint16_t len, uint8_t* bits) {
    if (len == 0) return;
    h->config_bits_len = len;
    h->config_bits = bits;
  }

  // A client record by id into `record`: the cache when this handle uses it and the slot
  // still holds the id, else (also when the slot was given up meanwhile) the table.
  vsk_status_t ReadClient(uint64_t id) {
    if (h->use_shm != 0 && action != VSK_SNAPSHOT_ACTION_WALK && cache::IsCached(shm, id)) {
      vsk_status_t st = store::ClientSessionEmpty(&record);
      if (st != VSK_OK) return st;
      record_from_cache = true;
      st = cache::ToSessionRecord(h, shm, id, record);
      if (st != VSK_ERR_NOT_FOUND) return st;
      ReleaseRecord();
    }
    record_from_cache = false;
    return store::GetClientSession(&txn, &id, &record, false);
  }

  // Hands `record` to the handle's client part without trees: a record filtered by the
  // configuration-bit mask keeps its bits alive for the handle this way.
  void KeepBareRecord() {
    if (record == nullptr) return;
    data()->client->record = record;
    record = nullptr;
  }
  // The same for a service record: a node with no trees.
  void KeepBareService(uint64_t id, vsk_service_session_t* rec) {
    if (rec == nullptr) return;
    auto* node =
        static_cast<vsk_snapshot_service_node*>(std::calloc(1, sizeof(vsk_snapshot_service_node)));
    if (node != nullptr) {
      patricia_node_init_length(&node->header, sizeof node->id);
      node->id = id;
      node->record = rec;
      if (patricia_add(data()->services, &node->header)) return;
      std::free(node);
    }
    // No node: the bits cannot outlive the record.
    h->config_bits = nullptr;
    h->config_bits_len = 0;
    store::ReleaseServiceSession(rec, true);
  }

  Outcome Run();
  Outcome ClientStage(bool* to_services);
  Outcome LoadAndFilterClient();
  Outcome DynamicFilter();
  Outcome ServiceStage();
  Outcome ClientServices();
  Outcome PresetServices();
  Outcome ServiceWalk();
  Outcome ServiceByGenericId();
  Outcome LoadOwner(uint64_t owner, bool missing_is_absent, int level);
  Outcome TestServiceAttrs(uint64_t id);
};

Outcome Pass::Run() {
  bool to_services = false;
  Outcome o = ClientStage(&to_services);
  if (!to_services) return o;
  return ServiceStage();
}

Outcome Pass::ClientStage(bool* to_services) {
  vsk_snapshot_handle* hd = h;
  const bool walks_clients = f != nullptr && (f->flags & VSK_FILTER_CLIENT_SESSIONS) != 0;
  // No id and no client walk: only the service stage can find something.
  if (hd->session_id == 0 && hd->client_session_id == 0 && !walks_clients) {
    *to_services = true;
    return Success();
  }
  if (f != nullptr) {
    // A filter always walks: preset ids do not pick the record.
    vsk_status_t st =
        vsk_db_iterate_client_session(&txn, hd->current_key, hd->next_key, hd->start_key, nearest,
                                      &key, &next, &record, mask, mask_len);
    hd->start_key = 0;
    if (st != VSK_OK && st != VSK_ERR_SNAPSHOT_ONLY) {
      ReleaseKeys();
      ReleaseRecord();
      return Failure(st);
    }
    hd->current_key = key->id;
    hd->next_key = next != nullptr ? next->id : 0;
    hd->client_session_id = key->id;
    ReleaseKeys();
    if ((f->flags & VSK_FILTER_SERVICE_SESSIONS) != 0) hd->include_services = 1;
    if (record != nullptr) CopyBits(record->config_bits_len, record->config_bits);
    if (st == VSK_ERR_SNAPSHOT_ONLY) {
      // Ids and bits only: "snapshot handle only; filtered by config bits".
      KeepBareRecord();
      return Success();
    }
  } else if (hd->session_id == 0) {
    vsk_status_t st = ReadClient(hd->client_session_id);
    if (st != VSK_OK && st != VSK_ERR_NOT_FOUND) {
      VSK_TRACE("%s: Failed to locate client session record %llu for snapshot, err=%s", kInternalFn,
                Ull(hd->client_session_id), vsk_get_err_msg(st));
      ReleaseRecord();
      return Failure(st);
    }
  } else {
    vsk_status_t st = ReadClient(hd->session_id);
    if (st == VSK_OK) {
      hd->client_session_id = hd->session_id;
      found_by_session_id = true;
    } else if (st != VSK_ERR_NOT_FOUND) {
      VSK_TRACE(
          "%s: Failed to locate client session record for snapshot by generic id %llu, "
          "err=%s",
          kInternalFn, Ull(hd->session_id), vsk_get_err_msg(st));
      ReleaseRecord();
      return Failure(st);
    }
  }
  Outcome o = Success();
  if (hd->session_id != 0 && !found_by_session_id) {
    // A generic id that names no client: on to the services, by way of the dynamic filter.
    ReleaseRecord();
    o = DynamicFilter();
  } else {
    o = LoadAndFilterClient();
  }
  if (o.tail == Tail::kSuccess) *to_services = true;
  return o;
}

Outcome Pass::LoadAndFilterClient() {
  vsk_snapshot_handle* hd = h;
  vsk_client_session_t* rec = record;
  record = nullptr;  // the loader takes it over, whatever it returns
  vsk_status_t st = LoadClient(hd, shm, data(), action, rec, &txn);
  if (st != VSK_OK) {
    VSK_TRACE("%s: Failed to add client data to snapshot for session id %llu, err=%s", kInternalFn,
              Ull(hd->client_session_id), vsk_get_err_msg(st));
    return Failure(st);
  }
  if (hd->app_id != 0) {
    vsk_app_pri_key_t k{hd->client_session_id, hd->app_id};
    vsk_app_data_t* app = nullptr;
    st = store::GetAppPriData(&txn, &k, &app, false);
    if (st != VSK_OK && st != VSK_ERR_NOT_FOUND) {
      VSK_TRACE(
          "%s: Failed to locate private data record for snapshot by client session id "
          "%llu, err=%s",
          kInternalFn, Ull(hd->client_session_id), vsk_get_err_msg(st));
      store::ReleaseAppPriData(app, true);
      return Failure(st);
    }
    data()->client->app_private = app;
  }
  if (f != nullptr) {
    vsk_attr_value_t* type = nullptr;
    if (f->client_type_mask != 0 && ClientAttr(hd, VSK_CLIENT_SESSION_TYPE, &type) == VSK_OK &&
        type != nullptr && type->next != nullptr && type->next->length >= sizeof(uint32_t)) {
      uint32_t t;
      std::memcpy(&t, type->next->value, sizeof t);
      if ((t & f->client_type_mask) == 0) return Abort(VSK_ERR_FILTERED);
    }
    for (const vsk_attr_t* a = f->client_attrs != nullptr ? f->client_attrs->first : nullptr;
         a != nullptr; a = a->next) {
      vsk_attr_value_t* values = nullptr;
      if (ClientAttr(hd, a->type, &values) != VSK_OK ||
          !SharesBytes(values, a->length, a->value, false)) {
        return Abort(VSK_ERR_FILTERED);
      }
    }
  }
  return DynamicFilter();
}

// Every entry of the filter's dynamic list must be the beginning of one of the values of
// its name. Reading a predefined name computes it, with what that entails.
Outcome Pass::DynamicFilter() {
  if (action == VSK_SNAPSHOT_ACTION_GET || f == nullptr || f->dynamic_attrs == nullptr) {
    return Success();
  }
  for (const vsk_dyn_attr_t* a = f->dynamic_attrs->first; a != nullptr; a = a->next) {
    vsk_attr_value_t* values = nullptr;
    if (DynamicAttr(h, 0, a->name, &values) != VSK_OK ||
        !SharesBytes(values, a->length, a->value, true)) {
      return Abort(VSK_ERR_FILTERED);
    }
  }
  return Success();
}

Outcome Pass::ServiceStage() {
  vsk_snapshot_handle* hd = h;
  data()->services = patricia_root_init(nullptr, false, sizeof(vsk_session_id_t), 0);
  if (data()->services == nullptr) return Abort(VSK_ERR_NOMEM);
  if (hd->session_id != 0) return found_by_session_id ? Success() : ServiceByGenericId();
  if (f != nullptr && f->flags == VSK_FILTER_SERVICE_SESSIONS) return ServiceWalk();
  if (hd->include_services != 0) {
    return hd->client_session_id == 0 ? Success() : ClientServices();
  }
  return PresetServices();
}

// All services of the loaded client. Services that the mask filters out stay listed in
// service_ids without a node.
Outcome Pass::ClientServices() {
  vsk_snapshot_handle* hd = h;
  vsk_client_session_t* client = data()->client != nullptr ? data()->client->record : nullptr;
  if (client == nullptr) return Success();
  for (uint16_t i = 0; i < client->service_count; ++i) {
    uint64_t id = client->service_ids[i];
    vsk_service_session_t* rec = nullptr;
    vsk_status_t st = store::GetServiceSession(&txn, &id, &rec, false, mask, mask_len);
    if (st == VSK_ERR_SNAPSHOT_ONLY) {
      store::ReleaseServiceSession(rec, true);
      break;
    }
    if (st != VSK_OK) {
      if (st != VSK_ERR_NOT_FOUND) {
        VSK_TRACE(
            "Failed to locate service session record for snapshot for client session id "
            "%llu, return code %d\n",
            Ull(hd->client_session_id), st);
      }
      store::ReleaseServiceSession(rec, true);
      return Abort(st);
    }
    st = LoadService(hd, &txn, id, rec);
    if (st != VSK_OK) {
      VSK_TRACE("Failed to add service session %llu into snapshot, return code %d\n", Ull(id), st);
      return Failure(st);
    }
  }
  CopyBits(client->config_bits_len, client->config_bits);
  if (client->service_count != 0) {
    if (AllocServiceIds(hd, client->service_count) != VSK_OK) return Failure(VSK_ERR_NOMEM);
    std::memcpy(hd->service_ids, client->service_ids,
                sizeof(vsk_session_id_t) * client->service_count);
  }
  hd->service_count = client->service_count;
  return Success();
}

// The ids the caller (or the cache) put in service_ids, each with its owner's client data.
Outcome Pass::PresetServices() {
  vsk_snapshot_handle* hd = h;
  for (uint16_t i = 0; i < hd->service_count && hd->service_ids != nullptr; ++i) {
    uint64_t id = hd->service_ids[i];
    vsk_service_session_t* rec = nullptr;
    vsk_status_t st = store::GetServiceSession(&txn, &id, &rec, false, mask, mask_len);
    if (st == VSK_ERR_NOT_FOUND) {
      store::ReleaseServiceSession(rec, true);
      return Abort(st);
    }
    if (st != VSK_OK && st != VSK_ERR_SNAPSHOT_ONLY) {
      VSK_TRACE(
          "Failed to locate service session record for snapshot session id %llu, return "
          "code %d\n",
          Ull(id), st);
      store::ReleaseServiceSession(rec, true);
      return Abort(st);
    }
    if (rec != nullptr) CopyBits(rec->config_bits_len, rec->config_bits);
    if (st == VSK_ERR_SNAPSHOT_ONLY) {
      KeepBareService(id, rec);
      return Success();
    }
    const uint64_t owner = rec->client_id;
    st = LoadService(hd, &txn, id, rec);
    if (st != VSK_OK) {
      VSK_TRACE("Failed to add service session %llu into snapshot, return code %d\n", Ull(id), st);
      return Failure(st);
    }
    // The owner is loaded again for every id; the previous load is dropped first.
    if (owner != 0) {
      FreeClientData(hd, data()->client);
      data()->client =
          static_cast<vsk_snapshot_client_data*>(std::calloc(1, sizeof(vsk_snapshot_client_data)));
      if (data()->client == nullptr) return Abort(VSK_ERR_NOMEM);
    }
    Outcome o = LoadOwner(owner, false, VSK_TRACE_LEVEL_ERROR);
    if (o.tail != Tail::kSuccess) return o;
  }
  return Success();
}

// The owner of a service that was just loaded, traced at `level`. With `missing_is_absent`
// a client that is gone still reaches the loader, which answers -7 for it.
Outcome Pass::LoadOwner(uint64_t owner, bool missing_is_absent, int level) {
  if (owner == 0) {
    VSK_TRACE_AT(level,
                 "Failed to get client id for adding client data to snapshot for generic "
                 "session id %llu, return code %d\n",
                 Ull(owner), 0);
    return Abort(VSK_OK);
  }
  vsk_status_t st = ReadClient(owner);
  if (st != VSK_OK && !(missing_is_absent && st == VSK_ERR_NOT_FOUND)) {
    VSK_TRACE_AT(level,
                 "Failed to locate client session record for snapshot by generic id %llu, "
                 "return code %d\n",
                 Ull(owner), st);
    ReleaseRecord();
    return Failure(st);
  }
  vsk_client_session_t* client = record;
  record = nullptr;
  st = LoadClient(h, shm, data(), action, client, &txn);
  if (st != VSK_OK) {
    VSK_TRACE_AT(level,
                 "Failed to add client data to snapshot for generic session id %llu, return "
                 "code %d\n",
                 Ull(owner), st);
    return Failure(st);
  }
  return Success();
}

Outcome Pass::TestServiceAttrs(uint64_t id) {
  for (const vsk_attr_t* a = f->service_attrs != nullptr ? f->service_attrs->first : nullptr;
       a != nullptr; a = a->next) {
    vsk_attr_value_t* values = nullptr;
    if (ServiceAttr(h, id, a->type, &values) != VSK_OK || values->next == nullptr ||
        !SharesBytes(values, a->length, a->value, false)) {
      return Abort(VSK_ERR_FILTERED);
    }
  }
  return Success();
}

// One step of the service table walk. start_key is left as it is here.
Outcome Pass::ServiceWalk() {
  vsk_snapshot_handle* hd = h;
  vsk_service_session_t* rec = nullptr;
  vsk_status_t st =
      vsk_db_iterate_service_session(&txn, hd->current_key, hd->next_key, hd->start_key, nearest,
                                     &key, &next, &rec, mask, mask_len);
  if (st != VSK_OK && st != VSK_ERR_SNAPSHOT_ONLY) {
    ReleaseKeys();
    store::ReleaseServiceSession(rec, true);
    return Failure(st);
  }
  if (rec != nullptr) CopyBits(rec->config_bits_len, rec->config_bits);
  const uint64_t id = key->id;
  hd->current_key = id;
  hd->next_key = next != nullptr ? next->id : 0;
  if (st == VSK_ERR_SNAPSHOT_ONLY) {
    KeepBareService(id, rec);
    return Success();
  }
  const uint64_t owner = rec->client_id;
  hd->service_count = 1;
  st = LoadService(hd, &txn, id, rec);
  if (st != VSK_OK) {
    VSK_TRACE("Failed to add service session %llu into snapshot, return code %d\n", Ull(id), st);
    return Failure(st);
  }
  if (AllocServiceIds(hd, 1) != VSK_OK) return Failure(VSK_ERR_NOMEM);
  auto* first =
      reinterpret_cast<vsk_snapshot_service_node*>(patricia_find_next(data()->services, nullptr));
  hd->service_ids[0] = first->id;
  Outcome o = TestServiceAttrs(id);
  if (o.tail != Tail::kSuccess) return o;
  return LoadOwner(owner, true, VSK_TRACE_LEVEL);
}

Outcome Pass::ServiceByGenericId() {
  vsk_snapshot_handle* hd = h;
  uint64_t id = hd->session_id;
  vsk_service_session_t* rec = nullptr;
  vsk_status_t st = store::GetServiceSession(&txn, &id, &rec, false, mask, mask_len);
  if (st == VSK_ERR_SNAPSHOT_ONLY) {
    if (rec != nullptr) CopyBits(rec->config_bits_len, rec->config_bits);
    KeepBareService(id, rec);
    return Success();
  }
  if (st != VSK_OK && st != VSK_ERR_NOT_FOUND) {
    VSK_TRACE(
        "Failed to locate service session record for snapshot for generic session id "
        "%llu, err=%s",
        Ull(id), vsk_get_err_msg(st));
    store::ReleaseServiceSession(rec, true);
    return Abort(st);
  }
  if (st == VSK_OK) CopyBits(rec->config_bits_len, rec->config_bits);
  const uint64_t owner = rec != nullptr ? rec->client_id : 0;
  st = LoadService(hd, &txn, id, st == VSK_OK ? rec : nullptr);
  if (st != VSK_OK) {
    VSK_TRACE(
        "Failed to add service session into snapshot for generic session id %llu, return "
        "code %d\n",
        Ull(id), st);
    return Failure(st);
  }
  Outcome o = LoadOwner(owner, true, VSK_TRACE_LEVEL);
  if (o.tail != Tail::kSuccess) return o;
  if (AllocServiceIds(hd, 1) != VSK_OK) return Failure(VSK_ERR_NOMEM);
  hd->service_ids[0] = id;
  hd->service_count = 1;
  return Success();
}

}  // namespace

vsk_status_t AllocServiceIds(vsk_snapshot_handle* h, uint16_t count) {
  if (h->service_ids_owned != 0) {
    std::free(h->service_ids);
    h->service_ids = nullptr;
    h->service_ids_owned = 0;
  }
  h->service_ids =
      static_cast<vsk_session_id_t*>(std::calloc(count != 0 ? count : 1, sizeof(vsk_session_id_t)));
  if (h->service_ids == nullptr) return VSK_ERR_NOMEM;
  h->service_ids_owned = 1;
  return VSK_OK;
}

vsk_status_t GetSnapshot(vsk_snapshot_handle* h, int action, const vsk_snapshot_filter* filter,
                         bool nearest, vsk_db_txn_t* walk) {
  void* shm = cache::Segment();
  if (h == nullptr) {
    VSK_TRACE("%s: Snapshot handle is null", kInternalFn);
    return VSK_ERR_INVALID_PARAM;
  }
  vsk_status_t st = VSK_OK;
  for (int attempt = 1;; ++attempt) {
    // A handle that still holds a load (a caller that skipped the free) is emptied first,
    // so that nothing it owns is lost.
    if (h->data != nullptr) FreeSnapshot(h);
    h->freed_marker = VSK_SNAPSHOT_BUILDING;
    if (action != VSK_SNAPSHOT_ACTION_GET && filter == nullptr && walk == nullptr) {
      VSK_TRACE("Missing filter with snapshot action %d", action);
      return VSK_ERR_INVALID_PARAM;
    }
    h->data = static_cast<vsk_snapshot_data*>(std::calloc(1, sizeof(vsk_snapshot_data)));
    if (h->data == nullptr) return VSK_ERR_NOMEM;
    Pass pass{h, shm, action, filter, nearest};
    pass.txn.parent = walk;
    store::Txn txn(&pass.txn);
    Outcome o;
    st = txn.Begin();
    if (st != VSK_OK) {
      o = Failure(st);
    } else {
      h->data->client =
          static_cast<vsk_snapshot_client_data*>(std::calloc(1, sizeof(vsk_snapshot_client_data)));
      if (h->data->client == nullptr) {
        o = Abort(VSK_ERR_NOMEM);
      } else {
        if (filter != nullptr && filter->config_bits_len != 0) {
          pass.mask = filter->config_bits;
          pass.mask_len = filter->config_bits_len;
        }
        if (shm != nullptr && action != VSK_SNAPSHOT_ACTION_WALK &&
            ((h->session_id != 0 && cache::IsCached(shm, h->session_id)) ||
             (h->client_session_id != 0 && cache::IsCached(shm, h->client_session_id)))) {
          h->use_shm = 1;
        }
        o = pass.Run();
      }
    }
    if (o.tail == Tail::kFailure && o.st == VSK_ERR_SNAPSHOT_ONLY) o = Success();
    if (o.tail == Tail::kSuccess) {
      pass.ReleaseKeys();
      pass.ReleaseRecord();
      st = txn.Commit();
      if (st != VSK_OK) FreeSnapshot(h);
      return st;
    }
    st = o.st;
    pass.ReleaseKeys();
    pass.ReleaseRecord();
    FreeSnapshot(h);
    if (st == VSK_ERR_FILTERED) {
      h->client_session_id = 0;
      txn.Fail(st);
      break;
    }
    txn.Fail(st);
    if ((st != VSK_ERR_RECOVERING && st != VSK_ERR_RETRY) || attempt == kAttempts) break;
  }
  VSK_TRACE(
      "Failed to generate snapshot, error can be ignored if searching or recovering "
      "sessions, err=%s",
      vsk_get_err_msg(st));
  return st;
}

}  // namespace vsk::snapshot

extern "C" vsk_status_t vsk_get_snapshot_internal(vsk_snapshot_handle* handle, int action,
                                                  const vsk_snapshot_filter* filter,
                                                  uint8_t nearest, vsk_db_txn_t* walk) {
  return vsk::snapshot::GetSnapshot(handle, action, filter, nearest != 0, walk);
}
