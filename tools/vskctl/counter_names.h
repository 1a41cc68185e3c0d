// Names of the 49 summary counter slots, shared by the listing and the metrics.
//
// The slot numbers are a format of the main segment; the names here are vskctl's stable
// names for them (JSON fields and metric labels depend on them, so they never change).
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "vsk/shared.h"

namespace vskctl {

struct CounterSlot {
  uint32_t slot;
  std::string name;   // "clients_total", "state_0", "type_bit_12", "config_bit_other", ...
  std::string group;  // "total", "state", "type", "ifl_type", "config_bit"
  std::string key;    // the slot's place within its group: "0", "other", "sum", "bit_13_up"
};

// All 49, in slot order.
const std::array<CounterSlot, VSK_SUMMARY_COUNTER_SLOTS>& CounterSlots();

}  // namespace vskctl
