// What the rebuild of the interface table offers the per-session step of the recovery
// walk, which runs inside vsk_db_secondary_recover.
#pragma once

#include <cstdint>

namespace vsk::shared::intf {

// The summary counter record that the walk counts into while a rebuild runs: a private
// record while readers still see the old values in the shared one, or null for the shared
// record itself (pass it as the `record` argument of the increment operations).
uint32_t* RecoveryCounterRecord();

}  // namespace vsk::shared::intf
