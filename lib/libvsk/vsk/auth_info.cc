// Authentication records: the request and response lists of a client session, in the
// "auth-request-db"/"auth-response-db" tables or, while the session is cached, in the
// request/response blocks of its slot.
//
// Who may call: any registered daemon, from its own thread. Each operation runs up to four
// attempts, retrying on -4 and -11; each attempt owns its own transaction (none on the
// cache paths, which touch only plain shared memory).
//
// Invariants:
//  1. For a cached session the slot's blocks are the truth: set, get and the request's
//     update work there and leave the table rows alone. vsk_update_auth_response is the
//     deliberate exception: it always edits the table row, cached or not.
//  2. A cache block that overflows sends the whole slot to the tables (outside any
//     transaction, as each put commits on its own) and frees the slot; the entries that did
//     not fit are dropped and the call reports 0. That loss is the published contract.
//  3. Lists handed out are deep copies (one heap block per entry and per value) that the
//     caller frees with vsk_free_auth_info; nothing of the record is shared with them.
#include <cstdlib>
#include <cstring>
#include <memory>

#include "libvsk/base/status.h"
#include "libvsk/base/trace.h"
#include "libvsk/shared/session_cache.h"
#include "libvsk/store/records.h"
#include "libvsk/store/tables.h"
#include "libvsk/store/txn.h"
#include "libvsk/vsk/tree_edit.h"
#include "platform/logging.h"
#include "vsk/auth.h"

namespace vsk::session {
namespace {

constexpr int kAttempts = 4;
constexpr char kSetFn[] = "vsk_set_auth_info";
constexpr char kUpdateRequestFn[] = "vsk_update_auth_request";
constexpr char kUpdateResponseFn[] = "vsk_update_auth_response";

unsigned long long Ull(uint64_t v) { return static_cast<unsigned long long>(v); }

struct AuthFree {
  void operator()(vsk_auth_info_t* rec) const { store::ReleaseAuthInfo(rec, true); }
};
using AuthPtr = std::unique_ptr<vsk_auth_info_t, AuthFree>;

struct ListFree {
  void operator()(vsk_attr_list_t* list) const { vsk_free_auth_info(list); }
};
using ListPtr = std::unique_ptr<vsk_attr_list_t, ListFree>;

vsk_status_t GetRecord(bool is_request, vsk_db_txn_t* txn, vsk_session_id_t id,
                       vsk_auth_info_t** rec, bool for_update) {
  return is_request ? store::GetAuthRequest(txn, &id, rec, for_update)
                    : store::GetAuthResponse(txn, &id, rec, for_update);
}

vsk_status_t PutRecord(bool is_request, vsk_db_txn_t* txn, vsk_session_id_t id,
                       const vsk_auth_info_t* rec) {
  return is_request ? store::PutAuthRequest(txn, &id, rec) : store::PutAuthResponse(txn, &id, rec);
}

// The record of a cached session, built from its block (values are heap copies).
vsk_status_t ReadBlock(void* shm, vsk_session_id_t id, bool is_request, AuthPtr* out) {
  vsk_auth_info_t* rec = nullptr;
  vsk_status_t st = store::AuthInfoEmpty(&rec);
  out->reset(rec);
  if (st == VSK_OK) st = cache::ToAuthRecord(shm, id, is_request, rec);
  return st;
}

// A block overflowed: the slot goes to the tables as it stands and is given up. No
// transaction runs on this path, so each put commits by itself.
vsk_status_t FlushSlot(void* shm, vsk_session_id_t id, const char* fn) {
  VSK_TRACE("%s too big for buffer %llu", fn, Ull(id));
  vsk_db_txn_t none{};
  vsk_status_t st = cache::WriteSessionToTables(shm, id, id, nullptr, &none);
  if (st == VSK_OK) cache::Clear(shm, id);
  return st;
}

// A deep copy of `list`: one node and one value block of exactly the value's length per
// entry (no block for an empty value), appended in order.
vsk_status_t CopyList(const vsk_attr_list_t* list, vsk_attr_list_t* out) {
  for (const vsk_attr_t* a = list != nullptr ? list->first : nullptr; a != nullptr; a = a->next) {
    auto* node = static_cast<vsk_attr_t*>(std::calloc(1, sizeof(vsk_attr_t)));
    if (node == nullptr) return VSK_ERR_NOMEM;
    node->type = a->type;
    node->length = a->length;
    if (a->length != 0 && a->value != nullptr) {
      node->value = std::malloc(a->length);
      if (node->value == nullptr) {
        std::free(node);
        return VSK_ERR_NOMEM;
      }
      std::memcpy(node->value, a->value, a->length);
    } else {
      node->length = 0;
    }
    vsk_attr_list_append(out, node);
  }
  return VSK_OK;
}

// One attempt of an update: read, edit in a tree, write back. `use_cache` is false for the
// response, which always goes through the table.
class AuthUpdate {
 public:
  AuthUpdate(vsk_session_id_t id, const vsk_attr_update_list_t* updates, bool is_request)
      : id_(id), updates_(updates), is_request_(is_request) {}

  vsk_status_t Attempt(void* shm) {
    const char* fn = is_request_ ? kUpdateRequestFn : kUpdateResponseFn;
    const bool cached = is_request_ && cache::IsCached(shm, id_);
    vsk_db_txn_t block{};
    store::Txn txn(&block);
    AuthPtr rec;
    vsk_status_t st = VSK_OK;
    if (cached) {
      st = ReadBlock(shm, id_, true, &rec);
    } else {
      st = txn.Begin();
      if (st != VSK_OK) return st;
      vsk_auth_info_t* raw = nullptr;
      st = GetRecord(is_request_, &block, id_, &raw, true);
      rec.reset(raw);
    }
    if (st != VSK_OK && st != VSK_ERR_NOT_FOUND) {
      VSK_TRACE(is_request_ ? "%s: Failed to read auth request, err=%s"
                            : "%s: Failed to read auth response, err=%s",
                fn, vsk_get_err_msg(st));
      return txn.open() ? txn.Fail(st) : st;
    }
    // A missing record is not a failure here: the update starts from an empty list.
    const bool found = st == VSK_OK && rec != nullptr;
    const vsk_attr_list_t* old = found ? rec->attrs : nullptr;
    TreePtr tree(vsk_attr_tree_create());
    st = tree == nullptr ? VSK_ERR_NOMEM : LoadTree(tree.get(), old);
    if (st != VSK_OK) {
      VSK_TRACE("%s: Failed to add attributes to patricia tree during update, err=%s", fn,
                vsk_get_err_msg(st));
      return txn.open() ? txn.Fail(st) : st;
    }
    st = vsk_update_session(tree.get(), updates_);
    FlatList flat;
    if (st == VSK_OK) st = flat.Build(tree.get(), CountValues(old, updates_));
    if (st != VSK_OK) return txn.open() ? txn.Fail(st) : st;

    if (cached) {
      st = cache::WriteAuthList(shm, id_, flat.get(), true);
      if (st == VSK_ERR_SHM_TOO_SMALL) st = FlushSlot(shm, id_, kUpdateRequestFn);
      return st;
    }
    if (found) {
      vsk_attr_list_t* kept = rec->attrs;
      rec->attrs = flat.get();
      st = PutRecord(is_request_, &block, id_, rec.get());
      rec->attrs = kept;
    } else {
      vsk_auth_info_t local{};
      local.attrs = flat.get();
      st = PutRecord(is_request_, &block, id_, &local);
    }
    if (st != VSK_OK) return txn.Fail(st);
    return txn.Commit();
  }

 private:
  vsk_session_id_t id_;
  const vsk_attr_update_list_t* updates_;
  bool is_request_;
};

}  // namespace

vsk_status_t SetAuthInfo(vsk_session_id_t id, const vsk_attr_list_t* list, bool is_request) {
  void* shm = cache::Segment();
  vsk_status_t st = store::Check();
  if (st != VSK_OK) return st;
  vsk_auth_info_t local{};
  vsk_attr_list_t empty{nullptr, &empty.first};
  local.attrs = const_cast<vsk_attr_list_t*>(list != nullptr ? list : &empty);
  return store::RunPasses(kAttempts, store::RetryOnDeadlockOrRecovery, [&](int) -> vsk_status_t {
    if (cache::IsCached(shm, id)) {
      vsk_status_t rc = cache::WriteAuthList(shm, id, local.attrs, is_request);
      if (rc != VSK_ERR_SHM_TOO_SMALL) return rc;
      // Published: what did not fit is dropped and the call reports success.
      return FlushSlot(shm, id, kSetFn);
    }
    vsk_db_txn_t block{};
    store::Txn txn(&block);
    vsk_status_t rc = txn.Begin();
    if (rc != VSK_OK) return rc;
    rc = PutRecord(is_request, &block, id, &local);
    if (rc != VSK_OK) return txn.Fail(rc);
    return txn.Commit();
  });
}

vsk_status_t UpdateAuthInfo(vsk_session_id_t id, const vsk_attr_update_list_t* updates,
                            bool is_request) {
  if (updates == nullptr) return VSK_ERR_INVALID_PARAM;
  void* shm = cache::Segment();
  vsk_status_t st = store::Check();
  if (st != VSK_OK) return st;
  AuthUpdate update(id, updates, is_request);
  st = store::RunPasses(kAttempts, store::RetryOnDeadlockOrRecovery,
                        [&](int) -> vsk_status_t { return update.Attempt(shm); });
  if (st != VSK_OK) {
    VSK_TRACE(is_request ? "%s: Failed to update auth request, err=%s"
                         : "%s: Failed to update auth response, err=%s",
              is_request ? kUpdateRequestFn : kUpdateResponseFn, vsk_get_err_msg(st));
  }
  return st;
}

vsk_status_t GetAuthInfo(vsk_session_id_t id, bool take, vsk_attr_list_t** out, bool is_request) {
  // Safe deviation: a null `out` is reported like the insist it is, and refused with -6
  // rather than ending the process.
  if (out == nullptr) {
    logging(0, "%s:%d: insist '%s' failed", __FILE__, __LINE__, "auth_info");
    return VSK_ERR_INVALID_PARAM;
  }
  *out = nullptr;
  void* shm = cache::Segment();
  vsk_status_t st = store::Check();
  if (st != VSK_OK) return st;
  return store::RunPasses(kAttempts, store::RetryOnDeadlockOrRecovery, [&](int) -> vsk_status_t {
    ListPtr copy(static_cast<vsk_attr_list_t*>(std::malloc(sizeof(vsk_attr_list_t))));
    if (copy == nullptr) return VSK_ERR_NOMEM;
    vsk_attr_list_init(copy.get());
    vsk_db_txn_t block{};
    store::Txn txn(&block);
    AuthPtr rec;
    vsk_status_t rc = VSK_OK;
    if (cache::IsCached(shm, id)) {
      // The block is read as it stands; `take` means nothing for a cached session.
      rc = ReadBlock(shm, id, is_request, &rec);
    } else {
      rc = txn.Begin();
      if (rc != VSK_OK) return rc;
      vsk_auth_info_t* raw = nullptr;
      rc = GetRecord(is_request, &block, id, &raw, take);
      rec.reset(raw);
      if (rc == VSK_OK && take) {
        rc = is_request ? store::DelAuthRequest(&block, &id) : store::DelAuthResponse(&block, &id);
      }
      if (rc != VSK_OK) return txn.Fail(rc);
      rc = txn.Commit();
    }
    if (rc != VSK_OK) return rc;
    vsk_status_t copied = CopyList(rec->attrs, copy.get());
    if (copied != VSK_OK) return copied;
    *out = copy.release();
    return rc;
  });
}

}  // namespace vsk::session

using namespace vsk::session;

extern "C" {

vsk_status_t vsk_set_auth_info(vsk_session_id_t id, const vsk_attr_list_t* list, bool is_request) {
  return SetAuthInfo(id, list, is_request);
}

vsk_status_t vsk_set_auth_request(vsk_session_id_t id, const vsk_attr_list_t* list) {
  vsk_status_t st = SetAuthInfo(id, list, true);
  if (st != VSK_OK) {
    // Published: the request's words end with a newline, the response's do not.
    VSK_TRACE("%s: Failed to set authentication request in client session %llu, err=%s\n",
              "vsk_set_auth_request", Ull(id), vsk_get_err_msg(st));
  }
  return st;
}

vsk_status_t vsk_set_auth_response(vsk_session_id_t id, const vsk_attr_list_t* list) {
  vsk_status_t st = SetAuthInfo(id, list, false);
  if (st != VSK_OK) {
    // Published: no newline here, unlike the request's words.
    VSK_TRACE("%s: Failed to set authentication response in client session %llu, err=%s",
              "vsk_set_auth_response", Ull(id), vsk_get_err_msg(st));
  }
  return st;
}

vsk_status_t vsk_update_auth_request(vsk_session_id_t id, const vsk_attr_update_list_t* updates) {
  return UpdateAuthInfo(id, updates, true);
}

vsk_status_t vsk_update_auth_response(vsk_session_id_t id, const vsk_attr_update_list_t* updates) {
  return UpdateAuthInfo(id, updates, false);
}

vsk_status_t vsk_get_auth_info(vsk_session_id_t id, bool take, vsk_attr_list_t** out,
                               bool is_request) {
  return GetAuthInfo(id, take, out, is_request);
}

vsk_status_t vsk_get_auth_request(vsk_session_id_t id, bool take, vsk_attr_list_t** out) {
  vsk_status_t st = GetAuthInfo(id, take, out, true);
  if (st != VSK_OK) {
    VSK_TRACE("%s: Failed to get authentication request in client session %llu, err=%s",
              "vsk_get_auth_request", Ull(id), vsk_get_err_msg(st));
  }
  return st;
}

vsk_status_t vsk_get_auth_response(vsk_session_id_t id, bool take, vsk_attr_list_t** out) {
  vsk_status_t st = GetAuthInfo(id, take, out, false);
  if (st != VSK_OK) {
    // Published: no comma before "err" and a trailing newline, unlike the request's words.
    VSK_TRACE("%s: Failed to get authentication response in client session %llu err=%s\n",
              "vsk_get_auth_response", Ull(id), vsk_get_err_msg(st));
  }
  return st;
}

void vsk_free_auth_info(vsk_attr_list_t* list) {
  if (list == nullptr) return;
  for (vsk_attr_t* a = list->first; a != nullptr;) {
    vsk_attr_t* next = a->next;
    std::free(a->value);
    std::free(a);
    a = next;
  }
  std::free(list);
}

}  // extern "C"
