// The TLV form of a full interface statistics record: encoder, decoder and the table of
// sections they share.
//
// A stored value is the TLVs of set LS_CURRENT followed by those of set LS_CLEARED, each
// set in the order of kSectionOrder. A TLV is tag (u16), length (u16, counting its 4-byte
// header) and the section's memory image; the next TLV starts at the length rounded up to
// 4. The decoder gives the sections of a kind to the sets by counting: the first TLV of a
// kind goes to LS_CURRENT, the second to LS_CLEARED.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

#include "vsk/libstats.h"

namespace vsk::stats {

// A section held by pointer in a set.
struct PointerSection {
  uint16_t tag;
  uint32_t size;       // bytes of the section, also of its image on disk
  size_t slot;         // offset of the pointer in libstats_iflstats_full_set_t
  const char* total;   // name in the total-length trace
  const char* store;   // name in the encoder's trace
  const char* decode;  // name in the decoder's trace
  const char* no_mem;  // the decoder's trace when the section cannot be allocated
};

// The pointer-held sections in the order a set is written: mcast, pol, aggr, ml, es, ce,
// atm, q, inq. The generic section comes before them and the queue counters, ts and
// gen_num after them.
inline constexpr int kPointerSections = 9;
extern const PointerSection kPointerSection[kPointerSections];

inline void*& SlotOf(libstats_iflstats_full_set_t* set, const PointerSection& s) {
  return *reinterpret_cast<void**>(reinterpret_cast<char*>(set) + s.slot);
}
inline const void* SlotOf(const libstats_iflstats_full_set_t* set, const PointerSection& s) {
  return *reinterpret_cast<void* const*>(reinterpret_cast<const char*>(set) + s.slot);
}

struct FreeDeleter {
  void operator()(void* p) const { std::free(p); }
};
using Buffer = std::unique_ptr<uint8_t, FreeDeleter>;

// The encoded length of `record`: 264 bytes for the sections always present, plus the
// TLV of every section present in either set. Traces each step.
uint32_t TotalTlvLen(const libstats_iflstats_full_t& record);

// Encodes `record` into a malloc'ed buffer of exactly TotalTlvLen bytes. 0, or -1 when
// the buffer cannot be allocated or (a broken invariant) the written length differs.
vsk_status_t EncodeIflstatsFull(const libstats_iflstats_full_t& record, Buffer* out, uint32_t* len);

// Decodes `size` bytes of `data` into record->stats, which must hold no sections.
// 0; 22 (EINVAL) for a TLV shorter than its header, one reaching past the value, a third
// TLV of a kind or a queue counter beyond its sets; 12 (ENOMEM). A tail of up to 4 bytes
// and TLVs of unknown tags are skipped. On a failure the sections decoded so far stay in
// the record, for libstats_free_iflstats_full_all.
int DecodeIflstatsFull(const uint8_t* data, uint32_t size, libstats_iflstats_full_t* record);

// Frees the sections of one set and clears their pointers (libstats_free_iflstats_full):
// the queue counters up to the first null one. FreeSets does both sets of a record.
void FreeSet(libstats_iflstats_full_set_t* set);
void FreeSets(libstats_iflstats_full_t* record);

}  // namespace vsk::stats
