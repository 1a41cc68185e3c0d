// See fault.h. Nothing here is reached while nothing is armed, so a plain mutex guards the
// per-kind plans.
#include "libvsk/base/fault.h"

#include <mutex>

namespace vsk::fault {
namespace {

constexpr size_t kKinds = static_cast<size_t>(Kind::kCount);

struct Plan {
  uint32_t pass = 0;   // calls still let through before the first failure
  uint32_t fails = 0;  // failures left; 0 disarmed
  int result = 0;
};
Plan g_plans[kKinds];
std::mutex g_mu;

Plan& PlanOf(Kind kind) { return g_plans[static_cast<size_t>(kind)]; }

// REQUIRES: g_mu held.
void DisarmLocked(Kind kind) {
  Plan& p = PlanOf(kind);
  if (p.fails != 0) internal::g_armed.fetch_sub(1, std::memory_order_relaxed);
  p = Plan{};
}

}  // namespace

namespace internal {

std::atomic<uint32_t> g_armed{0};

bool Fire(Kind kind, int* result) {
  std::lock_guard<std::mutex> lock(g_mu);
  Plan& p = PlanOf(kind);
  if (p.fails == 0) return false;
  if (p.pass != 0) {
    --p.pass;
    return false;
  }
  *result = p.result;
  if (--p.fails == 0) internal::g_armed.fetch_sub(1, std::memory_order_relaxed);
  return true;
}

}  // namespace internal

void Arm(Kind kind, uint32_t nth, int result, uint32_t times) {
  if (kind >= Kind::kCount) return;
  std::lock_guard<std::mutex> lock(g_mu);
  DisarmLocked(kind);
  if (nth == 0 || times == 0) return;
  PlanOf(kind) = Plan{nth - 1, times, result};
  internal::g_armed.fetch_add(1, std::memory_order_relaxed);
}

void Disarm(Kind kind) {
  if (kind >= Kind::kCount) return;
  std::lock_guard<std::mutex> lock(g_mu);
  DisarmLocked(kind);
}

void DisarmAll() {
  for (size_t k = 0; k < kKinds; ++k) Disarm(static_cast<Kind>(k));
}

bool Pending(Kind kind) {
  if (kind >= Kind::kCount) return false;
  std::lock_guard<std::mutex> lock(g_mu);
  return PlanOf(kind).fails != 0;
}

}  // namespace vsk::fault
