// The byte layout of the main shared segment: the one definition every process relies on.
//
// The segment has no header and no version mark, so every offset below is a format shared
// by all processes of a system; changing one means changing them all together. Integers are
// in the host's byte order. The static_asserts pin each offset to the value that the other
// processes use.
//
// Invariants:
//  1. The two unit pools lie back to back behind the reserved word; each takes
//     vsk_unit_get_memory_size(max) bytes, and the counters start where pool 1 ends.
//  2. Every 32-bit word is 4-aligned within the segment (the segment itself is page-aligned),
//     so std::atomic_ref may operate on the counters in place.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vsk/shared.h"

namespace vsk::shared {

// Header of one unit pool; `max` entries of 32 bits follow it.
struct UnitPoolHeader {
  uint32_t max;  // number of entries
  int32_t head;  // first free entry, -1 if none
  int32_t tail;  // last free entry, -1 if none
};
static_assert(sizeof(UnitPoolHeader) == 12);
static_assert(offsetof(UnitPoolHeader, max) == 0);
static_assert(offsetof(UnitPoolHeader, head) == 4);
static_assert(offsetof(UnitPoolHeader, tail) == 8);

// One pool as laid out for its fixed capacity. A free entry holds the index of the next free
// entry (-1 at the end); an allocated entry holds -1.
template <uint32_t kCapacity>
struct UnitPool {
  UnitPoolHeader header;
  int32_t entries[kCapacity];
};

inline constexpr uint32_t kIflPoolCapacity = VSK_UNIT_POOL_IFL_MAX;
inline constexpr uint32_t kUidPoolCapacity = VSK_UNIT_POOL_UID_MAX;

// The 49 counter slots; slot n at byte 4 * n.
struct SummaryCounterRecord {
  uint32_t slot[VSK_SUMMARY_COUNTER_SLOTS];
};
static_assert(sizeof(SummaryCounterRecord) == VSK_SUMMARY_COUNTER_SIZE);
static_assert(sizeof(SummaryCounterRecord) == 196);

struct MainSegment {
  uint64_t last_session_id;                 // the last id handed out, 0 on a fresh segment
  uint64_t reserved0;                       // stays zero
  UnitPool<kIflPoolCapacity> ifl_pool;      // unit pool of type 0
  UnitPool<kUidPoolCapacity> uid_pool;      // unit pool of type 1
  SummaryCounterRecord summary_counters;    // the 49 counters
  uint8_t reserved1[16];
  uint32_t db_status;                       // the vsk_db_status word
};

static_assert(offsetof(MainSegment, last_session_id) == VSK_SHM_LAST_SESSION_ID_OFFSET);
static_assert(offsetof(MainSegment, last_session_id) == 0);
static_assert(offsetof(MainSegment, reserved0) == 8);
static_assert(offsetof(MainSegment, ifl_pool) == VSK_SHM_UNIT_POOL0_OFFSET);
static_assert(offsetof(MainSegment, ifl_pool) == 16);
static_assert(sizeof(UnitPool<kIflPoolCapacity>) == 1048584);
static_assert(offsetof(MainSegment, uid_pool) == VSK_SHM_UNIT_POOL1_OFFSET);
static_assert(offsetof(MainSegment, uid_pool) == 1048600);
static_assert(sizeof(UnitPool<kUidPoolCapacity>) == 40008);
static_assert(offsetof(MainSegment, summary_counters) == VSK_SHM_SUMMARY_COUNTER_OFFSET);
static_assert(offsetof(MainSegment, summary_counters) == 1088608);
static_assert(offsetof(MainSegment, reserved1) == 1088804);
static_assert(offsetof(MainSegment, db_status) == VSK_SHM_DB_STATUS_OFFSET);
static_assert(offsetof(MainSegment, db_status) == 1088820);
static_assert(sizeof(MainSegment) == VSK_SHM_MAIN_SIZE);
static_assert(sizeof(MainSegment) == 1088824);

// ftok project numbers of the two segments; both use the same key file.
inline constexpr int kMainProject = 8888;
inline constexpr int kSnapshotProject = 8999;
inline constexpr size_t kMainSize = VSK_SHM_MAIN_SIZE;
inline constexpr size_t kSnapshotSize = VSK_SHM_SNAPSHOT_SIZE;

// The attached main segment, or null.
inline MainSegment* Main() {
  return static_cast<MainSegment*>(vsk_get_shm_ptr(0));
}

}  // namespace vsk::shared
