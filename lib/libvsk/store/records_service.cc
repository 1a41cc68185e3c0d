// The service record: version; section 7 (config bits) when there are bits; section 2
// (attributes), always; section 3 (owning client id), always. Unlike the client record,
// the decoded config bits point into the record buffer.
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "libvsk/attr/attr_codec.h"
#include "libvsk/store/records.h"

namespace vsk::store {

static_assert(sizeof(vsk_service_session_t) == VSK_DECODED_OBJECT_SIZE);
static_assert(offsetof(vsk_service_session_t, raw) == VSK_DECODED_OBJECT_SIZE - sizeof(void*));

uint32_t EncodeServiceRecord(const void* object, void* buffer, uint32_t room) {
  const auto* rec = static_cast<const vsk_service_session_t*>(object);
  RecordWriter w(buffer, room);
  w.PutVersion();
  WriteConfigBitsSection(w, rec->config_bits, rec->config_bits_len);
  WriteAttrsSection(w, VSK_SECTION_SERVICE_ATTRS, rec->attrs);
  WriteIdSection(w, VSK_SECTION_CLIENT_ID, rec->client_id);
  return w.total();
}

int DecodeServiceRecord(void* out, void* data, uint32_t size, const uint8_t* mask,
                        uint16_t mask_len) {
  auto** slot = static_cast<vsk_service_session_t**>(out);
  auto* rec = StartDecoded<vsk_service_session_t>(out, data);
  if (rec == nullptr) return VSK_ERR_NOMEM;
  base::ByteReader r(data, size);
  if (auto early = ReadVersion(r, true)) return *early;
  return WalkSections(r,
                      [&](uint32_t tag, uint32_t length, base::ByteReader& body) -> SectionVerdict {
                        switch (tag) {
                          case VSK_SECTION_SERVICE_ATTRS: {
                            base::ByteReader entries;
                            body.Slice(length, &entries);  // fits: the walk checked the length
                            const int result = vsk::attr::DecodeAttrEntries(entries, &rec->attrs);
                            if (result == 0) return SectionVerdict::Next();
                            // Cleared here too, so that no caller can release the object a second
                            // time.
                            vsk::store::ReleaseServiceSession(rec, true);
                            *slot = nullptr;
                            return SectionVerdict::Return(result);
                          }
                          case VSK_SECTION_CLIENT_ID: {
                            base::ByteReader id = body;
                            if (!id.Get(&rec->client_id)) return SectionVerdict::Return(-1);
                            body.Skip(length);
                            return SectionVerdict::Next();
                          }
                          case VSK_SECTION_CONFIG_BITS: {
                            // As in the client record: step by the inner length, not the field's 8.
                            if (body.remaining() < 5) return SectionVerdict::Next();
                            uint16_t n = 0;
                            const uint8_t* bits = nullptr;
                            body.Get(&n);
                            if (!body.Take(n, &bits)) return SectionVerdict::Return(-1);
                            rec->config_bits_len = n;
                            rec->config_bits = const_cast<uint8_t*>(bits);
                            if (!ConfigBitsPass(rec->config_bits, n, mask, mask_len)) {
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
