// Client session creation: one new id, one transaction (the client record, the dynamic
// configuration record, the authentication request), the optional copy in the session
// cache, then the interface table and the summary counters.
//
//   id ──> splice nodes ──> pass: txn ─ shared-interface join ─ cache position ─
//          underlying join ─ client record ─ inherited join ─ dynamic record/changes ─
//          cache slot ─ auth request (slot or table) ─ commit
//      failed pass: abort; -4, -11, -21 give up to three more passes, no sleep
//      commit reached (whatever its status): interface table, counters ──> unsplice
//
// Invariants:
//  1. The id is taken once per call; a retry keeps it, and a failed create uses it up.
//  2. Exactly two nodes come off the caller's list on every way out after the splice.
//  3. Nothing after the commit changes the call's result: those failures are traced only.
//  4. The cache slot is visible at once, before the commit; an aborted pass leaves it, and
//     a later pass finds it busy and keeps it.
// Runs on the caller's thread; the only process-wide state is the login-time text and the
// spliced nodes (one set per thread).
#include <cstring>

#include "libvsk/base/status.h"
#include "libvsk/base/trace.h"
#include "libvsk/shared/ids_and_counters.h"
#include "libvsk/shared/intf_ops.h"
#include "libvsk/shared/session_cache.h"
#include "libvsk/store/tables.h"
#include "libvsk/store/txn.h"
#include "libvsk/vsk/create_internal.h"
#include "vsk/intf.h"

namespace vsk::session {
namespace {

constexpr char kFn[] = "vsk_create_extended_client_session";
constexpr int kMaxRetries = 3;
constexpr size_t kNameCopy = 256;

unsigned long long Ull(uint64_t v) { return static_cast<unsigned long long>(v); }

// The nodes a create splices in, with the values they point to. Kept per thread rather
// than on the stack: when three nodes went on and two come off, the client-type node stays
// at the head of the caller's list, and it must remain readable memory.
struct SplicedNodes {
  vsk_attr_t client_type;
  vsk_attr_t login_time;
  vsk_attr_t underlying;
  uint32_t client_type_value;
  uint64_t underlying_value;
};
thread_local SplicedNodes t_nodes;

void Splice(vsk_attr_list_t* list, const CreateRequest& request) {
  SplicedNodes& n = t_nodes;
  // A list that still starts with the node an earlier create left behind gets its own
  // head back first, so the node is never linked to itself.
  if (list->first == &n.client_type) {
    list->first = n.client_type.next;
    if (list->first == nullptr) list->last = &list->first;
  }
  n.client_type_value = request.client_type;
  n.client_type = {VSK_CLIENT_SESSION_TYPE, sizeof n.client_type_value, &n.client_type_value,
                   nullptr};
  vsk_attr_list_insert_head(list, &n.client_type);
  const char* text = LoginTime(nullptr);
  n.login_time = {VSK_LOGIN_TIME, static_cast<uint16_t>(std::strlen(text) + 1),
                  const_cast<char*>(text), nullptr};
  vsk_attr_list_insert_head(list, &n.login_time);
  const vsk_attr_list_t* inherit = request.inherit_types;
  if (inherit != nullptr && inherit->first != nullptr && request.ids->dynamic_session_id != 0) {
    n.underlying_value = request.ids->dynamic_session_id;
    n.underlying = {VSK_UNDERLYING_SESSION_ID, sizeof n.underlying_value, &n.underlying_value,
                    nullptr};
    vsk_attr_list_insert_head(list, &n.underlying);
  }
}

// Published behaviour: exactly two nodes come off, also when three went on.
void Unsplice(vsk_attr_list_t* list) {
  for (int i = 0; i < 2 && list->first != nullptr; ++i) list->first = list->first->next;
  if (list->first == nullptr) list->last = &list->first;
}

uint32_t U32Of(const vsk_attr_t* a) {
  uint32_t v = 0;
  if (a->value != nullptr) std::memcpy(&v, a->value, a->length < 4 ? a->length : 4);
  return v;
}

// The NUL-terminated text of an attribute, cut to the buffer.
void TextOf(const vsk_attr_t* a, char (&out)[kNameCopy]) {
  size_t n = a->length < kNameCopy - 1 ? a->length : kNameCopy - 1;
  if (a->value == nullptr) n = 0;
  if (n != 0) std::memcpy(out, a->value, n);
  out[n] = '\0';
}

bool Retryable(vsk_status_t st) {
  return st == VSK_ERR_RETRY || st == VSK_ERR_RECOVERING || st == VSK_ERR_SECONDARY_RECOVERY;
}

class Create {
 public:
  Create(const CreateRequest& request, vsk_attr_list_t* list)
      : request_(request), list_(list), id_(request.ids->session_id) {
    record_.attrs = list;
    dynamic_.attrs = request.dynamic;
    auth_.attrs = request.auth_request;
    want_cache_ = request.options != nullptr && request.options->use_shm == 1;
    shm_ = cache::Segment();
  }

  // One pass of the transaction. True when the commit was reached, with its status in
  // *status; false with the failure that aborted the pass.
  bool Pass(vsk_status_t* status) {
    uint64_t dynamic_id = id_;
    if (request_.ids->dynamic_session_id != 0) {
      dynamic_id = request_.ids->dynamic_session_id;
      VSK_TRACE("%s: create client session gets dynamic session id %llu", kFn, Ull(dynamic_id));
    }
    vsk_db_txn_t block{};
    store::Txn txn(&block);
    BundlePass bundle;
    vsk_status_t st = txn.Begin();
    if (st == VSK_OK) st = InTransaction(&block, &bundle, dynamic_id);
    bundle.Free();
    if (st != VSK_OK) {
      *status = txn.Fail(st);
      return false;
    }
    *status = txn.Commit();
    return true;
  }

  // What follows the commit, each step traced and ignored on failure.
  void AfterCommit() {
    char name[kNameCopy];
    const vsk_attr_t* ifl = vsk_get_attribute_from_list(list_, VSK_INTERFACE_NAME);
    if (ifl != nullptr && vsk_get_attribute_from_list(list_, VSK_PROFILE_NAME) == nullptr) {
      TextOf(ifl, name);
      if (shared::InterfaceAdd(name, VSK_INTF_KIND_IFL, id_, 1, 2) != VSK_OK) {
        VSK_TRACE("%s: Failed to add interface %s for session %llu", kFn, name, Ull(id_));
      }
    }
    if (const vsk_attr_t* uifl =
            vsk_get_attribute_from_list(list_, VSK_UNDERLYING_INTERFACE_NAME)) {
      TextOf(uifl, name);
      if (shared::InterfaceAdd(name, VSK_INTF_KIND_UIFL, id_, 0, 0) != VSK_OK) {
        VSK_TRACE("%s: Failed to add interface %s for session %llu", kFn, name, Ull(id_));
      }
    }
    if (const vsk_attr_t* state = vsk_get_attribute_from_list(list_, VSK_SESSION_STATE)) {
      int rc = shared::CounterIncrementState(static_cast<int32_t>(U32Of(state)), nullptr);
      if (rc != 0) {
        VSK_TRACE("%s: Failed to increment client state summary counter, err=%s", kFn,
                  base::ErrorText(rc));
      }
    }
    if (const vsk_attr_t* ifl_type = vsk_get_attribute_from_list(list_, VSK_SESSION_IFL_TYPE)) {
      int rc = shared::CounterIncrementIflType(static_cast<int32_t>(U32Of(ifl_type)), nullptr);
      if (rc != 0) {
        VSK_TRACE("%s: Failed to increment client ifl type counter %s", kFn, base::ErrorText(rc));
      }
    }
    int rc = shared::CounterIncrementType(request_.client_type, nullptr);
    if (rc != 0) {
      VSK_TRACE("%s: Failed to increment client type summary counter, err=%s", kFn,
                base::ErrorText(rc));
    }
    rc = shared::CounterIncrementTotal(nullptr);
    if (rc != 0) {
      VSK_TRACE("%s: Failed to increment client total summary counter, err=%s", kFn,
                base::ErrorText(rc));
    }
  }

 private:
  vsk_status_t InTransaction(vsk_db_txn_t* txn, BundlePass* bundle, uint64_t dynamic_id) {
    vsk_status_t st = BundleJoinSharedInterface(txn, request_, list_, id_, &dynamic_id, bundle);
    if (st != VSK_OK) return st;
    const bool cache = want_cache_ && !bundle->skip_cache;
    if (cache) request_.ids->shm_offset = cache::CachePosition(id_);
    st = BundleJoinUnderlyingSession(txn, request_, id_, bundle);
    if (st != VSK_OK) return st;
    // The client record first: the bundled steps below read it.
    record_.dynamic_id = dynamic_id;
    st = store::PutClientSession(txn, &id_, &record_);
    if (st != VSK_OK) return st;
    st = BundleJoinInheritedAttributes(txn, request_, id_, bundle);
    if (st != VSK_OK) return st;
    if (bundle->dynamic_changes != nullptr) {
      st = BundleJoinDynamicChanges(txn, request_, id_, dynamic_id, bundle);
    } else if (request_.dynamic != nullptr) {
      st = store::PutDynamicConfig(txn, &dynamic_id, &dynamic_);
    }
    if (st != VSK_OK) return st;
    if (cache && shm_ != nullptr) FillCache(dynamic_id);
    return PutAuthRequest(txn);
  }

  // The session's slot: its attributes (the spliced nodes included) and dynamic block.
  // A taken slot leaves the session in the tables only; so does one that is too small.
  void FillCache(uint64_t dynamic_id) {
    vsk_status_t st = cache::CreateSession(shm_, id_, dynamic_id, list_);
    if (st == VSK_ERR_SHM_IN_USE) return;  // traced by the cache; nothing else to do
    if (st == VSK_OK) st = cache::WriteDynamicList(shm_, id_, request_.dynamic, true);
    if (st == VSK_OK) return;
    if (st == VSK_ERR_SHM_TOO_SMALL) VSK_TRACE("%s too big for buffer %llu", kFn, Ull(id_));
    cache::Clear(shm_, id_);
  }

  // The request goes to the slot while the session is cached, else to the table. A slot
  // whose request block overflows is given up, and the request is kept nowhere (as
  // published): the session then lives in the tables without it.
  vsk_status_t PutAuthRequest(vsk_db_txn_t* txn) {
    if (request_.auth_request == nullptr) return VSK_OK;
    if (cache::IsCached(shm_, id_)) {
      vsk_status_t st = cache::WriteAuthList(shm_, id_, request_.auth_request, true);
      if (st == VSK_OK) return VSK_OK;
      cache::Clear(shm_, id_);
      if (st == VSK_ERR_SHM_TOO_SMALL) {
        VSK_TRACE("%s auth_req_resp too big for buffer %llu", kFn, Ull(id_));
        return VSK_OK;
      }
    }
    return store::PutAuthRequest(txn, &id_, &auth_);
  }

  const CreateRequest& request_;
  vsk_attr_list_t* list_;
  uint64_t id_;
  vsk_client_session_t record_{};
  vsk_dynamic_config_t dynamic_{};
  vsk_auth_info_t auth_{};
  bool want_cache_ = false;
  void* shm_ = nullptr;
};

}  // namespace

vsk_status_t CreateClientSession(const CreateRequest& request) {
  vsk_status_t st = store::Check();
  if (st != VSK_OK) return st;
  if (shared::IdGenerate(&request.ids->session_id) != 0) {
    st = VSK_ERR_FATAL;
    VSK_TRACE("%s: Failed to generate client session id, err=%s", kFn, base::ErrorText(st));
    return st;
  }
  vsk_attr_list_t own;
  vsk_attr_list_init(&own);
  vsk_attr_list_t* list = request.attrs != nullptr ? request.attrs : &own;
  Splice(list, request);

  Create create(request, list);
  // A pass that reached the commit is never repeated, whatever the commit said.
  bool committed = false;
  st = store::RunPasses(
      1 + kMaxRetries, [&committed](vsk_status_t s) { return !committed && Retryable(s); },
      [&](int) {
        vsk_status_t pass_status = VSK_OK;
        committed = create.Pass(&pass_status);
        return pass_status;
      });
  if (!committed) {
    Unsplice(list);
    VSK_TRACE("%s: Failed to create client session, err=%s", kFn, base::ErrorText(st));
    return st;
  }
  // The steps after the commit run whatever the commit said.
  create.AfterCommit();
  Unsplice(list);
  return st;
}

}  // namespace vsk::session
