// Client session removal: every row of the session in one transaction, then what it held
// outside the tables.
//
//   pass: txn ─ private data of applications 0..9 ─ client record (read, delete) ─
//         dynamic record (when it is the session's alone) ─ auth request, response ─ commit
//      failed pass: abort; -4, -11, -21 give up to 250 more passes, 5 ms of sleep after
//      every third failure; at the end the slot goes all the same
//   after the commit: interface table, summary counters, cache slot, interface unit
//
// Invariants:
//  1. Shared structures change only after the commit, so a crash in between leaves counts
//     that the recovery walk rebuilds, never a count without a row behind it.
//  2. Whatever is already gone counts as removed: a missing record, dynamic record or
//     auth record is no failure.
//  3. A unit number outside the pool was not drawn from it and is never released.
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "libvsk/base/trace.h"
#include "libvsk/shared/ids_and_counters.h"
#include "libvsk/shared/intf_ops.h"
#include "libvsk/shared/session_cache.h"
#include "libvsk/store/records.h"
#include "libvsk/store/tables.h"
#include "libvsk/store/txn.h"
#include "libvsk/vsk/update_internal.h"
#include "vsk/shared.h"

namespace vsk::session {
namespace {

constexpr char kFn[] = "vsk_remove_bundled_client_session";
constexpr int kMaxRetries = 250;
constexpr useconds_t kRetrySleepUs = 5000;
constexpr uint32_t kApplications = 10;
constexpr uint32_t kUnitBase = 0x40000000u;
constexpr uint32_t kUnitSpan = 0x3FFFFu;
constexpr char kUnitName[] = "kelvo-interface-unit";

unsigned long long Ull(uint64_t v) { return static_cast<unsigned long long>(v); }

bool Retryable(vsk_status_t st) {
  return st == VSK_ERR_RETRY || st == VSK_ERR_RECOVERING || st == VSK_ERR_SECONDARY_RECOVERY;
}

// A 32-bit attribute value; a shorter value fills the low bytes.
uint32_t U32Of(const vsk_attr_t* a) {
  uint32_t v = 0;
  if (a->value != nullptr) std::memcpy(&v, a->value, a->length < 4 ? a->length : 4);
  return v;
}

// An attribute's text, NUL-terminated and cut to the buffer.
template <size_t N>
void TextOf(const vsk_attr_t* a, char (&out)[N]) {
  size_t n = a->value == nullptr ? 0 : (a->length < N - 1 ? a->length : N - 1);
  if (n != 0) std::memcpy(out, a->value, n);
  out[n] = '\0';
}

class Removal {
 public:
  Removal(uint64_t id, bool remove_dynamic) : id_(id), remove_dynamic_(remove_dynamic) {}
  ~Removal() { ReleaseRecords(); }

  vsk_status_t Run() {
    vsk_status_t st;
    int retries = 0;
    for (;;) {
      st = Pass();
      if (st == VSK_OK) break;
      ReleaseRecords();
      if (!Retryable(st) || retries == kMaxRetries) {
        // The slot goes even though the table record stays.
        cache::Clear(cache::Segment(), id_);
        VSK_TRACE("%s: Failed to remove client session %llu, %d iterations, err=%s", kFn,
                  Ull(id_), retries, vsk_get_err_msg(st));
        return st;
      }
      if (++retries % 3 == 0) usleep(kRetrySleepUs);
    }
    vsk_status_t result = AfterCommit();
    ReleaseRecords();
    if (retries > 3) {
      VSK_TRACE("INFO: VSK remove client session id %llu took %d iterations", Ull(id_), retries);
    }
    return result;
  }

 private:
  // One pass; 0 once committed, otherwise the failure (the transaction aborted).
  vsk_status_t Pass() {
    vsk_db_txn_t block{};
    store::Txn txn(&block);
    vsk_status_t st = txn.Begin();
    if (st != VSK_OK) return st;
    st = InTransaction(&block);
    if (st != VSK_OK) return txn.Fail(st);
    return txn.Commit();
  }

  vsk_status_t InTransaction(vsk_db_txn_t* txn) {
    for (uint32_t app = 0; app < kApplications; ++app) {
      vsk_app_pri_key_t key{id_, app};
      vsk_status_t st = store::DelAppPriData(txn, &key);
      if (st == VSK_OK) {
        VSK_TRACE("%s: Private data for client session %llu app %d found during session delete",
                  kFn, Ull(id_), static_cast<int>(app));
      } else if (st != VSK_ERR_NOT_FOUND) {
        return st;
      }
    }
    uint64_t dynamic_id = 0;
    vsk_status_t st = store::GetClientSession(txn, &id_, &record_, false);
    if (st == VSK_ERR_NOT_FOUND) {
      store::ReleaseClientSession(record_, true);
      record_ = nullptr;
    } else if (st != VSK_OK) {
      return st;
    } else {
      TraceServices();
      if (remove_dynamic_) dynamic_id = record_->dynamic_id;
      st = SharedInterfaceTest(&dynamic_id);
      if (st != VSK_OK) return st;
      st = store::DelClientSession(txn, &id_);
      if (st != VSK_OK && st != VSK_ERR_NOT_FOUND) return st;
    }
    if (dynamic_id != 0) {
      st = store::GetDynamicConfig(txn, &dynamic_id, &dynamic_, true);
      if (st == VSK_OK) {
        st = store::DelDynamicConfig(txn, &dynamic_id);
        if (st != VSK_OK && st != VSK_ERR_NOT_FOUND) return st;
      } else if (st == VSK_ERR_NOT_FOUND) {
        store::ReleaseDynamicConfig(dynamic_, true);
        dynamic_ = nullptr;
        VSK_TRACE("Dynamic record not found when removing client session %llu", Ull(id_));
      } else {
        return st;
      }
    }
    st = store::DelAuthRequest(txn, &id_);
    if (st != VSK_OK && st != VSK_ERR_NOT_FOUND) return st;
    st = store::DelAuthResponse(txn, &id_);
    if (st != VSK_OK && st != VSK_ERR_NOT_FOUND) return st;
    return VSK_OK;
  }

  // Service sessions are the caller's to remove first; what is left is only reported.
  void TraceServices() {
    if (record_->service_count == 0) return;
    char text[96 + 21 * 16];
    int n = std::snprintf(text, sizeof text,
                          "Service sessions for client session %llu found during session delete:",
                          Ull(id_));
    for (uint16_t i = 0; i < record_->service_count && record_->service_ids != nullptr; ++i) {
      if (n < 0 || static_cast<size_t>(n) >= sizeof text) break;
      n += std::snprintf(text + n, sizeof text - n, " %llu", Ull(record_->service_ids[i]));
    }
    VSK_TRACE("%s", text);
  }

  // A session on a shared underlying interface shares its dynamic record with the other
  // clients there: only the last of them takes it along.
  vsk_status_t SharedInterfaceTest(uint64_t* dynamic_id) {
    const vsk_attr_t* aggregated = vsk_get_attribute_from_list(record_->attrs, VSK_AGGREGATED);
    if (aggregated == nullptr) return VSK_OK;
    aggregated_ = true;
    const vsk_attr_t* uifl =
        vsk_get_attribute_from_list(record_->attrs, VSK_UNDERLYING_INTERFACE_NAME);
    if (U32Of(aggregated) != 2 || uifl == nullptr) return VSK_OK;
    char name[VSK_INTF_NAME_SIZE];
    TextOf(uifl, name);
    uint32_t count = 0;
    vsk_status_t st = shared::NumClientsOnUifl(name, &count);
    if (st == VSK_ERR_NOT_FOUND) return VSK_OK;
    if (st != VSK_OK) return st;
    if (count != 1) *dynamic_id = 0;
    return VSK_OK;
  }

  // What the session held outside the tables. Each step is traced on failure and the next
  // one runs. The result: 0, or the status of the last interface lookup or removal.
  vsk_status_t AfterCommit() {
    vsk_status_t result = VSK_OK;
    if (record_ != nullptr) {
      result = RemoveInterfaces();
      DecrementCounters();
    } else {
      DecrementTotal();
    }
    cache::Clear(cache::Segment(), id_);
    ReleaseUnit();
    return result;
  }

  vsk_status_t RemoveInterfaces() {
    const vsk_attr_list_t* attrs = record_->attrs;
    const vsk_attr_t* own = vsk_get_attribute_from_list(
        attrs, aggregated_ ? VSK_UNDERLYING_INTERFACE_NAME : VSK_INTERFACE_NAME);
    char name[VSK_INTF_NAME_SIZE];
    // Published: a session that names neither interface is removed and still gets -7.
    vsk_status_t result = VSK_ERR_NOT_FOUND;
    if (own != nullptr && own->value != nullptr) {
      TextOf(own, name);
      result = shared::InterfaceRemove(name, VSK_INTF_KIND_IFL, id_);
      if (result != VSK_OK) {
        VSK_TRACE("%s: Failed to remove interface %s for session %llu", kFn, name, Ull(id_));
      }
    }
    if (const vsk_attr_t* uifl =
            vsk_get_attribute_from_list(attrs, VSK_UNDERLYING_INTERFACE_NAME)) {
      TextOf(uifl, name);
      result = shared::InterfaceRemove(name, VSK_INTF_KIND_UIFL, id_);
      if (result != VSK_OK) {
        VSK_TRACE("%s: Failed to remove interface %s for session %llu", kFn, name, Ull(id_));
      }
    }
    return result;
  }

  void DecrementCounters() {
    const vsk_attr_list_t* attrs = record_->attrs;
    int rc;
    if (const vsk_attr_t* a = vsk_get_attribute_from_list(attrs, VSK_SESSION_STATE)) {
      if ((rc = shared::CounterDecrementState(static_cast<int32_t>(U32Of(a)))) != 0) {
        VSK_TRACE("%s: Failed to decrement client state summary counter, err=%s", kFn,
                  vsk_get_err_msg(rc));
      }
    }
    if (const vsk_attr_t* a = vsk_get_attribute_from_list(attrs, VSK_SESSION_IFL_TYPE)) {
      if ((rc = shared::CounterDecrementIflType(static_cast<int32_t>(U32Of(a)))) != 0) {
        VSK_TRACE("%s: Failed to decrement client ifl type summary counter %s", kFn,
                  vsk_get_err_msg(rc));
      }
    }
    if (const vsk_attr_t* a = vsk_get_attribute_from_list(attrs, VSK_CLIENT_SESSION_TYPE)) {
      if ((rc = shared::CounterDecrementType(U32Of(a))) != 0) {
        VSK_TRACE("%s: Failed to decrement client type summary counter, err=%s", kFn,
                  vsk_get_err_msg(rc));
      }
    }
    DecrementTotal();
    if (record_->config_bits_len != 0 &&
        (rc = shared::CounterDecrementConfigBits(record_->config_bits,
                                                 record_->config_bits_len)) != 0) {
      VSK_TRACE("%s: Failed to decrement client config bits summary counter %s", kFn,
                vsk_get_err_msg(rc));
    }
  }

  void DecrementTotal() {
    int rc = shared::CounterDecrementTotal();
    if (rc != 0) {
      VSK_TRACE("%s: Failed to decrement client total summary counter, err=%s", kFn,
                vsk_get_err_msg(rc));
    }
  }

  // The interface unit the session drew, named in its dynamic record.
  void ReleaseUnit() {
    if (dynamic_ == nullptr || dynamic_->attrs == nullptr) return;
    for (const vsk_dyn_attr_t* a = dynamic_->attrs->first; a != nullptr; a = a->next) {
      if (a->name == nullptr || std::strcmp(a->name, kUnitName) != 0) continue;
      char text[16] = {};
      if (a->value != nullptr) {
        std::memcpy(text, a->value, a->length < sizeof text - 1 ? a->length : sizeof text - 1);
      }
      int32_t unit = vsk_unit_parse(a->value != nullptr ? text : nullptr);
      if (unit == -1) {
        VSK_TRACE("%s: Failed to release client session unit number, it's invalid", kFn);
      } else if (static_cast<uint32_t>(unit) - kUnitBase < kUnitSpan) {
        int rc = vsk_unit_release(static_cast<uint32_t>(unit), 0);
        if (rc != 0) {
          VSK_TRACE("%s: Failed to release client session unit number, err=%s", kFn,
                    vsk_get_err_msg(rc));
        }
      }
      return;
    }
  }

  void ReleaseRecords() {
    store::ReleaseDynamicConfig(dynamic_, true);
    dynamic_ = nullptr;
    store::ReleaseClientSession(record_, true);
    record_ = nullptr;
    aggregated_ = false;
  }

  const uint64_t id_;
  const bool remove_dynamic_;
  vsk_client_session_t* record_ = nullptr;
  vsk_dynamic_config_t* dynamic_ = nullptr;
  bool aggregated_ = false;
};

}  // namespace

vsk_status_t RemoveClientSession(uint64_t id, bool remove_dynamic) {
  return Removal(id, remove_dynamic).Run();
}

}  // namespace vsk::session
