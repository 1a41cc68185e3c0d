// See segment_view.h.
#include "libvsk/shared/segment_view.h"

#include <errno.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <atomic>
#include <cstdio>
#include <cstring>

#include "libvsk/shared/root_objects.h"
#include "platform/paths.h"

namespace vsk::shared {
namespace {

// A word of a segment attached read-only: loaded whole, never written. atomic_ref needs a
// mutable object; the load does not write, so the read-only mapping is never touched.
template <typename T>
T Load(const T& word) {
  return std::atomic_ref<T>(const_cast<T&>(word)).load(std::memory_order_relaxed);
}

struct PoolRef {
  const UnitPoolHeader* header;
  const int32_t* entries;
  uint32_t capacity;
  uint32_t first_unit;
};

bool PoolOf(const MainSegment* seg, uint32_t type, PoolRef* out) {
  if (type == VSK_UNIT_POOL_IFL) {
    *out = {&seg->ifl_pool.header, seg->ifl_pool.entries, kIflPoolCapacity,
            VSK_UNIT_POOL_IFL_FIRST};
    return true;
  }
  if (type == VSK_UNIT_POOL_UID) {
    *out = {&seg->uid_pool.header, seg->uid_pool.entries, kUidPoolCapacity,
            VSK_UNIT_POOL_UID_FIRST};
    return true;
  }
  return false;
}

uint32_t Bounded(const PoolRef& p) {
  uint32_t max = Load(p.header->max);
  return max < p.capacity ? max : p.capacity;
}

// An entry holding -1 is in use unless it is the tail, which ends the free list.
template <typename Fn>
void ForEachInUse(const PoolRef& p, Fn fn) {
  const uint32_t n = Bounded(p);
  const int32_t tail = Load(p.header->tail);
  for (uint32_t i = 0; i < n; ++i) {
    if (Load(p.entries[i]) == -1 && static_cast<int32_t>(i) != tail) fn(i);
  }
}

std::string KeyText(key_t key) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(key));
  return text;
}

}  // namespace

const char* PoolStateName(PoolState state) {
  switch (state) {
    case PoolState::kUnformatted:
      return "unformatted";
    case PoolState::kFormatted:
      return "formatted";
    case PoolState::kListed:
      return "listed";
  }
  return "unknown";
}

const char* DbStatusName(uint32_t status) {
  switch (status) {
    case VSK_DB_STATUS_NONE:
      return "none";
    case VSK_DB_STATUS_OPENED:
      return "opened";
    case VSK_DB_STATUS_RECOVERING:
      return "recovering";
    case VSK_DB_STATUS_READY:
      return "ready";
    default:
      return "unknown";
  }
}

bool SegmentView::Fail(SegmentError error, std::string message) {
  error_ = error;
  message_ = std::move(message);
  return false;
}

bool SegmentView::Open() {
  Close();
  error_ = SegmentError::kNone;
  message_.clear();
  const std::string key_file = platform::RootedPath(platform::kShmKeyFile);
  const RootObject main = RootObjects().front();
  key_ = main.key;
  if (key_ == -1) {
    return Fail(SegmentError::kNoKeyFile,
                "no store on this root: the key file " + key_file + " is missing");
  }
  const std::string what = "main segment (key " + KeyText(key_) + " of " + key_file + ")";
  int id = LookupRootObject(main);
  if (id == -1) {
    if (errno == EACCES) {
      return Fail(SegmentError::kNoAccess, what + ": permission denied");
    }
    return Fail(SegmentError::kMissing,
                what + " does not exist: orvd has not created the shared state on this root");
  }
  struct shmid_ds ds {};
  if (shmctl(id, IPC_STAT, &ds) != 0) {
    return Fail(errno == EACCES ? SegmentError::kNoAccess : SegmentError::kAttachFailed,
                what + ": " + std::strerror(errno));
  }
  if (ds.shm_segsz != kMainSize) {
    return Fail(SegmentError::kOtherVersion,
                what + " is " + std::to_string(ds.shm_segsz) + " bytes where this libvsk uses " +
                    std::to_string(kMainSize) + ": it was made by another version");
  }
  void* base = shmat(id, nullptr, SHM_RDONLY);
  if (base == reinterpret_cast<void*>(-1)) {
    return Fail(errno == EACCES ? SegmentError::kNoAccess : SegmentError::kAttachFailed,
                what + ": cannot attach: " + std::strerror(errno));
  }
  base_ = static_cast<const MainSegment*>(base);
  id_ = id;
  return true;
}

void SegmentView::Close() {
  if (base_ != nullptr) shmdt(base_);
  base_ = nullptr;
  id_ = -1;
}

bool SegmentView::Current() const {
  if (base_ == nullptr || key_ == -1) return false;
  return shmget(key_, 0, 0) == id_;
}

uint32_t SegmentView::DbStatus() const { return Load(base_->db_status); }

uint64_t SegmentView::LastSessionId() const { return Load(base_->last_session_id); }

std::array<uint32_t, VSK_SUMMARY_COUNTER_SLOTS> SegmentView::Counters() const {
  std::array<uint32_t, VSK_SUMMARY_COUNTER_SLOTS> out{};
  for (size_t i = 0; i < out.size(); ++i) out[i] = Load(base_->summary_counters.slot[i]);
  return out;
}

PoolUsage SegmentView::Pool(uint32_t type) const {
  PoolUsage u;
  u.type = type;
  PoolRef p{};
  if (!PoolOf(base_, type, &p)) return u;
  u.first_unit = p.first_unit;
  u.size = Bounded(p);
  u.head = Load(p.header->head);
  u.tail = Load(p.header->tail);
  ForEachInUse(p, [&u](uint32_t) { ++u.used; });
  u.free = u.size - u.used;
  if (u.size == 0) {
    u.state = PoolState::kUnformatted;
  } else if (u.head == 0 && u.tail == 0 && Load(p.entries[0]) != -1) {
    // A listed pool always ends its free list with -1 at the tail; entry 0 still holding
    // 0 with head and tail at 0 is the cleared form the creator leaves before the rebuild.
    u.state = PoolState::kFormatted;
  } else {
    u.state = PoolState::kListed;
  }
  return u;
}

std::vector<uint32_t> SegmentView::AllocatedIndices(uint32_t type) const {
  std::vector<uint32_t> out;
  PoolRef p{};
  if (PoolOf(base_, type, &p)) ForEachInUse(p, [&out](uint32_t i) { out.push_back(i); });
  return out;
}

}  // namespace vsk::shared
