// Unit number pools: two free lists of small integers in the main segment, drawn from by
// every process without the database.
//
// Pool 0 hands out interface unit numbers (0x40000000 upward, 262143 of them), pool 1 UID
// numbers (1000 upward, 9999). A pool is a 12-byte header (max, head, tail) and `max` 32-bit
// entries; a free entry holds the index of the next free one (-1 at the end), an allocated
// entry holds -1, and `tail` tells the last free entry apart from an allocated one.
//
// Lifecycle: unformatted (zeros) -> vsk_unit_init(init) formatted (entries 0, head = tail =
// 0: nothing marked in use, but no list yet) -> vsk_unit_recover per unit in use, then
// vsk_unit_recovered -> listed. Allocation is meant for the listed state, which the creator
// reaches before any session is created.
//
// Invariants:
//  1. Allocate and release change a list only while holding semaphore 1 (one semaphore for
//     both pools); recover, recovered and dump take no lock: the first two run in the
//     creator while no client is registered, the dump accepts a racy view.
//  2. Allocation takes from the head and release appends at the tail, so a number is not
//     reused before the whole free list has turned over.
//  3. No index beyond the pool's room in the segment is ever touched, whatever `max` says.
//     An index equal to `max` is let through by release and recover with the status the
//     pool gives it (callers filter first), but nothing is written for it: its entry would
//     be the word just behind the pool, the next pool's header or a summary counter. A
//     release may read that word, which still lies in the segment, to decide its status.
#include <cstdio>
#include <cstring>

#include "libvsk/base/role.h"
#include "libvsk/base/trace.h"
#include "libvsk/shared/attachments.h"
#include "libvsk/shared/layout.h"
#include "libvsk/shared/lock_hold.h"
#include "libvsk/shared/regions.h"
#include "libvsk/store/joins.h"
#include "vsk/shared.h"
#include "vsk/store.h"

namespace vsk::shared {
namespace {

constexpr uint32_t kPoolTypes = 2;
constexpr int32_t kNone = -1;

struct PoolGeometry {
  int32_t offset;
  uint32_t capacity;
  uint32_t first_unit;
};
constexpr PoolGeometry kGeometry[kPoolTypes] = {
    {VSK_SHM_UNIT_POOL0_OFFSET, kIflPoolCapacity, VSK_UNIT_POOL_IFL_FIRST},
    {VSK_SHM_UNIT_POOL1_OFFSET, kUidPoolCapacity, VSK_UNIT_POOL_UID_FIRST},
};

// Process-local view of one pool; `header` null while not attached.
struct PoolView {
  UnitPoolHeader* header = nullptr;
  int32_t* entries = nullptr;
  uint32_t first_unit = 0;
  uint32_t capacity = 0;
};
PoolView unit_allocator[kPoolTypes];

// The number of entries a walk may cover: `max`, bounded by the room in the segment.
uint32_t Entries(const PoolView& pool) {
  return pool.header->max < pool.capacity ? pool.header->max : pool.capacity;
}

// Checks shared by allocate, release and dump. Null when the call must stop (traced).
PoolView* CheckedPool(const char* fn, uint32_t type) {
  if (type >= kPoolTypes) {
    VSK_TRACE("%s: type=%d out of range", fn, static_cast<int>(type));
    return nullptr;
  }
  if (unit_allocator[type].header == nullptr) {
    VSK_TRACE("%s: unit_allocator[type] is NULL", fn);
    return nullptr;
  }
  return &unit_allocator[type];
}

// Result of an operation whose list work is done: gives semaphore 1 back.
int Unlock(int result) { return ReleaseLock(VSK_LOCK_UNIT) == 0 ? result : VSK_UNIT_ERR_LOCK; }

// The store opens both pools right after replication: the creator formats them at every
// open (the master's rebuild lists them); every other process attaches. Failures are
// traced by vsk_unit_init and do not stop the store.
[[maybe_unused]] const store::StoreJoinRegistrar kUnitPoolsJoin{
    store::JoinSlot::kUnitPools,
    {.name = "unit pools",
     .open = [](bool creator) -> vsk_status_t {
       vsk_unit_init(VSK_UNIT_POOL_IFL_MAX, creator, VSK_UNIT_POOL_IFL);
       vsk_unit_init(VSK_UNIT_POOL_UID_MAX, creator, VSK_UNIT_POOL_UID);
       return VSK_OK;
     },
     .close = nullptr,
     .not_available = nullptr,
     .open_failed = nullptr,
     .closed = nullptr,
     .close_failed = nullptr}};

}  // namespace

bool UnitPoolAttached(uint32_t type) {
  return type < kPoolTypes && unit_allocator[type].header != nullptr;
}

}  // namespace vsk::shared

using namespace vsk::shared;

extern "C" {

uint32_t vsk_unit_get_memory_size(int32_t max) {
  return static_cast<uint32_t>(max) * 4 + sizeof(UnitPoolHeader);
}

// The creator formats both pools at every start; the list itself comes from recovery.
void vsk_unit_init(int32_t max, bool init, uint32_t type) {
  static const char kFn[] = "vsk_unit_init";
  if (type >= kPoolTypes) {
    VSK_TRACE("%s: type=%d out of range", kFn, static_cast<int>(type));
    return;
  }
  const PoolGeometry& geometry = kGeometry[type];
  auto* header = static_cast<UnitPoolHeader*>(vsk::shared::ShmPtr(geometry.offset));
  if (header == nullptr) {
    VSK_TRACE("%s: unit_allocator[%d] is NULL", kFn, static_cast<int>(type));
    return;
  }
  if (max < 0 || static_cast<uint32_t>(max) > geometry.capacity) {
    VSK_TRACE("%s: max=%d does not fit pool %d", kFn, max, static_cast<int>(type));
    return;
  }
  PoolView& pool = unit_allocator[type];
  pool.header = header;
  pool.entries =
      reinterpret_cast<int32_t*>(reinterpret_cast<uint8_t*>(header) + sizeof(UnitPoolHeader));
  pool.first_unit = geometry.first_unit;
  pool.capacity = geometry.capacity;
  if (!init) return;
  header->max = static_cast<uint32_t>(max);
  header->head = 0;
  header->tail = 0;
  std::memset(pool.entries, 0, static_cast<size_t>(max) * sizeof(int32_t));
}

void vsk_unit_allocator_detach(uint32_t type) {
  if (type < kPoolTypes) unit_allocator[type] = PoolView{};
}

int vsk_unit_allocate(uint32_t* unit, uint32_t type) {
  static const char kFn[] = "vsk_unit_allocate";
  PoolView* pool = CheckedPool(kFn, type);
  if (pool == nullptr || unit == nullptr) return VSK_UNIT_ERR_ARG;
  if (AcquireLock(VSK_LOCK_UNIT) != 0) return VSK_UNIT_ERR_LOCK;
  UnitPoolHeader& h = *pool->header;
  if (h.head == kNone) return Unlock(VSK_UNIT_ERR_EMPTY);
  if (h.head < 0 || static_cast<uint32_t>(h.head) >= Entries(*pool)) {
    VSK_TRACE("%s: free list head %d outside pool %d", kFn, h.head, static_cast<int>(type));
    return Unlock(VSK_UNIT_ERR_ARG);
  }
  int32_t i = h.head;
  h.head = pool->entries[i];
  pool->entries[i] = kNone;
  if (h.head == kNone) h.tail = kNone;
  *unit = static_cast<uint32_t>(i) + pool->first_unit;
  return Unlock(VSK_UNIT_OK);
}

int vsk_unit_release(uint32_t unit, uint32_t type) {
  PoolView* pool = CheckedPool("vsk_unit_release", type);
  if (pool == nullptr) return VSK_UNIT_ERR_ARG;
  uint32_t i = unit - pool->first_unit;
  if (i > Entries(*pool)) return VSK_UNIT_ERR_ARG;
  if (AcquireLock(VSK_LOCK_UNIT) != 0) return VSK_UNIT_ERR_LOCK;
  UnitPoolHeader& h = *pool->header;
  // A free entry other than the tail holds a next index. A second release of the current
  // tail is not caught (its entry reads -1) and links it to itself.
  if (pool->entries[i] != kNone) return Unlock(VSK_UNIT_ERR_FREE);
  if (i == Entries(*pool)) return Unlock(VSK_UNIT_OK);  // behind the pool: invariant 3
  if (h.tail < kNone || (h.tail != kNone && static_cast<uint32_t>(h.tail) >= Entries(*pool))) {
    VSK_TRACE("%s: free list tail %d outside pool %d", "vsk_unit_release", h.tail,
              static_cast<int>(type));
    return Unlock(VSK_UNIT_ERR_ARG);
  }
  if (h.tail == kNone) {
    h.head = static_cast<int32_t>(i);
  } else {
    pool->entries[h.tail] = static_cast<int32_t>(i);
  }
  h.tail = static_cast<int32_t>(i);
  return Unlock(VSK_UNIT_OK);
}

int vsk_unit_recover(uint32_t unit, uint32_t type) {
  if (type >= kPoolTypes) {
    VSK_TRACE("%s: type=%d out of range", "vsk_unit_recover", static_cast<int>(type));
    return VSK_UNIT_ERR_ARG;
  }
  PoolView& pool = unit_allocator[type];
  if (pool.header == nullptr) return VSK_UNIT_ERR_ARG;
  uint32_t i = unit - pool.first_unit;
  if (i > Entries(pool)) return VSK_UNIT_ERR_ARG;
  if (i == Entries(pool)) return VSK_UNIT_OK;  // behind the pool: invariant 3
  pool.entries[i] = kNone;
  return VSK_UNIT_OK;
}

void vsk_unit_recovered(uint32_t type) {
  static const char kFn[] = "vsk_unit_recovered";
  if (type >= kPoolTypes) {
    VSK_TRACE("%s: type=%d out of range", kFn, static_cast<int>(type));
    return;
  }
  PoolView& pool = unit_allocator[type];
  if (pool.header == nullptr) {
    VSK_TRACE("%s: unit_allocator[%d] is NULL", kFn, static_cast<int>(type));
    return;
  }
  UnitPoolHeader& h = *pool.header;
  h.head = kNone;
  h.tail = kNone;
  int32_t previous = kNone;
  const uint32_t entries = Entries(pool);
  for (uint32_t i = 0; i < entries; ++i) {
    if (pool.entries[i] == kNone) continue;  // in use
    if (h.head == kNone) h.head = static_cast<int32_t>(i);
    pool.entries[i] = kNone;
    h.tail = static_cast<int32_t>(i);
    if (previous != kNone) pool.entries[previous] = static_cast<int32_t>(i);
    previous = static_cast<int32_t>(i);
  }
}

int32_t vsk_unit_parse(const char* text) {
  if (text == nullptr) return -1;
  uint32_t value = 0;  // no overflow check: wraps as unsigned
  for (const char* p = text; *p >= '0' && *p <= '9'; ++p) {
    value = value * 10 + static_cast<uint32_t>(*p - '0');
  }
  return static_cast<int32_t>(value);
}

void vsk_unit_itoa(uint32_t unit, char* text) {
  if (text == nullptr) return;
  std::snprintf(text, 12, "%u", unit);
}

void vsk_parse_ifd_name(const char* name, char* device, char* unit) {
  if (name == nullptr || name[0] == '\0' || name[1] == '\0' || device == nullptr) return;
  // The destinations have no size: a bound on the name is what keeps the copies inside
  // them.
  const size_t length = strnlen(name, VSK_IFD_NAME_MAX);
  if (length >= VSK_IFD_NAME_MAX) {
    VSK_TRACE("%s: interface name longer than %d characters", "vsk_parse_ifd_name",
              VSK_IFD_NAME_MAX - 1);
    return;
  }
  const char* dot = std::strrchr(name, '.');
  if (dot == nullptr) {
    std::strcpy(device, name);
    return;
  }
  std::memcpy(device, name, static_cast<size_t>(dot - name));
  if (unit != nullptr) std::strcpy(unit, dot + 1);
}

// Operator view: header, role, then the indices (not unit numbers) marked in use. The tail
// also reads -1 and is left out, since it ends the free list.
void vsk_dump_pool(uint32_t type) {
  PoolView* pool = CheckedPool("vsk_dump_pool", type);
  if (pool == nullptr) return;
  const UnitPoolHeader& h = *pool->header;
  std::printf("unit number allocator {\n");
  std::printf("max unit number = %d\n", static_cast<int>(h.max));
  std::printf("head = %d\n", h.head);
  std::printf("tail = %d\n", h.tail);
  std::printf("master = %d\n", vsk::base::IsMaster() ? 1 : 0);
  std::printf("allocated = {\n");
  const uint32_t entries = Entries(*pool);
  for (uint32_t i = 0; i < entries; ++i) {
    if (pool->entries[i] == kNone && static_cast<int32_t>(i) != h.tail) {
      std::printf("%d\n", static_cast<int>(i));
    }
  }
  std::printf("}\n");
  std::printf("}\n");
}

}  // extern "C"
