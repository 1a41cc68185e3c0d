// Client session update: one internal operation behind the three exported forms.
//
//   pass: slot holds the session? ── yes: cached path ── no: table path
//   table path:  [own txn] read for update ─ tree ─ info bits ─ updates ─ client type ─
//                flatten, put ─ private data ─ [commit]                     ──> finish
//   cached path: info bits (once) ─ updates (once) ─ flush needed?  no ──> finish
//                flush: txn ─ slot to client and dynamic records ─ auth response on
//                state 1 ─ private data ─ commit ─ slot given up on state 2 or 3 ──> finish
//   finish (result 0 only): interface table, summary counters
//   failure before the finish: abort; -4 and -11 give up to nine more passes, with 5 ms
//   of sleep after the third, sixth and ninth failure
//
// Invariants:
//  1. The cache is changed at most once per call: `info_applied` and `updates_applied`
//     live across passes, and a retried pass only repeats the flush.
//  2. A cached update that keeps the state and has no private data does no Berkeley DB
//     work and no allocation (config-bit actions 2 and 3 aside).
//  3. A failed table pass leaves the record as it was: the tree is thrown away.
//  4. With the caller's transaction, a pass neither commits nor aborts it.
#include <unistd.h>

#include <cstring>

#include "libvsk/base/trace.h"
#include "libvsk/shared/session_cache.h"
#include "libvsk/store/records.h"
#include "libvsk/store/tables.h"
#include "libvsk/store/txn.h"
#include "libvsk/vsk/tree_edit.h"
#include "libvsk/vsk/update_internal.h"

namespace vsk::session {
namespace {

constexpr char kFn[] = "vsk_update_client_session_internal";
constexpr int kMaxRetries = 9;
constexpr useconds_t kRetrySleepUs = 5000;

unsigned long long Ull(uint64_t v) { return static_cast<unsigned long long>(v); }

struct RecordFree {
  void operator()(vsk_client_session_t* r) const { store::ReleaseClientSession(r, true); }
};
using RecordPtr = std::unique_ptr<vsk_client_session_t, RecordFree>;

// One attribute's first value, from the working tree or from the slot: 1 found, 0 absent,
// or a failure. The value is borrowed and must be copied at once.
int Probe(patricia_root_t* tree, void* shm, uint64_t id, uint16_t type, const void** value,
          uint32_t* length, vsk_status_t* status) {
  *status = VSK_OK;
  if (tree != nullptr) {
    auto* node = reinterpret_cast<vsk_attr_tree_node_t*>(patricia_get(tree, sizeof type, &type));
    if (node == nullptr || node->values_first == nullptr) return 0;
    *value = node->values_first->value;
    *length = node->values_first->length;
    return 1;
  }
  uint16_t stored = 0;
  void* at = nullptr;
  vsk_status_t st = cache::ReadAttr(nullptr, shm, id, type, &stored, &at);
  if (st != VSK_OK) {
    *status = st == VSK_ERR_NOT_FOUND ? VSK_OK : st;
    return 0;
  }
  *value = at;
  *length = stored;
  return 1;
}

// A 32-bit attribute; a shorter value fills the low bytes. Traces `what` on a failure.
bool ReadU32(patricia_root_t* tree, void* shm, uint64_t id, uint16_t type, const char* what,
             uint32_t* out) {
  const void* value = nullptr;
  uint32_t length = 0;
  vsk_status_t st;
  *out = 0;
  if (Probe(tree, shm, id, type, &value, &length, &st) == 0) {
    if (st != VSK_OK) VSK_TRACE("%s: Didn't vsk_get_attribute %s; ret %s", kFn, what,
                                vsk_get_err_msg(st));
    return false;
  }
  if (value != nullptr) std::memcpy(out, value, length < 4 ? length : 4);
  return true;
}

// The interface name, cleared first and cut to 60 characters.
bool ReadName(patricia_root_t* tree, void* shm, uint64_t id, const char* what,
              char (&name)[kInterfaceNameSize]) {
  std::memset(name, 0, sizeof name);
  const void* value = nullptr;
  uint32_t length = 0;
  vsk_status_t st;
  if (Probe(tree, shm, id, VSK_INTERFACE_NAME, &value, &length, &st) == 0) {
    if (st != VSK_OK) VSK_TRACE("%s: Didn't vsk_get_attribute %s; ret %s", kFn, what,
                                vsk_get_err_msg(st));
    return false;
  }
  if (value != nullptr) std::memcpy(name, value, length < sizeof name - 1 ? length : sizeof name - 1);
  return true;
}

void KeepBits(const uint8_t* bits, uint16_t length, uint8_t (&out)[8], uint16_t* out_len) {
  *out_len = length < 8 ? length : 8;
  std::memset(out, 0, sizeof out);
  if (bits != nullptr && *out_len != 0) std::memcpy(out, bits, *out_len);
}

class Update {
 public:
  explicit Update(const UpdateRequest& request) : rq_(request) { delta_.id = request.id; }

  vsk_status_t Run() {
    for (int retries = 0;;) {
      bool reached = false;
      vsk_status_t st = Pass(&reached);
      if (reached) {
        if (st == VSK_OK) {
          FollowInterfaceTable(delta_, st);
          UpdateSummaryCounters(delta_);
        }
        return st;
      }
      if ((st != VSK_ERR_RETRY && st != VSK_ERR_RECOVERING) || retries == kMaxRetries) {
        VSK_TRACE("%s: Failed to update client session %llu, err=%s", kFn, Ull(rq_.id),
                  vsk_get_err_msg(st));
        return st;
      }
      if (++retries % 3 == 0) usleep(kRetrySleepUs);
    }
  }

 private:
  // One pass. *reached is set when the pass got to the finish; the status is then the
  // result, otherwise the failure for the retry rule.
  vsk_status_t Pass(bool* reached) {
    if (rq_.shm != nullptr && cache::IsCached(rq_.shm, rq_.id)) return CachedPass(reached);
    return TablePass(reached);
  }

  vsk_status_t TablePass(bool* reached) {
    vsk_db_txn_t own{};
    store::Txn guard(&own);
    vsk_db_txn_t copy{};
    vsk_db_txn_t* txn = &own;
    if (rq_.txn == nullptr) {
      vsk_status_t st = guard.Begin();
      if (st != VSK_OK) return st;
    } else {
      copy = *rq_.txn;
      txn = &copy;
    }
    vsk_status_t st = EditRecord(txn);
    if (st != VSK_OK) return rq_.txn == nullptr ? guard.Fail(st) : st;
    *reached = true;
    return rq_.txn == nullptr ? guard.Commit() : VSK_OK;
  }

  // Read, tree edit and write of the record, and the private data, in `txn`.
  vsk_status_t EditRecord(vsk_db_txn_t* txn) {
    vsk_client_session_t* raw_record = nullptr;
    vsk_status_t st = store::GetClientSession(txn, &rq_.id, &raw_record, true);
    RecordPtr record(raw_record);
    if (st != VSK_OK) {
      VSK_TRACE("%s: Failed to read client session %llu, err=%s", kFn, Ull(rq_.id),
                vsk_get_err_msg(st));
      return st;
    }
    TreePtr tree(vsk_attr_tree_create());
    st = tree == nullptr ? VSK_ERR_NOMEM : LoadTree(tree.get(), record->attrs);
    if (st != VSK_OK) {
      VSK_TRACE("%s: Failed to add attributes to patricia tree during update, err=%s", kFn,
                vsk_get_err_msg(st));
      return st;
    }
    SessionDelta& d = delta_;
    if (rq_.info_attrs != nullptr) {
      KeepBits(record->config_bits, record->config_bits_len, d.old_bits, &d.old_bits_len);
      st = vsk_update_info_section(rq_.info_attrs, &record->config_bits_len, &record->config_bits);
      if (st != VSK_OK) return st;
      KeepBits(record->config_bits, record->config_bits_len, d.new_bits, &d.new_bits_len);
    }
    patricia_root_t* t = tree.get();
    if (rq_.updates != nullptr) {
      d.first_state_found = ReadU32(t, nullptr, 0, VSK_SESSION_STATE, "first_state", &d.first_state);
      d.first_ifl_type_found =
          ReadU32(t, nullptr, 0, VSK_SESSION_IFL_TYPE, "first_ifl_type", &d.first_ifl_type);
      d.first_interface_name = ReadName(t, nullptr, 0, "first_interface_name", d.interface_name);
      st = vsk_update_session(t, rq_.updates);
      if (st != VSK_OK) {
        VSK_TRACE("%s: Failed to update client session in patricia tree %d", kFn, st);
        return st;
      }
      d.last_state_found = ReadU32(t, nullptr, 0, VSK_SESSION_STATE, "last_state", &d.last_state);
      d.last_ifl_type_found =
          ReadU32(t, nullptr, 0, VSK_SESSION_IFL_TYPE, "last_ifl_type", &d.last_ifl_type);
      d.last_interface_name = ReadName(t, nullptr, 0, "last_interface_name", d.interface_name);
      if (rq_.interface_name_out != nullptr) {
        std::memcpy(rq_.interface_name_out, d.interface_name, sizeof d.interface_name);
      }
    }
    ReadU32(t, nullptr, 0, VSK_CLIENT_SESSION_TYPE, "vsk_client_type", &d.client_type);
    if (rq_.client_type_out != nullptr) *rq_.client_type_out = d.client_type;

    FlatList flat;
    st = flat.Build(t, CountValues(record->attrs, rq_.updates));
    if (st != VSK_OK) return st;
    vsk_attr_list_t* old = record->attrs;
    record->attrs = flat.get();
    st = store::PutClientSession(txn, &rq_.id, record.get());
    record->attrs = old;
    if (st == VSK_OK && rq_.private_data != nullptr) {
      vsk_app_pri_key_t key{rq_.id, rq_.app_id};
      st = store::PutAppPriData(txn, &key, rq_.private_data);
    }
    if (st != VSK_OK) {
      // Published: the record's put reports with the private data's words.
      VSK_TRACE("%s: Failed to update private data in client session %llu, err=%s", kFn,
                Ull(rq_.id), vsk_get_err_msg(st));
    }
    return st;
  }

  vsk_status_t CachedPass(bool* reached) {
    SessionDelta& d = delta_;
    void* shm = rq_.shm;
    const uint64_t id = rq_.id;
    if (rq_.info_attrs != nullptr && !info_applied_) {
      cache::ReadConfigBits(shm, id, d.old_bits, &d.old_bits_len);
      vsk_status_t st = cache::UpdateSession(shm, id, rq_.info_attrs, &new_shared_state_);
      if (st != VSK_OK) return st;
      cache::ReadConfigBits(shm, id, d.new_bits, &d.new_bits_len);
      info_applied_ = true;
    }
    if (rq_.updates != nullptr && !updates_applied_) {
      d.first_state_found = ReadU32(nullptr, shm, id, VSK_SESSION_STATE, "first_state", &d.first_state);
      d.first_ifl_type_found =
          ReadU32(nullptr, shm, id, VSK_SESSION_IFL_TYPE, "first_ifl_type", &d.first_ifl_type);
      d.first_interface_name = ReadName(nullptr, shm, id, "first_interface_name", d.interface_name);
      vsk_status_t st = cache::UpdateSession(shm, id, rq_.updates, &new_shared_state_);
      if (st != VSK_OK) {
        VSK_TRACE("%s: Didn't vsk_update_session_data_in_shm new_shared_state; ret %s", kFn,
                  vsk_get_err_msg(st));
        return st;
      }
      d.last_state_found = ReadU32(nullptr, shm, id, VSK_SESSION_STATE, "last_state", &d.last_state);
      d.last_ifl_type_found =
          ReadU32(nullptr, shm, id, VSK_SESSION_IFL_TYPE, "last_ifl_type", &d.last_ifl_type);
      d.last_interface_name = ReadName(nullptr, shm, id, "last_interface_name", d.interface_name);
      ReadU32(nullptr, shm, id, VSK_CLIENT_SESSION_TYPE, "vsk_client_type", &d.client_type);
      if (rq_.interface_name_out != nullptr) {
        std::memcpy(rq_.interface_name_out, d.interface_name, sizeof d.interface_name);
      }
      if (rq_.client_type_out != nullptr) *rq_.client_type_out = d.client_type;
      updates_applied_ = true;
    }
    // Only a state change, or private data with updates, goes to the tables. Private data
    // without updates is dropped on a cached session (published behaviour).
    if (rq_.updates == nullptr || (rq_.private_data == nullptr && d.first_state == d.last_state)) {
      *reached = true;
      return VSK_OK;
    }
    vsk_db_txn_t block{};
    store::Txn txn(&block);
    vsk_status_t st = txn.Begin();
    if (st != VSK_OK) return st;
    st = Flush(&block);
    if (st != VSK_OK) return txn.Fail(st);
    *reached = true;
    st = txn.Commit();
    // The session leaves the cache once it is active (2) or in state 3, whatever the commit
    // said: the slot must not outlive the set-up.
    if (new_shared_state_ == 2 || new_shared_state_ == 3) cache::Clear(shm, id);
    return st;
  }

  // The slot's session to the tables: client record, dynamic record under the session's
  // own id, the auth response on state 1, the private data.
  vsk_status_t Flush(vsk_db_txn_t* txn) {
    void* shm = rq_.shm;
    const uint64_t id = rq_.id;
    vsk_client_session_t* client = nullptr;
    vsk_status_t st = store::ClientSessionEmpty(&client);
    if (st == VSK_OK) st = cache::ToSessionRecord(nullptr, shm, id, client);
    if (st == VSK_OK) st = store::PutClientSession(txn, &id, client);
    store::ReleaseClientSession(client, false);
    if (st != VSK_OK) return st;

    vsk_dynamic_config_t* dynamic = nullptr;
    st = store::DynamicConfigEmpty(&dynamic);
    if (st == VSK_OK) st = cache::ToDynamicRecord(nullptr, shm, id, dynamic);
    if (st == VSK_OK) st = store::PutDynamicConfig(txn, &id, dynamic);
    store::ReleaseDynamicConfig(dynamic, false);
    if (st != VSK_OK) return st;

    if (new_shared_state_ == 1) {
      vsk_auth_info_t* auth = nullptr;
      st = store::AuthInfoEmpty(&auth);
      if (st == VSK_OK) st = cache::ToAuthRecord(shm, id, false, auth);
      if (st == VSK_OK) st = store::PutAuthResponse(txn, &id, auth);
      store::ReleaseAuthInfo(auth, false);
      if (st != VSK_OK) return st;
    }
    if (rq_.private_data != nullptr) {
      vsk_app_pri_key_t key{id, rq_.app_id};
      st = store::PutAppPriData(txn, &key, rq_.private_data);
      if (st != VSK_OK) {
        VSK_TRACE("%s: Failed to update private data in client session %llu, err=%s", kFn,
                  Ull(id), vsk_get_err_msg(st));
      }
    }
    return st;
  }

  const UpdateRequest& rq_;
  SessionDelta delta_;
  bool info_applied_ = false;
  bool updates_applied_ = false;
  uint32_t new_shared_state_ = 0;
};

}  // namespace

vsk_status_t UpdateClientSession(const UpdateRequest& request) { return Update(request).Run(); }

}  // namespace vsk::session
