// The one codec behind every encoding of the filter daemon's data.
//
// A record is described by a table of field descriptors (tag, byte offset, kind, size);
// the engine walks that table to encode, decode and release, so the tagged record, the
// positional record and the seven index members are data, not code. Callers are the
// exported shims of this folder (one line each) and the fuzz targets.
//
// Invariants:
//  1. Encoders write an element (and its padding) only where all of it fits below `size`,
//     and always return the full size needed.
//  2. Decoders read through WireReader and allocate only after the bytes they describe have
//     been found in the input, so no claimed length or count is trusted.
//  3. Whatever a decoder allocated sits in the record before the decoder can fail, so the
//     release function frees it also after a failure.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "vsk/pfltd.h"

namespace vsk::sidedata {

enum class FieldKind : uint8_t {
  kString,  // char*, NUL-terminated, may be null
  kU32,     // uint32_t
  kArray,   // pfltd_vsk_array_t
  kBlob,    // vsk_tlv_blob_t
};

struct FieldDesc {
  uint16_t tag;
  uint16_t offset;  // of the member in the record
  FieldKind kind;
  uint8_t size;  // of the member in the record
};

// How a tagged decode treats a second element of a field it has read.
enum class RepeatRule : uint8_t {
  // The record's rule: with a mask the first element wins; without one a second text or
  // list is malformed and a second number overwrites the first.
  kMaskKeepsFirst,
  // The index members' rule: any second element of a known tag is malformed.
  kAlwaysMalformed,
};

struct Schema {
  std::span<const FieldDesc> fields;  // in encoding order; field i has mask bit i
  std::span<const int8_t> by_tag;     // field index of each tag below its size, or -1
  uint32_t record_size;               // bytes zeroed by a decode
  uint32_t header_width;              // bytes of the tag and of the length: 2 or 4
  uint32_t mask_bytes;                // mask bytes a decode clears
  RepeatRule repeat;
};

// The tag-to-field table of a schema's fields, for tags 0 to MaxTag.
template <size_t MaxTag, size_t N>
constexpr std::array<int8_t, MaxTag + 1> TagIndex(const std::array<FieldDesc, N>& fields) {
  std::array<int8_t, MaxTag + 1> index{};
  for (auto& i : index) i = -1;
  for (size_t f = 0; f < N; ++f) index[fields[f].tag] = static_cast<int8_t>(f);
  return index;
}

// Results of the decoders besides the bytes used.
inline constexpr int32_t kMalformed = -1;
inline constexpr int32_t kNoMemory = -2;
inline constexpr int32_t kUnknownDiscriminator = -4;

// Tagged form.
uint32_t EncodeTagged(const Schema& schema, const void* record, const uint8_t* mask,
                      uint8_t* buffer, uint32_t size);
int32_t DecodeTagged(const Schema& schema, void* record, uint8_t* mask, const uint8_t* buffer,
                     uint32_t size, vsk_codec_alloc_t alloc, void* context);

// Positional form; the schema must hold no blobs.
uint32_t EncodePositional(const Schema& schema, const void* record, uint8_t* buffer, uint32_t size);
int32_t DecodePositional(const Schema& schema, void* record, const uint8_t* buffer, uint32_t size,
                         vsk_codec_alloc_t alloc, void* context);

// Frees every non-null text, list element, list and blob of `record` through `free_fn`.
// Does not clear the pointers.
void Release(const Schema& schema, void* record, vsk_codec_free_t free_fn, void* context);

// A tagged union: a signed 32-bit discriminator at offset 0 picks members[discriminator],
// which lies at `member_offset`. On the wire the discriminator comes first (4 bytes).
struct UnionSchema {
  std::span<const Schema* const> members;
  size_t member_offset;
};

// An unknown discriminator writes only itself. With `size` below 4 nothing is written.
uint32_t EncodeTagged(const UnionSchema& schema, const void* record, const uint8_t* mask,
                      uint8_t* buffer, uint32_t size);
// The discriminator is -1 until a known one is read; an unknown one gives -4.
int32_t DecodeTagged(const UnionSchema& schema, void* record, uint8_t* mask, const uint8_t* buffer,
                     uint32_t size, vsk_codec_alloc_t alloc, void* context);
void Release(const UnionSchema& schema, void* record, vsk_codec_free_t free_fn, void* context);

// The filter daemon's record, for both of its forms.
extern const Schema kPfltdSchema;
// The session index members and their unions.
extern const Schema kIpv4VrSchema;
extern const Schema kIpv6VrSchema;
extern const Schema kAcctSessionIdSchema;
extern const Schema kUnnumIntfPrefIpSchema;
extern const Schema kUnderlyingInterfaceSchema;
extern const Schema kProfileNameSchema;
extern const Schema kUnderlyingInterfaceNameSchema;
extern const UnionSchema kIndexesSchema;     // vsk_indexes_t
extern const UnionSchema kDupIndexesSchema;  // vsk_dup_indexes_t

}  // namespace vsk::sidedata
