// See counter_names.h. The slot ranges follow the counters' mapping rules: state + 1,
// the type's highest bit + 9 (type 0 in slot 8), interface type + 24, configuration bit
// + 28, each range closed by a slot for everything beyond it.
#include "counter_names.h"

namespace vskctl {
namespace {

std::array<CounterSlot, VSK_SUMMARY_COUNTER_SLOTS> Build() {
  std::array<CounterSlot, VSK_SUMMARY_COUNTER_SLOTS> s{};
  auto set = [&s](uint32_t slot, const std::string& group, const std::string& key,
                  const std::string& name) {
    s[slot] = {slot, name, group, key};
  };
  set(0, "total", "all", "clients_total");
  for (uint32_t state = 0; state <= 4; ++state) {
    set(state + 1, "state", std::to_string(state), "state_" + std::to_string(state));
  }
  set(6, "state", "other", "state_other");
  set(7, "state", "sum", "state_sum");
  set(8, "type", "0", "type_0");
  for (uint32_t bit = 0; bit <= 12; ++bit) {
    set(bit + 9, "type", "bit_" + std::to_string(bit), "type_bit_" + std::to_string(bit));
  }
  set(22, "type", "bit_13_up", "type_bit_13_up");
  set(23, "type", "sum", "type_sum");
  for (uint32_t t = 0; t <= 2; ++t) {
    set(t + 24, "ifl_type", std::to_string(t), "ifl_type_" + std::to_string(t));
  }
  set(27, "ifl_type", "other", "ifl_type_other");
  for (uint32_t bit = 0; bit <= 19; ++bit) {
    set(bit + 28, "config_bit", std::to_string(bit), "config_bit_" + std::to_string(bit));
  }
  set(48, "config_bit", "other", "config_bit_other");
  return s;
}

}  // namespace

const std::array<CounterSlot, VSK_SUMMARY_COUNTER_SLOTS>& CounterSlots() {
  static const auto slots = Build();
  return slots;
}

}  // namespace vskctl
