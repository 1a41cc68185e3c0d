// The client record: version; section 1 (service ids) when there are services; section 7
// (config bits, length field fixed at 8) when there are bits; section 0 (attributes),
// always; section 6 (dynamic record key), always.
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "libvsk/attr/attr_codec.h"
#include "libvsk/store/records.h"

namespace vsk::store {

static_assert(sizeof(vsk_client_session_t) == VSK_DECODED_OBJECT_SIZE);
static_assert(offsetof(vsk_client_session_t, raw) == VSK_DECODED_OBJECT_SIZE - sizeof(void*));
static_assert(offsetof(vsk_client_session_t, service_count) == 8);
static_assert(offsetof(vsk_client_session_t, dynamic_id) == 24);
static_assert(offsetof(vsk_client_session_t, free_attr_values) == 48);

bool ConfigBitsPass(const uint8_t* bits, uint16_t bits_len, const uint8_t* mask,
                    uint16_t mask_len) {
  if (mask == nullptr || bits_len == 0) return true;
  // Bounded by the mask too: a short mask must not be read past its end.
  const uint16_t n = bits_len < mask_len ? bits_len : mask_len;
  for (uint16_t i = 0; i < n; ++i) {
    if ((mask[i] & bits[i]) != 0) return true;
  }
  return false;
}

std::optional<int> ReadVersion(base::ByteReader& r, bool check) {
  uint16_t version = 0;
  if (!r.Get(&version)) return 2;  // the caller sees a size mismatch
  if (check && version != VSK_RECORD_VERSION) return -1;
  return std::nullopt;
}

void WriteConfigBitsSection(RecordWriter& w, const uint8_t* bits, uint16_t bits_len) {
  if (bits_len == 0) return;
  base::ByteWriter p;
  // The length field is fixed at 8, whatever the true size.
  if (w.ReserveSection(VSK_SECTION_CONFIG_BITS, 8, 2u + bits_len, &p)) {
    p.Put<uint16_t>(bits_len);
    p.Bytes(bits, bits_len);
  }
}

void WriteAttrsSection(RecordWriter& w, uint32_t tag, const vsk_attr_list_t* attrs) {
  const uint32_t size = vsk::attr::AttrEntriesSize(attrs);
  base::ByteWriter p;
  if (w.ReserveSection(tag, size, size, &p)) vsk::attr::WriteAttrEntries(attrs, p);
}

void WriteIdSection(RecordWriter& w, uint32_t tag, uint64_t id) {
  base::ByteWriter p;
  if (w.ReserveSection(tag, 8, 8, &p)) p.Put<uint64_t>(id);
}

uint32_t EncodeClientRecord(const void* object, void* buffer, uint32_t room) {
  const auto* rec = static_cast<const vsk_client_session_t*>(object);
  RecordWriter w(buffer, room);
  w.PutVersion();
  if (rec->service_count != 0) {
    const uint32_t body = 2u + 8u * rec->service_count;
    base::ByteWriter p;
    if (w.ReserveSection(VSK_SECTION_SERVICE_IDS, body, body, &p)) {
      p.Put<uint16_t>(rec->service_count);
      p.Bytes(rec->service_ids, 8u * rec->service_count);
    }
  }
  WriteConfigBitsSection(w, rec->config_bits, rec->config_bits_len);
  WriteAttrsSection(w, VSK_SECTION_CLIENT_ATTRS, rec->attrs);
  WriteIdSection(w, VSK_SECTION_DYNAMIC_ID, rec->dynamic_id);
  return w.total();
}

int DecodeClientRecord(void* out, void* data, uint32_t size, const uint8_t* mask,
                       uint16_t mask_len) {
  auto** slot = static_cast<vsk_client_session_t**>(out);
  auto* rec = StartDecoded<vsk_client_session_t>(out, data);
  if (rec == nullptr) return VSK_ERR_NOMEM;
  base::ByteReader r(data, size);
  if (auto early = ReadVersion(r, true)) return *early;
  // A failure that gives the object up: released (not its buffer) and *out cleared.
  auto give_up = [&](int result) {
    vsk::store::ReleaseClientSession(rec, true);
    *slot = nullptr;
    return SectionVerdict::Return(result);
  };
  return WalkSections(r,
                      [&](uint32_t tag, uint32_t length, base::ByteReader& body) -> SectionVerdict {
                        switch (tag) {
                          case VSK_SECTION_CLIENT_ATTRS: {
                            base::ByteReader entries;
                            body.Slice(length, &entries);  // fits: the walk checked the length
                            const int result = vsk::attr::DecodeAttrEntries(entries, &rec->attrs);
                            return result != 0 ? give_up(result) : SectionVerdict::Next();
                          }
                          case VSK_SECTION_SERVICE_IDS: {
                            // The count is checked against the rest of the record, as the writers
                            // of old records expect; the walk then steps by the section's length.
                            if (body.remaining() < 3) return SectionVerdict::Return(-1);
                            base::ByteReader ids = body;
                            uint16_t count = 0;
                            ids.Get(&count);
                            if (count != 0 && 8u * count > ids.remaining()) return give_up(-1);
                            // The ids lie at an odd offset in the record; they get an aligned copy
                            // so that callers may index them as vsk_session_id_t.
                            std::free(rec->free_service_ids ? rec->service_ids : nullptr);
                            rec->service_ids = nullptr;
                            rec->free_service_ids = 0;
                            rec->service_count = count;
                            if (count != 0) {
                              auto* copy = static_cast<vsk_session_id_t*>(std::malloc(8u * count));
                              if (copy == nullptr) return SectionVerdict::Return(VSK_ERR_NOMEM);
                              ids.Bytes(copy, 8u * count);
                              rec->service_ids = copy;
                              rec->free_service_ids = 1;
                            }
                            body.Skip(length);
                            return SectionVerdict::Next();
                          }
                          case VSK_SECTION_DYNAMIC_ID: {
                            base::ByteReader id = body;
                            if (!id.Get(&rec->dynamic_id)) return SectionVerdict::Return(-1);
                            body.Skip(length);
                            return SectionVerdict::Next();
                          }
                          case VSK_SECTION_CONFIG_BITS: {
                            // The length field says 8 whatever the mask's size: step by the inner
                            // length. With too little left for a length and one byte the walk goes
                            // on at the next header.
                            if (body.remaining() < 5) return SectionVerdict::Next();
                            uint16_t n = 0;
                            const uint8_t* src = nullptr;
                            body.Get(&n);
                            if (!body.Take(n, &src)) return SectionVerdict::Return(-1);
                            auto* bits = static_cast<uint8_t*>(std::calloc(n + 1u, 1));
                            if (bits == nullptr) return SectionVerdict::Return(VSK_ERR_NOMEM);
                            std::memcpy(bits, src, n);
                            std::free(rec->config_bits);
                            rec->config_bits = bits;
                            rec->config_bits_len = n;
                            if (!ConfigBitsPass(bits, n, mask, mask_len)) {
                              return SectionVerdict::Return(VSK_ERR_SNAPSHOT_ONLY);
                            }
                            return SectionVerdict::Next();
                          }
                          default:
                            return SectionVerdict::StopBefore();
                        }
                      });
}

}  // namespace vsk::store
