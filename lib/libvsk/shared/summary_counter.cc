// Summary counters: 49 unsigned 32-bit slots in the main segment that count client sessions
// by state, type, interface type and configuration bit, readable by any process without
// the database.
//
// Slot map (a format: other processes read the record by slot number):
//   0 all sessions | 1-5 state 0-4 | 6 other state | 7 sum of increments of 1-6
//   8 type 0 | 9-21 type by highest set bit 0-12 | 22 higher bit | 23 sum of 8-22
//   24-26 interface type 0-2 | 27 other | 28-47 configuration bit 0-19 | 48 higher bit
//
// Session operations change the slots after their commit; recovery counts into a private
// record of the same form and copies it over the shared one when done.
//
// Invariants:
//  1. Each slot changes by one atomic read-modify-write on its own word; no semaphore. A
//     slot and its sum slot are not changed together atomically.
//  2. Nothing tests for zero: a decrement of 0 wraps to 0xFFFFFFFF, as readers expect.
//  3. Decrements always act on the shared record.
#include <atomic>
#include <cstring>

#include "libvsk/base/trace.h"
#include "libvsk/shared/ids_and_counters.h"
#include "libvsk/shared/layout.h"
#include "libvsk/shared/regions.h"
#include "libvsk/store/capability.h"
#include "platform/bitmap.h"
#include "vsk/shared.h"
#include "vsk/status.h"
#include "vsk/store.h"

extern "C" {
uint32_t* vsk_summary_counter = nullptr;
}

namespace vsk::shared {
namespace {

constexpr uint32_t kLastSlot = VSK_SUMMARY_COUNTER_SLOTS - 1;
// Result of a change while neither the shared record nor a private one is at hand.
constexpr int kNotAttached = -2;
// Configuration bits counted from a bitmap: bits 0 to 18, whatever its length.
constexpr int32_t kMaxConfigBitsCounted = 19;

// Adds `delta` (+1 or -1, modulo 2^32) to `slot` of `record`, or of the shared record when
// `record` is null. 0, -2 (no record at all) or -22 (slot out of range).
int ChangeSlot(uint32_t slot, uint32_t delta, uint32_t* record) {
  uint32_t* target = record != nullptr ? record : vsk_summary_counter;
  if (target == nullptr) return kNotAttached;
  if (slot > kLastSlot) return VSK_ERR_SUMMARY_COUNTER;
  std::atomic_ref<uint32_t>(target[slot]).fetch_add(delta, std::memory_order_relaxed);
  return 0;
}

// A detail slot, then on success its sum slot.
int ChangeWithSum(uint32_t slot, uint32_t sum_slot, uint32_t delta, uint32_t* record) {
  int rc = ChangeSlot(slot, delta, record);
  if (rc != 0) return rc;
  return ChangeSlot(sum_slot, delta, record);
}

int ChangeConfigBits(const uint8_t* bitmap, int32_t length, uint32_t delta, uint32_t* record) {
  if (length <= 0 || bitmap == nullptr) return 0;
  int64_t bits = static_cast<int64_t>(length) * 8;
  if (bits > kMaxConfigBitsCounted - 1) bits = kMaxConfigBitsCounted;
  int result = 0;
  for (int32_t i = 0; i < static_cast<int32_t>(bits); ++i) {
    if (!bitmap_is_set(bitmap, static_cast<uint32_t>(i))) continue;
    int rc = ChangeSlot(vsk::shared::ConfigBitToCounter(i), delta, record);
    if (rc != 0) result = rc;
  }
  return result;
}

constexpr uint32_t kUp = 1;
constexpr uint32_t kDown = static_cast<uint32_t>(-1);

}  // namespace
}  // namespace vsk::shared

using namespace vsk::shared;

extern "C" {

// The mappings work in unsigned 32-bit arithmetic on purpose: a state of -1 lands in slot 0
// and an interface type of -1 in slot 23. Callers do not filter negative values.
}  // extern "C"

uint32_t vsk::shared::StateToCounter(int32_t state) {
  uint32_t slot = static_cast<uint32_t>(state) + 1;
  return slot > 5 ? 6 : slot;
}

extern "C" uint32_t vsk_session_state_to_summary_counter(int32_t state) {
  return vsk::shared::StateToCounter(state);
}

uint32_t vsk::shared::TypeToCounter(uint32_t type) {
  if (type == 0) return 8;
  uint32_t highest_bit = 31 - static_cast<uint32_t>(__builtin_clz(type));
  uint32_t slot = highest_bit + 9;
  return slot > 21 ? 22 : slot;
}

extern "C" uint32_t vsk_session_type_to_summary_counter(uint32_t type) {
  return vsk::shared::TypeToCounter(type);
}

uint32_t vsk::shared::IflTypeToCounter(int32_t ifl_type) {
  uint32_t slot = static_cast<uint32_t>(ifl_type) + 24;
  return slot > 26 ? 27 : slot;
}

extern "C" uint32_t vsk_session_ifl_type_to_summary_counter(int32_t ifl_type) {
  return vsk::shared::IflTypeToCounter(ifl_type);
}

uint32_t vsk::shared::ConfigBitToCounter(int32_t bit) {
  uint32_t slot = static_cast<uint32_t>(bit) + 28;
  return slot > 47 ? 48 : slot;
}

extern "C" uint32_t vsk_session_config_bit_to_summary_counter(int32_t bit) {
  return vsk::shared::ConfigBitToCounter(bit);
}

int vsk::shared::CounterIncrementState(int32_t state, uint32_t* record) {
  return ChangeWithSum(vsk::shared::StateToCounter(state), VSK_SUMMARY_COUNTER_STATE_SUM, kUp,
                       record);
}

extern "C" int vsk_summary_counter_increment_state(int32_t state, uint32_t* record) {
  return vsk::shared::CounterIncrementState(state, record);
}

int vsk::shared::CounterDecrementState(int32_t state) {
  return ChangeWithSum(vsk::shared::StateToCounter(state), VSK_SUMMARY_COUNTER_STATE_SUM, kDown,
                       nullptr);
}

extern "C" int vsk_summary_counter_decrement_state(int32_t state) {
  return vsk::shared::CounterDecrementState(state);
}

int vsk::shared::CounterIncrementType(uint32_t type, uint32_t* record) {
  return ChangeWithSum(vsk::shared::TypeToCounter(type), VSK_SUMMARY_COUNTER_TYPE_SUM, kUp, record);
}

extern "C" int vsk_summary_counter_increment_type(uint32_t type, uint32_t* record) {
  return vsk::shared::CounterIncrementType(type, record);
}

int vsk::shared::CounterDecrementType(uint32_t type) {
  return ChangeWithSum(vsk::shared::TypeToCounter(type), VSK_SUMMARY_COUNTER_TYPE_SUM, kDown,
                       nullptr);
}

extern "C" int vsk_summary_counter_decrement_type(uint32_t type) {
  return vsk::shared::CounterDecrementType(type);
}

int vsk::shared::CounterIncrementIflType(int32_t ifl_type, uint32_t* record) {
  return ChangeSlot(vsk::shared::IflTypeToCounter(ifl_type), kUp, record);
}

extern "C" int vsk_summary_counter_increment_ifl_type(int32_t ifl_type, uint32_t* record) {
  return vsk::shared::CounterIncrementIflType(ifl_type, record);
}

int vsk::shared::CounterDecrementIflType(int32_t ifl_type) {
  return ChangeSlot(vsk::shared::IflTypeToCounter(ifl_type), kDown, nullptr);
}

extern "C" int vsk_summary_counter_decrement_ifl_type(int32_t ifl_type) {
  return vsk::shared::CounterDecrementIflType(ifl_type);
}

int vsk::shared::CounterIncrementTotal(uint32_t* record) {
  return ChangeSlot(VSK_SUMMARY_COUNTER_TOTAL, kUp, record);
}

extern "C" int vsk_summary_counter_increment_total(uint32_t* record) {
  return vsk::shared::CounterIncrementTotal(record);
}

int vsk::shared::CounterDecrementTotal() {
  return ChangeSlot(VSK_SUMMARY_COUNTER_TOTAL, kDown, nullptr);
}

extern "C" int vsk_summary_counter_decrement_total(void) {
  return vsk::shared::CounterDecrementTotal();
}

int vsk::shared::CounterIncrementConfigBits(const uint8_t* bitmap, int32_t length,
                                            uint32_t* record) {
  return ChangeConfigBits(bitmap, length, kUp, record);
}

extern "C" int vsk_summary_counter_increment_config_bits(const uint8_t* bitmap, int32_t length,
                                                         uint32_t* record) {
  return vsk::shared::CounterIncrementConfigBits(bitmap, length, record);
}

int vsk::shared::CounterDecrementConfigBits(const uint8_t* bitmap, int32_t length) {
  return ChangeConfigBits(bitmap, length, kDown, nullptr);
}

extern "C" int vsk_summary_counter_decrement_config_bits(const uint8_t* bitmap, int32_t length) {
  return vsk::shared::CounterDecrementConfigBits(bitmap, length);
}

void vsk::shared::CounterAttach() {
  vsk_summary_counter = static_cast<uint32_t*>(vsk::shared::ShmPtr(VSK_SHM_SUMMARY_COUNTER_OFFSET));
}

extern "C" void vsk_summary_counter_attach(void) { vsk::shared::CounterAttach(); }

void vsk::shared::CounterDetach() { vsk_summary_counter = nullptr; }

extern "C" void vsk_summary_counter_detach(void) { vsk::shared::CounterDetach(); }

int vsk::shared::CounterOpen() {
  if (!vsk::store::Supported()) {
    VSK_TRACE("Platform not supported");
    return VSK_ERR_UNSUPPORTED;
  }
  if (vsk::shared::SharedMemoryInit(false) != 0) {
    VSK_TRACE("Failed to init shared memory");
    return -1;
  }
  vsk::shared::CounterAttach();
  return 0;
}

extern "C" int vsk_summary_counter_open(void) { return vsk::shared::CounterOpen(); }

void vsk::shared::CounterClose() {
  vsk::shared::CounterDetach();
  vsk::shared::DetachShm();
}

extern "C" {

void vsk_summary_counter_close(void) { vsk::shared::CounterClose(); }

// The copy takes no lock: a reader may see a sum slot one step apart from its details.
}  // extern "C"

int vsk::shared::GetSummaryCounters(uint32_t* dest) {
  if (vsk_summary_counter == nullptr) return kNotAttached;
  if (dest == nullptr) {
    VSK_TRACE("%s: null destination", "vsk_get_summary_counters");
    return VSK_ERR_INVALID_PARAM;
  }
  for (uint32_t i = 0; i < VSK_SUMMARY_COUNTER_SLOTS; ++i) {
    dest[i] = std::atomic_ref<uint32_t>(vsk_summary_counter[i]).load(std::memory_order_relaxed);
  }
  return 0;
}

extern "C" {

int vsk_get_summary_counters(uint32_t* dest) { return vsk::shared::GetSummaryCounters(dest); }

// Only the lowest byte of slot 23 is the answer: 256 sessions read as "none present". Readers
// depend on this exact behaviour.
}  // extern "C"

uint8_t vsk::shared::SubscribersPresent() {
  if (vsk_summary_counter != nullptr) {
    return static_cast<uint8_t>(vsk_summary_counter[VSK_SUMMARY_COUNTER_TYPE_SUM] & 0xff);
  }
  if (vsk::shared::CounterOpen() != 0) return 0;
  uint8_t present = static_cast<uint8_t>(vsk_summary_counter[VSK_SUMMARY_COUNTER_TYPE_SUM] & 0xff);
  vsk::shared::CounterClose();
  return present;
}

extern "C" uint8_t vsk_subscribers_present(void) { return vsk::shared::SubscribersPresent(); }
