// Pieces shared by the session cache's own files: the give-up traces of the flag-word
// protocol, the bounded wait, the type check and the slot-ownership test.
// Callers: session_cache_*.cc only.
#pragma once

#include <cstdint>

#include "libvsk/base/trace.h"
#include "libvsk/shared/session_cache.h"
#include "libvsk/shared/session_cache_layout.h"

namespace vsk::cache::detail {

// A writer that gave up waiting for a reader skips its entry.
inline constexpr char kWriterGaveUp[] = "%s need semaphore for %llu flag";
// A reader that gave up waiting for a writer fails with -1. Published text: the trailing
// blank and newline are part of it.
inline constexpr char kReaderGaveUp[] = "%s need semaphore for %llu flag \n";

// The name the attribute reads trace under, also when a whole record is read.
inline constexpr char kReadFn[] = "vsk_get_session_data_from_shm";

inline unsigned long long Ull(uint64_t v) { return static_cast<unsigned long long>(v); }

// Waits while `busy()` holds: one sleep per look, out of a budget of kMaxWaits that
// `*waits` counts across the caller's whole call. True when `busy()` no longer holds.
template <typename Busy>
bool WaitWhile(Busy busy, int* waits) {
  while (busy()) {
    if (*waits >= kMaxWaits) return false;
    Wait();
    ++*waits;
  }
  return true;
}

// The cache's assertion on a stored attribute type. A type out of range is a broken
// caller; it is traced at the error level and refused (the callers answer -6) rather than
// aborting the daemon, in every build.
inline bool TypeInRange(const char* fn, uint32_t type) {
  if (type < VSK_TYPE_MAX && type >= VSK_TYPE_MIN) return true;
  VSK_TRACE_AT(VSK_TRACE_LEVEL_ERROR, "%s: assertion '%s' failed for type %u", fn,
               type >= VSK_TYPE_MAX ? "attr_type < VSK_TYPE_MAX" : "attr_type >= VSK_TYPE_MIN",
               type);
  return false;
}

inline bool Owns(const Slot* slot, uint64_t id) { return id != 0 && Load(slot->session_id) == id; }

// A value block at word `offset` of `length` bytes lies wholly in the value area.
inline bool BlockInArea(uint32_t offset, uint32_t length) {
  return offset >= kFirstFreeWord && offset + BlockWords(length) <= kValueAreaEndWord;
}

// The service ids a slot lists, read from `source` (the slot or a copy of it): *ids points
// at them, and the count is bounded by the 10 the array holds; 0 when the slot has no
// array in the value area.
uint32_t ServiceIds(const Slot* slot, const uint8_t* source, const uint8_t** ids);
// The value block at word `at` of `source` (a slot or a whole-slot copy): its length and
// the address of its bytes. False when the block would leave the slot or the value area.
bool ValueBlock(const uint8_t* source, uint32_t at, uint16_t* length, const uint8_t** bytes);
// Hands `count` ids to a snapshot handle as its own heap copy (freeing one it owned).
// 0 or -2.
vsk_status_t GiveServiceIds(vsk_snapshot_handle* handle, const uint8_t* ids, uint32_t count);

}  // namespace vsk::cache::detail
