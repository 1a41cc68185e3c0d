// Service session update and activation.
//
//   update pass: txn (child of the caller's when given) ─ read for update ─ tree ─
//                config bits on an owned copy ─ updates ─ flatten, put ─ private data ─
//                commit ──> config-bit counters when the bits changed
//      failed pass: abort; -4 and -11 give up to three more passes, no sleep
//   activation: outer txn ─ for each id, the update with state := 2 inside it ─ commit;
//      the first failure aborts the outer transaction, so all services change or none
//
// Invariants:
//  1. A decoded service record's config bits point into its raw buffer. The config-bit
//     walk may free or replace the mask it is given, so it only ever gets a heap copy that
//     this pass owns; the raw buffer is never freed or written through that pointer.
//  2. A failed pass leaves the record as it was: the tree and the copy are thrown away.
//  3. Counters move only after a good commit, and only for a changed mask (first 8 bytes).
#include <cstdlib>
#include <cstring>

#include "libvsk/attr/config_bits.h"
#include "libvsk/base/trace.h"
#include "libvsk/store/records.h"
#include "libvsk/store/tables.h"
#include "libvsk/store/txn.h"
#include "libvsk/vsk/service_internal.h"
#include "libvsk/vsk/tree_edit.h"
#include "libvsk/vsk/update_internal.h"

namespace vsk::session {
namespace {

constexpr char kFn[] = "vsk_update_service_session_internal";
constexpr int kMaxRetries = 3;
constexpr uint32_t kActiveState = 2;

struct ServiceRecordFree {
  void operator()(vsk_service_session_t* r) const { store::ReleaseServiceSession(r, true); }
};
using ServiceRecordPtr = std::unique_ptr<vsk_service_session_t, ServiceRecordFree>;

// A heap copy of a record's mask that the config-bit walk may free and replace; whatever
// it holds at the end is freed with it.
class OwnedMask {
 public:
  OwnedMask(const OwnedMask&) = delete;
  OwnedMask& operator=(const OwnedMask&) = delete;
  OwnedMask() = default;
  ~OwnedMask() { std::free(bits_); }
  // Copies `length` bytes (one more allocated, as a client record's own copy). -2.
  vsk_status_t CopyFrom(const uint8_t* bits, uint16_t length) {
    length_ = 0;
    if (bits == nullptr || length == 0) return VSK_OK;
    bits_ = static_cast<uint8_t*>(std::malloc(length + 1u));
    if (bits_ == nullptr) return VSK_ERR_NOMEM;
    std::memcpy(bits_, bits, length);
    bits_[length] = 0;
    length_ = length;
    return VSK_OK;
  }
  uint8_t** bits() { return &bits_; }
  uint16_t* length() { return &length_; }

 private:
  uint8_t* bits_ = nullptr;
  uint16_t length_ = 0;
};

// The config bits before and after, as far as the counters look.
struct BitsSeen {
  uint8_t old_bits[8] = {}, new_bits[8] = {};
  uint16_t old_len = 0, new_len = 0;
};

// One pass. *committed is set once the commit was tried: the status is then the result.
vsk_status_t Pass(const ServiceUpdate& u, bool* committed, BitsSeen* seen) {
  vsk_db_txn_t block{};
  block.parent = u.parent;
  store::Txn txn(&block);
  vsk_status_t st = txn.Begin();
  if (st != VSK_OK) return st;
  vsk_service_session_t* raw_record = nullptr;
  st = store::GetServiceSession(&block, &u.id, &raw_record, true, nullptr, 0);
  ServiceRecordPtr record(raw_record);
  if (st != VSK_OK) {
    VSK_TRACE("%s: Failed to read service session", kFn);
    return txn.Fail(st);
  }
  TreePtr tree(vsk_attr_tree_create());
  st = tree == nullptr ? VSK_ERR_NOMEM : LoadTree(tree.get(), record->attrs);
  if (st != VSK_OK) {
    VSK_TRACE("%s: Failed to add attributes to patricia tree during update, err=%s", kFn,
              vsk_get_err_msg(st));
    return txn.Fail(st);
  }
  OwnedMask mask;
  if (u.info_attrs != nullptr) {
    KeepBits(record->config_bits, record->config_bits_len, seen->old_bits, &seen->old_len);
    st = mask.CopyFrom(record->config_bits, record->config_bits_len);
    if (st == VSK_OK) {
      st = attr::ApplyInfoSection(u.info_attrs, mask.length(), mask.bits(),
                                  attr::InfoWords::kService, kFn);
    }
    if (st != VSK_OK) return txn.Fail(st);
    KeepBits(*mask.bits(), *mask.length(), seen->new_bits, &seen->new_len);
    // The record now points at the pass's copy; its release never frees config_bits.
    record->config_bits = *mask.bits();
    record->config_bits_len = *mask.length();
  }
  if (u.updates != nullptr) {
    st = vsk_update_session(tree.get(), u.updates);
    if (st != VSK_OK) return txn.Fail(st);
  }
  FlatList flat;
  st = flat.Build(tree.get(), CountValues(record->attrs, u.updates));
  if (st != VSK_OK) return txn.Fail(st);
  vsk_attr_list_t* old = record->attrs;
  record->attrs = flat.get();
  st = store::PutServiceSession(&block, &u.id, record.get());
  record->attrs = old;
  if (st == VSK_OK && u.private_data != nullptr) {
    vsk_app_pri_key_t key{u.id, u.app_id};
    st = store::PutAppPriData(&block, &key, u.private_data);
  }
  if (st != VSK_OK) return txn.Fail(st);
  *committed = true;
  return txn.Commit();
}

}  // namespace

vsk_status_t UpdateServiceSession(const ServiceUpdate& update) {
  for (int retries = 0;; ++retries) {
    bool committed = false;
    BitsSeen seen;
    vsk_status_t st = Pass(update, &committed, &seen);
    if (committed) {
      if (st == VSK_OK) {
        MoveConfigBitCounters(seen.old_bits, seen.old_len, seen.new_bits, seen.new_len, kFn);
      }
      return st;
    }
    if (!store::RetryOnDeadlockOrRecovery(st) || retries == kMaxRetries) {
      VSK_TRACE("%s: Failed to update service session %d", kFn, st);
      return st;
    }
  }
}

vsk_status_t ActivateServiceSessions(const vsk_session_id_t* ids, uint32_t count) {
  uint32_t active = kActiveState;
  vsk_attr_update_t state{};
  state.type = VSK_SESSION_STATE;
  state.action = VSK_ATTR_ACTION_ADD_OR_REPLACE;
  state.new_length = sizeof active;
  state.new_value = &active;
  vsk_attr_update_list_t list{&state, &state.next};

  vsk_db_txn_t outer{};
  vsk_status_t st = store::StartTxn(&outer);
  for (uint32_t i = 0; st == VSK_OK && i < count; ++i) {
    ServiceUpdate update;
    update.id = ids[i];
    update.updates = &list;
    update.parent = &outer;
    st = UpdateServiceSession(update);
  }
  if (st == VSK_OK) return store::EndTxn(&outer);
  VSK_TRACE("Failed to set list of service session active %d", st);
  // Published: the abort's own result is returned, so a failure with no transaction open
  // reports 0, and -11 stays -11.
  return store::AbortTxn(&outer, st);
}

}  // namespace vsk::session
