// What follows a good client session update outside the tables: the interface table and
// the summary counters move by the difference between the session before and after.
//
// Invariants: a value counted once stays counted once. A state or interface type is
// moved only when it changed (or came or went); config bits are compared on their first
// 8 bytes, the most the counters look at. Nothing here changes the update's result.
#include <cstring>

#include "libvsk/base/trace.h"
#include "libvsk/shared/ids_and_counters.h"
#include "libvsk/shared/intf_ops.h"
#include "libvsk/vsk/update_internal.h"

namespace vsk::session {
namespace {

constexpr char kUpdateFn[] = "vsk_update_client_session_internal";
constexpr char kCountersFn[] = "vsk_update_summary_counters";

unsigned long long Ull(uint64_t v) { return static_cast<unsigned long long>(v); }

// True when `b` is missing or holds another value than `a`.
bool Moved(bool a_found, uint32_t a, bool b_found, uint32_t b) {
  return a_found && (!b_found || a != b);
}

}  // namespace

void FollowInterfaceTable(const SessionDelta& d, vsk_status_t result) {
  if (!d.first_interface_name && d.last_interface_name) {
    // Only a first interface name makes an entry; a renamed one keeps the old entry.
    uint32_t state = d.client_type == 2 ? d.last_state : 2;
    if (shared::InterfaceAdd(d.interface_name, VSK_INTF_KIND_IFL, d.id, 1, state) != VSK_OK) {
      VSK_TRACE("%s: Failed to add interface %s for session %llu", kUpdateFn, d.interface_name,
                Ull(d.id));
    }
  }
  if (Moved(d.last_state_found, d.last_state, d.first_state_found, d.first_state) &&
      d.client_type == 2) {
    if (shared::InterfaceSetState(d.interface_name, d.last_state) != VSK_OK) {
      // Published: the number is the update's result, not that of the state change.
      VSK_TRACE_AT(VSK_TRACE_LEVEL_ERROR, "Failed to set interface state ifname %s, ret = %d",
                   d.interface_name, result);
    }
  }
}

void UpdateSummaryCounters(const SessionDelta& d) {
  int rc;
  if (Moved(d.first_state_found, d.first_state, d.last_state_found, d.last_state) &&
      (rc = shared::CounterDecrementState(static_cast<int32_t>(d.first_state))) != 0) {
    VSK_TRACE("%s: Failed to decrement client state summary counter, err=%s", kCountersFn,
              vsk_get_err_msg(rc));
  }
  if (Moved(d.last_state_found, d.last_state, d.first_state_found, d.first_state) &&
      (rc = shared::CounterIncrementState(static_cast<int32_t>(d.last_state), nullptr)) != 0) {
    VSK_TRACE("%s: Failed to increment client state summary counter, err=%s", kCountersFn,
              vsk_get_err_msg(rc));
  }
  if (Moved(d.first_ifl_type_found, d.first_ifl_type, d.last_ifl_type_found, d.last_ifl_type) &&
      (rc = shared::CounterDecrementIflType(static_cast<int32_t>(d.first_ifl_type))) != 0) {
    VSK_TRACE("%s: Failed to decrement client ifl type summary counter %s", kCountersFn,
              vsk_get_err_msg(rc));
  }
  if (Moved(d.last_ifl_type_found, d.last_ifl_type, d.first_ifl_type_found, d.first_ifl_type) &&
      (rc = shared::CounterIncrementIflType(static_cast<int32_t>(d.last_ifl_type), nullptr)) !=
          0) {
    VSK_TRACE("%s: Failed to increment client ifl type summary counter %s", kCountersFn,
              vsk_get_err_msg(rc));
  }
  MoveConfigBitCounters(d.old_bits, d.old_bits_len, d.new_bits, d.new_bits_len, kCountersFn);
}

void KeepBits(const uint8_t* bits, uint16_t length, uint8_t (&out)[8], uint16_t* out_len) {
  *out_len = length < 8 ? length : 8;
  std::memset(out, 0, sizeof out);
  if (bits != nullptr && *out_len != 0) std::memcpy(out, bits, *out_len);
}

void MoveConfigBitCounters(const uint8_t* old_bits, uint16_t old_len, const uint8_t* new_bits,
                           uint16_t new_len, const char* fn) {
  if (old_len == new_len && std::memcmp(old_bits, new_bits, old_len) == 0) return;
  int rc;
  if (old_len != 0 && (rc = shared::CounterDecrementConfigBits(old_bits, old_len)) != 0) {
    VSK_TRACE("%s: Failed to decrement client config bits summary counter %s", fn,
              vsk_get_err_msg(rc));
  }
  if (new_len != 0 && (rc = shared::CounterIncrementConfigBits(new_bits, new_len, nullptr)) != 0) {
    VSK_TRACE("%s: Failed to increment client config bits summary counter %s", fn,
              vsk_get_err_msg(rc));
  }
}

}  // namespace vsk::session
