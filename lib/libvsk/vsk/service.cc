// Service session create and removal: the service's own rows and its place in the owning
// client's list change in one transaction.
//
//   create: id ─ name node on the list ─ pass: txn ─ service record ─ client (slot or
//           table, write-locked) ─ count + 1 (11: -6) ─ new list ─ client record (table
//           only) ─ dynamic record under the service id ─ commit ─ slot's list (cached)
//      failed pass: abort; -4 and -11 give up to three more passes, no sleep
//   remove: pass: txn ─ private data of applications 0..9 ─ service record ─ client ─
//           list without the service ─ client record (table only) ─ delete the service ─
//           commit ─ slot's list (cached) ─ the service's config bits leave the counters
//      failed pass: abort; -4 and -11 give up to 250 more passes, 5 ms of sleep after
//      every third
//
// Invariants:
//  1. The name node is on the head of the caller's list only during the call.
//  2. The new id is taken once per create and kept across passes.
//  3. Counters change only after a good commit; a create changes none (a new service has
//     no config bits yet), and a removal takes back exactly what the record held.
//  4. A service's dynamic record outlives it: removal leaves "dynamic-config-db" alone.
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "libvsk/base/status.h"
#include "libvsk/base/trace.h"
#include "libvsk/shared/ids_and_counters.h"
#include "libvsk/store/records.h"
#include "libvsk/store/tables.h"
#include "libvsk/store/txn.h"
#include "libvsk/vsk/service_client.h"
#include "libvsk/vsk/service_internal.h"

namespace vsk::session {
namespace {

constexpr char kCreateFn[] = "vsk_create_service_session_by_client_id";
constexpr char kRemoveFn[] = "vsk_remove_service_session";
constexpr int kCreateRetries = 3;
constexpr int kRemoveRetries = 250;
constexpr useconds_t kRetrySleepUs = 5000;
constexpr uint32_t kApplications = 10;

unsigned long long Ull(uint64_t v) { return static_cast<unsigned long long>(v); }

uint64_t* NewIds(size_t count) {
  return static_cast<uint64_t*>(std::malloc(count * sizeof(uint64_t)));
}

// The service name at the head of the caller's list for the duration of one create.
class NameNode {
 public:
  NameNode(vsk_attr_list_t* list, const char* name) : list_(list) {
    node_ = {VSK_SERVICE_NAME, static_cast<uint16_t>(std::strlen(name) + 1),
             const_cast<char*>(name), nullptr};
    vsk_attr_list_insert_head(list_, &node_);
  }
  NameNode(const NameNode&) = delete;
  NameNode& operator=(const NameNode&) = delete;
  ~NameNode() {
    if (list_->first != &node_) return;
    list_->first = node_.next;
    if (list_->first == nullptr) list_->last = &list_->first;
  }

 private:
  vsk_attr_list_t* list_;
  vsk_attr_t node_;
};

class ServiceCreate {
 public:
  ServiceCreate(uint64_t client_id, vsk_attr_list_t* attrs, vsk_dyn_attr_list_t* dynamic,
                uint64_t service_id)
      : client_id_(client_id), id_(service_id) {
    record_.attrs = attrs;
    record_.client_id = client_id;
    dynamic_.attrs = dynamic;
  }

  vsk_status_t Run() {
    for (int retries = 0;; ++retries) {
      bool committed = false;
      vsk_status_t st = Pass(&committed);
      if (committed) return st;
      if (!store::RetryOnDeadlockOrRecovery(st) || retries == kCreateRetries) {
        VSK_TRACE("%s: Failed to create service session, err=%s", kCreateFn, vsk_get_err_msg(st));
        return st;
      }
    }
  }

 private:
  // One pass. *committed is set once the commit was tried: the status is then the result.
  vsk_status_t Pass(bool* committed) {
    vsk_db_txn_t block{};
    store::Txn txn(&block);
    OwningClient client;
    vsk_status_t st = txn.Begin();
    if (st != VSK_OK) return st;
    st = store::PutServiceSession(&block, &id_, &record_);
    if (st != VSK_OK) {
      VSK_TRACE("%s: Failed to put service session", kCreateFn);
      return txn.Fail(st);
    }
    st = client.Read(&block, client_id_);
    if (st != VSK_OK) {
      if (client.cached()) {
        VSK_TRACE("%s: Failed to read shm client session, err=%s", kCreateFn, vsk_get_err_msg(st));
      } else {
        VSK_TRACE("%s: Failed to read client session, err=%s", kCreateFn, vsk_get_err_msg(st));
      }
      return txn.Fail(st);
    }
    vsk_client_session_t* rec = client.record();
    const uint32_t count = rec->service_count + 1u;
    if (count > kMaxServicesPerClient) {
      // Published: no colon after the function name.
      VSK_TRACE("%s Max num of services exceeded for client session %llu", kCreateFn,
                Ull(client_id_));
      return txn.Fail(VSK_ERR_INVALID_PARAM);
    }
    uint64_t* ids = NewIds(count);
    if (ids == nullptr) return txn.Fail(VSK_ERR_NOMEM);
    if (count > 1 && rec->service_ids != nullptr) {
      std::memcpy(ids, rec->service_ids, (count - 1) * sizeof(uint64_t));
    } else if (count > 1) {
      std::memset(ids, 0, (count - 1) * sizeof(uint64_t));
    }
    ids[count - 1] = id_;
    client.SetServices(ids, static_cast<uint16_t>(count));
    st = client.Store(&block);
    if (st == VSK_OK && dynamic_.attrs != nullptr) {
      st = store::PutDynamicConfig(&block, &id_, &dynamic_);
    }
    if (st != VSK_OK) return txn.Fail(st);
    *committed = true;
    st = txn.Commit();
    if (st == VSK_OK) st = client.AfterCommit();
    return st;
  }

  const uint64_t client_id_;
  const uint64_t id_;
  vsk_service_session_t record_{};
  vsk_dynamic_config_t dynamic_{};
};

class ServiceRemoval {
 public:
  explicit ServiceRemoval(uint64_t id) : id_(id) {}
  ~ServiceRemoval() { store::ReleaseServiceSession(service_, true); }

  vsk_status_t Run() {
    for (int retries = 0;;) {
      bool committed = false;
      vsk_status_t st = Pass(&committed);
      if (committed) return st;
      if (!store::RetryOnDeadlockOrRecovery(st) || retries == kRemoveRetries) {
        VSK_TRACE("%s: Failed to remove service session %llu, err=%s", kRemoveFn, Ull(id_),
                  vsk_get_err_msg(st));
        return st;
      }
      if (++retries % 3 == 0) usleep(kRetrySleepUs);
    }
  }

 private:
  vsk_status_t Pass(bool* committed) {
    store::ReleaseServiceSession(service_, true);
    service_ = nullptr;
    vsk_db_txn_t block{};
    store::Txn txn(&block);
    OwningClient client;
    vsk_status_t st = txn.Begin();
    if (st != VSK_OK) return st;
    st = InTransaction(&block, &client);
    if (st != VSK_OK) return txn.Fail(st);
    *committed = true;
    st = txn.Commit();
    if (st != VSK_OK) return st;
    st = client.AfterCommit();
    // The removal stands: the service's bits leave the counters whatever the slot said.
    if (service_->config_bits_len != 0) {
      int rc = shared::CounterDecrementConfigBits(service_->config_bits, service_->config_bits_len);
      if (rc != 0) {
        VSK_TRACE("%s: Failed to decrement service config bits summary counter %s", kRemoveFn,
                  vsk_get_err_msg(rc));
      }
    }
    return st;
  }

  vsk_status_t InTransaction(vsk_db_txn_t* txn, OwningClient* client) {
    for (uint32_t app = 0; app < kApplications; ++app) {
      vsk_app_pri_key_t key{id_, app};
      vsk_status_t st = store::DelAppPriData(txn, &key);
      if (st == VSK_OK) {
        VSK_TRACE("%s: Private data for service session %llu app %d found during session delete",
                  kRemoveFn, Ull(id_), static_cast<int>(app));
      } else if (st != VSK_ERR_NOT_FOUND) {
        return st;
      }
    }
    vsk_status_t st = store::GetServiceSession(txn, &id_, &service_, false, nullptr, 0);
    if (st != VSK_OK) {
      VSK_TRACE("%s: Failed to read the service session %llu", kRemoveFn, Ull(id_));
      return st;
    }
    const uint64_t client_id = service_->client_id;
    st = client->Read(txn, client_id);
    if (st != VSK_OK) {
      VSK_TRACE("%s - %d: Failed to read client session %llu, err=%s", kRemoveFn, __LINE__,
                Ull(client_id), vsk_get_err_msg(st));
      return st;
    }
    st = TakeOffList(client);
    if (st != VSK_OK) return st;
    st = client->Store(txn);
    if (st != VSK_OK) return st;
    return store::DelServiceSession(txn, &id_);
  }

  // The client's list without this service. Once the service was found in a pass it
  // counts as found in later ones (published); the list then loses one entry all the same,
  // and never more than it holds.
  vsk_status_t TakeOffList(OwningClient* client) {
    vsk_client_session_t* rec = client->record();
    const uint16_t count = rec->service_ids != nullptr ? rec->service_count : 0;
    bool here = false;
    for (uint16_t i = 0; i < count; ++i) here = here || rec->service_ids[i] == id_;
    found_ = found_ || here;
    if (!found_ || count == 0) {
      VSK_TRACE(
          "%s: DB data is inconsistent, when remove service session %llu could not find "
          "service sid in client session record %llu",
          kRemoveFn, Ull(id_), Ull(service_->client_id));
      return VSK_ERR_CORRUPT;
    }
    if (count == 1) {
      client->SetServices(nullptr, 0);
      return VSK_OK;
    }
    uint64_t* ids = NewIds(count - 1u);
    if (ids == nullptr) return VSK_ERR_NOMEM;
    uint16_t kept = 0;
    for (uint16_t i = 0; i < count && kept < count - 1; ++i) {
      if (rec->service_ids[i] != id_) ids[kept++] = rec->service_ids[i];
    }
    client->SetServices(ids, kept);
    return VSK_OK;
  }

  const uint64_t id_;
  vsk_service_session_t* service_ = nullptr;
  bool found_ = false;
};

}  // namespace

vsk_status_t CreateServiceSession(uint64_t client_id, const char* service_name,
                                  vsk_attr_list_t* attrs, vsk_dyn_attr_list_t* dynamic,
                                  vsk_session_id_t* service_id) {
  if (shared::IdGenerate(service_id) != 0) {
    VSK_TRACE("%s: Failed to generate service session id, err=%s", kCreateFn,
              base::ErrorText(VSK_ERR_FATAL));
    return VSK_ERR_FATAL;
  }
  vsk_attr_list_t own;
  vsk_attr_list_init(&own);
  vsk_attr_list_t* list = attrs != nullptr ? attrs : &own;
  NameNode name(list, service_name);
  return ServiceCreate(client_id, list, dynamic, *service_id).Run();
}

vsk_status_t RemoveServiceSession(uint64_t service_id) { return ServiceRemoval(service_id).Run(); }

}  // namespace vsk::session
