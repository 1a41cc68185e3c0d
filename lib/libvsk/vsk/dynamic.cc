// The write side of dynamic configuration: a list of changes merged into a session's
// dynamic record, in the tables or in the session's cache slot, and the plain replacement
// of a client's record.
//
//   attempt: txn ─ read (slot or tables) ─ tree ─ changes ─ flatten in name order ─
//            write back (slot block or table) ─ commit
//   slot block full (-24): the old list goes back to the block, the session with the new
//            list goes to the tables in the same transaction, and the slot is given up
//
// Invariants:
//  1. A failed attempt leaves the stored record as it was: the edited list is written only
//     at the end, and the transaction is aborted on any failure.
//  2. The decoded record keeps its own list: the flattened list is swapped in only for the
//     write and swapped back before the record is released, so each list is freed by the
//     one that made it.
//  3. An array is written back through its top-level identifying entry: under one
//     identifying value the first two nested instances are kept (the format's limit).
#include "vsk/dynamic.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "libvsk/base/trace.h"
#include "libvsk/shared/session_cache.h"
#include "libvsk/store/records.h"
#include "libvsk/store/tables.h"
#include "libvsk/store/txn.h"
#include "libvsk/vsk/dynamic_internal.h"
#include "vsk/session_cache.h"
#include "vsk/shared.h"

namespace vsk::session {
namespace {

constexpr char kClientFn[] = "vsk_update_client_dynamic_internal";
constexpr char kServiceFn[] = "vsk_update_service_dynamic";
constexpr char kSetFn[] = "vsk_set_client_dynamic_configuration";
constexpr int kAttempts = 4;
constexpr int kArrayLevels = 10;

unsigned long long Ull(uint64_t v) { return static_cast<unsigned long long>(v); }

struct TreeFree {
  void operator()(patricia_root_t* t) const { vsk_attr_tree_free(t); }
};
using TreePtr = std::unique_ptr<patricia_root_t, TreeFree>;

// A list of entries that point into the tree (names and values are borrowed).
class FlatList {
 public:
  FlatList() { list_.first = nullptr, list_.last = &list_.first; }
  ~FlatList() {
    while (list_.first != nullptr) {
      vsk_dyn_attr_t* next = list_.first->next;
      std::free(list_.first);
      list_.first = next;
    }
  }
  FlatList(const FlatList&) = delete;
  FlatList& operator=(const FlatList&) = delete;

  vsk_status_t Add(const char* name, uint32_t length, void* value, uint16_t tag) {
    auto* a = static_cast<vsk_dyn_attr_t*>(std::calloc(1, sizeof(vsk_dyn_attr_t)));
    if (a == nullptr) return VSK_ERR_NOMEM;
    a->name = const_cast<char*>(name);
    a->length = length;
    a->value = value;
    a->array_tag = tag;
    *list_.last = a;
    list_.last = &a->next;
    return VSK_OK;
  }
  vsk_dyn_attr_list_t* get() { return &list_; }

 private:
  vsk_dyn_attr_list_t list_;
};

// Loads a dynamic list into `tree`, the array bookkeeping in locals; *array_id is the id
// the last array left, for the changes that follow.
vsk_status_t LoadTree(patricia_root_t* tree, const vsk_dyn_attr_list_t* list, const char* fn,
                      uint16_t* array_id) {
  const void* previous = nullptr;
  vsk_array_member_list_t* members = nullptr;
  patricia_root_t* index_root = nullptr;
  vsk_array_index_node_t* index_node = nullptr;
  for (const vsk_dyn_attr_t* a = list != nullptr ? list->first : nullptr; a != nullptr;
       a = a->next) {
    if (a->name == nullptr) continue;
    const uint16_t klen = static_cast<uint16_t>(std::strlen(a->name) + 1);
    vsk_status_t st;
    if (a->array_tag >= VSK_ARRAY_IDENTIFYING_TLV && a->array_tag <= VSK_ARRAY_MEMBER_TLV) {
      if (a->array_tag == VSK_ARRAY_MEMBER_TLV && previous == nullptr) {
        VSK_TRACE("%s - Array member without array start being added to patricia tree", fn);
        return VSK_ERR_INVALID_PARAM;
      }
      st = vsk_dyn_tree_add(tree, klen, a->name, a->length, a->value, a->array_tag, previous,
                            array_id, &members, &index_root, &index_node, false);
      if (a->array_tag != VSK_ARRAY_MEMBER_TLV) previous = a->value;
    } else {
      st = vsk_dyn_tree_add(tree, klen, a->name, a->length, a->value, VSK_ARRAY_NONE, nullptr,
                            nullptr, nullptr, nullptr, nullptr, false);
    }
    if (st != VSK_OK) {
      if (fn == kServiceFn) {
        VSK_TRACE("Failed to add attributes to patricia tree during update %d", st);
      } else {
        VSK_TRACE("%s: Failed to add attributes to patricia tree during update %d", fn, st);
      }
      return st;
    }
  }
  return VSK_OK;
}

vsk_status_t AddMembers(FlatList* out, const vsk_attr_value_t* entry) {
  if (entry == nullptr || entry->members == nullptr) return VSK_OK;
  for (const vsk_array_member_t* m = entry->members->first; m != nullptr; m = m->next) {
    if (m->entry == nullptr || m->entry->member_state == 2) continue;  // removed from the tree
    if (m->entry->array_id == 0) {
      // A member list being written out again names an entry that no array instance
      // claimed: the record cannot be rebuilt faithfully, so the update is refused.
      VSK_TRACE("member stored without array identifier for %d - suspect misconfiguration of "
                "array",
                static_cast<int>(entry->array_id));
      return VSK_ERR_INVALID_PARAM;
    }
    vsk_status_t st = out->Add(m->name, m->entry->length, m->entry->value, VSK_ARRAY_MEMBER_TLV);
    if (st != VSK_OK) return st;
  }
  return VSK_OK;
}

// One array from its top-level index node: the identifying chain, then the members of its
// deepest instance, then the next nested instance with the chain again.
vsk_status_t EmitArray(FlatList* out, vsk_array_index_node_t* top) {
  vsk_array_index_node_t* node[kArrayLevels] = {top};
  int level = 1;
  if (top->nested_root != nullptr) {
    node[1] =
        reinterpret_cast<vsk_array_index_node_t*>(patricia_find_next(top->nested_root, nullptr));
    if (node[1] != nullptr) level = 2;
  }
  auto write_out = [&]() -> vsk_status_t {
    for (int i = 0; i < level && node[i] != nullptr; ++i) {
      const vsk_attr_value_t* e = node[i]->entry;
      if (e == nullptr) continue;
      vsk_status_t st = out->Add(node[i]->name, e->length, e->value, node[i]->tag);
      if (st != VSK_OK) return st;
    }
    return AddMembers(out, node[level - 1]->entry);
  };
  vsk_status_t st = write_out();
  if (st != VSK_OK || level < 2) return st;
  // The nested instance behind the first one, written with its chain when it has members.
  auto* second = reinterpret_cast<vsk_array_index_node_t*>(
      patricia_find_next(top->nested_root, &node[1]->header));
  if (second == nullptr) return VSK_OK;
  node[1] = second;
  if (second->entry == nullptr || second->entry->members == nullptr ||
      second->entry->members->first == nullptr) {
    return VSK_OK;
  }
  return write_out();
}

vsk_array_index_node_t* FindIndex(patricia_root_t* index, const vsk_attr_value_t* v) {
  std::string text(static_cast<const char*>(v->value), v->length);
  const char* t = text.c_str();
  const uint16_t n = static_cast<uint16_t>(std::strlen(t));
  auto* ix = reinterpret_cast<vsk_array_index_node_t*>(patricia_get(index, n + 1, t));
  if (ix == nullptr) ix = reinterpret_cast<vsk_array_index_node_t*>(patricia_get(index, n, t));
  return ix;
}

// The client's flatten: plain values in name order, arrays through their top level.
vsk_status_t FlattenClient(patricia_root_t* tree, FlatList* out) {
  for (patricia_node_t* p = patricia_find_next(tree, nullptr); p != nullptr;
       p = patricia_find_next(tree, p)) {
    auto* node = reinterpret_cast<vsk_attr_tree_node_t*>(p);
    const char* name = static_cast<const char*>(node->key);
    for (vsk_attr_value_t* v = node->values_first; v != nullptr; v = v->next) {
      const uint16_t tag = node->array_tag;
      if (tag == VSK_ARRAY_IDENTIFYING_TLV || tag == VSK_ARRAY_START_TLV) {
        if (node->top_level == 0 || node->index_root == nullptr) continue;
        vsk_array_index_node_t* ix = FindIndex(node->index_root, v);
        if (ix == nullptr) return VSK_ERR_INVALID_PARAM;
        vsk_status_t st = EmitArray(out, ix);
        if (st != VSK_OK) return st;
      } else if (tag != VSK_ARRAY_MEMBER_TLV) {
        vsk_status_t st = out->Add(name, v->length, v->value, tag);
        if (st != VSK_OK) return st;
      }
    }
  }
  return VSK_OK;
}

// The service's flatten: each identifying value followed by its members, by name order.
vsk_status_t FlattenService(patricia_root_t* tree, FlatList* out) {
  for (patricia_node_t* p = patricia_find_next(tree, nullptr); p != nullptr;
       p = patricia_find_next(tree, p)) {
    auto* node = reinterpret_cast<vsk_attr_tree_node_t*>(p);
    const char* name = static_cast<const char*>(node->key);
    for (vsk_attr_value_t* v = node->values_first; v != nullptr; v = v->next) {
      if (node->array_tag == VSK_ARRAY_MEMBER_TLV) continue;
      vsk_status_t st = out->Add(name, v->length, v->value, node->array_tag);
      if (st == VSK_OK && (node->array_tag == VSK_ARRAY_IDENTIFYING_TLV ||
                           node->array_tag == VSK_ARRAY_START_TLV)) {
        st = AddMembers(out, v);
      }
      if (st != VSK_OK) return st;
    }
  }
  return VSK_OK;
}

// Runs one-transaction attempts of `body` with the retry rule of small writes.
template <typename Body>
vsk_status_t InOwnTxn(Body body) {
  vsk_status_t st = store::Check();
  if (st != VSK_OK) return st;
  return store::RunPasses(kAttempts, store::RetryOnDeadlockOrRecovery, [&](int) -> vsk_status_t {
    vsk_db_txn_t block{};
    store::Txn txn(&block);
    vsk_status_t s = txn.Begin();
    if (s != VSK_OK) return s;
    s = body(&block);
    if (s != VSK_OK) return txn.Fail(s);
    txn.Commit();  // the write is done; a failing commit is the store's to report
    return VSK_OK;
  });
}

// Owns what one attempt read.
struct Records {
  vsk_client_session_t* client = nullptr;
  vsk_dynamic_config_t* dynamic = nullptr;
  bool from_cache = false;
  ~Records() {
    store::ReleaseClientSession(client, !from_cache);
    store::ReleaseDynamicConfig(dynamic, !from_cache);
  }
};

vsk_status_t ReadForUpdate(uint64_t id, void* shm, vsk_db_txn_t* txn, Records* r, uint64_t* key) {
  vsk_status_t st;
  if (cache::IsCached(shm, id)) {
    r->from_cache = true;
    *key = id;
    // The slot's dynamic block has no lock of its own: the write lock on the session's
    // table row makes two processes' changes of one cached session follow each other, so
    // that neither list is written over with a copy that lacks the other's entry.
    st = store::ClientSessionRecordExists(txn, &id, true);
    if (st != VSK_OK && st != VSK_ERR_NOT_FOUND) return st;
    st = store::ClientSessionEmpty(&r->client);
    if (st == VSK_OK) st = cache::ToSessionRecord(nullptr, shm, id, r->client);
    if (st != VSK_OK) {
      VSK_TRACE("%s - %d: Failed to read client session from shm", kClientFn, __LINE__);
      return st;
    }
    st = store::DynamicConfigEmpty(&r->dynamic);
    if (st == VSK_OK) st = cache::ToDynamicRecord(nullptr, shm, id, r->dynamic);
    if (st != VSK_OK)
      VSK_TRACE("%s - %d: Failed to read client record from shm", kClientFn, __LINE__);
    return st;
  }
  st = store::GetClientSession(txn, &id, &r->client, false);
  if (st != VSK_OK) {
    VSK_TRACE("%s - %d: Failed to read client session", kClientFn, __LINE__);
    return st;
  }
  *key = r->client->dynamic_id;
  st = store::GetDynamicConfig(txn, key, &r->dynamic, true);
  if (st == VSK_ERR_NOT_FOUND) {
    // A session created without dynamic configuration gets its first record now.
    store::ReleaseDynamicConfig(r->dynamic, true);
    r->dynamic = nullptr;
    st = store::DynamicConfigEmpty(&r->dynamic);
    r->from_cache = false;
  }
  if (st != VSK_OK) VSK_TRACE("%s - %d: Failed to read client session", kClientFn, __LINE__);
  return st;
}

}  // namespace

bool SharesUnderlyingInterface(const vsk_attr_list_t* attrs) {
  const vsk_attr_t* a = vsk_get_attribute_from_list(attrs, VSK_AGGREGATED);
  if (a == nullptr || a->value == nullptr) return false;
  uint32_t value = 0;
  std::memcpy(&value, a->value, a->length < 4 ? a->length : 4);
  return value == 2;
}

vsk_status_t UpdateClientDynamicInTxn(uint64_t client_id, void* shm,
                                      const vsk_dyn_update_list_t* updates, vsk_db_txn_t* txn) {
  Records r;
  uint64_t key = 0;
  vsk_status_t st = ReadForUpdate(client_id, shm, txn, &r, &key);
  if (st != VSK_OK) return st;
  TreePtr tree(vsk_attr_tree_create());
  if (tree == nullptr) return VSK_ERR_NOMEM;
  uint16_t array_id = 0;
  st = LoadTree(tree.get(), r.dynamic->attrs, kClientFn, &array_id);
  if (st != VSK_OK) return st;
  if (updates != nullptr) {
    st = vsk_update_session_dynamic(tree.get(), updates, array_id, SharesUnderlyingInterface(r.client->attrs));
    if (st != VSK_OK) return st;
  }
  FlatList flat;
  st = FlattenClient(tree.get(), &flat);
  if (st != VSK_OK) return st;
  vsk_dyn_attr_list_t* old = r.dynamic->attrs;
  r.dynamic->attrs = flat.get();
  if (!r.from_cache) {
    st = store::PutDynamicConfig(txn, &key, r.dynamic);
  } else {
    st = cache::WriteDynamicList(shm, client_id, flat.get(), false);
    if (st == VSK_ERR_SHM_TOO_SMALL) {
      // The block is full: it keeps the old list, and the session moves to the tables.
      VSK_TRACE("%s too big for buffer %llu", kClientFn, Ull(key));
      cache::WriteDynamicList(shm, client_id, old, true);
      st = cache::WriteSessionToTables(shm, client_id, key, r.dynamic, txn);
      if (st == VSK_OK) cache::Clear(shm, client_id);
    }
  }
  r.dynamic->attrs = old;
  return st;
}

vsk_status_t UpdateClientDynamic(uint64_t client_id, const vsk_dyn_update_list_t* updates) {
  void* shm = cache::Segment();
  vsk_status_t st = InOwnTxn([&](vsk_db_txn_t* txn) -> vsk_status_t {
    return UpdateClientDynamicInTxn(client_id, shm, updates, txn);
  });
  if (st != VSK_OK) VSK_TRACE("Failed to update dynamic configuration %d", st);
  return st;
}

vsk_status_t UpdateServiceDynamic(uint64_t service_id, const vsk_dyn_update_list_t* updates) {
  vsk_status_t st = InOwnTxn([&](vsk_db_txn_t* txn) -> vsk_status_t {
    vsk_dynamic_config_t* dyn = nullptr;
    vsk_status_t s = store::GetDynamicConfig(txn, &service_id, &dyn, true);
    std::unique_ptr<vsk_dynamic_config_t, void (*)(vsk_dynamic_config_t*)> owned(
        dyn, [](vsk_dynamic_config_t* d) { store::ReleaseDynamicConfig(d, true); });
    if (s != VSK_OK) {
      VSK_TRACE("%s: Failed to read service session", kServiceFn);
      return s;
    }
    TreePtr tree(vsk_attr_tree_create());
    if (tree == nullptr) return VSK_ERR_NOMEM;
    uint16_t array_id = 0;
    s = LoadTree(tree.get(), dyn->attrs, kServiceFn, &array_id);
    if (s != VSK_OK) return s;
    if (updates != nullptr) {
      s = vsk_update_session_dynamic(tree.get(), updates, array_id, false);
      if (s != VSK_OK) return s;
    }
    FlatList flat;
    s = FlattenService(tree.get(), &flat);
    if (s != VSK_OK) return s;
    vsk_dyn_attr_list_t* old = dyn->attrs;
    dyn->attrs = flat.get();
    s = store::PutDynamicConfig(txn, &service_id, dyn);
    dyn->attrs = old;
    return s;
  });
  if (st != VSK_OK) VSK_TRACE("Failed to update service session dynamic configuration %d", st);
  return st;
}

vsk_status_t SetClientDynamic(uint64_t client_id, const vsk_dyn_attr_list_t* list) {
  vsk_status_t st = InOwnTxn([&](vsk_db_txn_t* txn) -> vsk_status_t {
    vsk_client_session_t* rec = nullptr;
    vsk_status_t s = store::GetClientSession(txn, &client_id, &rec, false);
    std::unique_ptr<vsk_client_session_t, void (*)(vsk_client_session_t*)> owned(
        rec, [](vsk_client_session_t* c) { store::ReleaseClientSession(c, true); });
    if (s != VSK_OK) {
      VSK_TRACE("%s: Failed to read client session, err=%s", kSetFn, vsk_get_err_msg(s));
      return s;
    }
    vsk_dynamic_config_t dyn{};
    vsk_dyn_attr_list_t empty{nullptr, nullptr};
    empty.last = &empty.first;
    dyn.attrs = const_cast<vsk_dyn_attr_list_t*>(list != nullptr ? list : &empty);
    uint64_t key = rec->dynamic_id;
    return store::PutDynamicConfig(txn, &key, &dyn);
  });
  if (st != VSK_OK) {
    VSK_TRACE("%s: Failed to set dynamic configuration in client session %llu, err=%s\n", kSetFn,
              Ull(client_id), vsk_get_err_msg(st));
  }
  return st;
}

}  // namespace vsk::session

using namespace vsk::session;

extern "C" {

vsk_status_t vsk_update_client_dynamic(vsk_session_id_t client_id,
                                       const vsk_dyn_update_list_t* updates) {
  return UpdateClientDynamic(client_id, updates);
}

vsk_status_t vsk_update_client_dynamic_internal(vsk_session_id_t client_id, void* shm,
                                                const vsk_dyn_update_list_t* updates,
                                                vsk_db_txn_t* txn) {
  if (txn == nullptr) return VSK_ERR_INVALID_PARAM;
  return UpdateClientDynamicInTxn(client_id, shm, updates, txn);
}

vsk_status_t vsk_update_service_dynamic(vsk_session_id_t service_id,
                                        const vsk_dyn_update_list_t* updates) {
  return UpdateServiceDynamic(service_id, updates);
}

vsk_status_t vsk_set_client_dynamic_configuration(vsk_session_id_t client_id,
                                                  const vsk_dyn_attr_list_t* list) {
  return SetClientDynamic(client_id, list);
}

}  // extern "C"
