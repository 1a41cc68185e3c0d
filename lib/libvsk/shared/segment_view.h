// A read-only view of the main shared segment for operators' tools and exporters.
//
// The view attaches the segment of the root in force with SHM_RDONLY and never creates,
// clears or writes anything: it may run beside the daemons at any time. It takes no
// semaphore either, so what it reads is a racy picture, exactly as a reader of the summary
// counters sees it: each 32-bit word is read whole (relaxed atomic loads), but two words
// may be one change apart.
//
// Invariants:
//  1. base_ is null exactly while nothing is attached; it points at a whole segment of
//     kMainSize bytes otherwise (a segment of another size is refused, never attached).
//  2. Every index into a pool is bounded by the pool's room in the segment, whatever the
//     pool's own `max` says.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "libvsk/shared/layout.h"

namespace vsk::shared {

// How far a unit pool has come: zero bytes; entries cleared at the creator's start with no
// list yet; a free list built from the units found in the store.
enum class PoolState { kUnformatted, kFormatted, kListed };
const char* PoolStateName(PoolState state);

struct PoolUsage {
  uint32_t type = 0;
  uint32_t first_unit = 0;
  uint32_t size = 0;  // the pool's `max`, bounded by its room in the segment
  int32_t head = -1;
  int32_t tail = -1;
  uint32_t used = 0;  // entries marked in use (not counting the last free entry)
  uint32_t free = 0;  // size - used
  PoolState state = PoolState::kUnformatted;
};

// What went wrong when the view could not attach.
enum class SegmentError {
  kNone,
  kNoKeyFile,     // the root has no key file: nothing was ever started there
  kMissing,       // no segment under the key
  kOtherVersion,  // a segment of another size: made by another version of the library
  kNoAccess,      // the segment is there but this user may not read it
  kAttachFailed,
};

class SegmentView {
 public:
  SegmentView() = default;
  ~SegmentView() { Close(); }
  SegmentView(const SegmentView&) = delete;
  SegmentView& operator=(const SegmentView&) = delete;

  // Finds the root's main segment and attaches it read-only. True on success; otherwise
  // error() and message() say why, naming the key file or the segment.
  bool Open();
  void Close();
  bool attached() const { return base_ != nullptr; }
  SegmentError error() const { return error_; }
  const std::string& message() const { return message_; }

  // True while the segment the view holds is still the one the root's key names. False
  // once it was removed or replaced, after which the caller should Close() and Open().
  bool Current() const;

  // REQUIRES: attached().
  uint32_t DbStatus() const;
  uint64_t LastSessionId() const;
  std::array<uint32_t, VSK_SUMMARY_COUNTER_SLOTS> Counters() const;
  // Type 0 or 1; anything else gives a zero usage of that type.
  PoolUsage Pool(uint32_t type) const;
  // Indices of the entries in use, ascending: the list an operator's pool dump prints.
  std::vector<uint32_t> AllocatedIndices(uint32_t type) const;

 private:
  bool Fail(SegmentError error, std::string message);

  const MainSegment* base_ = nullptr;
  int id_ = -1;
  key_t key_ = -1;
  SegmentError error_ = SegmentError::kNone;
  std::string message_;
};

// Name of a status word value ("none", "opened", "recovering", "ready"; "unknown" else).
const char* DbStatusName(uint32_t status);

}  // namespace vsk::shared
