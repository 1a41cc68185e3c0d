// See fault.h. The per-kind countdowns are only touched when something is armed.
#include "libvsk/base/fault.h"

namespace vsk::fault {
namespace {

constexpr size_t kKinds = static_cast<size_t>(Kind::kCount);

struct Slot {
  std::atomic<uint32_t> countdown{0};  // calls left until the failure; 0 disarmed
  std::atomic<int> result{0};
};
Slot g_slots[kKinds];

Slot& SlotOf(Kind kind) { return g_slots[static_cast<size_t>(kind)]; }

}  // namespace

namespace internal {

std::atomic<uint32_t> g_armed{0};

bool Fire(Kind kind, int* result) {
  Slot& s = SlotOf(kind);
  uint32_t left = s.countdown.load(std::memory_order_acquire);
  while (left != 0) {
    if (s.countdown.compare_exchange_weak(left, left - 1, std::memory_order_acq_rel)) {
      if (left != 1) return false;
      g_armed.fetch_sub(1, std::memory_order_relaxed);
      *result = s.result.load(std::memory_order_relaxed);
      return true;
    }
  }
  return false;
}

}  // namespace internal

void Arm(Kind kind, uint32_t nth, int result) {
  Disarm(kind);
  if (nth == 0 || kind >= Kind::kCount) return;
  Slot& s = SlotOf(kind);
  s.result.store(result, std::memory_order_relaxed);
  s.countdown.store(nth, std::memory_order_release);
  internal::g_armed.fetch_add(1, std::memory_order_relaxed);
}

void Disarm(Kind kind) {
  if (kind >= Kind::kCount) return;
  if (SlotOf(kind).countdown.exchange(0, std::memory_order_acq_rel) != 0) {
    internal::g_armed.fetch_sub(1, std::memory_order_relaxed);
  }
}

void DisarmAll() {
  for (size_t k = 0; k < kKinds; ++k) Disarm(static_cast<Kind>(k));
}

bool Pending(Kind kind) {
  return kind < Kind::kCount && SlotOf(kind).countdown.load(std::memory_order_acquire) != 0;
}

}  // namespace vsk::fault
