// Encoders and decoders of the structured session records and of table keys.
//
// Record framing: version (u16, 1), then sections of tag (u32), length (u32) and contents,
// host order, no padding. Decoders walk records with base::ByteReader, so no read passes
// the record's end whatever a length field says. Encoders are two-pass (object, buffer, room) ->
// size needed, and write a section only when all of it fits. Decoders follow the value-decoder
// shape of the generic engine (out, data, size, mask, mask_len) and return the offset reached
// (equal to `size` on success), -1 for a malformed record, -2 for no memory, -20 for a record
// filtered out by `mask`. A value decoder takes the buffer in every case: when *out is
// non-null afterwards the object holds it in `raw` and the caller releases the object with
// free_raw true (also on failure); when *out is null the decoder has freed it.
//
// Callers: the table operations of this folder, the session cache and the tests.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <optional>

#include "libvsk/base/byte_reader.h"
#include "libvsk/base/byte_writer.h"
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
int DecodeAuthRecord(void* out, void* data, uint32_t size, const uint8_t* mask, uint16_t mask_len);
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

// Bounded two-pass writer: keeps the total size and hands out a piece to write only when
// all of it fits behind what has been written.
class RecordWriter {
 public:
  RecordWriter(void* buffer, uint32_t room) : out_(static_cast<uint8_t*>(buffer)), room_(room) {}
  // A writer over `size` bytes at the current end in *piece, or false when they do not fit
  // (the size is counted either way).
  bool Reserve(uint32_t size, base::ByteWriter* piece) {
    const bool fits = out_ != nullptr && total_ <= room_ && size <= room_ - total_;
    if (fits) *piece = base::ByteWriter(out_ + total_, size);
    total_ += size;
    return fits;
  }
  // Reserves a whole section (header of tag and `length` field, then `body` bytes).
  bool ReserveSection(uint32_t tag, uint32_t length, uint32_t body, base::ByteWriter* piece) {
    if (!Reserve(8 + body, piece)) return false;
    piece->Put<uint32_t>(tag);
    piece->Put<uint32_t>(length);
    return true;
  }
  void PutVersion() {
    base::ByteWriter piece;
    if (Reserve(2, &piece)) piece.Put<uint16_t>(VSK_RECORD_VERSION);
  }
  uint32_t total() const { return total_; }

 private:
  uint8_t* out_;
  uint32_t room_;
  uint32_t total_ = 0;
};

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

// The framing every structured decoder walks: a version (u16), then sections of tag (u32),
// length (u32) and contents.
//
// ReadVersion: a result to return at once (2 for a record shorter than its version, -1
// for a version other than 1 when `check`), or nothing to go on with `r` behind it.
std::optional<int> ReadVersion(base::ByteReader& r, bool check);

// What a section handler tells the walk: go on with the next header, stop before this
// section (an unknown tag: the offset reached is the section's start), or end the walk
// with a result.
struct SectionVerdict {
  enum Kind { kNext, kStopBefore, kReturn } kind;
  int result;
  static SectionVerdict Next() { return {kNext, 0}; }
  static SectionVerdict StopBefore() { return {kStopBefore, 0}; }
  static SectionVerdict Return(int result) { return {kReturn, result}; }
};

// Walks the sections behind the version. For each, reads the header (-1 when it is cut
// short or the declared length runs past the record) and calls
// `handler(tag, length, r)` with `r` at the section's contents; the handler moves `r` past
// what it took. Returns the offset reached when the record ends, or what a handler said.
template <typename Handler>
int WalkSections(base::ByteReader& r, Handler handler) {
  while (!r.empty()) {
    const size_t start = r.pos();
    uint32_t tag = 0, length = 0;
    if (!r.Get(&tag) || !r.Get(&length) || length > r.remaining()) return -1;
    const SectionVerdict v = handler(tag, length, r);
    if (v.kind == SectionVerdict::kStopBefore) return static_cast<int>(start);
    if (v.kind == SectionVerdict::kReturn) return v.result;
  }
  return static_cast<int>(r.pos());
}

// Shared by the client and service decoders: does a record with these bits pass `mask`?
bool ConfigBitsPass(const uint8_t* bits, uint16_t bits_len, const uint8_t* mask, uint16_t mask_len);

void ReleaseSessionAttrs(vsk_attr_list_t** slot, bool free_values);
void ReleaseClientSession(vsk_client_session_t* rec, bool free_raw);
void ReleaseServiceSession(vsk_service_session_t* rec, bool free_raw);
void ReleaseAuthInfo(vsk_auth_info_t* rec, bool free_raw);
void ReleaseDynamicConfig(vsk_dynamic_config_t* rec, bool free_raw);
void ReleaseAppPriData(vsk_app_data_t* rec, bool free_raw);
void ReleaseKeySessionId(vsk_session_key_t* key, bool free_raw);
void ReleaseKeyAppPriId(vsk_session_key_t* key, bool free_raw);
void ReleaseKeyAppDefId(vsk_app_def_key_t* key, bool free_raw);
vsk_status_t ClientSessionEmpty(vsk_client_session_t** out);
vsk_status_t AuthInfoEmpty(vsk_auth_info_t** out);
vsk_status_t DynamicConfigEmpty(vsk_dynamic_config_t** out);

}  // namespace vsk::store
