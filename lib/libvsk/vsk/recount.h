// A recount of what the summary counters, the interface table and the interface unit pool
// should hold, made from the session tables, beside what they do hold.
//
// The recount walks the client table and counts each session from its table row, as the
// counters themselves are kept (a cached update that changes a counted attribute is
// counted once its flush has committed), and counts the sessions that hold a cache slot.
// Each session counts as a create counts it: state, interface type, client type and total,
// its config bits (first 8 bytes), its own interface (VSK_INTERFACE_NAME of a session
// without VSK_PROFILE_NAME) and its underlying interface, and an interface unit named in
// its dynamic record when that unit lies in the pool, and the config bits of each service
// the session lists. Sessions that carry VSK_AGGREGATED or a profile name, or whose
// interface name changed after it was first set, are not counted the way removal uncounts
// them; a test that wants an exact match keeps away from them.
//
// Who may call: a process with the store open and the shared segments and interface table
// attached (a client daemon, or orvd). Sessions must not change meanwhile. Used by the load
// generator's closing check and by the tests.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "vsk/vsk.h"

namespace vsk::recount {

struct SessionCounts {
  vsk_status_t status = VSK_OK;  // of the walk (0 when it went to the end)
  uint32_t counters[VSK_SUMMARY_COUNTER_SLOTS] = {};
  // Interface name -> (ifl_count, uifl_count); names with both 0 are left out.
  std::map<std::string, std::pair<int, int>> interfaces;
  uint32_t units_in_use = 0;  // interface units (pool 0)
  uint32_t slots_in_use = 0;  // cache slots holding a session (slot or table view)
  std::set<uint64_t> sessions;
  std::set<uint64_t> slot_sessions;  // the sessions the cache slots name (shared view only)
  uint32_t services = 0;  // service records found through their clients' lists (tables only)
};

// What the tables (and slots) say.
SessionCounts RecountFromTables();
// What the shared structures say.
SessionCounts ReadSharedCounts();
// "" when the two agree, else one line per difference.
std::string CountDifferences(const SessionCounts& expected, const SessionCounts& shared);

// Rows and slot a removed session must not have left: "" when none, else what is left.
std::string LeftBehind(uint64_t id, uint64_t dynamic_id);

}  // namespace vsk::recount
