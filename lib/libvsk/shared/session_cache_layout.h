// The byte layout of the snapshot segment: the shared-memory session cache, and the
// flag-word protocol that guards it. The one definition every process relies on.
//
// Segment (11000000 bytes, host byte order, no header, no version mark):
//   0         1500 session slots of 3000 bytes
//   4500000   not used
//   8000000   1500 authentication pairs of 800 bytes (request block, response block)
//   9200000   not used
// A session's slot is (id - 1) mod 1500 in unsigned 64-bit arithmetic; consecutive ids take
// consecutive slots. The cache is direct-mapped with no eviction: a session whose slot is
// taken is simply not cached. Offsets inside a slot are 16-bit word counts from the slot's
// start (value blocks, the service array, `next_free`); the segment holds no pointer.
//
// Session slot (3000 bytes):
//   0 session_id (0: free) | 8 dynamic_id | 16 flags | 18 reader_type | 20 writer_type
//   22 service_count (readers use the low 13 bits) | 24 service_offset (words, 0: none)
//   26 attr_offset[124] (words, 0: absent; index = attribute type; [0] never used)
//   274 next_free (words; 276 on a fresh slot) | 276 gap, never written
//   552 value area, words 276 to 799 | 1600 dynamic block (1400 bytes)
// Value block, on a word boundary: length L (u16, bytes), L value bytes, at least one zero
// byte; it takes 1 + ((L + 2) >> 1) words. The service array is 80 words reserved from the
// value area at its first use, up to 10 ids of 8 bytes.
// Dynamic block: flags | 4 reserved | end (u16) | start (u16) | entries from byte 10, each
// tag (1) | name with NUL | length (1) | value | two zero bytes, all below byte 1380.
// Authentication block (400 bytes): flags | 4 reserved | end (u16) | 2 reserved | entries
// from byte 10: type (u16) | length (1) | value | two zero bytes, all below byte 380.
//
// THE FLAG-WORD PROTOCOL. No semaphore guards the cache. Each slot, dynamic block and
// authentication block has a 16-bit flag word:
//   slot:           0x30 writer active, 0xC0 reader active (each pair always set together)
//   dynamic block:  0x03 writer active, 0x0C reader active
//   auth block:     0x03 writer active (readers of auth blocks look at no flag)
// A writer sets its bits around its change and names the attribute type it writes in
// `writer_type`; a reader with a snapshot handle names the type it reads in `reader_type`.
// Whoever finds the other side active on the type it wants sleeps one microsecond
// (vsk_shm_wait) and looks again, at most three times, and then goes on in the way each
// operation states: a writer skips the one entry ("%s need semaphore for %llu flag"), a
// reader gives up with -1 ("%s need semaphore for %llu flag \n", trailing blank and
// newline included). The flags are advisory: a lost race costs one attribute update or
// one read. These are the three waits:
//   1. a slot writer behind a reader of the same type (create and update of a slot; the
//      create counts its own previous attribute type as busy, so the second of two
//      neighbouring values of one type is skipped after the waits);
//   2. a slot reader behind a writer of the same type (attribute reads) and a dynamic-block
//      reader behind any writer of the block (vsk_shm_to_dynamic_record);
//   3. a block writer behind another writer of the same block (dynamic entries, auth lists).
// Every protocol word (ids, flags, types, counts, offsets, lengths, `end`/`start`) is read
// and written through std::atomic_ref with relaxed order: no ordering is promised between
// processes, exactly as plain stores would give, but without a data race in the language.
// The flag bits are set and cleared with single relaxed read-modify-writes, so a writer
// clearing its bits never wipes a reader's bits that were set in between. Value bytes are
// copied with memcpy under the bits.
//
// Invariants kept by every writer of this library:
//  1. A slot is free exactly when its session_id is 0; only a create fills a free slot,
//     and it clears the whole slot (and the slot's authentication pair) first.
//  2. Every word offset stored in a slot lies in the value area: a value block or service
//     array ends at or below word 800, so nothing written for a slot reaches its dynamic
//     block or the next slot.
//  3. Dynamic entries end at or below byte 1380 of their block, auth entries at or below
//     byte 380; the bytes a writer clears behind an entry stay inside the block.
//  4. Readers never trust a stored offset or length: every read is bounded by the slot or
//     the block, and a value that would leave it reads as corrupt.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "vsk/attr.h"
#include "vsk/shared.h"

namespace vsk::cache {

inline constexpr uint32_t kSlots = 1500;
inline constexpr uint32_t kSlotSize = 3000;
inline constexpr uint32_t kSlotRegionSize = kSlots * kSlotSize;
inline constexpr uint32_t kAuthRegionOffset = 8000000;
inline constexpr uint32_t kAuthPairSize = 800;
inline constexpr uint32_t kAuthBlockSize = 400;

// Word positions inside a slot.
inline constexpr uint16_t kFirstFreeWord = 276;     // a fresh slot's next_free
inline constexpr uint16_t kValueAreaEndWord = 800;  // first word of the dynamic block
inline constexpr uint16_t kServiceArrayWords = 80;
inline constexpr uint16_t kMaxServices = 10;
inline constexpr uint16_t kServiceCountMask = 0x1FFF;  // readers use the low 13 bits

inline constexpr uint16_t kSlotWriterBits = 0x30;
inline constexpr uint16_t kSlotReaderBits = 0xC0;
inline constexpr uint16_t kBlockWriterBits = 0x03;
inline constexpr uint16_t kBlockReaderBits = 0x0C;
inline constexpr int kMaxWaits = 3;

inline constexpr uint16_t kDynamicFirstEntry = 10;
inline constexpr uint16_t kDynamicEntriesEnd = 1380;
inline constexpr uint16_t kAuthFirstEntry = 10;
inline constexpr uint16_t kAuthEntriesEnd = 380;
// One length byte per dynamic or auth entry.
inline constexpr uint32_t kMaxEntryValue = 255;

struct DynamicBlock {
  uint16_t flags;
  uint8_t reserved[4];
  uint16_t end;    // where the next entry goes
  uint16_t start;  // where readers begin
  uint8_t entries[1390];
};
static_assert(sizeof(DynamicBlock) == 1400);
static_assert(offsetof(DynamicBlock, flags) == 0);
static_assert(offsetof(DynamicBlock, reserved) == 2);
static_assert(offsetof(DynamicBlock, end) == 6);
static_assert(offsetof(DynamicBlock, start) == 8);
static_assert(offsetof(DynamicBlock, entries) == kDynamicFirstEntry);

struct Slot {
  uint64_t session_id;
  uint64_t dynamic_id;
  uint16_t flags;
  uint16_t reader_type;
  uint16_t writer_type;
  uint16_t service_count;
  uint16_t service_offset;
  uint16_t attr_offset[VSK_TYPE_MAX];
  uint16_t next_free;
  uint8_t gap[276];
  uint8_t value_area[1048];
  DynamicBlock dynamic;
};
static_assert(sizeof(Slot) == kSlotSize);
static_assert(offsetof(Slot, session_id) == 0);
static_assert(offsetof(Slot, dynamic_id) == 8);
static_assert(offsetof(Slot, flags) == 16);
static_assert(offsetof(Slot, reader_type) == 18);
static_assert(offsetof(Slot, writer_type) == 20);
static_assert(offsetof(Slot, service_count) == 22);
static_assert(offsetof(Slot, service_offset) == 24);
static_assert(offsetof(Slot, attr_offset) == 26);
static_assert(offsetof(Slot, next_free) == 274);
static_assert(offsetof(Slot, gap) == 276);
static_assert(offsetof(Slot, value_area) == 2 * kFirstFreeWord);
static_assert(offsetof(Slot, dynamic) == 2 * kValueAreaEndWord);
static_assert(offsetof(Slot, dynamic) == 1600);

struct AuthBlock {
  uint16_t flags;
  uint8_t reserved[4];
  uint16_t end;  // behind the last entry; 10 when empty
  uint8_t reserved2[2];
  uint8_t entries[390];
};
static_assert(sizeof(AuthBlock) == kAuthBlockSize);
static_assert(offsetof(AuthBlock, end) == 6);
static_assert(offsetof(AuthBlock, entries) == kAuthFirstEntry);

struct AuthPair {
  AuthBlock request;
  AuthBlock response;
};
static_assert(sizeof(AuthPair) == kAuthPairSize);
static_assert(offsetof(AuthPair, response) == 400);

struct SnapshotSegment {
  Slot slots[kSlots];
  uint8_t unused0[3500000];
  AuthPair auth[kSlots];
  uint8_t unused1[1800000];
};
static_assert(offsetof(SnapshotSegment, slots) == 0);
static_assert(offsetof(SnapshotSegment, unused0) == 4500000);
static_assert(offsetof(SnapshotSegment, auth) == kAuthRegionOffset);
static_assert(offsetof(SnapshotSegment, unused1) == 9200000);
static_assert(sizeof(SnapshotSegment) == VSK_SHM_SNAPSHOT_SIZE);
static_assert(alignof(Slot) == 8 && kSlotSize % 8 == 0, "session ids stay 8-aligned");

inline uint32_t SlotIndex(uint64_t id) { return static_cast<uint32_t>((id - 1) % kSlots); }

inline Slot* SlotOf(void* shm, uint64_t id) {
  return &static_cast<SnapshotSegment*>(shm)->slots[SlotIndex(id)];
}

inline AuthBlock* AuthBlockOf(void* shm, uint64_t id, bool is_request) {
  AuthPair& pair = static_cast<SnapshotSegment*>(shm)->auth[SlotIndex(id)];
  return is_request ? &pair.request : &pair.response;
}

// Relaxed access to one protocol word (see the header comment).
template <typename T>
inline T Load(const T& field) {
  return std::atomic_ref<T>(const_cast<T&>(field)).load(std::memory_order_relaxed);
}
template <typename T>
inline void Store(T& field, T value) {
  std::atomic_ref<T>(field).store(value, std::memory_order_relaxed);
}

// One flag word of a slot or block.
class FlagWord {
 public:
  explicit FlagWord(uint16_t& word) : word_(word) {}
  bool Any(uint16_t bits) const { return (word_.load(std::memory_order_relaxed) & bits) != 0; }
  void Set(uint16_t bits) { word_.fetch_or(bits, std::memory_order_relaxed); }
  void Clear(uint16_t bits) {
    word_.fetch_and(static_cast<uint16_t>(~bits), std::memory_order_relaxed);
  }

 private:
  std::atomic_ref<uint16_t> word_;
};

// The slot as 16-bit words, for the word offsets it stores. Word w is byte 2w.
inline uint16_t* Words(Slot* slot) { return reinterpret_cast<uint16_t*>(slot); }
inline uint8_t* Bytes(Slot* slot) { return reinterpret_cast<uint8_t*>(slot); }

// Words taken by a value block of `length` bytes.
inline constexpr uint32_t BlockWords(uint32_t length) { return 1 + ((length + 2) >> 1); }

}  // namespace vsk::cache
