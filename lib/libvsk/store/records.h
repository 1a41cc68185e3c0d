// Encoders and decoders of the structured session records and of table keys.
//
// Record framing: version (u16, 1), then sections of tag (u32), length (u32) and contents,
// host order, no padding. Encoders are two-pass (object, buffer, room) -> size needed, and
// write a section only when all of it fits. Decoders follow the value-decoder shape of the
// generic engine (out, data, size, mask, mask_len) and return the offset reached (equal to
// `size` on success), -1 for a malformed record, -2 for no memory, -20 for a record
// filtered out by `mask`. A value decoder takes the buffer in every case: when *out is
// non-null afterwards the object holds it in `raw` and the caller releases the object with
// free_raw true (also on failure); when *out is null the decoder has freed it.
//
// Callers: the table operations of this folder, the session cache and the tests.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "vsk/tables.h"

namespace vsk::store {

uint32_t EncodeClientRecord(const void* record, void* buffer, uint32_t room);
uint32_t EncodeServiceRecord(const void* record, void* buffer, uint32_t room);
uint32_t EncodeAuthRecord(const void* record, void* buffer, uint32_t room);
uint32_t EncodeDynamicRecord(const void* record, void* buffer, uint32_t room);

int DecodeClientRecord(void* out, void* data, uint32_t size, const uint8_t* mask,
                       uint16_t mask_len);
int DecodeServiceRecord(void* out, void* data, uint32_t size, const uint8_t* mask,
                        uint16_t mask_len);
int DecodeAuthRecord(void* out, void* data, uint32_t size, const uint8_t* mask,
                     uint16_t mask_len);
int DecodeDynamicRecord(void* out, void* data, uint32_t size, const uint8_t* mask,
                        uint16_t mask_len);
// Application bytes: no framing; the object keeps the buffer.
int DecodeAppData(void* out, void* data, uint32_t size, const uint8_t* mask, uint16_t mask_len);
uint32_t EncodeAppData(const void* data, void* buffer, uint32_t room);

// Keys. A session key is the 8-byte id (the object is a vsk_session_id_t); the private key
// is id then application id (12 bytes).
uint32_t EncodeSessionKey(const void* key, void* buffer, uint32_t room);
uint32_t EncodeAppPriKey(const void* key, void* buffer, uint32_t room);
int DecodeSessionKey(void* out, void* data, uint32_t size);

// The translation a caller of a decoder applies: equal size is 0; -20 and -2 pass; any
// other result is -5.
inline vsk_status_t DecoderStatus(int result, uint32_t size) {
  if (result >= 0 && static_cast<uint32_t>(result) == size) return VSK_OK;
  if (result == VSK_ERR_SNAPSHOT_ONLY || result == VSK_ERR_NOMEM) return result;
  return VSK_ERR_CORRUPT;
}

// Bounded two-pass writer: keeps the total size and writes a piece only when it fits.
class RecordWriter {
 public:
  RecordWriter(void* buffer, uint32_t room) : out_(static_cast<uint8_t*>(buffer)), room_(room) {}
  // Space for `size` bytes at the current end, or null when they do not fit (the size is
  // counted either way).
  uint8_t* Reserve(uint32_t size) {
    uint8_t* where = nullptr;
    if (out_ != nullptr && total_ <= room_ && size <= room_ - total_) where = out_ + total_;
    total_ += size;
    return where;
  }
  uint32_t total() const { return total_; }

 private:
  uint8_t* out_;
  uint32_t room_;
  uint32_t total_ = 0;
};

template <typename T>
inline void PutAt(uint8_t* p, T v) {
  std::memcpy(p, &v, sizeof v);
}
template <typename T>
inline T GetAt(const uint8_t* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

inline void PutSectionHeader(uint8_t* p, uint32_t tag, uint32_t length) {
  PutAt<uint32_t>(p, tag);
  PutAt<uint32_t>(p + 4, length);
}

// Sections shared by the client and service records. The config-bit section's length
// field is always 8, whatever the true size; no section is written for zero bits.
void WriteConfigBitsSection(RecordWriter& w, const uint8_t* bits, uint16_t bits_len);
void WriteAttrsSection(RecordWriter& w, uint32_t tag, const vsk_attr_list_t* attrs);
void WriteIdSection(RecordWriter& w, uint32_t tag, uint64_t id);

// The start of every structured decoder: a zeroed object in *out that holds `data` as
// its raw form. Null (and `data` freed, as the decoder owns it in every case) when the
// object cannot be had.
template <typename Rec>
Rec* StartDecoded(void* out, void* data) {
  auto* rec = static_cast<Rec*>(std::calloc(1, sizeof(Rec)));
  if (rec == nullptr) {
    std::free(data);
    return nullptr;
  }
  *static_cast<Rec**>(out) = rec;
  rec->raw = data;
  return rec;
}

// Shared by the client and service decoders: does a record with these bits pass `mask`?
bool ConfigBitsPass(const uint8_t* bits, uint16_t bits_len, const uint8_t* mask,
                    uint16_t mask_len);

}  // namespace vsk::store
